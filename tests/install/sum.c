/* A C program with the sum of two quads, or without it, to be compared in size. */
#include <ksomd/quad.h>

int main(void) {
  const quad128 one = {0, 0x3FFF000000000000};
  quad128 sum = one;
#ifdef WITH_SUM
  __addq(&sum, &one, &one);
  sum.high -= 1ull << 48;
#endif
  return sum.high != one.high;
}
