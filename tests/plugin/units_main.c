#include <stdio.h>
int unit_a(int x);
int unit_b(int x);
static __attribute__((noinline)) int helper(int x) { return x % 3 == 0; }
int main(void)
{
    int total = 0;
    for (int i = 0; i < 25; ++i)
        total += helper(i) ? unit_a(i) : unit_b(i);
    printf("%d\n", total);
    return 0;
}
