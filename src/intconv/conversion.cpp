// Converts the integer's two halves as signed 32-bit numbers, corrects each half that stands for an
// unsigned number, scales, and adds. Everything but the addition is exact.
#include "ksomd/conversion.h"

#include <emmintrin.h>

namespace {

constexpr double two32 = 4294967296.0;

// What to add to (low, high), by the halves' top bits: bit 0 the low half's, bit 1 the high one's.
alignas(16) constexpr double signed_correction[4][2] = {{0, 0}, {two32, 0}, {0, 0}, {two32, 0}};
alignas(16) constexpr double unsigned_correction[4][2] = {
    {0, 0}, {two32, 0}, {0, two32}, {two32, two32}};
alignas(16) constexpr double scale[2] = {1.0, two32};

double convert(const void* value, const double (&correction)[4][2]) {
  const __m128i integer = _mm_loadl_epi64(static_cast<const __m128i_u*>(value));
  const int top_bits = _mm_movemask_ps(_mm_castsi128_ps(integer)) & 3;
  __m128d halves = _mm_cvtepi32_pd(integer);
  halves = _mm_add_pd(halves, _mm_load_pd(correction[top_bits]));
  halves = _mm_mul_pd(halves, _mm_load_pd(scale));
  return _mm_cvtsd_f64(_mm_add_sd(halves, _mm_unpackhi_pd(halves, halves)));
}

}  // namespace

double __cvti64todp_sse2(const int64_t* value) {
  return convert(value, signed_correction);
}
double __cvtu64todp_sse2(const uint64_t* value) {
  return convert(value, unsigned_correction);
}
float __cvti64tosp_sse2(const int64_t* value) {
  return static_cast<float>(convert(value, signed_correction));
}
float __cvtu64tosp_sse2(const uint64_t* value) {
  return static_cast<float>(convert(value, unsigned_correction));
}
