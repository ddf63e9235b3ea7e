// Numbered messages: their texts, their translation by a catalogue, and their output, which is
// standard output. (An item of KSOMD_MEM_TUNING that is refused is no message; it is named on
// standard error.) Nothing here is thread-safe: each routine that returns or writes
// a formatted text has a static buffer.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ksomd {

inline constexpr std::uint32_t message_count = 63;

// The numbers of the messages. Catalogues use the same numbers. The texts are in messages.cpp.
namespace message {
enum Number : std::uint32_t {
  empty_line,
  constant_mismatch,
  formal_kind,
  return_kind,
  global_kind,
  differ_int32,
  differ_signed_int32,
  differ_float,
  differ_int64,
  differ_signed_int64,
  differ_double,
  bad_second_argument,
  no_heap,
  usage_convert,
  usage_segment,
  converted,
  segment_size_is,
  no_memory_for_segment,
  input_corrupted,
  routine_name_is,
  file_name_is,
  profile_directory_is,
  profile_created,
  wrong_processor,
  allowed_processors,
  uninitialized_variable,
  buffer_overrun,
  no_symbol_handler,
  no_ntdll,
  no_capture_routine,
  newer_system_needed,
  walk_failed,
  walk_exception,
  signal_raised,
  signal_raised_at,
  sigsegv,
  sigill,
  sigbus,
  sigfpe,
  unknown_kind,
  no_error,
  needs_libunwind,
  for_ssse3,
  for_sse3,
  for_sse2,
  for_sse2_new,
  for_tandem,
  for_sse4_2,
  for_movbe,
  wrong_system,
  needs_avx,
  needs_f16c,
  needs_avx2,
  bound_failure_of,
  bound_failure,
  conversion_failure,
  needs_features,
  list_joiner,
  incompatible_library,
  inconsistent_library,
  uninitialized_variable_in,
  no_cache_size,
  genuine_processors_only
};
}  // namespace message

// The size of a message buffer. Longer texts are truncated.
inline constexpr std::size_t message_size = 512;

// The catalogue's text of message n, in a static buffer; null if there is no catalogue or it has no
// such text. Only the first call looks for the catalogue: the file "kso_msg.dll" in a directory
// whose name is the thread's locale as a decimal number.
const char* catalogue_text(std::uint32_t n);

// Copies a text and truncates it to the buffer's size.
void copy_message(char (&buffer)[message_size], const char* text);

}  // namespace ksomd

extern "C" {

// The text of message n: the catalogue's if it has one, else the default; "" for n = 0. Valid until
// the next call.
const char* __libkso_get_msg(std::uint32_t n);

// With nargs < 1, the text of message n as it is, directives included. Otherwise that text as a
// printf format applied to the arguments, truncated to 511 characters. Valid until the next call.
const char* __libkso_format_msg(std::uint32_t n, std::int32_t nargs, ...);

// Writes message n, formatted as above, and a line feed. For n = 0 it writes a line feed alone.
// `cls`, the class of the message, is ignored.
void __libkso_print(std::int32_t cls, std::uint32_t n, std::int32_t nargs, ...);

// printf to standard output.
void __libkso_printf(const char* format, ...);

// sprintf. Returns the number of characters written, or -1 if formatting fails.
std::int32_t __libkso_sprintf(char* buffer, const char* format, ...);

// Reports that the program was not built for this processor and ends the process with status 1.
// `desc` is the message that names the processors it was built for.
[[noreturn]] void __libkso_fatal_processor(std::uint32_t desc);

// Reports that the processor or the system lacks what the program needs and ends the process with
// status 1. `advice` is the message that says what is missing.
[[noreturn]] void __libkso_fatal_system(std::uint32_t advice);

}  // extern "C"
