// What the allocator keeps of one pool, and of the sizes that it serves.
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

// One pool: a region of equal blocks, handed out by bumping an index. With `region` for the region
// that the pool got when it was created and keeps for good,
//
//   region                                        last
//   | block 0 | block 1 | ... | block capacity - 1 |
//
// the invariants, at any moment without a call in progress, are
//
//   last = region + (capacity - 1) * size
//   base = region                       while the region is in use
//   base = null, saved = region         while the pool is released
//   0 <= freed <= next_index <= capacity, 1 <= next_index
//   blocks that the program holds = next_index - freed
//   released <=> freed = capacity       (and so next_index = capacity)
//
// `next`, `last`, `size`, `capacity` and `kind` never change once the pool is in the list: any
// thread reads them without ceremony. They have the first cache line, with `base`, which changes
// only when a region runs out; what changes with every block has the second one, so that threads
// that walk over another thread's pool do not take the line away from it.
struct alignas(64) __i_pool_desc {
  __i_pool_desc* next;  // the next older pool
  std::byte* base;      // written under the global lock
  std::byte* saved;     // guarded by the global lock
  std::byte* last;
  std::uint64_t size;
  std::int32_t capacity;

  alignas(64) std::int32_t next_index;
  std::uint32_t freed;
  ksomd::pool::Kind kind;
};

namespace ksomd::pool {

// The sizes of one kind that pools serve.
//
//   sizes[i] != 0 for i < length; sizes[length] = 0 if length < max_sizes
//   filter = the union of bit(sizes[i]) over i < length
//
// One word tells of nearly every other size that it is not in the list.
template <class Runtime>
class SizeList {
  using Words = Shared<Runtime>;

 public:
  void replace(const std::size_t* sizes) {
    std::uint64_t filter = 0;
    std::int32_t length = 0;
    for (; length < max_sizes && sizes[length] != 0; ++length) {
      Words::store_relaxed(sizes_[length], std::uint64_t{sizes[length]});
      filter |= bit(sizes[length]);
    }
    if (length < max_sizes) {
      Words::store_relaxed(sizes_[length], std::uint64_t{0});
    }
    // release: who sees the filter sees the sizes
    Words::store_release(filter_, filter);
  }

  bool contains(std::uint64_t size) const {
    // acquire: pairs with replace
    if ((Words::load_acquire(filter_) & bit(size)) == 0) {
      return false;
    }
    for (const std::uint64_t& listed : sizes_) {
      // relaxed: the filter's acquire has made the sizes visible
      const std::uint64_t candidate = Words::load_relaxed(listed);
      if (candidate == size || candidate == 0) {
        return candidate != 0;
      }
    }
    return false;
  }

  bool filter_holds() const {
    std::uint64_t expected = 0;
    for (std::int32_t i = 0; i < max_sizes && sizes_[i] != 0; ++i) {
      expected |= bit(sizes_[i]);
    }
    return filter_ == expected;
  }

 private:
  // Multiplication by 2^64 over the golden ratio spreads the sizes over the upper bits.
  static std::uint64_t bit(std::uint64_t size) {
    return std::uint64_t{1} << ((size * 0x9E3779B97F4A7C15) >> 58);
  }

  std::uint64_t filter_;
  std::uint64_t sizes_[max_sizes];
};

}  // namespace ksomd::pool
