#include "ksomd/memory.h"
#include "mem/avx512_blocks.h"

namespace ksomd::mem {
namespace {

constexpr size_t block = 256;

// Any n up to a block.
[[gnu::always_inline]] inline void fill_short(Byte* d, int byte, size_t n) {
  if (n < 64) {
    fill_below<Piece64>(d, repeat_byte(byte), n);
    return;
  }
  const __m512i value = _mm512_set1_epi8(static_cast<char>(byte));
  if (n <= 128) {
    fill_head_tail<Piece64, 1>(d, value, n);
  } else {
    fill_head_tail<Piece64, 2>(d, value, n);
  }
}

// Stores a block at each end and aligned blocks in between.
[[gnu::always_inline]] inline void fill_vectors(Byte* d, int byte, size_t n) {
  const __m512i value = _mm512_set1_epi8(static_cast<char>(byte));
  fill_head_tail<Piece64, 4>(d, value, n);
  Byte* const last = d + n - offset_in(block, d + n);
  for (d += block - offset_in(block, d); d < last; d += block) {
    fill_group<Piece64, 4, Access::Aligned>(d, value);
  }
}

}  // namespace
}  // namespace ksomd::mem

void* __orvex_tvr_avx512_memset(void* destination, int value, size_t count) {
  using namespace ksomd::mem;
  auto* d = static_cast<Byte*>(destination);
  if (count <= block) [[likely]] {
    fill_short(d, value, count);
  } else if (count > __libkso_mem_tuning.rep_stosb_threshold) {
    __asm__ volatile("cld" : : : "cc");
    fill_string_bytes(d, repeat_byte(value), count);
  } else {
    fill_vectors(d, value, count);
  }
  clear_upper_halves();
  return destination;
}
