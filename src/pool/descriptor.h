// The descriptor of a pool, and the set of sizes that pools serve.
#pragma once

#include <cstddef>
#include <cstdint>

#include "pool/lock.h"

namespace ksomd::pool {

inline constexpr std::int32_t max_pools = 50;
inline constexpr std::int32_t max_sizes = 50;

enum class Kind : std::uint32_t {
  Malloc = 0,  // blocks with any contents
  Calloc = 1,  // zeroed blocks
};

}  // namespace ksomd::pool

// One pool: a region of equal blocks, which are handed out in order by incrementing an index. Let
// `region` be the memory that the pool got when it was created; the pool keeps it for good.
//
//   region                                        last
//   | block 0 | block 1 | ... | block capacity - 1 |
//
// These invariants hold whenever no call is in progress:
//
//   last = region + (capacity - 1) * size
//   base = region                       while the region is in use
//   base = null, saved = region         while the pool is released
//   0 <= freed <= next_index <= capacity, 1 <= next_index
//   blocks that the program holds = next_index - freed
//   released <=> freed = capacity       (and so next_index = capacity)
//
// `next`, `last`, `size`, `capacity` and `kind` never change once the pool is in the list, so any
// thread reads them without synchronisation. They are in the first cache line, together with
// `base`, which changes only when the pool is released or reactivated. What changes with every
// block is in the second cache line: a thread that walks past another thread's pool does not take
// that line away from it.
// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): two cache lines on purpose
struct alignas(64) __i_pool_desc {
  __i_pool_desc* next;  // the next older pool
  std::byte* base;      // written under the global lock
  std::byte* saved;     // guarded by the global lock
  std::byte* last;
  std::uint64_t size;
  std::int32_t capacity;
  ksomd::pool::Kind kind;

  alignas(64) std::int32_t next_index;
  std::uint32_t freed;
};

namespace ksomd::pool {

// The sizes of one kind that pools serve, as an open-addressed hash set.
//
//   slots[i] = 0, or a size
//   no slot between a size's home and the size, cyclically, is 0
//   at most max_sizes slots are not 0: less than half, so that a search soon meets a 0
template <class Runtime>
class SizeSet {
  using Atomic = AtomicAccess<Runtime>;

 public:
  // Replaces the set by the sizes of a list, which ends with a 0 or after max_sizes. Meanwhile
  // another thread may miss a size that is in both the old and the new list; the heap then serves
  // its request.
  void replace(const std::size_t* sizes) {
    for (std::uint64_t& slot : slots_) {
      Atomic::store_relaxed(slot, std::uint64_t{0});
    }
    for (std::int32_t i = 0; i < max_sizes && sizes[i] != 0; ++i) {
      // relaxed: no other memory depends on what a slot holds
      Atomic::store_relaxed(slots_[search(sizes[i])], std::uint64_t{sizes[i]});
    }
  }

  bool contains(std::uint64_t size) const {
    return size != 0 && Atomic::load_relaxed(slots_[search(size)]) == size;
  }

  bool is_sound() const {
    std::int32_t used = 0;
    for (std::uint32_t i = 0; i < slot_count; ++i) {
      used += slots_[i] != 0;
      if (slots_[i] != 0 && search(slots_[i]) != i) {
        return false;
      }
    }
    return used <= max_sizes;
  }

 private:
  static constexpr std::uint32_t slot_bits = 7;
  static constexpr std::uint32_t slot_count = 1 << slot_bits;
  static_assert(slot_count > 2 * max_sizes);

  // The slot of a size, or the empty one where it would go.
  std::uint32_t search(std::uint64_t size) const {
    // Multiplication by 2^64 over the golden ratio spreads the sizes over the upper bits.
    auto i = static_cast<std::uint32_t>((size * 0x9E3779B97F4A7C15) >> (64 - slot_bits));
    for (;;) {
      const std::uint64_t slot = Atomic::load_relaxed(slots_[i]);
      if (slot == size || slot == 0) {
        return i;
      }
      i = (i + 1) % slot_count;
    }
  }

  std::uint64_t slots_[slot_count];
};

}  // namespace ksomd::pool
