// The variants of quad arithmetic: .L for newer processors, .A for any.
#pragma once

#include <span>

#include "cpu/feature_table.h"
#include "dispatch/variant.h"
#include "ksomd/quad.h"

extern "C" {

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

using BinaryRoutine = void(quad128*, const quad128*, const quad128*);
using BinaryVariants = Variant<BinaryRoutine*>[2];

inline constexpr FeatureMask features_of_l =
    feature_mask("X87", "CMOV", "MMX", "SSE", "SSE2", "SSE3");

inline constexpr BinaryVariants add_variants = {{".L", features_of_l, quad_add_magnitudes_l},
                                                {".A", {}, quad_add_magnitudes_a}};
inline constexpr BinaryVariants subtract_variants = {
    {".L", features_of_l, quad_subtract_magnitudes_l}, {".A", {}, quad_subtract_magnitudes_a}};
inline constexpr BinaryVariants multiply_variants = {{".L", features_of_l, quad_multiply_l},
                                                     {".A", {}, quad_multiply_a}};
inline constexpr BinaryVariants divide_variants = {{".L", features_of_l, quad_divide_l},
                                                   {".A", {}, quad_divide_a}};

// Whether the first variants suit the processor. False may only mean "not detected yet": then
// call_variant() decides.
inline bool l_is_known() {
  return features_of_l.all_in({load_feature_word(__orvex_cpu_feature_indicator[0]), 0});
}

// Calls the variant that suits the processor, which is detected first if nobody has. It is out of
// line so that the usual way, through l_is_known(), holds no call of the detection.
template <const BinaryVariants& variants>
[[gnu::cold, gnu::noinline]] void call_variant(quad128* r, const quad128* a, const quad128* b) {
  FeatureSet features;
  read_features(features);
  choose(variants, features).choice(r, a, b);
}

// The arithmetic entry points.
std::span<const DispatchingEntry> dispatching_entries();

}  // namespace ksomd::quad
