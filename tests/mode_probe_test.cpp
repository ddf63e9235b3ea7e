// What each start-up check takes for granted of MXCSR: it executes FXSAVE, which tells what the
// processor supports, exactly where its level leaves a doubt.
#include <gtest/gtest.h>

#include <csetjmp>
#include <csignal>

#include "ksomd/processor.h"
#include "startup_entries.h"
#include "support/mxcsr.h"
#include "support/single_step.h"

namespace ksomd::test {
namespace {

struct Call {
  Entry entry;
  std::uint32_t flags;
  int probes;
};

// FXSAVE64 with a memory operand: a REX.W prefix, 0F AE, and 0 in the middle of the next byte.
bool is_fxsave(const std::uint8_t* next) {
  return (next[0] & 0xF8) == 0x48 && next[1] == 0x0F && next[2] == 0xAE && (next[3] & 0x38) == 0 &&
         (next[3] & 0xC0) != 0xC0;
}

std::jmp_buf after_fault;

// Runs a call instruction by instruction; whether it faulted, as setting an unsupported bit does.
bool run_call(Call& call) {
  const auto previous = std::signal(SIGSEGV, [](int) { siglongjmp(after_fault, 1); });
  const bool faulted = sigsetjmp(after_fault, 1) != 0;
  if (!faulted) {
    single_step(
        [](void* context) {
          const auto* that = static_cast<const Call*>(context);
          call_entry(that->entry, that->flags);
        },
        [](const std::uint8_t* next, void* context) {
          static_cast<Call*>(context)->probes += is_fxsave(next) ? 1 : 0;
        },
        &call);
  }
  std::signal(SIGSEGV, previous);
  return faulted;
}

void expect_guarantees(const char* name, Entry entry, std::uint32_t known, bool takes_flags) {
  const std::uint32_t supported = mxcsr_mask();
  for (std::uint32_t flags = 0; flags < 8; ++flags) {
    SCOPED_TRACE(testing::Message() << name << " flags " << flags);
    const std::uint32_t effective = takes_flags ? flags : 3;
    const bool should_fault = (gained_mode(known, effective, supported) & ~supported) != 0;
    Call call{entry, flags, 0};
    _mm_setcsr(0x1F80);
    EXPECT_EQ(run_call(call), should_fault);
    _mm_setcsr(0x1F80);
    EXPECT_EQ(call.probes, (effective & ~known & 6) != 0 ? 1 : 0);
  }
}

TEST(ModeProbe, OnlyWhereTheLevelLeavesADoubt) {
  if (!can_single_step()) {
    GTEST_SKIP() << "this processor or emulator does not single-step";
  }
  const Restore restore;
  for (const EntryRow& row : entry_rows) {
    if (row.sets_mode) {
      __orvex_cpu_feature_indicator[0] = row.required | 1;
      expect_guarantees(row.name, row.entry, row.known, row.takes_flags);
    }
  }
  __orvex_vendor_feature_indicator[0] = 0x23;
  expect_guarantees(
      "__orvex_new_feature_proc_init",
      [](std::uint32_t flags) {
        __orvex_new_feature_proc_init(static_cast<std::int32_t>(flags), 0);
      },
      0, true);
  __orvex_vendor_feature_indicator[0] = 0;
}

}  // namespace
}  // namespace ksomd::test
