// The operations of a reduction. Each tells its identity, the types that have it, and
//
//     apply(d, s)     what becomes of a destination element d with a source element s: two
//                     integers, two vectors of floating-point elements, or the addresses of two
//                     quads, the first of which receives the result
#pragma once

#include <cstdint>
#include <type_traits>

#include "vec/reduction_types.h"

namespace ksomd::reduction {

// ---- vectors of floating-point elements ---------------------------------------------------------

template <class T>
using Vector = T __attribute__((vector_size(16)));

// Of two NaNs the first operand's survives. A compiler takes the two operands of a sum or a product
// for interchangeable, and would let the survivor depend on where an element lies.
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

// 1 where a condition holds and 0 elsewhere; a vector's condition is a vector of masks.
template <class V, class Condition>
V truth(Condition condition) {
  if constexpr (is_integer<V>) {
    return static_cast<V>(condition);
  } else {
    return condition ? V{} + 1 : V{};
  }
}

// ---- integers -----------------------------------------------------------------------------------

// The type that integer arithmetic wraps around in; wide enough that nothing is promoted to int.
template <class T>
constexpr auto wrapping(T a) {
  return static_cast<std::conditional_t<sizeof(T) < 4, std::uint32_t, std::make_unsigned_t<T>>>(a);
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
    if constexpr (is_integer<T>) {
      return static_cast<T>(wrapping(d) + wrapping(s));
    } else {
      return add(d, s);
    }
  }
  static void apply(quad128* d, const quad128* s) { __addq(d, d, s); }
};

struct Product : Rule<Identity::One, Types::All> {
  template <class T>
  static T apply(T d, T s) {
    if constexpr (is_integer<T>) {
      return static_cast<T>(wrapping(d) * wrapping(s));
    } else {
      return multiply(d, s);
    }
  }
  static void apply(quad128* d, const quad128* s) { __mulq(d, d, s); }
};

struct Difference : Rule<Identity::Zero, Types::All> {
  template <class T>
  static T apply(T d, T s) {
    if constexpr (is_integer<T>) {
      return static_cast<T>(wrapping(d) - wrapping(s));
    } else {
      return d - s;
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

// Both operands are always looked at: flags do not depend on the first.
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

}  // namespace ksomd::reduction
