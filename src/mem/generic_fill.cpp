// The fill of the baseline.
#include "ksomd/memory.h"
#include "mem/blocks.h"
#include "second_names.h"

namespace ksomd::mem {
namespace {

constexpr std::int32_t sse2_class = 2;

// Fills n bytes with pieces from Piece down, one for each bit that is set in n.
template <size_t n, class Piece>
[[gnu::always_inline]] inline void fill_pieces(Byte* d, std::uint64_t bytes) {
  if constexpr (n == 0) {
    return;
  } else if constexpr (n < Piece::size) {
    fill_pieces<n, typename Piece::Half>(d, bytes);
  } else {
    Piece::template store<Access::Unaligned>(d, Piece::pattern(bytes));
    fill_pieces<n - Piece::size, typename Piece::Half>(d + Piece::size, bytes);
  }
}

// Fills whole pieces and then the rest in smaller ones. Returns `result`.
template <class Piece, Access to>
struct FillTail {
  using Routine = void*(Byte* d, std::uint64_t bytes, void* result);

  template <size_t n>
  static void* run(Byte* d, std::uint64_t bytes, void* result) {
    constexpr size_t pieces = n / Piece::size;
    fill_group<Piece, pieces, to>(d, Piece::pattern(bytes));
    fill_pieces<n % Piece::size, typename Piece::Half>(d + pieces * Piece::size, bytes);
    return result;
  }
};

constexpr size_t shortest_bulk = 128;
constexpr size_t shortest_vector_bulk = 176;

constexpr auto& fill_tail = code_table<FillTail<Piece8, Access::Unaligned>, shortest_bulk>;
constexpr auto& vector_fill_tail =
    code_table<FillTail<Piece16, Access::Aligned>, shortest_vector_bulk>;

void* fill_integer(Byte* d, std::uint64_t bytes, size_t n, void* result) {
  if (n > __libkso_mem_tuning.largest_cache_size) {
    do {
      fill_group<Piece8, 8, Access::NonTemporal>(d, bytes);
      d += 64, n -= 64;
    } while (n >= 64);
    _mm_sfence();
  } else {
    do {
      fill_group<Piece8, 8, Access::Unaligned>(d, bytes);
      d += 64, n -= 64;
    } while (n > 64);
  }
  return fill_tail[n](d, bytes, result);
}

template <Access to>
[[gnu::always_inline]] inline void fill_blocks(Byte*& d, std::uint64_t bytes, size_t& n) {
  const Piece16::Value value = Piece16::pattern(bytes);
  do {
    fill_group<Piece16, 8, to>(d, value);
    d += 128, n -= 128;
  } while (n >= 128);
}

void* fill_sse2(Byte* d, std::uint64_t bytes, size_t n, void* result) {
  if (offset_in(16, d) != 0) {
    Piece8::store<Access::Unaligned>(d, bytes);
    d += 8, n -= 8;
  }
  if (n >= shortest_vector_bulk) {
    if (n > __libkso_mem_tuning.largest_cache_size) {
      fill_blocks<Access::NonTemporal>(d, bytes, n);
      _mm_sfence();
    } else {
      fill_blocks<Access::Aligned>(d, bytes, n);
    }
  }
  return vector_fill_tail[n](d, bytes, result);
}

// Fills up to the next multiple of 8 with pieces of 4, 2 and 1 bytes.
struct Alignment {
  using Routine = void(Byte* d, std::uint64_t bytes);

  template <size_t n>
  static void run(Byte* d, std::uint64_t bytes) {
    fill_pieces<n, Piece4>(d, bytes);
  }
};

}  // namespace
}  // namespace ksomd::mem

void* __orvex_new_memset(void* destination, int value, size_t count) {
  using namespace ksomd::mem;
  auto* d = static_cast<Byte*>(destination);
  const std::uint64_t bytes = repeat_byte(value);
  if (const size_t head = distance_to_boundary(8, d); head != 0 && count > 8) {
    code_table<Alignment, 8>[head](d, bytes);
    d += head, count -= head;
  }
  if (count < shortest_bulk) {
    return fill_tail[count](d, bytes, destination);
  }
  return __libkso_mem_tuning.mem_class == sse2_class ? fill_sse2(d, bytes, count, destination)
                                                     : fill_integer(d, bytes, count, destination);
}
KSOMD_SECOND_NAMES(__orvex_new_memset);
