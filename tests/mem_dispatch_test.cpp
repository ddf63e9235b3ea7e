// The dispatching entry points, the streaming stores, and what a second thread sees.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <numeric>
#include <thread>

#include "mem/vector.h"
#include "mem_variants.h"
#include "support/child_process.h"
#include "support/effort.h"
#include "support/guarded_memory.h"

namespace ksomd::test {
namespace {

using Byte = unsigned char;

// The process's feature set and dispatch slots, replaced as long as this lives.
class InjectedFeatures {
 public:
  explicit InjectedFeatures(std::uint64_t word) : saved_(feature_word()) {
    __orvex_cpu_feature_indicator[0] = word;
    empty_slots();
  }
  ~InjectedFeatures() {
    __orvex_cpu_feature_indicator[0] = saved_;
    empty_slots();
  }
  InjectedFeatures(const InjectedFeatures&) = delete;
  InjectedFeatures& operator=(const InjectedFeatures&) = delete;

 private:
  static void empty_slots() {
    __orvex_fast_memcpy_slot = __orvex_fast_memmove_slot = nullptr;
    __orvex_fast_memset_slot = nullptr;
    __libkso_nontemporal_store_slot = nullptr;
    __libkso_nontemporal_store_dynamic_slot = nullptr;
  }
  std::uint64_t saved_;
};

// The tier that the first calls reach with this feature word; 0 if they do not agree.
int tier_of(std::uint64_t word) {
  const InjectedFeatures injected(word);
  Byte from[40] = "some forty bytes to be moved around....", to[40] = {};
  EXPECT_EQ(_orvex_fast_memcpy(to, from, 40), to);
  EXPECT_EQ(std::memcmp(to, from, 40), 0);
  EXPECT_EQ(_orvex_fast_memmove(to + 1, to, 39), to + 1);
  EXPECT_EQ(std::memcmp(to + 1, from, 39), 0);
  EXPECT_EQ(_orvex_fast_memset(to, 0x1FF, 33), to);
  EXPECT_EQ(to[32], 0xFF);
  EXPECT_EQ(to[33], from[32]);
  const struct {
    mem::CopyRoutine *copy, *move;
    mem::FillRoutine* fill;
  } tiers[] = {{__orvex_avx_rep_memcpy, __orvex_avx_memmove, __orvex_avx_rep_memset},
               {__orvex_new_memcpy, __orvex_new_memmove, __orvex_new_memset},
               {std::memmove, std::memmove, std::memset}};
  for (int i = 0; i < 3; ++i) {
    if (__orvex_fast_memcpy_slot == tiers[i].copy && __orvex_fast_memmove_slot == tiers[i].move &&
        __orvex_fast_memset_slot == tiers[i].fill) {
      return i + 1;
    }
  }
  return 0;
}

constexpr std::uint64_t whole_level = 0x9D9FEE, baseline = 0x6E;

TEST(Dispatch, EachBitOfTheLevelDecides) {
  const bool wide = has_features(whole_level);
  if (wide) {
    EXPECT_EQ(tier_of(whole_level | 1), 1);
    EXPECT_EQ(tier_of(~std::uint64_t{0}), 1);
  }
  int bits = 0;
  for (int bit = 1; bit < 64; ++bit) {
    const std::uint64_t one = std::uint64_t{1} << bit;
    if ((whole_level & one) == 0) {
      if (wide) {
        EXPECT_EQ(tier_of(~one), 1) << "without bit " << bit;
      }
      continue;
    }
    ++bits;
    EXPECT_EQ(tier_of(~one), (baseline & one) != 0 ? 3 : 2) << "without bit " << bit;
  }
  EXPECT_EQ(bits, 17);
  EXPECT_EQ(tier_of(baseline | 1), 2);
  EXPECT_EQ(tier_of(1), 3);
}

TEST(Dispatch, OfStreamingStores) {
  const auto chosen = [](std::uint64_t word) {
    const InjectedFeatures injected(word);
    struct {
      __libkso_nt_context context;
      Byte chunk[8];
    } stream = {{{}, nullptr, 0, 0}, {1, 2, 3, 4, 5, 6, 7, 8}};
    Byte out[8] = {};
    stream.context.destination = out;
    __libkso_nontemporal_store(&stream.context, 5, 0);
    __libkso_nontemporal_store_dynamic(&stream.context, 3, 1, 1);
    EXPECT_EQ(std::memcmp(out, "\1\2\3\4\5\1\2\3", 8), 0);
    EXPECT_EQ(stream.context.destination, out + 8);
    if (__libkso_nontemporal_store_slot == __libkso_nontemporal_store_512) {
      EXPECT_EQ(__libkso_nontemporal_store_dynamic_slot, __libkso_nontemporal_store_dynamic_512);
      return 512;
    }
    if (__libkso_nontemporal_store_slot == __libkso_nontemporal_store_256) {
      EXPECT_EQ(__libkso_nontemporal_store_dynamic_slot, __libkso_nontemporal_store_dynamic_256);
      return 256;
    }
    return 0;
  };
  constexpr std::uint64_t wide_level = 0x64199D9FEE;
  for (int bit = 0; bit < 64; ++bit) {
    const std::uint64_t one = std::uint64_t{1} << bit;
    if (bit == 0 || (!has_features(wide_level) && (wide_level & one) == 0) ||
        (!has_features(whole_level) && (whole_level & one) == 0)) {
      continue;
    }
    EXPECT_EQ(chosen(~one), (wide_level & one) == 0    ? 512
                            : (whole_level & one) == 0 ? 256
                                                       : 0)
        << bit;
  }
  EXPECT_EQ(chosen(1), 0);
}

// A fresh process: sixteen threads make the first call of each entry point at once.
KSOMD_CHILD(race_first_calls) {
  std::atomic<int> waiting{16};
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 16; ++t) {
    threads.emplace_back([&, t] {
      Byte from[300], to[300];
      std::memset(from, t, sizeof from);
      --waiting;
      while (waiting.load() != 0) {
        std::this_thread::yield();
      }
      _orvex_fast_memcpy(to, from, sizeof to);
      wrong += std::memcmp(to, from, sizeof to) != 0;
      _orvex_fast_memset(from, t + 1, sizeof from);
      _orvex_fast_memmove(to, from, sizeof to);
      wrong += to[0] != t + 1 || to[299] != t + 1;
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  return wrong.load();
}

TEST(Dispatch, FirstCallsRacedInFreshProcesses) {
#ifdef _WIN32
  const int processes = full_length() ? 1000 : 20;
#else
  const int processes = full_length() ? 1000 : 200;
#endif
  for (int i = 0; i < processes; ++i) {
    const ChildResult result = run_child("race_first_calls");
    ASSERT_EQ(result.ending, Ending::Exit);
    ASSERT_EQ(result.status, 0);
  }
}

// ---- streaming stores ---------------------------------------------------------------------------

struct StreamForm {
  const char* name;
  std::size_t line;
  std::uint64_t required;
  mem::StreamRoutine* store;
  mem::DynamicStreamRoutine* store_dynamic;
};
const StreamForm stream_forms[] = {
    {"256", 32, needs_avx, __libkso_nontemporal_store_256, __libkso_nontemporal_store_dynamic_256},
    {"512", 64, needs_avx512f, __libkso_nontemporal_store_512,
     __libkso_nontemporal_store_dynamic_512},
    {"dispatched", 64, 0, __libkso_nontemporal_store, __libkso_nontemporal_store_dynamic},
};

struct Stream {
  __libkso_nt_context context;
  Byte chunk[4096];
};

// Streams chunks of these sizes to `offset` bytes past a line, and checks every byte.
void check_stream(const StreamForm& form, const std::vector<std::size_t>& sizes, std::size_t offset,
                  bool dynamic) {
  const std::size_t total = std::accumulate(sizes.begin(), sizes.end(), std::size_t{0});
  GuardedMemory memory(total + 256);
  // Ends flush with the guard page where the offset allows it.
  std::memset(memory.begin(), 0xEE, memory.size());
  Byte* const out = memory.begin() + 128 + offset;
  Stream stream{};
  stream.context.destination = out;
  stream.context.head_offset = offset;
  Byte next = 0;
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    std::memset(stream.chunk, 0xDD, sizeof stream.chunk);
    for (std::size_t k = 0; k < sizes[i]; ++k) {
      stream.chunk[k] = next = static_cast<Byte>(next * 5 + 3);
    }
    const int final = i + 1 == sizes.size();
    if (dynamic) {
      form.store_dynamic(&stream.context, sizes[i], final, 0);
    } else {
      form.store(&stream.context, sizes[i], final);
    }
    ASSERT_LT(stream.context.pending, form.line);
  }
  next = 0;
  for (std::size_t k = 0; k < total; ++k) {
    next = static_cast<Byte>(next * 5 + 3);
    ASSERT_EQ(out[k], next) << form.name << ", byte " << k << " of " << total << ", offset "
                            << offset;
  }
  EXPECT_EQ(out[-1], 0xEE);
  EXPECT_EQ(out[total], 0xEE);
  EXPECT_EQ(stream.context.destination, out + total);
  EXPECT_EQ(stream.context.pending, 0u);
}

TEST(StreamingStores, ChunksArriveInOrder) {
  for (const StreamForm& form : stream_forms) {
    if (!has_features(form.required)) {
      continue;
    }
    for (const bool dynamic : {false, true}) {
      for (std::size_t offset = 0; offset < form.line; ++offset) {
        check_stream(form, {300, 300, 100}, offset, dynamic);
        check_stream(form, {256}, offset, dynamic);
        check_stream(form,
                     {
                         1000,
                         999,
                         256,
                         4096,
                         1,
                     },
                     offset, dynamic);
      }
      for (std::size_t n = 0; n < 700; ++n) {
        check_stream(form, {n}, n > 4 * form.line ? n % form.line : 0, dynamic);
        check_stream(form, {700, 257 + n, 256 + 2 * n, n % 256}, n % form.line, dynamic);
      }
    }
  }
}

TEST(StreamingStores, StagingBetweenCalls) {
  if (!has_features(needs_avx512f)) {
    GTEST_SKIP() << "needs AVX512F";
  }
  alignas(64) Byte out[1024] = {};
  Stream stream{};
  stream.context.destination = out;
  __libkso_nontemporal_store_512(&stream.context, 300, 0);
  EXPECT_EQ(stream.context.pending, 44u);
  EXPECT_EQ(stream.context.destination, out + 256);
  __libkso_nontemporal_store_512(&stream.context, 300, 0);
  EXPECT_EQ(stream.context.pending, 24u);
  EXPECT_EQ(stream.context.destination, out + 576);
  // 10 bytes past a line: 54 go ahead.
  stream = {};
  stream.context.destination = out + 10;
  stream.context.head_offset = 10;
  __libkso_nontemporal_store_512(&stream.context, 256, 0);
  EXPECT_EQ(stream.context.head_offset, 0u);
  EXPECT_EQ(stream.context.destination, out + 64 + 192);
  EXPECT_EQ(stream.context.pending, 256u - 54 - 192);
}

TEST(StreamingStores, PlainPathLeavesTheStagingLineAlone) {
  for (const StreamForm& form : stream_forms) {
    if (!has_features(form.required)) {
      continue;
    }
    std::vector<Byte> out(4096);
    Stream stream{};
    std::memset(stream.chunk, 0x42, sizeof stream.chunk);
    std::memset(stream.context.staging, 0x17, 64);
    stream.context.pending = 9;
    stream.context.head_offset = 3;
    stream.context.destination = out.data() + 1;
    form.store_dynamic(&stream.context, 3001, 1, 1);
    EXPECT_EQ(stream.context.pending, 9u);
    EXPECT_EQ(stream.context.head_offset, 3u);
    EXPECT_EQ(stream.context.destination, out.data() + 3002);
    EXPECT_EQ(out[0], 0);
    EXPECT_EQ(out[3002], 0);
    EXPECT_EQ(std::count(out.begin() + 1, out.begin() + 3002, Byte{0x42}), 3001);
  }
}

// ---- the cache probe ----------------------------------------------------------------------------

TEST(CacheProbe, JudgesByThreeReadingsAtTwoPlaces) {
  const struct {
    std::vector<std::uint64_t> readings;
    bool cached;
    std::size_t read;
  } cases[] = {
      {{0, 10, 40}, true, 3},
      {{0, 10, 41, 100, 110, 140}, true, 6},
      {{0, 10, 41, 100, 110, 141}, false, 6},
      // Only the low halves count: here the counter wraps between two readings.
      {{0xFFFFFFF0, 0x10000000A, 0x100000020, 0, 10, 41}, false, 6},
      {{0xAAAA00000000, 0xBBBB0000000A, 0xCCCC00000028}, true, 3},
  };
  const std::vector<Byte> memory(1024);
  for (const auto& c : cases) {
    std::size_t read = 0;
    EXPECT_EQ(mem::is_cached(memory.data(), 1024, [&] { return c.readings.at(read++); }), c.cached);
    EXPECT_EQ(read, c.read);
  }
}

// ---- two threads --------------------------------------------------------------------------------

// One thread copies with non-temporal stores and raises a plain flag; the other must see it all.
TEST(HandOver, NothingStaleBehindAFlag) {
  constexpr std::size_t size = 1024, slots = 64;
  const std::uint64_t hand_overs = full_length() ? 10'000'000 : 300'000;
  mem::Tuning tuning = uniform_tuning(std::uint64_t{1} << 62);
  tuning.copy_nt_threshold = 256;
  tuning.l1_half = 0;
  tuning.mem_class = 2;
  const InjectedTuning injected(tuning);
  GuardedMemory ring(size * slots);
  std::atomic<std::uint64_t> written{0}, seen{0};
  std::atomic<std::uint64_t> stale{0};
  std::thread reader([&] {
    for (std::uint64_t i = 0; i < hand_overs; ++i) {
      while (written.load(std::memory_order_acquire) <= i) {
        std::this_thread::yield();
      }
      const Byte* const slot = ring.begin() + i % slots * size;
      for (std::size_t k = 0; k < size; k += 128) {
        std::uint64_t word;
        std::memcpy(&word, slot + k, sizeof word);
        stale += word != i;
      }
      seen.store(i + 1, std::memory_order_release);
    }
  });
  std::uint64_t block[size / 8];
  for (std::uint64_t i = 0; i < hand_overs; ++i) {
    while (seen.load(std::memory_order_acquire) + slots <= i) {
      std::this_thread::yield();
    }
    std::fill(std::begin(block), std::end(block), i);
    const bool generic = (i & 1) != 0 || !has_features(needs_avx);
    (generic ? __orvex_new_memcpy : __orvex_avx_rep_memcpy)(ring.begin() + i % slots * size, block,
                                                            size);
    written.store(i + 1, std::memory_order_release);
  }
  reader.join();
  EXPECT_EQ(stale.load(), 0u);
}

}  // namespace
}  // namespace ksomd::test
