// The copy and the move of the baseline.
#include "ksomd/memory.h"
#include "mem/blocks.h"
#include "second_names.h"

namespace ksomd::mem {
namespace {

constexpr std::int32_t sse2_class = 2;

// Copies words, ascending, and then the rest in pieces of 4, 2 and 1 bytes. All of the rest is
// loaded before any of it is stored, so the ranges may overlap if n is at most 8. Returns `result`.
struct ByteTail {
  using Routine = void*(Byte* d, const Byte* s, void* result);

  template <size_t n>
  static void* run(Byte* d, const Byte* s, void* result) {
    copy_block<Piece8, n / 8, 1, Access::Unaligned, Access::Unaligned>(d, s);
    copy_pieces<n % 8, Piece4>(d + n / 8 * 8, s + n / 8 * 8);
    return result;
  }

  // Copies n bytes as pieces from Piece down, one for each bit that is set in n.
  template <size_t n, class Piece>
  [[gnu::always_inline]] static void copy_pieces(Byte* d, const Byte* s) {
    if constexpr (n == 0) {
      return;
    } else if constexpr (n < Piece::size) {
      copy_pieces<n, typename Piece::Half>(d, s);
    } else {
      const auto value = Piece::template load<Access::Unaligned>(s);
      copy_pieces<n - Piece::size, typename Piece::Half>(d + Piece::size, s + Piece::size);
      Piece::template store<Access::Unaligned>(d, value);
    }
  }
};

// The mirror image, from the ends of the ranges downwards: words, then pieces of 4, 2 and 1 bytes.
// Each is stored before the next is loaded.
struct BackwardTail {
  using Routine = void*(Byte* d_end, const Byte* s_end, void* result);

  template <size_t n>
  static void* run(Byte* d, const Byte* s, void* result) {
#pragma clang loop unroll(full)
    for (size_t i = 0; i < n / 8; ++i) {
      d -= 8, s -= 8;
      copy_piece<Piece8>(d, s);
    }
    copy_pieces<n % 8, Piece4>(d, s);
    return result;
  }

  template <size_t n, class Piece>
  [[gnu::always_inline]] static void copy_pieces(Byte* d, const Byte* s) {
    if constexpr (n == 0) {
      return;
    } else if constexpr (n < Piece::size) {
      copy_pieces<n, typename Piece::Half>(d, s);
    } else {
      copy_piece<Piece>(d - Piece::size, s - Piece::size);
      copy_pieces<n - Piece::size, typename Piece::Half>(d - Piece::size, s - Piece::size);
    }
  }
};

constexpr size_t longest_tail = 176;  // up to here, once d is aligned to 8, there is no loop
constexpr size_t longest_backward_tail = 144;

constexpr auto& byte_tail = code_table<ByteTail, longest_tail + 1>;
constexpr auto& backward_tail = code_table<BackwardTail, longest_backward_tail + 1>;

// Copies up to the next multiple of 8 in pieces of 1, 2 and 4 bytes. All are loaded before any is
// stored.
struct Alignment {
  using Routine = void(Byte* d, const Byte* s);

  template <size_t n>
  static void run(Byte* d, const Byte* s) {
    const auto one = Piece1::load<Access::Unaligned>(s);
    const auto two = n & 2 ? Piece2::load<Access::Unaligned>(s + (n & 1)) : Piece2::Value{};
    const auto four = n & 4 ? Piece4::load<Access::Unaligned>(s + (n & 3)) : Piece4::Value{};
    if constexpr ((n & 1) != 0) {
      Piece1::store<Access::Unaligned>(d, one);
    }
    if constexpr ((n & 2) != 0) {
      Piece2::store<Access::Unaligned>(d + (n & 1), two);
    }
    if constexpr ((n & 4) != 0) {
      Piece4::store<Access::Unaligned>(d + (n & 3), four);
    }
  }
};

// ---- bulk, ascending: d is 8-byte aligned and n above longest_tail ------------------------------

void* copy_integer(Byte* d, const Byte* s, size_t n, void* result) {
  if (n > __libkso_mem_tuning.copy_nt_threshold) {
    do {
      prefetch<1, _MM_HINT_NTA>(s + 384);
      copy_block<Piece8, 8, 1, Access::Unaligned, Access::NonTemporal>(d, s);
      d += 64, s += 64, n -= 64;
    } while (n >= 64);
    _mm_sfence();
  } else {
    do {
      copy_block<Piece8, 8, 1, Access::Unaligned, Access::Unaligned>(d, s);
      d += 64, s += 64, n -= 64;
    } while (n > 64);
  }
  return byte_tail[n](d, s, result);
}

void* copy_streaming(Byte* d, const Byte* s, size_t n, void* result) {
  do {
    prefetch<1, _MM_HINT_NTA>(s + 448);
    copy_block<Piece16, 2, 2, Access::Unaligned, Access::NonTemporal>(d, s);
    d += 64, s += 64, n -= 64;
  } while (n >= 64);
  _mm_sfence();
  for (; n >= 16; d += 16, s += 16, n -= 16) {
    copy_group<Piece16, 1, Access::Unaligned, Access::Aligned>(d, s);
  }
  return byte_tail[n](d, s, result);
}

void* copy_aligned(Byte* d, const Byte* s, size_t n, void* result) {
  do {
    copy_block<Piece16, 4, 2, Access::Aligned, Access::Aligned>(d, s);
    d += 128, s += 128, n -= 128;
  } while (n >= 168);
  return byte_tail[n](d, s, result);
}

// The source is `shift` bytes past a 16-byte boundary. It is read in aligned blocks, each once, and
// shifted into place. The loop stops early enough that no block reaches past the source's end.
struct RealigningLoop {
  using Routine = void*(Byte* d, const Byte* s, size_t n, void* result);

  template <size_t shift>
  static void* run(Byte* d, const Byte* s, size_t n, void* result) {
    constexpr int right = shift, left = 16 - right;
    copy_group<Piece16, 1, Access::Unaligned, Access::Aligned>(d, s);
    d += 16, n -= 16;
    const Byte* next_block = s + (32 - shift);
    __m128i previous = Piece16::load<Access::Aligned>(next_block - 16);
    do {
      const __m128i first = Piece16::load<Access::Aligned>(next_block);
      const __m128i second = Piece16::load<Access::Aligned>(next_block + 16);
      Piece16::store<Access::Aligned>(
          d, _mm_or_si128(_mm_srli_si128(previous, right), _mm_slli_si128(first, left)));
      Piece16::store<Access::Aligned>(
          d + 16, _mm_or_si128(_mm_srli_si128(first, right), _mm_slli_si128(second, left)));
      previous = second;
      d += 32, next_block += 32, n -= 32;
    } while (n >= 48);
    return byte_tail[n](d, next_block - left, result);
  }
};

void* copy_sse2(Byte* d, const Byte* s, size_t n, void* result) {
  if (offset_in(16, d) != 0) {
    copy_piece<Piece8>(d, s);
    d += 8, s += 8, n -= 8;
  }
  if (n > __libkso_mem_tuning.copy_nt_threshold) {
    return copy_streaming(d, s, n, result);
  }
  const size_t shift = offset_in(16, s);
  if (shift == 0) {
    return copy_aligned(d, s, n, result);
  }
  return code_table<RealigningLoop, 16>[shift](d, s, n, result);
}

// Copies more than 8 bytes. If d < s the ranges may overlap: each source byte is read before it is
// overwritten.
[[gnu::always_inline]] inline void* copy_ascending(Byte* d, const Byte* s, size_t n) {
  void* const result = d;
  if (const size_t head = distance_to_boundary(8, d); head != 0) {
    code_table<Alignment, 8>[head](d, s);
    d += head, s += head, n -= head;
  }
  if (n <= longest_tail) {
    return byte_tail[n](d, s, result);
  }
  return __libkso_mem_tuning.mem_class == sse2_class ? copy_sse2(d, s, n, result)
                                                     : copy_integer(d, s, n, result);
}

// ---- descending: d and s are the ends of the ranges ---------------------------------------------

template <class Piece>
[[gnu::always_inline]] inline void move_down(Byte*& d, const Byte*& s, size_t& n) {
  d -= Piece::size, s -= Piece::size, n -= Piece::size;
  copy_piece<Piece>(d, s);
}

// Blocks of eight pieces while one is left, a pair of pieces at a time.
template <class Piece, Access to>
[[gnu::always_inline]] inline void move_blocks_down(Byte*& d, const Byte*& s, size_t& n) {
  do {
#pragma clang loop unroll(full)
    for (int pair = 0; pair < 4; ++pair) {
      d -= 2 * Piece::size, s -= 2 * Piece::size;
      copy_group<Piece, 2, Access::Unaligned, to>(d, s);
    }
    n -= 8 * Piece::size;
  } while (n >= 8 * Piece::size);
}

void* move_descending(Byte* d, const Byte* s, size_t n, void* result) {
  if (offset_in(2, d) != 0) {
    move_down<Piece1>(d, s, n);
  }
  if (offset_in(4, d) != 0) {
    move_down<Piece2>(d, s, n);
  }
  if (offset_in(8, d) != 0) {
    move_down<Piece4>(d, s, n);
  }
  if (n <= longest_backward_tail) {
    return backward_tail[n](d, s, result);
  }
  if (__libkso_mem_tuning.mem_class == sse2_class) {
    if (offset_in(16, d) != 0) {
      move_down<Piece8>(d, s, n);
    }
    move_blocks_down<Piece16, Access::Aligned>(d, s, n);
  } else {
    move_blocks_down<Piece8, Access::Unaligned>(d, s, n);
  }
  return backward_tail[n](d, s, result);
}

}  // namespace
}  // namespace ksomd::mem

using namespace ksomd::mem;

void* __orvex_new_memcpy(void* destination, const void* source, size_t count) {
  auto* d = static_cast<Byte*>(destination);
  const auto* s = static_cast<const Byte*>(source);
  return count <= 8 ? byte_tail[count](d, s, destination) : copy_ascending(d, s, count);
}
KSOMD_SECOND_NAMES(__orvex_new_memcpy);

void* __orvex_new_memmove(void* destination, const void* source, size_t count) {
  auto* d = static_cast<Byte*>(destination);
  const auto* s = static_cast<const Byte*>(source);
  if (count <= 8) {
    return byte_tail[count](d, s, destination);
  }
  // d lies inside the source range behind s: ascending stores would overwrite bytes that are still
  // to be read.
  const auto distance = reinterpret_cast<std::uintptr_t>(d) - reinterpret_cast<std::uintptr_t>(s);
  if (distance != 0 && distance < count) {
    return move_descending(d + count, s + count, count, destination);
  }
  return copy_ascending(d, s, count);
}
