// What the library finds on the processor that it runs on, for tools/matrix.py, which compares it
// with what it told the emulator.
//
//   --child=report     the feature sets, the tiers, the caches and the tuning values
//   --child=level L    the start-up check of level L: ends with status 0 or 1
//   --child=feature    the feature check, of SSE2 alone
#include <cstdio>

#include "cpu/feature_set.h"
#include "cpu/isa_names.h"
#include "ksomd/core.h"
#include "ksomd/processor.h"
#include "mem/dispatch.h"
#include "mem/tuning.h"
#include "support/child_process.h"
#include "support/entry.h"

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

template <class Routine>
void print_tier(const char* entry, Routine* chosen, Routine* avx, Routine* other,
                const char* name) {
  std::printf("%s: %s\n", entry, chosen == avx ? "avx" : chosen == other ? name : "platform");
}

KSOMD_CHILD(report) {
  __orvex_cpu_features_init_vendor();
  print_set("gated", __orvex_vendor_feature_indicator);
  std::printf("filled: %d\n", __orvex_cpu_feature_indicator[0] != 0 ? 1 : 0);
  feature_word();
  print_set("general", __orvex_cpu_feature_indicator);

  alignas(64) unsigned char memory[256] = {};
  _orvex_fast_memcpy(memory, memory + 128, 70);
  _orvex_fast_memmove(memory, memory + 30, 70);
  _orvex_fast_memset(memory, 3, 70);
  struct {
    __libkso_nt_context context;
    unsigned char chunk[64];
  } stream = {};
  stream.context.destination = memory;
  __libkso_nontemporal_store(&stream.context, 8, 1);
  print_tier<mem::CopyRoutine>("memcpy", __orvex_fast_memcpy_slot, __orvex_avx_rep_memcpy,
                               __orvex_new_memcpy, "generic");
  print_tier<mem::CopyRoutine>("memmove", __orvex_fast_memmove_slot, __orvex_avx_memmove,
                               __orvex_new_memmove, "generic");
  print_tier<mem::FillRoutine>("memset", __orvex_fast_memset_slot, __orvex_avx_rep_memset,
                               __orvex_new_memset, "generic");
  print_tier<mem::StreamRoutine>("stream", __libkso_nontemporal_store_slot,
                                 __libkso_nontemporal_store_256, __libkso_nontemporal_store_512,
                                 "avx512");

  std::printf("caches: %u %u %u\n", __cacheSize(1), __cacheSize(2), __cacheSize(3));
  std::printf("core type: %u\n", __detect_cpu_core_type());
  const mem::Tuning& t = __libkso_mem_tuning;
  std::printf("tuning: %lu %lu %lu %lu %lu %lu %lu %lu %d\n", t.largest_cache_size,
              t.copy_nt_threshold, t.l1_size, t.l1_half, t.l1_quarter, t.rep_movsb_threshold,
              t.avx512_nt_threshold, t.rep_stosb_threshold, t.mem_class);
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

}  // namespace
}  // namespace ksomd::test
