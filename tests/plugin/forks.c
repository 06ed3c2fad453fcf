/* A forked child counts only what it runs after the fork. */
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

static int work(int n)
{
    int sum = 0;
    for (int i = 0; i < n; ++i)
        sum += i % 3 == 0 ? i : 1;
    return sum;
}

int main(void)
{
    int before = work(10);
    pid_t child = fork();
    if (child == 0)
        return work(5) > 0 ? 0 : 1;
    int status = 0;
    waitpid(child, &status, 0);
    printf("%d %d\n", before, work(7));
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
