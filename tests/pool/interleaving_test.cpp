// Every interleaving of a few operations, up to a number of preemptions: before each access to
// shared memory any thread may be the next to run. The threads are coroutines of this one, so a
// schedule can be repeated, and the next one be tried, a hundred thousand times a second.
#include <gtest/gtest.h>
#include <ucontext.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <thread>

#include "pool/allocator.h"
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
    position_ = 0;
    ready_.clear();
    for (std::size_t i = 0; i < bodies.size(); ++i) {
      Strand& strand = strands_[i];
      strand.body = &bodies[i];
      getcontext(&strand.context);
      strand.context.uc_stack.ss_sp = strand.stack.data();
      strand.context.uc_stack.ss_size = strand.stack.size();
      strand.context.uc_link = &home_;
      makecontext(&strand.context, [] { (*active->running_->body)(); }, 0);
      ready_.push_back(&strand);
    }
    active = this;
    next_ = choose(ready_.size());
    for (waits_ = 0; !ready_.empty() && waits_ < 1000;) {
      running_ = ready_[next_];
      ready_.erase(ready_.begin() + static_cast<std::ptrdiff_t>(next_));
      done_ = true;
      swapcontext(&home_, &running_->context);
      if (!done_) {
        ready_.push_back(running_);
      } else if (!ready_.empty()) {
        next_ = choose(ready_.size());
      }
    }
    active = nullptr;
    return ready_.empty();
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
    if (const std::size_t n = preemptions_left_ > 0 ? choose(ready_.size() + 1) : 0; n > 0) {
      --preemptions_left_;
      hand_over(n - 1);
    }
  }

  // The running body cannot go on until another one has run: the one that has waited longest.
  void wait() {
    ++waits_;
    hand_over(0);
  }

 private:
  struct Strand {
    ucontext_t context{};
    std::vector<char> stack = std::vector<char>(std::size_t{64} * 1024);
    const std::function<void()>* body = nullptr;
  };
  struct Decision {
    std::size_t chosen, options;
  };

  std::size_t choose(std::size_t options) {
    if (position_ == path_.size()) {
      path_.push_back({0, options});
    }
    return path_[position_++].chosen;
  }
  void hand_over(std::size_t n) {
    next_ = n;
    done_ = false;
    swapcontext(&running_->context, &home_);
  }

  std::vector<Decision> path_;
  std::size_t position_ = 0, next_ = 0;
  int preemptions_left_ = 0, waits_ = 0;
  bool done_ = false;
  Strand strands_[3];
  std::vector<Strand*> ready_;  // all that can run but the running one
  Strand* running_ = nullptr;
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

// What threads do: t takes a block, T one of another size and always of malloc's kind, a digit
// frees the block of that number. A thread counts the blocks taken before it starts, then its own.
struct Scenario {
  int preemptions, most_pools;
  std::size_t pools_before;
  const char* before = "";
  std::vector<const char*> threads;
};

class Stage {
 public:
  Stage(const Scenario& scenario, Kind kind) {
    World::used = 0;
    for (std::size_t i = 1; i <= scenario.pools_before; ++i) {
      set_sizes({size + i, 0}, Kind::Malloc);
      take(size + i, Kind::Malloc);
    }
    set_sizes({size, 2 * size, 0}, Kind::Malloc);
    set_sizes({size, 0}, Kind::Calloc);
    std::vector<void*> blocks;
    act(scenario.before, kind, blocks);
    for (const char* const script : scenario.threads) {
      bodies.emplace_back([=, this]() mutable { act(script, kind, blocks); });
    }
  }

  // With no call in progress: "" if everything is as it must be.
  std::string_view verdict(int most_pools) const {
    std::int64_t out = 0, pooled = 0;
    int pools = 0;
    for (const __i_pool_desc* p = allocator.newest_pool(); p != nullptr; p = p->next, ++pools) {
      out += p->next_index - std::int64_t{p->freed};
      pooled += std::count_if(held_.begin(), held_.end(), [p](const void* block) {
        return p->base != nullptr && p->base <= block && block <= p->last;
      });
    }
    const char* const broken = allocator.broken_invariant();
    return fault_ != nullptr    ? fault_
           : out != pooled      ? "blocks held = next_index - freed"
           : pools > most_pools ? "a pool too many"
           : broken != nullptr  ? broken
                                : "";
  }

  pool::Allocator<World> allocator{};
  Conductor::Bodies bodies;

 private:
  void set_sizes(std::initializer_list<std::size_t> sizes, Kind kind) {
    allocator.set_sizes(sizes.begin(), kind);
  }
  void* take(std::size_t bytes, Kind kind) {
    void* const block =
        kind == Kind::Malloc ? allocator.allocate(bytes) : allocator.allocate_zeroed(1, bytes);
    fault_ = !held_.insert(block).second                           ? "block handed out twice"
             : kind == Kind::Calloc && !all_bytes(block, bytes, 0) ? "block not zero"
                                                                   : fault_;
    return std::memset(block, 0x77, bytes);
  }
  void act(const char* script, Kind kind, std::vector<void*>& blocks) {
    for (; *script != 0; ++script) {
      if (*script == 't' || *script == 'T') {
        blocks.push_back(*script == 't' ? take(size, kind) : take(2 * size, Kind::Malloc));
      } else {
        void* const block = blocks[static_cast<std::size_t>(*script - '0')];
        fault_ = all_bytes(block, size, 0x77) ? fault_ : "contents lost";
        held_.erase(block);
        allocator.release(block);
      }
    }
  }

  const char* fault_ = nullptr;
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
  for (const Kind kind : {Kind::Malloc, Kind::Calloc}) {
    for (const Scenario& scenario : scenarios) {
      Conductor conductor;
      int count = 0;
      do {
        Stage stage(scenario, kind);
        const int preemptions = scenario.preemptions + (full_length() ? 1 : 0);
        ASSERT_EQ(conductor.run(preemptions, stage.bodies) ? stage.verdict(scenario.most_pools)
                                                           : "they wait for each other",
                  "")
            << "row " << &scenario - scenarios << ", kind " << static_cast<int>(kind)
            << ", schedule " << count;
        ++count;
      } while (conductor.advance());
    }
  }
}

// For the thread sanitizer, and for what a processor does to the order of accesses.
TEST(PoolThreads, BlocksKeepTheirContents) {
  Stage stage({}, Kind::Malloc);
  std::vector<std::thread> threads;
  std::atomic<int> lost = 0;
  for (unsigned char thread = 1; thread <= 6; ++thread) {
    threads.emplace_back([&, thread] {
      Random random(seed_of(thread));
      void* blocks[8] = {};
      for (int i = 0; i < (sanitized ? 10'000 : 100'000); ++i) {
        void*& block = blocks[random.below(8)];
        if (block == nullptr) {
          block = random.one_in(2) ? stage.allocator.allocate(size)
                                   : stage.allocator.allocate_zeroed(1, size);
          std::memset(block, thread, size);
        } else {
          lost += !all_bytes(block, size, thread);
          stage.allocator.release(std::exchange(block, nullptr));
        }
      }
      std::ranges::for_each(blocks, [&](void* block) { stage.allocator.release(block); });
    });
  }
  std::ranges::for_each(threads, [](std::thread& thread) { thread.join(); });
  EXPECT_EQ(lost, 0);
  EXPECT_EQ(stage.verdict(50), "");
}

}  // namespace
}  // namespace ksomd::test
