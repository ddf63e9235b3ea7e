// The dispatching entry points of streaming stores.
#include "mem/streaming.h"

#include "mem/blocks.h"
#include "mem/dispatch.h"

// Compiled code builds the context itself, so its layout cannot change.
static_assert(offsetof(__libkso_nt_context, staging) == 0);
static_assert(offsetof(__libkso_nt_context, destination) == 64);
static_assert(offsetof(__libkso_nt_context, head_offset) == 72);
static_assert(offsetof(__libkso_nt_context, pending) == 80);
static_assert(sizeof(__libkso_nt_context) == KSOMD_NT_CHUNK_OFFSET);

ksomd::mem::StreamRoutine* __libkso_nontemporal_store_slot;
ksomd::mem::DynamicStreamRoutine* __libkso_nontemporal_store_dynamic_slot;

namespace ksomd::mem {
namespace {

void store_plain(__libkso_nt_context* context, size_t length, int) {
  copy_chunk(context, length);
}
void store_dynamic_plain(__libkso_nt_context* context, size_t length, int, int) {
  copy_chunk(context, length);
}

constexpr Variant<StreamRoutine*> store_variants[] = {
    KSOMD_VARIANT(avx512_level, __libkso_nontemporal_store_512),
    KSOMD_VARIANT(avx2_level, __libkso_nontemporal_store_256),
    KSOMD_VARIANT({}, store_plain),
};
constexpr Variant<DynamicStreamRoutine*> store_dynamic_variants[] = {
    KSOMD_VARIANT(avx512_level, __libkso_nontemporal_store_dynamic_512),
    KSOMD_VARIANT(avx2_level, __libkso_nontemporal_store_dynamic_256),
    KSOMD_VARIANT({}, store_dynamic_plain),
};

constexpr DispatchingEntry entries[] = {
    dispatching_entry<store_variants>("__libkso_nontemporal_store"),
    dispatching_entry<store_dynamic_variants>("__libkso_nontemporal_store_dynamic"),
};

}  // namespace

std::span<const DispatchingEntry> streaming_entries() {
  return entries;
}

void copy_chunk(__libkso_nt_context* context, size_t length) {
  auto* d = static_cast<Byte*>(context->destination);
  const Byte* s = reinterpret_cast<const Byte*>(context) + KSOMD_NT_CHUNK_OFFSET;
  context->destination = d + length;
  for (; length >= 64; d += 64, s += 64, length -= 64) {
    copy_group<Piece16, 4, Access::Unaligned, Access::Unaligned>(d, s);
  }
  copy_by_16(d, s, length);
}

}  // namespace ksomd::mem

using namespace ksomd;
using namespace ksomd::mem;

void __libkso_nontemporal_store(__libkso_nt_context* context, size_t length, int final) {
  [[clang::musttail]] return dispatch<__libkso_nontemporal_store_slot, store_variants>(
      context, length, final);
}
void __libkso_nontemporal_store_resolve(__libkso_nt_context* context, size_t length, int final) {
  [[clang::musttail]] return resolve<__libkso_nontemporal_store_slot, store_variants>(
      context, length, final);
}

void __libkso_nontemporal_store_dynamic(__libkso_nt_context* context, size_t length, int final,
                                        int plain) {
  [[clang::musttail]] return dispatch<__libkso_nontemporal_store_dynamic_slot,
                                      store_dynamic_variants>(context, length, final, plain);
}
void __libkso_nontemporal_store_dynamic_resolve(__libkso_nt_context* context, size_t length,
                                                int final, int plain) {
  [[clang::musttail]] return resolve<__libkso_nontemporal_store_dynamic_slot,
                                     store_dynamic_variants>(context, length, final, plain);
}
