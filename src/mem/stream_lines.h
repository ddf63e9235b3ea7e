// The streaming-store routine, for a vector of any width.
#pragma once

#include "ksomd/memory.h"
#include "mem/avx_blocks.h"

namespace ksomd::mem {
namespace {

// Writes n bytes to the destination with ordinary stores of at most 16 bytes, and advances it.
[[gnu::always_inline]] inline void write_bytes(__libkso_nt_context& context, const Byte* s,
                                               size_t n) {
  auto* d = static_cast<Byte*>(context.destination);
  context.destination = d + n;
  copy_by_16(d, s, n);
}

// Appends n bytes to those that wait.
[[gnu::always_inline]] inline void stage_bytes(__libkso_nt_context& context, const Byte* s,
                                               size_t n) {
  Byte* const d = context.staging + context.pending;
  context.pending += n;
  copy_by_16(d, s, n);
}

template <class Line, size_t lines>
[[gnu::always_inline]] inline void stream_lines(__libkso_nt_context& context, const Byte* s) {
  auto* d = static_cast<Byte*>(context.destination);
  copy_group<Line, lines, Access::Unaligned, Access::NonTemporal>(d, s);
  context.destination = d + lines * Line::size;
}

// Takes a chunk of n bytes. One of at most `small` bytes goes straight to the destination, behind
// the bytes that wait.
template <class Line>
[[gnu::always_inline]] inline void stream_chunk(__libkso_nt_context& context, size_t n,
                                                bool final) {
  constexpr size_t line = Line::size, small = 4 * line - 1;
  const Byte* chunk = reinterpret_cast<const Byte*>(&context) + KSOMD_NT_CHUNK_OFFSET;
  if (n <= small) {
    write_bytes(context, context.staging, context.pending);
    context.pending = 0;
    clear_upper_halves();
    write_bytes(context, chunk, n);
    return;
  }
  if (context.head_offset != 0) {
    const size_t head = line - context.head_offset % line;
    write_bytes(context, chunk, head);
    chunk += head, n -= head;
    context.head_offset = 0;
  }
  if (context.pending != 0) {
    const size_t missing = line - context.pending;
    stage_bytes(context, chunk, missing);
    chunk += missing, n -= missing;
    stream_lines<Line, 1>(context, context.staging);
    context.pending = 0;
  }
  for (; n >= 8 * line; chunk += 8 * line, n -= 8 * line) {
    stream_lines<Line, 8>(context, chunk);
  }
  for (; n >= line; chunk += line, n -= line) {
    stream_lines<Line, 1>(context, chunk);
  }
  clear_upper_halves();
  if (final) {
    write_bytes(context, chunk, n);
  } else {
    stage_bytes(context, chunk, n);
  }
}

}  // namespace
}  // namespace ksomd::mem
