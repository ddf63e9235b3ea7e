#include "ksomd/quad.h"

#include <cstdio>

#include "sections.h"

namespace {

// Decimal digits of a number between 0 and 10, each by quad operations.
void print_digits(quad128 x, int digits) {
  quad128 ten;
  __itoq(&ten, 10);
  for (int i = 0; i < digits; ++i) {
    const int digit = __qtoi(&x, KSOMD_ROUND_TOWARD_ZERO);
    std::printf(i == 0 ? "%d." : "%d", digit);
    quad128 whole;
    __itoq(&whole, digit);
    __subq(&x, &x, &whole);
    __mulq(&x, &x, &ten);
  }
}

}  // namespace

void tour::show_quad() {
  std::printf("\nQuad precision\n");

  // The square root of 2 by Newton's method, from 1: x = (x + 2 / x) / 2.
  quad128 two;
  quad128 x;
  __itoq(&two, 2);
  __itoq(&x, 1);
  for (int step = 0; step < 7; ++step) {
    quad128 quotient;
    __divq(&quotient, &two, &x);
    __addq(&x, &x, &quotient);
    __divq(&x, &x, &two);
  }
  std::printf("  sqrt(2) after 7 Newton steps  ");
  print_digits(x, 33);
  std::printf("\n  the same as a double          %.17g\n", __qtod(&x));

  // (1 + 2i) / (3 + 4i), whose parts are passed by addresses of their own.
  cquad128 a;
  cquad128 b;
  __itoq(&a.re, 1);
  __itoq(&a.im, 2);
  __itoq(&b.re, 3);
  __itoq(&b.im, 4);
  cquad128 quotient;
  __cdivq(&quotient, &a.re, &a.im, &b.re, &b.im);
  std::printf("  (1 + 2i) / (3 + 4i)           %g + %gi\n", __qtod(&quotient.re),
              __qtod(&quotient.im));
}
