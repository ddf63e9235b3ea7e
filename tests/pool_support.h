// What the tests of the pools share: an allocator in a world of the test's own making.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "pool/allocator.h"
#include "support/effort.h"

namespace ksomd::test {

// The heap, watched: it counts, and refuses the request that it is told to refuse.
struct TestHeap {
  static inline std::atomic<std::int64_t> requests;  // that a refusal may hit
  static inline std::atomic<std::int64_t>
      refuse_at;  // the number of the request to refuse; 0: none
  static inline std::atomic<std::int64_t> outstanding;  // blocks

  static void reset() {
    requests = 0;
    refuse_at = 0;
    outstanding = 0;
  }

  static void* allocate(std::size_t size) { return refused() ? nullptr : count(std::malloc(size)); }
  static void* allocate_zeroed(std::size_t number, std::size_t size) {
    return refused() ? nullptr : count(std::calloc(number, size));
  }
  static void* resize(void* block, std::size_t size) {
    if (refused()) {
      return nullptr;
    }
    void* const moved = std::realloc(block, size);
    outstanding += block == nullptr && moved != nullptr;
    return moved;
  }
  static void release(void* block) {
    outstanding -= block != nullptr;
    std::free(block);
  }

 private:
  static bool refused() { return ++requests == refuse_at; }
  static void* count(void* block) {
    outstanding += block != nullptr;
    return block;
  }
};

// A world with small regions, so that they run out and start again all the time.
template <int Capacity>
struct SmallRegions : TestHeap {
  static std::int32_t capacity(std::uint64_t) { return Capacity; }
  static void step() {}
  static void wait() { std::this_thread::yield(); }
};

// An allocator of the test's own, which gives its regions back in the end.
template <class Runtime>
class TestAllocator : public pool::Allocator<Runtime> {
 public:
  TestAllocator() : pool::Allocator<Runtime>{} {}
  ~TestAllocator() {
    for (const __i_pool_desc* pool = this->newest_pool(); pool != nullptr; pool = pool->next) {
      Runtime::release(pool->base != nullptr ? pool->base : pool->saved);
    }
  }
  TestAllocator(const TestAllocator&) = delete;
  TestAllocator& operator=(const TestAllocator&) = delete;

  void set_sizes(std::vector<std::size_t> sizes, pool::Kind kind = pool::Kind::Malloc) {
    sizes.push_back(0);
    pool::Allocator<Runtime>::set_sizes(sizes.data(), kind);
  }

  // With no blocks held: brings every pool to the end of its region, so that all are released.
  void run_out() {
    std::vector<void*> blocks;
    for (const __i_pool_desc* pool = this->newest_pool(); pool != nullptr; pool = pool->next) {
      while (pool->base == nullptr || pool->next_index < pool->capacity) {
        blocks.push_back(pool->kind == pool::Kind::Malloc ? this->allocate(pool->size)
                                                          : this->allocate_zeroed(1, pool->size));
      }
    }
    for (void* block : blocks) {
      this->release(block);
    }
  }

  int pool_count() const {
    int count = 0;
    for (const __i_pool_desc* pool = this->newest_pool(); pool != nullptr; pool = pool->next) {
      ++count;
    }
    return count;
  }
};

// The invariants of an allocator as a test's expectation: "" if all hold.
template <class Runtime>
std::string_view broken(const pool::Allocator<Runtime>& allocator) {
  const char* const equation = allocator.broken_invariant();
  return equation != nullptr ? equation : "";
}

inline bool all_bytes(const void* block, std::size_t size, int value) {
  const auto* const bytes = static_cast<const unsigned char*>(block);
  return size == 0 || (bytes[0] == value && std::memcmp(bytes, bytes + 1, size - 1) == 0);
}

// Runs body(0), ..., body(count - 1) at the same time.
template <class Body>
void in_threads(int count, Body body) {
  std::vector<std::thread> threads;
  threads.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) {
    threads.emplace_back([&body, i] { body(i); });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

// The first thing that a thread found wrong, kept while the other threads go on to the end.
class Findings {
 public:
  void expect(bool holds, std::int64_t round, std::string_view what) {
    if (!holds && count_.fetch_add(1) == 0) {
      first_ = "round " + std::to_string(round) + ": " + std::string(what);
    }
  }
  // "" if everything was as expected. After the threads have ended.
  const std::string& first() const { return first_; }

 private:
  std::atomic<std::int64_t> count_ = 0;
  std::string first_;
};

// Lets threads go on together, round after round.
class Barrier {
 public:
  explicit Barrier(int threads) : threads_(threads) {}
  void wait() {
    const int round = round_.load(std::memory_order_acquire);
    if (arrived_.fetch_add(1, std::memory_order_acq_rel) + 1 == threads_) {
      arrived_.store(0, std::memory_order_relaxed);
      round_.store(round + 1, std::memory_order_release);
      return;
    }
    for (int spins = 0; round_.load(std::memory_order_acquire) == round; ++spins) {
      if (spins > 2000) {
        std::this_thread::yield();
      }
    }
  }

 private:
  const int threads_;
  std::atomic<int> arrived_ = 0;
  std::atomic<int> round_ = 0;
};

}  // namespace ksomd::test
