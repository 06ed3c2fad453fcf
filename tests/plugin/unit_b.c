static __attribute__((noinline)) int helper(int x)
{
    int sum = 0;
    for (int i = 0; i < x; ++i)
        sum += i & 1 ? i : -i;
    return sum;
}
int unit_b(int x) { return helper(x); }
