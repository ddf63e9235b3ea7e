#include "ksomd/vector.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "ksomd/conversion.h"
#include "sections.h"

namespace {

// What becomes of
//
//     #pragma omp simd reduction(max : highest[:4])
//     for (i = 0; i < 1000; ++i) highest[i % 4] = max(highest[i % 4], reading(i));
//
// Each lane has a copy of the array; the copies lie side by side, an element of every lane in a
// row.
void show_reduction() {
  constexpr std::size_t lanes = 8;
  constexpr std::size_t length = 4;
  double highest[length] = {-1, -1, -1, 1e6};
  double copies[length][lanes];
  __orvex_reduction_init_array(copies, length * lanes, KSOMD_MAXIMUM, KSOMD_DOUBLE);
  for (std::size_t i = 0; i < 1000; ++i) {
    const auto reading = static_cast<double>(i * 37 % 1000);
    double& copy = copies[i % length][i / length % lanes];
    copy = reading > copy ? reading : copy;
  }
  for (std::size_t lane = 0; lane < lanes; ++lane) {
    __orvex_simd_reduction_final_array(highest, &copies[0][lane], length,
                                       static_cast<std::int32_t>(lanes), 1, KSOMD_MAXIMUM,
                                       KSOMD_DOUBLE);
  }
  std::printf("  maxima folded from %zu lanes: %g %g %g %g\n", lanes, highest[0], highest[1],
              highest[2], highest[3]);
}

// Whether a loop that reads one array and writes two may run in vectors: asked before it starts.
void show_dependence() {
  static float a[100], b[100];
  const auto range = [](const float* first, int count) {
    const auto start = reinterpret_cast<std::uintptr_t>(first);
    return ksomd_range{start, start + static_cast<std::uintptr_t>(count) * sizeof *first - 1};
  };
  ksomd_range apart[] = {range(b, 100), range(a + 50, 50), range(a, 50)};
  ksomd_range shifted[] = {range(b, 100), range(a + 1, 50), range(a, 50)};
  std::printf("  the halves of an array overlap: %s; the array and itself, shifted: %s\n",
              __orvex_rtdd_indep(apart, 3) != 0 ? "yes" : "no",
              __orvex_rtdd_indep(shifted, 3) != 0 ? "yes" : "no");
}

}  // namespace

void tour::show_vector() {
  std::printf("\nVectorised loops\n");
  show_reduction();
  show_dependence();
  const std::uint64_t top = ~std::uint64_t{0};
  std::printf("  2^64 - 1 as a double, with 32-bit conversions only: %.0f\n",
              __cvtu64todp_sse2(&top));
}
