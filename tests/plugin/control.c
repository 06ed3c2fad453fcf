/* Nested loops, a switch with shared case blocks and fall-through, early
 * returns, recursion, goto, a static helper that -O2 inlines, and exit()
 * two calls down from inside a loop when given an argument; mix() makes
 * only calls that come back, so it needs no counter but its entry's; spin()
 * becomes a block that branches back to itself once simplified. */
#include <stdio.h>
#include <stdlib.h>

static int classify(int x)
{
    switch (x % 7) {
    case 0:
    case 1:
        return 1;
    case 2:
        x += 3; /* fall through */
    case 3:
        return x & 1;
    case 4:
        if (x > 40)
            return 7;
        break;
    default:
        return -1;
    }
    return 0;
}

static unsigned fib(unsigned n) { return n < 2 ? n : fib(n - 1) + fib(n - 2); }

static int search(const int *values, int count, int wanted)
{
    int i = 0;
again:
    if (i >= count)
        return -1;
    if (values[i] == wanted)
        goto found;
    ++i;
    goto again;
found:
    return i;
}

static int scaled(int x) { return x * 3 + 1; }

static int mix(int x) { return scaled(scaled(x)) + abs(scaled(-x)); }

static unsigned spin(unsigned n)
{
    unsigned x = 1;
again:
    x = x * 3 + n;
    if (--n != 0)
        goto again;
    return x;
}

static void leave_at(int i, int stop)
{
    if (stop && i == 77)
        exit(3);
}

static void checkpoint(int i, int stop) { leave_at(i, stop); }

int main(int argc, char **argv)
{
    long total = 0;
    int values[32];
    for (int i = 0; i < 32; ++i)
        values[i] = (i * 37) % 23;
    for (int i = 0; i < 120; ++i) {
        for (int j = 0; j < i % 9; ++j) {
            if (j == 5)
                continue;
            total += classify(i * j + 1);
        }
        total += search(values, 32, i % 25) + mix(i) + spin(i % 5 + 1);
        checkpoint(i, argc > 1);
    }
    printf("%ld %u\n", total, fib(15));
    return 0;
}
