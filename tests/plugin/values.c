/* Indirect calls and memory operations of unknown length in known
 * proportions, from four threads at once, for value profiles. Per thread,
 * of 1000 rounds: apply calls add 890 times, mul 100 and sub 10; copy
 * moves 8 bytes 500 times, 16 bytes 250 and 13 bytes 250 (a length the
 * optimiser cannot specialise for, so only counted in the total); same
 * compares 4 bytes 998 times and 0 bytes twice. */
#include <pthread.h>
#include <stdio.h>
#include <string.h>

#define THREADS 4
#define ROUNDS 1000

static volatile int sink;

static int add(int a, int b) { return a + b; }
static int sub(int a, int b) { return a - b; }
int mul(int a, int b) { return a * b; }

typedef int (*operation)(int, int);

__attribute__((noinline)) int apply(operation op, int a, int b) { return op(a, b); }

__attribute__((noinline)) void copy(char *to, const char *from, size_t n) { memcpy(to, from, n); }

__attribute__((noinline)) int same(const char *a, const char *b, size_t n) { return memcmp(a, b, n) == 0; }

/* One memset of unknown length, none of the other kinds. */
__attribute__((noinline)) void clear(char *to, size_t n)
{
    memset(to, 0, n);
    sink += (int)n;
}

static void *rounds(void *unused)
{
    char from[32] = "abcdefghijklmnopqrstuvwxyz", to[32];
    (void)unused;
    for (int i = 0; i < ROUNDS; ++i) {
        operation op = i % 10 == 0 ? mul : i % 100 == 1 ? sub : add;
        sink += apply(op, i, 3);
        copy(to, from, i % 4 == 0 ? 16 : i % 4 == 1 ? 13 : 8);
        sink += same(to, from, i % 500 == 0 ? 0 : 4);
        clear(to, 4);
    }
    return NULL;
}

int main(void)
{
    pthread_t threads[THREADS];
    for (int t = 0; t < THREADS; ++t)
        pthread_create(&threads[t], NULL, rounds, NULL);
    for (int t = 0; t < THREADS; ++t)
        pthread_join(threads[t], NULL);
    printf("%d\n", sink);
    return 0;
}
