#include "ksomd/memory.h"
#include "mem/avx_blocks.h"

namespace ksomd::mem {
namespace {

constexpr size_t block = 256;
// A step of the realigning loops, and of the others half a block.
constexpr size_t step = 128;
// The last bytes of a large move stay in the cache.
constexpr size_t stream_floor = 768;

// The two directions. An edge is where the part still to be moved begins, seen in the direction of
// the move: its lowest address ascending, the address behind its highest byte descending.
//
//   ascending     edge -> | 0 | 1 | 2 | ...        descending    ... | 2 | 1 | 0 | <- edge
struct Ascending {
  template <class Pointer>
  [[gnu::always_inline]] static Pointer vector(Pointer edge, std::ptrdiff_t number) {
    return edge + 32 * number;
  }
  template <class Pointer>
  [[gnu::always_inline]] static Pointer advance(Pointer edge, size_t bytes) {
    return edge + bytes;
  }
  template <class Pointer>
  [[gnu::always_inline]] static Pointer retreat(Pointer edge, size_t bytes) {
    return edge - bytes;
  }
  // The lowest address of the n bytes before the edge.
  template <class Pointer>
  [[gnu::always_inline]] static Pointer lowest(Pointer edge, size_t) {
    return edge;
  }
  // The bytes between the edge and the next boundary in the direction of the move.
  static size_t misalignment(const Byte* edge) { return distance_to_boundary(32, edge); }
  [[gnu::always_inline]] static void prefetch_ahead(const Byte* edge) {
    prefetch<4, _MM_HINT_T0>(edge + 512);
  }
  // Two neighbouring aligned vectors in address order.
  static __m256i low(__m256i passed, __m256i) { return passed; }
  static __m256i high(__m256i, __m256i next) { return next; }
};

struct Descending {
  template <class Pointer>
  [[gnu::always_inline]] static Pointer vector(Pointer edge, std::ptrdiff_t number) {
    return edge - 32 * (number + 1);
  }
  template <class Pointer>
  [[gnu::always_inline]] static Pointer advance(Pointer edge, size_t bytes) {
    return edge - bytes;
  }
  template <class Pointer>
  [[gnu::always_inline]] static Pointer retreat(Pointer edge, size_t bytes) {
    return edge + bytes;
  }
  template <class Pointer>
  [[gnu::always_inline]] static Pointer lowest(Pointer edge, size_t n) {
    return edge - n;
  }
  static size_t misalignment(const Byte* edge) { return offset_in(32, edge); }
  [[gnu::always_inline]] static void prefetch_ahead(const Byte* edge) {
    prefetch<4, _MM_HINT_T0>(edge - 704);
  }
  static __m256i low(__m256i, __m256i next) { return next; }
  static __m256i high(__m256i passed, __m256i) { return passed; }
};

// Half a block; all loads precede the stores.
template <class Direction, Access from, Access to>
[[gnu::always_inline]] inline void move_step(Byte* d, const Byte* s) {
  __m256i value[4];
#pragma clang loop unroll(full)
  for (int i = 0; i < 4; ++i) {
    value[i] = Piece32::load<from>(Direction::vector(s, i));
  }
#pragma clang loop unroll(full)
  for (int i = 0; i < 4; ++i) {
    Piece32::store<to>(Direction::vector(d, i), value[i]);
  }
}

template <class Direction, Access from, Access to>
[[gnu::always_inline]] inline void move_block(Byte* d, const Byte* s) {
  move_step<Direction, from, to>(d, s);
  move_step<Direction, from, to>(Direction::advance(d, step), Direction::advance(s, step));
}

// The 32 bytes from byte `shift` of two neighbouring aligned vectors on.
template <size_t shift>
[[gnu::always_inline]] inline __m256i realign(__m256i low, __m256i high) {
  const __m256i middle = _mm256_permute2x128_si256(low, high, 0x21);
  if constexpr (shift < 16) {
    return _mm256_alignr_epi8(middle, low, shift);
  } else {
    return _mm256_alignr_epi8(high, middle, shift - 16);
  }
}

// What is left of a long move, up to 256 bytes: nothing of it has been stored yet.
template <class Direction>
[[gnu::noinline]] void* finish(Byte* d, const Byte* s, size_t n, void* result) {
  copy_up_to_256(Direction::lowest(d, n), Direction::lowest(s, n), n);
  _mm256_zeroupper();
  return result;
}

// Moves steps while a block is left; source edge `shift` bytes past a boundary. Reads aligned
// vectors only, each once: the one that holds the next byte is in a register. That one begins (or
// ends) among bytes already moved, and the loop stops more than a vector before the range does, so
// that nothing outside the source range is read.
template <class Direction>
struct RealigningLoop {
  using Routine = void*(Byte* d, const Byte* s, size_t n, void* result);

  template <size_t shift>
  static void* run(Byte* d, const Byte* s, size_t n, void* result) {
    const size_t ahead = Direction::misalignment(s);
    const Byte* edge = Direction::advance(s, ahead);
    __m256i passed = Piece32::load<Access::Aligned>(Direction::vector(edge, -1));
    do {
      __m256i value[4];
#pragma clang loop unroll(full)
      for (int i = 0; i < 4; ++i) {
        const __m256i next = Piece32::load<Access::Aligned>(Direction::vector(edge, i));
        value[i] = realign<shift>(Direction::low(passed, next), Direction::high(passed, next));
        passed = next;
      }
#pragma clang loop unroll(full)
      for (int i = 0; i < 4; ++i) {
        Piece32::store<Access::Aligned>(Direction::vector(d, i), value[i]);
      }
      d = Direction::advance(d, step);
      edge = Direction::advance(edge, step);
      n -= step;
    } while (n >= block);
    [[clang::musttail]] return finish<Direction>(d, Direction::retreat(edge, ahead), n, result);
  }
};

// d and s are the edges of more than 256 bytes.
template <class Direction>
[[gnu::noinline]] void* move_long(Byte* d, const Byte* s, size_t n, void* result) {
  // Both are read before the first is stored.
  const size_t head = Direction::misalignment(d);
  const __m256i first = Piece32::load<Access::Unaligned>(Direction::vector(s, 0));
  const __m256i second =
      Piece32::load<Access::Unaligned>(Direction::vector(Direction::advance(s, head), 0));
  Piece32::store<Access::Unaligned>(Direction::vector(d, 0), first);
  const auto advance = [&](size_t bytes) {
    d = Direction::advance(d, bytes);
    s = Direction::advance(s, bytes);
    n -= bytes;
  };
  advance(head);
  Piece32::store<Access::Aligned>(Direction::vector(d, 0), second);
  advance(32);

  if (n >= block) {
    if (n >= __libkso_mem_tuning.copy_nt_threshold) {
      do {
        Direction::prefetch_ahead(s);
        move_block<Direction, Access::Unaligned, Access::NonTemporal>(d, s);
        advance(block);
      } while (n >= stream_floor);
      _mm_sfence();
      for (; n >= block; advance(block)) {
        move_block<Direction, Access::Unaligned, Access::Aligned>(d, s);
      }
    } else if (const size_t shift = offset_in(32, s); shift == 0) {
      do {
        move_block<Direction, Access::Aligned, Access::Aligned>(d, s);
        advance(block);
      } while (n >= block);
    } else {
      [[clang::musttail]] return code_table<RealigningLoop<Direction>, 32>[shift](d, s, n, result);
    }
  }
  [[clang::musttail]] return finish<Direction>(d, s, n, result);
}

}  // namespace
}  // namespace ksomd::mem

void* __orvex_avx_memmove(void* destination, const void* source, size_t count) {
  using namespace ksomd::mem;
  auto* d = static_cast<Byte*>(destination);
  const auto* s = static_cast<const Byte*>(source);
  // Equal addresses: memory that may be read only, or not there, above the size of a vector.
  if (count > Piece32::size && d == s) [[unlikely]] {
    return destination;
  }
  if (count <= block) [[likely]] {
    copy_up_to_256(d, s, count);
    _mm256_zeroupper();
    return destination;
  }
  if (reinterpret_cast<std::uintptr_t>(d) < reinterpret_cast<std::uintptr_t>(s)) {
    return move_long<Ascending>(d, s, count, destination);
  }
  return move_long<Descending>(d + count, s + count, count, destination);
}
