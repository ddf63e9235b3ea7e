// Digests of matrix products: the sixteen entries and their second stages, the drivers over packed
// panels and the matrix-vector products, in all rounding modes.
#include <type_traits>
#include <vector>

#include "ksomd/matmul.h"
#include "matrix_digest.h"

namespace ksomd::test {
namespace {

using Size = std::uint64_t;

template <class Element>
using Entry = void (*)(const Element*, const Element*, Element*, Size, Size, Size, Size, Size,
                       Size);

extern "C" {
#define KSOMD_DECLARE(code, element, a, b)                                                   \
  void portable_##code##_##a##_##b(const element*, const element*, element*, Size m, Size k, \
                                   Size n, Size lda, Size ldb,                               \
                                   Size ldp) __asm__("_MATMUL_" #code "_" #a "_" #b ".A");
KSOMD_MATMUL_EACH(KSOMD_DECLARE)
#undef KSOMD_DECLARE
#define KSOMD_DECLARE(code, element, a, b)                                                         \
  void packed_##code##_##a##_##b(const element*, const element*, element*, Size m, Size k, Size n, \
                                 Size lda, Size ldb,                                               \
                                 Size ldp) __asm__("_MATMUL_" #code "_" #a "_" #b ".J");
KSOMD_MATMUL_EACH_R8(KSOMD_DECLARE)
#undef KSOMD_DECLARE
}

// Around the blocks of 128, the panels of 4 and the chunks of 112. The larger ones are for the
// packed path: emulators take long over them.
constexpr struct Shape {
  Size m, k, n;
} shapes[] = {{1, 1, 1},   {3, 5, 2},   {7, 0, 4},    {8, 8, 8},     {17, 33, 9},
              {130, 9, 3}, {5, 131, 2}, {35, 38, 39}, {36, 113, 40}, {35, 230, 39}};
constexpr Size large = 60000;

void set_random(float& value, DigestRandom& random) {
  value = static_cast<float>(random.number());
}
void set_random(double& value, DigestRandom& random) {
  value = random.number();
}
template <class Complex>
void set_random(Complex& value, DigestRandom& random) {
  set_random(value.re, random);
  set_random(value.im, random);
}

template <class Element>
std::vector<Element> matrix(DigestRandom& random, Size count) {
  std::vector<Element> values(count + 1);
  for (Element& value : values) {
    set_random(value, random);
  }
  return values;
}

template <class Element>
void digest_entry(const std::string& name, Entry<Element> routine, int effort) {
  Digest digest;
  for (int mode = 0; mode < rounding_modes; ++mode) {
    DigestRandom random(31);
    for (const Shape& shape : shapes) {
      if (shape.m * shape.k * shape.n > large &&
          (effort == 1 || !std::is_same_v<Element, double>)) {
        continue;
      }
      const Size leading = shape.m + shape.k + shape.n + 1;
      const auto a = matrix<Element>(random, leading * (shape.m + shape.k));
      const auto b = matrix<Element>(random, leading * (shape.n + shape.k));
      auto p = matrix<Element>(random, leading * shape.n);
      in_mode(digest, mode, [&] {
        routine(a.data(), b.data(), p.data(), shape.m, shape.k, shape.n, leading, leading, leading);
      });
      digest.add(p.data(), p.size() * sizeof(Element));
    }
  }
  print_digest("matmul." + name, digest);
}

void digest_vectors() {
  constexpr Size m = 67;
  constexpr Size k = 131;
  constexpr Size leading = 140;
  Digest digest;
  for (int mode = 0; mode < rounding_modes; ++mode) {
    DigestRandom random(8);
    const auto a = matrix<double>(random, leading * leading);
    const auto x = matrix<double>(random, 3 * leading);
    std::vector<double> y(leading);
    in_mode(digest, mode, [&] { MATMUL_v_nn_pst(a.data(), x.data(), y.data(), m, k, leading); });
    digest.add(y.data(), y.size() * sizeof(double));
    in_mode(digest, mode, [&] { MATMUL_v_tn_pst(a.data(), x.data(), y.data(), k, m, leading); });
    digest.add(y.data(), y.size() * sizeof(double));
    in_mode(digest, mode, [&] { MATMUL_v_nt_pst(a.data(), x.data(), y.data(), m, k, leading, 3); });
    digest.add(y.data(), y.size() * sizeof(double));
    in_mode(digest, mode, [&] { MATMUL_v_tt_pst(a.data(), x.data(), y.data(), k, m, leading, 2); });
    digest.add(y.data(), y.size() * sizeof(double));
  }
  print_digest("matmul.vector", digest);
}

}  // namespace

void digest_matmul(int effort) {
#define KSOMD_DIGEST(code, element, a, b)                                         \
  digest_entry<element>(#code "_" #a "_" #b, _MATMUL_##code##_##a##_##b, effort); \
  digest_entry<element>(#code "_" #a "_" #b ".A", portable_##code##_##a##_##b, effort);
  KSOMD_MATMUL_EACH(KSOMD_DIGEST)
#undef KSOMD_DIGEST
#define KSOMD_DIGEST(code, element, a, b) \
  digest_entry<element>(#code "_" #a "_" #b ".J", packed_##code##_##a##_##b, effort);
  KSOMD_MATMUL_EACH_R8(KSOMD_DIGEST)
#undef KSOMD_DIGEST
  digest_vectors();
}

}  // namespace ksomd::test
