// What the tests of the matrix products share: the routines by name, a plain reference, matrices.
#pragma once

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "ksomd/matmul.h"
#include "support/seed.h"

namespace ksomd::test {

using Size = std::uint64_t;

struct Shape {
  Size m, n, k;
};

// One of the sixteen products: its routines, all of the same letters.
template <class Element>
struct Routines {
  using Entry = void (*)(const Element*, const Element*, Element*, Size m, Size k, Size n, Size lda,
                         Size ldb, Size ldp);
  using Kernel = void (*)(const Element*, const Element*, Element*, Size m, Size n, Size k,
                          Size lda, Size ldb, Size ldp);
  const char* name;
  bool a_transposed;
  bool b_transposed;
  Entry entry;
  Entry portable;  // NAME.A
  Entry packed;    // NAME.J, r8 only
  Kernel general;  // NAME_pst_General
  Kernel driver;   // NAME_QWide, r8 only
};

// The four layouts of an element type.
template <class Element>
const std::vector<Routines<Element>>& routines();

template <class Element>
using Clear = void (*)(Element*, Size m, Size n, Size ldp);
template <class Element>
Clear<Element> clear_routine();

// A matrix in a larger array: `leading` may exceed `rows`.
template <class Element>
struct Matrix {
  Size rows = 0;
  Size columns = 0;
  Size leading = 0;
  std::vector<Element> values;

  Matrix(Size row_count, Size column_count, Size padding)
      : rows(row_count),
        columns(column_count),
        leading(row_count + padding),
        values(static_cast<std::size_t>(leading * column_count) + 1) {}
  Element* data() { return values.data(); }
  const Element* data() const { return values.data(); }
};

// What the operands are filled with.
enum class Values {
  Wide,      // magnitudes and signs so mixed that a sum in another order has other bits
  Specials,  // many infinities, NaNs, zeros, subnormals, extremes
};

class Random {
 public:
  explicit Random(std::uint32_t seed) : engine_(seed_of(seed)) {}
  std::uint32_t below(std::uint32_t limit) { return engine_() % limit; }
  void fill(std::vector<float>& values, Values kind);
  void fill(std::vector<double>& values, Values kind);
  void fill(std::vector<ksomd_c4>& values, Values kind);
  void fill(std::vector<ksomd_c8>& values, Values kind);

 private:
  template <class Real>
  Real value(Values kind);
  template <class Real>
  Real special();
  std::mt19937 engine_;
};

// The loop nests of the contract, as plain as they can be written.
template <class Element>
void reference_general(const Routines<Element>& layout, const Element* a, const Element* b,
                       Element* p, const Shape& shape, Size lda, Size ldb, Size ldp);
// P = op(A) * op(B), portable.
template <class Element>
void reference_portable(const Routines<Element>& layout, const Element* a, const Element* b,
                        Element* p, const Shape& shape, Size lda, Size ldb, Size ldp);
// P = op(A) * op(B), packed.
void reference_packed(const Routines<double>& layout, const double* a, const double* b, double* p,
                      const Shape& shape, Size lda, Size ldb, Size ldp);
// y = op(A) * x.
void reference_vector(bool a_transposed, const double* a, const double* x, double* y, Size m,
                      Size k, std::int64_t lda, std::int64_t incx);

// The builtin's product.
ksomd_c4 builtin_product(ksomd_c4 x, ksomd_c4 y);
ksomd_c8 builtin_product(ksomd_c8 x, ksomd_c8 y);

// Where two arrays differ in a bit, NaN counting as NaN; empty if nowhere.
template <class Element>
std::string difference(const Element* got, const Element* expected, std::size_t count);
template <class Element>
std::string difference(const std::vector<Element>& got, const std::vector<Element>& expected) {
  return difference(got.data(), expected.data(), expected.size());
}

// Whether the long form of the tests was asked for.
bool full_length();

// Memory whose last byte lies before a page that cannot be touched.
class Guarded {
 public:
  explicit Guarded(std::size_t bytes);
  ~Guarded();
  Guarded(const Guarded&) = delete;
  Guarded& operator=(const Guarded&) = delete;
  void* end() const { return end_; }

 private:
  void* pages_;
  std::size_t size_;
  void* end_;
};

}  // namespace ksomd::test
