// The vocabulary of the memory routines: pieces, and operations on a few pieces at a time.
//
// A piece is a type with a size, a Value, loads and stores. The scalar pieces and the 16-byte piece
// are here. The wider ones have headers of their own, for the variants that may use them.
// Everything has internal linkage, because the variants' files are compiled for different
// instruction sets: the linker must not replace the code of one by that of another.
#pragma once

#include <emmintrin.h>

#include <cstddef>
#include <cstdint>
#include <utility>

#include "mem/tuning.h"

namespace ksomd::mem {
namespace {

using Byte = unsigned char;
using std::size_t;

// How a group of pieces is read or written. NonTemporal is for stores only, to aligned addresses.
enum class Access { Unaligned, Aligned, NonTemporal };

// ---- pieces -------------------------------------------------------------------------------------

template <class Word, class HalfPiece>
struct Scalar {
  using Value = Word;
  using Half = HalfPiece;
  using Unaligned __attribute__((aligned(1), may_alias)) = Word;
  static constexpr size_t size = sizeof(Word);

  [[gnu::always_inline]] static Value pattern(std::uint64_t bytes) {
    return static_cast<Value>(bytes);
  }
  template <Access>
  [[gnu::always_inline]] static Value load(const Byte* p) {
    return *reinterpret_cast<const Unaligned*>(p);
  }
  template <Access access>
  [[gnu::always_inline]] static void store(Byte* p, Value value) {
    if constexpr (access == Access::NonTemporal) {
      static_assert(size == 8);
      _mm_stream_si64(reinterpret_cast<long long*>(p), static_cast<long long>(value));
    } else {
      *reinterpret_cast<Unaligned*>(p) = value;
    }
  }
};

using Piece1 = Scalar<std::uint8_t, void>;
using Piece2 = Scalar<std::uint16_t, Piece1>;
using Piece4 = Scalar<std::uint32_t, Piece2>;
using Piece8 = Scalar<std::uint64_t, Piece4>;

// A vector register as a piece. `Register` has the vector's type, the same type at any alignment,
// and the intrinsics whose names depend on the width.
template <class Register, class HalfPiece>
struct VectorPiece {
  using Value = Register::Value;
  using Unaligned = Register::Unaligned;
  using Half = HalfPiece;
  static constexpr size_t size = sizeof(Value);

  [[gnu::always_inline]] static Value pattern(std::uint64_t bytes) {
    return Register::pattern(static_cast<long long>(bytes));
  }
  template <Access access>
  [[gnu::always_inline]] static Value load(const Byte* p) {
    if constexpr (access == Access::Aligned) {
      return *reinterpret_cast<const Value*>(p);
    } else {
      return *reinterpret_cast<const Unaligned*>(p);
    }
  }
  template <Access access>
  [[gnu::always_inline]] static void store(Byte* p, Value value) {
    if constexpr (access == Access::NonTemporal) {
      Register::stream(reinterpret_cast<Value*>(p), value);
    } else if constexpr (access == Access::Aligned) {
      *reinterpret_cast<Value*>(p) = value;
    } else {
      *reinterpret_cast<Unaligned*>(p) = value;
    }
  }
};

struct Xmm {
  using Value = __m128i;
  using Unaligned = __m128i_u;
  [[gnu::always_inline]] static Value pattern(long long word) { return _mm_set1_epi64x(word); }
  [[gnu::always_inline]] static void stream(Value* p, Value v) { _mm_stream_si128(p, v); }
};
using Piece16 = VectorPiece<Xmm, Piece8>;

// ---- addresses ----------------------------------------------------------------------------------

[[gnu::always_inline]] inline size_t offset_in(size_t line, const void* p) {
  return reinterpret_cast<std::uintptr_t>(p) & (line - 1);
}

// Bytes from p up to the next boundary; 0 on a boundary.
[[gnu::always_inline]] inline size_t distance_to_boundary(size_t line, const void* p) {
  return (line - offset_in(line, p)) & (line - 1);
}

// ---- tables of straight-line code ---------------------------------------------------------------

// The routines Code::run<0>, Code::run<1>, ... as an array. Each is straight-line code for one of a
// range of sizes or shifts, and one jump leads to it.
template <class Code, class Numbers>
struct CodeTable;
template <class Code, size_t... i>
struct CodeTable<Code, std::index_sequence<i...>> {
  static constexpr typename Code::Routine* entries[] = {Code::template run<i>...};
};
template <class Code, size_t limit>
inline constexpr auto& code_table = CodeTable<Code, std::make_index_sequence<limit>>::entries;

// ---- a few pieces at a time ---------------------------------------------------------------------

template <class Piece>
[[gnu::always_inline]] inline void copy_piece(Byte* d, const Byte* s) {
  Piece::template store<Access::Unaligned>(d, Piece::template load<Access::Unaligned>(s));
}

// Copies `count` pieces; all are loaded before any is stored.
template <class Piece, size_t count, Access from, Access to>
[[gnu::always_inline]] inline void copy_group(Byte* d, const Byte* s) {
  typename Piece::Value value[count];
#pragma clang loop unroll(full)
  for (size_t i = 0; i < count; ++i) {
    value[i] = Piece::template load<from>(s + i * Piece::size);
  }
#pragma clang loop unroll(full)
  for (size_t i = 0; i < count; ++i) {
    Piece::template store<to>(d + i * Piece::size, value[i]);
  }
}

// Copies groups of `count` pieces, lowest group first.
template <class Piece, size_t groups, size_t count, Access from, Access to>
[[gnu::always_inline]] inline void copy_block(Byte* d, const Byte* s) {
#pragma clang loop unroll(full)
  for (size_t i = 0; i < groups; ++i) {
    copy_group<Piece, count, from, to>(d + i * count * Piece::size, s + i * count * Piece::size);
  }
}

template <class Piece, size_t count, Access to>
[[gnu::always_inline]] inline void fill_group(Byte* d, typename Piece::Value value) {
#pragma clang loop unroll(full)
  for (size_t i = 0; i < count; ++i) {
    Piece::template store<to>(d + i * Piece::size, value);
  }
}

// Copies `count` pieces at the start and `count` at the end, which may overlap. All are loaded
// before any is stored.
//
//   |<- piece ->|<- piece ->|          count = 2
//               |<- piece ->|<- piece ->|
//   |<----------------- n ------------->|
template <class Piece, size_t count>
[[gnu::always_inline]] inline void copy_head_tail(Byte* d, const Byte* s, size_t n) {
  typename Piece::Value value[2 * count];
  const size_t tail = n - count * Piece::size;
#pragma clang loop unroll(full)
  for (size_t i = 0; i < count; ++i) {
    value[i] = Piece::template load<Access::Unaligned>(s + i * Piece::size);
    value[count + i] = Piece::template load<Access::Unaligned>(s + tail + i * Piece::size);
  }
#pragma clang loop unroll(full)
  for (size_t i = 0; i < count; ++i) {
    Piece::template store<Access::Unaligned>(d + i * Piece::size, value[i]);
    Piece::template store<Access::Unaligned>(d + tail + i * Piece::size, value[count + i]);
  }
}

template <class Piece, size_t count>
[[gnu::always_inline]] inline void fill_head_tail(Byte* d, typename Piece::Value value, size_t n) {
  fill_group<Piece, count, Access::Unaligned>(d, value);
  fill_group<Piece, count, Access::Unaligned>(d + n - count * Piece::size, value);
}

// For n from one to four times the size of Piece: two pieces at the start and two at the end cover
// the range. Up to twice the size the pieces of each pair coincide. So one piece of code serves
// many sizes without a branch.
//
//   |<- piece ->|<- piece ->|   ...   |<- piece ->|<- piece ->|
//   0           inner                 n - size    n - size
//                                      - inner
template <class Piece>
[[gnu::always_inline]] inline size_t inner_offset(size_t n) {
  return (n - 1) / 2 & ~(Piece::size - 1);
}

// All are loaded before any is stored.
template <class Piece>
[[gnu::always_inline]] inline void copy_quarters(Byte* d, const Byte* s, size_t n) {
  const size_t inner = inner_offset<Piece>(n), last = n - Piece::size;
  const auto a = Piece::template load<Access::Unaligned>(s);
  const auto b = Piece::template load<Access::Unaligned>(s + inner);
  const auto y = Piece::template load<Access::Unaligned>(s + last - inner);
  const auto z = Piece::template load<Access::Unaligned>(s + last);
  Piece::template store<Access::Unaligned>(d, a);
  Piece::template store<Access::Unaligned>(d + inner, b);
  Piece::template store<Access::Unaligned>(d + last - inner, y);
  Piece::template store<Access::Unaligned>(d + last, z);
}

template <class Piece>
[[gnu::always_inline]] inline void fill_quarters(Byte* d, typename Piece::Value value, size_t n) {
  const size_t inner = inner_offset<Piece>(n), last = n - Piece::size;
  Piece::template store<Access::Unaligned>(d, value);
  Piece::template store<Access::Unaligned>(d + inner, value);
  Piece::template store<Access::Unaligned>(d + last - inner, value);
  Piece::template store<Access::Unaligned>(d + last, value);
}

// Copies n bytes, fewer than a Piece, as a head and a tail of the largest piece that n holds. The
// ranges may overlap.
template <class Piece>
[[gnu::always_inline]] inline void copy_below(Byte* d, const Byte* s, size_t n) {
  using Half = Piece::Half;
  if (n >= Half::size) {
    copy_head_tail<Half, 1>(d, s, n);
  } else if constexpr (Half::size > 1) {
    copy_below<Half>(d, s, n);
  }
}

// Copies n bytes, lowest first, with ordinary stores of at most 16 bytes.
[[gnu::always_inline]] inline void copy_by_16(Byte* d, const Byte* s, size_t n) {
  for (; n >= 16; d += 16, s += 16, n -= 16) {
    copy_piece<Piece16>(d, s);
  }
  copy_below<Piece16>(d, s, n);
}

template <class Piece>
[[gnu::always_inline]] inline void fill_below(Byte* d, std::uint64_t bytes, size_t n) {
  using Half = Piece::Half;
  if (n >= Half::size) {
    fill_head_tail<Half, 1>(d, Half::pattern(bytes), n);
  } else if constexpr (Half::size > 1) {
    fill_below<Half>(d, bytes, n);
  }
}

// A word with the low byte of `value` in every byte.
[[gnu::always_inline]] inline std::uint64_t repeat_byte(int value) {
  return static_cast<Byte>(value) * std::uint64_t{0x0101010101010101};
}

// ---- string instructions ------------------------------------------------------------------------

[[gnu::always_inline]] inline void copy_string_bytes(Byte*& d, const Byte*& s, size_t n) {
  __asm__ volatile("rep movsb" : "+D"(d), "+S"(s), "+c"(n) : : "memory");
}
[[gnu::always_inline]] inline void copy_string_words(Byte*& d, const Byte*& s, size_t words) {
  __asm__ volatile("rep movsq" : "+D"(d), "+S"(s), "+c"(words) : : "memory");
}
[[gnu::always_inline]] inline void fill_string_bytes(Byte*& d, std::uint64_t bytes, size_t n) {
  __asm__ volatile("rep stosb" : "+D"(d), "+c"(n) : "a"(bytes) : "memory");
}
[[gnu::always_inline]] inline void fill_string_words(Byte*& d, std::uint64_t bytes, size_t words) {
  __asm__ volatile("rep stosq" : "+D"(d), "+c"(words) : "a"(bytes) : "memory");
}

// ---- hints --------------------------------------------------------------------------------------

inline constexpr size_t cache_line = 64;

// Prefetches `lines` cache lines from p on. A prefetch never faults.
template <size_t lines, int hint>
[[gnu::always_inline]] inline void prefetch(const Byte* p) {
#pragma clang loop unroll(full)
  for (size_t i = 0; i < lines; ++i) {
    __builtin_prefetch(p + i * cache_line, hint >> 2 & 1, hint & 3);
  }
}

}  // namespace
}  // namespace ksomd::mem
