#include "heap_meter.h"

#include <malloc.h>

#include <cstddef>

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
void __libc_free(void *block);
}

namespace {
bool g_on = false;
int64_t g_live = 0;
quarl_bench::HeapUse g_use;

// What a block takes from the heap: its usable bytes and the allocator's
// header word in front of them. Counting the header is what makes many
// small blocks and one large one comparable.
int64_t footprint(void *block)
{
    return static_cast<int64_t>(malloc_usable_size(block) + sizeof(size_t));
}

void note_added(void *block)
{
    if (!g_on || block == nullptr)
        return;
    g_live += footprint(block);
    if (g_live > static_cast<int64_t>(g_use.peak_bytes))
        g_use.peak_bytes = static_cast<uint64_t>(g_live);
}

void note_removed(void *block)
{
    if (g_on && block != nullptr)
        g_live -= footprint(block);
}
} // namespace

extern "C" void *malloc(size_t size)
{
    void *block = __libc_malloc(size);
    g_use.allocations += g_on;
    note_added(block);
    return block;
}

extern "C" void *calloc(size_t count, size_t size)
{
    void *block = __libc_calloc(count, size);
    g_use.allocations += g_on;
    note_added(block);
    return block;
}

extern "C" void *realloc(void *block, size_t size)
{
    note_removed(block);
    void *grown = __libc_realloc(block, size);
    g_use.allocations += g_on && block == nullptr;
    note_added(grown != nullptr ? grown : block);
    return grown;
}

extern "C" void free(void *block)
{
    note_removed(block);
    __libc_free(block);
}

namespace quarl_bench {

// Blocks freed during the stretch that were allocated before it make the
// live total go below its start; the peak is measured from the start, so
// that only what the stretch itself holds counts.
void heap_meter_start()
{
    g_use = HeapUse();
    g_live = 0;
    g_on = true;
}

HeapUse heap_meter_stop()
{
    g_on = false;
    return g_use;
}

} // namespace quarl_bench
