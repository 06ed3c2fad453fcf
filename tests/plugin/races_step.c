/* The callee of races.c, in a file of its own so that its caller cannot
 * tell that it returns. */
int step(int value) { return value % 7 == 0 ? value / 7 : value + 1; }
