// Variants for many-core processors, which have AVX512F only and are slow at clearing upper halves.
#include "ksomd/memory.h"
#include "mem/avx512_blocks.h"

namespace ksomd::mem {
namespace {

constexpr size_t block = 512;
constexpr size_t prefetch_distance = 1536;

// How large ranges are stored: past the cache, or through it like all others.
enum class Large { Stream, ReadForOwnership };

// Copies 64 bytes at a time, and prefetches the source into the second-level cache.
template <Access to>
[[gnu::always_inline]] inline void copy_blocks(Byte*& d, const Byte*& s, size_t& n) {
  do {
#pragma clang loop unroll(full)
    for (size_t i = 0; i < block; i += Piece64::size) {
      prefetch<1, _MM_HINT_T1>(s + i + prefetch_distance);
      copy_group<Piece64, 1, Access::Unaligned, to>(d + i, s + i);
    }
    d += block, s += block, n -= block;
  } while (n >= block);
  if constexpr (to == Access::NonTemporal) {
    _mm_sfence();
  }
}

template <Large large>
[[gnu::always_inline]] inline void* copy(void* destination, const void* source, size_t n) {
  auto* d = static_cast<Byte*>(destination);
  const auto* s = static_cast<const Byte*>(source);
  if (n < Piece64::size) {
    copy_below<Piece64>(d, s, n);
    return destination;
  }
  if (n < 2 * Piece64::size) {
    copy_head_tail<Piece64, 1>(d, s, n);
    return destination;
  }
  Byte* const d_end = d + n;
  const Byte* const s_end = s + n;
  const size_t head = distance_to_boundary(Piece64::size, d);
  copy_piece<Piece64>(d, s);
  d += head, s += head, n -= head;
  if (n >= block) {
    const bool is_large = n >= __libkso_mem_tuning.copy_nt_threshold;
    if (is_large) {
      prefetch<prefetch_distance / cache_line, _MM_HINT_T1>(s);
    }
    if (is_large && large == Large::Stream) {
      copy_blocks<Access::NonTemporal>(d, s, n);
    } else {
      copy_blocks<Access::Aligned>(d, s, n);
    }
  }
  for (; n >= Piece64::size; d += Piece64::size, s += Piece64::size, n -= Piece64::size) {
    copy_group<Piece64, 1, Access::Unaligned, Access::Aligned>(d, s);
  }
  if (n != 0) {
    copy_piece<Piece64>(d_end - Piece64::size, s_end - Piece64::size);
  }
  return destination;
}

template <Access to>
[[gnu::always_inline]] inline void fill_blocks(Byte*& d, __m512i value, size_t& n) {
  do {
    fill_group<Piece64, 8, to>(d, value);
    d += block, n -= block;
  } while (n >= block);
  if constexpr (to == Access::NonTemporal) {
    _mm_sfence();
  }
}

template <Large large>
[[gnu::always_inline]] inline void* fill(void* destination, int byte, size_t n) {
  auto* d = static_cast<Byte*>(destination);
  const std::uint64_t bytes = repeat_byte(byte);
  if (n < Piece64::size) {
    fill_below<Piece64>(d, bytes, n);
    return destination;
  }
  const __m512i value = Piece64::pattern(bytes);
  if (n < 2 * Piece64::size) {
    fill_head_tail<Piece64, 1>(d, value, n);
    return destination;
  }
  Byte* const d_end = d + n;
  const size_t head = distance_to_boundary(Piece64::size, d);
  Piece64::store<Access::Unaligned>(d, value);
  d += head, n -= head;
  if (n >= block) {
    if (large == Large::Stream && n >= __libkso_mem_tuning.l1_quarter) {
      fill_blocks<Access::NonTemporal>(d, value, n);
    } else {
      fill_blocks<Access::Aligned>(d, value, n);
    }
  }
  for (; n >= Piece64::size; d += Piece64::size, n -= Piece64::size) {
    Piece64::store<Access::Aligned>(d, value);
  }
  if (n != 0) {
    Piece64::store<Access::Unaligned>(d_end - Piece64::size, value);
  }
  return destination;
}

}  // namespace
}  // namespace ksomd::mem

using namespace ksomd::mem;

void* __orvex_pxn_avx512f_memcpy(void* destination, const void* source, size_t count) {
  return copy<Large::Stream>(destination, source, count);
}
void* __orvex_pxn_avx512f_rfo_memcpy(void* destination, const void* source, size_t count) {
  return copy<Large::ReadForOwnership>(destination, source, count);
}
void* __orvex_pxn_avx512f_memset(void* destination, int value, size_t count) {
  return fill<Large::Stream>(destination, value, count);
}
void* __orvex_pxn_avx512f_rfo_memset(void* destination, int value, size_t count) {
  return fill<Large::ReadForOwnership>(destination, value, count);
}
