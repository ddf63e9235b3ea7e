// The exported lock.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "ksomd/pool.h"
#include "support/entry.h"
#include "support/sweep.h"

namespace ksomd::test {
namespace {

const auto fast_lock = entry<decltype(__fast_lock)>("__fast_lock");
const auto fast_unlock = entry<decltype(__fast_unlock)>("__fast_unlock");

template <class Body>
void in_threads(int count, Body body) {
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i) {
    threads.emplace_back([&body, i] { body(i); });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

TEST(FastLock, OneAtATimeInsideAndEachInItsTurn) {
  constexpr int threads = 4, turns = sanitized ? 20'000 : 100'000;
  int words[3] = {-1, 1, -1};
  int total = 0, inside = 0, intruders = 0;
  std::atomic<bool> entered = false;
  std::thread holder([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    intruders += entered;
    fast_unlock(&words[1]);
  });
  in_threads(threads, [&](int) {
    for (int turn = 0; turn < turns; ++turn) {
      fast_lock(&words[1]);
      entered = true;
      intruders += inside++ != 0 || __atomic_load_n(&words[1], __ATOMIC_RELAXED) != 1;
      ++total;
      --inside;
      fast_unlock(&words[1]);
    }
  });
  holder.join();
  EXPECT_EQ(total, turns * threads);
  EXPECT_EQ(intruders, 0);
  EXPECT_TRUE(words[0] == -1 && words[1] == 0 && words[2] == -1);
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
    alignas(64) std::atomic<int> step = 0;
  } sides[2];
  int missed = 0;
  in_threads(2, [&](int self) {
    Side& mine = sides[self];
    Side& other = sides[1 - self];
    const auto meet = [&](int step) {
      mine.step.store(step, std::memory_order_release);
      for (int spins = 0; other.step.load(std::memory_order_acquire) < step; ++spins) {
        if (spins > 2000) {
          std::this_thread::yield();
        }
      }
    };
    for (int round = 1; round <= (sanitized ? 50'000 : 100'000); ++round) {
      meet(2 * round);
      mine.stored.store(round, std::memory_order_relaxed);
      fast_unlock(&mine.lock);
      mine.seen = other.stored.load(std::memory_order_relaxed);
      meet(2 * round + 1);
      missed += self == 0 && mine.seen < round && other.seen < round;
    }
  });
  EXPECT_EQ(missed, 0);
}

}  // namespace
}  // namespace ksomd::test
