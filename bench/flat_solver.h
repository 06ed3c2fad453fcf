// The floor that profile use is measured against: a worklist solver over
// flat arrays that does the same job on the same stored words and counters
// and gives the same block counts on well-formed input, with no checks and
// no diagnostics.
#pragma once

#include <cstdint>

namespace quarl_bench {

// Decodes the successor records (c_encode16, c_encode32, c_encode96) into
// arrays, then repeatedly takes a node with exactly one edge of unknown
// count and fixes that edge by flow conservation; a block's count is the
// sum of its incoming edges. Returns false if some edge stays unknown.
bool flat_solve_block_counts(const uint32_t *words, uint32_t length, const uint64_t *counters,
                             uint64_t *block_counts, uint32_t num_blocks);

} // namespace quarl_bench
