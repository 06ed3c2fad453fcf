/* Several translation units with static functions of the same name, kept
 * out of line so that each has its own record at every -O level. */
static __attribute__((noinline)) int helper(int x) { return x > 3 ? x * 2 : x + 1; }
int unit_a(int x) { return helper(x) + helper(x + 1); }
