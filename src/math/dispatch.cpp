// The variants of the math routines, and their slots.
#include <array>

#include "cpu/feature_table.h"
#include "math/math.h"

namespace ksomd::math {
namespace {

// The processor levels, highest first. Those without SSE3 run the general implementation.
struct Level {
  FeatureMask needs;
  bool vector;
};
constexpr Level levels[] = {
    {feature_mask("AVX_10_2"), true},
    {feature_mask("AVX512_BITALG", "AVX512_VBMI2", "AVX512_VNNI"), true},
    {feature_mask("PCLMULQDQ", "FMA", "BMI", "LZCNT", "AVX2"), true},
    {feature_mask("AVX"), true},
    {feature_mask("SSE4_2"), true},
    {feature_mask("SSE4_1"), true},
    {feature_mask("SSSE3"), true},
    {feature_mask("SSE3"), true},
    {{}, false},
};

template <class Routine>
constexpr auto variants_of(Routine* general, Routine* vector) {
  std::array<Variant<Routine*>, std::size(levels)> variants{};
  for (std::size_t i = 0; i < std::size(levels); ++i) {
    const auto& [needs, is_vector] = levels[i];
    variants[i] = {is_vector ? "vector" : "general", needs, is_vector ? vector : general};
  }
  return variants;
}

constexpr auto fmax_variants = variants_of(general::fmax, vector::fmax);
constexpr auto fmaxf_variants = variants_of(general::fmaxf, vector::fmaxf);
constexpr auto copysign_variants = variants_of(general::copysign, vector::copysign);
constexpr auto copysignf_variants = variants_of(general::copysignf, vector::copysignf);
constexpr auto logb_variants = variants_of(general::logb, vector::logb);
constexpr auto scalbn_variants = variants_of(general::scalbn, vector::scalbn);

}  // namespace

std::span<const DispatchingEntry> dispatching_entries() {
  static constexpr DispatchingEntry entries[] = {
      dispatching_entry<fmax_variants>("__libkso_fmax"),
      dispatching_entry<fmaxf_variants>("__libkso_fmaxf"),
      dispatching_entry<copysign_variants>("__libkso_copysign"),
      dispatching_entry<copysignf_variants>("__libkso_copysignf"),
      dispatching_entry<logb_variants>("__libkso_logb"),
      dispatching_entry<scalbn_variants>("__libkso_scalbn"),
  };
  return entries;
}

}  // namespace ksomd::math

using namespace ksomd;
using namespace ksomd::math;

double (*__libkso_fmax_slot)(double, double);
float (*__libkso_fmaxf_slot)(float, float);
double (*__libkso_copysign_slot)(double, double);
float (*__libkso_copysignf_slot)(float, float);
double (*__libkso_logb_slot)(double);
double (*__libkso_scalbn_slot)(double, std::int32_t);

double __libkso_fmax(double x, double y) {
  [[clang::musttail]] return dispatch<__libkso_fmax_slot, fmax_variants>(x, y);
}
float __libkso_fmaxf(float x, float y) {
  [[clang::musttail]] return dispatch<__libkso_fmaxf_slot, fmaxf_variants>(x, y);
}
double __libkso_copysign(double x, double y) {
  [[clang::musttail]] return dispatch<__libkso_copysign_slot, copysign_variants>(x, y);
}
float __libkso_copysignf(float x, float y) {
  [[clang::musttail]] return dispatch<__libkso_copysignf_slot, copysignf_variants>(x, y);
}
double __libkso_logb(double x) {
  [[clang::musttail]] return dispatch<__libkso_logb_slot, logb_variants>(x);
}
double __libkso_scalbn(double x, std::int32_t n) {
  [[clang::musttail]] return dispatch<__libkso_scalbn_slot, scalbn_variants>(x, n);
}
