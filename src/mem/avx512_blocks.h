// The 64-byte piece, for files compiled for AVX512F.
#pragma once

#include "mem/avx_blocks.h"

namespace ksomd::mem {
namespace {

struct Piece64 {
  using Value = __m512i;
  using Half = Piece32;
  static constexpr size_t size = 64;

  [[gnu::always_inline]] static Value pattern(std::uint64_t bytes) {
    return _mm512_set1_epi64(static_cast<long long>(bytes));
  }
  template <Access access>
  [[gnu::always_inline]] static Value load(const Byte* p) {
    const auto* block = reinterpret_cast<const __m512i_u*>(p);
    if constexpr (access == Access::Aligned) {
      return _mm512_load_si512(reinterpret_cast<const Value*>(block));
    } else {
      return _mm512_loadu_si512(block);
    }
  }
  template <Access access>
  [[gnu::always_inline]] static void store(Byte* p, Value value) {
    auto* block = reinterpret_cast<__m512i_u*>(p);
    if constexpr (access == Access::NonTemporal) {
      _mm512_stream_si512(reinterpret_cast<Value*>(block), value);
    } else if constexpr (access == Access::Aligned) {
      _mm512_store_si512(reinterpret_cast<Value*>(block), value);
    } else {
      _mm512_storeu_si512(block, value);
    }
  }
};

}  // namespace
}  // namespace ksomd::mem
