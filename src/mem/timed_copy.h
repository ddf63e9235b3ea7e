// Guesses whether a destination is in the cache, from the time that a load takes.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ksomd::mem {

// Whether the `bytes` at d, a multiple of 128, count as cached: a load from a quarter of the way
// in, or else from three quarters, takes at most three times as long as a load that is known to be
// cached. Only the low 32 bits of clock() count.
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

// The vector routines with a given clock instead of the processor's.
void copy_by_clock(void* destination, const void* source, std::size_t count,
                   std::uint64_t (*clock)());
void fill_by_clock(void* destination, int value, std::size_t count, std::uint64_t (*clock)());
void zero_by_clock(void* destination, std::size_t count, std::uint64_t (*clock)());

}  // namespace ksomd::mem
