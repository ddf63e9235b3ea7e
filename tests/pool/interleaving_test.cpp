// Every interleaving of a few operations, up to a number of preemptions: before each access to
// shared memory any thread may be the next to run. The threads are coroutines of this one, so a
// schedule can be repeated, and the next one be tried, a hundred thousand times a second.
#include <gtest/gtest.h>
#include <ucontext.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <functional>
#include <set>
#include <thread>
#include <vector>

#include "pool/allocator.h"
#include "support/sweep.h"

namespace ksomd::test {
namespace {

using pool::Kind;
using Bodies = std::vector<std::function<void()>>;

// The decisions of one run: replayed as far as they are known, the first choice from there on.
class Schedule {
 public:
  int choose(int options) {
    if (position_ == path_.size()) {
      path_.push_back({0, options});
    }
    return path_[position_++].chosen;
  }
  // Goes on to the next schedule in depth-first order; false after the last one.
  bool advance() {
    position_ = 0;
    while (!path_.empty() && ++path_.back().chosen == path_.back().options) {
      path_.pop_back();
    }
    return !path_.empty();
  }

 private:
  struct Decision {
    int chosen, options;
  };
  std::vector<Decision> path_;
  std::size_t position_ = 0;
};

// Runs bodies by turns, as a schedule says. A switch that the running body did not ask for is a
// preemption.
class Conductor {
 public:
  // False if the bodies came to wait for each other.
  bool run(Schedule& schedule, int preemptions, const Bodies& bodies) {
    schedule_ = &schedule;
    preemptions_left_ = preemptions;
    ready_.clear();
    waits_ = 0;
    stuck_ = false;
    for (std::size_t i = 0; i < bodies.size(); ++i) {
      Strand& strand = strands_[i];
      strand.body = &bodies[i];
      getcontext(&strand.context);
      strand.context.uc_stack.ss_sp = strand.stack.data();
      strand.context.uc_stack.ss_size = strand.stack.size();
      strand.context.uc_link = nullptr;
      makecontext(&strand.context, [] { active->start(); }, 0);
      ready_.push_back(&strand);
    }
    active = this;
    pick(schedule.choose(static_cast<int>(ready_.size())));
    swapcontext(&home_, &running_->context);
    active = nullptr;
    return !stuck_;
  }

  // Before an access to shared memory.
  void step() {
    if (preemptions_left_ > 0) {
      if (const int choice = schedule_->choose(static_cast<int>(ready_.size()) + 1); choice > 0) {
        --preemptions_left_;
        hand_over(choice - 1);
      }
    }
  }

  // The running body cannot go on until another one has run: the one that has waited longest.
  void wait() {
    stuck_ = ready_.empty() || ++waits_ > 1000;
    if (stuck_) {
      setcontext(&home_);
    }
    hand_over(0);
  }

  static inline Conductor* active;

 private:
  struct Strand {
    ucontext_t context{};
    std::vector<char> stack = std::vector<char>(std::size_t{64} * 1024);
    const std::function<void()>* body = nullptr;
  };

  void start() {
    (*running_->body)();
    if (ready_.empty()) {
      setcontext(&home_);
    }
    pick(schedule_->choose(static_cast<int>(ready_.size())));
    setcontext(&running_->context);
  }
  void pick(int n) {
    running_ = ready_[static_cast<std::size_t>(n)];
    ready_.erase(ready_.begin() + n);
  }
  void hand_over(int n) {
    Strand* const from = running_;
    pick(n);
    ready_.push_back(from);
    swapcontext(&from->context, &running_->context);
  }

  Schedule* schedule_ = nullptr;
  int preemptions_left_ = 0, waits_ = 0;
  bool stuck_ = false;
  std::array<Strand, 3> strands_;
  std::vector<Strand*> ready_;  // all that can run but the running one
  Strand* running_ = nullptr;
  ucontext_t home_{};
};

constexpr std::int32_t region_blocks = 2;
constexpr std::size_t size = 40;

// A world in which every access is a place to switch, and every run finds the same addresses. It
// refuses the request that it is told to refuse.
struct World {
  static inline std::array<std::byte, 1 << 16> memory;
  static inline std::atomic<std::size_t> used;
  static inline int requests, refuse_at;

  static void* allocate(std::size_t bytes) {
    if (++requests == refuse_at) {
      return nullptr;
    }
    return std::memset(memory.data() + used.fetch_add((bytes + 15) / 16 * 16), 0xEE, bytes);
  }
  static void* allocate_zeroed(std::size_t count, std::size_t bytes) {
    void* const block = allocate(count * bytes);
    return block != nullptr ? std::memset(block, 0, count * bytes) : nullptr;
  }
  static void* resize(void* block, std::size_t bytes) {
    void* const moved = allocate(bytes);
    return moved != nullptr && block != nullptr ? std::memcpy(moved, block, size) : moved;
  }
  static void release(void*) {}
  static std::int32_t capacity(std::uint64_t) { return region_blocks; }
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

// An allocator, what its users do and what is to be said about it.
class Stage {
 public:
  Stage() {
    World::used = 0;
    World::requests = 0;
    set_sizes({size, 2 * size}, Kind::Malloc);
    set_sizes({size}, Kind::Calloc);
  }
  void set_sizes(std::vector<std::size_t> sizes, Kind kind) {
    sizes.push_back(0);
    allocator.set_sizes(sizes.data(), kind);
  }

  void* take(Kind kind, std::size_t bytes = size) {
    void* const block =
        kind == Kind::Malloc ? allocator.allocate(bytes) : allocator.allocate_zeroed(1, bytes);
    return block != nullptr ? keep(block, bytes, kind == Kind::Calloc) : nullptr;
  }
  // All blocks of the newest pool, which is full then.
  std::array<void*, region_blocks> fill(Kind kind) { return {take(kind), take(kind)}; }
  void give_back(void* block) {
    fault = all_bytes(block, size, 0x77) ? fault : "contents lost";
    held_.erase(block);
    allocator.release(block);
  }
  void* move(void* block, std::size_t bytes) {
    void* const moved = allocator.resize(block, bytes);
    if (block != nullptr) {
      fault = all_bytes(moved != nullptr ? moved : block, size, 0x77) ? fault : "contents lost";
      held_.erase(moved != nullptr ? block : nullptr);
    }
    return moved != nullptr ? keep(moved, bytes, false) : nullptr;
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
    return !fault.empty()       ? fault
           : out != pooled      ? "blocks held = next_index - freed"
           : pools > most_pools ? "a pool too many"
           : broken != nullptr  ? broken
                                : "";
  }

  pool::Allocator<World> allocator{};
  std::string_view fault;

 private:
  void* keep(void* block, std::size_t bytes, bool zeroed) {
    fault = !held_.insert(block).second             ? "block handed out twice"
            : zeroed && !all_bytes(block, bytes, 0) ? "block not zero"
                                                    : fault;
    return std::memset(block, 0x77, bytes);
  }
  std::set<const void*> held_;
};

// Sets the stage and gives the bodies that run against each other.
struct Scenario {
  const char* name;
  int preemptions, most_pools;
  Bodies (*set)(Stage& s, Kind kind);
};

Bodies last_free_against(Stage& s, Kind kind, Bodies others) {
  const auto blocks = s.fill(kind);
  s.give_back(blocks[0]);
  others.insert(others.begin(), [&s, blocks] { s.give_back(blocks[1]); });
  return others;
}

constexpr Scenario scenarios[] = {
    {"two creations of one size", 4, 1,
     [](Stage& s, Kind kind) { return Bodies(2, [&s, kind] { s.take(kind); }); }},
    {"creations of two sizes", 4, 2,
     [](Stage& s, Kind kind) -> Bodies {
       return {[&s, kind] { s.take(kind); }, [&s] { s.take(Kind::Malloc, 2 * size); }};
     }},
    {"three threads, two pools", 2, 2,
     [](Stage& s, Kind kind) { return Bodies(3, [&s, kind] { s.take(kind); }); }},
    // Whoever is late finds the pool that the other one has created, although no further one can
    // be.
    {"two creations with one descriptor left", 4, pool::max_pools,
     [](Stage& s, Kind kind) {
       std::vector<std::size_t> sizes;
       for (std::size_t other = 1; sizes.size() < pool::max_pools - 1; ++other) {
         sizes.push_back(other < size ? other : other + 1);
       }
       s.set_sizes(sizes, Kind::Malloc);
       for (const std::size_t other : sizes) {
         s.take(Kind::Malloc, other);
       }
       s.set_sizes({size}, Kind::Malloc);
       return Bodies(2, [&s, kind] { s.take(kind); });
     }},
    {"two reactivations", 4, 1,
     [](Stage& s, Kind kind) {
       for (void* block : s.fill(kind)) {
         s.give_back(block);
       }
       return Bodies(2, [&s, kind] { s.take(kind); });
     }},
    {"last free against two allocations in one thread", 4, 2,
     [](Stage& s, Kind kind) {
       return last_free_against(s, kind, {[&s, kind] { s.give_back(s.fill(kind)[0]); }});
     }},
    {"last free against allocations in two threads", 2, 2,
     [](Stage& s, Kind kind) {
       return last_free_against(s, kind, Bodies(2, [&s, kind] { s.give_back(s.take(kind)); }));
     }},
    {"last two frees against allocations", 2, 2,
     [](Stage& s, Kind kind) -> Bodies {
       const auto blocks = s.fill(kind);
       return {[&s, blocks] { s.give_back(blocks[0]); }, [&s, blocks] { s.give_back(blocks[1]); },
               [&s, kind] { s.fill(kind); }};
     }},
    // The region runs out, starts again and runs out within the time of one call of the other.
    {"two lives of a region within a call", 3, 3,
     [](Stage& s, Kind kind) -> Bodies {
       const auto live = [&s, kind] {
         const auto blocks = s.fill(kind);
         s.give_back(blocks[0]);
         s.give_back(blocks[1]);
       };
       return {[live] { live(), live(); }, [&s, kind] { s.give_back(s.take(kind)); }};
     }},
};

TEST(PoolInterleaving, EveryScheduleKeepsTheInvariants) {
  if (sanitized) {
    GTEST_SKIP() << "the sanitizers lose track of coroutines";
  }
  Conductor conductor;
  for (const Kind kind : {Kind::Malloc, Kind::Calloc}) {
    for (const Scenario& scenario : scenarios) {
      Schedule schedule;
      std::int64_t count = 0;
      do {
        Stage stage;
        const Bodies bodies = scenario.set(stage, kind);
        const int preemptions = scenario.preemptions + (full_length() ? 1 : 0);
        ASSERT_TRUE(conductor.run(schedule, preemptions, bodies))
            << scenario.name << ": threads wait for each other in schedule " << count;
        ASSERT_EQ(stage.verdict(scenario.most_pools), "")
            << scenario.name << ", kind " << static_cast<int>(kind) << ", schedule " << count;
        ++count;
      } while (schedule.advance());
    }
  }
}

// Each heap request of a program is refused in turn: that one call gives null, nothing is lost, no
// descriptor is taken, and later calls work.
TEST(PoolHeap, OneRefusalCostsOneCall) {
  for (int refused = 1; refused <= 8; ++refused) {
    SCOPED_TRACE(refused);
    Stage stage;
    World::refuse_at = refused;
    std::vector<void*> blocks = {stage.take(Kind::Malloc),     stage.take(Kind::Malloc),
                                 stage.take(Kind::Malloc),     stage.take(Kind::Calloc),
                                 stage.take(Kind::Malloc, 50), stage.take(Kind::Malloc, 2 * size)};
    blocks.push_back(stage.move(nullptr, size));
    for (const int moved : {0, 5}) {
      if (void* const block = blocks[static_cast<std::size_t>(moved)]; block != nullptr) {
        blocks.push_back(stage.move(block, 60));
      }
    }
    EXPECT_EQ(std::ranges::count(blocks, nullptr), 1);
    EXPECT_EQ(stage.verdict(4), "");
    EXPECT_NE(stage.take(Kind::Malloc), nullptr);
  }
  World::refuse_at = 0;
}

// For the thread sanitizer, and for what a processor does to the order of accesses.
TEST(PoolThreads, BlocksKeepTheirContents) {
  Stage stage;
  std::vector<std::thread> threads;
  std::atomic<int> lost = 0;
  for (unsigned char thread = 1; thread <= 6; ++thread) {
    threads.emplace_back([&, thread] {
      Random random(seed_of(thread));
      std::array<void*, 8> blocks{};
      for (int i = 0; i < (sanitized ? 10'000 : 100'000); ++i) {
        void*& block = blocks[random.below(blocks.size())];
        if (block != nullptr) {
          lost += !all_bytes(block, size, thread);
          stage.allocator.release(block);
          block = nullptr;
        } else {
          block = random.one_in(2) ? stage.allocator.allocate(size)
                                   : stage.allocator.allocate_zeroed(1, size);
          std::memset(block, thread, size);
        }
      }
      for (void* block : blocks) {
        stage.allocator.release(block);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(lost, 0);
  EXPECT_EQ(stage.verdict(50), "");
}

}  // namespace
}  // namespace ksomd::test
