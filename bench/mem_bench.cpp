// The memory routines against the C library's, in one run: compare the lines of one group.
#include "mem_bench.h"

#include <benchmark/benchmark.h>
#include <emmintrin.h>

#include <cstring>
#include <random>
#include <vector>

#include "cpu/feature_set.h"
#include "ksomd/memory.h"
#include "mem/dispatch.h"

namespace {

using ksomd::mem::CopyRoutine;
using ksomd::mem::FillRoutine;
using CompareRoutine = int(const void*, const void*, size_t);

struct Call {
  std::uint32_t size, d, s;
};

// Sizes 1 to 512 as programs use them: four of five below 128, half of them below 32; any
// alignment.
std::vector<Call> mixed_calls() {
  std::mt19937 random(42);
  const auto below = [&](unsigned limit) { return static_cast<std::uint32_t>(random() % limit); };
  std::vector<Call> calls(4096);
  for (Call& call : calls) {
    const auto kind = below(10);
    call.size = 1 + (kind < 4 ? below(32) : kind < 8 ? below(128) : below(512));
    call.d = below(4096);
    call.s = below(4096);
  }
  return calls;
}

const std::vector<Call> calls = mixed_calls();
alignas(4096) unsigned char source[1 << 25], target[1 << 25];

template <class Run>
void mix(benchmark::State& state, Run run) {
  for (auto _ : state) {
    for (const Call& call : calls) {
      run(target + call.d, source + call.s, call.size);
    }
    benchmark::ClobberMemory();
  }
  state.counters["per_call"] = benchmark::Counter(
      static_cast<double>(state.iterations()) * static_cast<double>(calls.size()),
      benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

template <class Run>
void one_size(benchmark::State& state, Run run) {
  const auto size = static_cast<size_t>(state.range(0));
  for (auto _ : state) {
    run(target, source, size);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

template <class Routine>
auto copying(Routine* routine) {
  return [routine](unsigned char* d, const unsigned char* s, size_t n) {
    benchmark::DoNotOptimize(routine(d, s, n));
  };
}
auto filling(FillRoutine* routine) {
  return [routine](unsigned char* d, const unsigned char*, size_t n) {
    benchmark::DoNotOptimize(routine(d, 7, n));
  };
}

template <class Run>
void add_mix(const std::string& name, Run run) {
  benchmark::RegisterBenchmark(("mix/" + name).c_str(),
                               [run](benchmark::State& state) { mix(state, run); });
}
template <class Run>
void add_sizes(const std::string& name, Run run, std::initializer_list<std::int64_t> sizes) {
  auto* entry = benchmark::RegisterBenchmark(
      ("size/" + name).c_str(), [run](benchmark::State& state) { one_size(state, run); });
  for (const std::int64_t size : sizes) {
    entry->Arg(size);
  }
}

// What two 16-byte loads a cycle allow: equal ranges of a multiple of 64 bytes, no ends of pages
// minded.
int bare_compare(const void* first, const void* second, size_t n) {
  const auto* a = static_cast<const unsigned char*>(first);
  const auto* b = static_cast<const unsigned char*>(second);
  const auto equal = [&](size_t i) {
    const auto load = [](const unsigned char* p) {
      return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    };
    return _mm_cmpeq_epi8(load(a + i), load(b + i));
  };
  for (size_t i = 0; i < n; i += 64) {
    const __m128i all = _mm_and_si128(_mm_and_si128(equal(i), equal(i + 16)),
                                      _mm_and_si128(equal(i + 32), equal(i + 48)));
    if (_mm_movemask_epi8(all) != 0xFFFF) {
      return 1;
    }
  }
  return 0;
}

void register_all() {
  add_mix("memcpy/libc", copying<CopyRoutine>(memcpy));
  add_mix("memcpy/ksomd", copying(_orvex_fast_memcpy));
  add_mix("memcpy/variant", copying(__orvex_avx_rep_memcpy));
  add_mix("memcpy/generic", copying(__orvex_new_memcpy));
  add_mix("memcpy/server", copying(__orvex_tvr_avx512_memcpy));
  add_mix("memmove/libc", copying<CopyRoutine>(memmove));
  add_mix("memmove/ksomd", copying(_orvex_fast_memmove));
  add_mix("memmove/variant", copying(__orvex_avx_memmove));
  add_mix("memset/libc", filling(memset));
  add_mix("memset/ksomd", filling(_orvex_fast_memset));
  add_mix("memset/variant", filling(__orvex_avx_rep_memset));
  // Equal ranges: both are read in full.
  static unsigned char zeros[1 << 16];
  const auto equal = [](CompareRoutine* routine) {
    return [routine](unsigned char* d, const unsigned char*, size_t n) {
      unsigned char* const first = zeros + (d - target);
      benchmark::DoNotOptimize(routine(first, first + (1 << 15) + 1, n));
    };
  };
  add_mix("memcmp/libc", equal(memcmp));
  add_mix("memcmp/ksomd", equal(_orvex_fast_memcmp));
  add_mix("memcmp/generic", equal(__orvex_new_memcmp));
  add_sizes("memcmp/libc", equal(memcmp), {16384});
  add_sizes("memcmp/ksomd", equal(_orvex_fast_memcmp), {16384});
  add_sizes("memcmp/bare baseline", equal(bare_compare), {16384});
  // With this processor's thresholds.
  add_sizes("memcpy/libc", copying<CopyRoutine>(memcpy), {4096, 16384, 65536, 1 << 24});
  add_sizes("memcpy/ksomd", copying(_orvex_fast_memcpy), {4096, 16384, 65536, 1 << 24});
  add_sizes("memmove/libc", copying<CopyRoutine>(memmove), {4096, 16384});
  add_sizes("memmove/ksomd", copying(_orvex_fast_memmove), {4096, 16384});
  add_sizes("memset/libc", filling(memset), {4096, 16384, 65536});
  add_sizes("memset/ksomd", filling(_orvex_fast_memset), {4096, 16384, 65536});
}

}  // namespace

int main(int argc, char** argv) {
  std::memset(source, 0, sizeof source);
  std::memset(target, 0, sizeof target);
  benchmark::Initialize(&argc, argv);
  if (ksomd::has_features(ksomd::mem::avx512_level)) {
    register_all();
    ksomd::bench::register_bulk_methods();
    ksomd::bench::register_grid();
  } else {
    std::puts("skipped: these benchmarks call variants that this processor lacks");
  }
  benchmark::RunSpecifiedBenchmarks();
}
