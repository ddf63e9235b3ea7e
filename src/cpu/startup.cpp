#include "cpu/startup.h"

#include <immintrin.h>

#include <cstdlib>
#include <cstring>

#include "cpu/feature_table.h"
#include "cpu/fp_mode.h"
#include "cpu/isa_names.h"
#include "ksomd/processor.h"
#include "msg/messages.h"
#include "second_names.h"

namespace ksomd {
namespace {

struct HardwareMxcsr {
  static std::uint32_t read() { return _mm_getcsr(); }
  static void write(std::uint32_t value) { _mm_setcsr(value); }
  [[gnu::noinline]] static std::uint32_t supported() {
    alignas(16) std::uint32_t image[128] = {};
    _fxsave64(image);
    constexpr int mxcsr_mask = 28 / 4;
    return image[mxcsr_mask];
  }
};

constexpr Guarantees daz = KSOMD_DENORMALS_ARE_ZERO;
constexpr Guarantees daz_17 = KSOMD_DENORMALS_ARE_ZERO | KSOMD_MXCSR_BIT_17;
constexpr auto* processor_report = __libkso_fatal_processor;
constexpr auto* system_report = __libkso_fatal_system;

constexpr FeatureMask set_none = feature_mask("X87", "CMOV", "MMX", "SSE");
constexpr FeatureMask set_B = set_none | feature_mask("SSE2");
constexpr FeatureMask set_P = set_B | feature_mask("SSE3");
constexpr FeatureMask set_T = set_P | feature_mask("SSSE3");
constexpr FeatureMask set_S = set_T | feature_mask("SSE4_1");
constexpr FeatureMask set_H = set_S | feature_mask("SSE4_2", "POPCNT");
constexpr FeatureMask set_G = set_H | feature_mask("AVX");
constexpr FeatureMask set_I = set_G | feature_mask("F16C");

constexpr Level level_none{"", set_none, 0, nullptr, 0};
constexpr Level level_B{"B", set_B, daz, processor_report, message::for_sse2};
constexpr Level level_N{"N", set_B, daz, processor_report, message::for_sse2_new};
constexpr Level level_P{"P", set_P, daz, processor_report, message::for_sse3};
constexpr Level level_T{"T", set_T, daz, processor_report, message::for_ssse3};
constexpr Level level_L{"L", set_T | feature_mask("MOVBE"), daz, processor_report,
                        message::for_movbe};
constexpr Level level_S{"S", set_S, daz, processor_report, message::for_tandem};
constexpr Level level_H{"H", set_H, daz_17, processor_report, message::for_sse4_2};
constexpr Level level_G{"G", set_G, daz_17, system_report, message::needs_avx};
constexpr Level level_I{"I", set_I, daz_17, system_report, message::needs_f16c};
constexpr Level level_E{"E", set_I | feature_mask("MOVBE", "FMA", "BMI", "LZCNT", "AVX2"), daz_17,
                        system_report, message::needs_avx2};

constexpr std::uint32_t default_flags = KSOMD_FLUSH_TO_ZERO | KSOMD_DENORMALS_ARE_ZERO;

void verify(const Level& level, std::uint32_t flags) {
  if (level.required.all_in({feature_word(), 0})) {
    __orvex_set_fp_mode(level.known, flags);
  } else if (level.report != nullptr) {
    level.report(level.message);
  }
}

[[noreturn]] void report(const Level& level) {
  level.report(level.message);
  __builtin_unreachable();
}

// Prints a message between two empty lines and ends the process.
[[noreturn]] void fail_check(std::uint32_t number, const char* argument = nullptr) {
  __libkso_print(1, message::empty_line, 0);
  __libkso_print(1, number, argument == nullptr ? 0 : 1, argument);
  __libkso_print(1, message::empty_line, 0);
  std::exit(1);
}

}  // namespace

const Level* const levels[] = {&level_none, &level_B, &level_N, &level_P, &level_T, &level_L,
                               &level_S,    &level_H, &level_G, &level_I, &level_E};
const std::size_t level_count = sizeof levels / sizeof *levels;

bool list_features(const FeatureSet& missing, const char* joiner, char (&list)[feature_list_size]) {
  constexpr const char* separator = ", ";
  char* end = list;
  *end = '\0';
  const auto append = [&end](const char* text) {
    const std::size_t length = std::strlen(text);
    std::memcpy(end, text, length + 1);
    end += length;
  };
  const char* pending = nullptr;  // the latest name: what goes before it depends on the next
  for (std::int32_t id = 1; id < isa_id_count; ++id) {
    if (__orvex_test_feature(missing, id) != 1) {
      continue;
    }
    const char* name = __orvex_feature_name(id);
    if (name == nullptr || *name == '\0') {
      return false;
    }
    if (end == list) {
      append(name);
      continue;
    }
    if (pending != nullptr) {
      // `name` may turn out to be the last name, so there must still be room for it and the joiner.
      const std::size_t closed = static_cast<std::size_t>(end - list) + std::strlen(separator) +
                                 std::strlen(pending) + std::strlen(joiner) + std::strlen(name);
      if (closed > feature_list_size - 1) {
        break;
      }
      append(separator);
      append(pending);
    }
    pending = name;
  }
  if (pending != nullptr) {
    append(joiner);
    append(pending);
  }
  return true;
}

FeatureVerdict judge_features(const FeatureSet& vendor_set, std::int32_t index, std::uint64_t mask,
                              FeatureSet& missing) {
  constexpr std::uint64_t generic_alone = feature_mask("GENERIC_QX32").words[0];
  if (index == 0) {
    mask &= ~feature_mask("SHSTK").words[0];
  }
  if (load_feature_word(vendor_set[0]) == generic_alone) {
    return FeatureVerdict::OtherVendor;
  }
  if (index != 0 && index != 1) {
    return FeatureVerdict::BadIndex;
  }
  missing[0] = missing[1] = 0;
  missing[index] = mask & ~load_feature_word(vendor_set[index]);
  return missing[index] == 0 ? FeatureVerdict::Present : FeatureVerdict::Missing;
}

}  // namespace ksomd

using namespace ksomd;

namespace {

[[noreturn]] void report_missing(const FeatureSet& missing) {
  char list[feature_list_size];
  if (list_features(missing, __libkso_format_msg(message::list_joiner, 0), list) && *list != '\0') {
    fail_check(message::needs_features, list);
  }
  fail_check(message::incompatible_library);
}

}  // namespace

void __orvex_set_fp_mode(Guarantees known, std::uint32_t flags) {
  set_fp_mode(HardwareMxcsr{}, known, flags);
}

void __orvex_new_feature_proc_init_n(std::int32_t index, std::uint64_t mask) {
  if (load_feature_word(__orvex_vendor_feature_indicator[0]) == 0 &&
      (__orvex_cpu_features_init_vendor() != 0 ||
       load_feature_word(__orvex_vendor_feature_indicator[0]) == 0)) {
    fail_check(message::inconsistent_library);
  }
  FeatureSet missing;
  switch (judge_features(__orvex_vendor_feature_indicator, index, mask, missing)) {
    case FeatureVerdict::Present:
      return;
    case FeatureVerdict::OtherVendor:
      fail_check(message::genuine_processors_only);
    case FeatureVerdict::BadIndex:
      fail_check(message::incompatible_library);
    case FeatureVerdict::Missing:
      report_missing(missing);
  }
}

void __orvex_new_feature_proc_init(std::int32_t flags, std::uint64_t mask) {
  __orvex_new_feature_proc_init_n(0, mask);
  if ((load_feature_word(__orvex_vendor_feature_indicator[0]) & feature_mask("SSE").words[0]) !=
      0) {
    __orvex_set_fp_mode(0, static_cast<std::uint32_t>(flags));
  }
}

// The exported checks of a level, without and with flags, and the report of a level with its second
// names.
#define KSOMD_CHECK(entry, level) \
  void entry() {                  \
    verify(level, default_flags); \
  }
#define KSOMD_FLAGS_CHECK(entry, level) \
  void entry(std::uint32_t flags) {     \
    verify(level, flags);               \
  }
#define KSOMD_REPORT(entry, level) \
  void entry() {                   \
    report(level);                 \
  }                                \
  KSOMD_SECOND_NAMES(entry)

KSOMD_CHECK(__orvex_proc_init, level_none)
KSOMD_CHECK(__orvex_proc_init_B, level_B)
KSOMD_CHECK(__orvex_proc_init_N, level_N)
KSOMD_CHECK(__orvex_proc_init_P, level_P)
KSOMD_CHECK(__orvex_proc_init_T, level_T)

KSOMD_FLAGS_CHECK(__orvex_new_proc_init, level_none)
KSOMD_FLAGS_CHECK(__orvex_new_proc_init_B, level_B)
KSOMD_FLAGS_CHECK(__orvex_new_proc_init_N, level_N)
KSOMD_FLAGS_CHECK(__orvex_new_proc_init_P, level_P)
KSOMD_FLAGS_CHECK(__orvex_new_proc_init_T, level_T)
KSOMD_FLAGS_CHECK(__orvex_new_proc_init_L, level_L)
KSOMD_FLAGS_CHECK(__orvex_new_proc_init_S, level_S)
KSOMD_FLAGS_CHECK(__orvex_new_proc_init_H, level_H)
KSOMD_FLAGS_CHECK(__orvex_new_proc_init_G, level_G)
KSOMD_FLAGS_CHECK(__orvex_new_proc_init_I, level_I)
KSOMD_FLAGS_CHECK(__orvex_new_proc_init_E, level_E)

KSOMD_REPORT(__orvex_report_B, level_B);
KSOMD_REPORT(__orvex_report_N, level_N);
KSOMD_REPORT(__orvex_report_P, level_P);
KSOMD_REPORT(__orvex_report_T, level_T);
KSOMD_REPORT(__orvex_report_L, level_L);
KSOMD_REPORT(__orvex_report_S, level_S);
KSOMD_REPORT(__orvex_report_H, level_H);
KSOMD_REPORT(__orvex_report_G, level_G);
KSOMD_REPORT(__orvex_report_I, level_I);
KSOMD_REPORT(__orvex_report_E, level_E);
void __orvex_report_none() {}
KSOMD_SECOND_NAMES(__orvex_report_none);

void __orvex_fp_mode_default() {
  __orvex_set_fp_mode(0, default_flags);
}
KSOMD_SECOND_NAMES(__orvex_fp_mode_default);
void __orvex_fp_mode_default_daz() {
  __orvex_set_fp_mode(daz, default_flags);
}
KSOMD_SECOND_NAMES(__orvex_fp_mode_default_daz);
void __orvex_fp_mode(std::uint32_t flags) {
  __orvex_set_fp_mode(0, flags);
}
KSOMD_SECOND_NAMES(__orvex_fp_mode);
void __orvex_fp_mode_daz(std::uint32_t flags) {
  __orvex_set_fp_mode(daz, flags);
}
KSOMD_SECOND_NAMES(__orvex_fp_mode_daz);
void __orvex_fp_mode_daz_17(std::uint32_t flags) {
  __orvex_set_fp_mode(daz_17, flags);
}
KSOMD_SECOND_NAMES(__orvex_fp_mode_daz_17);
