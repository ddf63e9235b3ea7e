#include "ksomd/memory.h"
#include "mem/avx512_blocks.h"

namespace ksomd::mem {
namespace {

constexpr size_t block = 256;

// Any n up to 512.
[[gnu::always_inline]] inline void copy_short(Byte* d, const Byte* s, size_t n) {
  if (n < 64) {
    copy_below<Piece64>(d, s, n);
  } else if (n < 128) {
    copy_head_tail<Piece64, 1>(d, s, n);
  } else if (n < 256) {
    copy_head_tail<Piece64, 2>(d, s, n);
  } else {
    copy_head_tail<Piece64, 4>(d, s, n);
  }
}

// Copies blocks while more than one is left. d is aligned.
template <Access to>
[[gnu::always_inline]] inline void copy_blocks(Byte*& d, const Byte*& s, size_t n) {
  for (; n > block; d += block, s += block, n -= block) {
    if constexpr (to == Access::NonTemporal) {
      prefetch<8, _MM_HINT_T0>(s + 512);
    }
    copy_group<Piece64, 4, Access::Unaligned, to>(d, s);
  }
  if constexpr (to == Access::NonTemporal) {
    _mm_sfence();
  }
}

[[gnu::always_inline]] inline void copy_vectors(Byte* d, const Byte* s, size_t n) {
  Byte* const d_end = d + n;
  const Byte* const s_end = s + n;
  copy_piece<Piece64>(d, s);
  const size_t head = Piece64::size - offset_in(Piece64::size, d);
  d += head, s += head, n -= head;
  if (n > __libkso_mem_tuning.avx512_nt_threshold) {
    copy_blocks<Access::NonTemporal>(d, s, n);
  } else {
    copy_blocks<Access::Aligned>(d, s, n);
  }
  copy_group<Piece64, 4, Access::Unaligned, Access::Unaligned>(d_end - block, s_end - block);
}

}  // namespace
}  // namespace ksomd::mem

void* __orvex_tvr_avx512_memcpy(void* destination, const void* source, size_t count) {
  using namespace ksomd::mem;
  auto* d = static_cast<Byte*>(destination);
  const auto* s = static_cast<const Byte*>(source);
  const Tuning& tuning = __libkso_mem_tuning;
  if (count <= 512) [[likely]] {
    copy_short(d, s, count);
  } else if (count > tuning.rep_movsb_threshold && count < tuning.avx512_nt_threshold) {
    copy_string_bytes(d, s, count);
  } else {
    copy_vectors(d, s, count);
  }
  clear_upper_halves();
  return destination;
}
