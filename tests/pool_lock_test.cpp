// The exported lock.
#include <gtest/gtest.h>

#include "ksomd/pool.h"
#include "pool_support.h"

namespace {

using ksomd::test::in_threads;

TEST(FastLock, StatesOfTheWord) {
  int words[3] = {-1, 0, -1};
  __fast_lock(&words[1]);
  EXPECT_EQ(words[1], 1);
  __fast_unlock(&words[1]);
  EXPECT_EQ(words[1], 0);
  __fast_unlock(&words[1]);
  EXPECT_EQ(words[1], 0);
  EXPECT_EQ(words[0], -1);
  EXPECT_EQ(words[2], -1);
}

// Twice as many threads as cores: only one at a time is inside, each gets its turns, and what one
// wrote the next one sees.
TEST(FastLock, MutualExclusionAndProgress) {
  const int threads = 2 * static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
  constexpr int turns = ksomd::test::sanitized ? 20000 : 200000;
  int lock = 0;
  std::int64_t total = 0;
  int inside = 0;
  std::int64_t intruders = 0;
  in_threads(threads, [&](int) {
    for (int turn = 0; turn < turns; ++turn) {
      __fast_lock(&lock);
      intruders += inside++ != 0;
      ++total;
      --inside;
      __fast_unlock(&lock);
    }
  });
  EXPECT_EQ(total, std::int64_t{turns} * threads);
  EXPECT_EQ(intruders, 0);
  EXPECT_EQ(lock, 0);
}

// Waiting ends only when the word reads 0, and the waiter then holds the lock.
TEST(FastLock, WaitsForTheHolder) {
  int lock = 0;
  std::atomic<bool> entered = false;
  __fast_lock(&lock);
  std::thread waiter([&] {
    __fast_lock(&lock);
    entered = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(entered);
  EXPECT_EQ(__atomic_load_n(&lock, __ATOMIC_RELAXED), 1);
  __fast_unlock(&lock);
  waiter.join();
  EXPECT_TRUE(entered);
  EXPECT_EQ(lock, 1);
}

// Store buffering: each of two threads stores its own word, unlocks a lock of its own, and loads
// the other's word. With a full barrier in between, at least one of them sees the other's store.
TEST(FastLock, UnlockIsAFullBarrier) {
  if (std::thread::hardware_concurrency() < 2) {
    GTEST_SKIP() << "stores are only buffered against another core";
  }
  // NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): a cache line for each
  struct alignas(64) Side {
    std::atomic<int> stored = 0;
    alignas(64) int lock = 0;
    alignas(64) int seen = 0;
    alignas(64) std::atomic<int> round = 0;
  };
  constexpr int rounds = ksomd::test::sanitized ? 100000 : 1000000;
  Side sides[2];
  std::int64_t missed = 0;
  const auto meet = [&](int self, int step) {
    sides[self].round.store(step, std::memory_order_release);
    for (int spins = 0; sides[1 - self].round.load(std::memory_order_acquire) < step; ++spins) {
      if (spins > 2000) {
        std::this_thread::yield();
      }
    }
  };
  in_threads(2, [&](int self) {
    Side& mine = sides[self];
    Side& other = sides[1 - self];
    for (int round = 1; round <= rounds; ++round) {
      meet(self, 2 * round);
      mine.stored.store(round, std::memory_order_relaxed);
      __fast_unlock(&mine.lock);
      mine.seen = other.stored.load(std::memory_order_relaxed);
      meet(self, 2 * round + 1);
      if (self == 0) {
        missed += mine.seen < round && other.seen < round;
      }
    }
  });
  EXPECT_EQ(missed, 0);
}

}  // namespace
