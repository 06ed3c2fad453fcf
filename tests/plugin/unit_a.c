/* Several translation units with static functions of the same name. */
static int helper(int x) { return x > 3 ? x * 2 : x + 1; }
int unit_a(int x) { return helper(x) + helper(x + 1); }
