// Fuzz target: the profile-use entry point on arbitrary stored words and
// counters.
//
// Input: byte 0 is the number of counters, byte 1 the number of blocks; the
// last 8 bytes per counter are the counter values (little-endian, missing
// bytes read as 0); the whole words between are the stored graph.
#include <string.h>

#include <vector>

#include "fuzz_common.h"

using quarl_fuzz::check_nothing_live;

namespace {

const uint64_t untouched = 0xdeadbeefcafef00dULL;

uint64_t read_counter(const uint8_t *bytes, size_t available)
{
    uint64_t value = 0;
    for (size_t i = 0; i < 8 && i < available; ++i)
        value |= uint64_t{bytes[i]} << (8 * i);
    return value;
}

// A block the stored words never mention must come back as 0.
void check_unmentioned_blocks(const std::vector<uint32_t> &words,
                              const std::vector<uint64_t> &blocks)
{
    QuarlEncodedGraph *encoded =
        quarl_encoded_graph_create_from_buffer(words.data(), static_cast<uint32_t>(words.size()));
    QuarlInstGraph *graph = quarl_inst_graph_create();
    FUZZ_CHECK(encoded != nullptr && graph != nullptr);
    FUZZ_CHECK(quarl_encoded_graph_decode(encoded, graph) == 1);
    for (uint32_t i = 0; i < blocks.size(); ++i)
        if (quarl_inst_graph_find_node_by_idx(graph, i) == nullptr)
            FUZZ_CHECK(blocks[i] == 0);
    quarl_inst_graph_delete(graph);
    quarl_encoded_graph_delete(encoded);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    uint32_t num_counters = data[0];
    uint32_t num_blocks = data[1];
    size_t rest = size - 2;
    size_t counter_bytes = 8 * size_t{num_counters};
    size_t word_bytes = rest > counter_bytes ? rest - counter_bytes : 0;

    // Exact-size heap arrays, so that any access past them is reported.
    std::vector<uint32_t> words(word_bytes / 4);
    if (!words.empty())
        memcpy(words.data(), data + 2, words.size() * 4);
    std::vector<uint64_t> counters(num_counters);
    const uint8_t *counter_data = data + 2 + word_bytes;
    size_t counter_available = size - 2 - word_bytes;
    for (uint32_t c = 0; c < num_counters; ++c)
        counters[c] = 8 * c < counter_available
                          ? read_counter(counter_data + 8 * c, counter_available - 8 * c)
                          : 0;
    std::vector<uint64_t> blocks(num_blocks, untouched);

    int32_t result = quarl_compute_blocks_from_edges(
        words.data(), static_cast<uint32_t>(words.size()), counters.data(), num_counters,
        blocks.data(), num_blocks);
    check_nothing_live();
    FUZZ_CHECK(result == 0 || result == 1);
    // The way through formulas, taken when traces are on, gives the same.
    std::vector<uint64_t> formula_blocks(num_blocks, untouched);
    FUZZ_CHECK(quarl_compute_blocks_with_formulas(words.data(), static_cast<uint32_t>(words.size()),
                                                  counters.data(), num_counters,
                                                  formula_blocks.data(), num_blocks) == result);
    FUZZ_CHECK(formula_blocks == blocks);
    check_nothing_live();
    if (result == 0) {
        for (uint64_t count : blocks)
            FUZZ_CHECK(count == untouched);
        return 0;
    }
    check_unmentioned_blocks(words, blocks);
    check_nothing_live();
    return 0;
}
