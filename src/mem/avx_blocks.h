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
