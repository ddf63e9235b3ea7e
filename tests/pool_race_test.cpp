// Threads that meet in the narrow places of the pools, steered together by barriers, many times.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <set>

#include "pool_support.h"

namespace {

using ksomd::pool::Kind;
using ksomd::test::all_bytes;
using ksomd::test::Barrier;
using ksomd::test::broken;
using ksomd::test::Findings;
using ksomd::test::in_threads;
using ksomd::test::TestAllocator;
using ksomd::test::TestHeap;

constexpr int rounds = ksomd::test::sanitized ? 10000 : 100000;
constexpr std::size_t size = 40;

template <int Capacity>
using World = ksomd::test::SmallRegions<Capacity>;

// One thread frees the last block of the only pool, the other allocates: it either finds the region
// recycled, or comes first and creates a pool. In two rounds of eight the order is given, in the
// others it is open.
TEST(PoolRace, LastFreeAgainstAllocation) {
  Barrier barrier(2);
  std::unique_ptr<TestAllocator<World<2>>> allocator;
  Findings findings;
  std::int64_t recycled = 0;
  void* held[2] = {};
  void* got = nullptr;
  std::atomic<int> rounds_done[2] = {};
  in_threads(2, [&](int thread) {
    for (int round = 0; round < rounds; ++round) {
      if (thread == 0) {
        allocator = std::make_unique<TestAllocator<World<2>>>();
        allocator->set_sizes({size});
        held[0] = allocator->allocate(size);
        held[1] = allocator->allocate(size);
        allocator->release(held[0]);
      }
      barrier.wait();
      while (round % 8 == thread && rounds_done[1 - thread] == round) {
        std::this_thread::yield();
      }
      if (thread == 0) {
        allocator->release(held[1]);
      } else {
        got = allocator->allocate(size);
      }
      rounds_done[thread] = round + 1;
      barrier.wait();
      if (thread == 0) {
        const bool first_block = got == allocator->newest_pool()->base;
        recycled += got == held[0];
        findings.expect(first_block, round, "the first block of a region");
        findings.expect(allocator->pool_count() == (got == held[0] ? 1 : 2), round,
                        "a new pool only if there was no room");
        findings.expect(broken(*allocator).empty(), round, broken(*allocator));
      }
    }
  });
  EXPECT_EQ(findings.first(), "");
  EXPECT_GE(recycled, rounds / 8);
  EXPECT_LE(recycled, rounds - rounds / 8);
  std::printf("the free came first in %lld of %d rounds\n", static_cast<long long>(recycled),
              rounds);
}

// Two threads free the last two blocks, and one of them releases the pool, just once, although a
// third thread reactivates it as soon as it can.
TEST(PoolRace, LastTwoFreesAgainstReactivation) {
  TestAllocator<World<2>> allocator;
  allocator.set_sizes({size});
  Barrier barrier(3);
  Findings findings;
  void* held[2] = {};
  void* first = nullptr;
  in_threads(3, [&](int thread) {
    for (int round = 0; round < rounds / 4; ++round) {
      if (thread == 2) {
        held[0] = allocator.allocate(size);
        held[1] = allocator.allocate(size);
      }
      barrier.wait();
      if (thread < 2) {
        allocator.release(held[thread]);
      } else {
        first = allocator.allocate(size);
      }
      barrier.wait();
      if (thread == 2) {
        void* const second = allocator.allocate(size);
        void* const third = allocator.allocate(size);
        findings.expect(std::set<void*>{first, second, third}.size() == 3, round,
                        "block handed out twice");
        findings.expect(broken(allocator).empty(), round, broken(allocator));
        for (void* block : {first, second, third}) {
          allocator.release(block);
        }
        allocator.run_out();
      }
    }
  });
  EXPECT_EQ(findings.first(), "");
}

// Both threads find no room. One creates the pool, the other gets its second block.
TEST(PoolRace, CreationAgainstCreation) {
  Barrier barrier(2);
  std::unique_ptr<TestAllocator<World<2>>> allocator;
  Findings findings;
  void* got[2] = {};
  TestHeap::reset();
  in_threads(2, [&](int thread) {
    for (int round = 0; round < rounds; ++round) {
      if (thread == 0) {
        allocator = std::make_unique<TestAllocator<World<2>>>();
        allocator->set_sizes({size});
        allocator->set_sizes({size}, Kind::Calloc);
      }
      barrier.wait();
      got[thread] =
          round % 2 == 0 ? allocator->allocate(size) : allocator->allocate_zeroed(1, size);
      barrier.wait();
      if (thread == 0) {
        findings.expect(allocator->pool_count() == 1, round, "number of pools");
        findings.expect(broken(*allocator).empty(), round, broken(*allocator));
        const auto* const base = allocator->newest_pool()->base;
        findings.expect(
            std::set<const void*>{got[0], got[1]} == std::set<const void*>{base, base + size},
            round, "the first two blocks of one region");
      }
    }
  });
  EXPECT_EQ(findings.first(), "");
  allocator.reset();
  EXPECT_EQ(TestHeap::outstanding, 0);
}

// Creations of different sizes: neither pool gets lost.
TEST(PoolRace, CreationAgainstCreationOfAnotherSize) {
  Barrier barrier(2);
  std::unique_ptr<TestAllocator<World<2>>> allocator;
  Findings findings;
  in_threads(2, [&](int thread) {
    for (int round = 0; round < rounds / 4; ++round) {
      if (thread == 0) {
        allocator = std::make_unique<TestAllocator<World<2>>>();
        allocator->set_sizes({size, 2 * size});
      }
      barrier.wait();
      allocator->allocate(static_cast<std::size_t>(thread + 1) * size);
      barrier.wait();
      if (thread == 0) {
        findings.expect(allocator->pool_count() == 2, round, "number of pools");
        findings.expect(broken(*allocator).empty(), round, broken(*allocator));
      }
    }
  });
  EXPECT_EQ(findings.first(), "");
}

// Both threads find the pool released. It is reactivated once, its region zeroed once, and no
// second pool is made.
TEST(PoolRace, ReactivationAgainstReactivation) {
  TestAllocator<World<2>> allocator;
  allocator.set_sizes({size});
  allocator.set_sizes({size}, Kind::Calloc);
  Barrier barrier(2);
  Findings findings;
  void* got[2] = {};
  in_threads(2, [&](int thread) {
    for (int round = 0; round < rounds; ++round) {
      const bool zeroed = round % 2 == 0;
      got[thread] = zeroed ? allocator.allocate_zeroed(1, size) : allocator.allocate(size);
      if (zeroed) {
        findings.expect(all_bytes(got[thread], size, 0), round, "block not zero");
      }
      std::memset(got[thread], 0x5A + thread, size);
      barrier.wait();
      if (thread == 0) {
        findings.expect(got[0] != got[1], round, "block handed out twice");
        findings.expect(broken(allocator).empty(), round, broken(allocator));
      }
      findings.expect(all_bytes(got[thread], size, 0x5A + thread), round, "contents lost");
      barrier.wait();
      allocator.release(got[thread]);
      barrier.wait();
    }
  });
  EXPECT_EQ(findings.first(), "");
  EXPECT_EQ(allocator.pool_count(), 2);
}

}  // namespace
