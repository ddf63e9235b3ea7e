// Every interleaving of a few operations, up to a number of preemptions: before each access to
// shared memory any thread may be the next to run. The threads are coroutines of this one, so a
// schedule can be repeated, and the next one be tried, a hundred thousand times a second.
#include <gtest/gtest.h>
#include <ucontext.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <numeric>
#include <thread>

#include "ksomd/pool.h"
#include "pool/allocator.h"
#include "support/entry.h"
#include "support/single_step.h"
#include "support/sweep.h"

namespace ksomd::test {
namespace {

using pool::Kind;

// Runs bodies by turns. The decisions of one run are replayed in the next as far as they are known,
// the last of them excepted; a switch that the running body did not ask for is a preemption.
class Conductor {
 public:
  using Bodies = std::vector<std::function<void()>>;
  static inline Conductor* active;

  // False if the bodies came to wait for each other.
  bool run(int preemptions, const Bodies& bodies) {
    preemptions_left_ = preemptions;
    waits_left_ = 1000;
    position_ = 0;
    ready_.clear();
    for (const auto& body : bodies) {
      Strand& strand = strands_[ready_.size()];
      strand.body = &body;
      getcontext(&strand.context);
      strand.context.uc_stack.ss_sp = strand.stack;
      strand.context.uc_stack.ss_size = sizeof strand.stack;
      strand.context.uc_link = &home_;
      makecontext(&strand.context, [] { (*active->ready_[0]->body)(); }, 0);
      ready_.push_back(&strand);
    }
    active = this;
    for (; !ready_.empty() && waits_left_ > 0; ready_.erase(ready_.begin())) {
      std::swap(ready_[0], ready_[choose()]);
      swapcontext(&home_, &ready_[0]->context);
    }
    active = nullptr;
    return waits_left_ > 0;
  }

  // Goes on to the next schedule in depth-first order; false after the last one.
  bool advance() {
    while (!path_.empty() && ++path_.back().chosen == path_.back().options) {
      path_.pop_back();
    }
    return !path_.empty();
  }

  // Before an access to shared memory.
  void step() {
    if (const std::size_t next = preemptions_left_ > 0 ? choose() : 0; next > 0) {
      --preemptions_left_;
      hand_over(next);
    }
  }

  // The running body cannot go on until another one has run.
  void wait() { --waits_left_ > 0 ? hand_over(1) : static_cast<void>(setcontext(&home_)); }

 private:
  struct Strand {
    ucontext_t context;
    char stack[64 * 1024];
    const std::function<void()>* body;
  };
  struct Decision {
    std::size_t chosen, options;
  };

  std::size_t choose() {
    if (position_ == path_.size()) {
      path_.push_back({0, ready_.size()});
    }
    return path_[position_++].chosen;
  }
  void hand_over(std::size_t next) {
    Strand* const running = ready_[0];
    std::ranges::rotate(ready_, ready_.begin() + static_cast<std::ptrdiff_t>(next));
    swapcontext(&running->context, &ready_[0]->context);
  }

  std::vector<Decision> path_;
  std::size_t position_ = 0;
  int preemptions_left_ = 0, waits_left_ = 0;
  Strand strands_[3] = {};
  std::vector<Strand*> ready_;  // the first one runs
  ucontext_t home_{};
};

constexpr std::size_t size = 40;

// A world in which every access is a place to switch, and every run finds the same addresses.
struct World {
  static inline std::byte memory[1 << 16];
  static inline std::atomic<std::size_t> used;

  static void* allocate(std::size_t bytes) {
    return std::memset(memory + used.fetch_add((bytes + 15) / 16 * 16), 0xEE, bytes);
  }
  static void* allocate_zeroed(std::size_t count, std::size_t bytes) {
    return std::memset(allocate(count * bytes), 0, count * bytes);
  }
  static void release(void*) {}
  static std::int32_t capacity(std::uint64_t) { return 2; }
  static void step() {
    if (Conductor::active != nullptr) {
      Conductor::active->step();
    }
  }
  static void wait() {
    Conductor::active != nullptr ? Conductor::active->wait() : std::this_thread::yield();
  }
};

bool all_bytes(const void* block, std::size_t bytes, unsigned char value) {
  const auto* const first = static_cast<const unsigned char*>(block);
  return first[0] == value && std::memcmp(first, first + 1, bytes - 1) == 0;
}

// What threads do: t takes a zeroed block, T any block of another size, a digit frees the block of
// that number. A thread counts the blocks taken before it starts, then its own.
struct Scenario {
  int preemptions;
  std::size_t most_pools, pools_before;
  const char* before = "";
  std::vector<const char*> threads;
};

class Stage {
 public:
  explicit Stage(const Scenario& scenario) {
    World::used = 0;
    std::size_t sizes[51] = {};
    std::iota(sizes, sizes + 50, size);
    allocator.set_sizes(sizes, Kind::Malloc);
    allocator.set_sizes(sizes, Kind::Calloc);
    for (std::size_t i = 1; i <= scenario.pools_before; ++i) {
      take(size + i);
    }
    std::vector<void*> blocks;
    act(scenario.before, blocks);
    for (const char* const script : scenario.threads) {
      bodies.emplace_back([=, this]() mutable { act(script, blocks); });
    }
  }

  // With no call in progress.
  void check(std::size_t most_pools) const {
    std::size_t out = 0, pools = 0;
    for (const auto* pool = allocator.newest_pool(); pool != nullptr; pool = pool->next, ++pools) {
      out += static_cast<std::uint32_t>(pool->next_index) - pool->freed;
    }
    EXPECT_EQ(out, held_.size()) << "blocks held = next_index - freed";
    EXPECT_LE(pools, most_pools);
    EXPECT_STREQ(allocator.broken_invariant(), nullptr);
  }

  pool::Allocator<World> allocator{};
  Conductor::Bodies bodies;

 private:
  void* take(std::size_t bytes) {
    const bool zeroed = bytes == size;
    void* const block = zeroed ? allocator.allocate_zeroed(1, bytes) : allocator.allocate(bytes);
    EXPECT_TRUE(held_.insert(block).second) << "block handed out twice";
    EXPECT_TRUE(!zeroed || all_bytes(block, bytes, 0)) << "block not zero";
    return std::memset(block, 0x77, bytes);
  }
  void act(const char* script, std::vector<void*>& blocks) {
    for (; *script != 0; ++script) {
      if (*script == 't' || *script == 'T') {
        blocks.push_back(take(*script == 't' ? size : size + 1));
      } else {
        void* const block = blocks[static_cast<std::size_t>(*script - '0')];
        EXPECT_TRUE(all_bytes(block, size, 0x77)) << "contents lost";
        held_.erase(block);
        allocator.release(block);
      }
    }
  }

  std::set<const void*> held_;
};

TEST(PoolInterleaving, EveryScheduleKeepsTheInvariants) {
  if (sanitized) {
    GTEST_SKIP() << "the sanitizers lose track of coroutines";
  }
  const Scenario scenarios[] = {
      {4, 1, 0, "", {"t", "t"}},       // two creations of one size
      {4, 2, 0, "", {"t", "T"}},       // creations of two sizes
      {2, 2, 0, "", {"t", "t", "t"}},  // three threads, two pools
      {4, 50, 49, "", {"t", "t"}},     // the one who is late finds the last pool that there can be
      {4, 1, 0, "tt01", {"t", "t"}},   // two reactivations
      {4, 2, 0, "tt0", {"1", "tt2"}},  // last free against two allocations in one thread
      {2, 2, 0, "tt0", {"1", "t2", "t2"}},  // and in two threads
      {2, 2, 0, "tt", {"0", "1", "tt"}},    // last two frees against allocations
      {3, 3, 0, "", {"tt01tt23", "t0"}},    // two lives of a region within a call
  };
  for (const Scenario& scenario : scenarios) {
    Conductor conductor;
    int count = 0;
    do {
      Stage stage(scenario);
      const bool ended = conductor.run(scenario.preemptions + full_length(), stage.bodies);
      stage.check(scenario.most_pools);
      ASSERT_TRUE(ended && !HasFailure())
          << "row " << &scenario - scenarios << ", schedule " << count;
      ++count;
    } while (conductor.advance());
  }
}

// For the thread sanitizer, and for what a processor does to the order of accesses.
TEST(PoolThreads, BlocksKeepTheirContentsAndTheLockLetsOneIn) {
  const auto fast_lock = entry<decltype(__fast_lock)>("__fast_lock");
  const auto fast_unlock = entry<decltype(__fast_unlock)>("__fast_unlock");
  constexpr int turns = sanitized ? 10'000 : 100'000;
  Stage stage({});
  std::vector<std::thread> threads;
  std::atomic<int> lost = 0;
  int words[] = {-1, 0, -1}, entered = 0, intruders = 0;
  for (unsigned char thread = 1; thread <= 6; ++thread) {
    threads.emplace_back([&, thread] {
      Random random(seed_of(thread));
      void* blocks[8] = {};
      for (int i = 0; i < turns; ++i) {
        void*& block = blocks[random.below(8)];
        if (block == nullptr) {
          block = random.one_in(2) ? stage.allocator.allocate(size)
                                   : stage.allocator.allocate_zeroed(1, size);
          std::memset(block, thread, size);
        } else {
          lost += !all_bytes(block, size, thread);
          stage.allocator.release(std::exchange(block, nullptr));
        }
        fast_lock(&words[1]);
        intruders += __atomic_load_n(&words[1], __ATOMIC_RELAXED) != 1;
        ++entered;
        fast_unlock(&words[1]);
      }
      std::ranges::for_each(blocks, [&](void* block) { stage.allocator.release(block); });
    });
  }
  std::ranges::for_each(threads, &std::thread::join);
  stage.check(50);
  EXPECT_TRUE(lost == 0 && entered == 6 * turns && intruders == 0)
      << lost << " blocks lost, " << entered << " turns inside, " << intruders << " intruders";
  EXPECT_TRUE(words[0] == -1 && words[1] == 0 && words[2] == -1);
}

// Callers count on it: their earlier stores are visible before any of their later loads. An
// exchange with memory orders them, and so does any instruction with a lock prefix.
TEST(FastLock, UnlockIsAFullBarrier) {
  if (!can_single_step()) {
    GTEST_SKIP() << "this processor or emulator does not single-step";
  }
  static int lock = 1;
  bool barrier = false;
  single_step([](void*) { __fast_unlock(&lock); },
              [](const std::uint8_t* next, void* found) {
                const std::uint8_t* const opcode = (*next & 0xF0) == 0x40 ? next + 1 : next;
                const bool exchange = *opcode == 0x87 && opcode[1] >> 6 != 3;
                *static_cast<bool*>(found) |= exchange || *next == 0xF0;
              },
              &barrier);
  EXPECT_TRUE(barrier && lock == 0);
}

}  // namespace
}  // namespace ksomd::test
