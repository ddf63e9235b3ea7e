#include "mem/dispatch.h"

#include <cstring>

ksomd::mem::CopyRoutine* __orvex_fast_memcpy_slot;
ksomd::mem::CopyRoutine* __orvex_fast_memmove_slot;
ksomd::mem::FillRoutine* __orvex_fast_memset_slot;

namespace ksomd::mem {
namespace {

constexpr Variant<CopyRoutine> memcpy_variants[] = {
    KSOMD_VARIANT(avx2_level, __orvex_avx_rep_memcpy),
    KSOMD_VARIANT(baseline_level, __orvex_new_memcpy),
    KSOMD_VARIANT(0, std::memmove),
};
constexpr Variant<CopyRoutine> memmove_variants[] = {
    KSOMD_VARIANT(avx2_level, __orvex_avx_memmove),
    KSOMD_VARIANT(baseline_level, __orvex_new_memmove),
    KSOMD_VARIANT(0, std::memmove),
};
constexpr Variant<FillRoutine> memset_variants[] = {
    KSOMD_VARIANT(avx2_level, __orvex_avx_rep_memset),
    KSOMD_VARIANT(baseline_level, __orvex_new_memset),
    KSOMD_VARIANT(0, std::memset),
};

constexpr DispatchingEntry entries[] = {
    dispatching_entry<memcpy_variants>("_orvex_fast_memcpy"),
    dispatching_entry<memmove_variants>("_orvex_fast_memmove"),
    dispatching_entry<memset_variants>("_orvex_fast_memset"),
};

}  // namespace

std::span<const DispatchingEntry> memory_entries() {
  return entries;
}

}  // namespace ksomd::mem

using namespace ksomd::mem;

void* __orvex_fast_memcpy_resolve(void* destination, const void* source, size_t count) {
  CopyRoutine* const chosen = fill_slot(__orvex_fast_memcpy_slot, memcpy_variants);
  [[clang::musttail]] return chosen(destination, source, count);
}

void* __orvex_fast_memmove_resolve(void* destination, const void* source, size_t count) {
  CopyRoutine* const chosen = fill_slot(__orvex_fast_memmove_slot, memmove_variants);
  [[clang::musttail]] return chosen(destination, source, count);
}

void* __orvex_fast_memset_resolve(void* destination, int value, size_t count) {
  FillRoutine* const chosen = fill_slot(__orvex_fast_memset_slot, memset_variants);
  [[clang::musttail]] return chosen(destination, value, count);
}

void* _orvex_fast_memcpy(void* destination, const void* source, size_t count) {
  if (CopyRoutine* const variant = load_slot(__orvex_fast_memcpy_slot)) [[likely]] {
    [[clang::musttail]] return variant(destination, source, count);
  }
  [[clang::musttail]] return __orvex_fast_memcpy_resolve(destination, source, count);
}

void* _orvex_fast_memmove(void* destination, const void* source, size_t count) {
  if (CopyRoutine* const variant = load_slot(__orvex_fast_memmove_slot)) [[likely]] {
    [[clang::musttail]] return variant(destination, source, count);
  }
  [[clang::musttail]] return __orvex_fast_memmove_resolve(destination, source, count);
}

void* _orvex_fast_memset(void* destination, int value, size_t count) {
  if (FillRoutine* const variant = load_slot(__orvex_fast_memset_slot)) [[likely]] {
    [[clang::musttail]] return variant(destination, value, count);
  }
  [[clang::musttail]] return __orvex_fast_memset_resolve(destination, value, count);
}
