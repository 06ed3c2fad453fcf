// Counts the heap use of a stretch of code: the program's malloc, calloc,
// realloc and free are wrapped (glibc), and while a meter is on they count
// allocations and track the bytes live and their peak.
#pragma once

#include <cstdint>

namespace quarl_bench {

struct HeapUse {
    uint64_t allocations = 0; // malloc, calloc, and realloc of a new block
    uint64_t peak_bytes = 0;  // highest live total above the start: usable
                              // bytes plus the allocator's header word per block
};

void heap_meter_start();
HeapUse heap_meter_stop();

} // namespace quarl_bench
