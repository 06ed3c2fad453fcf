// Allocation and invariant checks shared by the whole module.
#undef NDEBUG // the assertion handler's declaration is wanted in every build
#include <assert.h>
#include <stdio.h>
#include <stdlib.h>

#include "edgeinst_internal.h"

#ifdef QUARL_FAULT_INJECTION
#include <atomic>

namespace {
// Atomic so that thread tests may run on the fault-injection build too.
std::atomic<uint64_t> g_fail_at{0};
std::atomic<uint64_t> g_attempts{0};
std::atomic<bool> g_triggered{false};
std::atomic<int64_t> g_live{0};

bool injected_failure()
{
    uint64_t attempt = g_attempts.fetch_add(1) + 1;
    uint64_t fail_at = g_fail_at.load();
    if (fail_at != 0 && attempt == fail_at) {
        g_triggered.store(true);
        return true;
    }
    return false;
}
} // namespace

extern "C" void quarl_fault_fail_nth(uint64_t n)
{
    g_attempts.store(0);
    g_triggered.store(false);
    g_fail_at.store(n);
}

extern "C" uint64_t quarl_fault_attempts(void) { return g_attempts.load(); }
extern "C" bool quarl_fault_triggered(void) { return g_triggered.load(); }
extern "C" int64_t quarl_fault_live_blocks(void) { return g_live.load(); }

#define QUARL_FAIL_HERE() injected_failure()
#define QUARL_COUNT_LIVE(delta) g_live.fetch_add(delta)
#else
#define QUARL_FAIL_HERE() false
#define QUARL_COUNT_LIVE(delta) ((void)0)
#endif

namespace {
// Every zero-byte request gets this address: a zero-length block is never a
// failure and never a heap block, so nothing is left to release for it.
unsigned char g_empty_block;

bool is_empty_block(const void *block) { return block == &g_empty_block; }
} // namespace

extern "C" void *quarl_mem_alloc(size_t size)
{
    if (size == 0)
        return &g_empty_block;
    if (QUARL_FAIL_HERE())
        return nullptr;
    void *block = malloc(size);
    if (block != nullptr)
        QUARL_COUNT_LIVE(1);
    return block;
}

extern "C" void *quarl_mem_alloc_zeroed(size_t count, size_t size)
{
    if (count == 0 || size == 0)
        return &g_empty_block;
    if (QUARL_FAIL_HERE())
        return nullptr;
    void *block = calloc(count, size);
    if (block != nullptr)
        QUARL_COUNT_LIVE(1);
    return block;
}

extern "C" void *quarl_mem_realloc(void *block, size_t size)
{
    if (size == 0) {
        quarl_mem_free(block);
        return &g_empty_block;
    }
    if (is_empty_block(block))
        block = nullptr;
    if (QUARL_FAIL_HERE())
        return nullptr;
    void *grown = realloc(block, size);
    if (grown != nullptr && block == nullptr)
        QUARL_COUNT_LIVE(1);
    return grown;
}

extern "C" void quarl_mem_free(void *block)
{
    if (block == nullptr || is_empty_block(block))
        return;
    QUARL_COUNT_LIVE(-1);
    free(block);
}

extern "C" void quarl_assert_fail(const char *expression, unsigned int line,
                                  const char *function)
{
#if defined(__GLIBC__)
    __assert_fail(expression, "edgeinst", line, function);
#else
    fprintf(stderr, "edgeinst:%u: %s: Assertion `%s' failed.\n", line, function, expression);
    fflush(stderr);
    abort();
#endif
}
