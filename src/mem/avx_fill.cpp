#include "ksomd/memory.h"
#include "mem/avx_blocks.h"

namespace ksomd::mem {
namespace {

constexpr size_t block = 256;

// n is a block or more.
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
  // What is left is less than a block: the last block of the range, without a branch.
  fill_group<Piece32, 8, Access::Unaligned>(d_end - block, value);
}

}  // namespace
}  // namespace ksomd::mem

void* __orvex_avx_rep_memset(void* destination, int value, size_t count) {
  using namespace ksomd::mem;
  auto* d = static_cast<Byte*>(destination);
  const std::uint64_t bytes = repeat_byte(value);
  if (count < block) [[likely]] {
    fill_up_to_256(d, bytes, count);
  } else {
    fill_long(d, bytes, count);
  }
  _mm256_zeroupper();
  return destination;
}
