// What the memory benchmarks share.
#pragma once

#include <cstddef>

namespace ksomd::bench {

using Byte = unsigned char;
using Loop = void(Byte* d, const Byte* s, std::size_t n);

// Loops of nothing but the instructions of a bulk method, for whole blocks and destinations on a
// boundary: what the method costs beyond them is its own.
struct BareLoops {
  Loop* copy;
  Loop* copy_down;
  Loop* copy_aligned;
  Loop* copy_aligned_down;
  Loop* realign;  // aligned loads, shifted by the source's offset, `realign_shift`
  Loop* realign_down;
  Loop* stream;       // with the prefetches of the width's streaming copy
  Loop* stream_down;  // the same, downward
  Loop* prefetched;   // every line prefetched 1536 bytes ahead into the second level
  Loop* prefetched_stream;
  Loop* stream_alone;  // no prefetches, no fence
  Loop* fill;
  Loop* fill_stream;
};
inline constexpr std::size_t realign_shift = 5;

extern const BareLoops bare_8, bare_16, bare_32, bare_64;

// Registered by hand: they exist on processors with AVX-512 only.
void register_bulk_methods();
void register_grid();

}  // namespace ksomd::bench
