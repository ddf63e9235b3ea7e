// The 32-byte piece, for files compiled for AVX.
#pragma once

#include <immintrin.h>

#include "mem/blocks.h"

namespace ksomd::mem {
namespace {

struct Ymm {
  using Value = __m256i;
  using Unaligned = __m256i_u;
  [[gnu::always_inline]] static Value pattern(long long word) { return _mm256_set1_epi64x(word); }
  [[gnu::always_inline]] static void stream(Value* p, Value v) { _mm256_stream_si256(p, v); }
};
using Piece32 = VectorPiece<Ymm, Piece16>;

// Clears the upper halves of the vector registers, as the last step of a routine. It is not the
// intrinsic, which counts as a change of the vector registers that Windows wants preserved: each
// call would save and restore all ten, although their low halves stay as they are. A distinct
// `path` stops the compiler from merging this ending with another path's, which would cost a jump.
template <int path = 0>
[[gnu::always_inline]] inline void clear_upper_halves() {
  __asm__ volatile("vzeroupper" : : "i"(path) : "memory");
}

// The short paths have few branches that depend on n, because programs call with sizes that no
// predictor can guess. They use few vector registers, because on Windows a function must save those
// from the seventh on.

// Any n up to 128. The ranges may overlap: everything is read before anything is stored.
[[gnu::always_inline]] inline void copy_up_to_128(Byte* d, const Byte* s, size_t n) {
  if (n < Piece32::size) {
    copy_below<Piece32>(d, s, n);
  } else {
    copy_quarters<Piece32>(d, s, n);
  }
}

}  // namespace
}  // namespace ksomd::mem
