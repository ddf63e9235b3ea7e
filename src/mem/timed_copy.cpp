#include "mem/timed_copy.h"

#include "ksomd/memory.h"
#include "mem/blocks.h"
#include "second_names.h"

namespace ksomd::mem {
namespace {

constexpr size_t string_limit = 16384;  // up to here: string instructions alone
constexpr size_t step = 128;

// Reads the time-stamp counter after all earlier loads are done.
[[gnu::always_inline]] inline std::uint64_t read_clock() {
  _mm_lfence();
  return __builtin_ia32_rdtsc();
}

[[gnu::always_inline]] inline void copy_string(Byte*& d, const Byte*& s, size_t n) {
  copy_string_words(d, s, n / 8);
  copy_string_bytes(d, s, n % 8);
}

template <Access from, Access to>
void copy_steps(Byte*& d, const Byte*& s, size_t bytes) {
  for (const Byte* const end = d + bytes; d != end; d += step, s += step) {
    copy_group<Piece16, 8, from, to>(d, s);
  }
  if constexpr (to == Access::NonTemporal) {
    _mm_sfence();
  }
}

template <Access from, class Clock>
void copy_probed(Byte*& d, const Byte*& s, size_t bytes, Clock clock) {
  if (is_cached(d, bytes, clock)) {
    copy_steps<from, Access::Aligned>(d, s, bytes);
  } else {
    copy_steps<from, Access::NonTemporal>(d, s, bytes);
  }
}

// Aligning the destination may bring a range down to the string limit. String instructions then
// copy the rest.
template <class Clock>
[[gnu::always_inline]] inline void copy(Byte* d, const Byte* s, size_t n, Clock clock) {
  while (n > string_limit && offset_in(16, d) != 0) {
    const size_t head = distance_to_boundary(16, d);
    copy_string_bytes(d, s, head);
    n -= head;
  }
  if (n > string_limit) {
    const size_t bytes = n - n % step;
    if (offset_in(16, s) == 0) {
      copy_probed<Access::Aligned>(d, s, bytes, clock);
    } else {
      copy_probed<Access::Unaligned>(d, s, bytes, clock);
    }
    n -= bytes;
  }
  copy_string(d, s, n);
}

template <Access to>
void fill_steps(Byte*& d, std::uint64_t pattern, size_t bytes) {
  const Piece16::Value value = Piece16::pattern(pattern);
  for (const Byte* const end = d + bytes; d != end; d += step) {
    fill_group<Piece16, 8, to>(d, value);
  }
  if constexpr (to == Access::NonTemporal) {
    _mm_sfence();
  }
}

enum class Rest { Words, Bytes };

template <Rest rest, class Clock>
[[gnu::always_inline]] inline void fill(Byte* d, std::uint64_t pattern, size_t n, Clock clock) {
  while (n > string_limit && offset_in(16, d) != 0) {
    const size_t head = distance_to_boundary(16, d);
    fill_string_bytes(d, pattern, head);
    n -= head;
  }
  if (n > string_limit) {
    const size_t bytes = n - n % step;
    if (is_cached(d, bytes, clock)) {
      fill_steps<Access::Aligned>(d, pattern, bytes);
    } else {
      fill_steps<Access::NonTemporal>(d, pattern, bytes);
    }
    n -= bytes;
    if (rest == Rest::Bytes) {
      fill_string_bytes(d, pattern, n);
      return;
    }
  }
  fill_string_words(d, pattern, n / 8);
  fill_string_bytes(d, pattern, n % 8);
}

}  // namespace

void copy_by_clock(void* destination, const void* source, size_t count, std::uint64_t (*clock)()) {
  copy(static_cast<Byte*>(destination), static_cast<const Byte*>(source), count, clock);
}

void fill_by_clock(void* destination, int value, size_t count, std::uint64_t (*clock)()) {
  fill<Rest::Words>(static_cast<Byte*>(destination), repeat_byte(value), count, clock);
}

void zero_by_clock(void* destination, size_t count, std::uint64_t (*clock)()) {
  fill<Rest::Bytes>(static_cast<Byte*>(destination), 0, count, clock);
}

}  // namespace ksomd::mem

using namespace ksomd::mem;

void* _VEC_memcpy(void* destination, const void* source, size_t count) {
  copy(static_cast<Byte*>(destination), static_cast<const Byte*>(source), count,
       [] { return read_clock(); });
  return destination;
}
KSOMD_SECOND_NAMES(_VEC_memcpy);

void* _VEC_memset(void* destination, int value, size_t count) {
  fill<Rest::Words>(static_cast<Byte*>(destination), repeat_byte(value), count,
                    [] { return read_clock(); });
  return destination;
}
KSOMD_SECOND_NAMES(_VEC_memset);

void* _VEC_memzero(void* destination, int, size_t count) {
  fill<Rest::Bytes>(static_cast<Byte*>(destination), 0, count, [] { return read_clock(); });
  return destination;
}
KSOMD_SECOND_NAMES(_VEC_memzero);
