// The element types and the operations of a reduction, and what each pair does to an array.
#pragma once

#include <cstdint>
#include <limits>
#include <type_traits>

#include "ksomd/quad.h"

namespace ksomd::reduction {

// ---- element types ------------------------------------------------------------------------------

template <class T>
struct Complex {
  using Component = T;
  T re;
  T im;
};

template <class T>
inline constexpr bool is_complex = false;
template <class T>
inline constexpr bool is_complex<Complex<T>> = true;
template <class T>
inline constexpr bool is_quad = std::is_same_v<T, quad128>;

// Arrays have whatever alignment they have: their elements are read and written bytewise.
template <class T>
T load_element(const void* array, std::uint64_t index) {
  T element;
  __builtin_memcpy(&element, static_cast<const char*>(array) + index * sizeof(T), sizeof element);
  return element;
}

template <class T>
void store_element(void* array, std::uint64_t index, T element) {
  __builtin_memcpy(static_cast<char*>(array) + index * sizeof(T), &element, sizeof element);
}

template <class T>
constexpr T zero() {
  return T{};
}
template <class T>
constexpr T one() {
  if constexpr (is_quad<T>) {
    return {0, 0x3FFF000000000000};
  } else if constexpr (is_complex<T>) {
    return {one<typename T::Component>(), zero<typename T::Component>()};
  } else {
    return T{1};
  }
}
template <class T>
constexpr T highest() {
  if constexpr (is_quad<T>) {
    return {~std::uint64_t{0}, 0x7FFEFFFFFFFFFFFF};
  } else if constexpr (is_complex<T>) {
    return {highest<typename T::Component>(), highest<typename T::Component>()};
  } else {
    return std::numeric_limits<T>::max();
  }
}
template <class T>
constexpr T lowest() {
  if constexpr (is_quad<T>) {
    return {~std::uint64_t{0}, 0xFFFEFFFFFFFFFFFF};
  } else if constexpr (is_complex<T>) {
    return {lowest<typename T::Component>(), lowest<typename T::Component>()};
  } else {
    return std::numeric_limits<T>::lowest();
  }
}
template <class T>
constexpr T all_ones() {
  return static_cast<T>(-1);
}

// The type that integer arithmetic wraps around in; wide enough that nothing is promoted to int.
template <class T, bool = std::is_integral_v<T>>
struct Wrapping {
  using Type = T;
};
template <class T>
struct Wrapping<T, true> {
  using Type = std::conditional_t<sizeof(T) < 4, std::uint32_t, std::make_unsigned_t<T>>;
};
template <class T>
constexpr auto wrapping(T a) {
  return static_cast<Wrapping<T>::Type>(a);
}

// ---- operations ---------------------------------------------------------------------------------
//
// `allowed<T>`: whether T has it. `identity<T>()`. `apply(d, s)` for T other than quad and complex;
// `apply(d, s)` on pointers for quads, where there is one.

template <class T>
inline constexpr bool any_type = true;
template <class T>
inline constexpr bool ordered_type = !std::is_same_v<T, Complex<quad128>>;
template <class T>
inline constexpr bool native_type = !is_quad<T> && ordered_type<T>;
template <class T>
inline constexpr bool integer_type = std::is_integral_v<T>;

struct Sum {
  template <class T>
  static constexpr bool allowed = any_type<T>;
  template <class T>
  static constexpr T identity() {
    return zero<T>();
  }
  template <class T>
  static T apply(T d, T s) {
    return static_cast<T>(wrapping(d) + wrapping(s));
  }
  static void apply(quad128* d, const quad128* s) { __addq(d, d, s); }
};

struct Product {
  template <class T>
  static constexpr bool allowed = any_type<T>;
  template <class T>
  static constexpr T identity() {
    return one<T>();
  }
  template <class T>
  static T apply(T d, T s) {
    return static_cast<T>(wrapping(d) * wrapping(s));
  }
  template <class T>
  static Complex<T> apply(Complex<T> d, Complex<T> s) {
    return {d.re * s.re - d.im * s.im, d.re * s.im + d.im * s.re};
  }
  static void apply(quad128* d, const quad128* s) { __mulq(d, d, s); }
};

struct Difference {
  template <class T>
  static constexpr bool allowed = any_type<T>;
  template <class T>
  static constexpr T identity() {
    return zero<T>();
  }
  template <class T>
  static T apply(T d, T s) {
    return static_cast<T>(wrapping(d) - wrapping(s));
  }
  static void apply(quad128* d, const quad128* s) { __subq(d, d, s); }
};

// Equal values keep d and a NaN gives s; for quads it is the other way round.
struct Maximum {
  template <class T>
  static constexpr bool allowed = ordered_type<T>;
  template <class T>
  static constexpr T identity() {
    return lowest<T>();
  }
  template <class T>
  static T apply(T d, T s) {
    return s <= d ? d : s;
  }
  static void apply(quad128* d, const quad128* s) {
    if (__leq(d, s) != 0) {
      *d = *s;
    }
  }
};

struct Minimum {
  template <class T>
  static constexpr bool allowed = ordered_type<T>;
  template <class T>
  static constexpr T identity() {
    return highest<T>();
  }
  template <class T>
  static T apply(T d, T s) {
    return d <= s ? d : s;
  }
  static void apply(quad128* d, const quad128* s) {
    if (__geq(d, s) != 0) {
      *d = *s;
    }
  }
};

// Both operands are always looked at: flags do not depend on the first.
struct LogicalAnd {
  template <class T>
  static constexpr bool allowed = native_type<T>;
  template <class T>
  static constexpr T identity() {
    return one<T>();
  }
  template <class T>
  static T apply(T d, T s) {
    return (static_cast<int>(d != T{0}) & static_cast<int>(s != T{0})) != 0 ? T{1} : T{0};
  }
};

struct LogicalOr {
  template <class T>
  static constexpr bool allowed = native_type<T>;
  template <class T>
  static constexpr T identity() {
    return zero<T>();
  }
  template <class T>
  static T apply(T d, T s) {
    return (static_cast<int>(d != T{0}) | static_cast<int>(s != T{0})) != 0 ? T{1} : T{0};
  }
};

struct And {
  template <class T>
  static constexpr bool allowed = integer_type<T>;
  template <class T>
  static constexpr T identity() {
    return all_ones<T>();
  }
  template <class T>
  static T apply(T d, T s) {
    return static_cast<T>(d & s);
  }
};

struct Or {
  template <class T>
  static constexpr bool allowed = integer_type<T>;
  template <class T>
  static constexpr T identity() {
    return zero<T>();
  }
  template <class T>
  static T apply(T d, T s) {
    return static_cast<T>(d | s);
  }
};

struct Xor {
  template <class T>
  static constexpr bool allowed = integer_type<T>;
  template <class T>
  static constexpr T identity() {
    return zero<T>();
  }
  template <class T>
  static T apply(T d, T s) {
    return static_cast<T>(d ^ s);
  }
};

struct Equal {
  template <class T>
  static constexpr bool allowed = native_type<T>;
  template <class T>
  static constexpr T identity() {
    return one<T>();
  }
  template <class T>
  static T apply(T d, T s) {
    return d == s ? T{1} : T{0};
  }
};

struct NotEqual {
  template <class T>
  static constexpr bool allowed = native_type<T>;
  template <class T>
  static constexpr T identity() {
    return zero<T>();
  }
  template <class T>
  static T apply(T d, T s) {
    return d != s ? T{1} : T{0};
  }
};

// ---- arrays -------------------------------------------------------------------------------------

template <class T, class Operation>
void fill(void* array, std::uint64_t count) {
  constexpr T identity = Operation::template identity<T>();
  for (std::uint64_t i = 0; i < count; ++i) {
    store_element(array, i, identity);
  }
}

// Folds elements that lie side by side; the loops become 128-bit vector code.
template <class T, class Operation>
void fold(void* destination, const void* source, std::uint64_t count) {
  if constexpr (is_complex<T> && !std::is_same_v<Operation, Product>) {
    fold<typename T::Component, Operation>(destination, source, 2 * count);
  } else {
    for (std::uint64_t i = 0; i < count; ++i) {
      if constexpr (is_quad<T>) {
        Operation::apply(static_cast<T*>(destination) + i, static_cast<const T*>(source) + i);
      } else if constexpr (std::is_same_v<T, Complex<quad128>>) {
        auto* d = static_cast<T*>(destination) + i;
        const auto* s = static_cast<const T*>(source) + i;
        __cmulq(reinterpret_cast<cquad128*>(d), &d->re, &d->im, &s->re, &s->im);
      } else {
        const T element = load_element<T>(source, i);
        store_element(destination, i, Operation::apply(load_element<T>(destination, i), element));
      }
    }
  }
}

}  // namespace ksomd::reduction
