// Stack dumps: the text of each frame, in the caller's buffer.
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "ksomd/traceback.h"
#include "platform/platform.h"
#include "traceback/module_name.h"

namespace ksomd::traceback {
namespace {

constexpr char overflow_notice[] = "\nStack trace buffer overflow; further frames not shown.\n";
constexpr std::size_t notice_size = sizeof overflow_notice;

constexpr char table_heading[] =
    "Image              PC                Routine            Line        Source             \n";
constexpr char detailed_heading[] = "\n\nTraceback symbolic or hex stack dump follows:\n\n";

// What the dump routine and its frame callback share. The text of frames goes to the first
// `capacity` bytes of the buffer; behind them there is room for the overflow notice.
struct DumpState {
  char* buffer;  // null: only the length is counted
  std::uint64_t capacity;
  std::uint64_t used;
  bool detailed;
  std::uint32_t frames;
};

// What is known of one frame.
struct FrameDescription {
  std::uint64_t pc;
  char module[512];
  ksomd_pc_info info;
};

// Room for the longest entry of either form.
using Entry = char[2048];

// Appends a text. Truncates it and returns false when it does not fit.
bool write(DumpState& dump, const char* text, std::size_t length) {
  if (dump.buffer == nullptr) {
    dump.used += length;
    return true;
  }
  const std::uint64_t left = dump.capacity - dump.used;
  if (left <= length) {
    if (left > 0) {
      std::memcpy(dump.buffer + dump.used, text, left - 1);
      dump.buffer[dump.capacity - 1] = '\0';
    }
    dump.used = dump.capacity;
    return false;
  }
  std::memcpy(dump.buffer + dump.used, text, length);
  dump.used += length;
  dump.buffer[dump.used] = '\0';
  return true;
}

bool write_heading(DumpState& dump) {
  return dump.detailed ? write(dump, detailed_heading, sizeof detailed_heading - 1)
                       : write(dump, table_heading, sizeof table_heading - 1);
}

bool write_table_entry(DumpState& dump, const FrameDescription& frame) {
  Entry entry;
  const int length = std::snprintf(
      entry, sizeof entry, "%-17.17s  %16.16" PRIX64 "  %-17.17s  %10.10s  %s\n", frame.module,
      frame.pc, frame.info.routine, frame.info.line, file_name_of(frame.info.file));
  return write(dump, entry, static_cast<std::size_t>(length));
}

const char* mode_name(std::uint32_t mode) {
  constexpr const char* names[] = {"AddrMode1616", "AddrMode1632", "AddrModeReal", "AddrModeFlat"};
  return mode < sizeof names / sizeof names[0] ? names[mode] : "Unknown";
}

// A text that grows in an Entry, which is large enough for all of it.
struct EntryText {
  Entry text;
  std::size_t length = 0;

  [[gnu::format(printf, 2, 3)]] void add(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    const int count = std::vsnprintf(text + length, sizeof text - length, format, arguments);
    va_end(arguments);
    length += static_cast<std::size_t>(count);
  }
};

// An address of a frame, and its labels. The rows below are in the order of the output.
struct LabelledAddress {
  ADDRESS64 STACKFRAME64::* address;
  const char* offset;
  const char* segment;
  const char* mode;
};

constexpr LabelledAddress addresses[] = {
    {&STACKFRAME64::AddrPC, "PC.Offset:       ", "  PC.Segment:       ", "  PC.Mode:       "},
    {&STACKFRAME64::AddrReturn, "Return.Offset:   ", "  Return.Segment:   ", "  Return.Mode:   "},
    {&STACKFRAME64::AddrFrame, "Frame.Offset:    ", "  Frame.Segment:    ", "  Frame.Mode:    "},
    {&STACKFRAME64::AddrStack, "Stack.Offset:    ", "  Stack.Segment:    ", "  Stack.Mode:    "},
};

bool write_detailed_entry(DumpState& dump, const STACKFRAME64& record,
                          const FrameDescription& frame) {
  EntryText entry;
  entry.add("--------- Frame # %" PRIu32 " ---------------------------------------\n\n",
            dump.frames);
  entry.add("Image:         %s\n", frame.module);
  entry.add("PC:            %16.16" PRIX64 "\n", frame.pc);
  entry.add("Routine name:  %s\n", frame.info.routine);
  entry.add("Source file:   %s\n", frame.info.file);
  entry.add("Line number:   %s\n\n", frame.info.line);
  entry.add("Info from StackFrame is:\n\n");
  for (const LabelledAddress& each : addresses) {
    const ADDRESS64& address = record.*each.address;
    entry.add("%s%16.16" PRIX64 "%s%4.4X%s%s\n", each.offset, std::uint64_t{address.Offset},
              each.segment, unsigned{address.Segment}, each.mode,
              mode_name(static_cast<std::uint32_t>(address.Mode)));
  }
  entry.add("\nParams[0]:       %16.16" PRIX64 "  Params[1]:   %16.16" PRIX64 "\n",
            std::uint64_t{record.Params[0]}, std::uint64_t{record.Params[1]});
  entry.add("Params[2]:       %16.16" PRIX64 "  Params[3]:   %16.16" PRIX64 "\n\n",
            std::uint64_t{record.Params[2]}, std::uint64_t{record.Params[3]});
  return write(dump, entry.text, entry.length);
}

std::int32_t format_frame(const void* record, void* user, std::int32_t skip) {
  auto& dump = *static_cast<DumpState*>(user);
  if (skip != 0) {
    return 0;
  }
  if (dump.frames == 0 && !write_heading(dump)) {
    return KSOMD_FRAME_OVERFLOW;
  }
  FrameDescription frame;
  frame.pc = tbk_getPC(record);
  if (frame.pc == 0) {
    return KSOMD_FRAME_STOP;
  }
  tbk_getModuleName(frame.pc, frame.module, sizeof frame.module, nullptr);
  tbk_get_pc_info_pie(&frame.info, frame.pc, nullptr, frame.module);
  const bool fits =
      dump.detailed ? write_detailed_entry(dump, *static_cast<const STACKFRAME64*>(record), frame)
                    : write_table_entry(dump, frame);
  if (!fits) {
    return KSOMD_FRAME_OVERFLOW;
  }
  ++dump.frames;
  return 0;
}

// Appends to the text in the buffer as much of `text` as fits in `size` bytes, terminator included.
void append(char* buffer, std::uint64_t size, const char* text) {
  const std::size_t length = strnlen(buffer, size);
  if (length < size) {
    const std::size_t left = size - 1 - length;
    const std::size_t count = strnlen(text, left);
    std::memcpy(buffer + length, text, count);
    buffer[length + count] = '\0';
  }
}

}  // namespace
}  // namespace ksomd::traceback

using namespace ksomd::traceback;

// Each of these two routines has exactly one frame: callers count on that when they skip frames.
[[gnu::noinline, clang::disable_tail_calls]] std::uint64_t tbk_string_stack_signal_impl(
    const void* context, char* buffer, std::uint64_t size, std::uint32_t brief,
    std::uint32_t direct, std::uint32_t skip) {
  if (buffer != nullptr && size <= notice_size) {
    append(buffer, size, overflow_notice);
    return notice_size;
  }
  // Frames leave room for the notice and one byte more.
  DumpState dump = {.buffer = buffer,
                    .capacity = buffer != nullptr ? size - notice_size - 1 : 0,
                    .used = 0,
                    .detailed = brief == 0,
                    .frames = 0};
  const std::uint32_t status = tbk_trace_stack_impl(context, &dump, format_frame, direct, skip);
  if (status != KSOMD_WALK_DONE) {
    const char* reason = status == KSOMD_WALK_OVERFLOW ? overflow_notice : tbk_geterrorstring();
    if (buffer != nullptr) {
      append(buffer, size, reason);
    }
    dump.used += std::strlen(reason) + 1;  // its terminator counts
  }
  // The smallest size whose capacity holds the text and a terminator.
  if (buffer == nullptr) {
    return dump.used + notice_size + 2;
  }
  return dump.used < size ? dump.used : size;
}

[[gnu::noinline, clang::disable_tail_calls]] std::uint64_t tbk_string_stack_signal(
    const void* context, char* buffer, std::uint64_t size, std::uint32_t brief,
    std::uint32_t direct) {
  return tbk_string_stack_signal_impl(context, buffer, size, brief, direct, 3);
}
