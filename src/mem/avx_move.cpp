// __orvex_avx_memmove: the move of the AVX2 level.
#include "ksomd/memory.h"
#include "mem/avx_blocks.h"

namespace ksomd::mem {
namespace {

constexpr size_t block = 256;
// The step of the realigning loops, and half a block of the other loops.
constexpr size_t step = 128;
// Streaming stops when less than this is left, so that the last bytes of a large move stay in the
// cache.
constexpr size_t stream_floor = 768;

// The two directions of a move. The edge is where the part begins that is still to be moved:
// ascending, its lowest address; descending, the address behind its highest byte.
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
  // The lowest address of the next n bytes.
  template <class Pointer>
  [[gnu::always_inline]] static Pointer lowest(Pointer edge, size_t) {
    return edge;
  }
  // The bytes between the edge and the next boundary in the direction of the move.
  static size_t misalignment(const Byte* edge) { return distance_to_boundary(32, edge); }
  [[gnu::always_inline]] static void prefetch_ahead(const Byte* edge) {
    prefetch<4, _MM_HINT_T0>(edge + 512);
  }
  // Of two neighbouring vectors, `passed` and then `next`, the one at the lower and the one at the
  // higher address.
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

// Moves half a block. All loads precede the stores.
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

// The 32 bytes that start at byte `shift` of two neighbouring aligned vectors; 0 < shift < 32.
template <size_t shift>
struct FixedShift {
  [[gnu::always_inline]] __m256i operator()(__m256i low, __m256i high) const {
    const __m256i middle = _mm256_permute2x128_si256(low, high, 0x21);
    if constexpr (shift < 16) {
      return _mm256_alignr_epi8(middle, low, shift);
    } else {
      return _mm256_alignr_epi8(high, middle, shift - 16);
    }
  }
};

// The same for a shift that is known only at run time. It is slower, but one loop serves every
// shift, so that no unpredictable jump is needed.
class VariableShift {
 public:
  [[gnu::always_inline]] explicit VariableShift(size_t shift)
      : from_middle_(_mm256_set1_epi8(shift < 16 ? 0 : -1)) {
    const __m256i place =
        _mm256_add_epi8(_mm256_broadcastsi128_si256(
                            _mm_setr_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15)),
                        _mm256_set1_epi8(static_cast<char>(shift % 16)));
    // A shuffle index whose highest bit is set selects 0.
    in_first_ = _mm256_adds_epu8(place, _mm256_set1_epi8(0x70));
    in_second_ = _mm256_sub_epi8(place, _mm256_set1_epi8(16));
  }
  [[gnu::always_inline]] __m256i operator()(__m256i low, __m256i high) const {
    const __m256i middle = _mm256_permute2x128_si256(low, high, 0x21);
    const __m256i first = _mm256_blendv_epi8(low, middle, from_middle_);
    const __m256i second = _mm256_blendv_epi8(middle, high, from_middle_);
    return _mm256_or_si256(_mm256_shuffle_epi8(first, in_first_),
                           _mm256_shuffle_epi8(second, in_second_));
  }

 private:
  __m256i from_middle_, in_first_, in_second_;
};

// Moves half a block to a block. The ranges may overlap in any way.
[[gnu::always_inline]] inline void* move_up_to_256(Byte* d, const Byte* s, size_t n, void* result) {
  copy_head_tail<Piece32, 4>(d, s, n);
  clear_upper_halves();
  return result;
}

// Moves the last n bytes of a long move, at most a block. None of them has been moved yet, and none
// may be moved twice: the source of bytes already moved may be overwritten by now.
template <class Direction>
[[gnu::noinline]] void* finish(Byte* d, const Byte* s, size_t n, void* result) {
  d = Direction::lowest(d, n);
  s = Direction::lowest(s, n);
  if (n > block / 2) {
    return move_up_to_256(d, s, n, result);
  }
  copy_up_to_128(d, s, n);
  clear_upper_halves();
  return result;
}

// Moves steps while a block is left. The source edge is not on a boundary. Only aligned vectors are
// read, and each once: `passed` is the one that holds the next byte. The rest of that vector is
// already moved, and the loop stops more than a vector before the end of the range, so nothing
// outside of the source range is read.
template <class Direction, class Shift>
[[gnu::always_inline]] inline void* move_realigning(Byte* d, const Byte* s, size_t n, void* result,
                                                    const Shift& realign) {
  const size_t ahead = Direction::misalignment(s);
  const Byte* edge = Direction::advance(s, ahead);
  __m256i passed = Piece32::load<Access::Aligned>(Direction::vector(edge, -1));
  do {
    __m256i value[4];
#pragma clang loop unroll(full)
    for (int i = 0; i < 4; ++i) {
      const __m256i next = Piece32::load<Access::Aligned>(Direction::vector(edge, i));
      value[i] = realign(Direction::low(passed, next), Direction::high(passed, next));
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
  return finish<Direction>(d, Direction::retreat(edge, ahead), n, result);
}

// One loop for each shift.
template <class Direction>
struct RealigningLoop {
  using Routine = void*(Byte* d, const Byte* s, size_t n, void* result);

  template <size_t shift>
  static void* run(Byte* d, const Byte* s, size_t n, void* result) {
    return move_realigning<Direction>(d, s, n, result, FixedShift<shift>());
  }
};

// From this count on, a jump to the loop for the shift costs less than it saves.
constexpr size_t fixed_shift_floor = 1024;

template <class Direction>
[[gnu::noinline]] void* move_misaligned(Byte* d, const Byte* s, size_t n, void* result) {
  const size_t shift = offset_in(32, s);
  if (n < fixed_shift_floor) {
    return move_realigning<Direction>(d, s, n, result, VariableShift(shift));
  }
  return code_table<RealigningLoop<Direction>, 32>[shift](d, s, n, result);
}

// d and s are the edges of more than 256 bytes.
template <class Direction>
[[gnu::noinline]] void* move_long(Byte* d, const Byte* s, size_t n, void* result) {
  // Both vectors are read before the first is stored, because the ranges may overlap.
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
    } else if (offset_in(32, s) == 0) {
      do {
        move_block<Direction, Access::Aligned, Access::Aligned>(d, s);
        advance(block);
      } while (n >= block);
    } else {
      return move_misaligned<Direction>(d, s, n, result);
    }
  }
  return finish<Direction>(d, s, n, result);
}

// More than half a block.
[[gnu::noinline]] void* move_above_128(void* destination, const void* source, size_t n) {
  auto* d = static_cast<Byte*>(destination);
  const auto* s = static_cast<const Byte*>(source);
  if (n <= block) {
    return move_up_to_256(d, s, n, destination);
  }
  return reinterpret_cast<std::uintptr_t>(d) < reinterpret_cast<std::uintptr_t>(s)
             ? move_long<Ascending>(d, s, n, destination)
             : move_long<Descending>(d + n, s + n, n, destination);
}

}  // namespace
}  // namespace ksomd::mem

void* __orvex_avx_memmove(void* destination, const void* source, size_t count) {
  using namespace ksomd::mem;
  auto* d = static_cast<Byte*>(destination);
  const auto* s = static_cast<const Byte*>(source);
  if (count < Piece32::size / 2) {
    copy_below<Piece16>(d, s, count);
  } else if (count < Piece32::size) {
    copy_head_tail<Piece16, 1>(d, s, count);
    clear_upper_halves<1>();
    return destination;
  } else if (d != s) [[likely]] {
    if (count > block / 2) {
      [[clang::musttail]] return move_above_128(destination, source, count);
    }
    copy_quarters<Piece32>(d, s, count);
    clear_upper_halves<2>();
    return destination;
  }
  clear_upper_halves();
  return destination;
}
