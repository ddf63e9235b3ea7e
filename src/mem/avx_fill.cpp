#include "ksomd/memory.h"
#include "mem/avx_blocks.h"

namespace ksomd::mem {
namespace {

constexpr size_t block = 256;

// Any n up to 128.
[[gnu::always_inline]] inline void fill_short(Byte* d, std::uint64_t bytes, size_t n) {
  if (n < 32) {
    fill_below<Piece32>(d, bytes, n);
  } else if (n <= 64) {
    fill_head_tail<Piece32, 1>(d, Piece32::pattern(bytes), n);
  } else {
    fill_head_tail<Piece32, 2>(d, Piece32::pattern(bytes), n);
  }
}

// n is more than 128.
[[gnu::always_inline]] inline void fill_long(Byte* d, std::uint64_t bytes, size_t n) {
  const Piece32::Value value = Piece32::pattern(bytes);
  Byte* const d_end = d + n;
  const size_t head = distance_to_boundary(32, d);
  Piece32::store<Access::Unaligned>(d, value);
  d += head, n -= head;

  if (n >= block) {
    const Tuning& tuning = __libkso_mem_tuning;
    if (n >= tuning.l1_size - tuning.l1_size / 16) {
      fill_string_bytes(d, bytes, n);
      return;
    }
    do {
      fill_group<Piece32, 8, Access::Aligned>(d, value);
      d += block, n -= block;
    } while (n >= block);
  }
  for (; n >= 32; d += 32, n -= 32) {
    Piece32::store<Access::Aligned>(d, value);
  }
  if (n != 0) {
    Piece32::store<Access::Unaligned>(d_end - 32, value);
  }
}

}  // namespace
}  // namespace ksomd::mem

void* __orvex_avx_rep_memset(void* destination, int value, size_t count) {
  using namespace ksomd::mem;
  auto* d = static_cast<Byte*>(destination);
  const std::uint64_t bytes = repeat_byte(value);
  if (count <= 128) [[likely]] {
    fill_short(d, bytes, count);
  } else {
    fill_long(d, bytes, count);
  }
  _mm256_zeroupper();
  return destination;
}
