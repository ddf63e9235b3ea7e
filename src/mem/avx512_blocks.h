// The 64-byte piece, for files compiled for AVX512F.
#pragma once

#include "mem/avx_blocks.h"

namespace ksomd::mem {
namespace {

struct Zmm {
  using Value = __m512i;
  using Unaligned = __m512i_u;
  [[gnu::always_inline]] static Value pattern(long long word) { return _mm512_set1_epi64(word); }
  [[gnu::always_inline]] static void stream(Value* p, Value v) { _mm512_stream_si512(p, v); }
};
using Piece64 = VectorPiece<Zmm, Piece32>;

}  // namespace
}  // namespace ksomd::mem
