// What the exported memory routines leave in memory and in registers, wherever the ranges lie.
#include <algorithm>

#include "mem/routines.h"

namespace ksomd::test {
namespace {

// Where the sign of a narrow address changes.
constexpr std::uintptr_t boundaries[] = {std::uintptr_t{1} << 31, std::uintptr_t{1} << 32};
constexpr std::size_t room = 6 * 65536;

// Every size up to 600 in turn; one in eight is longer, some of them near the limit of the string
// instructions.
std::size_t size_of(Random& random, std::size_t round) {
  return round % 8 != 7     ? (round / 8 * 7 + round % 8) % 601
         : random.one_in(3) ? 16'300 + random.below(400)
                            : random.below(random.one_in(30) ? room - 1000 : 20'000);
}

TEST(MemSweep, CopiesMovesAndFills) {
  Sweep sweep("mem.bytes");
  Range target(4 * room, boundaries[0]), source(2 * room, boundaries[1]);
  for (const Routine& routine : routines) {
    EXPECT_EQ(entry<AnyRoutine>(routine.second_name), routine.address) << routine.second_name;
  }
  for (const std::size_t round : sweep.rounds(2'000, 60'000)) {
    const std::size_t n = size_of(sweep.random, round);
    const std::size_t left = n - std::min<std::size_t>(n, sweep.random.below(97));
    // Those of the archive: the shared library has its own.
    __libkso_mem_tuning = random_tuning(sweep.random, left, sweep.random.one_of({0, 1, 2, 2}));
    // What other routines this processor has must not matter to the first.
    std::uint64_t seed = sweep.random.next();
    for (const Routine& routine : routines) {
      Random random(seed++);
      if (!has_features(routine.needs)) {
        continue;
      }
      const auto value = static_cast<int>(random.next());
      const Call call{routine, target, target.place(random, n), source, source.place(random, n),
                      value,   n};
      ASSERT_TRUE(runs_right(call, random.one_in(8) ? run_watched : run_plainly));
      if (routine.kind == Kind::Move) {
        std::size_t apart = random.one_of<std::size_t>({0, 0, 128, n / 2});
        apart += random.below(apart == 0 ? 65 : n / 2 + 2);
        const std::size_t up = random.one_in(2) ? apart : 0;
        Byte* const lower = target.place(random, n + apart);
        ASSERT_TRUE(runs_right({routine, target, lower + up, target, lower + apart - up, 0, n}));
      }
      if (&routine == routines) {
        sweep.results(call.d, std::min<std::size_t>(n, 200));
      }
    }
  }
  EXPECT_TRUE(target.holds(target.begin(), target.expected.size()));
  EXPECT_TRUE(source.holds(source.begin(), source.expected.size()));
}

// The generic comparison reads nothing beyond the 16 bytes, counted from the beginning, in which
// the first difference lies: the ranges may end there, whatever the count says.
TEST(MemSweep, Comparisons) {
  Sweep sweep("mem.compare");
  // Their ends are ends of pages, but not of any larger unit.
  Range first(65536 + 5 * 4096, boundaries[0]), second(65536 + 7 * 4096, boundaries[1]);
  for (const std::size_t round : sweep.rounds(3'000, 150'000)) {
    Random& random = sweep.random;
    const std::size_t n = random.one_in(3) ? random.below(150)
                                           : std::min<std::size_t>(size_of(random, round), 20'000);
    const bool cut = n != 0 && random.one_in(2), differ = cut || (n != 0 && !random.one_in(4));
    const std::size_t readable = cut ? (n + 15) / 16 * 16 : n;
    const std::size_t absurd = cut && random.one_in(4) ? std::size_t{1} << random.below(62) : 0;
    const std::size_t longer = std::max(absurd, readable + (cut ? random.below(300) : 0));
    Byte* const a = first.place(random, readable);
    Byte* const b = second.place(random, readable);
    std::copy_n(first.expected_at(a), readable, a);
    std::copy_n(a, readable, b);
    if (differ) {
      const std::size_t reach = random.one_in(2) ? readable : std::min<std::size_t>(readable, 40);
      const std::size_t after = random.below(reach);
      Byte* const place = a + readable - 1 - after;
      // What follows the difference says anything, and must not matter.
      std::generate_n(place, std::min<std::size_t>(after + 1, random.one_in(2) ? 1 : 20),
                      [&random] { return random.next(); });
      *place = static_cast<Byte>(b[place - a] ^ (1 + random.below(255)));
    }
    const int difference = std::memcmp(a, b, readable);
    const int expected = (difference > 0) - (difference < 0);
    for (const auto& [name, count] :
         {std::pair{"_orvex_fast_memcmp", readable}, {"__orvex_new_memcmp", longer}}) {
      auto* const compare = entry<int(const void*, const void*, std::size_t)>(name);
      ASSERT_TRUE(compare(a, b, count) == expected && compare(b, a, count) == -expected)
          << name << "(end - " << first.end() - a << ", end - " << second.end() - b << ", " << count
          << "), " << readable << " readable, should give " << expected;
      ASSERT_EQ(round % 8 == 0 ? what_call_changes(compare, a, b, count) : "", "") << name;
    }
    sweep.result(expected);
  }
}

// Streams chunks to one range until one is the last. `line` is 0 if the processor chooses.
// The choices do not depend on what it chose.
void check_stream(Random random, const std::string& suffix, std::size_t line, Range& target,
                  Sweep& sweep) {
  const std::string name = "__libkso_nontemporal_store";
  const auto fixed = entry<mem::StreamRoutine>(name + suffix);
  const auto dynamic = entry<mem::DynamicStreamRoutine>(name + "_dynamic" + suffix);
  static const GuardedMemory chunks(4096);
  const std::size_t limit = 1 + random.below(5000);
  Byte* const out = target.place(random, 8000);
  __libkso_nt_context context{{}, out, 0, 0};
  std::size_t handed = 0;
  while (handed < limit) {
    const std::size_t n = random.below(random.one_of({40u, 300u, 700u, 1600u}));
    const bool by_flag = random.one_in(2);
    const int plain = by_flag && random.one_in(2) && context.pending == 0 ? -1 : 0;
    if (context.pending == 0) {
      const std::uint64_t offset = reinterpret_cast<std::uintptr_t>(context.destination) % 64;
      context.head_offset = offset + random.below(3) * 64;
    }
    // The chunk ends where nothing may be read.
    auto* const placed =
        reinterpret_cast<__libkso_nt_context*>(chunks.end() - (sizeof context + n + 7) / 8 * 8);
    auto* const chunk = reinterpret_cast<Byte*>(placed + 1);
    std::generate_n(chunk, n, [&] { return random.next(); });
    std::copy_n(chunk, n, target.expected_at(out) + handed);
    handed += n;
    const int final = handed >= limit ? -1 : 0;
    *placed = context;
    placed->pending = plain != 0 ? 9 : context.pending;  // which that way does not look at
    ASSERT_EQ(by_flag ? what_call_changes(dynamic, placed, n, final, plain)
                      : what_call_changes(fixed, placed, n, final),
              "");
    if (plain != 0) {
      ASSERT_TRUE(placed->pending == 9 && placed->head_offset == context.head_offset &&
                  std::memcmp(placed->staging, context.staging, sizeof context.staging) == 0);
      placed->pending = 0;
    } else if (line != 0) {
      const bool streams = n >= 4 * line;
      const std::size_t head = context.head_offset == 0 ? 0 : line - context.head_offset % line;
      const std::size_t rest = streams && final == 0 ? (n + context.pending - head) % line : 0;
      ASSERT_TRUE(placed->head_offset == (streams ? 0 : context.head_offset) &&
                  placed->pending == rest);
    }
    context = *placed;
    ASSERT_TRUE(context.destination == out + handed - context.pending &&
                std::memcmp(context.staging, chunk + n - context.pending, context.pending) == 0);
  }
  ASSERT_TRUE(context.pending == 0 && target.holds(out, handed));
  sweep.results(out, line == 0 ? std::min<std::size_t>(handed, 100) : 0);
}

TEST(MemSweep, StreamingStores) {
  Sweep sweep("mem.stream");
  Range target(16384);
  for ([[maybe_unused]] const std::size_t round : sweep.rounds(200, 5'000)) {
    for (const auto& [suffix, line, needs] :
         {std::tuple{"", 0u, needs_sse2}, {"_256", 32u, needs_avx}, {"_512", 64u, needs_avx512f}}) {
      const Random random(sweep.random.next());
      if (has_features(needs)) {
        ASSERT_NO_FATAL_FAILURE(check_stream(random, suffix, line, target, sweep)) << suffix;
      }
    }
  }
}

}  // namespace
}  // namespace ksomd::test
