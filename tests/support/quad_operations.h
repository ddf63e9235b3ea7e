// The four operations in all their variants, checked by both oracles.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>

#include "support/quad_cases.h"
#include "support/quad_compiler.h"

extern "C" {
// Each of the four cores takes magnitudes, for operands whose signs say so.
void add_magnitudes_l(quad128*, const quad128*, const quad128*) __asm__("__addq_mag.L");
void add_magnitudes_a(quad128*, const quad128*, const quad128*) __asm__("__addq_mag.A");
void subtract_magnitudes_l(quad128*, const quad128*, const quad128*) __asm__("__subq_mag.L");
void subtract_magnitudes_a(quad128*, const quad128*, const quad128*) __asm__("__subq_mag.A");
void multiply_l(quad128*, const quad128*, const quad128*) __asm__("__mulq.L");
void multiply_a(quad128*, const quad128*, const quad128*) __asm__("__mulq.A");
void divide_l(quad128*, const quad128*, const quad128*) __asm__("__divq.L");
void divide_a(quad128*, const quad128*, const quad128*) __asm__("__divq.A");
}

namespace ksomd::test {

inline bool signs_differ(const quad128* a, const quad128* b) {
  return (a->high ^ b->high) >> 63 != 0;
}

inline void add_l(quad128* r, const quad128* a, const quad128* b) {
  (signs_differ(a, b) ? subtract_magnitudes_l : add_magnitudes_l)(r, a, b);
}
inline void add_a(quad128* r, const quad128* a, const quad128* b) {
  (signs_differ(a, b) ? subtract_magnitudes_a : add_magnitudes_a)(r, a, b);
}
inline void subtract_l(quad128* r, const quad128* a, const quad128* b) {
  (signs_differ(a, b) ? add_magnitudes_l : subtract_magnitudes_l)(r, a, b);
}
inline void subtract_a(quad128* r, const quad128* a, const quad128* b) {
  (signs_differ(a, b) ? add_magnitudes_a : subtract_magnitudes_a)(r, a, b);
}

struct Operation {
  const char* name;
  BinaryRoutine routines[3];  // entry, .L, .A
  Outcome (*oracle)(Bits, Bits, Mode);
  compiler::Operation in_compiler;
};
inline constexpr Operation operations[] = {
    {"add", {__addq, add_l, add_a}, oracle::add, compiler::Operation::Add},
    {"subtract", {__subq, subtract_l, subtract_a}, oracle::subtract, compiler::Operation::Subtract},
    {"multiply", {__mulq, multiply_l, multiply_a}, oracle::multiply, compiler::Operation::Multiply},
    {"divide", {__divq, divide_l, divide_a}, oracle::divide, compiler::Operation::Divide},
};

inline bool agrees(const Outcome& compilers, const Outcome& expected) {
  const bool nans = oracle::is_nan(compilers.bits) && oracle::is_nan(expected.bits);
  return compilers.flags == expected.flags && (nans || compilers.bits == expected.bits);
}

// One case by its name, for messages.
struct Case {
  const Operation& operation;
  Bits a;
  Bits b;
  Mode mode;
};
inline std::ostream& operator<<(std::ostream& stream, const Case& c) {
  return stream << c.operation.name << ' ' << c.a << ", " << c.b << ' ' << c.mode;
}

inline bool check_variants(const Case& c, const Outcome& expected, unsigned more_bits) {
  for (const BinaryRoutine routine : c.operation.routines) {
    const Outcome actual = run(routine, c.a, c.b, c.mode, more_bits);
    if (actual.bits != expected.bits ||
        actual.flags != (expected.flags | (more_bits & flag::all))) {
      ADD_FAILURE() << c << "\n  variant "
                    << std::find(c.operation.routines, c.operation.routines + 3, routine) -
                           c.operation.routines
                    << " with MXCSR bits " << more_bits << "\n  gives    " << actual
                    << "\n  expected " << expected;
      return false;
    }
  }
  return true;
}

// Both oracles, then every variant. False after a failure.
inline bool check(const Case& c, unsigned more_bits = 0) {
  const Outcome expected = c.operation.oracle(c.a, c.b, c.mode);
  if (compiler::available()) {
    const Outcome second = compiler::run(c.operation.in_compiler, c.a, c.b, c.mode);
    if (!agrees(second, expected)) {
      ADD_FAILURE() << "the oracles disagree: " << c << "\n  " << second << "\n  " << expected;
      return false;
    }
  }
  return check_variants(c, expected, more_bits);
}

// By the exact oracle alone only where the compiler's result is a NaN, whose bits it leaves open.
inline bool check_quickly(const Case& c) {
  if (!compiler::available()) {
    return check(c);
  }
  const Outcome expected = compiler::run(c.operation.in_compiler, c.a, c.b, c.mode);
  return oracle::is_nan(expected.bits) ? check(c) : check_variants(c, expected, 0);
}

}  // namespace ksomd::test
