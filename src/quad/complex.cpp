// Complex arithmetic and comparisons, every step a quad operation. Results are stored last: they
// may overlay operands.
#include "quad/operation.h"
#include "quad/product.h"
#include "quad/quotient.h"
#include "quad/sum.h"
#include "second_names.h"

using namespace ksomd::quad;

namespace {

// One copy of each kernel for all routines here.
template <class Operation>
[[gnu::noinline]] quad128 call(quad128 a, quad128 b) {
  return apply<Operation>(a, b);
}
constexpr auto* sum = call<Sum>;
constexpr auto* difference = call<Difference>;
constexpr auto* product = call<Product>;
constexpr auto* quotient = call<Quotient>;

constexpr quad128 one = {0, std::uint64_t{bias} << 48};

bool same_bits(const quad128* a, const quad128* b) {
  return ((a->high ^ b->high) | (a->low ^ b->low)) == 0;
}

}  // namespace

void __caddq(cquad128* r, const quad128* a_re, const quad128* a_im, const quad128* b_re,
             const quad128* b_im) {
  const quad128 re = sum(*a_re, *b_re);
  const quad128 im = sum(*a_im, *b_im);
  *r = {re, im};
}
KSOMD_SECOND_NAMES(__caddq);

void __csubq(cquad128* r, const quad128* a_re, const quad128* a_im, const quad128* b_re,
             const quad128* b_im) {
  const quad128 re = difference(*a_re, *b_re);
  const quad128 im = difference(*a_im, *b_im);
  *r = {re, im};
}
KSOMD_SECOND_NAMES(__csubq);

void __cmulq(cquad128* r, const quad128* a_re, const quad128* a_im, const quad128* b_re,
             const quad128* b_im) {
  const quad128 re_re = product(*a_re, *b_re);
  const quad128 re_im = product(*a_re, *b_im);
  const quad128 im_im = product(*a_im, *b_im);
  const quad128 im_re = product(*a_im, *b_re);
  const quad128 re = difference(re_re, im_im);
  const quad128 im = sum(re_im, im_re);
  *r = {re, im};
}
KSOMD_SECOND_NAMES(__cmulq);

void __cdivq(cquad128* r, const quad128* a_re, const quad128* a_im, const quad128* b_re,
             const quad128* b_im) {
  const quad128 c_squared = product(*b_re, *b_re);
  const quad128 d_squared = product(*b_im, *b_im);
  const quad128 inverse = quotient(one, sum(c_squared, d_squared));
  const quad128 pc = product(*a_re, *b_re);
  const quad128 qd = product(*a_im, *b_im);
  const quad128 qc = product(*a_im, *b_re);
  const quad128 pd = product(*a_re, *b_im);
  const quad128 x = sum(pc, qd);
  const quad128 y = difference(qc, pd);
  const quad128 re = product(x, inverse);
  const quad128 im = product(y, inverse);
  *r = {re, im};
}
KSOMD_SECOND_NAMES(__cdivq);

void __cnegq(cquad128* r, const quad128* a_re, const quad128* a_im) {
  const quad128 re = {a_re->low, a_re->high ^ sign_bit};
  const quad128 im = {a_im->low, a_im->high ^ sign_bit};
  *r = {re, im};
}
KSOMD_SECOND_NAMES(__cnegq);

std::int32_t __ceqq(const quad128* a_re, const quad128* a_im, const quad128* b_re,
                    const quad128* b_im) {
  return __eqq(a_re, b_re) & __eqq(a_im, b_im);
}

std::int32_t __cneq(const quad128* a_re, const quad128* a_im, const quad128* b_re,
                    const quad128* b_im) {
  return __neq(a_re, b_re) | __neq(a_im, b_im);
}

std::int32_t a_ceqq(const quad128* a_re, const quad128* a_im, const quad128* b_re,
                    const quad128* b_im) {
  return same_bits(a_re, b_re) && same_bits(a_im, b_im);
}

std::int32_t a_cneq(const quad128* a_re, const quad128* a_im, const quad128* b_re,
                    const quad128* b_im) {
  return !a_ceqq(a_re, a_im, b_re, b_im);
}
