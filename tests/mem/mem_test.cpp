// Which variant a dispatching entry point takes, and ranges whose place or size is out of the
// ordinary.
#include <algorithm>
#include <atomic>
#include <string_view>
#include <thread>

#include "ksomd/core.h"
#include "mem/dispatch.h"
#include "mem/routines.h"
#include "support/child_process.h"

namespace ksomd::test {
namespace {

// ---- dispatch -----------------------------------------------------------------------------------

constexpr std::uint64_t baseline = 0x6E, avx2_level = 0x9D9FEE, avx512_level = 0x64199D9FEE;
constexpr std::uint64_t memory_levels[] = {avx2_level, baseline, 0};
constexpr std::uint64_t streaming_levels[] = {avx512_level, avx2_level, 0};

struct DispatchingCase {
  const char* name;
  void* slot;
  const std::uint64_t (&levels)[3];
  const char* variants[3];

  int choice(std::uint64_t word) const {
    return static_cast<int>(std::ranges::find_if(levels, [=](auto l) { return (l & ~word) == 0; }) -
                            levels);
  }
  // Whether this processor can run what the word asks for.
  bool possible(std::uint64_t word) const { return has_features(levels[choice(word)]); }
  // Whether the slot holds what the word asks for; what is not exported has no address here.
  bool bound(std::uint64_t word) const {
    const void* const held = *static_cast<const void* const*>(slot);
    const char* const variant = variants[choice(word)];
    return *variant == '_' ? held == find_entry(variant) : held != nullptr;
  }
  // Whether a call does what it should.
  bool use() const {
    for (const Routine& routine : routines()) {
      if (routine.name == std::string_view(name)) {
        Range target(64), source(64);
        return runs_right(routine, {target, target.begin(), source, source.begin(), 0x155, 40});
      }
    }
    struct {
      __libkso_nt_context context;
      Byte chunk[8];
    } stream{{}, {1, 2, 3, 4, 5, 6, 7, 8}};
    Byte out[8] = {};
    stream.context.destination = out;
    entry<mem::DynamicStreamRoutine>(name)(&stream.context, 5, 1, 0);
    return std::memcmp(out, "\1\2\3\4\5\0\0\0", 8) == 0;
  }
};

const DispatchingCase cases[] = {
    {"_orvex_fast_memcpy",
     &__orvex_fast_memcpy_slot,
     memory_levels,
     {"__orvex_avx_rep_memcpy", "__orvex_new_memcpy", "std::memmove"}},
    {"_orvex_fast_memmove",
     &__orvex_fast_memmove_slot,
     memory_levels,
     {"__orvex_avx_memmove", "__orvex_new_memmove", "std::memmove"}},
    {"_orvex_fast_memset",
     &__orvex_fast_memset_slot,
     memory_levels,
     {"__orvex_avx_rep_memset", "__orvex_new_memset", "std::memset"}},
    {"__libkso_nontemporal_store",
     &__libkso_nontemporal_store_slot,
     streaming_levels,
     {"__libkso_nontemporal_store_512", "__libkso_nontemporal_store_256", "store_plain"}},
    {"__libkso_nontemporal_store_dynamic",
     &__libkso_nontemporal_store_dynamic_slot,
     streaming_levels,
     {"__libkso_nontemporal_store_dynamic_512", "__libkso_nontemporal_store_dynamic_256",
      "store_dynamic_plain"}},
};

void set_features_and_empty_slots(std::uint64_t word) {
  __orvex_cpu_feature_indicator[0] = word;
  for (const DispatchingCase& entry : cases) {
    *static_cast<void**>(entry.slot) = nullptr;
  }
}

TEST(Dispatch, EachFeatureDecidesOnceAndForAll) {
  const std::uint64_t hardware = feature_word();
  for (int number = 0; number < 66 * 4; ++number) {
    const std::uint64_t without = number < 64 * 4 ? std::uint64_t{1} << number / 4 : 0;
    const std::uint64_t word = 1 | (~without & (number % 4 == 0   ? avx512_level
                                                : number % 4 == 1 ? avx2_level
                                                : number % 4 == 2 ? baseline
                                                                  : ~std::uint64_t{0}));
    for (const DispatchingCase& entry : cases) {
      set_features_and_empty_slots(hardware);
      if (entry.possible(word)) {
        set_features_and_empty_slots(word);
        EXPECT_TRUE(entry.use() && entry.bound(word)) << entry.name << std::hex << word;
        // Later calls do not look at the features.
        __orvex_cpu_feature_indicator[0] = 1;
        EXPECT_TRUE(entry.use() && entry.bound(word)) << entry.name;
      }
      std::size_t rows = 0;
      for (const auto& table : {mem::memory_entries(), mem::streaming_entries()}) {
        rows += table.size();
        for (const DispatchingEntry& row : table) {
          if (row.name == std::string_view(entry.name)) {
            EXPECT_STREQ(row.variant({word, 0}), entry.variants[entry.choice(word)]);
          }
        }
      }
      EXPECT_EQ(rows, std::size(cases));
    }
  }
  set_features_and_empty_slots(hardware);
}

// Nothing is known of the processor when the first calls race.
TEST(Dispatch, RacingFirstCallsAgree) {
  const std::uint64_t hardware = feature_word();
  for (int round = 0; round < 200; ++round) {
    set_features_and_empty_slots(0);
    std::atomic<int> waiting{4}, wrong{0};
    const auto race = [&] {
      for (--waiting; waiting.load() != 0;) {
        std::this_thread::yield();
      }
      for (const DispatchingCase& entry : cases) {
        wrong += !entry.use() || !entry.bound(hardware);
      }
    };
    std::thread others[] = {std::thread(race), std::thread(race), std::thread(race)};
    race();
    for (std::thread& thread : others) {
      thread.join();
    }
    ASSERT_EQ(wrong.load(), 0);
  }
  EXPECT_EQ(feature_word(), hardware);
}

// ---- places, sizes, registers -------------------------------------------------------------------

TEST(Ranges, AcrossTheSignBitsOfAddresses) {
  constexpr std::size_t half = 131072;
  Range apart(2 * half);
  for (const std::uint64_t boundary : {std::uint64_t{1} << 31, std::uint64_t{1} << 32}) {
    Range across(2 * half, reinterpret_cast<void*>(boundary - half));
    if (!across.memory) {
      GTEST_SKIP() << "no memory at " << std::hex << boundary;
    }
    for (const std::size_t n : {40u, 200u, 700u, 20'000u, 100'000u}) {
      Byte* const middle = across.begin() + half - n / 2;
      Byte* const other = apart.begin() + 100;
      for (const Routine& routine : routines()) {
        ASSERT_TRUE(runs_right(routine, {across, middle, apart, other, 0x61, n}));
        for (const std::ptrdiff_t distance : {-33, -1, 1, 33}) {
          ASSERT_TRUE(routine.kind != Kind::Move ||
                      runs_right(routine, {across, middle + distance, across, middle, 0, n}));
        }
        ASSERT_TRUE(runs_right(routine, {apart, other, across, middle, 0x61, n}));
      }
      for (const char* const name : compare_routines) {
        std::memcpy(other, middle, n);
        EXPECT_EQ(entry<CompareRoutine>(name)(middle, other, n), 0) << name;
        other[n - 1] ^= 1;
        EXPECT_EQ(entry<CompareRoutine>(name)(middle, other, n),
                  middle[n - 1] > other[n - 1] ? 1 : -1);
      }
      std::memcpy(other, apart.expected_at(other), n);
    }
  }
}

// Above the size of a vector a move onto itself touches nothing: the memory need not be there.
TEST(Ranges, MovesOntoThemselvesReturnAtOnce) {
  const GuardedMemory memory(4096);
  for (std::size_t n = 32; has_features(needs_avx2) && n < 200'000; n += 1 + n / 40) {
    ASSERT_EQ(__orvex_avx_memmove(memory.end(), memory.end(), n), memory.end()) << n;
  }
}

// No bit of a count is lost: a range of 4 GiB and 40 bytes does not end after 40 bytes.
KSOMD_CHILD(leave_a_range) {
  Range target(65536), source(65536);
  const Routine& routine = routines()[std::stoul(arguments[0])];
  std::string wrong;
  run_plainly(routine,
              {target, target.begin(), source, source.begin(), 0, std::stoul(arguments[1])}, wrong);
  return 0;
}

TEST(Ranges, LongerThanThirtyTwoBits) {
  for (std::size_t number = 0; number < routines().size(); ++number) {
    for (const char* const count : {"2147483688", "4294967336"}) {
      EXPECT_EQ(run_child("leave_a_range", {std::to_string(number), count}).ending,
                Ending::AccessViolation)
          << routines()[number].name << " of " << count;
    }
  }
}

TEST(Registers, AreKeptByCoreQueries) {
  EXPECT_EQ(what_call_changes(__init_cpu_core_type), "");
  EXPECT_EQ(what_call_changes(__detect_cpu_core_type), "");
  EXPECT_EQ(what_call_changes(__detect_cpu_core_type_1n), "");
  EXPECT_EQ(what_call_changes(__cacheSize, 1u), "");
}

}  // namespace
}  // namespace ksomd::test
