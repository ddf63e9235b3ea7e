// The operations of a reduction. Each tells its identity, the types that have it, and
//
//     apply(d, s)     what becomes of a destination element d with a source element s: two
//                     integers, two vectors of integers or floating-point numbers, or the
//                     addresses of two quads, the first of which receives the result
#pragma once

#include <cstdint>
#include <type_traits>

#include "vec/reduction_types.h"

namespace ksomd::reduction {

// ---- vectors ------------------------------------------------------------------------------------

template <class T>
struct VectorOf {
  using Type [[gnu::vector_size(16)]] = T;
};
template <class T>
using Vector = VectorOf<T>::Type;

// What a number or a vector of them consists of.
template <class T, class = void>
struct LaneOf {
  using Type = T;
};
template <class T>
struct LaneOf<T, std::void_t<decltype(T{}[0])>> {
  using Type = std::remove_cvref_t<decltype(T{}[0])>;
};
template <class T>
using Lane = LaneOf<T>::Type;
template <class T>
inline constexpr bool is_vector = !std::is_same_v<T, Lane<T>>;

// Of two NaNs the first operand must survive. A compiler may swap the operands of a sum or a
// product, and then the survivor would depend on an element's place in the array.
inline Vector<float> add(Vector<float> d, Vector<float> s) {
  __asm__("addps %1, %0" : "+x"(d) : "x"(s));
  return d;
}
inline Vector<double> add(Vector<double> d, Vector<double> s) {
  __asm__("addpd %1, %0" : "+x"(d) : "x"(s));
  return d;
}
inline Vector<float> multiply(Vector<float> d, Vector<float> s) {
  __asm__("mulps %1, %0" : "+x"(d) : "x"(s));
  return d;
}
inline Vector<double> multiply(Vector<double> d, Vector<double> s) {
  __asm__("mulpd %1, %0" : "+x"(d) : "x"(s));
  return d;
}

// 32-bit products without shuffles, which only one execution port takes. The even lanes and the odd
// lanes are multiplied as 64-bit numbers, and the low halves of the products are put together.
inline Vector<std::uint32_t> multiply(Vector<std::uint32_t> d, Vector<std::uint32_t> s) {
  using Wide = Vector<std::uint64_t>;
  const Wide a = __builtin_bit_cast(Wide, d);
  const Wide b = __builtin_bit_cast(Wide, s);
  const Wide low = Wide{} + 0xFFFFFFFF;
  const Wide even = (a & low) * (b & low);
  const Wide odd = (a >> 32) * (b >> 32);
  return __builtin_bit_cast(Vector<std::uint32_t>, (even & low) | odd << 32);
}

// 8-bit products the same way, as the low halves of 16-bit ones.
inline Vector<std::uint8_t> multiply(Vector<std::uint8_t> d, Vector<std::uint8_t> s) {
  using Wide = Vector<std::uint16_t>;
  const Wide a = __builtin_bit_cast(Wide, d);
  const Wide b = __builtin_bit_cast(Wide, s);
  const Wide low = Wide{} + 0xFF;
  return __builtin_bit_cast(Vector<std::uint8_t>, (a * b & low) | (a >> 8) * (b & ~low));
}

// 1 where a condition holds and 0 elsewhere; a vector's condition is a vector of masks.
template <class T, class Condition>
T truth(Condition condition) {
  if constexpr (is_vector<T>) {
    using Bits = std::make_unsigned_t<std::remove_cvref_t<decltype(condition[0])>>;
    // A constant: a conversion at run time would be kept for its flags, in every round of a loop.
    constexpr Bits one = __builtin_bit_cast(Bits, Lane<T>{1});
    return __builtin_bit_cast(T,
                              __builtin_bit_cast(Vector<Bits>, condition) & (Vector<Bits>{} + one));
  } else {
    return static_cast<T>(condition);
  }
}

// Combines integers, or vectors of them, as unsigned numbers, which wrap around. Narrow integers
// are widened to uint32_t first: otherwise they would be promoted to int, which does not wrap.
template <class T, class Combine>
T wrapped(T d, T s, Combine combine) {
  using Unsigned = std::make_unsigned_t<Lane<T>>;
  if constexpr (is_vector<T>) {
    using U = Vector<Unsigned>;
    return __builtin_bit_cast(T, combine(__builtin_bit_cast(U, d), __builtin_bit_cast(U, s)));
  } else {
    using Wide = std::conditional_t<sizeof(T) < 4, std::uint32_t, Unsigned>;
    return static_cast<T>(combine(static_cast<Wide>(d), static_cast<Wide>(s)));
  }
}

// ---- operations ---------------------------------------------------------------------------------

template <Identity which, Types allowed>
struct Rule {
  static constexpr Identity identity = which;
  static constexpr Types types = allowed;
};

struct Sum : Rule<Identity::Zero, Types::All> {
  template <class T>
  static T apply(T d, T s) {
    if constexpr (is_float<Lane<T>>) {
      return add(d, s);
    } else {
      return wrapped(d, s, [](auto a, auto b) { return a + b; });
    }
  }
  static void apply(quad128* d, const quad128* s) { __addq(d, d, s); }
};

struct Product : Rule<Identity::One, Types::All> {
  template <class T>
  static T apply(T d, T s) {
    if constexpr (is_float<Lane<T>>) {
      return multiply(d, s);
    } else {
      return wrapped(d, s, [](auto a, auto b) {
        using Operand = decltype(a);
        if constexpr (is_vector<Operand> &&
                      (sizeof(Lane<Operand>) == 1 || sizeof(Lane<Operand>) == 4)) {
          return multiply(a, b);
        } else {
          return a * b;
        }
      });
    }
  }
  static void apply(quad128* d, const quad128* s) { __mulq(d, d, s); }
};

struct Difference : Rule<Identity::Zero, Types::All> {
  template <class T>
  static T apply(T d, T s) {
    if constexpr (is_float<Lane<T>>) {
      return d - s;
    } else {
      return wrapped(d, s, [](auto a, auto b) { return a - b; });
    }
  }
  static void apply(quad128* d, const quad128* s) { __subq(d, d, s); }
};

// Equal values keep d and a NaN gives s; for quads it is the other way round.
struct Maximum : Rule<Identity::Lowest, Types::AllButComplexQuad> {
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

struct Minimum : Rule<Identity::Highest, Types::AllButComplexQuad> {
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

// Both operands are always compared with 0, so that the flags do not depend on the first.
struct LogicalAnd : Rule<Identity::One, Types::AllButQuads> {
  template <class T>
  static T apply(T d, T s) {
    return truth<T>((d != T{}) & (s != T{}));
  }
};

struct LogicalOr : Rule<Identity::Zero, Types::AllButQuads> {
  template <class T>
  static T apply(T d, T s) {
    return truth<T>((d != T{}) | (s != T{}));
  }
};

struct And : Rule<Identity::AllOnes, Types::Integers> {
  template <class T>
  static T apply(T d, T s) {
    return static_cast<T>(d & s);
  }
};

struct Or : Rule<Identity::Zero, Types::Integers> {
  template <class T>
  static T apply(T d, T s) {
    return static_cast<T>(d | s);
  }
};

struct Xor : Rule<Identity::Zero, Types::Integers> {
  template <class T>
  static T apply(T d, T s) {
    return static_cast<T>(d ^ s);
  }
};

struct Equal : Rule<Identity::One, Types::AllButQuads> {
  template <class T>
  static T apply(T d, T s) {
    return truth<T>(d == s);
  }
};

struct NotEqual : Rule<Identity::Zero, Types::AllButQuads> {
  template <class T>
  static T apply(T d, T s) {
    return truth<T>(d != s);
  }
};

// The baseline has no vector instruction for these on 64-bit integers. A sequence in place of one
// takes longer than the elements one by one.
template <class T, class Operation>
inline constexpr bool one_by_one =
    is_integer<T> && sizeof(T) == 8 &&
    (std::is_same_v<Operation, Product> || std::is_same_v<Operation, Maximum> ||
     std::is_same_v<Operation, Minimum>);

}  // namespace ksomd::reduction
