#include "mem/tuning.h"

#include <cstdio>
#include <cstdlib>

#include "cpu/feature_table.h"
#include "msg/messages.h"
#include "platform/platform.h"

constinit ksomd::mem::Tuning __libkso_mem_tuning;

namespace ksomd::mem {
namespace {

constexpr std::uint64_t kib = 1024;
// For a processor of this vendor the values follow from its level-2 cache alone.
constexpr char level_2_vendor[13] = "AuthenticAMD";

// CPUID leaf 1 reports both features in EDX.
constexpr std::uint32_t mmx = feature_row("MMX").report.field.mask;
constexpr std::uint32_t sse2 = feature_row("SSE2").report.field.mask;

std::int32_t mmx_class(const CpuidResult& features) {
  return (features.edx & mmx) != 0 ? 1 : 0;
}
std::int32_t sse2_class(const CpuidResult& features) {
  return (features.edx & sse2) != 0 ? 2 : mmx_class(features);
}

void take_largest_cache(std::uint64_t size_kib, Tuning& tuning) {
  tuning.largest_cache_size = size_kib * kib;
  tuning.copy_nt_threshold = size_kib * (kib / 2);
}

// By the formulas for genuine processors.
Tuning derive_from_caches(const Processor& processor, const CacheInfo& caches) {
  Tuning tuning;
  if (caches.highest_leaf != 0) {
    tuning.mem_class = sse2_class(processor.leaf(1));
  }
  const std::uint64_t l1 = caches.level[0].size_kib;
  if (l1 == 0) {
    return tuning;
  }
  std::uint64_t largest = 0;
  for (const Cache& cache : caches.level) {
    largest = cache.size_kib > largest ? cache.size_kib : largest;
  }
  take_largest_cache(largest, tuning);
  tuning.l1_size = l1 * kib;
  tuning.l1_half = l1 * (kib / 2);
  tuning.l1_quarter = l1 * (kib / 4);
  tuning.rep_movsb_threshold = 8192;
  tuning.avx512_nt_threshold = 6 * tuning.l1_size;
  tuning.rep_stosb_threshold = 2048;
  return tuning;
}

Tuning derive_from_level_2(const Processor& processor) {
  constexpr std::uint32_t extended_range = 0x80000000, l2_leaf = 0x80000006;
  Tuning tuning;
  tuning.mem_class = mmx_class(processor.leaf(1));
  if (processor.leaf(extended_range).eax >= l2_leaf) {
    take_largest_cache(processor.leaf(l2_leaf).ecx >> 16, tuning);
  }
  return tuning;
}

void report_refused_item(const char* item, std::size_t length) {
  std::fprintf(stderr, "ksomd: KSOMD_MEM_TUNING: \"%.*s\" names no tuning value or gives none\n",
               static_cast<int>(length), item);
}

// 101 is the earliest priority that a program may use. A static program's own constructors may call
// any export, so this runs before them.
[[gnu::constructor(101), gnu::used]] void initialise_at_load() {
  __libkso_mem_tuning_init();
}

}  // namespace

Tuning derive_tuning(const Processor& processor, const CacheInfo& caches) {
  if (caches.genuine != 0) {
    return derive_from_caches(processor, caches);
  }
  return processor.vendor_is(level_2_vendor) ? derive_from_level_2(processor) : Tuning{};
}

Tuning automatic_tuning(const Processor& processor, const CacheInfo& caches) {
  const CacheInfo reported = reported_caches(processor);
  return reported.level[0].size_kib != 0 ? derive_from_caches(processor, reported)
                                         : derive_tuning(processor, caches);
}

void check_cache_size(const CacheInfo& caches, const char* debug) {
  if (caches.genuine == 0 || caches.level[0].size_kib != 0 || debug == nullptr || *debug == '\0') {
    return;
  }
  __libkso_print(1, message::empty_line, 0);
  __libkso_print(1, message::no_cache_size, 0);
  __libkso_print(1, message::empty_line, 0);
  exit_while_loading(1);
}

}  // namespace ksomd::mem

void __libkso_mem_tuning_init() {
  const ksomd::CacheInfo caches = ksomd::process_caches();
  const char* const variable = std::getenv("KSOMD_MEM_TUNING");
  const char* const text = variable != nullptr ? variable : ksomd::mem::default_tuning_request;
  __libkso_mem_tuning = ksomd::mem::requested_tuning({ksomd::hardware_processor, caches, text},
                                                     nullptr, ksomd::mem::report_refused_item);
  ksomd::mem::check_cache_size(caches, std::getenv("__ORVEX_LIBKSO_DEBUG"));
}
