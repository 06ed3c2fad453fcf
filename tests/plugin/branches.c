/* Branches taken in known ratios, for profile use: each function runs
 * 100 times from main, so its branch weights are the ratios themselves. */
#include <stdio.h>

static volatile int sink;

/* 99:1 */
__attribute__((noinline)) void mostly(int i)
{
    if (i % 100 != 0)
        sink += 1;
    else
        sink -= 1;
}

/* 50:50 */
__attribute__((noinline)) void halves(int i)
{
    if (i & 1)
        sink += 2;
    else
        sink -= 2;
}

/* never taken: 0:100 */
__attribute__((noinline)) void never(int i)
{
    if (i < 0)
        sink += 3;
    else
        sink -= 3;
}

/* a hot case: 1 each for cases 0, 1, 3 and the default, 96 for case 2,
 * and case 4 shares case 2's block */
__attribute__((noinline)) void dispatch(int i)
{
    switch (i < 4 ? i : i == 4 ? 5 : 2) {
    case 0: sink += 1; break;
    case 1: sink += 2; break;
    case 2:
    case 4: sink += 3; break;
    case 3: sink += 4; break;
    default: sink += 5; break;
    }
}

/* 1:99 against a hint that says the opposite: the profile wins */
__attribute__((noinline)) void hinted(int i)
{
    if (__builtin_expect(i % 100 == 0, 1))
        sink += 7;
    else
        sink -= 7;
}

/* cases 2 and 3 share a block and still have a count each: 60 for the
 * default, then 10 for each case */
__attribute__((noinline)) int shared(int i)
{
    switch (i % 10) {
    case 0: return 7;
    case 1: return 8;
    case 2:
    case 3: return 9;
    default: return 10;
    }
}

/* never called: entry count 0 */
__attribute__((noinline)) void unused(int i)
{
    if (i)
        sink += 6;
}

int main(void)
{
    for (int i = 0; i < 100; ++i) {
        mostly(i);
        halves(i);
        never(i);
        dispatch(i);
        hinted(i);
        sink += shared(i);
    }
    printf("%d\n", sink);
    return 0;
}
