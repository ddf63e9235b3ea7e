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

// Combines one element. A floating-point element goes into the lowest lane of a vector, so that all
// such elements get the same instruction. The zeros in the other lanes raise no flag.
template <class T, class Operation>
void fold_element(void* destination, const void* source, std::uint64_t i) {
  const T d = load<T>(destination, i);
  const T s = load<T>(source, i);
  if constexpr (is_float<T>) {
    store<T>(destination, i, Operation::apply(Vector<T>{d}, Vector<T>{s})[0]);
  } else {
    store<T>(destination, i, Operation::apply(d, s));
  }
}

// Arrays too large for a second-level cache are prefetched one block ahead. Processors prefetch by
// themselves, but not across the ends of pages.
inline constexpr std::uint64_t far_bytes = 512 << 10;
inline constexpr std::uint64_t block_bytes = 1024;
inline void prefetch_block(const char* destination, const char* source) {
  for (std::uint64_t line = 0; line < block_bytes; line += 64) {
    __builtin_prefetch(destination + line);
    __builtin_prefetch(source + line);
  }
}

// The last vector overlaps the one before it, so it is computed before anything is stored:
//
//     | vector | vector | vector | vector | rest |
//                                     |   last   |
template <class T, class Operation>
void fold_vectors(void* destination, const void* source, std::uint64_t count) {
  using V = Vector<T>;
  constexpr std::uint64_t lanes = sizeof(V) / sizeof(T);
  auto* d = static_cast<char*>(destination);
  const auto* s = static_cast<const char*>(source);
  if (count < lanes) {
    for (std::uint64_t i = 0; i < count; ++i) {
      fold_element<T, Operation>(d, s, i);
    }
    return;
  }
  const auto combined = [](const char* a, const char* b, std::uint64_t i) {
    return Operation::apply(load<V>(a, i), load<V>(b, i));
  };
  const std::uint64_t from_end = count * sizeof(T) - sizeof(V);
  char* const last_place = d + from_end;
  const V last = combined(last_place, s + from_end, 0);
  constexpr std::uint64_t round = 8 * lanes;
  const bool is_far = count * sizeof(T) >= far_bytes;
  while (count >= round) {
    if (is_far) {
      prefetch_block(d + block_bytes, s + block_bytes);
    }
    constexpr std::uint64_t block = block_bytes / sizeof(T);
    const std::uint64_t rounds = (count < block ? count : block) / round;
    for (std::uint64_t r = 0; r < rounds; ++r) {
#pragma clang loop unroll(full)
      for (std::uint64_t i = 0; i < 8; ++i) {
        store(d, i, combined(d, s, i));
      }
      d += 8 * sizeof(V);
      s += 8 * sizeof(V);
    }
    count -= rounds * round;
  }
  for (; count >= lanes; count -= lanes) {
    store(d, 0, combined(d, s, 0));
    d += sizeof(V);
    s += sizeof(V);
  }
  store(last_place, 0, last);
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
#pragma clang loop unroll_count(4)
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
  } else if constexpr (one_by_one<T, Operation>) {
#pragma clang loop vectorize(disable) unroll_count(4)
    for (std::uint64_t i = 0; i < count; ++i) {
      fold_element<T, Operation>(destination, source, i);
    }
  } else {
    fold_vectors<T, Operation>(destination, source, count);
  }
}

}  // namespace ksomd::reduction
