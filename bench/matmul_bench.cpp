// Matrix products in GFLOP/s, one thread, against the Fortran compiler's MATMUL, a BLAS library and
// the processor's own limit: separate multiplies and adds of 128-bit vectors in registers.
//
//   matmul_bench [REPETITIONS]     the best of so many interleaved rounds (default 5)
#include <emmintrin.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <random>
#include <vector>

#include "ksomd/matmul.h"

extern "C" {
// The Fortran compiler's MATMUL, built for the baseline (matmul_peer.f90). Letters: 'n' or 't'.
void peer_matmul_r4(const float*, const float*, float*, const int* n, const int* layout);
void peer_matmul_r8(const double*, const double*, double*, const int* n, const int* layout);
void peer_matmul_c4(const ksomd_c4*, const ksomd_c4*, ksomd_c4*, const int* n, const int* layout);
void peer_matmul_c8(const ksomd_c8*, const ksomd_c8*, ksomd_c8*, const int* n, const int* layout);

#define KSOMD_DOTTED(code, element, a, b)                                                        \
  void portable_##code##_##a##_##b(const element*, const element*, element*, uint64_t, uint64_t, \
                                   uint64_t, uint64_t, uint64_t,                                 \
                                   uint64_t) __asm__("_MATMUL_" #code "_" #a "_" #b ".A");
KSOMD_MATMUL_EACH(KSOMD_DOTTED)
}

namespace {

// Time that this thread had the processor: other programs' turns do not count.
double thread_time() {
  timespec now;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

template <class Body>
double seconds(const Body& body) {
  const double start = thread_time();
  body();
  return thread_time() - start;
}

// Twelve independent chains of one multiply and one add each: GFLOP/s in elements of `lanes`.
double ceiling(int lanes) {
  constexpr int chains = 12;
  constexpr int steps = 2000000;
  __m128d sum[chains];
  for (int c = 0; c < chains; ++c) sum[c] = _mm_set1_pd(1.0 + c);
  __m128d factor = _mm_set1_pd(1.0);
  const double time = seconds([&] {
    for (int step = 0; step < steps; ++step) {
#pragma clang loop unroll(full)
      for (int c = 0; c < chains; ++c) {
        // A multiply that no other depends on, as in a product.
        __m128d product = factor;
        __asm__ volatile("mulpd %1, %0" : "+x"(product) : "x"(factor));
        sum[c] = _mm_add_pd(sum[c], product);
      }
      __asm__ volatile("" : "+x"(factor));
    }
  });
  double sink = 0;
  for (const __m128d& s : sum) sink += _mm_cvtsd_f64(s);
  if (sink == 12345) std::printf(" ");
  return 2.0 * chains * steps * lanes / time * 1e-9;
}

template <class Element>
using Entry = void (*)(const Element*, const Element*, Element*, uint64_t, uint64_t, uint64_t,
                       uint64_t, uint64_t, uint64_t);

template <class Element>
struct Row {
  const char* name;
  int layout;
  Entry<Element> routine;
};

template <class Element, class Peer>
void measure(const std::vector<Row<Element>>& rows, Peer peer, int flops, double limit,
             int rounds) {
  std::mt19937 engine(1);
  for (const int n : {2, 4, 8, 16, 64, 128, 256, 512, 1024}) {
    const auto size = static_cast<std::size_t>(n);
    std::vector<Element> a(size * size);
    std::vector<Element> b(a);
    std::vector<Element> p(a);
    auto* raw_a = reinterpret_cast<unsigned char*>(a.data());
    auto* raw_b = reinterpret_cast<unsigned char*>(b.data());
    for (std::size_t i = 0; i < a.size() * sizeof(Element); ++i) {
      // Small positive numbers of either width: the exponent's bytes stay in the middle.
      raw_a[i] = i % 4 == 3 ? 0x3f : static_cast<unsigned char>(engine() & 0x7f);
      raw_b[i] = i % 4 == 3 ? 0x3f : static_cast<unsigned char>(engine() & 0x7f);
    }
    const double work = static_cast<double>(flops) * n * n * n;
    const int calls = std::max(1, static_cast<int>(2e7 / work));
    for (const Row<Element>& row : rows) {
      double ours = 1e9;
      double theirs = 1e9;
      for (int round = 0; round < (n >= 1024 ? 1 : rounds); ++round) {
        const auto u = static_cast<uint64_t>(n);
        ours = std::min(ours, seconds([&] {
                          for (int call = 0; call < calls; ++call) {
                            row.routine(a.data(), b.data(), p.data(), u, u, u, u, u, u);
                          }
                        }));
        theirs = std::min(theirs, seconds([&] {
                            for (int call = 0; call < calls; ++call) {
                              peer(a.data(), b.data(), p.data(), &n, &row.layout);
                            }
                          }));
      }
      const double rate = work * calls / ours * 1e-9;
      std::printf(
          "%-18s %5d  %8.2f GFLOP/s  %5.1f %% of the limit  Fortran %8.2f  ratio %5.2f  %9.1f ns\n",
          row.name, n, rate, 100 * rate / limit, work * calls / theirs * 1e-9, theirs / ours,
          ours / calls * 1e9);
    }
  }
}

#define KSOMD_ROWS(code, p)                                      \
  {                                                              \
    {"_MATMUL_" #code "_n_n" p, 0, portable_##code##_n_n},       \
        {"_MATMUL_" #code "_t_n" p, 1, portable_##code##_t_n},   \
        {"_MATMUL_" #code "_n_t" p, 2, portable_##code##_n_t}, { \
      "_MATMUL_" #code "_t_t" p, 3, portable_##code##_t_t        \
    }                                                            \
  }

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::atoi(argv[1]) : 5;
  const double limit = std::max({ceiling(2), ceiling(2), ceiling(2)});
  std::printf("limit of 128-bit multiplies and adds: %.2f GFLOP/s double, %.2f single\n", limit,
              2 * limit);
  measure<double>({{"_MATMUL_r8_n_n", 0, _MATMUL_r8_n_n},
                   {"_MATMUL_r8_t_n", 1, _MATMUL_r8_t_n},
                   {"_MATMUL_r8_n_t", 2, _MATMUL_r8_n_t},
                   {"_MATMUL_r8_t_t", 3, _MATMUL_r8_t_t}},
                  peer_matmul_r8, 2, limit, rounds);
  measure<double>(KSOMD_ROWS(r8, ".A"), peer_matmul_r8, 2, limit, rounds);
  measure<float>(KSOMD_ROWS(r4, ".A"), peer_matmul_r4, 2, 2 * limit, rounds);
  measure<ksomd_c8>(KSOMD_ROWS(c8, ".A"), peer_matmul_c8, 8, limit, rounds);
  measure<ksomd_c4>(KSOMD_ROWS(c4, ".A"), peer_matmul_c4, 8, 2 * limit, rounds);
}
