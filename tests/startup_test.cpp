// Start-up checks: what each of the exported entries requires, sets and reports.

#include <gtest/gtest.h>
#include <immintrin.h>

#include "cpu/feature_set.h"
#include "cpu/fp_mode.h"
#include "startup_entries.h"
#include "support/child_process.h"
#include "support/mxcsr.h"

namespace ksomd::test {
namespace {

void pretend(std::uint64_t word) {
  __orvex_cpu_feature_indicator[0] = word | 1;
}

// ---- MXCSR -----------------------------------------------------------------------------------

struct RecordedMxcsr {
  std::uint32_t value;
  std::uint32_t mask;
  std::vector<std::uint32_t>* writes;
  int* probes;
  std::uint32_t read() const { return value; }
  void write(std::uint32_t next) {
    writes->push_back(next ^ value);
    value = next;
  }
  std::uint32_t supported() const {
    ++*probes;
    return mask;
  }
};

TEST(FloatingPointMode, EveryGuaranteeFlagAndMask) {
  for (const Guarantees known : {0u, 2u, 6u}) {
    for (std::uint32_t flags = 0; flags < 16; ++flags) {
      for (const std::uint32_t mask : {0u, 0x40u, 0x20000u, 0x20040u, ~0u}) {
        SCOPED_TRACE(testing::Message()
                     << "known " << known << " flags " << flags << " mask " << std::hex << mask);
        std::vector<std::uint32_t> writes;
        int probes = 0;
        set_fp_mode(RecordedMxcsr{0x1F80, mask, &writes, &probes}, known, flags);
        std::vector<std::uint32_t> expected;
        for (const std::uint32_t bit : {0x8000u, 0x40u, 0x20000u}) {
          if ((gained_mode(known, flags, mask) & bit) != 0) {
            expected.push_back(bit);  // one at a time, in this order
          }
        }
        EXPECT_EQ(writes, expected);
        EXPECT_EQ(probes, (flags & ~known & 6) != 0 ? 1 : 0);
      }
    }
  }
}

TEST(FloatingPointMode, EveryEntryOnThisProcessor) {
  const Restore restore;
  const std::uint32_t supported = mxcsr_mask();
  int calls = 0;
  for (const EntryRow& row : entry_rows) {
    if (!row.sets_mode && row.missing != Missing::Returns) {
      continue;  // ends the process: see below
    }
    for (std::uint32_t flags = 0; flags < 8; ++flags) {
      const std::uint32_t effective = row.takes_flags ? flags : 3;
      const std::uint32_t gained = row.sets_mode ? gained_mode(row.known, effective, supported) : 0;
      if ((gained & ~supported) != 0) {
        continue;  // guaranteed by a level that this processor does not have: it would fault
      }
      // Bits that are set already, the exception flags among them, stay.
      for (const std::uint32_t before : {0x1F80u, 0x7FBFu, 0x9FC0u}) {
        pretend(row.required);
        _mm_setcsr(before);
        call_entry(row.entry, flags);
        const std::uint32_t after = _mm_getcsr();
        _mm_setcsr(0x1F80);
        ASSERT_EQ(after, before | gained) << row.name << " flags " << flags;
        ++calls;
      }
    }
  }
  std::printf("%d calls\n", calls);
}

TEST(LevelCheck, TheLowestLevelReturnsWhenSomethingIsMissing) {
  const Restore restore;
  for (const int bit : {1, 2, 3, 5}) {
    for (const Entry entry : {p, n}) {
      pretend(0x2EuLL & ~(1uLL << bit));
      _mm_setcsr(0x1F80);
      call_entry(entry, 3);
      EXPECT_EQ(_mm_getcsr(), 0x1F80u) << bit;
    }
  }
}

// ---- reports ---------------------------------------------------------------------------------

// call ROW WORD: calls an entry with this word 0 of the feature set.
KSOMD_CHILD(call) {
  pretend(std::stoull(arguments[1], nullptr, 16));
  std::atexit([] { std::printf("exit handlers run\n"); });
  call_entry(entry_rows[std::stoul(arguments[0])].entry, 0);
  std::printf("returned\n");
  return 77;
}

std::string hex(std::uint64_t value) {
  char text[20];
  std::snprintf(text, sizeof text, "%llx", static_cast<unsigned long long>(value));
  return text;
}

const std::pair<std::uint32_t, const char*> level_texts[] = {
    {42,
     "Orvex(R) Pelta(TM) Duo processors and compatible Orvex processors with supplemental "
     "Streaming SIMD Extensions 3 (SSSE3) instruction support"},
    {43,
     "Orvex(R) Calvix(R) 4 and compatible Orvex processors with Orvex(R) Streaming SIMD Extensions "
     "3 (Orvex(R) SSE3) instruction support"},
    {44, "Orvex(R) Calvix(R) M and compatible Orvex processors"},
    {45,
     "Orvex(R) Calvix(R) 4 and compatible Orvex processors. Enables new optimizations in addition "
     "to Orvex processor-specific optimizations"},
    {46, "Orvex(R) processors with Tandem New Instructions support"},
    {47, "Orvex(R) processors with SSE4.2 and POPCNT instructions support"},
    {48, "Orvex(R) processors with MOVBE instructions support"},
    {50, "Please verify that both the operating system and the processor support Orvex(R) AVX."},
    {51,
     "Please verify that both the operating system and the processor support Orvex(R) AVX, F16C "
     "and RDRAND instructions."},
    {52,
     "Please verify that both the operating system and the processor support Orvex(R) AVX2, BMI, "
     "LZCNT, HLE, RTM and FMA instructions."},
};

std::string report_text(const EntryRow& row) {
  std::string text;
  for (const auto& [message, level_text] : level_texts) {
    if (message == row.message) {
      text = level_text;
    }
  }
  if (row.missing == Missing::ProcessorReport) {
    text =
        "Fatal Error: This program was not built to run on the processor in your system.\n"
        "The allowed processors are: " +
        text + ".";
  } else {
    text = "Fatal Error: This program was not built to run in your system.\n" + text;
  }
  return text_mode("\n" + text + "\n\nexit handlers run\n");
}

TEST(LevelCheck, PassesWithItsSetAndReportsEachMissingFeature) {
  int children = 0;
  for (std::size_t i = 0; i < std::size(entry_rows); ++i) {
    const EntryRow& row = entry_rows[i];
    SCOPED_TRACE(row.name);
    if (row.missing == Missing::Returns) {
      continue;
    }
    if (row.required == 0) {
      expect_exit(run_child("call", {std::to_string(i), "ffffffff"}), 1, report_text(row));
      ++children;
      continue;
    }
    expect_exit(run_child("call", {std::to_string(i), hex(row.required)}), 77,
                text_mode("returned\nexit handlers run\n"));
    for (int bit = 0; bit < 64; ++bit) {
      if ((row.required >> bit & 1) != 0) {
        // Everything else that a processor may have does not help.
        const std::uint64_t word = ~(std::uint64_t{1} << bit);
        expect_exit(run_child("call", {std::to_string(i), hex(word)}), 1, report_text(row));
        ++children;
      }
    }
  }
  std::printf("%d reports\n", children);
}

KSOMD_CHILD(dispatch_fail) {
  std::atexit([] { std::printf("exit handlers run\n"); });
  __orvex_cpu_dispatch_fail();
}

TEST(DispatchFail, IsABreakpointTrapWithoutAWord) {
  const ChildResult child = run_child("dispatch_fail");
  EXPECT_EQ(child.ending, Ending::BreakpointTrap);
  EXPECT_EQ(child.output, "");
}

}  // namespace
}  // namespace ksomd::test
