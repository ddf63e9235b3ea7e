// The dispatching entry points, their slots, and the levels that their variants need.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "cpu/feature_set.h"
#include "cpu/feature_table.h"
#include "dispatch/variant.h"
#include "ksomd/memory.h"

namespace ksomd::mem {

inline constexpr FeatureMask baseline_level = feature_mask("X87", "CMOV", "MMX", "SSE", "SSE2");
inline constexpr FeatureMask avx2_level =
    baseline_level | feature_mask("SSE3", "SSSE3", "SSE4_1", "SSE4_2", "MOVBE", "POPCNT", "F16C",
                                  "AVX", "FMA", "BMI", "LZCNT", "AVX2");
inline constexpr FeatureMask avx512_level =
    avx2_level | feature_mask("AVX512DQ", "AVX512F", "ADX", "AVX512CD", "AVX512BW", "AVX512VL");

// The rows of a report: the entry points that copy and fill, and those that stream.
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

// The resolvers by name: they fill the slot and forward the call. An entry point whose slot is
// empty does the same.
void* __orvex_fast_memcpy_resolve(void* destination, const void* source, size_t count);
void* __orvex_fast_memmove_resolve(void* destination, const void* source, size_t count);
void* __orvex_fast_memset_resolve(void* destination, int value, size_t count);
void __libkso_nontemporal_store_resolve(__libkso_nt_context* context, size_t length, int final);
void __libkso_nontemporal_store_dynamic_resolve(__libkso_nt_context* context, size_t length,
                                                int final, int plain);

}  // extern "C"
