// The pool allocator. Requests of the listed sizes are served from pools, all others by the heap.
//
// The one lock serialises creation, release and reactivation of pools. Handing out a block of a
// pool in use and freeing one take no lock, unless it was the last one of the region: an atomic
// operation each, on a cache line of the pool's own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>

#include "pool/descriptor.h"
#include "pool/lock.h"

namespace ksomd::pool {

// Runtime is what the allocator asks of the world, all static:
//
//   void* allocate(size), void* allocate_zeroed(count, size), void* resize(block, size),
//   void release(block)           the heap: malloc, calloc, realloc and free
//   std::int32_t capacity(size)   blocks in the region of a pool, at least 1
//   void step(), void wait()      run before each access to shared memory, and while a lock is held
//                                 by another thread: nothing, unless a test steers the threads
//
// An allocator is constant-initialised to zeros: no pools, no sizes.
template <class Runtime>
class Allocator {  // NOLINT(clang-analyzer-optin.performance.Padding): apart on purpose
  using Pool = __i_pool_desc;
  using Words = Shared<Runtime>;

 public:
  void set_sizes(const std::size_t* sizes, Kind kind) {
    const Holding<Runtime> holding(global_lock_);
    sizes_of(kind).replace(sizes);
  }

  void* allocate(std::size_t size) {
    return malloc_sizes_.contains(size) ? allocate_pooled(Kind::Malloc, size)
                                        : Runtime::allocate(size);
  }

  void* allocate_zeroed(std::size_t count, std::size_t element) {
    std::size_t size = 0;
    if (__builtin_mul_overflow(count, element, &size) || !calloc_sizes_.contains(size)) {
      return Runtime::allocate_zeroed(count, element);
    }
    return allocate_pooled(Kind::Calloc, size);
  }

  void release(void* block) {
    if (Pool* const pool = find(block)) {
      release_pooled(*pool);
    } else {
      Runtime::release(block);
    }
  }

  // A pooled block is never resized in place.
  void* resize(void* block, std::size_t size) {
    const Pool* const pool = find(block);
    if (pool == nullptr) {
      return Runtime::resize(block, size);
    }
    void* const moved = allocate(size);
    if (moved != nullptr) {
      std::memcpy(moved, block, size < pool->size ? size : pool->size);
      release(block);
    }
    return moved;
  }

  // Null, or the invariant that does not hold; for a moment without calls in progress.
  const char* broken_invariant() const;

  // For tests: the pools, the newest first.
  const Pool* newest_pool() const { return Words::load_acquire(head_); }

 private:
  SizeSet<Runtime>& sizes_of(Kind kind) {
    return kind == Kind::Malloc ? malloc_sizes_ : calloc_sizes_;
  }

  static bool serves(const Pool& pool, Kind kind, std::uint64_t size) {
    return pool.size == size && pool.kind == kind;
  }

  // The next pool of the list, without waiting for the link to be loaded: a walk then looks at
  // several pools at a time.
  template <class P>
  P* older(P* pool) const {
    return pool != pools_ ? pool - 1 : nullptr;
  }

  // The pool that a block is from, or null.
  Pool* find(const void* block) const {
    const auto* const address = static_cast<const std::byte*>(block);
    // relaxed: whoever holds a pooled block was given it after its region was within the bounds
    if (address < Words::load_relaxed(lowest_) || address > Words::load_relaxed(highest_)) {
      return nullptr;
    }
    // acquire: pairs with the publication in create
    for (Pool* pool = Words::load_acquire(head_); pool != nullptr; pool = older(pool)) {
      // relaxed: whoever holds a block of this pool was given it after base was set; for any other
      // pool both answers, null and the region, say no
      const std::byte* const base = Words::load_relaxed(pool->base);
      if (base != nullptr && base <= address && address <= pool->last) {
        return pool;
      }
    }
    return nullptr;
  }

  void* allocate_pooled(Kind kind, std::uint64_t size) {
    for (;;) {
      // acquire: pairs with the publication in create
      for (Pool* pool = Words::load_acquire(head_); pool != nullptr; pool = older(pool)) {
        if (serves(*pool, kind, size)) {
          if (void* const block = take_block(*pool)) {
            return block;
          }
        }
      }
      const Growth growth = grow(kind, size);
      if (growth.outcome == Outcome::AtLimit) {
        return from_heap(kind, size);
      }
      if (growth.outcome == Outcome::Created) {
        return growth.first;
      }
    }
  }

  // What came of a walk that found no room.
  enum class Outcome : std::uint8_t {
    Created,  // a new pool
    Room,     // another thread has created or reactivated a pool since
    AtLimit,  // still no room, and no descriptor is left
  };
  struct Growth {
    Outcome outcome;
    void* first;  // of a new pool, block 0, or null if the heap is exhausted
  };

  // Room is looked for again under the lock, also at the limit: the last descriptor may have gone
  // to a pool of this size.
  [[gnu::noinline]] Growth grow(Kind kind, std::uint64_t size) {
    const Holding<Runtime> holding(global_lock_);
    if (may_have_block(kind, size)) {
      return {Outcome::Room, nullptr};
    }
    if (pool_count_ == max_pools) {
      return {Outcome::AtLimit, nullptr};
    }
    return {Outcome::Created, create(kind, size)};
  }

  // A block of this pool, or null if all are handed out. The check and the increment are one step,
  // so that no lock is needed and no thread ever waits for one that was interrupted in between.
  static void* hand_out(Pool& pool, std::byte* base) {
    // relaxed: a guess, which the exchange confirms or replaces
    std::int32_t index = Words::load_relaxed(pool.next_index);
    while (index < pool.capacity) {
      // acquire: pairs with the reactivation that opened the pool, for base and for zeroed
      // contents. Should the region have started again since the guess, block `index` is as good a
      // block.
      if (Words::compare_exchange_acquire(pool.next_index, index, index + 1)) {
        return base + static_cast<std::uint64_t>(index) * pool.size;
      }
    }
    return nullptr;
  }

  // As hand_out; a released pool is reactivated first.
  void* take_block(Pool& pool) {
    for (;;) {
      // relaxed: the region's address never changes, and nothing in it is read before hand_out has
      // acquired a block
      if (std::byte* const base = Words::load_relaxed(pool.base)) {
        return hand_out(pool, base);
      }
      if (void* const first = reactivate(pool)) {
        return first;
      }
    }
  }

  // Block 0 of a released pool, which is in use again; null if another thread was faster.
  [[gnu::noinline]] void* reactivate(Pool& pool) {
    const Holding<Runtime> holding(global_lock_);
    if (Words::load_relaxed(pool.base) != nullptr) {  // relaxed: only changes under this lock
      return nullptr;
    }
    std::byte* const region = pool.saved;
    if (pool.kind == Kind::Calloc) {
      std::memset(region, 0, static_cast<std::uint64_t>(pool.capacity) * pool.size);
    }
    // No block is out, so nobody else touches `freed`. The index goes last, with release: it opens
    // the pool, also for a thread that read `base` before the pool was released, and the blocks of
    // such a thread must be found when they are freed, and counted from 0. Exchanges, since both
    // counters are only ever changed by one atomic read and write.
    Words::store_relaxed(pool.base, region);
    Words::exchange_release(pool.freed, std::uint32_t{0});
    Words::exchange_release(pool.next_index, std::int32_t{1});
    return region;
  }

  // Counts a freed block; the pool whose blocks are all freed is released.
  void release_pooled(Pool& pool) {
    // release: this thread is done with the block; acquire: and the last one sees that all are.
    // The increment itself tells who was the last: exactly one thread, since no block is handed out
    // between its increment and the release.
    const std::uint32_t freed = Words::increment_acq_rel(pool.freed) + 1;
    if (freed == static_cast<std::uint32_t>(pool.capacity)) {
      retire(pool);
    }
  }

  [[gnu::noinline]] void retire(Pool& pool) {
    const Holding<Runtime> holding(global_lock_);
    pool.saved = Words::load_relaxed(pool.base);  // relaxed: only changes under the global lock
    // relaxed: whoever acts on the null takes the global lock first
    Words::store_relaxed(pool.base, static_cast<std::byte*>(nullptr));
  }

  // Whether some pool has a block left, or is released. Under the global lock.
  bool may_have_block(Kind kind, std::uint64_t size) const {
    for (const Pool* pool = head_; pool != nullptr; pool = older(pool)) {
      // relaxed: both only turn towards "yes" under the global lock
      if (serves(*pool, kind, size) && (Words::load_relaxed(pool->base) == nullptr ||
                                        Words::load_relaxed(pool->next_index) < pool->capacity)) {
        return true;
      }
    }
    return false;
  }

  // Block 0 of a new pool; null, and no descriptor taken, if the heap is exhausted. Under the
  // global lock.
  void* create(Kind kind, std::uint64_t size) {
    const std::int32_t capacity = Runtime::capacity(size);
    auto* const region = static_cast<std::byte*>(request_region(kind, capacity, size));
    if (region == nullptr) {
      return nullptr;
    }
    Pool& pool = pools_[pool_count_];
    ++pool_count_;
    pool.next = head_;
    pool.base = region;
    pool.last = region + static_cast<std::uint64_t>(capacity - 1) * size;
    pool.size = size;
    pool.capacity = capacity;
    pool.next_index = 1;
    pool.kind = kind;
    if (lowest_ == nullptr || region < lowest_) {
      Words::store_relaxed(lowest_, region);
    }
    if (pool.last > highest_) {
      Words::store_relaxed(highest_, pool.last);
    }
    // release: a thread that finds the pool finds it complete
    Words::store_release(head_, &pool);
    return region;
  }

  static void* request_region(Kind kind, std::int32_t capacity, std::uint64_t size) {
    const auto count = static_cast<std::uint64_t>(capacity);
    if (kind == Kind::Calloc) {
      return Runtime::allocate_zeroed(count, size);
    }
    // A product that overflows becomes a request that no heap can meet.
    std::uint64_t bytes = 0;
    const bool overflow = __builtin_mul_overflow(count, size, &bytes);
    return Runtime::allocate(overflow ? std::numeric_limits<std::size_t>::max() : bytes);
  }

  static void* from_heap(Kind kind, std::uint64_t size) {
    return kind == Kind::Malloc ? Runtime::allocate(size) : Runtime::allocate_zeroed(1, size);
  }

  // The state. With n = pool_count:
  //
  //   0 <= n <= max_pools
  //   head = &pools[n - 1], or null if n = 0
  //   pools[i].next = &pools[i - 1] for 0 < i < n, pools[0].next = null
  //   lowest = min(region of pools[i]), highest = max(last of pools[i]) over i < n; null if n = 0
  //
  // The bounds tell of most blocks of the heap that they are from no pool. Like `head` and the
  // sizes they are read by every call; the global lock changes hands rarely: a cache line of its
  // own keeps it apart.
  Pool pools_[max_pools];
  Pool* head_;
  std::byte* lowest_;
  std::byte* highest_;
  SizeSet<Runtime> malloc_sizes_;
  SizeSet<Runtime> calloc_sizes_;
  alignas(64) LockWord global_lock_;
  std::int32_t pool_count_;  // guarded by the global lock
};

template <class Runtime>
const char* Allocator<Runtime>::broken_invariant() const {
  if (pool_count_ < 0 || pool_count_ > max_pools) {
    return "0 <= pool_count <= max_pools";
  }
  if (global_lock_ != 0) {
    return "global lock free";
  }
  if (!malloc_sizes_.is_sound() || !calloc_sizes_.is_sound()) {
    return "a size is found from its home slot";
  }
  const Pool* older = nullptr;
  const std::byte* lowest = nullptr;
  const std::byte* highest = nullptr;
  for (std::int32_t i = 0; i < pool_count_; ++i) {
    const Pool& pool = pools_[i];
    const std::byte* const region = pool.base != nullptr ? pool.base : pool.saved;
    if (pool.next != older) {
      return "next = the pool created before";
    }
    older = &pool;
    if (region == nullptr) {
      return "base or saved not null";
    }
    if (pool.base != nullptr && pool.saved != nullptr && pool.saved != pool.base) {
      return "base = region, saved = region";
    }
    if (pool.capacity != Runtime::capacity(pool.size)) {
      return "capacity follows from size";
    }
    if (pool.last != region + static_cast<std::uint64_t>(pool.capacity - 1) * pool.size) {
      return "last = region + (capacity - 1) * size";
    }
    if (pool.next_index < 1 || pool.next_index > pool.capacity) {
      return "1 <= next_index <= capacity";
    }
    if (pool.freed > static_cast<std::uint32_t>(pool.next_index)) {
      return "freed <= next_index";
    }
    if ((pool.base == nullptr) != (pool.freed == static_cast<std::uint32_t>(pool.capacity))) {
      return "released <=> freed = capacity";
    }
    lowest = lowest == nullptr || region < lowest ? region : lowest;
    highest = pool.last > highest ? pool.last : highest;
  }
  if (lowest_ != lowest || highest_ != highest) {
    return "lowest and highest = the bounds of all regions";
  }
  return head_ == older ? nullptr : "head = the newest pool";
}

}  // namespace ksomd::pool
