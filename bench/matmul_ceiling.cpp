// Register-only loops of separate multiplies and adds, for each width of vectors.
#include "matmul_ceiling.h"

namespace {

template <class Real, int bytes>
struct VectorOf {
  typedef Real Type __attribute__((vector_size(bytes)));
};

// Ten sums of two vectors of rows and five factors, as in a tile of a product: with two pipes and
// latencies of four cycles, no sum waits for itself. The empty assembler keeps every product: the
// compiler knows neither the rows nor that the factor is the same for each column.
#define KSOMD_CEILING(name, Real, bytes, features, constraint)                        \
  [[gnu::target(features), gnu::noinline]] double name(long steps) {                  \
    using Vector = VectorOf<Real, bytes>::Type;                                       \
    Vector sum[2][5] = {};                                                            \
    Vector rows[2] = {Vector{} + 1, Vector{} + 2};                                    \
    Vector factor = Vector{} + 1;                                                     \
    __asm__ volatile("" : "+" constraint(rows[0]), "+" constraint(rows[1]));          \
    for (long step = 0; step < steps; ++step) {                                       \
      _Pragma("clang loop unroll(full)") for (int column = 0; column < 5; ++column) { \
        __asm__ volatile("" : "+" constraint(factor));                                \
        sum[0][column] = sum[0][column] + rows[0] * factor;                           \
        sum[1][column] = sum[1][column] + rows[1] * factor;                           \
      }                                                                               \
    }                                                                                 \
    double total = 0;                                                                 \
    for (const auto& row : sum) {                                                     \
      for (const Vector& value : row) {                                               \
        total += static_cast<double>(value[0]);                                       \
      }                                                                               \
    }                                                                                 \
    return total;                                                                     \
  }

KSOMD_CEILING(sums_r8_128, double, 16, "sse2", "x")
KSOMD_CEILING(sums_r4_128, float, 16, "sse2", "x")
KSOMD_CEILING(sums_r8_256, double, 32, "avx", "x")
KSOMD_CEILING(sums_r4_256, float, 32, "avx", "x")
KSOMD_CEILING(sums_r8_512, double, 64, "avx512f", "v")
KSOMD_CEILING(sums_r4_512, float, 64, "avx512f", "v")

}  // namespace

const Ceiling ceilings[3] = {
    {128, [] { return true; }, sums_r8_128, sums_r4_128},
    {256, [] { return __builtin_cpu_supports("avx") != 0; }, sums_r8_256, sums_r4_256},
    {512, [] { return __builtin_cpu_supports("avx512f") != 0; }, sums_r8_512, sums_r4_512},
};
