// How the dispatching entry points choose: a slot each, filled by the first call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "cpu/dispatching_entry.h"
#include "cpu/feature_set.h"
#include "cpu/feature_table.h"
#include "ksomd/memory.h"

namespace ksomd::mem {

inline constexpr std::uint64_t baseline_level = feature_mask("X87", "CMOV", "MMX", "SSE", "SSE2");
inline constexpr std::uint64_t avx2_level =
    baseline_level | feature_mask("SSE3", "SSSE3", "SSE4_1", "SSE4_2", "MOVBE", "POPCNT", "F16C",
                                  "AVX", "FMA", "BMI", "LZCNT", "AVX2");
inline constexpr std::uint64_t avx512_level =
    avx2_level | feature_mask("AVX512DQ", "AVX512F", "ADX", "AVX512CD", "AVX512BW", "AVX512VL");
static_assert(baseline_level == 0x6E && avx2_level == 0x9D9FEE && avx512_level == 0x64199D9FEE);

// A variant, its name, and the features that it needs.
template <class Routine>
struct Variant {
  std::uint64_t required;
  Routine* routine;
  const char* name;
};
#define KSOMD_VARIANT(required, routine) {required, routine, #routine}

// The first variant whose features are all present; the last one needs none.
template <class Routine, std::size_t count>
constexpr const Variant<Routine>& choose_variant(const Variant<Routine> (&variants)[count],
                                                 std::uint64_t word) {
  std::size_t i = 0;
  while ((word & variants[i].required) != variants[i].required) {
    ++i;
  }
  return variants[i];
}

// Empty (null), or the chosen variant. Racing first calls store the same address.
template <class Routine>
Routine* load_slot(Routine* const& slot) {
  return __atomic_load_n(&slot, __ATOMIC_RELAXED);
}
template <class Routine, std::size_t count>
Routine* fill_slot(Routine*& slot, const Variant<Routine> (&variants)[count]) {
  Routine* const chosen = choose_variant(variants, feature_word()).routine;
  __atomic_store_n(&slot, chosen, __ATOMIC_RELAXED);
  return chosen;
}

// The row of a report for the entry point with these variants.
template <const auto& variants>
constexpr DispatchingEntry dispatching_entry(const char* name) {
  return {name,
          [](const FeatureSet& features) { return choose_variant(variants, features[0]).name; }};
}

// The entry points that copy and fill, and those that stream.
std::span<const DispatchingEntry> memory_entries();
std::span<const DispatchingEntry> streaming_entries();

using CopyRoutine = void*(void*, const void*, std::size_t);
using FillRoutine = void*(void*, int, std::size_t);
using StreamRoutine = void(__libkso_nt_context*, std::size_t, int);
using DynamicStreamRoutine = void(__libkso_nt_context*, std::size_t, int, int);

}  // namespace ksomd::mem

extern "C" {

[[gnu::visibility("hidden")]] extern ksomd::mem::CopyRoutine* __orvex_fast_memcpy_slot;
[[gnu::visibility("hidden")]] extern ksomd::mem::CopyRoutine* __orvex_fast_memmove_slot;
[[gnu::visibility("hidden")]] extern ksomd::mem::FillRoutine* __orvex_fast_memset_slot;
[[gnu::visibility("hidden")]] extern ksomd::mem::StreamRoutine* __libkso_nontemporal_store_slot;
[[gnu::visibility(
    "hidden")]] extern ksomd::mem::DynamicStreamRoutine* __libkso_nontemporal_store_dynamic_slot;

// What an entry point with an empty slot does: fill the slot, and forward the call.
void* __orvex_fast_memcpy_resolve(void* destination, const void* source, size_t count);
void* __orvex_fast_memmove_resolve(void* destination, const void* source, size_t count);
void* __orvex_fast_memset_resolve(void* destination, int value, size_t count);
void __libkso_nontemporal_store_resolve(__libkso_nt_context* context, size_t length, int final);
void __libkso_nontemporal_store_dynamic_resolve(__libkso_nt_context* context, size_t length,
                                                int final, int plain);

}  // extern "C"
