// __orvex_avx_rep_memcpy: the copy of the AVX2 level.
#include "ksomd/memory.h"
#include "mem/avx_blocks.h"

namespace ksomd::mem {
namespace {

constexpr size_t block = 256;
// Streaming stops when less than this is left, so that the last bytes of a large copy stay in the
// cache.
constexpr size_t stream_floor = 768;

// n is more than a block.
[[gnu::noinline]] void* copy_long(void* destination, const void* source, size_t n) {
  auto* d = static_cast<Byte*>(destination);
  const auto* s = static_cast<const Byte*>(source);
  const Byte* const s_end = s + n;
  Byte* const d_end = d + n;
  // One unaligned piece covers the head. What it stores behind the head is stored again below.
  const size_t head = distance_to_boundary(32, d);
  copy_piece<Piece32>(d, s);
  d += head, s += head, n -= head;

  const Tuning& tuning = __libkso_mem_tuning;
  if (n >= block && n >= tuning.l1_half - tuning.l1_half / 4) {
    if (n < tuning.copy_nt_threshold) {
      copy_string_bytes(d, s, n);
      clear_upper_halves();
      return destination;
    }
    do {
      prefetch<4, _MM_HINT_T0>(s + 512);
      copy_block<Piece32, 2, 4, Access::Unaligned, Access::NonTemporal>(d, s);
      d += block, s += block, n -= block;
    } while (n >= stream_floor);
    _mm_sfence();
  }
  for (; n >= block; d += block, s += block, n -= block) {
    copy_block<Piece32, 2, 4, Access::Unaligned, Access::Aligned>(d, s);
  }
  // Less than a block is left. The last block of the whole range covers it without a branch.
  copy_block<Piece32, 2, 4, Access::Unaligned, Access::Unaligned>(d_end - block, s_end - block);
  clear_upper_halves();
  return destination;
}

}  // namespace
}  // namespace ksomd::mem

void* __orvex_avx_rep_memcpy(void* destination, const void* source, size_t count) {
  using namespace ksomd::mem;
  auto* d = static_cast<Byte*>(destination);
  const auto* s = static_cast<const Byte*>(source);
  if (count < Piece32::size / 2) {
    copy_below<Piece16>(d, s, count);
  } else if (count < Piece32::size) {
    copy_head_tail<Piece16, 1>(d, s, count);
    clear_upper_halves<1>();
    return destination;
  } else if (count <= block / 2) {
    copy_quarters<Piece32>(d, s, count);
    clear_upper_halves<2>();
    return destination;
  } else if (count <= block) {
    const size_t tail = count - block / 2;
    copy_group<Piece32, 4, Access::Unaligned, Access::Unaligned>(d, s);
    copy_group<Piece32, 4, Access::Unaligned, Access::Unaligned>(d + tail, s + tail);
  } else {
    [[clang::musttail]] return copy_long(destination, source, count);
  }
  clear_upper_halves();
  return destination;
}
