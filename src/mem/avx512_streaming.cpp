#include "mem/avx512_blocks.h"
#include "mem/stream_lines.h"
#include "mem/streaming.h"

void __libkso_nontemporal_store_512(__libkso_nt_context* context, size_t length, int final) {
  ksomd::mem::stream_chunk<ksomd::mem::Piece64>(*context, length, final != 0);
}

void __libkso_nontemporal_store_dynamic_512(__libkso_nt_context* context, size_t length, int final,
                                            int plain) {
  if (plain == 0) {
    [[clang::always_inline]] __libkso_nontemporal_store_512(context, length, final);
  } else {
    ksomd::mem::copy_chunk(context, length);
  }
}
