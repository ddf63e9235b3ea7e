// __orvex_avx_rep_memset: the fill of the AVX2 level.
#include "ksomd/memory.h"
#include "mem/avx_blocks.h"

namespace ksomd::mem {
namespace {

constexpr size_t block = 256;

// n is a block or more.
[[gnu::noinline]] void* fill_long(void* destination, int byte, size_t n) {
  auto* d = static_cast<Byte*>(destination);
  const Piece32::Value value = _mm256_set1_epi8(static_cast<char>(byte));
  Byte* const d_end = d + n;
  const size_t head = distance_to_boundary(32, d);
  Piece32::store<Access::Unaligned>(d, value);
  d += head, n -= head;

  if (n >= block) {
    const Tuning& tuning = __libkso_mem_tuning;
    if (n >= tuning.l1_size - tuning.l1_size / 16) {
      fill_string_bytes(d, repeat_byte(byte), n);
      clear_upper_halves();
      return destination;
    }
    do {
      fill_group<Piece32, 8, Access::Aligned>(d, value);
      d += block, n -= block;
    } while (n >= block);
  }
  // Less than a block is left. The last block of the whole range covers it without a branch.
  fill_group<Piece32, 8, Access::Unaligned>(d_end - block, value);
  clear_upper_halves();
  return destination;
}

}  // namespace
}  // namespace ksomd::mem

void* __orvex_avx_rep_memset(void* destination, int value, size_t count) {
  using namespace ksomd::mem;
  auto* d = static_cast<Byte*>(destination);
  const __m256i bytes = _mm256_set1_epi8(static_cast<char>(value));
  const __m128i half = _mm256_castsi256_si128(bytes);
  if (count <= block / 2) {
    if (count >= 32) {
      fill_quarters<Piece32>(d, bytes, count);
      clear_upper_halves<1>();
      return destination;
    }
    if (count >= 8) {
      fill_quarters<Piece8>(d, static_cast<std::uint64_t>(_mm_cvtsi128_si64(half)), count);
      clear_upper_halves<2>();
      return destination;
    }
    if (count >= 4) {
      fill_head_tail<Piece4, 1>(d, static_cast<std::uint32_t>(_mm_cvtsi128_si32(half)), count);
    } else if (count != 0) {
      d[0] = d[count / 2] = d[count - 1] = static_cast<Byte>(value);
    }
  } else if (count < block) {
    fill_head_tail<Piece32, 4>(d, bytes, count);
  } else {
    [[clang::musttail]] return fill_long(destination, value, count);
  }
  clear_upper_halves();
  return destination;
}
