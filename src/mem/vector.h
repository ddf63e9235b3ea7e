// Whether a destination lies in the cache, told by the time of a load.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ksomd::mem {

// Whether a range of `bytes`, a multiple of 128, at d counts as cached: a load from its first
// quarter, or else one from its last, takes at most three times as long as a load known to be
// cached. `clock()` reads a counter of which the low 32 bits are looked at.
template <class Clock>
[[gnu::always_inline]] inline bool is_cached(const unsigned char* d, std::size_t bytes,
                                             Clock&& clock) {
  const auto probe = [&](const unsigned char* place) {
    const volatile unsigned char on_stack = 0;
    const auto ticks = [&] { return static_cast<std::int64_t>(clock() & 0xFFFFFFFF); };
    const std::int64_t start = ticks();
    (void)on_stack;
    const std::int64_t between = ticks();
    (void)*static_cast<const volatile unsigned char*>(place);
    const std::int64_t end = ticks();
    return 3 * (between - start) >= end - between;
  };
  return probe(d + bytes / 4) || probe(d + bytes / 4 + bytes / 2);
}

// The vector routines with another clock.
void copy_by_clock(void* destination, const void* source, std::size_t count,
                   std::uint64_t (*clock)());
void fill_by_clock(void* destination, int value, std::size_t count, std::uint64_t (*clock)());
void zero_by_clock(void* destination, std::size_t count, std::uint64_t (*clock)());

}  // namespace ksomd::mem
