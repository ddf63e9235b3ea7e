// Random operations of many threads on one allocator, against a model of every block.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <random>

#include "pool_support.h"
#include "support/seed.h"

namespace {

using ksomd::pool::Kind;
using ksomd::test::all_bytes;
using ksomd::test::broken;
using ksomd::test::Findings;

#if defined(_WIN32)
constexpr std::int64_t host_operations = 1'000'000;
#else
constexpr std::int64_t host_operations = 10'000'000;
#endif
constexpr std::int64_t operations = ksomd::test::sanitized ? 400'000 : host_operations;
constexpr int threads = 8;
constexpr int phases = 10;
constexpr int blocks_per_thread = 48;
constexpr std::int32_t largest_region = 64;

// Regions so small that they run out all the time, yet too few in all for what the threads hold.
struct World : ksomd::test::SmallRegions<largest_region> {
  static std::int32_t capacity(std::uint64_t size) { return size == 40 ? largest_region : 5; }
};

constexpr std::size_t malloc_sizes[] = {40, 100, 24};
constexpr std::size_t calloc_sizes[] = {40, 72};
constexpr std::size_t sizes[] = {40, 100, 24, 72, 41, 200};  // some of them in neither list

// The model: which blocks of which pool are held, and how often each was handed out.
class Model {
 public:
  explicit Model(const ksomd::pool::Allocator<World>& allocator) : allocator_(allocator) {}

  void handed_out(const void* block, Findings& findings) {
    if (Entry* const entry = find(block, findings)) {
      findings.expect(!entry->held.exchange(true), 0, "block handed out while held");
      entry->times.fetch_add(1, std::memory_order_relaxed);
    }
  }

  // Before the block is freed.
  void given_back(const void* block, Findings& findings) {
    if (Entry* const entry = find(block, findings)) {
      findings.expect(entry->held.exchange(false), 0, "block not held");
    }
  }

  // With no operation in progress: each activation hands out each block once, in order, and the
  // pool's own counters tell how many are out.
  void compare(Findings& findings, int phase) const {
    findings.expect(broken(allocator_).empty(), phase, broken(allocator_));
    for (const __i_pool_desc* pool = allocator_.newest_pool(); pool != nullptr; pool = pool->next) {
      const auto& entries = entries_[age(pool)];
      const std::int64_t activations = entries[0].times;
      std::uint32_t held = 0;
      for (std::size_t i = 0; i < static_cast<std::size_t>(pool->capacity); ++i) {
        held += entries[i].held;
        const bool later = i >= static_cast<std::size_t>(pool->next_index);
        findings.expect(entries[i].times == activations - later, phase,
                        "region recycled too early");
      }
      findings.expect(held == static_cast<std::uint32_t>(pool->next_index) - pool->freed, phase,
                      "blocks held = next_index - freed");
    }
  }

  std::int64_t activations() const {
    std::int64_t sum = 0;
    for (const auto& entries : entries_) {
      sum += entries[0].times;
    }
    return sum;
  }

 private:
  struct Entry {
    std::atomic<bool> held = false;
    std::atomic<std::int64_t> times = 0;
  };

  static std::size_t age(const __i_pool_desc* pool) {
    std::size_t older = 0;
    while ((pool = pool->next) != nullptr) {
      ++older;
    }
    return older;
  }

  // Null for a block of the heap.
  Entry* find(const void* block, Findings& findings) {
    const auto* const address = static_cast<const std::byte*>(block);
    for (const __i_pool_desc* pool = allocator_.newest_pool(); pool != nullptr; pool = pool->next) {
      const std::byte* const region =
          pool->last - static_cast<std::uint64_t>(pool->capacity - 1) * pool->size;
      if (region <= address && address < pool->last + pool->size) {
        const auto offset = static_cast<std::uint64_t>(address - region);
        findings.expect(offset % pool->size == 0, 0, "block off its stride");
        return &entries_[age(pool)][offset / pool->size];
      }
    }
    return nullptr;
  }

  const ksomd::pool::Allocator<World>& allocator_;
  std::array<std::array<Entry, largest_region>, ksomd::pool::max_pools> entries_;
};

struct Block {
  unsigned char* address;
  std::size_t size;
  unsigned char value;  // of every byte
};

// What all threads share: the allocator, the model, and a place to leave blocks for each other.
struct Shared {
  ksomd::test::TestAllocator<World> allocator;
  Model model{allocator};
  Findings findings;
  std::array<std::atomic<Block*>, 64> mailboxes{};
};

class Program {
 public:
  Program(Shared& shared, unsigned seed) : shared_(shared), random_(ksomd::test::seed_of(seed)) {}

  void run(std::int64_t count) {
    for (operation_ = 0; operation_ < count; ++operation_) {
      const unsigned choice = random_() % 16;
      if (blocks_.size() == blocks_per_thread || (choice < 7 && !blocks_.empty())) {
        choice % 2 == 0 ? leave_to_another(take_any()) : free(take_any());
      } else if (choice < 9 && !blocks_.empty()) {
        resize();
      } else {
        allocate(choice % 2 == 0);
      }
    }
  }

  void free_all() {
    while (!blocks_.empty()) {
      free(take_any());
    }
  }

  void free(const Block& block) {
    expect(all_bytes(block.address, block.size, block.value), "contents lost");
    shared_.model.given_back(block.address, shared_.findings);
    shared_.allocator.release(block.address);
  }

 private:
  void expect(bool holds, const char* what) { shared_.findings.expect(holds, operation_, what); }

  std::size_t any_size() { return sizes[random_() % std::size(sizes)]; }

  void allocate(bool zeroed) {
    const std::size_t size = any_size();
    void* const block =
        zeroed ? shared_.allocator.allocate_zeroed(size, 1) : shared_.allocator.allocate(size);
    expect(!zeroed || all_bytes(block, size, 0), "block not zero");
    keep(block, size);
  }

  // A block of the heap, and the first one of a region, have the heap's alignment; the size is the
  // stride from there.
  void keep(void* block, std::size_t size) {
    const std::size_t alignment = std::min<std::size_t>(size & (0 - size), 16);
    expect(reinterpret_cast<std::uintptr_t>(block) % alignment == 0, "alignment");
    shared_.model.handed_out(block, shared_.findings);
    const auto value = static_cast<unsigned char>(1 + random_() % 255);
    std::memset(block, value, size);
    blocks_.push_back({static_cast<unsigned char*>(block), size, value});
  }

  // A pooled block is given back within the call, after the new one is handed out: to the model it
  // is so before, when nobody else can have it yet.
  void resize() {
    const Block old = take_any();
    const std::size_t size = any_size();
    const unsigned char value = old.value;
    expect(all_bytes(old.address, old.size, value), "contents lost");
    shared_.model.given_back(old.address, shared_.findings);
    void* const moved = shared_.allocator.resize(old.address, size);
    expect(all_bytes(moved, std::min(size, old.size), value), "contents lost by a move");
    keep(moved, size);
  }

  Block take_any() {
    std::swap(blocks_[random_() % blocks_.size()], blocks_.back());
    const Block block = blocks_.back();
    blocks_.pop_back();
    return block;
  }

  // The block that another thread left there is this one's now.
  void leave_to_another(const Block& block) {
    auto& mailbox = shared_.mailboxes[random_() % shared_.mailboxes.size()];
    const std::unique_ptr<Block> found(mailbox.exchange(new Block(block)));
    if (found != nullptr) {
      free(*found);
    }
  }

  Shared& shared_;
  std::minstd_rand random_;
  std::vector<Block> blocks_;
  std::int64_t operation_ = 0;
};

TEST(PoolStress, ManyThreadsAgainstTheModel) {
  auto shared = std::make_unique<Shared>();
  shared->allocator.set_sizes({std::begin(malloc_sizes), std::end(malloc_sizes)});
  shared->allocator.set_sizes({std::begin(calloc_sizes), std::end(calloc_sizes)}, Kind::Calloc);
  std::vector<Program> programs;
  programs.reserve(threads);
  for (unsigned i = 0; i < threads; ++i) {
    programs.emplace_back(*shared, i + 1);
  }
  for (int phase = 0; phase < phases && shared->findings.first().empty(); ++phase) {
    ksomd::test::in_threads(threads, [&](int i) {
      Program& program = programs[static_cast<std::size_t>(i)];
      program.run(operations / threads / phases);
      if (phase % 3 == 2) {
        program.free_all();
      }
    });
    shared->model.compare(shared->findings, phase);
  }
  for (Program& program : programs) {
    program.free_all();
  }
  for (auto& mailbox : shared->mailboxes) {
    const std::unique_ptr<Block> left(mailbox.exchange(nullptr));
    if (left != nullptr) {
      programs[0].free(*left);
    }
  }
  shared->model.compare(shared->findings, phases);
  EXPECT_EQ(shared->findings.first(), "");
  EXPECT_EQ(World::outstanding, shared->allocator.pool_count());
  // The run went where it was meant to: regions of every kind, which start again and again.
  EXPECT_GE(shared->allocator.pool_count(), 5);
  EXPECT_GT(shared->model.activations(), operations / 1000);
  std::printf("%lld operations of %d threads; %d pools, activated %lld times\n",
              static_cast<long long>(operations), threads, shared->allocator.pool_count(),
              static_cast<long long>(shared->model.activations()));
}

}  // namespace
