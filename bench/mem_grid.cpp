// The dispatching entries over sizes, alignments and distances: is any cell much slower than the
// others of its size? One benchmark is one size; its time is that of the median cell, and counters
// tell of the slowest one.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "ksomd/memory.h"
#include "mem_bench.h"

namespace ksomd::bench {
namespace {

constexpr std::size_t page = 4096, largest = 1 << 18, rounds = 12;

alignas(page) Byte arena[2 * largest + 8 * page];

// Around powers of two, from half a vector to far beyond the thresholds.
std::vector<std::size_t> sizes() {
  std::vector<std::size_t> found;
  for (std::size_t power = 8; power <= largest; power *= power < 4096 ? 2 : 4) {
    for (const std::size_t size : {power - 1, power, power + 1}) {
      found.push_back(size);
    }
  }
  return found;
}

// The destination's offset in a page, and the distance from the end of the range below to the
// start of the range above, but for whole pages.
struct Cell {
  std::size_t offset, distance;
  bool down;  // the source lies below the destination
};

std::vector<Cell> cells() {
  constexpr std::size_t offsets[] = {0, 1, 8, 15, 16, 31, 32, 33, 48, 63, 4088, 4095};
  std::vector<Cell> found;
  for (const std::size_t offset : offsets) {
    for (const bool down : {false, true}) {
      for (std::size_t power = 1; power <= page; power *= 2) {
        for (const std::size_t distance : {power - 1, power, power + 1}) {
          found.push_back({offset, distance, down});
        }
      }
    }
  }
  return found;
}

double time_of(Loop* loop, const Cell& cell, std::size_t size) {
  Byte* const low = arena + page + cell.offset;
  const std::size_t whole_pages = (size + page - 1) / page * page;
  Byte* const high = low + whole_pages + cell.distance;
  Byte* const d = cell.down ? high : low;
  const Byte* const s = cell.down ? low : high;
  const std::size_t calls = 1 + 4096 / (size + 64);
  loop(d, s, size);
  const auto start = std::chrono::steady_clock::now();
  for (std::size_t i = 0; i < calls; ++i) {
    loop(d, s, size);
  }
  const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
  return time.count() / static_cast<double>(calls);
}

void measure(benchmark::State& state, Loop* loop, std::size_t size) {
  const std::vector<Cell> all = cells();
  std::vector<double> best(all.size(), 1.0);
  for (auto _ : state) {
    for (std::size_t round = 0; round < rounds; ++round) {
      for (std::size_t i = 0; i < all.size(); ++i) {
        best[i] = std::min(best[i], time_of(loop, all[i], size));
      }
    }
    std::vector<double> sorted = best;
    std::sort(sorted.begin(), sorted.end());
    state.SetIterationTime(sorted[sorted.size() / 2]);
    const auto slowest =
        static_cast<std::size_t>(std::max_element(best.begin(), best.end()) - best.begin());
    state.counters["slowest_cell"] = best[slowest] / sorted[sorted.size() / 2];
    state.counters["offset"] = static_cast<double>(all[slowest].offset);
    state.counters["distance"] =
        static_cast<double>(all[slowest].distance) * (all[slowest].down ? -1 : 1);
  }
}

template <auto routine>
void copying(Byte* d, const Byte* s, std::size_t n) {
  benchmark::DoNotOptimize(routine(d, s, n));
}
template <auto routine>
void filling(Byte* d, const Byte*, std::size_t n) {
  benchmark::DoNotOptimize(routine(d, 0, n));
}

constexpr struct {
  const char* name;
  Loop* loop;
} contestants[] = {
    {"memcpy/ksomd", copying<_orvex_fast_memcpy>},   {"memcpy/libc", copying<memcpy>},
    {"memmove/ksomd", copying<_orvex_fast_memmove>}, {"memmove/libc", copying<memmove>},
    {"memset/ksomd", filling<_orvex_fast_memset>},   {"memset/libc", filling<memset>},
    {"memcmp/ksomd", copying<_orvex_fast_memcmp>},   {"memcmp/libc", copying<memcmp>},
};

}  // namespace

void register_grid() {
  for (const auto& [name, loop] : contestants) {
    for (const std::size_t size : sizes()) {
      benchmark::RegisterBenchmark(
          (std::string("grid/") + name + '/' + std::to_string(size)).c_str(),
          [loop = loop, size](benchmark::State& state) { measure(state, loop, size); })
          ->UseManualTime()
          ->Iterations(1);
    }
  }
}

}  // namespace ksomd::bench
