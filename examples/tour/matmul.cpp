#include "ksomd/matmul.h"

#include <cstdio>

#include "sections.h"

// MATMUL(TRANSPOSE(X), Y) without a temporary copy: the letter t says how X is stored.
void tour::show_matmul() {
  const double x[] = {1, 2, 3, 4, 5, 6};  // 3 x 2, column by column
  const double y[] = {1, 0, 0, 0, 1, 1};  // 3 x 2
  double product[4];
  _MATMUL_r8_t_n(x, y, product, 2, 3, 2, 3, 3, 2);
  std::printf("\nMatrix products\n  transpose(X) * Y = %g %g\n                     %g %g\n",
              product[0], product[2], product[1], product[3]);
}
