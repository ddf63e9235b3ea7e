// Matrix products for C++20: column-major views, and one `multiply` for the four element types and
// the four layouts of <ksomd/matmul.h>, chosen while compiling.
//
//   std::vector<double> a(m * k), b(k * n), p(m * n);
//   ksomd::MatrixView A(a.data(), m, k), B(b.data(), k, n), P(p.data(), m, n);
//   bool done = ksomd::multiply(A, B, P);                       // P = A B
//   done = ksomd::multiply(ksomd::transposed(P), A, Q);         // Q = P^T A
//
// Header only. It checks extents and calls the exported entries, so these products have their order
// of operations, rounding and flags.
#ifndef KSOMD_MATMUL_HPP
#define KSOMD_MATMUL_HPP

#include <ksomd/matmul.h>

#include <complex>
#include <concepts>
#include <cstdint>
#include <type_traits>

/// The C++ companions of the C headers.
namespace ksomd {

/// @cond
namespace matrix {

// The element as the exported entries take it.
template <class T>
struct Element {
  using type = T;
};
template <>
struct Element<std::complex<float>> {
  using type = ksomd_c4;
};
template <>
struct Element<std::complex<double>> {
  using type = ksomd_c8;
};
template <class T>
using element_t = Element<std::remove_const_t<T>>::type;

template <class T>
inline constexpr bool is_element = false;
template <>
inline constexpr bool is_element<float> = true;
template <>
inline constexpr bool is_element<double> = true;
template <>
inline constexpr bool is_element<ksomd_c4> = true;
template <>
inline constexpr bool is_element<ksomd_c8> = true;

}  // namespace matrix
/// @endcond

/// float, double, std::complex of either, ksomd_c4 or ksomd_c8; const or not.
template <class T>
concept MatrixElement = matrix::is_element<matrix::element_t<T>>;

/// A column-major matrix in memory that the view does not own: element (i, j) is
/// data[i + j * leading]. Everything counts elements. The data need the alignment of T.
template <MatrixElement T>
class MatrixView {
 public:
  /// Columns that lie `leading` elements apart.
  constexpr MatrixView(T* data, std::uint64_t rows, std::uint64_t columns,
                       std::uint64_t leading) noexcept
      : data_(data), rows_(rows), columns_(columns), leading_(leading) {}
  /// Columns without gaps.
  constexpr MatrixView(T* data, std::uint64_t rows, std::uint64_t columns) noexcept
      : MatrixView(data, rows, columns, rows) {}
  /// A view for reading, from one for writing.
  constexpr operator MatrixView<const T>() const noexcept
    requires(!std::is_const_v<T>)
  {
    return {data_, rows_, columns_, leading_};
  }

  /// The address of element (0, 0).
  constexpr T* data() const noexcept { return data_; }
  /// Elements in a column.
  constexpr std::uint64_t rows() const noexcept { return rows_; }
  /// Elements in a row.
  constexpr std::uint64_t columns() const noexcept { return columns_; }
  /// The distance of the starts of adjacent columns.
  constexpr std::uint64_t leading() const noexcept { return leading_; }
  /// Whether columns overlap none of their neighbours.
  constexpr bool is_valid() const noexcept { return leading_ >= rows_; }
  /// Element (i, j), unchecked.
  constexpr T& operator()(std::uint64_t i, std::uint64_t j) const noexcept {
    return data_[i + j * leading_];
  }
  /// The `rows` x `columns` elements from (i, j) on, unchecked.
  constexpr MatrixView block(std::uint64_t i, std::uint64_t j, std::uint64_t rows,
                             std::uint64_t columns) const noexcept {
    return {data_ + i + j * leading_, rows, columns, leading_};
  }

 private:
  T* data_;
  std::uint64_t rows_;
  std::uint64_t columns_;
  std::uint64_t leading_;
};

/// A matrix that stands for its transpose; no element is moved, and none conjugated.
template <MatrixElement T>
struct Transposed {
  MatrixView<T> stored;  ///< The matrix as it lies in memory.
  /// Rows of the transpose.
  constexpr std::uint64_t rows() const noexcept { return stored.columns(); }
  /// Columns of the transpose.
  constexpr std::uint64_t columns() const noexcept { return stored.rows(); }
};

/// The transpose of a matrix as an operand of multiply.
template <MatrixElement T>
constexpr Transposed<T> transposed(const MatrixView<T>& matrix) noexcept {
  return {matrix};
}
/// The matrix itself again.
template <MatrixElement T>
constexpr MatrixView<T> transposed(const Transposed<T>& matrix) noexcept {
  return matrix.stored;
}

/// @cond
namespace matrix {

template <class T>
constexpr MatrixView<T> stored(const MatrixView<T>& operand) noexcept {
  return operand;
}
template <class T>
constexpr MatrixView<T> stored(const Transposed<T>& operand) noexcept {
  return operand.stored;
}

template <class Operand>
inline constexpr char letter = 'n';
template <class T>
inline constexpr char letter<Transposed<T>> = 't';

template <class Operand>
struct Value;
template <class T>
struct Value<MatrixView<T>> {
  using type = std::remove_const_t<T>;
};
template <class T>
struct Value<Transposed<T>> {
  using type = std::remove_const_t<T>;
};

template <class Element>
using Entry = void (*)(const Element*, const Element*, Element*, std::uint64_t, std::uint64_t,
                       std::uint64_t, std::uint64_t, std::uint64_t, std::uint64_t);

template <class Element, char A, char B>
inline constexpr Entry<Element> entry = nullptr;
#define KSOMD_MATRIX_LETTER_n 'n'
#define KSOMD_MATRIX_LETTER_t 't'
#define KSOMD_MATRIX_ENTRY(code, element, a, b)                          \
  template <>                                                            \
  inline constexpr Entry<element>                                        \
      entry<element, KSOMD_MATRIX_LETTER_##a, KSOMD_MATRIX_LETTER_##b> = \
          _MATMUL_##code##_##a##_##b;
KSOMD_MATMUL_EACH(KSOMD_MATRIX_ENTRY)
#undef KSOMD_MATRIX_ENTRY
#undef KSOMD_MATRIX_LETTER_n
#undef KSOMD_MATRIX_LETTER_t

}  // namespace matrix
/// @endcond

/// P = A B, where A and B are MatrixViews or Transposed ones of the result's element type.
///
/// True if the product was computed. False, with nothing touched, if the extents disagree (A is not
/// P.rows() x k or B not k x P.columns() for one k) or if a leading dimension is smaller than the
/// rows it spans. Extents of zero are valid; k = 0 fills P with zeros.
///
/// P overlaps neither operand; this is not checked. Only the elements of P are written, nothing in
/// the gaps between its columns. May run on any number of threads at once, on distinct results.
template <class A, class B, MatrixElement T>
  requires(!std::is_const_v<T> && std::same_as<typename matrix::Value<A>::type, T> &&
           std::same_as<typename matrix::Value<B>::type, T>)
[[nodiscard]] bool multiply(const A& a, const B& b, const MatrixView<T>& p) noexcept {
  if (a.rows() != p.rows() || b.columns() != p.columns() || a.columns() != b.rows() ||
      !matrix::stored(a).is_valid() || !matrix::stored(b).is_valid() || !p.is_valid()) {
    return false;
  }
  using Element = matrix::element_t<T>;
  // std::complex has the layout of an array of its two parts, and so have the entries' elements.
  const auto* from_a = reinterpret_cast<const Element*>(matrix::stored(a).data());
  const auto* from_b = reinterpret_cast<const Element*>(matrix::stored(b).data());
  matrix::entry<Element, matrix::letter<A>, matrix::letter<B>>(
      from_a, from_b, reinterpret_cast<Element*>(p.data()), p.rows(), a.columns(), p.columns(),
      matrix::stored(a).leading(), matrix::stored(b).leading(), p.leading());
  return true;
}

}  // namespace ksomd

#endif
