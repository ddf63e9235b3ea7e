#include "ksomd/memory.h"
#include "mem/blocks.h"

namespace ksomd::mem {
namespace {

// The sign of the first difference of two different words, in address order.
[[gnu::always_inline]] inline int order(std::uint64_t a, std::uint64_t b) {
  return __builtin_bswap64(a) > __builtin_bswap64(b) ? 1 : -1;
}

template <class Piece>
[[gnu::always_inline]] inline std::uint64_t word(const Byte* p) {
  return Piece::template load<Access::Unaligned>(p);
}

// Compares one piece; `result` is set where they differ.
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

// `count` blocks of 16 bytes, each read only if those before it are equal.
template <size_t count>
[[gnu::always_inline]] inline bool blocks_differ(const Byte* a, const Byte* b, int& result) {
#pragma clang loop unroll(full)
  for (size_t i = 0; i < count; ++i) {
    if (differ<Piece16>(a + 16 * i, b + 16 * i, result)) {
      return true;
    }
  }
  return false;
}

// `count` blocks from the start and `count` ending at the end, which may overlap.
template <size_t count>
[[gnu::always_inline]] inline int compare_head_tail(const Byte* a, const Byte* b, size_t n) {
  int result = 0;
  if (!blocks_differ<count>(a, b, result)) {
    blocks_differ<count>(a + n - 16 * count, b + n - 16 * count, result);
  }
  return result;
}

[[gnu::always_inline]] inline int sign(std::uint64_t x, std::uint64_t y) {
  return (x > y) - (x < y);
}

// A head and a tail of half a word as one number, the first byte the most significant one.
[[gnu::always_inline]] inline std::uint64_t joined_halves(const Byte* p, size_t n) {
  const auto head = static_cast<std::uint32_t>(word<Piece4>(p));
  const auto tail = static_cast<std::uint32_t>(word<Piece4>(p + n - 4));
  return std::uint64_t{__builtin_bswap32(head)} << 32 | __builtin_bswap32(tail);
}

// One to three bytes the same way.
[[gnu::always_inline]] inline std::uint64_t joined_bytes(const Byte* p, size_t n) {
  return std::uint64_t{p[0]} << 16 | std::uint64_t{p[n / 2]} << 8 | p[n - 1];
}

[[gnu::always_inline]] inline int compare_below_16(const Byte* a, const Byte* b, size_t n) {
  if (n >= 8) {
    int result = 0;
    if (!differ<Piece8>(a, b, result)) {
      differ<Piece8>(a + n - 8, b + n - 8, result);
    }
    return result;
  }
  if (n >= 4) {
    return sign(joined_halves(a, n), joined_halves(b, n));
  }
  return n == 0 ? 0 : sign(joined_bytes(a, n), joined_bytes(b, n));
}

// Words ascending, then 4, 2 and 1 bytes. Up to 64 bytes.
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
    if constexpr (n >= Piece::size) {
      if constexpr (n > Piece::size) {
        if (!differ<Piece>(a, b, result)) {
          compare_pieces<n - Piece::size, typename Piece::Half>(a + Piece::size, b + Piece::size,
                                                                result);
        }
      } else {
        differ<Piece>(a, b, result);
      }
    } else if constexpr (n > 0) {
      compare_pieces<n, typename Piece::Half>(a, b, result);
    }
  }
};

}  // namespace
}  // namespace ksomd::mem

using namespace ksomd::mem;

// Never reads on beyond the 16 bytes in which the first difference lies.
int _orvex_fast_memcmp(const void* first, const void* second, size_t count) {
  const auto* a = static_cast<const Byte*>(first);
  const auto* b = static_cast<const Byte*>(second);
  if (a == b) {
    return 0;
  }
  if (count < 16) {
    return compare_below_16(a, b, count);
  }
  if (count <= 32) {
    return compare_head_tail<1>(a, b, count);
  }
  if (count <= 64) {
    return compare_head_tail<2>(a, b, count);
  }
  if (count <= 128) {
    return compare_head_tail<4>(a, b, count);
  }
  int result = 0;
  const Byte* const a_tail = a + count - 64;
  const Byte* const b_tail = b + count - 64;
  for (; count > 64; a += 64, b += 64, count -= 64) {
    if (blocks_differ<4>(a, b, result)) {
      return result;
    }
  }
  blocks_differ<4>(a_tail, b_tail, result);
  return result;
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
