// Which method a memory routine uses: its string instructions, non-temporal stores, fences and
// clearing of upper halves, counted one instruction after the other.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "mem/vector.h"
#include "mem_variants.h"
#include "support/effort.h"
#include "support/guarded_memory.h"
#include "support/instruction_count.h"

namespace ksomd::test {
namespace {

using Kind = InstructionKind;
using Byte = unsigned char;

constexpr std::size_t room = 1 << 18;

class Method : public testing::Test {
 protected:
  void SetUp() override {
    if (!can_single_step()) {
      GTEST_SKIP() << "this process cannot be single-stepped";
    }
    if (!optimized) {
      GTEST_SKIP() << "without optimisation, stores to the stack would be counted too";
    }
    if (sanitized) {
      GTEST_SKIP() << "a sanitizer's own instructions would be counted";
    }
  }

  // Aligned to 4096 both, and more.
  GuardedMemory target_{room}, source_{room};

  InstructionCount copy(mem::CopyRoutine* routine, std::size_t n, std::size_t d = 0,
                        std::size_t s = 0) {
    return count_instructions([&, this] { routine(target_.begin() + d, source_.begin() + s, n); });
  }
  InstructionCount fill(mem::FillRoutine* routine, std::size_t n, std::size_t d = 0) {
    return count_instructions([&, this] { routine(target_.begin() + d, 0x11, n); });
  }
};

struct Expected {
  bool string, non_temporal;
};

void expect_method(const InstructionCount& count, Kind string, const Expected& expected) {
  EXPECT_EQ(count[string], expected.string ? 1u : 0u);
  EXPECT_EQ(count[Kind::NonTemporalStore] != 0, expected.non_temporal);
  EXPECT_EQ(count[Kind::StoreFence], expected.non_temporal ? 1u : 0u);
  EXPECT_TRUE(count.fenced);
  EXPECT_EQ(count.unfenced_stores, 0u);
}

// One switch of a routine: below `size` bytes one method, from it on another.
template <class Routine>
struct Switch {
  const char* name;
  Routine* routine;
  std::uint64_t required;
  mem::Tuning tuning;
  std::size_t size;
  Expected below, from;
};

mem::Tuning with_class(std::int32_t mem_class) {
  mem::Tuning tuning;
  tuning.mem_class = mem_class;
  return tuning;
}

constexpr Expected plain{false, false}, string{true, false}, streaming{false, true};

TEST_F(Method, CopySwitches) {
  const mem::Tuning defaults;
  const mem::Tuning genuine = {65536, 32768, 16384, 8192, 4096, 8192, 98304, 2048, 2};
  const Switch<mem::CopyRoutine> switches[] = {
      {"avx, string", __orvex_avx_rep_memcpy, needs_avx, defaults, 6144, plain, string},
      {"avx, streaming", __orvex_avx_rep_memcpy, needs_avx, defaults, 65536, string, streaming},
      {"avx, genuine", __orvex_avx_rep_memcpy, needs_avx, genuine, 32768, string, streaming},
      // It judges what is left behind the first vector.
      {"avx move", __orvex_avx_memmove, needs_avx2, defaults, 65536 + 32, plain, streaming},
      {"generic, integers", __orvex_new_memcpy, 0, with_class(0), 65537, plain, streaming},
      {"generic, class 1", __orvex_memcpy, 0, with_class(1), 65537, plain, streaming},
      {"generic, SSE2", __orvex_new_memcpy, 0, with_class(2), 65537, plain, streaming},
      {"generic move", __orvex_new_memmove, 0, with_class(2), 65537, plain, streaming},
      {"server, string", __orvex_tvr_avx512_memcpy, needs_avx512f, defaults, 8193, plain, string},
      // Both the count and what is left behind the first vector must be large.
      {"server, strings end", __orvex_tvr_avx512_memcpy, needs_avx512f, defaults, 65536, string,
       plain},
      {"server, streaming", __orvex_tvr_avx512_memcpy, needs_avx512f, defaults, 65536 + 65, plain,
       streaming},
      {"many-core", __orvex_pxn_avx512f_memcpy, needs_avx512f, defaults, 65536, plain, streaming},
      {"many-core, ownership", __orvex_pxn_avx512f_rfo_memcpy, needs_avx512f, defaults, 65536,
       plain, plain},
  };
  for (const auto& s : switches) {
    if (!has_features(s.required)) {
      continue;
    }
    SCOPED_TRACE(s.name);
    const InjectedTuning injected(s.tuning);
    for (const std::size_t source : {0u, 5u}) {
      expect_method(copy(s.routine, s.size - 1, 0, source), Kind::StringMove, s.below);
      expect_method(copy(s.routine, s.size, 0, source), Kind::StringMove, s.from);
    }
  }
}

TEST_F(Method, FillSwitches) {
  const mem::Tuning defaults;
  mem::Tuning genuine = genuine_tuning();
  const Switch<mem::FillRoutine> switches[] = {
      {"avx", __orvex_avx_rep_memset, needs_avx2, defaults, 15360, plain, string},
      // Small ranges never go to the string instruction, a block may.
      {"avx, tiny", __orvex_avx_rep_memset, needs_avx2, uniform_tuning(0), 256, plain, string},
      {"avx, genuine", __orvex_avx_rep_memset, needs_avx2, genuine, 46080, plain, string},
      {"generic, integers", __orvex_new_memset, 0, with_class(0), 131073, plain, streaming},
      {"generic, SSE2", __orvex_memset, 0, with_class(2), 131073, plain, streaming},
      {"server", __orvex_tvr_avx512_memset, needs_avx512bw, defaults, 16385, plain, string},
      {"server, genuine", __orvex_tvr_avx512_memset, needs_avx512bw, genuine, 2049, plain, string},
      {"many-core", __orvex_pxn_avx512f_memset, needs_avx512f, defaults, 4096, plain, streaming},
      {"many-core, ownership", __orvex_pxn_avx512f_rfo_memset, needs_avx512f, defaults, 4096, plain,
       plain},
  };
  for (const auto& s : switches) {
    if (!has_features(s.required)) {
      continue;
    }
    SCOPED_TRACE(s.name);
    const InjectedTuning injected(s.tuning);
    expect_method(fill(s.routine, s.size - 1), Kind::StringFill, s.below);
    expect_method(fill(s.routine, s.size), Kind::StringFill, s.from);
  }
}

// The count that is judged is the one behind the alignment of the destination.
TEST_F(Method, AlignmentCountsBeforeTheSwitch) {
  if (!has_features(needs_avx2)) {
    GTEST_SKIP() << "needs AVX2";
  }
  const InjectedTuning injected({});
  expect_method(copy(__orvex_avx_rep_memcpy, 6144 + 30, 1), Kind::StringMove, plain);
  expect_method(copy(__orvex_avx_rep_memcpy, 6144 + 31, 1), Kind::StringMove, string);
  expect_method(fill(__orvex_avx_rep_memset, 15360 + 30, 1), Kind::StringFill, plain);
  expect_method(fill(__orvex_avx_rep_memset, 15360 + 31, 1), Kind::StringFill, string);
  expect_method(copy(__orvex_new_memcpy, 65536 + 7, 1), Kind::StringMove, plain);
  expect_method(copy(__orvex_new_memcpy, 65537 + 7, 1), Kind::StringMove, streaming);
}

TEST_F(Method, LastBytesOfALargeCopyStayInTheCache) {
  const InjectedTuning injected({});
  const struct {
    const char* name;
    mem::CopyRoutine* routine;
    std::size_t lead;  // what goes before the loop
  } cases[] = {{"copy", __orvex_avx_rep_memcpy, 0}, {"move", __orvex_avx_memmove, 32}};
  for (const auto& [name, routine, lead] : cases) {
    for (std::size_t n = 65536 + lead; has_features(needs_avx2) && n < 65536 + lead + 600;
         n += 37) {
      const std::size_t rest = n - lead - 32 * copy(routine, n)[Kind::NonTemporalStore];
      EXPECT_TRUE(rest >= 512 && rest <= 767) << name << " of " << n << ": " << rest;
    }
  }
}

TEST_F(Method, OnlyTheAvxMoveStreamsDownward) {
  const InjectedTuning injected(with_class(2));
  const auto down = [this](mem::CopyRoutine* routine) {
    return count_instructions(
        [&, this] { routine(source_.begin() + 100, source_.begin(), 100'000); });
  };
  EXPECT_EQ(down(__orvex_new_memmove)[Kind::NonTemporalStore], 0u);
  if (has_features(needs_avx2)) {
    expect_method(down(__orvex_avx_memmove), Kind::StringMove, streaming);
  }
}

TEST_F(Method, UpperHalvesAreClearedAsPromised) {
  for (const std::size_t n :
       {std::size_t{0}, std::size_t{1}, std::size_t{20}, std::size_t{40}, std::size_t{100},
        std::size_t{300}, std::size_t{3000}, std::size_t{20000}, std::size_t{70000}}) {
    const InjectedTuning injected({});
    for (const auto& routine : copy_routines) {
      const std::string name = routine.name;
      if (!routine.available() || routine.required == 0) {
        continue;
      }
      EXPECT_EQ(copy(routine.routine, n)[Kind::ZeroUpper] != 0,
                name.find("pxn") == std::string::npos)
          << name << " of " << n;
    }
    for (const auto& routine : fill_routines) {
      const std::string name = routine.name;
      if (!routine.available() || routine.required == 0) {
        continue;
      }
      EXPECT_EQ(fill(routine.routine, n)[Kind::ZeroUpper] != 0,
                name.find("pxn") == std::string::npos)
          << name << " of " << n;
    }
  }
}

TEST_F(Method, VectorRoutinesUseStringsUpToSixteenKibibytes) {
  EXPECT_EQ(copy(_VEC_memcpy, 16384)[Kind::VectorStore], 0u);
  EXPECT_EQ(copy(_VEC_memcpy, 16384)[Kind::StringMove], 2u);
  EXPECT_EQ(fill(_VEC_memset, 16384)[Kind::VectorStore], 0u);
  for (const std::size_t s : {0u, 5u}) {
    const InstructionCount count = copy(_VEC_memcpy, 16385 + 64, 0, s);
    EXPECT_EQ(count[Kind::VectorStore] + count[Kind::NonTemporalStore], 16384u / 16) << s;
    EXPECT_EQ(count.unfenced_stores, 0u);
    EXPECT_TRUE(count.fenced);
  }
  // 11 bytes first; the rest is below the limit then.
  EXPECT_EQ(copy(_VEC_memcpy, 16385, 5, 5)[Kind::VectorStore], 0u);
  EXPECT_EQ(copy(_VEC_memcpy, 16385, 5, 5)[Kind::StringMove], 3u);
}

// The probe's two answers: loads that all take as long, and loads that take ever longer.
std::uint64_t even_clock() {
  return 0;
}
std::uint64_t now = 0;
std::uint64_t slowing_clock() {
  now = now * 8 + 1;
  return now & 0xFFFFFF;
}

// Where the probe looks, and what it makes of the clock: a load may take three times as long as one
// that is known to be cached; the second place counts if the first was missed.
TEST(CacheProbe, LooksAtTheFirstAndTheLastQuarter) {
  constexpr std::size_t page = 4096, bytes = 16 * page;
  const GuardedMemory memory(bytes);
  ASSERT_EQ(reinterpret_cast<std::uintptr_t>(memory.begin()) % page, 0u);
  const auto protect = [&](std::size_t first, std::size_t pages, int access) {
    ASSERT_EQ(mprotect(memory.begin() + first * page, pages * page, access), 0);
  };
  protect(0, 16, PROT_NONE);
  protect(4, 1, PROT_READ);
  protect(12, 1, PROT_READ);
  const struct {
    std::vector<std::uint64_t> ticks;
    bool cached;
  } rows[] = {
      {{0, 1, 4}, true},
      {{0, 2, 8}, true},
      {{0, 1, 5, 10, 11, 14}, true},
      {{0, 1, 5, 10, 11, 15}, false},
      // the low 32 bits count, with their sign
      {{0xFFFFFFFF, 0x100000000, 0x100000003, 5, 6, 7}, true},
      {{0xFFFFFFFF, 0x100000000, 0x100000003, 5, 6, 60}, false},
      {{0x500000000, 0x600000001, 0x700000004}, true},
  };
  for (const auto& row : rows) {
    std::size_t reads = 0;
    EXPECT_EQ(mem::is_cached(memory.begin(), bytes, [&] { return row.ticks.at(reads++); }),
              row.cached);
    EXPECT_EQ(reads, row.ticks.size());
  }
  protect(0, 16, PROT_READ | PROT_WRITE);
}

TEST_F(Method, VectorRoutinesStoreAsTheProbeSays) {
  for (const bool cached : {true, false}) {
    const auto clock = cached ? even_clock : slowing_clock;
    for (const std::size_t s : {0u, 5u}) {
      now = 0;
      for (std::size_t i = 0; i < 20'100; ++i) {
        source_.begin()[i] = static_cast<Byte>(i * 7 >> 3);
      }
      std::memset(target_.begin(), 0, 20'100);
      const std::size_t n = 16384 + 128 * 3 + 77;
      const InstructionCount count = count_instructions(
          [&, this] { mem::copy_by_clock(target_.begin(), source_.begin() + s, n, clock); });
      expect_method(count, Kind::StringFill, {false, !cached});
      EXPECT_EQ(count[cached ? Kind::VectorStore : Kind::NonTemporalStore], n / 128 * 8);
      EXPECT_EQ(std::memcmp(target_.begin(), source_.begin() + s, n), 0);
      EXPECT_EQ(target_.begin()[n], 0);
    }
    // One string instruction for the rest of a zeroed range, two for that of a filled one.
    const std::size_t n = 16384 + 128 + 77;
    for (const bool zero : {true, false}) {
      now = 0;
      const InstructionCount count = count_instructions([&, this] {
        zero ? mem::zero_by_clock(target_.begin(), n, clock)
             : mem::fill_by_clock(target_.begin(), 0x1AB, n, clock);
      });
      expect_method(count, Kind::StringMove, {false, !cached});
      EXPECT_EQ(count[Kind::StringFill], zero ? 1u : 2u);
      EXPECT_EQ(count[cached ? Kind::VectorStore : Kind::NonTemporalStore], n / 128 * 8);
      EXPECT_TRUE(std::all_of(target_.begin(), target_.begin() + n,
                              [&](Byte byte) { return byte == (zero ? 0 : 0xAB); }));
    }
  }
}

TEST_F(Method, ChunksOfFourLinesStream) {
  struct {
    void (*routine)(__libkso_nt_context*, std::size_t, int);
    std::size_t line;
    std::uint64_t needs;
  } const cases[] = {{__libkso_nontemporal_store_256, 32, needs_avx},
                     {__libkso_nontemporal_store_512, 64, needs_avx512f}};
  for (const auto& [routine, line, needs] : cases) {
    for (const std::size_t n : {4 * line - 1, 4 * line}) {
      if (!has_features(needs)) {
        continue;
      }
      struct {
        __libkso_nt_context context;
        Byte chunk[256];
      } stream = {};
      stream.context.destination = target_.begin();
      const InstructionCount count = count_instructions([&] { routine(&stream.context, n, 1); });
      EXPECT_EQ(count[Kind::NonTemporalStore], n == 4 * line ? 4u : 0u) << line;
    }
  }
}

TEST_F(Method, LaterCallsOfADispatchedRoutineGoStraightToTheVariant) {
  _orvex_fast_memcpy(target_.begin(), source_.begin(), 8);
  const auto steps = [this](mem::CopyRoutine* routine) {
    const InstructionCount count = copy(routine, 8);
    std::size_t sum = 0;
    for (const std::size_t executed : count.executed) {
      sum += executed;
    }
    return sum;
  };
  // One load, one test, one branch, one jump.
  EXPECT_LE(steps(_orvex_fast_memcpy), steps(__orvex_fast_memcpy_slot) + 4);
}

}  // namespace
}  // namespace ksomd::test
