// What a streaming store of one chunk does to its context.
#pragma once

#include "ksomd/memory.h"

namespace ksomd::test {

struct StreamedChunk {
  std::uint64_t head_offset, pending = 0;  // afterwards
  std::size_t lines = 0;                   // non-temporal stores

  StreamedChunk(std::size_t line, const __libkso_nt_context& before, std::size_t n, bool final)
      : head_offset(before.head_offset) {
    if (n >= 4 * line) {
      n += before.pending - (head_offset == 0 ? 0 : line - head_offset % line);
      head_offset = 0;
      lines = n / line;
      pending = final ? 0 : n % line;
    }
  }
};

}  // namespace ksomd::test
