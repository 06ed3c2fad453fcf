/* Two threads call a function of another file in a loop, with plain
 * counters: increments are lost to the race, and the counts derived from
 * the counters contradict each other. */
#include <pthread.h>
#include <stdio.h>

int step(int value); /* races_step.c */

static void *spin(void *arg)
{
    int value = *(int *)arg;
    for (int i = 0; i < 3000000; ++i) {
        if (value & 1)
            value = step(value + i);
        else
            value += i & 3;
    }
    *(int *)arg = value;
    return NULL;
}

int main(void)
{
    int values[2] = {1, 2};
    pthread_t threads[2];
    for (int t = 0; t < 2; ++t)
        pthread_create(&threads[t], NULL, spin, &values[t]);
    for (int t = 0; t < 2; ++t)
        pthread_join(threads[t], NULL);
    printf("%d %d\n", values[0], values[1]);
    return 0;
}
