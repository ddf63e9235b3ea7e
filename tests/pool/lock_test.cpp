// The exported lock.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "ksomd/pool.h"
#include "support/effort.h"
#include "support/entry.h"
#ifndef _WIN32
#include "support/single_step.h"
#endif

namespace ksomd::test {
namespace {

const auto fast_lock = entry<decltype(__fast_lock)>("__fast_lock");
const auto fast_unlock = entry<decltype(__fast_unlock)>("__fast_unlock");

TEST(FastLock, OneAtATimeInsideAndEachInItsTurn) {
  constexpr int turns = sanitized ? 20'000 : 100'000;
  int words[] = {-1, 1, -1}, total = 0, inside = 0, intruders = 0;
  std::atomic<bool> entered = false;
  std::vector<std::thread> workers;
  for (int i = 0; i < 4; ++i) {
    workers.emplace_back([&] {
      for (int turn = 0; turn < turns; ++turn) {
        fast_lock(&words[1]);
        entered = true;
        intruders += inside++ != 0 || __atomic_load_n(&words[1], __ATOMIC_RELAXED) != 1;
        ++total;
        --inside;
        fast_unlock(&words[1]);
      }
    });
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(entered) << "the lock is held";
  fast_unlock(&words[1]);
  for (std::thread& worker : workers) {
    worker.join();
  }
  EXPECT_TRUE(total == 4 * turns && intruders == 0) << total << ' ' << intruders;
  EXPECT_TRUE(words[0] == -1 && words[1] == 0 && words[2] == -1);
}

#ifndef _WIN32
// Callers count on it: their earlier stores are visible before any of their later loads. Of all
// instructions only an exchange with memory, a locked one and a fence order a store and a later
// load.
TEST(FastLock, UnlockIsAFullBarrier) {
  if (!can_single_step()) {
    GTEST_SKIP() << "this processor or emulator does not single-step";
  }
  static int lock = 1;
  bool barrier = false;
  single_step([](void*) { fast_unlock(&lock); },
              [](const std::uint8_t* next, void* found) {
                const std::uint8_t* const opcode = (*next & 0xF0) == 0x40 ? next + 1 : next;
                const bool exchange = *opcode == 0x87 && opcode[1] >> 6 != 3;
                const bool fence = next[0] == 0x0F && next[1] == 0xAE && next[2] == 0xF0;
                *static_cast<bool*>(found) |= exchange || fence || *next == 0xF0;
              },
              &barrier);
  EXPECT_TRUE(barrier && lock == 0);
}
#endif

}  // namespace
}  // namespace ksomd::test
