#include "matmul_support.h"

#include <bit>
#include <cmath>
#include <cstdlib>
#include <limits>

extern "C" {
// The dotted names have no spelling in the language.
#define KSOMD_DOTTED(code, element, a, b)                                                        \
  void dotted_A_##code##_##a##_##b(const element*, const element*, element*, uint64_t, uint64_t, \
                                   uint64_t, uint64_t, uint64_t,                                 \
                                   uint64_t) __asm__("_MATMUL_" #code "_" #a "_" #b ".A");
KSOMD_MATMUL_EACH(KSOMD_DOTTED)
#undef KSOMD_DOTTED
#define KSOMD_DOTTED(code, element, a, b)                                                        \
  void dotted_J_##code##_##a##_##b(const element*, const element*, element*, uint64_t, uint64_t, \
                                   uint64_t, uint64_t, uint64_t,                                 \
                                   uint64_t) __asm__("_MATMUL_" #code "_" #a "_" #b ".J");
KSOMD_MATMUL_EACH_R8(KSOMD_DOTTED)
#undef KSOMD_DOTTED
}

namespace ksomd::test {
namespace {

float multiply(float x, float y) {
  return x * y;
}
double multiply(double x, double y) {
  return x * y;
}
// The builtin raises exceptions in lanes that nothing uses: it is asked only for what differs from
// the plain formula, and for values only.
template <class Element>
Element complex_product(Element x, Element y) {
  const Element plain = plain_product(x, y);
  if (!std::isnan(plain.re) || !std::isnan(plain.im)) {
    return plain;
  }
  const unsigned before = __builtin_ia32_stmxcsr();
  const Element recovered = builtin_product(x, y);
  __builtin_ia32_ldmxcsr(before);
  return recovered;
}
ksomd_c4 multiply(ksomd_c4 x, ksomd_c4 y) {
  return complex_product(x, y);
}
ksomd_c8 multiply(ksomd_c8 x, ksomd_c8 y) {
  return complex_product(x, y);
}

float plus(float x, float y) {
  return x + y;
}
double plus(double x, double y) {
  return x + y;
}
ksomd_c4 plus(ksomd_c4 x, ksomd_c4 y) {
  return {x.re + y.re, x.im + y.im};
}
ksomd_c8 plus(ksomd_c8 x, ksomd_c8 y) {
  return {x.re + y.re, x.im + y.im};
}

template <class Element>
struct Operands {
  const Routines<Element>& layout;
  const Element* a;
  const Element* b;
  Size lda, ldb;

  const Element& left(Size i, Size l) const {
    return layout.a_transposed ? a[l + i * lda] : a[i + l * lda];
  }
  const Element& right(Size l, Size j) const {
    return layout.b_transposed ? b[j + l * ldb] : b[l + j * ldb];
  }
  Element product(Size i, Size j, Size l) const { return multiply(left(i, l), right(l, j)); }
};

}  // namespace

ksomd_c4 builtin_product(ksomd_c4 x, ksomd_c4 y) {
  const auto z = __mulsc3(x.re, x.im, y.re, y.im);
  return {__real__ z, __imag__ z};
}

ksomd_c8 builtin_product(ksomd_c8 x, ksomd_c8 y) {
  const auto z = __muldc3(x.re, x.im, y.re, y.im);
  return {__real__ z, __imag__ z};
}

ksomd_c4 plain_product(ksomd_c4 x, ksomd_c4 y) {
  return {x.re * y.re - x.im * y.im, x.re * y.im + x.im * y.re};
}

ksomd_c8 plain_product(ksomd_c8 x, ksomd_c8 y) {
  return {x.re * y.re - x.im * y.im, x.re * y.im + x.im * y.re};
}

#define KSOMD_ROW(code, element, a, b, packed, driver) \
  {"_MATMUL_" #code "_" #a "_" #b,                     \
   #a[0] == 't',                                       \
   #b[0] == 't',                                       \
   _MATMUL_##code##_##a##_##b,                         \
   dotted_A_##code##_##a##_##b,                        \
   packed,                                             \
   _MATMUL_##code##_##a##_##b##_pst_General,           \
   driver},
#define KSOMD_TABLE(code, element)                                     \
  template <>                                                          \
  const std::vector<Routines<element>>& routines<element>() {          \
    static const std::vector<Routines<element>> table = {              \
        KSOMD_ROW(code, element, n, n, nullptr, nullptr)               \
            KSOMD_ROW(code, element, t, n, nullptr, nullptr)           \
                KSOMD_ROW(code, element, n, t, nullptr, nullptr)       \
                    KSOMD_ROW(code, element, t, t, nullptr, nullptr)}; \
    return table;                                                      \
  }                                                                    \
  template <>                                                          \
  Clear<element> clear_routine<element>() {                            \
    return _MATMUL_##code##_n_n_pst_init;                              \
  }
KSOMD_TABLE(r4, float)
KSOMD_TABLE(c4, ksomd_c4)
KSOMD_TABLE(c8, ksomd_c8)

#define KSOMD_ROW_R8(code, element, a, b) \
  KSOMD_ROW(code, element, a, b, dotted_J_##code##_##a##_##b, _MATMUL_##code##_##a##_##b##_QWide)
template <>
const std::vector<Routines<double>>& routines<double>() {
  static const std::vector<Routines<double>> table = {KSOMD_MATMUL_EACH_R8(KSOMD_ROW_R8)};
  return table;
}
template <>
Clear<double> clear_routine<double>() {
  return _MATMUL_r8_n_n_pst_init;
}

// ---- values -------------------------------------------------------------------------------------

template <class Real>
Real Random::special() {
  using Limits = std::numeric_limits<Real>;
  static constexpr Real table[] = {0,
                                   -Real{0},
                                   Limits::infinity(),
                                   -Limits::infinity(),
                                   Limits::quiet_NaN(),
                                   Limits::denorm_min(),
                                   -Limits::denorm_min(),
                                   Limits::min() / 4,
                                   Limits::max(),
                                   Limits::lowest(),
                                   1,
                                   -1};
  return table[below(std::size(table))];
}

// A step of splitmix64: fast, and any seed will do.
std::uint64_t Random::bits() {
  state_ += 0x9E3779B97F4A7C15;
  std::uint64_t x = state_;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EB;
  return x ^ (x >> 31);
}

template <class Real>
Real Random::value(Values kind) {
  if ((kind == Values::Specials && below(12) == 0) || (kind == Values::Rare && below(400) == 0)) {
    return special<Real>();
  }
  // Sign and fraction are random, the exponent is within twelve of its middle.
  using Bits = std::conditional_t<sizeof(Real) == 4, std::uint32_t, std::uint64_t>;
  constexpr int fraction_bits = std::numeric_limits<Real>::digits - 1;
  constexpr int bias = std::numeric_limits<Real>::max_exponent - 1;
  const int middle = kind == Values::Tiny ? bias / 2 + 1 : bias;
  const auto exponent = static_cast<Bits>(middle - 12 + static_cast<int>(below(24)));
  constexpr Bits kept = static_cast<Bits>(~(Bits{2 * bias + 1} << fraction_bits));
  return std::bit_cast<Real>(
      static_cast<Bits>((static_cast<Bits>(bits()) & kept) | (exponent << fraction_bits)));
}

void Random::fill(std::vector<float>& values, Values kind) {
  for (float& x : values) {
    x = value<float>(kind);
  }
}
void Random::fill(std::vector<double>& values, Values kind) {
  for (double& x : values) {
    x = value<double>(kind);
  }
}
void Random::fill(std::vector<ksomd_c4>& values, Values kind) {
  for (ksomd_c4& x : values) {
    x = {value<float>(kind), value<float>(kind)};
  }
}
void Random::fill(std::vector<ksomd_c8>& values, Values kind) {
  for (ksomd_c8& x : values) {
    x = {value<double>(kind), value<double>(kind)};
  }
}

// ---- reference ----------------------------------------------------------------------------------

template <class Element>
void reference_general(const Routines<Element>& layout, const Element* a, const Element* b,
                       Element* p, const Shape& shape, Size lda, Size ldb, Size ldp) {
  const auto [m, n, k] = shape;
  const Operands<Element> x{layout, a, b, lda, ldb};
  if (layout.a_transposed && layout.b_transposed) {
    for (Size j = 0; j < n; ++j) {
      for (Size i = 0; i < m; ++i) {
        Element s{};
        for (Size l = 0; l < k; ++l) {
          s = plus(s, x.product(i, j, l));
        }
        p[i + j * ldp] = plus(p[i + j * ldp], s);
      }
    }
    return;
  }
  for (Size row = 0; row < m; row += 128) {
    for (Size depth = 0; depth < k; depth += 128) {
      const Size row_end = std::min(m, row + 128);
      const Size end = std::min(k, depth + 128);
      const Size groups_end = depth + (end - depth) / 4 * 4;
      for (Size j = 0; j < n; ++j) {
        if (layout.a_transposed) {
          for (Size i = row; i < row_end; ++i) {
            Element s = p[i + j * ldp];
            for (Size l = depth; l < end; ++l) {
              s = plus(s, x.product(i, j, l));
            }
            p[i + j * ldp] = s;
          }
          continue;
        }
        Size l = depth;
        for (; l < groups_end; l += 4) {
          for (Size i = row; i < row_end; ++i) {
            p[i + j * ldp] =
                plus(plus(plus(plus(p[i + j * ldp], x.product(i, j, l)), x.product(i, j, l + 1)),
                          x.product(i, j, l + 2)),
                     x.product(i, j, l + 3));
          }
        }
        for (; l < end; ++l) {
          for (Size i = row; i < row_end; ++i) {
            p[i + j * ldp] = plus(p[i + j * ldp], x.product(i, j, l));
          }
        }
      }
    }
  }
}

template <class Element>
void reference_portable(const Routines<Element>& layout, const Element* a, const Element* b,
                        Element* p, const Shape& shape, Size lda, Size ldb, Size ldp) {
  for (Size j = 0; j < shape.n; ++j) {
    for (Size i = 0; i < shape.m; ++i) {
      p[i + j * ldp] = Element{};
    }
  }
  reference_general(layout, a, b, p, shape, lda, ldb, ldp);
}

namespace {

// One element of the packed product.
double packed_element(const Operands<double>& x, const Shape& shape, Size i, Size j) {
  const auto [m, n, k] = shape;
  if (j >= n / 4 * 4) {
    double y = 0;
    for (Size l = 0; l < k; ++l) {
      y = y + x.product(i, j, l);
    }
    return y;
  }
  const Size tail = k % 112 == 0 ? 112 : k % 112;
  double p = 0;
  for (Size chunk = 0; chunk * 112 <= k - tail; ++chunk) {
    const bool first = chunk == 0;
    const Size start = first ? k - tail : (chunk - 1) * 112;
    const Size length = first ? tail : 112;
    const bool tile = i < m / 4 * 4;
    const bool from_zero = tile || (x.layout.a_transposed && x.layout.b_transposed);
    double sum = from_zero ? 0 : p;
    for (Size l = start; l < start + length; ++l) {
      sum = sum + x.product(i, j, l);
    }
    // The padding of a tail whose length is no multiple of four.
    for (Size l = length; tile && l % 4 != 0; ++l) {
      sum = sum + 0.0;
    }
    if (tile) {
      p = first ? sum : sum + p;
    } else {
      p = from_zero ? p + sum : sum;
    }
  }
  return p;
}

}  // namespace

void reference_packed(const Routines<double>& layout, const double* a, const double* b, double* p,
                      const Shape& shape, Size lda, Size ldb, Size ldp) {
  if (shape.m < 34 || shape.n < 38 || shape.k < 38) {
    reference_portable(layout, a, b, p, shape, lda, ldb, ldp);
    return;
  }
  const Operands<double> x{layout, a, b, lda, ldb};
  for (Size j = 0; j < shape.n; ++j) {
    for (Size i = 0; i < shape.m; ++i) {
      p[i + j * ldp] = packed_element(x, shape, i, j);
    }
  }
}

void reference_vector(bool a_transposed, const double* a, const double* x, double* y, Size rows,
                      Size depth, std::int64_t lda, std::int64_t incx) {
  const auto m = static_cast<std::int64_t>(rows);
  const auto k = static_cast<std::int64_t>(depth);
  for (std::int64_t i = 0; i < m; ++i) {
    y[i] = 0;
  }
  if (a_transposed) {
    for (std::int64_t i = 0; i < m; ++i) {
      double s = y[i];
      for (std::int64_t l = 0; l < k; ++l) {
        s = s + a[l + i * lda] * x[l * incx];
      }
      y[i] = s;
    }
  } else {
    for (std::int64_t l = 0; l < k; ++l) {
      for (std::int64_t i = 0; i < m; ++i) {
        y[i] = y[i] + a[i + l * lda] * x[l * incx];
      }
    }
  }
}

// ---- comparison ---------------------------------------------------------------------------------

namespace {

template <class Real>
std::string real_difference(const Real* got, const Real* expected, std::size_t count) {
  using Bits = std::conditional_t<sizeof(Real) == 4, std::uint32_t, std::uint64_t>;
  for (std::size_t i = 0; i < count; ++i) {
    const bool same = std::isnan(expected[i])
                          ? std::isnan(got[i])
                          : std::bit_cast<Bits>(got[i]) == std::bit_cast<Bits>(expected[i]);
    if (!same) {
      char text[160];
      std::snprintf(text, sizeof text, "value %zu: %a (0x%llx) instead of %a (0x%llx)", i,
                    static_cast<double>(got[i]),
                    static_cast<unsigned long long>(std::bit_cast<Bits>(got[i])),
                    static_cast<double>(expected[i]),
                    static_cast<unsigned long long>(std::bit_cast<Bits>(expected[i])));
      return text;
    }
  }
  return "";
}

}  // namespace

template <>
std::string difference(const float* got, const float* expected, std::size_t count) {
  return real_difference(got, expected, count);
}
template <>
std::string difference(const double* got, const double* expected, std::size_t count) {
  return real_difference(got, expected, count);
}
template <>
std::string difference(const ksomd_c4* got, const ksomd_c4* expected, std::size_t count) {
  return real_difference(&got->re, &expected->re, 2 * count);
}
template <>
std::string difference(const ksomd_c8* got, const ksomd_c8* expected, std::size_t count) {
  return real_difference(&got->re, &expected->re, 2 * count);
}

// ---- rows of the kernel table -------------------------------------------------------------------

const std::vector<const matmul::Variant*>& kernel_rows() {
  static const std::vector<const matmul::Variant*> rows = [] {
    std::vector<const matmul::Variant*> found;
    const std::uint64_t features = feature_word();
    for (Size row = 0; row < matmul::variant_count; ++row) {
      const matmul::Variant* variant = matmul::variants[row];
      const bool served = (variant->required & features) == variant->required;
      std::printf("kernels \"%s\": %s\n", variant->name,
                  served ? "tested" : "SKIPPED, not on this processor");
      if (served) {
        found.push_back(variant);
      }
    }
    return found;
  }();
  return rows;
}

#define KSOMD_INSTANTIATE(element)                                                           \
  template void reference_general(const Routines<element>&, const element*, const element*,  \
                                  element*, const Shape&, Size, Size, Size);                 \
  template void reference_portable(const Routines<element>&, const element*, const element*, \
                                   element*, const Shape&, Size, Size, Size);
KSOMD_INSTANTIATE(float)
KSOMD_INSTANTIATE(double)
KSOMD_INSTANTIATE(ksomd_c4)
KSOMD_INSTANTIATE(ksomd_c8)

}  // namespace ksomd::test
