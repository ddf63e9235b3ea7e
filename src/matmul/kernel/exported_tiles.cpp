// Tile kernels of the packed double-precision product.
//
// The contract: for each 4 x 4 tile of P, sixteen sums start from zero and receive A(r, l) * B(l,
// c) for l = 0, 1, ... in order, each product and each sum rounded by itself; then the tile is
// stored, as the sum or as sum + old value. Tiles go down the rows of a block, then to the next
// four columns. Packed A, packed B and the doubled panel start on 16-byte boundaries; P need not.
#include <emmintrin.h>

#include "matmul/blocking.h"

namespace ksomd::matmul {
namespace {

// Copies a panel of op(B), every value twice.
void double_values(const double* panel, Size values, double* doubled) {
  for (Size i = 0; i < values; i += 2) {
    const __m128d pair = _mm_load_pd(panel + i);
    _mm_store_pd(doubled + 2 * i, _mm_unpacklo_pd(pair, pair));
    _mm_store_pd(doubled + 2 * i + 2, _mm_unpackhi_pd(pair, pair));
  }
}

// Adds the products of one depth index to the sums: rows 0, 1 in [c][0], rows 2, 3 in [c][1].
[[gnu::always_inline]] inline void add_products(const double* a, const double* doubled,
                                                __m128d (&sum)[exported_tile][2]) {
  const __m128d rows01 = _mm_load_pd(a);
  const __m128d rows23 = _mm_load_pd(a + 2);
  for (Size c = 0; c < exported_tile; ++c) {
    const __m128d factor = _mm_load_pd(doubled + 2 * c);
    sum[c][0] = _mm_add_pd(sum[c][0], _mm_mul_pd(rows01, factor));
    sum[c][1] = _mm_add_pd(sum[c][1], _mm_mul_pd(rows23, factor));
  }
}

// What a tile's sums do to P.
struct Overwrite {
  static __m128d result(__m128d sum, const double* /*p*/) { return sum; }
};
struct AddOld {
  static __m128d result(__m128d sum, const double* p) { return _mm_add_pd(sum, _mm_loadu_pd(p)); }
};

template <class Store, Size unrolled>
void multiply_tile(Size depth, const double* a, const double* doubled, double* p, Size ldp) {
  __m128d sum[exported_tile][2];
  for (Size c = 0; c < exported_tile; ++c) {
    _mm_prefetch(reinterpret_cast<const char*>(p + c * ldp), _MM_HINT_NTA);
    sum[c][0] = sum[c][1] = _mm_setzero_pd();
  }
  for (Size l = 0; l < depth; l += unrolled) {
#pragma clang loop unroll(full)
    for (Size step = 0; step < unrolled; ++step) {
      add_products(a, doubled, sum);
      a += exported_tile;
      doubled += 2 * exported_tile;
    }
  }
  for (Size c = 0; c < exported_tile; ++c) {
    double* column = p + c * ldp;
    _mm_storeu_pd(column, Store::result(sum[c][0], column));
    _mm_storeu_pd(column + 2, Store::result(sum[c][1], column + 2));
  }
}

template <class Store, Size unrolled>
void multiply_block(Size m, Size n, Size depth, const double* a, const double* b, double* p,
                    Size ldp, double* doubled) {
  for (Size j = 0; j < n; j += exported_tile) {
    double_values(b + j * depth, exported_tile * depth, doubled);
    for (Size i = 0; i < m; i += exported_tile) {
      multiply_tile<Store, unrolled>(depth, a + i * depth, doubled, p + i + j * ldp, ldp);
    }
  }
}

}  // namespace
}  // namespace ksomd::matmul

using namespace ksomd::matmul;

void __orvex_dinnerz_roll_qwide(const Size* m, const Size* n, const Size* depth, const double* a,
                                const double* b, const Size* /*unused*/, double* p, const Size* ldp,
                                double* doubled) {
  multiply_block<Overwrite, 4>(*m, *n, *depth, a, b, p, *ldp, doubled);
}

void __orvex_dinner_qwide(const Size* m, const Size* n, const Size* /*depth*/, const double* a,
                          const double* b, const Size* /*unused*/, double* p, const Size* ldp,
                          double* doubled) {
  multiply_block<AddOld, 8>(*m, *n, depth_chunk, a, b, p, *ldp, doubled);
}
