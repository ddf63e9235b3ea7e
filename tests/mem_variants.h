// The memory routines by name, with what they need, and the tuning values that reach each method.
#pragma once

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "cpu/feature_set.h"
#include "cpu/feature_table.h"
#include "ksomd/memory.h"
#include "mem/dispatch.h"
#include "mem/tuning.h"

namespace ksomd::test {

template <class Routine>
struct NamedRoutine {
  const char* name;
  Routine* routine;
  std::uint64_t required;
  bool overlap = false;

  bool available() const { return has_features(required); }
};

inline constexpr std::uint64_t needs_avx = feature_mask("AVX");
inline constexpr std::uint64_t needs_avx2 = feature_mask("AVX", "AVX2");
inline constexpr std::uint64_t needs_avx512f = needs_avx2 | feature_mask("AVX512F");
inline constexpr std::uint64_t needs_avx512bw = needs_avx512f | feature_mask("AVX512BW");

// The second names of routines are linked symbols, too.
inline const NamedRoutine<mem::CopyRoutine> copy_routines[] = {
    {"_orvex_fast_memcpy", _orvex_fast_memcpy, 0},
    {"_orvex_fast_memmove", _orvex_fast_memmove, 0, true},
    {"__orvex_memcpy", __orvex_memcpy, 0},
    {"__orvex_new_memmove", __orvex_new_memmove, 0, true},
    {"__orvex_avx_rep_memcpy", __orvex_avx_rep_memcpy, needs_avx},
    {"__orvex_avx_memmove", __orvex_avx_memmove, needs_avx2, true},
    {"__orvex_tvr_avx512_memcpy", __orvex_tvr_avx512_memcpy, needs_avx512f},
    {"__orvex_pxn_avx512f_memcpy", __orvex_pxn_avx512f_memcpy, needs_avx512f},
    {"__orvex_pxn_avx512f_rfo_memcpy", __orvex_pxn_avx512f_rfo_memcpy, needs_avx512f},
    {"__orvex_VEC_memcpy", __orvex_VEC_memcpy, 0},
};

inline const NamedRoutine<mem::FillRoutine> fill_routines[] = {
    {"_orvex_fast_memset", _orvex_fast_memset, 0},
    {"__orvex_memset", __orvex_memset, 0},
    {"__orvex_avx_rep_memset", __orvex_avx_rep_memset, needs_avx2},
    {"__orvex_tvr_avx512_memset", __orvex_tvr_avx512_memset, needs_avx512bw},
    {"__orvex_pxn_avx512f_memset", __orvex_pxn_avx512f_memset, needs_avx512f},
    {"__orvex_pxn_avx512f_rfo_memset", __orvex_pxn_avx512f_rfo_memset, needs_avx512f},
    {"__orvex_VEC_memset", __orvex_VEC_memset, 0},
};

struct NamedTuning {
  std::string name;
  mem::Tuning tuning;
};

inline mem::Tuning uniform_tuning(std::uint64_t value) {
  mem::Tuning tuning;
  tuning.largest_cache_size = tuning.copy_nt_threshold = tuning.l1_size = tuning.l1_half =
      tuning.l1_quarter = tuning.rep_movsb_threshold = tuning.avx512_nt_threshold =
          tuning.rep_stosb_threshold = value;
  return tuning;
}

// A genuine processor with caches of 48, 1280 and 30720 KiB.
inline mem::Tuning genuine_tuning() {
  return {31457280, 15728640, 49152, 24576, 12288, 8192, 294912, 2048, 2};
}

// Each with the integer and the SSE2 paths of the generic routines.
inline std::vector<NamedTuning> interesting_tunings() {
  std::vector<NamedTuning> result;
  for (const std::int32_t mem_class : {0, 1, 2}) {
    const auto add = [&](const std::string& name, mem::Tuning tuning) {
      tuning.mem_class = mem_class;
      result.push_back({name + ", class " + std::to_string(mem_class), tuning});
    };
    add("defaults", {});
    if (mem_class == 1) {
      continue;  // as class 0
    }
    add("genuine", genuine_tuning());
    add("all 0", uniform_tuning(0));
    add("all 300", uniform_tuning(300));
    add("all huge", uniform_tuning(std::uint64_t{1} << 62));
    // Non-temporal stores early, no string instructions.
    mem::Tuning streaming = uniform_tuning(std::uint64_t{1} << 62);
    streaming.copy_nt_threshold = streaming.largest_cache_size = 700;
    streaming.avx512_nt_threshold = streaming.rep_movsb_threshold = 600;
    streaming.l1_half = 0;
    streaming.l1_quarter = 600;
    add("streaming", streaming);
  }
  return result;
}

// The tuning values of the process, replaced as long as this lives.
class InjectedTuning {
 public:
  explicit InjectedTuning(const mem::Tuning& tuning) : saved_(__libkso_mem_tuning) {
    __libkso_mem_tuning = tuning;
  }
  ~InjectedTuning() { __libkso_mem_tuning = saved_; }
  InjectedTuning(const InjectedTuning&) = delete;
  InjectedTuning& operator=(const InjectedTuning&) = delete;

 private:
  mem::Tuning saved_;
};

}  // namespace ksomd::test
