/* setjmp and longjmp across functions, inside a loop. */
#include <setjmp.h>
#include <stdio.h>

static jmp_buf again;
static int depth;

static void dive(int n)
{
    if (n == 0) {
        ++depth;
        longjmp(again, depth);
    }
    dive(n - 1);
}

int main(void)
{
    volatile int rounds = 0;
    int value = setjmp(again);
    if (value < 6) {
        rounds += value;
        dive(value % 3);
    }
    for (int i = 0; i < 4; ++i)
        if (setjmp(again) == 0)
            dive(i);
    printf("%d %d\n", rounds, depth);
    return 0;
}
