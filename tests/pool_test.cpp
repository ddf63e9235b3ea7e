// The exported pool routines, each scenario in a process of its own: the pools last as long as it.
#include "ksomd/pool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <random>

#include "pool/runtime.h"
#include "pool_support.h"
#include "support/child_process.h"
#include "support/seed.h"

// Heap requests that cannot be met are part of these tests.
extern "C" const char* __asan_default_options() {
  return "allocator_may_return_null=1";
}
extern "C" const char* __tsan_default_options() {
  return "allocator_may_return_null=1";
}

namespace {

using ksomd::test::all_bytes;
using ksomd::test::Ending;

#define REQUIRE(condition)                                      \
  do {                                                          \
    const bool holds = (condition);                             \
    if (!holds) {                                               \
      std::printf("line %d: not so: %s", __LINE__, #condition); \
      return 1;                                                 \
    }                                                           \
  } while (false)

// The invariants hold, too.
#define REQUIRE_SOUND() REQUIRE(ksomd::pool::process_allocator.broken_invariant() == nullptr)

std::vector<char*> blocks_of(std::size_t size, int count) {
  std::vector<char*> blocks;
  for (int i = 0; i < count; ++i) {
    blocks.push_back(static_cast<char*>(__i_pool_malloc(size)));
  }
  return blocks;
}

void free_all(const std::vector<char*>& blocks) {
  for (char* block : blocks) {
    __i_pool_free(block);
  }
}

bool at_stride(const std::vector<char*>& blocks, std::size_t stride) {
  for (std::size_t i = 0; i < blocks.size(); ++i) {
    if (blocks[i] != blocks[0] + i * stride) {
      return false;
    }
  }
  return true;
}

// Whether `block` lies outside a region of 30000 blocks of 100 bytes.
bool outside(const char* block, const char* region) {
  return block < region || block >= region + 30000 * 100;
}

bool make_lists(std::initializer_list<std::size_t> malloc_sizes,
                std::initializer_list<std::size_t> calloc_sizes) {
  std::vector<std::size_t> list(malloc_sizes);
  list.push_back(0);
  __i_pool_init(list.data(), KSOMD_POOL_MALLOC);
  list = calloc_sizes;
  list.push_back(0);
  __i_pool_init(list.data(), KSOMD_POOL_CALLOC);
  return true;
}

// Without size lists, and with lists emptied again, everything is the heap's: its blocks and ours
// are interchangeable.
KSOMD_CHILD(heap_only) {
  for (int round = 0; round < 2; ++round) {
    void* block = __i_pool_malloc(40);
    std::free(block);
    __i_pool_free(std::malloc(40));
    __i_pool_free(nullptr);
    block = __i_pool_calloc(10, 4);
    REQUIRE(all_bytes(block, 40, 0));
    block = __i_pool_realloc(block, 4000);
    REQUIRE(all_bytes(block, 40, 0));
    std::free(block);
    std::free(__i_pool_realloc(nullptr, 40));
    REQUIRE(__i_pool_malloc(SIZE_MAX - 4096) == nullptr);
    REQUIRE(__i_pool_calloc(SIZE_MAX / 2, 4) == nullptr);
    REQUIRE(ksomd::pool::process_allocator.newest_pool() == nullptr);
    make_lists({40}, {40});
    make_lists({}, {});
  }
  REQUIRE_SOUND();
  return 0;
}

// The sizes that programs ask for most have ten times larger regions.
KSOMD_CHILD(strides) {
  make_lists({40, 41, 48, 95, 96, 100}, {});
  for (const auto& [size, capacity] : {std::pair{40u, 300000},
                                       {41u, 30000},
                                       {48u, 300000},
                                       {95u, 30000},
                                       {96u, 300000},
                                       {100u, 30000}}) {
    const std::vector<char*> first = blocks_of(size, capacity);
    REQUIRE(at_stride(first, size));
    const std::vector<char*> second = blocks_of(size, 2);
    REQUIRE(second[0] < first.front() || second[0] > first.back());
    REQUIRE(second[1] == second[0] + size);
    void* unlisted = __i_pool_malloc(101);
    REQUIRE(unlisted < first.front() || unlisted > first.back());
    const std::size_t reach = static_cast<std::size_t>(capacity - 1) * size;
    REQUIRE(unlisted < second[0] || unlisted > second[0] + reach);
    std::free(unlisted);
  }
  REQUIRE_SOUND();
  return 0;
}

// A region starts again when its last block is freed, in whatever order, and never before.
KSOMD_CHILD(recycling) {
  make_lists({100}, {});
  std::mt19937 random(ksomd::test::seed_of(1));
  std::vector<char*> blocks = blocks_of(100, 30000);
  char* const region = blocks[0];
  for (int round = 0; round < 5; ++round) {
    std::shuffle(blocks.begin(), blocks.end(), random);
    free_all(blocks);
    blocks = blocks_of(100, 30000);
    REQUIRE(blocks[0] == region);
    REQUIRE(at_stride(blocks, 100));
    REQUIRE_SOUND();
  }
  free_all({blocks.begin() + 1, blocks.end()});
  char* const other = static_cast<char*>(__i_pool_malloc(100));
  REQUIRE(outside(other, region));
  __i_pool_free(blocks[0]);
  // The newer pool still has room and comes first; then the recycled region.
  const std::vector<char*> rest = blocks_of(100, 29999);
  REQUIRE(rest[0] == other + 100 && at_stride(rest, 100));
  REQUIRE(__i_pool_malloc(100) == region);
  REQUIRE_SOUND();
  return 0;
}

KSOMD_CHILD(zeroed) {
  make_lists({40}, {40, 100});
  for (const auto& [number, size, capacity] : {std::tuple{10u, 4u, 300000}, {25u, 4u, 30000}}) {
    const std::size_t block_size = std::size_t{number} * size;
    std::vector<char*> blocks;
    for (int round = 0; round < 3; ++round) {
      for (int i = 0; i < capacity; ++i) {
        blocks.push_back(static_cast<char*>(
            __i_pool_calloc(static_cast<std::size_t>(number), static_cast<std::size_t>(size))));
        REQUIRE(all_bytes(blocks.back(), block_size, 0));
        std::memset(blocks.back(), 0xA5, block_size);
      }
      REQUIRE(at_stride(blocks, block_size));
      REQUIRE(blocks[0] ==
              static_cast<const void*>(ksomd::pool::process_allocator.newest_pool()->base));
      free_all(blocks);
      blocks.clear();
    }
  }
  // The same size in malloc's list is another kind's pool.
  void* const block = __i_pool_malloc(40);
  const __i_pool_desc* const newest = ksomd::pool::process_allocator.newest_pool();
  REQUIRE(block == newest->base && newest->kind == ksomd::pool::Kind::Malloc);
  REQUIRE(newest->next->next->next == nullptr);
  REQUIRE_SOUND();
  return 0;
}

KSOMD_CHILD(resizing) {
  make_lists({40, 20}, {100});
  auto* block = static_cast<unsigned char*>(__i_pool_malloc(40));
  for (unsigned char i = 0; i < 40; ++i) {
    block[i] = i;
  }
  auto* const shorter = static_cast<unsigned char*>(__i_pool_realloc(block, 20));
  REQUIRE(ksomd::pool::process_allocator.newest_pool()->size == 20);
  REQUIRE(std::memcmp(shorter, block, 20) == 0);
  auto* const same = static_cast<unsigned char*>(__i_pool_realloc(shorter, 20));
  REQUIRE(same == shorter + 20);  // a pooled block always moves
  REQUIRE(ksomd::pool::process_allocator.newest_pool()->freed == 1);

  block = static_cast<unsigned char*>(__i_pool_malloc(40));
  std::memset(block, 7, 40);
  block[39] = 8;
  auto* longer = static_cast<unsigned char*>(__i_pool_realloc(block, 1000));
  REQUIRE(all_bytes(longer, 39, 7) && longer[39] == 8);
  longer = static_cast<unsigned char*>(__i_pool_realloc(longer, 40));  // the heap's, so it stays so
  std::free(longer);

  // Nothing moves to the heap, even if pools serve the size.
  void* const from_nothing = __i_pool_realloc(nullptr, 40);
  const __i_pool_desc* const pool_of_40 = ksomd::pool::process_allocator.newest_pool()->next;
  REQUIRE(pool_of_40->size == 40 && pool_of_40->next_index == 2);
  std::free(from_nothing);

  // A block of a calloc pool moves to a malloc pool.
  void* zeroed = __i_pool_calloc(1, 100);
  auto* const moved = static_cast<unsigned char*>(__i_pool_realloc(zeroed, 40));
  REQUIRE(all_bytes(moved, 40, 0));
  const __i_pool_desc* const calloc_pool = ksomd::pool::process_allocator.newest_pool();
  REQUIRE(calloc_pool->size == 100 && calloc_pool->freed == 1);

  // Refused: the block stays as it is. Not to be met: a size that no heap has.
  REQUIRE(__i_pool_realloc(moved, SIZE_MAX - 4096) == nullptr);
  REQUIRE(all_bytes(moved, 40, 0));
  void* const nothing = __i_pool_realloc(moved, 0);
  __i_pool_free(nothing);
  REQUIRE_SOUND();
  return 0;
}

// 50 sizes need no 0 after them; what follows is not looked at. 50 pools, of both kinds, and the
// heap for whatever would need another one.
KSOMD_CHILD(fifty) {
  std::size_t sizes[51];
  for (std::size_t i = 0; i < 51; ++i) {
    sizes[i] = i + 1;
  }
  __i_pool_init(sizes, 0);
  const std::vector<std::size_t> exactly_fifty(sizes, sizes + 50);
  __i_pool_init(exactly_fifty.data(), -1);
  for (std::size_t size = 1; size <= 51; ++size) {
    if (size <= 49) {
      REQUIRE(__i_pool_malloc(size) == ksomd::pool::process_allocator.newest_pool()->base);
    } else if (size == 50) {
      REQUIRE(__i_pool_calloc(size, 1) == ksomd::pool::process_allocator.newest_pool()->base);
    } else {
      std::free(__i_pool_malloc(size));
    }
  }
  const __i_pool_desc* const newest = ksomd::pool::process_allocator.newest_pool();
  REQUIRE(newest->size == 50 && newest->kind == ksomd::pool::Kind::Calloc);
  for (std::size_t size = 1; size <= 49; ++size) {
    void* const zeroed = __i_pool_calloc(1, size);
    REQUIRE(all_bytes(zeroed, size, 0));
    std::free(zeroed);
  }
  std::free(__i_pool_malloc(50));
  const std::vector<char*> ones = blocks_of(1, 29999);
  REQUIRE(at_stride(ones, 1));
  std::free(__i_pool_malloc(1));
  REQUIRE(ksomd::pool::process_allocator.newest_pool() == newest);
  REQUIRE_SOUND();
  return 0;
}

// Sizes whose region no heap has, or whose region's size does not even fit 64 bits, are listed, and
// refused; 0 and products that overflow to a listed size never come from a pool.
KSOMD_CHILD(extremes) {
  constexpr std::size_t top = std::size_t{1} << 63;
  const std::initializer_list<std::size_t> sizes = {top,       top + 8,           SIZE_MAX,
                                                    top >> 14, (top >> 14) + 500, 40};
  make_lists(sizes, sizes);
  for (const std::size_t size : sizes) {
    if (size != 40) {
      errno = 0;
      REQUIRE(__i_pool_malloc(size) == nullptr);
      REQUIRE(errno == ENOMEM);
      REQUIRE(__i_pool_calloc(size, 1) == nullptr);
      REQUIRE(__i_pool_calloc(1, size) == nullptr);
    }
  }
  REQUIRE(__i_pool_calloc(top + 20, 2) == nullptr);  // 2^64 + 40
  REQUIRE(__i_pool_calloc(SIZE_MAX, SIZE_MAX) == nullptr);
  std::free(__i_pool_malloc(0));
  std::free(__i_pool_calloc(0, SIZE_MAX));
  REQUIRE(ksomd::pool::process_allocator.newest_pool() == nullptr);
  REQUIRE(__i_pool_malloc(40) == ksomd::pool::process_allocator.newest_pool()->base);
  REQUIRE_SOUND();
  return 0;
}

// A later call for a kind replaces its list, not the other's.
KSOMD_CHILD(replacing) {
  make_lists({100, 200}, {300});
  const std::vector<char*> blocks = blocks_of(100, 30000);
  free_all(blocks);
  const std::size_t shorter[] = {200, 0};
  __i_pool_init(shorter, KSOMD_POOL_MALLOC);
  std::free(__i_pool_malloc(100));
  REQUIRE(__i_pool_malloc(200) == ksomd::pool::process_allocator.newest_pool()->base);
  REQUIRE(__i_pool_calloc(3, 100) == ksomd::pool::process_allocator.newest_pool()->base);
  const std::size_t again[] = {200, 100, 0};
  __i_pool_init(again, KSOMD_POOL_MALLOC);
  REQUIRE(__i_pool_malloc(100) == blocks[0]);
  REQUIRE_SOUND();
  return 0;
}

class Scenario : public testing::TestWithParam<const char*> {};

TEST_P(Scenario, Holds) {
  const ksomd::test::ChildResult result = ksomd::test::run_child(GetParam());
  EXPECT_EQ(result.ending, Ending::Exit);
  EXPECT_EQ(result.status, 0) << result.output;
}

INSTANTIATE_TEST_SUITE_P(Pool, Scenario,
                         testing::Values("heap_only", "strides", "recycling", "zeroed", "resizing",
                                         "fifty", "extremes", "replacing"),
                         [](const auto& test) { return std::string(test.param); });

// ---- aligned allocation -------------------------------------------------------------------------

TEST(AlignedAllocation, EverySizeAtEveryAlignment) {
  for (std::size_t alignment = 1; alignment <= 4096; alignment *= 2) {
    std::vector<unsigned char*> blocks;
    for (std::size_t size = 0; size <= 300; ++size) {
      blocks.push_back(static_cast<unsigned char*>(ksomd_mm_malloc(size, alignment)));
      const auto address = reinterpret_cast<std::uintptr_t>(blocks[size]);
      ASSERT_NE(address, 0u) << size << " at " << alignment;
      EXPECT_EQ(address % std::max<std::size_t>(alignment, 8), 0u) << size << " at " << alignment;
      std::memset(blocks[size], static_cast<int>(size % 251), size);
    }
    for (std::size_t size = 0; size <= 300; ++size) {
      EXPECT_TRUE(all_bytes(blocks[size], size, static_cast<int>(size % 251)))
          << size << " at " << alignment;
      ksomd_mm_free(blocks[size]);
    }
  }
  ksomd_mm_free(nullptr);
}

// The first multiple of the alignment that leaves 8 bytes below it, which hold the block's address.
TEST(AlignedAllocation, StandsRightAboveItsLink) {
  for (std::size_t alignment = 1; alignment <= 4096; alignment *= 2) {
    void* const block = ksomd_mm_malloc(100, alignment);
    std::uintptr_t raw = 0;
    std::memcpy(&raw, static_cast<char*>(block) - 8, 8);
    const std::uintptr_t distance = reinterpret_cast<std::uintptr_t>(block) - raw;
    EXPECT_GE(distance, 8u) << alignment;
    EXPECT_LT(distance, 8 + std::max<std::size_t>(alignment, 8)) << alignment;
    ksomd_mm_free(block);
  }
}

// From 2^64 - 1 down to sizes with which size + 8 + alignment fits, and still no heap has as much.
TEST(AlignedAllocation, ImpossibleSizesGiveNull) {
  for (std::size_t alignment = 1; alignment != 0; alignment *= 2) {
    const std::size_t largest = SIZE_MAX - 8 - alignment;
    for (std::size_t distance = 0; distance < 40; ++distance) {
      EXPECT_EQ(ksomd_mm_malloc(SIZE_MAX - distance, alignment), nullptr)
          << distance << " at " << alignment;
      EXPECT_EQ(ksomd_mm_malloc(largest - distance, alignment), nullptr)
          << distance << " at " << alignment;
      EXPECT_EQ(ksomd_mm_malloc(largest + std::min(distance, 8 + alignment), alignment), nullptr)
          << distance << " at " << alignment;
    }
  }
  EXPECT_EQ(ksomd_mm_malloc(0, std::size_t{1} << 63), nullptr);
}

}  // namespace
