// What the memory routines leave in memory: every routine by its own name against bytes copied one
// by one, between pages that fault.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <random>
#include <set>

#include "mem_variants.h"
#include "support/effort.h"
#include "support/guarded_memory.h"
#include "support/seed.h"

namespace ksomd::test {
namespace {

using Byte = unsigned char;

constexpr Byte canary = 0xC5;
constexpr std::size_t margin = 192;

// Two ranges between guard pages, and what the destination should hold.
class Arena {
 public:
  explicit Arena(std::size_t size) : source_(size), target_(size) {
    std::mt19937_64 random(size);
    std::generate(source_.begin(), source_.end(), [&] { return static_cast<Byte>(random()); });
    std::memset(target_.begin(), canary, target_.size());
  }
  const GuardedMemory& source() const { return source_; }
  const GuardedMemory& target() const { return target_; }

  // Whether exactly the n bytes at d hold what `expected` gives; restores the canaries.
  template <class Expected>
  bool check(Byte* d, std::size_t n, Expected&& expected) {
    Byte* const from =
        d - std::min<std::size_t>(margin, static_cast<std::size_t>(d - target_.begin()));
    Byte* const to =
        d + n + std::min<std::size_t>(margin, static_cast<std::size_t>(target_.end() - d) - n);
    const auto is_canary = [](Byte byte) { return byte == canary; };
    const bool good =
        std::all_of(from, d, is_canary) && std::all_of(d + n, to, is_canary) && expected(d);
    std::memset(from, canary, static_cast<std::size_t>(to - from));
    return good;
  }

 private:
  GuardedMemory source_, target_;
};

struct Placement {
  std::size_t d, s;  // bytes from the beginning, or left at the end
  bool at_end;
};

template <class Range>
Byte* place(const Range& memory, std::size_t n, std::size_t offset, bool at_end) {
  return at_end ? memory.end() - n - offset : memory.begin() + offset;
}

void check_copy(const NamedRoutine<mem::CopyRoutine>& copy, Arena& arena, std::size_t n,
                const Placement& where) {
  Byte* const d = place(arena.target(), n, where.d, where.at_end);
  const Byte* const s = place(arena.source(), n, where.s, where.at_end);
  void* const result = copy.routine(d, s, n);
  const bool good = arena.check(d, n, [&](const Byte* p) { return std::memcmp(p, s, n) == 0; });
  ASSERT_TRUE(good && result == d) << copy.name << " of " << n << " bytes, offsets " << where.d
                                   << ", " << where.s << (where.at_end ? " at the end" : "");
}

void check_fill(const NamedRoutine<mem::FillRoutine>& fill, Arena& arena, std::size_t n,
                const Placement& where, int value) {
  Byte* const d = place(arena.target(), n, where.d, where.at_end);
  void* const result = fill.routine(d, value, n);
  const bool good = arena.check(d, n, [&](const Byte* p) {
    return std::all_of(p, p + n, [&](Byte byte) { return byte == static_cast<Byte>(value); });
  });
  ASSERT_TRUE(good && result == d) << fill.name << " of " << n << " bytes with " << value
                                   << ", offset " << where.d << (where.at_end ? " at the end" : "");
}

// Offsets that cover 0 to 63 on both sides, equal and unequal ones.
std::vector<Placement> placements() {
  std::vector<Placement> result;
  for (const bool at_end : {false, true}) {
    for (std::size_t d = 0; d < 64; ++d) {
      result.push_back({d, (d * 11 + 5) % 64, at_end});
    }
    for (std::size_t i = 0; i < 64; i += 9) {
      result.push_back({i, i, at_end});
      result.push_back({0, i, at_end});
    }
  }
  return result;
}

// Sizes around everything at which a routine changes its method under these tuning values.
std::vector<std::size_t> switch_sizes(const mem::Tuning& t, std::size_t limit) {
  std::set<std::size_t> sizes;
  const std::uint64_t switches[] = {176,
                                    256,
                                    512,
                                    768,
                                    1024,
                                    16384,
                                    16384 + 128,
                                    t.largest_cache_size,
                                    t.copy_nt_threshold,
                                    t.l1_size - t.l1_size / 16,
                                    t.l1_half - t.l1_half / 4,
                                    t.l1_quarter,
                                    t.rep_movsb_threshold,
                                    t.avx512_nt_threshold,
                                    t.rep_stosb_threshold};
  for (const std::uint64_t size : switches) {
    for (const std::uint64_t aligned :
         {std::uint64_t{0}, std::uint64_t{8}, std::uint64_t{37}, std::uint64_t{64}}) {
      for (std::uint64_t n = size + aligned - 1; n != size + aligned + 2; ++n) {
        if (n <= limit) {
          sizes.insert(n);
        }
      }
    }
  }
  return {sizes.begin(), sizes.end()};
}

// Some, for the costlier sweeps.
const Placement few_placements[] = {
    {0, 0, false}, {1, 0, true}, {0, 3, true}, {27, 59, false}, {33, 1, true}};

class MemoryRoutines : public testing::TestWithParam<NamedTuning> {
 protected:
  InjectedTuning injected_{GetParam().tuning};
};

TEST_P(MemoryRoutines, CopyEverySizeAtEveryAlignment) {
  Arena arena(4096);
  const auto all = placements();
  for (const auto& copy : copy_routines) {
    for (std::size_t n = 0; copy.available() && n <= 1024; ++n) {
      // Every alignment for short sizes; every third placement, shifting, for longer ones.
      for (std::size_t i = n <= 300 ? 0 : n % 3; i < all.size(); i += n <= 300 ? 1 : 3) {
        ASSERT_NO_FATAL_FAILURE(check_copy(copy, arena, n, all[i]));
      }
    }
  }
}

TEST_P(MemoryRoutines, FillEverySizeAtEveryAlignment) {
  Arena arena(4096);
  for (const auto& fill : fill_routines) {
    for (std::size_t n = 0; fill.available() && n <= 1024; ++n) {
      for (std::size_t d = 0; d < 64; d += n <= 300 ? 1 : 3) {
        ASSERT_NO_FATAL_FAILURE(check_fill(fill, arena, n, {d, 0, (n & 1) != 0}, 0x141));
        ASSERT_NO_FATAL_FAILURE(check_fill(fill, arena, n, {d, 0, (n & 1) == 0}, -2));
      }
    }
  }
}

TEST_P(MemoryRoutines, CopyAndFillAroundEverySwitch) {
  const std::size_t limit = full_length() ? 40'000'000 : 400'000;
  const auto sizes = switch_sizes(GetParam().tuning, limit);
  Arena arena(sizes.back() + 4096);
  for (const std::size_t n : sizes) {
    for (const Placement& where : few_placements) {
      for (const auto& copy : copy_routines) {
        if (copy.available()) {
          ASSERT_NO_FATAL_FAILURE(check_copy(copy, arena, n, where));
        }
      }
      for (const auto& fill : fill_routines) {
        if (fill.available()) {
          ASSERT_NO_FATAL_FAILURE(check_fill(fill, arena, n, where, 0x5A));
        }
      }
    }
  }
}

TEST_P(MemoryRoutines, MovesOfOverlappingRanges) {
  constexpr std::size_t room = 3 * 140'000;
  GuardedMemory memory(room);
  std::vector<Byte> before(memory.size()), expected(memory.size());
  std::mt19937_64 random(seed_of(7));
  std::generate(before.begin(), before.end(), [&] { return static_cast<Byte>(random()); });
  std::set<std::size_t> sizes;
  for (std::size_t n = 0; n <= 320; n += n < 64 ? 1 : 7) {
    sizes.insert(n);
  }
  for (const std::size_t n :
       std::initializer_list<std::size_t>{144, 145, 255, 256, 257, 288, 289, 511, 767, 768, 800,
                                          1000, 1111, 5000, 16384, 66000, 132000}) {
    sizes.insert(n);
  }
  for (const auto& move : copy_routines) {
    if (!move.overlap || !move.available()) {
      continue;
    }
    for (const std::size_t n : sizes) {
      const auto half = static_cast<std::ptrdiff_t>(n / 2);
      std::vector<std::ptrdiff_t> distances{-half, half};
      const std::ptrdiff_t stride = n > 2000 ? 13 : 1;
      for (std::ptrdiff_t distance = -64; distance <= 64; distance += stride) {
        distances.push_back(distance);
      }
      for (const std::ptrdiff_t distance : distances) {
        // The lower range begins, and the higher one ends, where the page does.
        const std::size_t apart = static_cast<std::size_t>(std::abs(distance));
        const bool at_end = (distance & 1) != 0;
        const std::size_t lower = at_end ? memory.size() - n - apart : 0;
        const std::size_t s = lower + (distance < 0 ? apart : 0),
                          d = lower + (distance < 0 ? 0 : apart);
        std::memcpy(memory.begin() + lower, before.data() + lower, n + apart);
        expected.assign(before.begin() + static_cast<std::ptrdiff_t>(lower),
                        before.begin() + static_cast<std::ptrdiff_t>(lower + n + apart));
        std::memmove(expected.data() + (d - lower), before.data() + s, n);
        void* const result = move.routine(memory.begin() + d, memory.begin() + s, n);
        ASSERT_TRUE(result == memory.begin() + d &&
                    std::memcmp(memory.begin() + lower, expected.data(), n + apart) == 0)
            << move.name << " of " << n << " bytes by " << distance << " from " << s;
      }
    }
  }
}

// Above the size of a vector a move onto itself touches nothing: the memory need not be there.
TEST(MemoryRoutines, MovesOntoThemselvesReturnAtOnce) {
  if (!has_features(needs_avx2)) {
    GTEST_SKIP() << "needs AVX2";
  }
  const GuardedMemory memory(4096);
  for (const std::size_t n :
       std::initializer_list<std::size_t>{33, 64, 65, 255, 256, 257, 5000, 100'000}) {
    EXPECT_EQ(__orvex_avx_memmove(memory.end(), memory.end(), n), memory.end()) << n;
  }
}

INSTANTIATE_TEST_SUITE_P(Tunings, MemoryRoutines, testing::ValuesIn(interesting_tunings()),
                         [](const auto& tuning) { return std::to_string(tuning.index); });

TEST(MemoryRoutines, RangesAcrossTheSignBitsOfAddresses) {
  for (const std::uint64_t boundary : {std::uint64_t{1} << 31, std::uint64_t{1} << 32}) {
    GuardedMemory memory(2 * 131072, reinterpret_cast<void*>(boundary - 131072));
    if (!memory) {
      GTEST_SKIP() << "no memory at " << std::hex << boundary;
    }
    std::vector<Byte> before(memory.size());
    for (std::size_t i = 0; i < before.size(); ++i) {
      before[i] = static_cast<Byte>(i * 167 >> 4);
    }
    Arena apart(131072);
    for (const std::size_t n : std::initializer_list<std::size_t>{40, 200, 700, 20000, 100000}) {
      const std::size_t s = 131072 - n / 2;
      // The destination across the boundary, then the source.
      for (const auto& copy : copy_routines) {
        if (!copy.available()) {
          continue;
        }
        std::memset(memory.begin(), 0, memory.size());
        copy.routine(memory.begin() + s, before.data(), n);
        ASSERT_EQ(std::memcmp(memory.begin() + s, before.data(), n), 0) << copy.name << ' ' << n;
        ASSERT_TRUE(memory.begin()[s - 1] == 0 && memory.begin()[s + n] == 0) << copy.name;
        Byte* const d = apart.target().begin() + margin;
        copy.routine(d, memory.begin() + s, n);
        ASSERT_TRUE(
            apart.check(d, n, [&](const Byte* p) { return std::memcmp(p, before.data(), n) == 0; }))
            << copy.name << ' ' << n;
      }
      EXPECT_EQ(_orvex_fast_memcmp(memory.begin() + s, before.data(), n), 0);
      EXPECT_EQ(__orvex_new_memcmp(memory.begin() + s, before.data(), n), 0);
      for (const auto& fill : fill_routines) {
        if (!fill.available()) {
          continue;
        }
        std::memset(memory.begin(), 0, memory.size());
        fill.routine(memory.begin() + s, 0x61, n);
        ASSERT_EQ(std::count(memory.begin(), memory.end(), Byte{0x61}),
                  static_cast<std::ptrdiff_t>(n))
            << fill.name;
        ASSERT_TRUE(memory.begin()[s] == 0x61 && memory.begin()[s + n - 1] == 0x61) << fill.name;
      }
      for (const auto& copy : copy_routines) {
        for (const std::ptrdiff_t distance : {-33, 33}) {
          if (!copy.available() || !copy.overlap) {
            continue;
          }
          std::memcpy(memory.begin(), before.data(), before.size());
          const std::size_t d = static_cast<std::size_t>(static_cast<std::ptrdiff_t>(s) + distance);
          copy.routine(memory.begin() + d, memory.begin() + s, n);
          std::vector<Byte> expected = before;
          std::memmove(expected.data() + d, before.data() + s, n);
          ASSERT_EQ(std::memcmp(memory.begin(), expected.data(), expected.size()), 0)
              << copy.name << " of " << n << " by " << distance;
        }
      }
    }
  }
}

TEST(MemoryRoutines, OneCopyAboveFourGigabytes) {
  if (!full_length()) {
    GTEST_SKIP() << "needs 8.1 GiB of memory: run at full length";
  }
  constexpr std::size_t n = (std::size_t{1} << 32) + 12345;
  GuardedMemory source(n), target(n);
  if (!source || !target) {
    GTEST_SKIP() << "the system has no 8.1 GiB";
  }
  for (std::size_t i = 0; i < n; i += 4096) {
    source.begin()[i] = static_cast<Byte>(i >> 12 ^ i >> 20);
  }
  source.begin()[n - 1] = 0x77;
  _orvex_fast_memcpy(target.begin(), source.begin(), n);
  EXPECT_EQ(std::memcmp(target.begin(), source.begin(), n), 0);
  EXPECT_EQ(_orvex_fast_memcmp(target.begin(), source.begin(), n), 0);
}

TEST(VectorRoutines, ZeroFillIgnoresItsSecondArgument) {
  Arena arena(70000);
  const NamedRoutine<mem::FillRoutine> zero{
      "_VEC_memzero", [](void* d, int, std::size_t n) { return __orvex_VEC_memzero(d, 0x55, n); },
      0};
  for (const std::size_t n : std::initializer_list<std::size_t>{
           0, 1, 7, 8, 9, 127, 128, 16383, 16384, 16385, 16399, 16400, 17000, 40000, 65536 + 77}) {
    for (std::size_t offset = 0; offset < 20; ++offset) {
      ASSERT_NO_FATAL_FAILURE(check_fill(zero, arena, n, {offset, 0, offset % 2 != 0}, 0));
    }
  }
}

struct CompareRoutine {
  const char* name;
  int (*routine)(const void*, const void*, std::size_t);
};
const CompareRoutine compare_routines[] = {{"_orvex_fast_memcmp", _orvex_fast_memcmp},
                                           {"__orvex_new_memcmp", __orvex_new_memcmp}};

TEST(Compare, EverySizeAndPlaceOfADifference) {
  GuardedMemory first(4096), second(4096);
  std::mt19937 random(seed_of(3));
  for (const CompareRoutine& compare : compare_routines) {
    for (std::size_t n = 0; n <= 300; ++n) {
      for (std::size_t offset = 0; offset < 64; offset += 7) {
        Byte* const a = first.end() - n - offset;
        Byte* const b = second.begin() + (offset * 5) % 64;
        for (std::size_t i = 0; i < n; ++i) {
          a[i] = b[i] = static_cast<Byte>(random());
        }
        ASSERT_EQ(compare.routine(a, b, n), 0) << compare.name << ' ' << n;
        for (std::size_t place = n % 3; place < n; place += 1 + place / 40) {
          const Byte saved = a[place];
          // What follows the first difference says the opposite, and must not matter.
          const std::size_t later = place + 1 + (place * 7) % 24;
          const Byte saved_later = later < n ? a[later] : Byte{0};
          for (const auto& [x, y] :
               {std::pair<int, int>{0x80, 0x7F}, {0x7F, 0x80}, {0xFF, 0}, {0, 1}}) {
            a[place] = static_cast<Byte>(x);
            const Byte other = b[place];
            b[place] = static_cast<Byte>(y);
            ASSERT_EQ(compare.routine(a, b, n), x > y ? 1 : -1)
                << compare.name << " of " << n << " bytes, only difference at " << place;
            if (later < n) {
              a[later] = static_cast<Byte>(x > y ? b[later] - 1 : b[later] + 1);
              ASSERT_EQ(compare.routine(a, b, n), x > y ? 1 : -1)
                  << compare.name << " of " << n << " bytes, difference at " << place;
              a[later] = saved_later;
            }
            b[place] = other;
          }
          a[place] = saved;
        }
      }
    }
  }
}

TEST(Compare, LongRangesDifferInOneByte) {
  constexpr std::size_t n = 20000;
  GuardedMemory first(n + 64), second(n + 64);
  for (const CompareRoutine& compare : compare_routines) {
    for (const std::size_t offset : std::initializer_list<std::size_t>{0, 1, 8, 13}) {
      Byte* const a = first.end() - n - offset;
      Byte* const b = second.end() - n;
      // Every byte around the ends of pages of b, some elsewhere.
      const auto step = [](std::size_t place) {
        const std::size_t to_page_end = (n - place) % 4096;
        return to_page_end < 160 || to_page_end > 4096 - 160 ? std::size_t{1} : 61;
      };
      for (std::size_t place = 0; place < n; place += step(place)) {
        a[place] = 1;
        ASSERT_EQ(compare.routine(a, b, n), 1) << compare.name << ' ' << place;
        ASSERT_EQ(compare.routine(b, a, n), -1) << compare.name << ' ' << place;
        a[place] = 0;
      }
      ASSERT_EQ(compare.routine(a, b, n), 0);
    }
  }
}

// Bytes behind the first difference may lie in memory that cannot be read: only the 16 bytes in
// which it lies are, whichever of the two ranges ends first and wherever the other one lies.
TEST(Compare, ReadsNothingBeyondTheDifference) {
  GuardedMemory first(4096), second(8192);
  for (const std::size_t reach :
       std::initializer_list<std::size_t>{16, 32, 48, 64, 80, 112, 128, 160, 256, 1024, 4096}) {
    Byte* const a = first.end() - reach;
    for (Byte* const b : {second.end() - reach, second.begin() + 77, second.begin() + 4090}) {
      if (b + reach > second.end()) {
        continue;
      }
      for (std::size_t place = 0; place < reach; place += reach > 300 ? 37 : 1) {
        a[place] = 1;
        for (const std::size_t n :
             {reach, reach + 1, reach + 40, reach + 100, reach + 1000, std::size_t{1} << 40}) {
          ASSERT_EQ(_orvex_fast_memcmp(a, b, n), 1) << reach << ' ' << place << ' ' << n;
          ASSERT_EQ(_orvex_fast_memcmp(b, a, n), -1) << reach << ' ' << place << ' ' << n;
        }
        a[place] = 0;
      }
    }
  }
  auto* const unreadable = first.end();
  EXPECT_EQ(_orvex_fast_memcmp(unreadable, unreadable, 100), 0);
  EXPECT_EQ(_orvex_fast_memcmp(unreadable, first.begin(), 0), 0);
  EXPECT_EQ(__orvex_new_memcmp(unreadable, first.begin(), 0), 0);
}

}  // namespace
}  // namespace ksomd::test
