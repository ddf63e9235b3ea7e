// What the tests of the matrix products share: the routines by name, a plain reference, matrices.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "ksomd/matmul.h"
#include "matmul/kernels.h"
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
  // Elements from the first to the last.
  std::size_t used() const {
    return rows == 0 || columns == 0 ? 0 : static_cast<std::size_t>((columns - 1) * leading + rows);
  }
  Element* data() { return values.data(); }
  const Element* data() const { return values.data(); }
};

// What the operands are filled with.
enum class Values {
  Wide,      // magnitudes and signs so mixed that a sum in another order has other bits
  Tiny,      // the same, with products about the smallest normal number
  Specials,  // many infinities, NaNs, zeros, subnormals, extremes
  Rare,      // few of them, so that deep sums do not all end as NaN
};

class Random {
 public:
  explicit Random(std::uint64_t seed) : state_(seed_of(static_cast<std::uint32_t>(seed))) {}
  std::uint32_t below(std::uint32_t limit) {
    return static_cast<std::uint32_t>(((bits() >> 32) * limit) >> 32);
  }
  void fill(std::vector<float>& values, Values kind);
  void fill(std::vector<double>& values, Values kind);
  void fill(std::vector<ksomd_c4>& values, Values kind);
  void fill(std::vector<ksomd_c8>& values, Values kind);

 private:
  template <class Real>
  Real value(Values kind);
  template <class Real>
  Real special();
  std::uint64_t bits();
  std::uint64_t state_;
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
// (ac - bd) + i(ad + bc), each operation rounded by itself.
ksomd_c4 plain_product(ksomd_c4 x, ksomd_c4 y);
ksomd_c8 plain_product(ksomd_c8 x, ksomd_c8 y);

// Where two arrays differ in a bit, NaN counting as NaN; empty if nowhere.
template <class Element>
std::string difference(const Element* got, const Element* expected, std::size_t count);
template <class Element>
std::string difference(const std::vector<Element>& got, const std::vector<Element>& expected) {
  return difference(got.data(), expected.data(), expected.size());
}

// ---- rows of the kernel table -------------------------------------------------------------------

// The rows that this processor can run, best first.
const std::vector<const matmul::Variant*>& kernel_rows();

// Puts a row in use until the end of the scope. No product may be under way meanwhile.
class UseRow {
 public:
  explicit UseRow(const matmul::Variant* row) : before_(matmul::variant_slot) {
    matmul::variant_slot = row;
  }
  ~UseRow() { matmul::variant_slot = before_; }
  UseRow(const UseRow&) = delete;
  UseRow& operator=(const UseRow&) = delete;

 private:
  const matmul::Variant* before_;
};

// ---- floating-point modes -----------------------------------------------------------------------

inline constexpr unsigned flush_to_zero = 0x8000;
inline constexpr unsigned denormals_are_zero = 0x0040;
inline constexpr unsigned denormal_operand_flag = 0x0002;
inline constexpr unsigned all_flags = 0x003F;
constexpr unsigned rounding(unsigned mode) {
  return mode << 13;
}

// Sets MXCSR, all exceptions masked, until the end of the scope.
class FloatMode {
 public:
  explicit FloatMode(unsigned bits) : before_(__builtin_ia32_stmxcsr()) {
    __builtin_ia32_ldmxcsr(0x1F80 | bits);
  }
  ~FloatMode() { __builtin_ia32_ldmxcsr(before_); }
  FloatMode(const FloatMode&) = delete;
  FloatMode& operator=(const FloatMode&) = delete;

 private:
  unsigned before_;
};

// The exception flags that `body` raises, but for that of denormal operands.
template <class Body>
unsigned flags_of(const Body& body) {
  __builtin_ia32_ldmxcsr(__builtin_ia32_stmxcsr() & ~all_flags);
  body();
  return __builtin_ia32_stmxcsr() & all_flags & ~denormal_operand_flag;
}

}  // namespace ksomd::test
