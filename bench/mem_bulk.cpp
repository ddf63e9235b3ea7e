// Every bulk method against a bare loop of its instructions. Tuning values are put in that make the
// routine take the method, on any processor that has its instructions.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "ksomd/memory.h"
#include "mem/tuning.h"
#include "mem_bench.h"

namespace ksomd::bench {
namespace {

using mem::Tuning;

constexpr std::uint64_t never = std::uint64_t{1} << 62;
// Both ranges in the first-level cache; far beyond it.
constexpr std::size_t in_cache = 12288, long_range = 1 << 20;
static_assert(in_cache % 4096 == 0 && long_range % 4096 == 0);

alignas(4096) Byte arena[2 * long_range + (1 << 14)];

constexpr Tuning integers() {
  Tuning tuning;
  tuning.copy_nt_threshold = tuning.largest_cache_size = 1 << 16;
  tuning.l1_half = tuning.l1_size = tuning.l1_quarter = never;
  tuning.rep_movsb_threshold = tuning.rep_stosb_threshold = never;
  tuning.avx512_nt_threshold = 1 << 16;
  return tuning;
}
constexpr Tuning sse2() {
  Tuning tuning = integers();
  tuning.mem_class = 2;
  return tuning;
}
constexpr Tuning strings() {
  Tuning tuning = integers();
  tuning.l1_half = tuning.l1_size = tuning.rep_movsb_threshold = tuning.rep_stosb_threshold = 1024;
  return tuning;
}
constexpr Tuning ordinary() {
  Tuning tuning = integers();
  tuning.copy_nt_threshold = tuning.largest_cache_size = tuning.avx512_nt_threshold = never;
  return tuning;
}
constexpr Tuning streaming_fill() {
  Tuning tuning = integers();
  tuning.l1_quarter = 4096;
  return tuning;
}

void string_copy(Byte* d, const Byte* s, std::size_t n) {
  __asm__ volatile("rep movsb" : "+D"(d), "+S"(s), "+c"(n) : : "memory");
}
void string_fill(Byte* d, const Byte*, std::size_t n) {
  __asm__ volatile("rep stosb" : "+D"(d), "+c"(n) : "a"(7) : "memory");
}

template <auto routine>
void copying(Byte* d, const Byte* s, std::size_t n) {
  benchmark::DoNotOptimize(routine(d, s, n));
}
template <auto routine>
void filling(Byte* d, const Byte*, std::size_t n) {
  benchmark::DoNotOptimize(routine(d, 7, n));
}

// One long chunk, which lies where the context ahead of it wants it.
template <auto routine>
void streaming(Byte* d, const Byte* s, std::size_t n) {
  auto* context = reinterpret_cast<__libkso_nt_context*>(const_cast<Byte*>(s)) - 1;
  context->destination = d;
  context->head_offset = context->pending = 0;
  routine(context, n, 1);
}

// `offset`: of the source past a boundary. `down`: the source lies below the destination, and
// short ranges overlap.
struct Method {
  const char* name;
  Loop* routine;
  Loop* bare;
  std::size_t bytes;
  Tuning tuning;
  std::size_t offset = 0;
  bool down = false;
};

const Method methods[] = {
    {"generic copy, words", copying<__orvex_new_memcpy>, bare_8.copy, in_cache, integers()},
    {"generic copy, words streamed", copying<__orvex_new_memcpy>, bare_8.stream, long_range,
     integers()},
    {"generic copy, aligned", copying<__orvex_new_memcpy>, bare_16.copy_aligned, in_cache, sse2()},
    {"generic copy, realigned", copying<__orvex_new_memcpy>, bare_16.realign, in_cache, sse2(),
     realign_shift},
    {"generic copy, streamed", copying<__orvex_new_memcpy>, bare_16.stream, long_range, sse2()},
    {"generic move, words down", copying<__orvex_new_memmove>, bare_8.copy_down, in_cache,
     integers(), 0, true},
    {"generic move, down", copying<__orvex_new_memmove>, bare_16.copy_down, in_cache, sse2(),
     realign_shift, true},
    {"generic fill, words", filling<__orvex_new_memset>, bare_8.fill, in_cache, integers()},
    {"generic fill, words streamed", filling<__orvex_new_memset>, bare_8.fill_stream, long_range,
     integers()},
    {"generic fill", filling<__orvex_new_memset>, bare_16.fill, in_cache, sse2()},
    {"avx copy", copying<__orvex_avx_rep_memcpy>, bare_32.copy, in_cache, integers()},
    {"avx copy, string", copying<__orvex_avx_rep_memcpy>, string_copy, in_cache, strings()},
    {"avx copy, streamed", copying<__orvex_avx_rep_memcpy>, bare_32.stream, long_range, strings()},
    {"avx move, aligned", copying<__orvex_avx_memmove>, bare_32.copy_aligned, in_cache, integers()},
    {"avx move, realigned", copying<__orvex_avx_memmove>, bare_32.realign, in_cache, integers(),
     realign_shift},
    {"avx move, streamed", copying<__orvex_avx_memmove>, bare_32.stream, long_range, integers()},
    {"avx move, aligned down", copying<__orvex_avx_memmove>, bare_32.copy_aligned_down, in_cache,
     integers(), 0, true},
    {"avx move, realigned down", copying<__orvex_avx_memmove>, bare_32.realign_down, in_cache,
     integers(), realign_shift, true},
    {"avx move, streamed down", copying<__orvex_avx_memmove>, bare_32.stream_down, long_range,
     integers(), 0, true},
    {"avx fill", filling<__orvex_avx_rep_memset>, bare_32.fill, in_cache, integers()},
    {"avx fill, string", filling<__orvex_avx_rep_memset>, string_fill, in_cache, strings()},
    {"server copy", copying<__orvex_tvr_avx512_memcpy>, bare_64.copy, in_cache, integers()},
    {"server copy, string", copying<__orvex_tvr_avx512_memcpy>, string_copy, in_cache, strings()},
    {"server copy, streamed", copying<__orvex_tvr_avx512_memcpy>, bare_64.stream, long_range,
     strings()},
    {"server fill", filling<__orvex_tvr_avx512_memset>, bare_64.fill, in_cache, integers()},
    {"server fill, string", filling<__orvex_tvr_avx512_memset>, string_fill, in_cache, strings()},
    {"many-core copy", copying<__orvex_pxn_avx512f_memcpy>, bare_64.prefetched, in_cache,
     ordinary()},
    {"many-core copy, streamed", copying<__orvex_pxn_avx512f_memcpy>, bare_64.prefetched_stream,
     long_range, integers()},
    {"many-core owning copy", copying<__orvex_pxn_avx512f_rfo_memcpy>, bare_64.prefetched,
     long_range, integers()},
    {"many-core fill", filling<__orvex_pxn_avx512f_memset>, bare_64.fill, in_cache, ordinary()},
    {"many-core fill, streamed", filling<__orvex_pxn_avx512f_memset>, bare_64.fill_stream,
     long_range, streaming_fill()},
    {"many-core owning fill", filling<__orvex_pxn_avx512f_rfo_memset>, bare_64.fill, in_cache,
     streaming_fill()},
    {"streaming store, 256 bits", streaming<__libkso_nontemporal_store_256>, bare_32.stream_alone,
     long_range, integers()},
    {"streaming store, 512 bits", streaming<__libkso_nontemporal_store_512>, bare_64.stream_alone,
     long_range, integers()},
};

void run(benchmark::State& state, const Method& method, Loop* loop) {
  // Half a page apart in a page, so that no load waits for a store that only looks related.
  const bool overlapping = method.down && method.bytes == in_cache;
  Byte* const low = arena + 4096;
  Byte* const high = low + (overlapping ? 4096 : method.bytes) + 2048;
  Byte* const d = method.down ? high : low;
  const Byte* const s = (method.down ? low : high) + method.offset;
  const Tuning saved = __libkso_mem_tuning;
  __libkso_mem_tuning = method.tuning;
  for (auto _ : state) {
    loop(d, s, method.bytes);
    benchmark::ClobberMemory();
  }
  __libkso_mem_tuning = saved;
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(method.bytes));
}

}  // namespace

void register_bulk_methods() {
  for (const Method& method : methods) {
    for (const auto& [contestant, loop] :
         {std::pair{"ksomd", method.routine}, {"bare", method.bare}}) {
      benchmark::RegisterBenchmark(
          (std::string("bulk/") + method.name + '/' + contestant).c_str(),
          [&method, loop = loop](benchmark::State& state) { run(state, method, loop); });
    }
  }
}

}  // namespace ksomd::bench
