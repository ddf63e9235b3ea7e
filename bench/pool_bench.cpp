// The pools beside the heaps of others, in one process and one run: nanoseconds for allocating and
// freeing one block, when 30000 blocks are allocated and then all freed.
//
//   usage: pool_bench [REPETITIONS]
//
// The heaps take turns in every repetition; the table shows the median of each, and its ratio to
// the C library's. "touched" writes the first 8 bytes of each block, as a program would.
#include <dlfcn.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include "ksomd/pool.h"

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

// Repetitions that are not counted: enough to fetch all memory of the largest pool.
constexpr int warm_up = 5;

double median(std::vector<double> values) {
  std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2),
                   values.end());
  return values[values.size() / 2];
}

void compare(const char* title, const std::vector<Heap>& heaps, const std::vector<Load>& loads,
             int repetitions) {
  std::vector<std::vector<double>> times(heaps.size());
  for (int repetition = 0; repetition < warm_up + repetitions; ++repetition) {
    for (std::size_t i = 0; i < heaps.size(); ++i) {
      const double time = measure(heaps[i], loads);
      if (repetition >= warm_up) {
        times[i].push_back(time);
      }
    }
  }
  std::printf("%-44s", title);
  for (std::size_t i = 0; i < heaps.size(); ++i) {
    std::vector<double> ratios;
    ratios.reserve(times[i].size());
    for (std::size_t repetition = 0; repetition < times[i].size(); ++repetition) {
      ratios.push_back(times[i][repetition] / times[0][repetition]);
    }
    std::printf("  %-9s %6.1f ns %5.2f", heaps[i].name, median(times[i]), median(ratios));
  }
  std::printf("\n");
}

// A heap that is loaded beside the C library's, which stays what malloc means.
bool add_mimalloc(std::vector<Heap>& heaps) {
  void* const library = dlopen("libmimalloc.so", RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    return false;
  }
  heaps.push_back({"mimalloc",
                   reinterpret_cast<void* (*)(std::size_t)>(dlsym(library, "mi_malloc")),
                   reinterpret_cast<void (*)(void*)>(dlsym(library, "mi_free"))});
  return heaps.back().allocate != nullptr && heaps.back().release != nullptr;
}

}  // namespace

int main(int argc, char** argv) {
  const int repetitions = argc > 1 ? static_cast<int>(std::strtol(argv[1], nullptr, 10)) : 101;
  std::vector<Heap> heaps = {{"C library", std::malloc, std::free},
                             {"pools", __i_pool_malloc, __i_pool_free}};
  if (!add_mimalloc(heaps)) {
    std::printf("mimalloc is not there: %s\n", dlerror());
  }
  const std::size_t sizes[] = {40, 100, 0};
  __i_pool_init(sizes, KSOMD_POOL_MALLOC);

  constexpr int batch = 30000;
  constexpr auto untouched = Contents::Untouched;
  constexpr auto touched = Contents::Touched;
  compare("40 bytes", heaps, {{40, untouched, batch, 4}}, repetitions);
  compare("100 bytes", heaps, {{100, untouched, batch, 4}}, repetitions);
  compare("40 bytes, touched", heaps, {{40, touched, batch, 4}}, repetitions);
  compare("100 bytes, touched", heaps, {{100, touched, batch, 4}}, repetitions);
  compare("2 threads, 40 and 100 bytes", heaps,
          {{40, untouched, batch, 4}, {100, untouched, batch, 4}}, repetitions);
  compare("2 threads, 40 and 100 bytes, touched", heaps,
          {{40, touched, batch, 4}, {100, touched, batch, 4}}, repetitions);
  compare("2 threads, 100 bytes, one pool for both", heaps,
          {{100, untouched, batch, 4}, {100, untouched, batch, 4}}, repetitions);
  compare("one block at a time, 40 bytes", heaps, {{40, untouched, 1, 100000}}, repetitions);
  compare("not in the list, 64 bytes", heaps, {{64, untouched, batch, 4}}, repetitions);

  std::vector<std::size_t> all_sizes;
  for (std::size_t size = 104; all_sizes.size() < 48; size += 8) {
    all_sizes.push_back(size);
  }
  all_sizes.insert(all_sizes.end(), {40, 100, 0});
  __i_pool_init(all_sizes.data(), KSOMD_POOL_MALLOC);
  for (std::size_t i = 0; i < 48; ++i) {
    __i_pool_free(__i_pool_malloc(all_sizes[i]));
  }
  compare("50 pools, not in the list, 64 bytes", heaps, {{64, untouched, batch, 4}}, repetitions);
  compare("50 pools, the last one, 100 bytes", heaps, {{100, untouched, batch, 4}}, repetitions);
  return 0;
}
