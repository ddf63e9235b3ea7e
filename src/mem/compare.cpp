// Comparisons.
#include "ksomd/memory.h"
#include "mem/blocks.h"

namespace ksomd::mem {
namespace {

// 1 or -1: how two different words compare at their first different byte, in address order.
[[gnu::always_inline]] inline int order(std::uint64_t a, std::uint64_t b) {
  return __builtin_bswap64(a) > __builtin_bswap64(b) ? 1 : -1;
}

template <class Piece>
[[gnu::always_inline]] inline std::uint64_t word(const Byte* p) {
  return Piece::template load<Access::Unaligned>(p);
}

// Whether two pieces differ. If so, `result` becomes 1 or -1.
template <class Piece>
[[gnu::always_inline]] inline bool differ(const Byte* a, const Byte* b, int& result) {
  const std::uint64_t x = word<Piece>(a), y = word<Piece>(b);
  if (x == y) {
    return false;
  }
  result = order(x, y);
  return true;
}

template <>
[[gnu::always_inline]] inline bool differ<Piece16>(const Byte* a, const Byte* b, int& result) {
  const __m128i equal =
      _mm_cmpeq_epi8(Piece16::load<Access::Unaligned>(a), Piece16::load<Access::Unaligned>(b));
  const unsigned differences = static_cast<unsigned>(_mm_movemask_epi8(equal)) ^ 0xFFFF;
  if (differences == 0) [[likely]] {
    return false;
  }
  const int first = __builtin_ctz(differences);
  result = a[first] > b[first] ? 1 : -1;
  return true;
}

// ---- whole ranges at once -----------------------------------------------------------------------

template <Access from = Access::Unaligned>
[[gnu::always_inline]] inline __m128i equal_bytes(const Byte* a, const Byte* b) {
  return _mm_cmpeq_epi8(Piece16::load<from>(a), Piece16::load<Access::Unaligned>(b));
}

[[gnu::always_inline]] inline bool all_set(__m128i mask) {
  return _mm_movemask_epi8(mask) == 0xFFFF;
}

// 16 to 64 bytes, as four blocks that overlap.
//
//   | 0 |inner|  ...  |n - 16 - inner|n - 16|      inner = 0 up to 32 bytes, else 16
[[gnu::always_inline]] inline bool equal_up_to_64(const Byte* a, const Byte* b, size_t n) {
  const size_t inner = inner_offset<Piece16>(n), last = n - 16;
  const __m128i head = _mm_and_si128(equal_bytes(a, b), equal_bytes(a + inner, b + inner));
  const __m128i tail = _mm_and_si128(equal_bytes(a + last - inner, b + last - inner),
                                     equal_bytes(a + last, b + last));
  return all_set(_mm_and_si128(head, tail));
}

template <Access from = Access::Unaligned>
[[gnu::always_inline]] inline __m128i equal_64(const Byte* a, const Byte* b) {
  return _mm_and_si128(
      _mm_and_si128(equal_bytes<from>(a, b), equal_bytes<from>(a + 16, b + 16)),
      _mm_and_si128(equal_bytes<from>(a + 32, b + 32), equal_bytes<from>(a + 48, b + 48)));
}

// 64 to 128 bytes.
[[gnu::always_inline]] inline bool equal_up_to_128(const Byte* a, const Byte* b, size_t n) {
  return all_set(_mm_and_si128(equal_64(a, b), equal_64(a + n - 64, b + n - 64)));
}

template <Access from = Access::Unaligned>
[[gnu::always_inline]] inline bool equal_128(const Byte* a, const Byte* b) {
  return all_set(_mm_and_si128(equal_64<from>(a, b), equal_64<from>(a + 64, b + 64)));
}

// ---- short ranges -------------------------------------------------------------------------------

[[gnu::always_inline]] inline int sign(std::uint64_t x, std::uint64_t y) {
  return (x > y) - (x < y);
}

// Two pieces of 4 bytes as one number. The first byte is the most significant one.
[[gnu::always_inline]] inline std::uint64_t joined_halves(const Byte* first, const Byte* second) {
  return __builtin_bswap64(word<Piece4>(second) << 32 | word<Piece4>(first));
}

// One to three bytes as a number of the same order.
[[gnu::always_inline]] inline std::uint64_t joined_bytes(const Byte* p, size_t n) {
  return std::uint64_t{p[0]} << 16 | std::uint64_t{p[n / 2]} << 8 | p[n - 1];
}

[[gnu::always_inline]] inline int compare_below_16(const Byte* a, const Byte* b, size_t n) {
  if (n >= 4) {
    const size_t inner = inner_offset<Piece4>(n), last = n - 4;
    const std::uint64_t x = joined_halves(a, a + inner), y = joined_halves(b, b + inner);
    const std::uint64_t x_tail = joined_halves(a + last - inner, a + last);
    const std::uint64_t y_tail = joined_halves(b + last - inner, b + last);
    const bool equal = x == y;
    return sign(equal ? x_tail : x, equal ? y_tail : y);
  }
  return n == 0 ? 0 : sign(joined_bytes(a, n), joined_bytes(b, n));
}

// ---- the first difference -----------------------------------------------------------------------

// The result for 16 bytes or more, known to differ. Out of line, since most comparisons of some
// length find no difference or end in their first bytes.
[[gnu::noinline]] int order_of_difference(const Byte* a, const Byte* b, size_t n) {
  int result = 0;
  for (; n >= 16; a += 16, b += 16, n -= 16) {
    if (differ<Piece16>(a, b, result)) {
      return result;
    }
  }
  return compare_below_16(a, b, n);
}

// More than 128 bytes: blocks from the first 16-byte boundary of the first operand on, which is
// then read aligned, and the last block of the range.
[[gnu::noinline]] int compare_long(const Byte* a, const Byte* b, size_t n) {
  constexpr size_t block = 128;
  if (!all_set(equal_bytes(a, b))) {
    return order_of_difference(a, b, 16);
  }
  const std::ptrdiff_t distance = b - a;
  const Byte* const last = a + n - block;
  for (a += 16 - offset_in(16, a); a < last; a += block) {
    if (!equal_128<Access::Aligned>(a, a + distance)) {
      return order_of_difference(a, a + distance, block);
    }
  }
  return equal_128(last, last + distance) ? 0 : order_of_difference(last, last + distance, block);
}

// Compares words and then 4, 2 and 1 bytes, ascending. Up to 64 bytes.
struct CompareTail {
  using Routine = int(const Byte* a, const Byte* b);

  template <size_t n>
  static int run(const Byte* a, const Byte* b) {
    int result = 0;
#pragma clang loop unroll(full)
    for (size_t i = 0; i < n / 8 * 8; i += 8) {
      if (differ<Piece8>(a + i, b + i, result)) {
        return result;
      }
    }
    compare_pieces<n % 8, Piece4>(a + n / 8 * 8, b + n / 8 * 8, result);
    return result;
  }

  template <size_t n, class Piece>
  [[gnu::always_inline]] static void compare_pieces(const Byte* a, const Byte* b, int& result) {
    if constexpr (n == 0) {
      return;
    } else if constexpr (n < Piece::size) {
      compare_pieces<n, typename Piece::Half>(a, b, result);
    } else if (!differ<Piece>(a, b, result)) {
      compare_pieces<n - Piece::size, typename Piece::Half>(a + Piece::size, b + Piece::size,
                                                            result);
    }
  }
};

}  // namespace
}  // namespace ksomd::mem

using namespace ksomd::mem;

int _orvex_fast_memcmp(const void* first, const void* second, size_t count) {
  const auto* a = static_cast<const Byte*>(first);
  const auto* b = static_cast<const Byte*>(second);
  if (a == b) {
    return 0;
  }
  if (count < 16) {
    return compare_below_16(a, b, count);
  }
  if (count <= 128) {
    const bool equal = count <= 64 ? equal_up_to_64(a, b, count) : equal_up_to_128(a, b, count);
    return equal ? 0 : order_of_difference(a, b, count);
  }
  return compare_long(a, b, count);
}

int __orvex_new_memcmp(const void* first, const void* second, size_t count) {
  const auto* a = static_cast<const Byte*>(first);
  const auto* b = static_cast<const Byte*>(second);
  if (count > 64) {
    int result = 0;
    do {
#pragma clang loop unroll(full)
      for (size_t i = 0; i < 64; i += 8) {
        if (differ<Piece8>(a + i, b + i, result)) {
          return result;
        }
      }
      a += 64, b += 64, count -= 64;
    } while (count >= 64);
  }
  return code_table<CompareTail, 65>[count](a, b);
}
