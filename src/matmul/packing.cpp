// Packing of operand blocks into panels of four rows or columns.
#include <emmintrin.h>

#include "matmul/blocking.h"

namespace ksomd::matmul {
namespace {

// The four members of a group lie side by side in the source: an entry is a copy.
void pack_adjacent(Size members, Size depth, const double* source, Size leading, double* panel) {
  for (Size first = 0; first + tile <= members; first += tile) {
    for (Size l = 0; l < depth; ++l, panel += tile) {
      const double* entry = source + first + l * leading;
      _mm_storeu_pd(panel, _mm_loadu_pd(entry));
      _mm_storeu_pd(panel + 2, _mm_loadu_pd(entry + 2));
    }
    for (Size l = depth; l < padded_depth(depth); ++l, panel += tile) {
      _mm_storeu_pd(panel, _mm_setzero_pd());
      _mm_storeu_pd(panel + 2, _mm_setzero_pd());
    }
  }
}

// Each member's values over the depth lie side by side: small blocks are transposed.
void pack_transposed(Size members, Size depth, const double* source, Size leading, double* panel) {
  for (Size first = 0; first + tile <= members; first += tile) {
    const double* member[tile];
    for (Size r = 0; r < tile; ++r) {
      member[r] = source + (first + r) * leading;
    }
    Size l = 0;
    for (; l + 2 <= depth; l += 2, panel += 2 * tile) {
      const __m128d v0 = _mm_loadu_pd(member[0] + l);
      const __m128d v1 = _mm_loadu_pd(member[1] + l);
      const __m128d v2 = _mm_loadu_pd(member[2] + l);
      const __m128d v3 = _mm_loadu_pd(member[3] + l);
      _mm_storeu_pd(panel, _mm_unpacklo_pd(v0, v1));
      _mm_storeu_pd(panel + 2, _mm_unpacklo_pd(v2, v3));
      _mm_storeu_pd(panel + 4, _mm_unpackhi_pd(v0, v1));
      _mm_storeu_pd(panel + 6, _mm_unpackhi_pd(v2, v3));
    }
    for (; l < padded_depth(depth); ++l, panel += tile) {
      for (Size r = 0; r < tile; ++r) {
        panel[r] = l < depth ? member[r][l] : 0;
      }
    }
  }
}

}  // namespace
}  // namespace ksomd::matmul

using namespace ksomd::matmul;

void __orvex_dgcopyan_qwide(Size rows, Size depth, const double* source, Size lda,
                            double* destination) {
  pack_adjacent(rows, depth, source, lda, destination);
}
void __orvex_dgcopyat_qwide(Size rows, Size depth, const double* source, Size lda,
                            double* destination) {
  pack_transposed(rows, depth, source, lda, destination);
}
void __orvex_dgcopybn_psc(Size depth, Size columns, const double* source, Size ldb,
                          double* destination) {
  pack_transposed(columns, depth, source, ldb, destination);
}
void __orvex_dgcopybt_psc(Size depth, Size columns, const double* source, Size ldb,
                          double* destination) {
  pack_adjacent(columns, depth, source, ldb, destination);
}
