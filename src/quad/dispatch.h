// The variants of quad arithmetic: .L for newer processors, .A for any.
#pragma once

#include <span>

#include "cpu/feature_table.h"
#include "dispatch/variant.h"
#include "ksomd/quad.h"

extern "C" {

// By address: sign(a) * (|a| + |b|) and sign(a) * (|a| - |b|), on words of 64 bits and of 32.
void quad_add_magnitudes_l(quad128*, const quad128*, const quad128*) __asm__("__addq_mag.L");
void quad_add_magnitudes_a(quad128*, const quad128*, const quad128*) __asm__("__addq_mag.A");
void quad_subtract_magnitudes_l(quad128*, const quad128*, const quad128*) __asm__("__subq_mag.L");
void quad_subtract_magnitudes_a(quad128*, const quad128*, const quad128*) __asm__("__subq_mag.A");

KSOMD_API void quad_multiply_l(quad128*, const quad128*, const quad128*) __asm__("__mulq.L");
KSOMD_API void quad_multiply_a(quad128*, const quad128*, const quad128*) __asm__("__mulq.A");
KSOMD_API void quad_divide_l(quad128*, const quad128*, const quad128*) __asm__("__divq.L");
KSOMD_API void quad_divide_a(quad128*, const quad128*, const quad128*) __asm__("__divq.A");

}  // extern "C"

namespace ksomd::quad {

// The sums and differences of magnitudes by value.
quad128 add_magnitudes_l(quad128 a, quad128 b);
quad128 add_magnitudes_a(quad128 a, quad128 b);
quad128 subtract_magnitudes_l(quad128 a, quad128 b);
quad128 subtract_magnitudes_a(quad128 a, quad128 b);

inline constexpr FeatureMask features_of_l =
    feature_mask("X87", "CMOV", "MMX", "SSE", "SSE2", "SSE3");

template <auto* l, auto* a>
inline constexpr Variant<decltype(l)> variants[] = {{".L", features_of_l, l}, {".A", {}, a}};

inline constexpr auto& add_variants = variants<add_magnitudes_l, add_magnitudes_a>;
inline constexpr auto& subtract_variants = variants<subtract_magnitudes_l, subtract_magnitudes_a>;
inline constexpr auto& multiply_variants = variants<quad_multiply_l, quad_multiply_a>;
inline constexpr auto& divide_variants = variants<quad_divide_l, quad_divide_a>;

// Whether the first variants suit the processor. False may only mean "not detected yet": then
// call_variant() decides.
inline bool l_is_known() {
  return features_of_l.all_in({load_feature_word(__orvex_cpu_feature_indicator[0]), 0});
}

// Calls the variant that suits the processor, which is detected first if nobody has. It is out of
// line so that the usual way, through l_is_known(), holds no call of the detection.
template <const auto& variants, class... Arguments>
[[gnu::cold, gnu::noinline]] auto call_variant(Arguments... arguments) {
  return choose(variants, {feature_word(), 0}).choice(arguments...);
}

// The arithmetic entry points.
std::span<const DispatchingEntry> dispatching_entries();

}  // namespace ksomd::quad
