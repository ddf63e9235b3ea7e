// Sizes at which the memory routines change their method.
#pragma once

#include <cstddef>
#include <cstdint>

#include "cpu/cache.h"
#include "cpu/processor.h"

namespace ksomd::mem {

// Sizes in bytes. The defaults are for the time before the library is loaded, and for processors
// that do not report the sizes of their caches.
struct Tuning {
  std::uint64_t largest_cache_size = 131072;  // generic fill: non-temporal above it
  std::uint64_t copy_nt_threshold = 65536;    // copy and move: non-temporal from about here
  std::uint64_t l1_size = 16384;              // from 15/16 of it: AVX fill by string instruction
  std::uint64_t l1_half = 8192;               // from 3/4 of it: AVX copy by string instruction
  std::uint64_t l1_quarter = 4096;            // many-core fill: non-temporal
  std::uint64_t rep_movsb_threshold = 8192;   // server copy by string instruction
  std::uint64_t avx512_nt_threshold = 65536;  // server copy: non-temporal
  std::uint64_t rep_stosb_threshold = 16384;  // server fill by string instruction
  std::int32_t mem_class = 0;                 // 2: the generic routines use SSE2; 0, 1: integers
};

// The tuning values of a processor with these caches.
Tuning derive_tuning(const Processor& processor, const CacheInfo& caches);

// The same by the formulas for genuine processors, from the caches that this processor reports,
// whatever its vendor; if it reports none, what derive_tuning() gives.
Tuning automatic_tuning(const Processor& processor, const CacheInfo& caches);

// A tuning value: its name, and its place in Tuning.
struct TuningField {
  const char* name;
  std::size_t offset, size;

  std::uint64_t get(const Tuning& tuning) const;
  void set(Tuning& tuning, std::uint64_t value) const;
};
inline constexpr std::size_t tuning_field_count = 9;
extern const TuningField tuning_fields[tuning_field_count];

// What KSOMD_MEM_TUNING asks for: items between commas, which apply in their order.
//
//   auto          every value as automatic_tuning() gives it
//   NAME=VALUE    one value: decimal digits, then K, M or G for KiB, MiB or GiB, or nothing
//
// `origins`, unless null, receives where each value comes from. Calls refuse(item, length) for an
// item that is none of these, which changes nothing.
enum class TuningOrigin { Computed, Automatic, Variable };
struct TuningRequest {
  const Processor& processor;
  const CacheInfo& caches;
  const char* text;  // null or empty: nothing is asked for
};
Tuning requested_tuning(const TuningRequest& request, TuningOrigin (*origins)[tuning_field_count],
                        void (*refuse)(const char* item, std::size_t length));

// What is asked for where the variable is not set: chosen when the library is built.
extern const char* const default_tuning_request;

// Ends the process with message::no_cache_size if the processor is a genuine one whose level-1 size
// is 0 and `debug`, the value of the debug variable or null, is not empty.
void check_cache_size(const CacheInfo& caches, const char* debug);

}  // namespace ksomd::mem

extern "C" {

// The process's tuning values. They are written while the library is loaded and never change
// afterwards.
[[gnu::visibility("hidden")]] extern ksomd::mem::Tuning __libkso_mem_tuning;

// Computes the tuning values. This is the library's only load-time initialiser.
void __libkso_mem_tuning_init(void);

}  // extern "C"
