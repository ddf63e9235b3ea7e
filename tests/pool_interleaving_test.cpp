// Every interleaving of a few operations, up to a number of preemptions: before each access to
// shared memory any thread may be the next to run. The threads are coroutines of this one, so a
// schedule can be repeated, and the next one be tried, a hundred thousand times a second.
#include <gtest/gtest.h>
#include <ucontext.h>

#include <array>
#include <cstdio>
#include <functional>
#include <set>

#include "pool_support.h"
#include "support/effort.h"

namespace {

using ksomd::pool::Kind;
using ksomd::test::all_bytes;
using ksomd::test::broken;

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
    int chosen;
    int options;
  };
  std::vector<Decision> path_;
  std::size_t position_ = 0;
};

// Runs bodies by turns, as a schedule says. A switch that the running body did not ask for is a
// preemption.
class Conductor {
 public:
  Conductor(Schedule& schedule, int preemptions)
      : schedule_(schedule), preemptions_left_(preemptions) {}

  // False if the bodies came to wait for each other.
  bool run(const std::vector<std::function<void()>>& bodies) {
    conductor = this;
    for (std::size_t i = 0; i < bodies.size(); ++i) {
      Strand& strand = strands_[i];
      strand.body = &bodies[i];
      strand.finished = false;
      strand.stack.resize(std::size_t{64} * 1024);
      getcontext(&strand.context);
      strand.context.uc_stack.ss_sp = strand.stack.data();
      strand.context.uc_stack.ss_size = strand.stack.size();
      strand.context.uc_link = nullptr;
      makecontext(&strand.context, start, 0);
    }
    count_ = static_cast<int>(bodies.size());
    running_ = schedule_.choose(count_);
    swapcontext(&home_, &strands_[static_cast<std::size_t>(running_)].context);
    conductor = nullptr;
    return !stuck_;
  }

  // Before an access to shared memory.
  void step() {
    if (preemptions_left_ > 0) {
      const int choice = schedule_.choose(others() + 1);
      if (choice > 0) {
        --preemptions_left_;
        hand_over(choice - 1);
      }
    }
  }

  // Nothing to do for the running body until another one has run: each in its turn, since a choice
  // among bodies that all wait would have no end.
  void wait() {
    stuck_ = others() == 0 || ++waits_ > 1000;
    if (stuck_) {
      setcontext(&home_);
    }
    int after = 0;  // how many of the others come before the running one
    for (int i = 0; i < running_; ++i) {
      after += !strands_[static_cast<std::size_t>(i)].finished;
    }
    hand_over(after % others());
  }

  static inline Conductor* conductor;

 private:
  struct Strand {
    ucontext_t context;
    std::vector<char> stack;
    const std::function<void()>* body;
    bool finished = true;
  };

  static void start() {
    Conductor& self = *conductor;
    Strand& strand = self.strands_[static_cast<std::size_t>(self.running_)];
    (*strand.body)();
    strand.finished = true;
    if (self.others() == 0) {
      setcontext(&self.home_);
    }
    self.hand_over(self.schedule_.choose(self.others()));
  }

  int others() const {
    int count = 0;
    for (int i = 0; i < count_; ++i) {
      count += i != running_ && !strands_[static_cast<std::size_t>(i)].finished;
    }
    return count;
  }

  // To the n-th of the others.
  void hand_over(int n) {
    ucontext_t& from = strands_[static_cast<std::size_t>(running_)].context;
    int next = 0;
    while (next == running_ || strands_[static_cast<std::size_t>(next)].finished || n-- > 0) {
      ++next;
    }
    running_ = next;
    swapcontext(&from, &strands_[static_cast<std::size_t>(next)].context);
  }

  Schedule& schedule_;
  int preemptions_left_;
  std::array<Strand, 3> strands_;
  ucontext_t home_{};
  int count_ = 0;
  int running_ = 0;
  int waits_ = 0;
  bool stuck_ = false;
};

constexpr std::int32_t capacity = 2;
constexpr std::size_t size = 40;

// A world in which every access is a place to switch, and every run finds the same addresses.
struct World {
  static inline std::array<std::byte, 4096> memory;
  static inline std::size_t used;

  static void* allocate(std::size_t bytes) {
    std::byte* const block = memory.data() + used;
    used += (bytes + 15) / 16 * 16;
    std::memset(block, 0xEE, bytes);
    return block;
  }
  static void* allocate_zeroed(std::size_t count, std::size_t bytes) {
    return std::memset(allocate(count * bytes), 0, count * bytes);
  }
  static void* resize(void*, std::size_t) { return nullptr; }
  static void release(void*) {}
  static std::int32_t capacity(std::uint64_t) { return ::capacity; }
  static void step() {
    if (Conductor::conductor != nullptr) {
      Conductor::conductor->step();
    }
  }
  static void wait() { Conductor::conductor->wait(); }
};

// What the bodies of a scenario do, and what is to be said about it.
class Stage {
 public:
  Stage() {
    World::used = 0;
    allocator.set_sizes({size, 2 * size});
    allocator.set_sizes({size}, Kind::Calloc);
  }

  void* take(Kind kind = Kind::Malloc, std::size_t bytes = size) {
    void* const block =
        kind == Kind::Malloc ? allocator.allocate(bytes) : allocator.allocate_zeroed(1, bytes);
    if (!held_.insert(block).second) {
      fault = "block handed out twice";
    }
    if (kind == Kind::Calloc && !all_bytes(block, bytes, 0)) {
      fault = "block not zero";
    }
    std::memset(block, 0x77, bytes);
    return block;
  }

  void give_back(void* block) {
    if (!all_bytes(block, size, 0x77)) {
      fault = "contents lost";
    }
    held_.erase(block);
    allocator.release(block);
  }

  void check(int most_pools) {
    std::size_t held = 0;
    for (const __i_pool_desc* pool = allocator.newest_pool(); pool != nullptr; pool = pool->next) {
      held += static_cast<std::size_t>(pool->next_index) - pool->freed;
    }
    if (held != held_.size()) {
      fault = "blocks held = next_index - freed";
    }
    if (allocator.pool_count() > most_pools) {
      fault = "a pool too many";
    }
    if (!broken(allocator).empty()) {
      fault = broken(allocator);
    }
  }

  ksomd::test::TestAllocator<World> allocator;
  std::string_view fault;

 private:
  std::set<void*> held_;
};

// More preemptions than the scenario asks for, at full length.
int more_preemptions() {
  return ksomd::test::full_length() ? 1 : 0;
}

// Sets the stage and returns the bodies.
using Scenario = std::function<std::vector<std::function<void()>>(Stage&)>;

void explore(const char* name, int preemptions, int most_pools, const Scenario& scenario) {
  if (ksomd::test::sanitized) {
    GTEST_SKIP() << "the sanitizers lose track of coroutines";
  }
  Schedule schedule;
  std::int64_t count = 0;
  do {
    Stage stage;
    const std::vector<std::function<void()>> bodies = scenario(stage);
    if (!Conductor(schedule, preemptions + more_preemptions()).run(bodies)) {
      FAIL() << name << ": threads wait for each other in schedule " << count;
    }
    stage.check(most_pools);
    ASSERT_EQ(stage.fault, "") << name << ", schedule " << count;
    ++count;
  } while (schedule.advance());
  std::printf("%s: %lld schedules\n", name, static_cast<long long>(count));
}

// All blocks of the newest pool, which is full then.
std::vector<void*> fill(Stage& stage, Kind kind = Kind::Malloc) {
  std::vector<void*> blocks;
  blocks.reserve(capacity);
  for (std::int32_t i = 0; i < capacity; ++i) {
    blocks.push_back(stage.take(kind));
  }
  return blocks;
}

TEST(PoolInterleaving, CreationAgainstCreation) {
  explore("two creations of one size", 4, 1, [](Stage& stage) {
    return std::vector<std::function<void()>>{[&] { stage.take(); }, [&] { stage.take(); }};
  });
  explore("creations of two sizes", 4, 2, [](Stage& stage) {
    return std::vector<std::function<void()>>{[&] { stage.take(); },
                                              [&] { stage.take(Kind::Malloc, 2 * size); }};
  });
  explore("three threads, two pools", 2, 2, [](Stage& stage) {
    const auto body = [&] { stage.take(); };
    return std::vector<std::function<void()>>{body, body, body};
  });
}

// One descriptor is left. Whoever is late finds the pool that the other one has created, although
// no further one can be.
TEST(PoolInterleaving, CreationOfTheLastPool) {
  explore("two creations with one descriptor left", 4, 50, [](Stage& stage) {
    std::vector<std::size_t> sizes = {size};
    for (std::size_t other = 1; sizes.size() < ksomd::pool::max_sizes; ++other) {
      if (other != size) {
        sizes.push_back(other);
      }
    }
    stage.allocator.set_sizes(sizes);
    for (std::size_t i = 1; i < sizes.size(); ++i) {
      stage.take(Kind::Malloc, sizes[i]);
    }
    return std::vector<std::function<void()>>{[&] { stage.take(); }, [&] { stage.take(); }};
  });
}

TEST(PoolInterleaving, ReactivationAgainstReactivation) {
  for (const Kind kind : {Kind::Malloc, Kind::Calloc}) {
    explore("two reactivations", 4, 1, [kind](Stage& stage) {
      for (void* block : fill(stage, kind)) {
        stage.give_back(block);
      }
      const auto body = [&stage, kind] { stage.take(kind); };
      return std::vector<std::function<void()>>{body, body};
    });
  }
}

TEST(PoolInterleaving, LastFreeAgainstAllocation) {
  for (const Kind kind : {Kind::Malloc, Kind::Calloc}) {
    explore("last free against two allocations in one thread", 4, 2, [kind](Stage& stage) {
      const std::vector<void*> blocks = fill(stage, kind);
      stage.give_back(blocks[0]);
      return std::vector<std::function<void()>>{[&stage, blocks] { stage.give_back(blocks[1]); },
                                                [&stage, kind] {
                                                  void* const first = stage.take(kind);
                                                  stage.take(kind);
                                                  stage.give_back(first);
                                                }};
    });
    explore("last free against allocations in two threads", 2, 2, [kind](Stage& stage) {
      const std::vector<void*> blocks = fill(stage, kind);
      stage.give_back(blocks[0]);
      const auto take_and_give_back = [&stage, kind] { stage.give_back(stage.take(kind)); };
      return std::vector<std::function<void()>>{[&stage, blocks] { stage.give_back(blocks[1]); },
                                                take_and_give_back, take_and_give_back};
    });
  }
}

TEST(PoolInterleaving, LastTwoFreesAgainstAllocation) {
  explore("last two frees against allocations", 2, 2, [](Stage& stage) {
    const std::vector<void*> blocks = fill(stage);
    return std::vector<std::function<void()>>{[&stage, blocks] { stage.give_back(blocks[0]); },
                                              [&stage, blocks] { stage.give_back(blocks[1]); },
                                              [&stage] {
                                                stage.take();
                                                stage.take();
                                              }};
  });
}

// The region runs out, starts again and runs out within the time of one call of the other thread.
TEST(PoolInterleaving, WholeLivesOfARegionWithinOneCall) {
  explore("lives of a region", 3, 3, [](Stage& stage) {
    const auto live = [&stage] {
      for (int life = 0; life < 2; ++life) {
        for (void* block : fill(stage)) {
          stage.give_back(block);
        }
      }
    };
    return std::vector<std::function<void()>>{live, [&stage] { stage.give_back(stage.take()); }};
  });
}

}  // namespace
