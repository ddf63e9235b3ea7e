#include "ksomd/memory.h"

#include <cstdio>
#include <cstring>

#include "ksomd/core.h"
#include "sections.h"

void tour::show_memory() {
  std::printf("\nMemory\n");
  std::printf("  data caches (0: not told of this vendor): %u, %u and %u KiB; core type %u\n",
              __cacheSize(1), __cacheSize(2), __cacheSize(3), __detect_cpu_core_type());

  char text[64] = "copied by the variant that suits this processor";
  _orvex_fast_memmove(text + 5, text, sizeof text - 5);
  _orvex_fast_memset(text, '>', 4);
  text[4] = ' ';
  std::printf("  %s\n", text);
  std::printf("  'abc' against 'abd': %d\n", _orvex_fast_memcmp("abc", "abd", 3));

  // A loop hands its output over chunk by chunk; whole lines go past the cache.
  static double output[300];
  struct {
    __libkso_nt_context context;
    double chunk[75];
  } stream = {};
  stream.context.destination = output;
  stream.context.head_offset = reinterpret_cast<uintptr_t>(output) % 64;
  for (int chunk = 0; chunk < 4; ++chunk) {
    for (int i = 0; i < 75; ++i) {
      stream.chunk[i] = chunk * 75 + i;
    }
    __libkso_nontemporal_store(&stream.context, sizeof stream.chunk, chunk == 3);
  }
  std::printf("  streamed 300 numbers in 4 chunks; the last is %g\n", output[299]);
}
