// What a pair of an element type and an operation does to arrays whose elements lie side by side.
#pragma once

#include <cstdint>
#include <utility>

#include "vec/reduction_operations.h"
#include "vec/reduction_types.h"

namespace ksomd::reduction {

template <class T, class Operation>
void fill(void* array, std::uint64_t count) {
  constexpr T value = identity<T, Operation::identity>();
  for (std::uint64_t i = 0; i < count; ++i) {
    store(array, i, value);
  }
}

// Floating-point elements are combined in vectors only, so that every one of them gets the same
// instruction. A rest shorter than a vector is folded one by one, beside zeros: no operation raises
// a flag for those.
template <class T, class Operation>
void fold_floats(void* destination, const void* source, std::uint64_t count) {
  constexpr std::uint64_t lanes = sizeof(Vector<T>) / sizeof(T);
  auto* d = static_cast<char*>(destination);
  const auto* s = static_cast<const char*>(source);
  const auto advance = [&](std::uint64_t elements) {
    d += elements * sizeof(T);
    s += elements * sizeof(T);
    count -= elements;
  };
  while (count >= 2 * lanes) {
    const auto low = Operation::apply(load<Vector<T>>(d, 0), load<Vector<T>>(s, 0));
    const auto high = Operation::apply(load<Vector<T>>(d, 1), load<Vector<T>>(s, 1));
    store(d, 0, low);
    store(d, 1, high);
    advance(2 * lanes);
  }
  if (count >= lanes) {
    store(d, 0, Operation::apply(load<Vector<T>>(d, 0), load<Vector<T>>(s, 0)));
    advance(lanes);
  }
  while (count > 0) {
    store<T>(d, 0, Operation::apply(Vector<T>{load<T>(d, 0)}, Vector<T>{load<T>(s, 0)})[0]);
    advance(1);
  }
}

// The real parts and the imaginary parts of as many complex numbers as a vector has lanes.
template <class T>
using ComplexVector = Complex<Vector<T>>;

template <class T>
ComplexVector<T> product(ComplexVector<T> d, ComplexVector<T> s) {
  return {multiply(d.re, s.re) - multiply(d.im, s.im),
          add(multiply(d.re, s.im), multiply(d.im, s.re))};
}

// From two vectors of complex numbers as they lie in memory, and back.
template <class T>
ComplexVector<T> separate(Vector<T> low, Vector<T> high) {
  if constexpr (sizeof(T) == 4) {
    return {__builtin_shufflevector(low, high, 0, 2, 4, 6),
            __builtin_shufflevector(low, high, 1, 3, 5, 7)};
  } else {
    return {__builtin_shufflevector(low, high, 0, 2), __builtin_shufflevector(low, high, 1, 3)};
  }
}
template <class T>
std::pair<Vector<T>, Vector<T>> interleave(ComplexVector<T> a) {
  if constexpr (sizeof(T) == 4) {
    return {__builtin_shufflevector(a.re, a.im, 0, 4, 1, 5),
            __builtin_shufflevector(a.re, a.im, 2, 6, 3, 7)};
  } else {
    return {__builtin_shufflevector(a.re, a.im, 0, 2), __builtin_shufflevector(a.re, a.im, 1, 3)};
  }
}

template <class T>
void fold_complex_product(void* destination, const void* source, std::uint64_t count) {
  constexpr std::uint64_t lanes = sizeof(Vector<T>) / sizeof(T);
  const auto pair = [](const void* array, std::uint64_t i) {
    return separate<T>(load<Vector<T>>(array, i), load<Vector<T>>(array, i + 1));
  };
  std::uint64_t i = 0;
  for (; count - i >= lanes; i += lanes) {
    const std::uint64_t v = 2 * i / lanes;
    const auto [low, high] = interleave<T>(product<T>(pair(destination, v), pair(source, v)));
    store(destination, v, low);
    store(destination, v + 1, high);
  }
  for (; i < count; ++i) {
    const auto d = load<Complex<T>>(destination, i);
    const auto s = load<Complex<T>>(source, i);
    const auto r =
        product<T>({Vector<T>{d.re}, Vector<T>{d.im}}, {Vector<T>{s.re}, Vector<T>{s.im}});
    store(destination, i, Complex<T>{r.re[0], r.im[0]});
  }
}

template <class T, class Operation>
void fold(void* destination, const void* source, std::uint64_t count) {
  if constexpr (is_complex<T> && !std::is_same_v<Operation, Product>) {
    fold<typename T::Component, Operation>(destination, source, 2 * count);
  } else if constexpr (is_float<T>) {
    fold_floats<T, Operation>(destination, source, count);
  } else if constexpr (std::is_same_v<T, Complex<quad128>>) {
    auto* d = static_cast<T*>(destination);
    const auto* s = static_cast<const T*>(source);
    for (std::uint64_t i = 0; i < count; ++i, ++d, ++s) {
      __cmulq(reinterpret_cast<cquad128*>(d), &d->re, &d->im, &s->re, &s->im);
    }
  } else if constexpr (is_complex<T>) {
    fold_complex_product<typename T::Component>(destination, source, count);
  } else if constexpr (is_quad<T>) {
    auto* d = static_cast<T*>(destination);
    const auto* s = static_cast<const T*>(source);
    for (std::uint64_t i = 0; i < count; ++i, ++d, ++s) {
      Operation::apply(d, s);
    }
  } else {  // integers: the compiler makes 128-bit vector code of this
    for (std::uint64_t i = 0; i < count; ++i) {
      store(destination, i, Operation::apply(load<T>(destination, i), load<T>(source, i)));
    }
  }
}

}  // namespace ksomd::reduction
