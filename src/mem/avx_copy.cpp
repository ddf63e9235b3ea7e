#include "ksomd/memory.h"
#include "mem/avx_blocks.h"

namespace ksomd::mem {
namespace {

constexpr size_t block = 256;
// The last bytes of a large copy stay in the cache.
constexpr size_t stream_floor = 768;

// n is more than a block.
[[gnu::always_inline]] inline void copy_long(Byte* d, const Byte* s, size_t n) {
  const Byte* const s_end = s + n;
  Byte* const d_end = d + n;
  const size_t head = distance_to_boundary(32, d);
  copy_piece<Piece32>(d, s);
  d += head, s += head, n -= head;

  const Tuning& tuning = __libkso_mem_tuning;
  if (n >= block && n >= tuning.l1_half - tuning.l1_half / 4) {
    if (n < tuning.copy_nt_threshold) {
      copy_string_bytes(d, s, n);
      return;
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
  // What is left is less than a block: the last block of the range, without a branch.
  copy_block<Piece32, 2, 4, Access::Unaligned, Access::Unaligned>(d_end - block, s_end - block);
}

}  // namespace
}  // namespace ksomd::mem

void* __orvex_avx_rep_memcpy(void* destination, const void* source, size_t count) {
  using namespace ksomd::mem;
  auto* d = static_cast<Byte*>(destination);
  const auto* s = static_cast<const Byte*>(source);
  if (count <= block) [[likely]] {
    copy_up_to_256(d, s, count);
  } else {
    copy_long(d, s, count);
  }
  _mm256_zeroupper();
  return destination;
}
