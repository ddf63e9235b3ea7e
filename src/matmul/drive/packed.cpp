// The packed, cache-blocked double-precision product.
//
// Per element: the tail chunk of the depth overwrites P, the full chunks follow and add their sums
// to it. The tiles compute complete groups of four rows and columns. Other rows are portable
// products of the same chunks; other columns are products over all of k.
#include <cstdlib>

#include "matmul/drive/blocked.h"
#include "matmul/drive/kernels.h"

namespace ksomd::matmul {
namespace {

// The scratch memory of one product.
class Scratch {
 public:
  explicit Scratch(Size columns) : layout_(columns), memory_(std::malloc(layout_.bytes())) {}
  ~Scratch() { std::free(memory_); }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;

  explicit operator bool() const { return memory_ != nullptr; }
  double* a() const { return reinterpret_cast<double*>(layout_.a(start())); }
  double* b() const { return reinterpret_cast<double*>(layout_.b(start())); }
  double* doubled() const { return reinterpret_cast<double*>(layout_.doubled(start())); }

 private:
  std::uintptr_t start() const { return reinterpret_cast<std::uintptr_t>(memory_); }

  ScratchLayout layout_;
  void* memory_;
};

// x is one chunk of the depth and one pass of columns: complete groups of four rows and columns.
using MultiplyChunk = void (*)(const Product<double>& x, Finish finish, const Scratch& scratch);

// With the exported packing routines and tile kernels.
void multiply_chunk_exported(const Product<double>& x, Finish finish, const Scratch& scratch) {
  const auto pack_a = x.a.layout == Layout::n ? __orvex_dgcopyan_qwide : __orvex_dgcopyat_qwide;
  const auto pack_b = x.b.layout == Layout::n ? __orvex_dgcopybn_psc : __orvex_dgcopybt_psc;
  const auto tiles = finish == Finish::add_old ? __orvex_dinner_qwide : __orvex_dinnerz_roll_qwide;
  constexpr Size unused = 0;
  const Size depth = padded_depth(x.k);
  pack_b(x.k, x.n, x.b.start, x.b.leading, scratch.b());
  for (Size i = 0; i < x.m; i += packed_rows) {
    const Size rows = min(packed_rows, x.m - i);
    pack_a(rows, x.k, x.a.at(i, 0), x.a.leading, scratch.a());
    tiles(&rows, &x.n, &depth, scratch.a(), scratch.b(), &unused, x.p.at(i, 0), &x.p.leading,
          scratch.doubled());
  }
}

// With the chosen kernels. A panel holds a tile's rows of op(A), or columns of op(B), and no
// padding: Finish::plus_zero has the effect that the products of the padding have.
void multiply_chunk_in_panels(const Product<double>& x, Finish finish, const Scratch& scratch) {
  const ElementKernels<double>& kernels = chosen_kernels().r8;
  const bool packs_b = x.b.layout == Layout::t || x.m > most_rows_with_b_in_place;
  const Size row_block = round_down(packed_rows, kernels.rows());
  if (packs_b) {
    for (Size j = 0; j < x.n;) {
      const Size columns = kernels.next_columns(x.n - j).count;
      kernels.pack(x.b.from(0, j).transposed(), columns, x.k, scratch.b() + j * x.k, columns);
      j += columns;
    }
  }
  for (Size i = 0; i < x.m; i += row_block) {
    const Size rows = min(row_block, x.m - i);
    for (Size row = 0; row < rows;) {
      const Size count = kernels.next_rows(rows - row).count;
      kernels.pack(x.a.from(i + row, 0), count, x.k, scratch.a() + row * x.k, count);
      row += count;
    }
    auto call = tile_call<double>(kernels, x.p.from(i, 0), x.k, {Start::zero, finish});
    for (Size j = 0; j < x.n;) {
      const TileColumns columns = kernels.next_columns(x.n - j);
      call.b.depth_step = packs_b ? columns.count : 1;
      call.b.column_step = packs_b ? 1 : x.b.leading;
      set_pieces(call, call.b.piece, packs_b ? scratch.b() + j * x.k : x.b.at(0, j),
                 call.b.depth_step);
      walk_down<Source::panels>(kernels, call, columns, scratch.a(), x.p.at(i, j), rows);
      j += columns.count;
    }
  }
}

// Calls body(chunk, is_first) for the chunks of the depth of x in their order.
template <class Body>
void each_chunk(const Product<double>& x, Body body) {
  const Size tail = tail_depth(x.k);
  const auto chunk = [&](Size l, Size depth, bool first) {
    body(Product<double>{x.a.from(0, l), x.b.from(l, 0), x.p, x.m, x.n, depth}, first);
  };
  chunk(x.k - tail, tail, true);
  for (Size l = 0; l < x.k - tail; l += depth_chunk) {
    chunk(l, depth_chunk, false);
  }
}

// Complete groups of four rows and columns. Returns false, with nothing done, if there is no
// scratch.
bool multiply_tiles(const Product<double>& x, Size columns_per_pass) {
  const Kernels& kernels = chosen_kernels();
  const Finish first = x.k % exported_tile == 0 ? Finish::store : Finish::plus_zero;
  // One chunk, a few rows: the portable product sums in the same order, packs less, and does
  // without the scratch, which takes longer to get from some systems than small products take.
  if (kernels.tiles_serve_packed && x.k <= depth_chunk && x.m <= packed_rows) {
    BlockedProduct(kernels.r8, x, {Start::zero, first}).run();
    return true;
  }
  const Scratch scratch(columns_per_pass);
  if (!scratch) {
    return false;
  }
  const MultiplyChunk multiply_chunk =
      kernels.tiles_serve_packed ? multiply_chunk_in_panels : multiply_chunk_exported;
  for (Size j = 0; j < x.n; j += columns_per_pass) {
    const Product<double> pass{
        x.a, x.b.from(0, j), x.p.from(0, j), x.m, min(x.n - j, columns_per_pass), x.k};
    each_chunk(pass, [&](const Product<double>& chunk, bool is_first) {
      multiply_chunk(chunk, is_first ? first : Finish::add_old, scratch);
    });
  }
  return true;
}

// x is large enough to be packed. Returns false, with nothing done, if there is no scratch.
// Separate, so that small products do not pay for its frame.
[[gnu::noinline]] bool multiply_packed(const Product<double>& x) {
  const Size rows = round_down(x.m, exported_tile);
  const Size columns = round_down(x.n, exported_tile);
  if (!multiply_tiles({x.a, x.b, x.p, rows, columns, x.k}, min(x.n, max_columns_per_pass))) {
    return false;
  }
  if (rows < x.m) {
    each_chunk({x.a.from(rows, 0), x.b, x.p.from(rows, 0), x.m - rows, columns, x.k},
               [](const Product<double>& chunk, bool is_first) {
                 multiply_portable(chunk, is_first ? Old::cleared : Old::added);
               });
  }
  if (columns < x.n) {
    const Product<double> rest{x.a, x.b.from(0, columns), x.p.from(0, columns),
                               x.m, x.n - columns,        x.k};
    BlockedProduct(chosen_kernels().r8, rest, {Start::zero, Finish::store}).run();
  }
  return true;
}

}  // namespace
}  // namespace ksomd::matmul

using namespace ksomd::matmul;

#define KSOMD_DEFINE(code, element, letter_a, letter_b)                                     \
  void _MATMUL_##code##_##letter_a##_##letter_b##_QWide(const element* a, const element* b, \
                                                        element* p, Size m, Size n, Size k, \
                                                        Size lda, Size ldb, Size ldp) {     \
    if (m < packed_min_rows || n < packed_min_columns || k < packed_min_depth ||            \
        !multiply_packed(KSOMD_PRODUCT(letter_a, letter_b))) {                              \
      _MATMUL_##code##_##letter_a##_##letter_b##_portable(a, b, p, m, k, n, lda, ldb, ldp); \
    }                                                                                       \
  }
KSOMD_MATMUL_EACH_R8(KSOMD_DEFINE)
#undef KSOMD_DEFINE
