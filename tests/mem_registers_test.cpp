// Every exported routine of the memory family, and of the core queries, keeps what a callee keeps.
#include <gtest/gtest.h>

#include "ksomd/core.h"
#include "mem_variants.h"
#include "support/guarded_memory.h"
#include "support/preserved_registers.h"

namespace ksomd::test {
namespace {

constexpr std::size_t sizes[] = {0, 3, 24, 60, 200, 257, 700, 5000, 17000, 70000, 140000};

TEST(PreservedRegisters, MemoryRoutines) {
  GuardedMemory target(200'000), source(200'000);
  for (const NamedTuning& tuning : interesting_tunings()) {
    const InjectedTuning injected(tuning.tuning);
    for (const std::size_t n : sizes) {
      for (const auto& copy : copy_routines) {
        if (copy.available()) {
          EXPECT_EQ(what_call_changes(copy.routine, target.begin() + 1, source.begin() + 9, n), "")
              << copy.name << " of " << n;
        }
        if (copy.available() && copy.overlap) {
          EXPECT_EQ(what_call_changes(copy.routine, target.begin() + 33, target.begin(), n), "")
              << copy.name << " upward of " << n;
        }
      }
      for (const auto& fill : fill_routines) {
        if (fill.available()) {
          EXPECT_EQ(what_call_changes(fill.routine, target.begin() + 1, 7, n), "")
              << fill.name << " of " << n;
        }
      }
      EXPECT_EQ(what_call_changes(__orvex_VEC_memzero, target.begin() + 1, 7, n), "") << n;
      EXPECT_EQ(what_call_changes(_orvex_fast_memcmp, target.begin(), source.begin(), n), "") << n;
      EXPECT_EQ(what_call_changes(__orvex_new_memcmp, target.begin(), source.begin(), n), "") << n;
    }
  }
}

TEST(PreservedRegisters, StreamingStores) {
  struct {
    __libkso_nt_context context;
    unsigned char chunk[4096];
  } stream{};
  GuardedMemory target(1 << 16);
  const auto reset = [&] {
    stream.context = {{}, target.begin() + 10, 10, 0};
    return &stream.context;
  };
  for (const std::size_t n : {std::size_t{5}, std::size_t{300}, std::size_t{4001}}) {
    for (const int final : {0, 1}) {
      EXPECT_EQ(what_call_changes(__libkso_nontemporal_store, reset(), n, final), "");
      EXPECT_EQ(what_call_changes(__libkso_nontemporal_store_dynamic, reset(), n, final, 0), "");
      EXPECT_EQ(what_call_changes(__libkso_nontemporal_store_dynamic, reset(), n, final, 1), "");
      if (has_features(needs_avx)) {
        EXPECT_EQ(what_call_changes(__libkso_nontemporal_store_256, reset(), n, final), "");
        EXPECT_EQ(what_call_changes(__libkso_nontemporal_store_dynamic_256, reset(), n, final, 0),
                  "");
      }
      if (has_features(needs_avx512f)) {
        EXPECT_EQ(what_call_changes(__libkso_nontemporal_store_512, reset(), n, final), "");
        EXPECT_EQ(what_call_changes(__libkso_nontemporal_store_dynamic_512, reset(), n, final, 0),
                  "");
      }
    }
  }
}

TEST(PreservedRegisters, CoreQueries) {
  EXPECT_EQ(what_call_changes(__init_cpu_core_type), "");
  EXPECT_EQ(what_call_changes(__detect_cpu_core_type), "");
  EXPECT_EQ(what_call_changes(__detect_cpu_core_type_1n), "");
  EXPECT_EQ(what_call_changes(__cacheSize, 1u), "");
}

// The check itself sees a register that is not kept.
[[gnu::naked]] void spoil_rbx() {
  __asm__("inc %rbx\n ret");
}
[[gnu::naked]] void spoil_direction() {
  __asm__("std\n ret");
}
TEST(PreservedRegisters, ChangesAreSeen) {
  EXPECT_EQ(what_call_changes(spoil_rbx), "rbx ");
  EXPECT_EQ(what_call_changes(spoil_direction), "direction ");
}

}  // namespace
}  // namespace ksomd::test
