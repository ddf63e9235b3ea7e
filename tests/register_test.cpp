// The entries that fill the feature sets keep every argument and scratch register, whatever the
// routines that they call do to them. This program's own getenv, which detection calls, destroys
// all that the calling convention lets it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <random>

#include "cpu/feature_set.h"
#include "cpu/feature_table.h"
#include "cpu/isa_names.h"
#include "support/backtrace.h"
#include "support/register_probe.h"
#include "support/seed.h"

namespace {

using ksomd::test::VectorState;

VectorState vector_state;
int destroyed;
bool walk_wanted;
ksomd::test::Backtrace deepest;  // taken inside detection, where wanted

void destroy_registers() {
  ++destroyed;
  // The upper halves of all vector registers are scratch, the low ones of the first six.
  if (vector_state != VectorState::Xmm) {
    __asm__ volatile("vzeroupper");
  }
  if (vector_state == VectorState::Zmm) {
    __asm__ volatile(
        ".irp n, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31\n"
        "vpxorq %%zmm\\n, %%zmm\\n, %%zmm\\n\n"
        ".endr\n"
        ".irp n, 0, 1, 2, 3, 4, 5, 6, 7\n"
        "kxorq %%k\\n, %%k\\n, %%k\\n\n"
        ".endr\n" ::
            : "memory");
  }
  __asm__ volatile(
      ".irp n, 0, 1, 2, 3, 4, 5\n"
      "xorps %%xmm\\n, %%xmm\\n\n"
      ".endr\n"
      "xorl %%eax, %%eax\n"
      ".irp n, 0, 1, 2, 3, 4, 5, 6, 7\n"
      "pxor %%mm\\n, %%mm\\n\n"
      ".endr\n"
      ".irp r, rcx, rdx, r8, r9, r10, r11\n"
      "movq %%rax, %%\\r\n"
      ".endr\n" ::
          : "rax", "rcx", "rdx", "r8", "r9", "r10", "r11", "xmm0", "xmm1", "xmm2", "xmm3", "xmm4",
            "xmm5", "memory");
}

}  // namespace

extern "C" char* getenv(const char* name) {
  if (std::strcmp(name, "ORVEX_ISA_DISABLE") == 0) {
    if (walk_wanted) {
      deepest.walk();
    }
    destroy_registers();
    return nullptr;
  }
  const std::size_t length = std::strlen(name);
  for (char** variable = environ; variable != nullptr && *variable != nullptr; ++variable) {
    if (std::strncmp(*variable, name, length) == 0 && (*variable)[length] == '=') {
      return *variable + length + 1;
    }
  }
  return nullptr;
}

namespace ksomd::test {
namespace {

VectorState available_state() {
  const std::uint64_t word = feature_word();
  const std::uint64_t wide = feature_mask("AVX512F", "AVX512BW");
  if ((word & wide) == wide) {
    return VectorState::Zmm;
  }
  return (word & feature_mask("AVX")) != 0 ? VectorState::Ymm : VectorState::Xmm;
}

using Entry = void (*)();

void expect_registers_kept(Entry entry, std::mt19937_64& random) {
  RegisterFile before, after;
  std::uint64_t words[sizeof before / 8];
  for (std::uint64_t& word : words) {
    word = random();
  }
  std::memcpy(&before, words, sizeof before);
  std::memcpy(&after, words, sizeof before);
  ksomd_probe_registers(entry, &before, &after, vector_state);
  EXPECT_EQ(static_cast<std::int32_t>(after.general[0]), 0) << "the result";
  for (int i = 1; i < 16; ++i) {
    EXPECT_EQ(before.general[i], after.general[i]) << "general register " << i;
  }
  for (int i = 0; i < 8; ++i) {
    EXPECT_EQ(before.mask[i], after.mask[i]) << "mask register " << i;
    EXPECT_EQ(before.mmx[i], after.mmx[i]) << "MMX register " << i;
  }
  for (int i = 0; i < 32; ++i) {
    EXPECT_EQ(std::memcmp(before.vector[i], after.vector[i], 64), 0) << "vector register " << i;
  }
}

class FillEntry : public testing::TestWithParam<Entry> {};

TEST_P(FillEntry, KeepsEveryRegister) {
  vector_state = available_state();
  std::mt19937_64 random(seed_of(7));
  for (int round = 0; round < 20; ++round) {
    destroyed = 0;
    expect_registers_kept(GetParam(), random);
    ASSERT_EQ(destroyed, 1) << "detection did not call the destroyer";
  }
}

TEST_P(FillEntry, FullWidthWasTested) {
  if (available_state() != VectorState::Zmm) {
    GTEST_SKIP() << "512-bit and mask registers: this processor has none";
  }
}

TEST_P(FillEntry, ReturnsWhatDetectionSays) {
  constexpr int generic_id = 1;
  __orvex_isa_table_init();
  const IsaRow saved = __orvex_isa_table[generic_id];
  const auto entry = reinterpret_cast<int (*)()>(GetParam());
  for (const auto& [bit, status] : {std::pair{128, -3}, {-1, -1}, {0, 0}}) {
    __orvex_isa_table[generic_id].bit = bit;
    RegisterFile before{}, after{};
    ksomd_probe_registers(reinterpret_cast<Entry>(entry), &before, &after, VectorState::Xmm);
    EXPECT_EQ(static_cast<std::int32_t>(after.general[0]), status);
  }
  __orvex_isa_table[generic_id] = saved;
}

// Calls an entry; a walk of the stack from inside detection must come back through here.
[[gnu::noinline]] const void* call_and_tell_where(Entry entry) {
  entry();
  return __builtin_return_address(0);
}

TEST_P(FillEntry, TheStackCanBeWalkedThroughIt) {
  deepest = {};
  walk_wanted = true;
  const void* here = call_and_tell_where(GetParam());
  walk_wanted = false;
  EXPECT_GT(deepest.count, 0);
  EXPECT_TRUE(deepest.contains(here)) << deepest.count << " frames";
}

INSTANTIATE_TEST_SUITE_P(
    Both, FillEntry,
    testing::Values(reinterpret_cast<Entry>(__orvex_cpu_features_init),
                    reinterpret_cast<Entry>(__orvex_cpu_features_init_vendor)));

}  // namespace
}  // namespace ksomd::test
