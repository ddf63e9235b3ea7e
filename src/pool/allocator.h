// The pool allocator. Requests of the listed sizes are served from pools, all others by the heap.
//
// One lock serialises the creation, release and reactivation of pools. Taking a block from a pool
// in use, or freeing one, is an atomic operation on a cache line of that pool and needs no lock,
// except to free the last block of a region.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>

#include "pool/descriptor.h"
#include "pool/lock.h"

namespace ksomd::pool {

// Runtime is what the allocator needs from its surroundings, as static functions:
//
//   void* allocate(size), void* allocate_zeroed(count, size), void* resize(block, size),
//   void release(block)           the heap: malloc, calloc, realloc and free
//   std::int32_t capacity(size)   blocks in the region of a pool, at least 1
//   void step()                   runs before each access to shared memory
//   void wait()                   runs again and again while another thread holds the lock
//
// In the library step and wait do nothing; in a test they choose the thread that goes on.
//
// An allocator is constant-initialised to zeros: it has no pools and no sizes.
template <class Runtime>
class Allocator {  // NOLINT(clang-analyzer-optin.performance.Padding): cache lines on purpose
  using Pool = __i_pool_desc;
  using Atomic = AtomicAccess<Runtime>;

 public:
  void set_sizes(const std::size_t* sizes, Kind kind) {
    const LockGuard<Runtime> guard(global_lock_);
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

  // For tests: the invariant that does not hold, or null. No call may be in progress.
  const char* broken_invariant() const;

  // For tests: the newest pool. Its `next` leads to the older ones.
  const Pool* newest_pool() const { return Atomic::load_acquire(head_); }

 private:
  SizeSet<Runtime>& sizes_of(Kind kind) {
    return kind == Kind::Malloc ? malloc_sizes_ : calloc_sizes_;
  }

  static bool serves(const Pool& pool, Kind kind, std::uint64_t size) {
    return pool.size == size && pool.kind == kind;
  }

  // The next pool of the list. Its address is computed, so a walk need not wait for `next` to be
  // loaded and looks at several pools at a time.
  template <class P>
  P* older(P* pool) const {
    return pool != pools_ ? pool - 1 : nullptr;
  }

  // The pool that the block is from, or null.
  Pool* find(const void* block) const {
    const auto* const address = static_cast<const std::byte*>(block);
    // relaxed: a thread that holds a pooled block got it after the bounds had grown to include its
    // region
    if (address < Atomic::load_relaxed(lowest_) || address > Atomic::load_relaxed(highest_)) {
      return nullptr;
    }
    // acquire: pairs with the publication in create
    for (Pool* pool = Atomic::load_acquire(head_); pool != nullptr; pool = older(pool)) {
      // relaxed: a thread that holds a block of this pool got it after base was set. For a block of
      // no pool, or of another one, the answer is no in either case, whether base reads as null
      // or as the region
      const std::byte* const base = Atomic::load_relaxed(pool->base);
      if (base != nullptr && base <= address && address <= pool->last) {
        return pool;
      }
    }
    return nullptr;
  }

  void* allocate_pooled(Kind kind, std::uint64_t size) {
    for (;;) {
      // acquire: pairs with the publication in create
      for (Pool* pool = Atomic::load_acquire(head_); pool != nullptr; pool = older(pool)) {
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

  // The outcome after a walk has found no room.
  enum class Outcome : std::uint8_t {
    Created,  // a new pool
    Room,     // another thread has created or reactivated a pool since
    AtLimit,  // still no room, and no descriptor is left
  };
  struct Growth {
    Outcome outcome;
    void* first;  // block 0 of a new pool; null if the heap is exhausted
  };

  // Looks for room again under the lock, even if no descriptor is left: another thread may have
  // used the last one for a pool of this size.
  [[gnu::noinline]] Growth grow(Kind kind, std::uint64_t size) {
    const LockGuard<Runtime> guard(global_lock_);
    if (may_have_block(kind, size)) {
      return {Outcome::Room, nullptr};
    }
    if (pool_count_ == max_pools) {
      return {Outcome::AtLimit, nullptr};
    }
    return {Outcome::Created, create(kind, size)};
  }

  // A block of this pool, or null if all are handed out. The check and the increment are one atomic
  // step. So no lock is needed, and no thread waits for another that was interrupted in between.
  static void* hand_out(Pool& pool, std::byte* base) {
    // relaxed: only a guess, which the exchange confirms or replaces
    std::int32_t index = Atomic::load_relaxed(pool.next_index);
    while (index < pool.capacity) {
      // acquire: pairs with the release in reactivate, so that base and zeroed contents are
      // visible. If the pool was reactivated after the guess, block `index` is still the next one
      // to hand out.
      if (Atomic::compare_exchange_acquire(pool.next_index, index, index + 1)) {
        return base + static_cast<std::uint64_t>(index) * pool.size;
      }
    }
    return nullptr;
  }

  // Like hand_out, but reactivates a released pool first.
  void* take_block(Pool& pool) {
    for (;;) {
      // relaxed: the region's address never changes, and nothing in it is read before hand_out has
      // acquired a block
      if (std::byte* const base = Atomic::load_relaxed(pool.base)) {
        return hand_out(pool, base);
      }
      if (void* const first = reactivate(pool)) {
        return first;
      }
    }
  }

  // Puts a released pool back into use and returns its block 0; null if another thread was faster.
  [[gnu::noinline]] void* reactivate(Pool& pool) {
    const LockGuard<Runtime> guard(global_lock_);
    if (Atomic::load_relaxed(pool.base) != nullptr) {  // relaxed: only changes under this lock
      return nullptr;
    }
    std::byte* const region = pool.saved;
    if (pool.kind == Kind::Calloc) {
      std::memset(region, 0, static_cast<std::uint64_t>(pool.capacity) * pool.size);
    }
    // No block is out, so no other thread touches `freed`. The index is last and has release order,
    // because it opens the pool: a thread may have read `base` before the pool was released, and
    // takes a block as soon as the index allows it. When that block is freed, find() needs `base`,
    // and the count must have restarted from 0. Both are exchanges because the two counters change
    // only by atomic read-modify-write operations.
    Atomic::store_relaxed(pool.base, region);
    Atomic::exchange_release(pool.freed, std::uint32_t{0});
    Atomic::exchange_release(pool.next_index, std::int32_t{1});
    return region;
  }

  // Counts a freed block, and releases the pool if all of its blocks are freed.
  void release_pooled(Pool& pool) {
    // release: this thread is done with its block. acquire: the thread that frees the last block
    // sees that all others are done. Exactly one thread finds the count complete, because no block
    // is handed out between that increment and the release of the pool.
    const std::uint32_t freed = Atomic::increment_acq_rel(pool.freed) + 1;
    if (freed == static_cast<std::uint32_t>(pool.capacity)) {
      retire(pool);
    }
  }

  [[gnu::noinline]] void retire(Pool& pool) {
    const LockGuard<Runtime> guard(global_lock_);
    pool.saved = Atomic::load_relaxed(pool.base);  // relaxed: changes only under the global lock
    // relaxed: a thread that acts on the null takes the global lock first
    Atomic::store_relaxed(pool.base, static_cast<std::byte*>(nullptr));
  }

  // Whether some pool has a block left or is released. The caller holds the global lock.
  bool may_have_block(Kind kind, std::uint64_t size) const {
    for (const Pool* pool = head_; pool != nullptr; pool = older(pool)) {
      // relaxed: either turns from no to yes only under the global lock
      if (serves(*pool, kind, size) && (Atomic::load_relaxed(pool->base) == nullptr ||
                                        Atomic::load_relaxed(pool->next_index) < pool->capacity)) {
        return true;
      }
    }
    return false;
  }

  // Creates a pool and returns its block 0. If the heap is exhausted it returns null and uses no
  // descriptor. The caller holds the global lock.
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
      Atomic::store_relaxed(lowest_, region);
    }
    if (pool.last > highest_) {
      Atomic::store_relaxed(highest_, pool.last);
    }
    // release: a thread that finds the pool finds it complete
    Atomic::store_release(head_, &pool);
    return region;
  }

  static void* request_region(Kind kind, std::int32_t capacity, std::uint64_t size) {
    const auto count = static_cast<std::uint64_t>(capacity);
    if (kind == Kind::Calloc) {
      return Runtime::allocate_zeroed(count, size);
    }
    // If the product overflows, the request is one that no heap can meet.
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
  // Most blocks of the heap lie outside the bounds, so they are known at once to come from no pool.
  // Every call reads the bounds, `head` and the sizes. The global lock changes hands rarely, and
  // has a separate cache line.
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
    if (region == nullptr) {
      return "base or saved not null";
    }
    const struct {
      bool holds;
      const char* invariant;
    } checks[] = {
        {pool.next == older, "next = the pool created before"},
        {pool.base == nullptr || pool.saved == nullptr || pool.saved == pool.base,
         "base = region, saved = region"},
        {pool.capacity == Runtime::capacity(pool.size), "capacity follows from size"},
        {pool.last == region + static_cast<std::uint64_t>(pool.capacity - 1) * pool.size,
         "last = region + (capacity - 1) * size"},
        {pool.next_index >= 1 && pool.next_index <= pool.capacity, "1 <= next_index <= capacity"},
        {pool.freed <= static_cast<std::uint32_t>(pool.next_index), "freed <= next_index"},
        {(pool.base == nullptr) == (pool.freed == static_cast<std::uint32_t>(pool.capacity)),
         "released <=> freed = capacity"},
    };
    for (const auto& check : checks) {
      if (!check.holds) {
        return check.invariant;
      }
    }
    older = &pool;
    lowest = lowest == nullptr || region < lowest ? region : lowest;
    highest = pool.last > highest ? pool.last : highest;
  }
  if (lowest_ != lowest || highest_ != highest) {
    return "lowest and highest = the bounds of all regions";
  }
  return head_ == older ? nullptr : "head = the newest pool";
}

}  // namespace ksomd::pool
