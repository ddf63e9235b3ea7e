// The packed, cache-blocked double-precision product.
#include <cstdlib>

#include "matmul/kernels.h"

namespace ksomd::matmul {
namespace {

using Pack = void (*)(Size, Size, const double*, Size, double*);
using TileKernel = void (*)(const Size* m, const Size* n, const Size* depth, const double* a,
                            const double* b, const Size* unused, double* p, const Size* ldp,
                            double* doubled);
using MatrixProduct = void (*)(const double* a, const double* b, double* p, Size, Size, Size,
                               Size lda, Size ldb, Size ldp);

// op(A)(., l..) * x for the column j of op(B).
using ColumnProduct = void (*)(const double* a, const double* column, double* p, Size m, Size k,
                               Size lda, Size ldb);

// What the four layouts differ in.
struct Routines {
  Pack pack_a;             // rows, depth, ...
  Pack pack_b;             // depth, columns, ...
  MatrixProduct whole;     // the whole product, portable; m, k, n
  MatrixProduct portable;  // rows that fill no group of four
  ColumnProduct column;    // columns that fill no group of four
};

template <Letters letters>
constexpr Routines routines_of(MatrixProduct whole, MatrixProduct portable) {
  return {
      letters.a == Layout::n ? __orvex_dgcopyan_qwide : __orvex_dgcopyat_qwide,
      letters.b == Layout::n ? __orvex_dgcopybn_psc : __orvex_dgcopybt_psc,
      whole,
      portable,
      [](const double* a, const double* column, double* p, Size m, Size k, Size lda, Size ldb) {
        const auto stride_a = static_cast<std::int64_t>(lda);
        const auto stride_b = static_cast<std::int64_t>(ldb);
        if constexpr (letters.a == Layout::n && letters.b == Layout::n) {
          MATMUL_v_nn_pst(a, column, p, m, k, stride_a);
        } else if constexpr (letters.b == Layout::n) {
          MATMUL_v_tn_pst(a, column, p, k, m, stride_a);
        } else if constexpr (letters.a == Layout::n) {
          MATMUL_v_nt_pst(a, column, p, m, k, stride_a, stride_b);
        } else {
          MATMUL_v_tt_pst(a, column, p, k, m, stride_a, stride_b);
        }
      },
  };
}

// The scratch memory of one call.
class Scratch {
 public:
  explicit Scratch(Size columns)
      : memory_(std::malloc(scratch_bytes(columns))),
        regions_(scratch_regions(reinterpret_cast<std::uintptr_t>(memory_), columns)) {}
  ~Scratch() { std::free(memory_); }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;

  explicit operator bool() const { return memory_ != nullptr; }
  double* a() const { return reinterpret_cast<double*>(regions_.a); }
  double* b() const { return reinterpret_cast<double*>(regions_.b); }
  double* doubled() const { return reinterpret_cast<double*>(regions_.doubled); }

 private:
  void* memory_;
  ScratchRegions regions_;
};

template <Letters letters>
class PackedProduct {
 public:
  PackedProduct(const Routines& routines, const Scratch& scratch, const double* a, const double* b,
                double* p, Size m, Size n, Size k, Size lda, Size ldb, Size ldp)
      : routines_(routines),
        scratch_(scratch),
        a_(a),
        b_(b),
        p_(p),
        m_(m),
        n_(n),
        k_(k),
        lda_(lda),
        ldb_(ldb),
        ldp_(ldp) {}

  void run(Size columns_per_pass) {
    const Size tail = tail_depth(k_);
    const Size full_columns = round_down(n_, tile);
    for (Size j = 0; j < full_columns; j += columns_per_pass) {
      const Size columns = min(full_columns - j, columns_per_pass);
      // The tail overwrites P, the full chunks add to it.
      chunk(k_ - tail, tail, j, columns, __orvex_dinnerz_roll_qwide);
      for (Size l = 0; l < k_ - tail; l += depth_chunk) {
        chunk(l, depth_chunk, j, columns, __orvex_dinner_qwide);
      }
    }
    for (Size j = full_columns; j < n_; ++j) {
      routines_.column(a_, b_at(0, j), p_ + j * ldp_, m_, k_, lda_, ldb_);
    }
  }

 private:
  const double* a_at(Size i, Size l) const { return a_ + offset<letters.a>(i, l, lda_); }
  const double* b_at(Size l, Size j) const { return b_ + offset<letters.b>(l, j, ldb_); }

  // The products of `depth` indices from l on, for all rows and some columns of P.
  void chunk(Size l, Size depth, Size j, Size columns, TileKernel kernel) {
    constexpr Size unused = depth_chunk;
    const Size padded = padded_depth(depth);
    const Size full_rows = round_down(m_, tile);
    routines_.pack_b(depth, columns, b_at(l, j), ldb_, scratch_.b());
    for (Size i = 0; i < full_rows; i += row_chunk) {
      const Size rows = min(row_chunk, full_rows - i);
      routines_.pack_a(rows, depth, a_at(i, l), lda_, scratch_.a());
      kernel(&rows, &columns, &padded, scratch_.a(), scratch_.b(), &unused, p_ + i + j * ldp_,
             &ldp_, scratch_.doubled());
    }
    if (full_rows < m_) {
      double* p = p_ + full_rows + j * ldp_;
      if (kernel == __orvex_dinnerz_roll_qwide) {
        _MATMUL_r8_n_n_pst_init(p, m_ - full_rows, columns, ldp_);
      }
      routines_.portable(a_at(full_rows, l), b_at(l, j), p, m_ - full_rows, columns, depth, lda_,
                         ldb_, ldp_);
    }
  }

  const Routines& routines_;
  const Scratch& scratch_;
  const double* a_;
  const double* b_;
  double* p_;
  Size m_, n_, k_;
  Size lda_, ldb_, ldp_;
};

// The rows and columns that fill no group of four, which the wide variants leave out. The sums of
// the columns run over all of k as in a matrix-vector product.
template <Letters letters>
void multiply_rest(const Routines& routines, const Product<double>& x) {
  const Size rows = round_down(x.m, tile);
  const Size columns = round_down(x.n, tile);
  if (rows < x.m) {
    const double* a = x.a + offset<letters.a>(rows, 0, x.lda);
    const Size tail = tail_depth(x.k);
    const Size start = x.k - tail;
    routines.whole(a + offset<letters.a>(0, start, x.lda), x.b + offset<letters.b>(start, 0, x.ldb),
                   x.p + rows, x.m - rows, tail, columns, x.lda, x.ldb, x.ldp);
    for (Size l = 0; l < start; l += depth_chunk) {
      routines.portable(a + offset<letters.a>(0, l, x.lda), x.b + offset<letters.b>(l, 0, x.ldb),
                        x.p + rows, x.m - rows, columns, depth_chunk, x.lda, x.ldb, x.ldp);
    }
  }
  if (columns < x.n) {
    chosen_kernels().r8.multiply[letters.a == Layout::t][letters.b == Layout::t](
        {x.a, x.b + offset<letters.b>(0, columns, x.ldb), x.p + columns * x.ldp, x.m, x.n - columns,
         x.k, x.lda, x.ldb, x.ldp},
        Sums::overwrite);
  }
}

template <Letters letters>
void multiply_packed(const Routines& routines, const double* a, const double* b, double* p, Size m,
                     Size n, Size k, Size lda, Size ldb, Size ldp) {
  if (m >= packed_min_rows && n >= packed_min_columns && k >= packed_min_depth) {
    const Size columns = min(n, column_panel);
    const Scratch scratch(columns);
    if (scratch) {
      if (const MultiplyPacked wide =
              chosen_kernels().packed[letters.a == Layout::t][letters.b == Layout::t]) {
        wide({a, b, p, m, n, k, lda, ldb, ldp}, {scratch.a(), scratch.b()}, columns);
        multiply_rest<letters>(routines, {a, b, p, m, n, k, lda, ldb, ldp});
        return;
      }
      PackedProduct<letters>(routines, scratch, a, b, p, m, n, k, lda, ldb, ldp).run(columns);
      return;
    }
  }
  routines.whole(a, b, p, m, k, n, lda, ldb, ldp);
}

}  // namespace
}  // namespace ksomd::matmul

using namespace ksomd::matmul;

#define KSOMD_DEFINE(code, element, letter_a, letter_b)                                     \
  void _MATMUL_##code##_##letter_a##_##letter_b##_QWide(const element* a, const element* b, \
                                                        element* p, Size m, Size n, Size k, \
                                                        Size lda, Size ldb, Size ldp) {     \
    constexpr Letters letters{Layout::letter_a, Layout::letter_b};                          \
    static constexpr Routines routines =                                                    \
        routines_of<letters>(_MATMUL_##code##_##letter_a##_##letter_b##_portable,           \
                             _MATMUL_##code##_##letter_a##_##letter_b##_pst_General);       \
    multiply_packed<letters>(routines, a, b, p, m, n, k, lda, ldb, ldp);                    \
  }
KSOMD_MATMUL_EACH_R8(KSOMD_DEFINE)
#undef KSOMD_DEFINE
