// The exported routines: the pools against a model of what a program may count on, which request is
// served by which block of which region; and aligned blocks.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <list>
#include <numeric>

#include "ksomd/pool.h"
#include "support/entry.h"
#include "support/sweep.h"

// Heap requests that cannot be met are part of these tests.
extern "C" const char* __asan_default_options() {
  return "allocator_may_return_null=1";
}
extern "C" const char* __tsan_default_options() {
  return "allocator_may_return_null=1";
}

namespace ksomd::test {
namespace {

enum Kind : int { Malloc, Calloc };

const auto pool_init = entry<decltype(__i_pool_init)>("__i_pool_init");
const auto pool_malloc = entry<decltype(__i_pool_malloc)>("__i_pool_malloc");
const auto pool_calloc = entry<decltype(__i_pool_calloc)>("__i_pool_calloc");
const auto pool_realloc = entry<decltype(__i_pool_realloc)>("__i_pool_realloc");
const auto pool_free = entry<decltype(__i_pool_free)>("__i_pool_free");

bool all_bytes(const unsigned char* block, std::size_t size, std::size_t value) {
  return size == 0 || (block[0] == value && std::memcmp(block, block + 1, size - 1) == 0);
}

struct Region {
  std::size_t size;
  Kind kind;
  std::size_t capacity = size == 40 || size == 48 || size == 96 ? 300'000 : 30'000;
  std::size_t next = 0, freed = 0;
  const unsigned char* first = nullptr;
};

class Program {
 public:
  explicit Program(Sweep& sweep) : sweep_(sweep) {}

  void set_sizes(Kind kind, std::vector<std::size_t> sizes, std::size_t behind = 0) {
    sizes_[kind] = sizes;
    sizes.push_back(behind);
    pool_init(sizes.data(), -kind);  // every kind but 0 is the other one
  }

  void take(std::size_t size, Kind kind, std::size_t count = 1) {
    for (; count > 0; --count) {
      void* const block = kind == Malloc ? pool_malloc(size) : pool_calloc(size / 4, 4);
      keep(block, size, kind, serve(size, kind));
    }
  }

  // Frees as many of the held blocks, in any order.
  void free(std::size_t count) {
    for (; count > 0 && !held_.empty(); --count) {
      const Block block = any();
      pool_free(block.address);
      block.region->freed += 1;
    }
  }

  // A pooled block always moves, and is free only then; nothing and a block of the heap move to the
  // heap, whatever the lists say. What no heap has is refused, and costs nothing.
  void resize(std::size_t size) {
    keep(pool_realloc(nullptr, size), size, Malloc, &heap_);
    const Block old = any();
    ASSERT_EQ(pool_realloc(old.address, SIZE_MAX - 4096), nullptr);
    auto* const moved = static_cast<unsigned char*>(pool_realloc(old.address, size));
    ASSERT_TRUE(all_bytes(moved, std::min(size, old.size), old.value)) << old.size << ' ' << size;
    keep(moved, size, Malloc, old.region == &heap_ ? &heap_ : serve(size, Malloc));
    old.region->freed += 1;
  }

  void anything(const std::vector<std::size_t>& sizes, int times) {
    for (; times > 0; --times) {
      const std::size_t size = sizes[sweep_.random.below(sizes.size())];
      take(size, size % 4 == 0 && sweep_.random.one_in(2) ? Calloc : Malloc, 20);
      free(sweep_.random.below(40));
      take(40, Malloc);
      resize(sizes[sweep_.random.below(sizes.size())]);
    }
  }

 private:
  struct Block {
    unsigned char* address;
    std::size_t size;
    Region* region;
    unsigned char value;  // of every byte
  };

  // Who serves the next request.
  Region* serve(std::size_t size, Kind kind) {
    if (std::ranges::count(sizes_[kind], size) == 0) {
      return &heap_;
    }
    for (Region& region : regions_) {
      if (region.freed == region.capacity) {
        region.next = region.freed = 0;
      }
      if (region.size == size && region.kind == kind && region.next < region.capacity) {
        return &region;
      }
    }
    return regions_.size() == 50 ? &heap_ : &regions_.emplace_front(Region{size, kind});
  }

  void keep(void* memory, std::size_t size, Kind kind, Region* region) {
    auto* const block = static_cast<unsigned char*>(memory);
    ASSERT_TRUE(block != nullptr && (kind == Malloc || all_bytes(block, size, 0))) << size;
    if (region != &heap_) {
      region->first = region->first == nullptr ? block : region->first;
      ASSERT_EQ(block, region->first + region->next * size) << size << " bytes of kind " << kind;
    } else {
      for (const Region& other : regions_) {
        ASSERT_FALSE(block >= other.first && block < other.first + other.capacity * other.size);
      }
    }
    sweep_.result(region->size, region->next++);
    const auto value = static_cast<unsigned char>(region->next | 1);
    std::memset(block, value, size);
    held_.push_back({block, size, region, value});
  }

  // Takes a block out of those held; it still has its contents.
  Block any() {
    std::swap(held_[sweep_.random.below(held_.size())], held_.back());
    const Block block = held_.back();
    held_.pop_back();
    EXPECT_TRUE(all_bytes(block.address, block.size, block.value)) << "contents lost";
    return block;
  }

  Sweep& sweep_;
  std::vector<std::size_t> sizes_[2];
  std::list<Region> regions_;  // the newest first
  Region heap_ = {0, Malloc};
  std::vector<Block> held_;
};

// The pools last as long as the process, so one story tells all.
TEST(PoolSweep, EachRequestGetsTheBlockThatTheModelTells) {
  Sweep sweep("pool.requests");
  static_cast<void>(sweep.rounds(1, 1));  // once at any length: the pools stay
  Program program(sweep);
  program.take(40, Malloc);  // without lists everything is the heap's
  program.take(40, Calloc);
  // Sizes whose region no heap has, or whose region's size does not fit 64 bits, are refused and
  // take no pool; 0 and products that overflow to a listed size never come from a pool.
  constexpr std::size_t top = std::size_t{1} << 63, sizes[] = {top, top + 8, top >> 14, 40, 0};
  pool_init(sizes, Malloc);
  pool_init(sizes, Calloc);
  for (const std::size_t size : {top, top + 8, top >> 14}) {
    errno = 0;
    EXPECT_TRUE(pool_malloc(size) == nullptr && errno == ENOMEM) << size;
    EXPECT_EQ(pool_calloc(size, 1), nullptr) << size;
  }
  EXPECT_EQ(pool_calloc(top + 20, 2), nullptr) << "2^64 + 40";
  std::free(pool_malloc(0));
  std::free(pool_calloc(0, SIZE_MAX));
  pool_free(nullptr);
  // Each region to its end and a block beyond.
  program.set_sizes(Malloc, {40, 41, 48, 95, 96, 100});
  program.set_sizes(Calloc, {40, 100});
  for (const std::size_t size : {40u, 41u, 48u, 95u, 96u, 100u}) {
    program.take(size, Malloc, Region{size, Malloc}.capacity + 1);
  }
  // Freed all, in any order, a region starts again.
  for (const std::size_t size : {40u, 100u, 100u, 40u}) {
    program.take(size, Calloc, size == 40 ? 300'000 : 30'001);
    program.free(SIZE_MAX);
  }
  program.anything({40, 41, 100, 101, 20, 1000}, 300);
  // A new list for one kind leaves the other's alone, and blocks that are out stay pooled.
  program.set_sizes(Malloc, {100, 20});
  program.anything({40, 100, 20, 96}, 300);
  // 50 sizes need no 0 behind them; 50 pools of both kinds, and the heap for one more.
  std::vector<std::size_t> fifty(50);
  std::iota(fifty.begin(), fifty.end(), 1);
  program.set_sizes(Malloc, fifty, 7777);
  program.set_sizes(Calloc, fifty, 7776);
  program.take(7777, Malloc);
  program.take(7776, Calloc);
  for (const std::size_t size : fifty) {
    program.take(size, size % 8 == 0 ? Calloc : Malloc);
  }
  program.anything(fifty, 1000);
  program.free(SIZE_MAX);
}

// The result is the first multiple of the alignment that leaves 8 bytes below it, where the heap's
// block stands; sums beyond 64 bits, and sums that fit and that no heap has, are refused.
TEST(PoolSweep, AlignedBlocksStandRightAboveTheirLink) {
  const auto allocate = entry<decltype(ksomd_mm_malloc)>("_mm_malloc");
  const auto release = entry<decltype(ksomd_mm_free)>("_mm_free");
  for (std::size_t alignment = 1; alignment != 0; alignment *= 2) {
    SCOPED_TRACE(alignment);
    const std::size_t step = std::max<std::size_t>(alignment, 8);
    std::vector<unsigned char*> blocks(alignment <= 4096 ? 300 : 0);
    for (std::size_t size = 0; size < blocks.size(); ++size) {
      blocks[size] = static_cast<unsigned char*>(allocate(size, alignment));
      ASSERT_NE(blocks[size], nullptr) << size;
      std::uintptr_t raw = 0;
      std::memcpy(&raw, blocks[size] - 8, 8);
      const auto address = reinterpret_cast<std::uintptr_t>(blocks[size]);
      ASSERT_EQ(address, (raw + 8 + step - 1) / step * step) << size;
      std::memset(blocks[size], static_cast<int>(size % 2), size);
    }
    for (std::size_t size = 0; size < blocks.size(); ++size) {
      ASSERT_TRUE(all_bytes(blocks[size], size, size % 2)) << size;
      release(blocks[size]);
    }
    for (std::size_t distance = 0; distance < 20; ++distance) {
      EXPECT_EQ(allocate(SIZE_MAX - distance, alignment), nullptr) << distance;
      EXPECT_EQ(allocate(SIZE_MAX - alignment - distance, alignment), nullptr) << distance;
    }
  }
  release(nullptr);
}

TEST(LockSweep, MarksTheWord) {
  int word = 0;
  entry<void(int*)>("__fast_lock")(&word);
  EXPECT_NE(word, 0);
  entry<void(int*)>("__fast_unlock")(&word);
  EXPECT_EQ(word, 0);
}

}  // namespace
}  // namespace ksomd::test
