// The entries that fill the feature sets keep every argument and scratch register, whatever the
// routines that they call do to them: reading the disable variable destroys all that the calling
// convention lets it. Also runs on emulated processors, with and without XSAVE.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iterator>

#include "cpu/feature_set.h"
#include "cpu/machine.h"
#include "support/register_probe.h"
#include "support/sweep.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <execinfo.h>
#endif

namespace ksomd::test {
namespace {

VectorState vector_state;
int destroyed, misaligned;

void destroy_registers() {
  ++destroyed;
  misaligned += reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0)) % 16 != 0;
  const RegisterFile nothing = {};
  RegisterFile after;
  ksomd_probe_registers([] {}, &nothing, &after, vector_state);
}

using Entry = void (*)();
const Entry entries[] = {reinterpret_cast<Entry>(__orvex_cpu_features_init),
                         reinterpret_cast<Entry>(__orvex_cpu_features_init_vendor)};

// By the compiler's run-time library, which looks for itself.
VectorState available_state() {
  __builtin_cpu_init();
  const bool wide = __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw");
  return wide                            ? VectorState::Zmm
         : __builtin_cpu_supports("avx") ? VectorState::Ymm
                                         : VectorState::Xmm;
}

TEST(FillEntry, KeepsEveryRegister) {
  vector_state = available_state();
  on_disabled_names = destroy_registers;
  Random random(seed_of(7));
  for (int round = 0; round < 20; ++round) {
    RegisterFile before, after;
    std::uint64_t words[sizeof before / 8];
    std::ranges::generate(words, [&random] { return random.next(); });
    std::memcpy(&before, words, sizeof before);
    std::memcpy(&after, words, sizeof before);
    destroyed = misaligned = 0;
    ksomd_probe_registers(entries[round % 2], &before, &after, vector_state);
    ASSERT_EQ(destroyed, 1) << "detection did not call the destroyer";
    EXPECT_EQ(misaligned, 0);
    EXPECT_EQ(static_cast<std::int32_t>(after.general[0]), 0) << "the result";
    after.general[0] = before.general[0];
    const auto* const kept = reinterpret_cast<const unsigned char*>(&before);
    const auto* const found = reinterpret_cast<const unsigned char*>(&after);
    const auto* const different = std::mismatch(kept, kept + sizeof before, found).first;
    ASSERT_EQ(different - kept, static_cast<std::ptrdiff_t>(sizeof before))
        << "the offset in RegisterFile of the first byte lost";
  }
  on_disabled_names = nullptr;
}

void* frames[64];
std::size_t frame_count;

// A walk of the stack from inside detection must come back to here.
[[gnu::noinline]] const void* call_and_tell_where(Entry entry) {
  entry();
  return __builtin_return_address(0);
}

TEST(FillEntry, TheStackCanBeWalkedThroughIt) {
  for (const Entry entry : entries) {
    on_disabled_names = [] {
#ifdef _WIN32
      frame_count = CaptureStackBackTrace(0, std::size(frames), frames, nullptr);
#else
      frame_count = static_cast<std::size_t>(backtrace(frames, std::size(frames)));
#endif
    };
    const void* const here = call_and_tell_where(entry);
    on_disabled_names = nullptr;
    EXPECT_NE(std::find(frames, frames + frame_count, here), frames + frame_count)
        << frame_count << " frames";
  }
}

}  // namespace
}  // namespace ksomd::test
