// What the library finds on the processor that it runs on, for tools/matrix.py, which compares it
// with what it told the emulator.
//
//   --child=report     the feature sets, the tiers, the caches and the tuning values
//   --child=level L    the start-up check of level L: ends with status 0 or 1
//   --child=feature    the feature check, of SSE2 alone
//
// And a test that runs on emulated processors too, with and without XSAVE.
#include <unwind.h>

#include <algorithm>
#include <array>
#include <bit>

#include "cpu/isa_names.h"
#include "cpu/machine.h"
#include "ksomd/core.h"
#include "ksomd/processor.h"
#include "mem/dispatch.h"
#include "mem/tuning.h"
#include "support/register_probe.h"

namespace ksomd::test {
namespace {

void print_set(const char* title, const FeatureSet& set) {
  std::printf("%s:", title);
  for (int id = 1; id < isa_id_count; ++id) {
    if (__orvex_test_feature(set, id) == 1) {
      std::printf(" %s", __orvex_feature_name(id));
    }
  }
  std::printf("\n");
}

void print_tier(const char* entry, auto* chosen, auto* avx, auto* other) {
  const char* const name = *entry == 's' ? "avx512" : "generic";
  std::printf("%s: %s\n", entry, chosen == avx ? "avx" : chosen == other ? name : "platform");
}

KSOMD_CHILD(report) {
  __orvex_cpu_features_init_vendor();
  print_set("gated", __orvex_vendor_feature_indicator);
  std::printf("filled: %d\n", __orvex_cpu_feature_indicator[0] != 0 ? 1 : 0);
  feature_word();
  print_set("general", __orvex_cpu_feature_indicator);

  alignas(64) unsigned char memory[256] = {}, stream[sizeof(__libkso_nt_context) + 64] = {};
  _orvex_fast_memcpy(memory, memory + 128, 70);
  _orvex_fast_memmove(memory, memory + 30, 70);
  _orvex_fast_memset(memory, 3, 70);
  auto* const context = reinterpret_cast<__libkso_nt_context*>(stream);
  context->destination = memory;
  __libkso_nontemporal_store(context, 8, 1);
  print_tier("memcpy", __orvex_fast_memcpy_slot, __orvex_avx_rep_memcpy, __orvex_new_memcpy);
  print_tier("memmove", __orvex_fast_memmove_slot, __orvex_avx_memmove, __orvex_new_memmove);
  print_tier("memset", __orvex_fast_memset_slot, __orvex_avx_rep_memset, __orvex_new_memset);
  print_tier("stream", __libkso_nontemporal_store_slot, __libkso_nontemporal_store_256,
             __libkso_nontemporal_store_512);
  std::printf("caches: %u %u %u\n", __cacheSize(1), __cacheSize(2), __cacheSize(3));
  std::printf("core type: %u\n", __detect_cpu_core_type());
  std::printf("tuning:");
  for (const mem::TuningField& field : mem::tuning_fields) {
    std::printf(" %lld", static_cast<long long>(field.get(__libkso_mem_tuning)));
  }
  std::printf("\n");
  return 0;
}

KSOMD_CHILD(level) {
  entry<void(std::uint32_t)>("__orvex_new_proc_init_" + arguments[0])(0);
  return 0;
}

KSOMD_CHILD(feature) {
  __orvex_new_feature_proc_init_n(0, 1u << 6);
  return 0;
}

// ---- the entries that fill the sets -------------------------------------------------------------

// They keep every argument and scratch register, whatever the routines that they call do to them: a
// processor that answers destroys all that the calling convention lets it.
using Entry = void (*)();
VectorState width;
int misaligned;
bool walked;
std::uintptr_t caller;

// A walk of the stack from inside detection must come back to the caller of this.
[[gnu::noinline]] bool is_walked(Entry entry) {
  caller = reinterpret_cast<std::uintptr_t>(__builtin_return_address(0));
  walked = false;
  entry();
  return walked && misaligned == 0;
}

CpuidResult destroy_registers(const void*, std::uint32_t leaf, std::uint32_t subleaf) {
  misaligned += reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0)) % 16 != 0;
  _Unwind_Backtrace(
      [](_Unwind_Context* frame, void*) {
        walked |= _Unwind_GetIP(frame) == caller;
        return _URC_NO_REASON;
      },
      nullptr);
  const RegisterFile nothing = {};
  RegisterFile after;
  ksomd_probe_registers([] {}, &nothing, &after, width);
  return real_machine.leaf(leaf, subleaf);
}

TEST(FillEntry, KeepsEveryRegisterAndAStackThatCanBeWalked) {
  __builtin_cpu_init();
  const bool wide = __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw");
  width = static_cast<VectorState>(wide + (__builtin_cpu_supports("avx") != 0));
  Processor destroyer = real_machine;
  destroyer.cpuid = destroy_registers;
  install(destroyer);
  Random random(seed_of(7));
  for (int round = 0; round < 20; ++round) {
    const auto entry = reinterpret_cast<Entry>(round % 2 == 0 ? __orvex_cpu_features_init
                                                              : __orvex_cpu_features_init_vendor);
    std::array<std::uint64_t, sizeof(RegisterFile) / 8> words;
    std::ranges::generate(words, [&random] { return random.next(); });
    const auto before = std::bit_cast<RegisterFile>(words);
    RegisterFile after = before;
    ksomd_probe_registers(entry, &before, &after, width);
    EXPECT_EQ(static_cast<std::int32_t>(after.general[0]), 0) << "the result";
    after.general[0] = before.general[0];
    ASSERT_EQ(std::bit_cast<decltype(words)>(after), words) << "the words of a RegisterFile";
    ASSERT_TRUE(is_walked(entry));
  }
  install();
}

}  // namespace
}  // namespace ksomd::test
