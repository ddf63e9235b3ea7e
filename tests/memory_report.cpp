// Prints how the memory routines decide on the processor that it runs on, and whether what they
// chose works; memory_emulation_test.py compares that with what it told the emulator.
#include <cstdio>
#include <cstring>

#include "ksomd/core.h"
#include "mem/dispatch.h"
#include "mem/tuning.h"

namespace {

using ksomd::mem::CopyRoutine;
using ksomd::mem::FillRoutine;

unsigned char from[70'000], to[70'000];

// The entry points against bytes one by one.
bool all_right(std::size_t n) {
  for (std::size_t i = 0; i < sizeof from; ++i) {
    from[i] = static_cast<unsigned char>(i * 11 + n);
    to[i] = 0xC5;
  }
  _orvex_fast_memcpy(to + 3, from + 1, n);
  bool good = _orvex_fast_memcmp(to + 3, from + 1, n) == 0;
  for (std::size_t i = 0; i < n; ++i) {
    good = good && to[3 + i] == from[1 + i];
  }
  good = good && to[2] == 0xC5 && to[3 + n] == 0xC5;
  _orvex_fast_memmove(to + 20, to + 3, n);
  for (std::size_t i = 0; i < n; ++i) {
    good = good && to[20 + i] == from[1 + i];
  }
  _orvex_fast_memset(to + 5, 0x177, n);
  for (std::size_t i = 0; i < n; ++i) {
    good = good && to[5 + i] == 0x77;
  }
  return good && (n < 2 || to[4] == from[2]);
}

// The same chunk by streaming stores.
bool stream_right() {
  struct {
    __libkso_nt_context context;
    unsigned char chunk[1000];
  } stream{};
  stream.context.destination = to + 64 - reinterpret_cast<std::uintptr_t>(to) % 64;
  const auto* const out = static_cast<const unsigned char*>(stream.context.destination);
  for (int i = 0; i < 1000; ++i) {
    stream.chunk[i] = static_cast<unsigned char>(i * 13);
  }
  __libkso_nontemporal_store(&stream.context, 1000, 1);
  bool good = true;
  for (int i = 0; i < 1000; ++i) {
    good = good && out[i] == static_cast<unsigned char>(i * 13);
  }
  return good;
}

int tier(CopyRoutine* const (&copies)[3], CopyRoutine* chosen) {
  for (int i = 0; i < 3; ++i) {
    if (copies[i] == chosen) {
      return i + 1;
    }
  }
  return 0;
}

}  // namespace

int main() {
  bool good = stream_right();
  for (std::size_t n = 0; n < 600; n += n < 300 ? 1 : 13) {
    good = good && all_right(n);
  }
  good = good && all_right(9'000) && all_right(66'000);
  const int copy =
      tier({__orvex_avx_rep_memcpy, __orvex_new_memcpy, std::memmove}, __orvex_fast_memcpy_slot);
  const int move =
      tier({__orvex_avx_memmove, __orvex_new_memmove, std::memmove}, __orvex_fast_memmove_slot);
  std::printf("right:%d\ncopy tier:%d\nmove tier:%d\n", good ? 1 : 0, copy, move);
  std::printf("streaming:%d\n",
              __libkso_nontemporal_store_slot == __libkso_nontemporal_store_512   ? 512
              : __libkso_nontemporal_store_slot == __libkso_nontemporal_store_256 ? 256
                                                                                  : 0);
  std::printf("caches:%u %u %u\n", __cacheSize(1), __cacheSize(2), __cacheSize(3));
  const ksomd::mem::Tuning& t = __libkso_mem_tuning;
  std::printf("tuning:%lu %lu %lu %lu %lu %lu %lu %lu %d\n", t.largest_cache_size,
              t.copy_nt_threshold, t.l1_size, t.l1_half, t.l1_quarter, t.rep_movsb_threshold,
              t.avx512_nt_threshold, t.rep_stosb_threshold, t.mem_class);
  return 0;
}
