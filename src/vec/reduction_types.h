// The element types of a reduction: how they lie in arrays, and the identities of the operations.
#pragma once

#include <cstdint>
#include <limits>
#include <type_traits>

#include "ksomd/quad.h"

namespace ksomd::reduction {

template <class T>
struct Complex {
  using Component = T;
  T re;
  T im;
};

template <class T>
inline constexpr bool is_integer = std::is_integral_v<T>;
template <class T>
inline constexpr bool is_float = std::is_floating_point_v<T>;
template <class T>
inline constexpr bool is_quad = std::is_same_v<T, quad128>;
template <class T>
inline constexpr bool is_complex = false;
template <class T>
inline constexpr bool is_complex<Complex<T>> = true;

// Arrays may have any alignment, so elements are read and written as bytes.
template <class T>
T load(const void* array, std::uint64_t index) {
  T element;
  __builtin_memcpy(&element, static_cast<const char*>(array) + index * sizeof(T), sizeof element);
  return element;
}
template <class T>
void store(void* array, std::uint64_t index, T element) {
  __builtin_memcpy(static_cast<char*>(array) + index * sizeof(T), &element, sizeof element);
}

enum class Identity { Zero, One, Lowest, Highest, AllOnes };

template <class T, Identity which>
constexpr T identity() {
  constexpr bool extreme = which == Identity::Lowest || which == Identity::Highest;
  if constexpr (which == Identity::Zero) {
    return T{};
  } else if constexpr (which == Identity::AllOnes) {
    return static_cast<T>(~T{0});
  } else if constexpr (is_complex<T>) {
    using Component = T::Component;
    constexpr Component part = identity<Component, which>();
    return {part, extreme ? part : Component{}};
  } else if constexpr (is_quad<T>) {
    return extreme ? quad128{~std::uint64_t{0},
                             which == Identity::Lowest ? 0xFFFEFFFFFFFFFFFF : 0x7FFEFFFFFFFFFFFF}
                   : quad128{0, 0x3FFF000000000000};
  } else {
    using Limits = std::numeric_limits<T>;
    return which == Identity::One      ? T{1}
           : which == Identity::Lowest ? Limits::lowest()
                                       : Limits::max();
  }
}

// Which types have an operation.
enum class Types { All, AllButComplexQuad, AllButQuads, Integers };

template <class T>
constexpr bool includes(Types types) {
  constexpr bool complex_quad = std::is_same_v<T, Complex<quad128>>;
  return types == Types::All || is_integer<T> ||
         (types == Types::AllButComplexQuad && !complex_quad) ||
         (types == Types::AllButQuads && !complex_quad && !is_quad<T>);
}

}  // namespace ksomd::reduction
