// The pools beside the heaps of others: time for allocating and freeing one block, when 30000
// blocks are allocated and then all freed. With two threads it is the slower one's. "touched"
// writes the first 8 bytes of each block, as a program would.
#include <benchmark/benchmark.h>
#include <dlfcn.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "ksomd/pool.h"
#include "pool/runtime.h"

namespace {

struct Heap {
  const char* name;
  void* (*allocate)(std::size_t);
  void (*release)(void*);
};

enum class Contents { Untouched, Touched };

// What one thread allocates and frees, so many blocks at a time.
struct Load {
  std::size_t size;
  Contents contents;
  int blocks;   // alive at a time
  int batches;  // one after the other
};

void run_batches(const Heap& heap, const Load& load, std::vector<void*>& blocks) {
  const auto count = static_cast<std::size_t>(load.blocks);
  for (int batch = 0; batch < load.batches; ++batch) {
    for (std::size_t i = 0; i < count; ++i) {
      blocks[i] = heap.allocate(load.size);
      if (load.contents == Contents::Touched) {
        *static_cast<volatile std::size_t*>(blocks[i]) = i;
      }
    }
    for (std::size_t i = 0; i < count; ++i) {
      heap.release(blocks[i]);
    }
  }
}

double nanoseconds_per_block(const Heap& heap, const Load& load, std::vector<void*>& blocks) {
  const auto start = std::chrono::steady_clock::now();
  run_batches(heap, load, blocks);
  const std::chrono::duration<double, std::nano> time = std::chrono::steady_clock::now() - start;
  return time.count() / load.blocks / load.batches;
}

// The slowest of the threads, each with a load of its own, started together.
double measure(const Heap& heap, const std::vector<Load>& loads) {
  std::vector<double> times(loads.size());
  std::atomic<std::size_t> ready = 0;
  const auto body = [&](std::size_t i) {
    std::vector<void*> blocks(static_cast<std::size_t>(loads[i].blocks));
    ready.fetch_add(1);
    while (ready.load() != loads.size()) {
    }
    times[i] = nanoseconds_per_block(heap, loads[i], blocks);
  };
  std::vector<std::thread> threads;
  threads.reserve(loads.size());
  for (std::size_t i = 1; i < loads.size(); ++i) {
    threads.emplace_back(body, i);
  }
  body(0);
  for (std::thread& thread : threads) {
    thread.join();
  }
  return *std::max_element(times.begin(), times.end());
}

// One thread's warm-up fetches all memory of the largest pool.
constexpr int warm_up = 5;

void add(const std::string& name, const std::vector<Heap>& heaps, const std::vector<Load>& loads) {
  for (const Heap& heap : heaps) {
    benchmark::RegisterBenchmark((name + '/' + heap.name).c_str(),
                                 [heap, loads](benchmark::State& state) {
                                   for (int i = 0; i < warm_up; ++i) {
                                     measure(heap, loads);
                                   }
                                   for (auto _ : state) {
                                     state.SetIterationTime(measure(heap, loads) * 1e-9);
                                   }
                                 })
        ->UseManualTime()
        ->Iterations(20);
  }
}

// A heap that is loaded beside the C library's, which stays what malloc means.
bool add_mimalloc(std::vector<Heap>& heaps) {
  void* const library = dlopen("libmimalloc.so", RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    return false;
  }
  const Heap heap = {"mimalloc",
                     reinterpret_cast<void* (*)(std::size_t)>(dlsym(library, "mi_malloc")),
                     reinterpret_cast<void (*)(void*)>(dlsym(library, "mi_free"))};
  if (heap.allocate == nullptr || heap.release == nullptr) {
    return false;
  }
  heaps.push_back(heap);
  return true;
}

// An allocator of its own with all 50 pools in use, to show what the walk over them costs.
constinit ksomd::pool::Allocator<ksomd::pool::PlatformRuntime> crowded{};

void* allocate_crowded(std::size_t size) {
  return crowded.allocate(size);
}
void release_crowded(void* block) {
  crowded.release(block);
}

void crowd() {
  std::vector<std::size_t> sizes;
  for (std::size_t size = 104; sizes.size() < 48; size += 8) {
    sizes.push_back(size);
  }
  sizes.insert(sizes.begin(), {100, 40});
  crowded.set_sizes(sizes.data(), ksomd::pool::Kind::Malloc);
  for (const std::size_t size : sizes) {
    crowded.release(crowded.allocate(size));
  }
}

void add_all() {
  std::vector<Heap> heaps = {{"libc", std::malloc, std::free},
                             {"ksomd", __i_pool_malloc, __i_pool_free}};
  if (!add_mimalloc(heaps)) {
    std::fprintf(stderr, "mimalloc is not there: %s\n", dlerror());
  }
  const std::size_t sizes[] = {40, 100, 0};
  __i_pool_init(sizes, KSOMD_POOL_MALLOC);
  crowd();

  constexpr int batch = 30000;
  constexpr auto untouched = Contents::Untouched;
  constexpr auto touched = Contents::Touched;
  add("one_thread/40", heaps, {{40, untouched, batch, 4}});
  add("one_thread/100", heaps, {{100, untouched, batch, 4}});
  add("one_thread_touched/40", heaps, {{40, touched, batch, 4}});
  add("one_thread_touched/100", heaps, {{100, touched, batch, 4}});
  add("two_threads/40_and_100", heaps, {{40, untouched, batch, 4}, {100, untouched, batch, 4}});
  add("two_threads_touched/40_and_100", heaps, {{40, touched, batch, 4}, {100, touched, batch, 4}});
  add("two_threads_one_pool/100", heaps, {{100, untouched, batch, 4}, {100, untouched, batch, 4}});
  add("one_block_at_a_time/40", heaps, {{40, untouched, 1, 100000}});
  add("unlisted/64", heaps, {{64, untouched, batch, 4}});
  heaps[1] = {"ksomd", allocate_crowded, release_crowded};
  add("fifty_pools_unlisted/64", heaps, {{64, untouched, batch, 4}});
  add("fifty_pools_oldest/100", heaps, {{100, untouched, batch, 4}});
}

const bool registered = [] {  // NOLINT(bugprone-throwing-static-initialization)
  add_all();
  return true;
}();

}  // namespace
