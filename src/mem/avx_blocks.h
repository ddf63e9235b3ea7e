// The 32-byte piece, for files compiled for AVX.
#pragma once

#include <immintrin.h>

#include "mem/blocks.h"

namespace ksomd::mem {
namespace {

struct Piece32 {
  using Value = __m256i;
  using Half = Piece16;
  static constexpr size_t size = 32;

  [[gnu::always_inline]] static Value pattern(std::uint64_t bytes) {
    return _mm256_set1_epi64x(static_cast<long long>(bytes));
  }
  template <Access access>
  [[gnu::always_inline]] static Value load(const Byte* p) {
    const auto* block = reinterpret_cast<const __m256i_u*>(p);
    if constexpr (access == Access::Aligned) {
      return _mm256_load_si256(reinterpret_cast<const Value*>(block));
    } else {
      return _mm256_loadu_si256(block);
    }
  }
  template <Access access>
  [[gnu::always_inline]] static void store(Byte* p, Value value) {
    auto* block = reinterpret_cast<__m256i_u*>(p);
    if constexpr (access == Access::NonTemporal) {
      _mm256_stream_si256(reinterpret_cast<Value*>(block), value);
    } else if constexpr (access == Access::Aligned) {
      _mm256_store_si256(reinterpret_cast<Value*>(block), value);
    } else {
      _mm256_storeu_si256(block, value);
    }
  }
};

}  // namespace
}  // namespace ksomd::mem
