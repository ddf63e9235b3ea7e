// Which method a routine takes at which size: its string instructions, non-temporal stores,
// prefetches and fences, counted one instruction after the other.
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <string_view>

#include "mem/routines.h"
#include "mem/timed_copy.h"
#include "support/effort.h"
#include "support/instruction_count.h"

namespace ksomd::test {
namespace {

using enum InstructionKind;

const std::uint64_t* next_tick = nullptr;
std::uint64_t scripted_clock() {
  return *next_tick++;
}

class Method : public testing::Test {
 protected:
  void SetUp() override {
    next_tick = nullptr;
    if (!can_single_step() || !optimized || sanitized) {
      GTEST_SKIP() << "counts the instructions of optimised code, one step after the other";
    }
  }
  Range target_{1 << 16}, source_{1 << 16};
};

// String instructions, non-temporal stores, prefetches to NTA, T0 and T1.
using Counts = std::array<std::size_t, 5>;
InstructionCount last;
Counts last_counts() {
  Counts now = {last[StringMove] + last[StringFill], last[NonTemporalStore]};
  std::ranges::copy_n(&last.executed[static_cast<int>(PrefetchNta)], 3, now.begin() + 2);
  return now;
}

// With a script for the clock it is the vector routines that run. Behind non-temporal stores stands
// one fence, and nothing is stored in between.
void* run_counted(const Call& c, std::string& wrong) {
  void* result = c.d;
  last = count_instructions([&] {
    next_tick == nullptr           ? void(result = run_plainly(c, wrong))
    : c.routine.kind == Kind::Copy ? mem::copy_by_clock(c.d, c.s, c.n, scripted_clock)
    : c.routine.kind == Kind::Fill ? mem::fill_by_clock(c.d, c.value, c.n, scripted_clock)
                                   : mem::zero_by_clock(c.d, c.n, scripted_clock);
  });
  const std::size_t fences = last[NonTemporalStore] != 0 ? 1 : 0;
  const bool right = last.unfenced_stores == 0 && last.fenced && last[StoreFence] == fences;
  wrong += right ? "" : "fence ";
  return result;
}

// Steps of a loop that runs at least once, then while `floor` bytes are left.
std::size_t steps(std::size_t left, std::size_t step, std::size_t floor) {
  return left < floor + step ? 1 : (left - floor) / step + 1;
}

// What a routine should execute, and the count that it compares with most thresholds: what is left
// behind the stores that align the destination.
using Promise = std::pair<std::size_t, Counts>;
Promise promise_of(const Call& c, const mem::Tuning& t) {
  const std::string_view name = c.routine.name;
  const auto d = reinterpret_cast<std::uintptr_t>(c.d), s = reinterpret_cast<std::uintptr_t>(c.s);
  const std::size_t n = c.n;
  const auto behind = [&](std::size_t line) { return n - (-d & (line - 1)); };
  const auto streams = [](std::size_t left) {
    return Counts{0, steps(left, 256, 768) * 8, 0, steps(left, 256, 768) * 4};
  };
  const bool fills = name.ends_with("set"), sse2 = t.mem_class == 2;
  std::size_t left = n, lines = 0;
  bool bulk = false;
  if (name.starts_with("__orvex_new")) {
    left = behind(8) - (sse2 && (d + n - behind(8)) % 16 != 0 ? 8 : 0);
    lines = left / 64;
    const bool descends = name.ends_with("move") && d > s && d < s + n;
    bulk = fills ? behind(8) > 127 && left > t.largest_cache_size && (!sse2 || left >= 176)
                 : behind(8) > 176 && left > t.copy_nt_threshold && !descends;
    return {left, !bulk   ? Counts{}
                  : fills ? Counts{0, sse2 ? left / 128 * 8 : lines * 8}
                          : Counts{0, lines * (sse2 ? 4 : 8), lines}};
  }
  if (name.starts_with("__orvex_avx_mem")) {
    left = (d > s ? n - (d + n) % 32 : behind(32)) - 32;
    bulk = n > 256 && left >= 256 && d != s && left >= t.copy_nt_threshold;
    return {left, bulk ? streams(left) : Counts{}};
  }
  if (name.starts_with("__orvex_avx_rep")) {
    left = behind(32);
    const std::size_t floor = fills ? t.l1_size - t.l1_size / 16 : t.l1_half - t.l1_half / 4;
    bulk = n > (fills ? 255 : 256) && left >= 256 && left >= floor;
    return {left, !bulk                                 ? Counts{}
                  : fills || left < t.copy_nt_threshold ? Counts{1}
                                                        : streams(left)};
  }
  if (name == "__orvex_tvr_avx512_memcpy") {
    left = n - 64 + d % 64;
    const bool string = n > t.rep_movsb_threshold && n < t.avx512_nt_threshold;
    lines = left > t.avx512_nt_threshold ? steps(left, 256, 257) * 4 : 0;
    return {left, n <= 512 ? Counts{} : string ? Counts{1} : Counts{0, lines, 0, lines * 2}};
  }
  if (name == "__orvex_tvr_avx512_memset") {
    return {n, Counts{n > 256 && n > t.rep_stosb_threshold ? 1u : 0u}};
  }
  left = behind(64);
  lines = left / 512 * 8;
  const bool large = lines != 0 && left >= (fills ? t.l1_quarter : t.copy_nt_threshold);
  const bool owns = name.find("rfo") != std::string_view::npos;
  return {left, Counts{0, large && !owns ? lines : 0, 0, 0, fills ? 0 : lines + (large ? 24 : 0)}};
}

TEST_F(Method, ChangesWhereItShould) {
  Random random(seed_of(1));
  mem::Tuning& tuning = __libkso_mem_tuning;
  for (int round = 0; round < (full_length() ? 4'000 : 200); ++round) {
    for (const Routine& routine : routines) {
      const std::string_view name = routine.name;
      if (!has_features(routine.needs) || name.starts_with("_orvex") || name.starts_with("_VEC")) {
        continue;
      }
      const bool moves = routine.kind == Kind::Move, up = random.one_in(2);
      Byte* const d = target_.begin() + 8192 + random.below(64);
      Call call{routine, target_, d, moves ? target_ : source_, up ? d - 1 : d + 1, 0x11, 0};
      tuning.mem_class = random.one_of({0, 1, 2, 2});
      // Around the sizes that the routines know: multiples of 256, and what follows tails.
      call.n = (random.one_in(6) ? 1100 : random.one_of({124u, 170u, 250u, 505u})) +
               random.below(random.one_in(2) ? 20 : 100);
      if (call.n >= 250 && random.one_in(2)) {
        call.n -= promise_of(call, tuning).first % 256;
      }
      const std::size_t apart = random.one_in(2) ? random.below(70) : call.n + random.below(3) - 1;
      call.s = !moves ? source_.place(random, call.n) : up ? d - apart : d + apart;
      const std::size_t left = promise_of(call, tuning).first;
      tuning = random_tuning(random, random.one_in(4) ? call.n : left, tuning.mem_class);
      ASSERT_TRUE(runs_right(call, run_counted));
      ASSERT_EQ(last_counts(), promise_of(call, tuning).second) << call;
    }
  }
}

// ---- the vector routines and their cache probe --------------------------------------------------

// What the clock tells, and whether the destination counts as cached: a load may take three times
// as long as one that is known to be cached; the second place counts if the first was missed. The
// low 32 bits count, and their differences have a sign.
const std::pair<std::vector<std::uint64_t>, bool> scripts[] = {
    {{0, 1, 4}, true},
    {{0, 1, 5, 10, 11, 14}, true},
    {{0, 1, 5, 10, 11, 15}, false},
    {{0xFFFFFFFF, 0x100000000, 0x100000003, 5, 6, 7}, true},
    {{0xFFFFFFFF, 0x100000000, 0x100000003, 5, 6, 60}, false},
    {{0, 1, 0x80000000, 0, 1, 0x80000000}, false},
    {{0x500000000, 0x600000001, 0x700000004}, true},
};
TEST(CacheProbe, LooksAtTheFirstAndTheLastQuarter) {
  constexpr std::size_t page = 4096;
  const GuardedMemory memory(16 * page);
  ASSERT_EQ(mprotect(memory.begin(), memory.size(), PROT_NONE), 0);
  ASSERT_EQ(mprotect(memory.begin() + 4 * page, page, PROT_READ), 0);
  ASSERT_EQ(mprotect(memory.begin() + 12 * page, page, PROT_READ), 0);
  for (const auto& [ticks, cached] : scripts) {
    next_tick = ticks.data();
    EXPECT_EQ(mem::is_cached(memory.begin(), memory.size(), scripted_clock), cached);
    EXPECT_EQ(next_tick, ticks.data() + ticks.size());
  }
}

TEST_F(Method, VectorRoutinesUseStringsUpToSixteenKibibytesAndThenAskTheClock) {
  const std::pair<std::size_t, std::size_t> rows[] = {
      {16384, 0}, {16385, 0},  {16384, 5},  {16385, 5}, {16395, 5},
      {16396, 5}, {16388, 12}, {16511, 16}, {16589, 1}, {16644, 0}};
  std::size_t number = 0;
  for (const Routine& routine : routines) {
    if (!std::string_view(routine.name).starts_with("_VEC")) {
      continue;
    }
    const std::size_t rest = routine.kind == Kind::Zero ? 1 : 2;
    Call call{routine, target_, target_.begin(), source_, source_.begin() + 3, 0x1AB, 16385};
    // The exported ones read the processor's clock, each time once the loads before it are done.
    next_tick = nullptr;
    ASSERT_TRUE(runs_right(call, run_counted));
    EXPECT_TRUE(last[LoadFence] == 3 || last[LoadFence] == 6) << routine.name;
    EXPECT_EQ(last[VectorStore] + last[NonTemporalStore], 1024u) << routine.name;
    EXPECT_EQ(last_counts(), (Counts{rest, last[NonTemporalStore]})) << routine.name;
    for (const auto& [n, offset] : rows) {
      const auto& [ticks, cached] = scripts[++number % std::size(scripts)];
      next_tick = ticks.data();
      call.d = target_.begin() + offset;
      call.s = source_.begin() + (number % 2 == 0 ? offset : 3);
      call.n = n;
      ASSERT_TRUE(runs_right(call, run_counted));
      const std::size_t head = n > 16384 ? -offset % 16 : 0, left = n - head;
      const bool probed = left > 16384;
      const std::size_t stores = probed ? left / 128 * 8 : 0;
      EXPECT_EQ(last_counts(), (Counts{(head != 0) + (probed ? rest : 2), cached ? 0 : stores}))
          << call;
      // One may save a register around a reading of the clock.
      EXPECT_EQ(last[VectorStore] / 8, cached ? stores / 8 : 0) << call;
      EXPECT_EQ(next_tick, ticks.data() + (probed ? ticks.size() : 0)) << call;
    }
  }
}

TEST_F(Method, StreamingStoresWriteWholeLinesPastTheCache) {
  auto* const context = reinterpret_cast<__libkso_nt_context*>(source_.begin());
  for (std::size_t n = 0; has_features(needs_avx512f) && n < 1100; n += n % 128 == 1 ? 126 : 1) {
    for (const std::size_t line : {32u, 64u}) {
      *context = {{}, target_.begin(), 0, 0};
      last = count_instructions([&] {
        (line == 64 ? __libkso_nontemporal_store_512 : __libkso_nontemporal_store_256)(context, n,
                                                                                       1);
      });
      ASSERT_TRUE(last[NonTemporalStore] == (n < 4 * line ? 0 : n / line) &&
                  last[StoreFence] == 0 && last[ZeroUpper] == 1)
          << n << " bytes in lines of " << line;
    }
  }
}

// No bit of a count is lost: a range of 4 GiB and 40 bytes does not end after 40 bytes.
TEST_F(Method, LongRangesDoNotEndEarly) {
  std::string wrong;
  for (const Routine& routine : routines) {
    for (const std::size_t n : {std::size_t{0x80000028}, std::size_t{0x100000028}}) {
      const Call call{routine, target_, target_.begin(), source_, source_.begin(), 0, n};
      if (has_features(routine.needs)) {
        EXPECT_EXIT(run_plainly(call, wrong), testing::KilledBySignal(SIGSEGV), "") << call;
      }
    }
  }
}

}  // namespace
}  // namespace ksomd::test
