// The elementary functions that the complex builtins call, and their choice by processor level.
#pragma once

#include <cstdint>
#include <span>

#include "dispatch/variant.h"

extern "C" {

double __libkso_fabs(double x);
float __libkso_fabsf(float x);

// The larger, or the first if both are equal. If one is a NaN, the other; if both are, the first,
// quieted.
double __libkso_fmax(double x, double y);
float __libkso_fmaxf(float x, float y);
long double __libkso_fmaxl(long double x, long double y);

double __libkso_copysign(double x, double y);
float __libkso_copysignf(float x, float y);

// Unbiased binary exponent, of subnormals too. -inf and EDOM for zero, +inf for infinities, NaN
// (quieted) for NaN. The extended form leaves errno alone.
double __libkso_logb(double x);
float __libkso_logbf(float x);
long double __libkso_logbl(long double x);

// x * 2^n, rounded once. ERANGE on overflow and on underflow to zero.
// The extended form leaves errno alone.
double __libkso_scalbn(double x, std::int32_t n);
float __libkso_scalbnf(float x, std::int32_t n);
long double __libkso_scalbnl(long double x, std::int32_t n);

// 1 or 0; isinf is -1 for -inf. They read the bits, and raise no flag.
std::int32_t __libkso_isfinite(double x);
std::int32_t __libkso_isfinitef(float x);
std::int32_t __libkso_isfinitel(long double x);
std::int32_t __libkso_isnan(double x);
std::int32_t __libkso_isnanf(float x);
std::int32_t __libkso_isnanl(long double x);
std::int32_t __libkso_isinf(double x);
std::int32_t __libkso_isinff(float x);
std::int32_t __libkso_isinfl(long double x);

}  // extern "C"

namespace ksomd::math {

// The dispatched functions.
std::span<const DispatchingEntry> dispatching_entries();

// The two implementations of the dispatched functions: general instructions, and SSE.
namespace general {
double fmax(double x, double y);
float fmaxf(float x, float y);
double copysign(double x, double y);
float copysignf(float x, float y);
double logb(double x);
double scalbn(double x, std::int32_t n);
}  // namespace general
namespace vector {
double fmax(double x, double y);
float fmaxf(float x, float y);
double copysign(double x, double y);
float copysignf(float x, float y);
double logb(double x);
double scalbn(double x, std::int32_t n);
}  // namespace vector

}  // namespace ksomd::math

extern "C" {

[[gnu::visibility("hidden")]] extern double (*__libkso_fmax_slot)(double, double);
[[gnu::visibility("hidden")]] extern float (*__libkso_fmaxf_slot)(float, float);
[[gnu::visibility("hidden")]] extern double (*__libkso_copysign_slot)(double, double);
[[gnu::visibility("hidden")]] extern float (*__libkso_copysignf_slot)(float, float);
[[gnu::visibility("hidden")]] extern double (*__libkso_logb_slot)(double);
[[gnu::visibility("hidden")]] extern double (*__libkso_scalbn_slot)(double, std::int32_t);

}  // extern "C"
