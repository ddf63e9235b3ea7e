// The exported packing routines: panels of four rows or columns.
#include "matmul/blocking.h"

namespace ksomd::matmul {
namespace {

// x is a block of op(A), or of op(B) transposed: members by depth.
void pack_groups(const Operand<double>& x, Size members, Size depth, double* panel) {
  for (Size first = 0; first + exported_tile <= members; first += exported_tile) {
    baseline_kernels.r8.pack(x.from(first, 0), exported_tile, depth, panel, exported_tile);
    for (Size l = depth * exported_tile; l < padded_depth(depth) * exported_tile; ++l) {
      panel[l] = 0;
    }
    panel += padded_depth(depth) * exported_tile;
  }
}

}  // namespace
}  // namespace ksomd::matmul

using namespace ksomd::matmul;

void __orvex_dgcopyan_qwide(Size rows, Size depth, const double* source, Size lda,
                            double* destination) {
  pack_groups({source, lda, Layout::n}, rows, depth, destination);
}
void __orvex_dgcopyat_qwide(Size rows, Size depth, const double* source, Size lda,
                            double* destination) {
  pack_groups({source, lda, Layout::t}, rows, depth, destination);
}
void __orvex_dgcopybn_psc(Size depth, Size columns, const double* source, Size ldb,
                          double* destination) {
  pack_groups({source, ldb, Layout::t}, columns, depth, destination);
}
void __orvex_dgcopybt_psc(Size depth, Size columns, const double* source, Size ldb,
                          double* destination) {
  pack_groups({source, ldb, Layout::n}, columns, depth, destination);
}
