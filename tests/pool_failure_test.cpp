// What the pools do when the heap refuses a request, every one in turn.
#include <gtest/gtest.h>

#include <algorithm>

#include "pool_support.h"

namespace {

using ksomd::pool::Kind;
using ksomd::test::all_bytes;
using ksomd::test::broken;
using ksomd::test::TestHeap;

using World = ksomd::test::SmallRegions<3>;

// A run of a program that makes every kind of heap request: a region for either kind, heap blocks,
// moves to the heap and within it.
class Script {
 public:
  Script() {
    TestHeap::reset();
    allocator_.set_sizes({40, 100});
    allocator_.set_sizes({40}, Kind::Calloc);
  }

  // Returns how many of the requests were refused; the whole program runs in any case.
  int run() {
    for (const std::size_t size : {40u, 100u, 40u, 40u, 40u, 7u, 100u}) {
      keep(allocator_.allocate(size), size, 0x11);
    }
    for (const std::size_t count : {10u, 10u, 10u, 10u, 3u}) {
      void* const block = allocator_.allocate_zeroed(count, 4);
      EXPECT_TRUE(block == nullptr || all_bytes(block, 4 * count, 0));
      keep(block, 4 * count, 0x22);
    }
    const std::size_t held = blocks_.size();
    for (std::size_t i = 0; i < held; ++i) {
      resize(i, i % 2 == 0 ? 500 : 100);
    }
    resize_nothing();
    return refused_;
  }

  // Everything that the program holds has kept its contents; after that it holds nothing.
  void free_all() {
    for (const Block& block : blocks_) {
      EXPECT_TRUE(all_bytes(block.address, block.size, block.value));
      allocator_.release(block.address);
    }
    blocks_.clear();
    refused_ = 0;
  }

  const ksomd::test::TestAllocator<World>& allocator() const { return allocator_; }

 private:
  struct Block {
    void* address;
    std::size_t size;
    int value;
  };

  // A request gives null if and only if it is the one that the heap refused.
  void check(const void* block) {
    const bool refused = TestHeap::refuse_at != 0 && TestHeap::requests >= TestHeap::refuse_at;
    if (refused) {
      TestHeap::refuse_at = 0;
      ++refused_;
    }
    EXPECT_EQ(block == nullptr, refused);
    EXPECT_EQ(broken(allocator_), "");
  }

  void keep(void* block, std::size_t size, int value) {
    check(block);
    if (block != nullptr) {
      std::memset(block, value, size);
      blocks_.push_back({block, size, value});
    }
  }

  void resize(std::size_t index, std::size_t size) {
    Block& block = blocks_[index];
    void* const moved = allocator_.resize(block.address, size);
    check(moved);
    if (moved != nullptr) {
      EXPECT_TRUE(all_bytes(moved, std::min(size, block.size), block.value));
      std::memset(moved, block.value, size);
      block = {moved, size, block.value};
    }
  }

  void resize_nothing() { keep(allocator_.resize(nullptr, 40), 40, 0x33); }

  ksomd::test::TestAllocator<World> allocator_;
  std::vector<Block> blocks_;
  int refused_ = 0;
};

TEST(PoolFailure, EachHeapRequestInTurn) {
  std::int64_t requests = 0;
  {
    Script script;
    EXPECT_EQ(script.run(), 0);
    script.free_all();
    requests = TestHeap::requests;
  }
  ASSERT_GT(requests, 15);
  for (std::int64_t refused = 1; refused <= requests; ++refused) {
    SCOPED_TRACE(refused);
    Script script;
    TestHeap::refuse_at = refused;
    EXPECT_EQ(script.run(), 1);
    script.free_all();
    EXPECT_EQ(broken(script.allocator()), "");
    // Nothing is lost: only regions are still out, and the whole program runs again.
    EXPECT_EQ(TestHeap::outstanding, script.allocator().pool_count());
    EXPECT_EQ(script.run(), 0);
    script.free_all();
    EXPECT_EQ(TestHeap::outstanding, script.allocator().pool_count());
  }
}

// A refused region leaves no trace, however often: the 50 descriptors remain for later requests.
TEST(PoolFailure, RefusedRegionsTakeNoDescriptor) {
  TestHeap::reset();
  ksomd::test::TestAllocator<World> allocator;
  std::vector<std::size_t> sizes;
  for (std::size_t size = 8; size <= 400; size += 8) {
    sizes.push_back(size);
  }
  allocator.set_sizes(sizes);
  for (const std::size_t size : sizes) {
    TestHeap::refuse_at = TestHeap::requests + 1;
    EXPECT_EQ(allocator.allocate(size), nullptr);
    EXPECT_EQ(allocator.newest_pool(), nullptr);
  }
  TestHeap::refuse_at = 0;
  int pools = 0;
  for (const std::size_t size : sizes) {
    const void* const block = allocator.allocate(size);
    EXPECT_EQ(block, allocator.newest_pool()->base);
    EXPECT_EQ(allocator.pool_count(), ++pools);
  }
  EXPECT_EQ(broken(allocator), "");
}

}  // namespace
