// The dispatching entry points of copies, moves and fills.
#include "mem/dispatch.h"

#include <cstring>

ksomd::mem::CopyRoutine* __orvex_fast_memcpy_slot;
ksomd::mem::CopyRoutine* __orvex_fast_memmove_slot;
ksomd::mem::FillRoutine* __orvex_fast_memset_slot;

namespace ksomd::mem {
namespace {

// The last rows are reached only where a feature of every 64-bit processor was switched off.
constexpr Variant<CopyRoutine*> memcpy_variants[] = {
    KSOMD_VARIANT(avx2_level, __orvex_avx_rep_memcpy),
    KSOMD_VARIANT(baseline_level, __orvex_new_memcpy),
    KSOMD_VARIANT({}, std::memmove),
};
constexpr Variant<CopyRoutine*> memmove_variants[] = {
    KSOMD_VARIANT(avx2_level, __orvex_avx_memmove),
    KSOMD_VARIANT(baseline_level, __orvex_new_memmove),
    KSOMD_VARIANT({}, std::memmove),
};
constexpr Variant<FillRoutine*> memset_variants[] = {
    KSOMD_VARIANT(avx2_level, __orvex_avx_rep_memset),
    KSOMD_VARIANT(baseline_level, __orvex_new_memset),
    KSOMD_VARIANT({}, std::memset),
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

using namespace ksomd;
using namespace ksomd::mem;

void* _orvex_fast_memcpy(void* destination, const void* source, size_t count) {
  [[clang::musttail]] return dispatch<__orvex_fast_memcpy_slot, memcpy_variants>(destination,
                                                                                 source, count);
}
void* __orvex_fast_memcpy_resolve(void* destination, const void* source, size_t count) {
  [[clang::musttail]] return resolve<__orvex_fast_memcpy_slot, memcpy_variants>(destination, source,
                                                                                count);
}

void* _orvex_fast_memmove(void* destination, const void* source, size_t count) {
  [[clang::musttail]] return dispatch<__orvex_fast_memmove_slot, memmove_variants>(destination,
                                                                                   source, count);
}
void* __orvex_fast_memmove_resolve(void* destination, const void* source, size_t count) {
  [[clang::musttail]] return resolve<__orvex_fast_memmove_slot, memmove_variants>(destination,
                                                                                  source, count);
}

void* _orvex_fast_memset(void* destination, int value, size_t count) {
  [[clang::musttail]] return dispatch<__orvex_fast_memset_slot, memset_variants>(destination, value,
                                                                                 count);
}
void* __orvex_fast_memset_resolve(void* destination, int value, size_t count) {
  [[clang::musttail]] return resolve<__orvex_fast_memset_slot, memset_variants>(destination, value,
                                                                                count);
}
