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

// Any n up to 256, any overlap: everything is read before anything is stored. As few branches that
// depend on n as it takes: programs call with sizes that no predictor can tell.
[[gnu::always_inline]] inline void copy_up_to_256(Byte* d, const Byte* s, size_t n) {
  if (n < 32) {
    copy_below<Piece32>(d, s, n);
  } else if (n <= 64) {
    copy_head_tail<Piece32, 1>(d, s, n);
  } else if (n <= 128) {
    copy_head_tail<Piece32, 2>(d, s, n);
  } else {
    copy_head_tail<Piece32, 4>(d, s, n);
  }
}

[[gnu::always_inline]] inline void fill_up_to_256(Byte* d, std::uint64_t bytes, size_t n) {
  if (n < 32) {
    fill_below<Piece32>(d, bytes, n);
  } else if (n <= 64) {
    fill_head_tail<Piece32, 1>(d, Piece32::pattern(bytes), n);
  } else if (n <= 128) {
    fill_head_tail<Piece32, 2>(d, Piece32::pattern(bytes), n);
  } else {
    fill_head_tail<Piece32, 4>(d, Piece32::pattern(bytes), n);
  }
}

}  // namespace
}  // namespace ksomd::mem
