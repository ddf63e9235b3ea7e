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

// Moves steps while a block is left; source edge `shift` bytes past a boundary. Reads aligned
// vectors only, each once: the one that holds the next byte is in a register. That one begins (or
// ends) among bytes already moved, and the loop stops more than a vector before the range does, so
// that nothing outside the source range is read. Result: the bytes moved.
template <class Direction>
struct RealigningLoop {
  using Routine = size_t(Byte* d, const Byte* s, size_t n);

  template <size_t shift>
  static size_t run(Byte* d, const Byte* s, size_t n) {
    const size_t before = n;
    const Byte* edge = Direction::advance(s, Direction::misalignment(s));
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
    return before - n;
  }
};

template <class Direction>
[[gnu::always_inline]] inline void move_long(Byte* d, const Byte* s, size_t n) {
  // Read before anything is stored: the vector at the edge, the one behind the misaligned bytes,
  // and the one at the far end, of which what is left at last is stored.
  const size_t head = Direction::misalignment(d);
  const __m256i first = Piece32::load<Access::Unaligned>(Direction::vector(s, 0));
  const __m256i second =
      Piece32::load<Access::Unaligned>(Direction::vector(Direction::advance(s, head), 0));
  Byte* const d_far = Direction::advance(d, n - 32);
  const __m256i last =
      Piece32::load<Access::Unaligned>(Direction::vector(Direction::advance(s, n - 32), 0));
  Piece32::store<Access::Unaligned>(Direction::vector(d, 0), first);
  d = Direction::advance(d, head);
  s = Direction::advance(s, head);
  n -= head;
  Piece32::store<Access::Aligned>(Direction::vector(d, 0), second);
  d = Direction::advance(d, 32);
  s = Direction::advance(s, 32);
  n -= 32;

  if (n >= block) {
    const auto advance_block = [&] {
      d = Direction::advance(d, block);
      s = Direction::advance(s, block);
      n -= block;
    };
    if (n >= __libkso_mem_tuning.copy_nt_threshold) {
      do {
        Direction::prefetch_ahead(s);
        move_block<Direction, Access::Unaligned, Access::NonTemporal>(d, s);
        advance_block();
      } while (n >= stream_floor);
      _mm_sfence();
      for (; n >= block; advance_block()) {
        move_block<Direction, Access::Unaligned, Access::Aligned>(d, s);
      }
    } else if (const size_t shift = offset_in(32, s); shift == 0) {
      do {
        move_block<Direction, Access::Aligned, Access::Aligned>(d, s);
        advance_block();
      } while (n >= block);
    } else {
      const size_t moved = code_table<RealigningLoop<Direction>, 32>[shift](d, s, n);
      d = Direction::advance(d, moved);
      s = Direction::advance(s, moved);
      n -= moved;
    }
  }
  for (; n >= 32; n -= 32) {
    const __m256i value = Piece32::load<Access::Unaligned>(Direction::vector(s, 0));
    Piece32::store<Access::Aligned>(Direction::vector(d, 0), value);
    d = Direction::advance(d, 32);
    s = Direction::advance(s, 32);
  }
  if (n != 0) {
    Piece32::store<Access::Unaligned>(Direction::vector(d_far, 0), last);
  }
}

}  // namespace
}  // namespace ksomd::mem

void* __orvex_avx_memmove(void* destination, const void* source, size_t count) {
  using namespace ksomd::mem;
  auto* d = static_cast<Byte*>(destination);
  const auto* s = static_cast<const Byte*>(source);
  const auto to = reinterpret_cast<std::uintptr_t>(d);
  const auto from = reinterpret_cast<std::uintptr_t>(s);
  if (count <= block) [[likely]] {
    copy_up_to_256(d, s, count);
  } else if (to < from) {
    move_long<Ascending>(d, s, count);
  } else if (to > from) {
    move_long<Descending>(d + count, s + count, count);
  }
  _mm256_zeroupper();
  return destination;
}
