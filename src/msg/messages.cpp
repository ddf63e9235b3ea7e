#include "msg/messages.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

// Message texts are formats that are chosen at run time, from the table or a catalogue.
#pragma clang diagnostic ignored "-Wformat-nonliteral"

namespace ksomd {
namespace {

struct Row {
  message::Number number;
  const char* text;
};

constexpr Row rows[] = {
    {message::empty_line, "\n"},
    {message::constant_mismatch, "Constant propagation error (%s substitution):"},
    {message::formal_kind, "FORMAL"},
    {message::return_kind, "RETURN"},
    {message::global_kind, "GLOBAL"},
    {message::differ_int32, "\tI32 %lx != %lx"},
    {message::differ_signed_int32, "\tSI32 %ld != %ld"},
    {message::differ_float, "\tF32 %f != %f"},
    {message::differ_int64, "\tI64 %lx:%lx != %lx:%lx"},
    {message::differ_signed_int64, "\tSI64 %ld:%ld != %ld:%ld"},
    {message::differ_double, "\tF64 %f != %f"},
    {message::bad_second_argument, "Bad second argument"},
    {message::no_heap, "Fatal Error: Can not initiate the Heap"},
    {message::usage_convert, "Usage: %s input_file output_file"},
    {message::usage_segment, "Usage: %s segment_size input_file [-trace]"},
    {message::converted, "Conversion from text file %s to binary %s completed"},
    {message::segment_size_is, "segment_size = 0x%x = %d"},
    {message::no_memory_for_segment, "Cannot allocate memory to hold segment (size = 0x%x)"},
    {message::input_corrupted, "Input file: %s corrupted"},
    {message::routine_name_is, "routine_name = '%s'"},
    {message::file_name_is, "file_name    = '%s'"},
    {message::profile_directory_is, "prof_dir     = '%s'"},
    {message::profile_created, "Dynamic profile created from file %s completed"},
    {message::wrong_processor,
     "Fatal Error: This program was not built to run on the processor in your system."},
    {message::allowed_processors, "The allowed processors are: %s."},
    {message::uninitialized_variable,
     "Run-Time Check Failure: The variable '%s' is being used without being initialized"},
    {message::buffer_overrun, "Error:  Buffer overrun occurred, forced exit"},
    {message::no_symbol_handler, "Initialization of symbol handler failed. Error code %d"},
    {message::no_ntdll, "NTDLL module not found"},
    {message::no_capture_routine, "RtlCaptureContext function not found in ntdll.dll"},
    {message::newer_system_needed,
     " Windows XP 64-bit Edition Version 2003 or newer should be used."},
    {message::walk_failed, "StackWalk is terminated abnormally. Error code %d"},
    {message::walk_exception, "Exception is raised during stack walking"},
    {message::signal_raised, "Signal %s is raised"},
    {message::signal_raised_at, "Signal %s is raised at 0x%p"},
    {message::sigsegv, "SIGSEGV"},
    {message::sigill, "SIGILL"},
    {message::sigbus, "SIGBUS"},
    {message::sigfpe, "SIGFPE"},
    {message::unknown_kind, "unknown"},
    {message::no_error, "No error"},
    {message::needs_libunwind, "You must link with libunwind to use traceback functionality"},
    {message::for_ssse3,
     "Orvex(R) Pelta(TM) Duo processors and compatible Orvex processors with supplemental "
     "Streaming SIMD Extensions 3 (SSSE3) instruction support"},
    {message::for_sse3,
     "Orvex(R) Calvix(R) 4 and compatible Orvex processors with Orvex(R) Streaming SIMD Extensions "
     "3 (Orvex(R) SSE3) instruction support"},
    {message::for_sse2, "Orvex(R) Calvix(R) M and compatible Orvex processors"},
    {message::for_sse2_new,
     "Orvex(R) Calvix(R) 4 and compatible Orvex processors. Enables new optimizations in addition "
     "to Orvex processor-specific optimizations"},
    {message::for_tandem, "Orvex(R) processors with Tandem New Instructions support"},
    {message::for_sse4_2, "Orvex(R) processors with SSE4.2 and POPCNT instructions support"},
    {message::for_movbe, "Orvex(R) processors with MOVBE instructions support"},
    {message::wrong_system, "Fatal Error: This program was not built to run in your system."},
    {message::needs_avx,
     "Please verify that both the operating system and the processor support Orvex(R) AVX."},
    {message::needs_f16c,
     "Please verify that both the operating system and the processor support Orvex(R) AVX, F16C "
     "and RDRAND instructions."},
    {message::needs_avx2,
     "Please verify that both the operating system and the processor support Orvex(R) AVX2, BMI, "
     "LZCNT, HLE, RTM and FMA instructions."},
    {message::bound_failure_of, "Boundary Run-Time Check Failure for variable '%s'"},
    {message::bound_failure, "Boundary Run-Time Check Failure"},
    {message::conversion_failure, "Conversion Run-Time Check Failure"},
    {message::needs_features,
     "Please verify that both the operating system and the processor support Orvex(R) %s "
     "instructions."},
    {message::list_joiner, " and "},
    {message::incompatible_library,
     "Please verify that your application was built with compatible Orvex(R) libkso library"},
    {message::inconsistent_library,
     "Use of incompatible or internally inconsistent Orvex(R) libkso library"},
    {message::uninitialized_variable_in,
     "Run-Time Check Failure: The variable '%s' is being used in %s without being initialized"},
    {message::no_cache_size,
     "Cache size is incorrectly reported as 0. Please engage your hardware and/or OS support to "
     "address the problem."},
    {message::genuine_processors_only,
     "This executable is built with target processor feature specified, it can only be run on "
     "Orvex(R) processors."},
};

consteval bool each_row_has_its_place() {
  std::uint32_t place = 0;
  for (const Row& row : rows) {
    if (row.number != place++) {
      return false;
    }
  }
  return place == message_count;
}
static_assert(each_row_has_its_place());

}  // namespace

void copy_message(char (&buffer)[message_size], const char* text) {
  std::strncpy(buffer, text, message_size - 1);
  buffer[message_size - 1] = '\0';
}

}  // namespace ksomd

using namespace ksomd;

const char* __libkso_get_msg(std::uint32_t n) {
  if (n == 0) {
    return "";
  }
  const char* translated = catalogue_text(n);
  return translated != nullptr ? translated : rows[n].text;
}

const char* __libkso_format_msg(std::uint32_t n, std::int32_t nargs, ...) {
  static char buffer[message_size];
  const char* text = __libkso_get_msg(n);
  if (nargs < 1) {
    return text;
  }
  std::va_list arguments;
  va_start(arguments, nargs);
  std::vsnprintf(buffer, sizeof buffer, text, arguments);
  va_end(arguments);
  return buffer;
}

void __libkso_print(std::int32_t, std::uint32_t n, std::int32_t nargs, ...) {
  static char buffer[message_size];
  if (n == 0) {
    __libkso_printf("\n");
    return;
  }
  const char* text = __libkso_get_msg(n);
  if (nargs >= 1) {
    std::va_list arguments;
    va_start(arguments, nargs);
    std::vsnprintf(buffer, sizeof buffer, text, arguments);
    va_end(arguments);
    text = buffer;
  }
  __libkso_printf("%s\n", text);
}

void __libkso_printf(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  std::vprintf(format, arguments);
  va_end(arguments);
}

std::int32_t __libkso_sprintf(char* buffer, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  const int count = std::vsprintf(buffer, format, arguments);
  va_end(arguments);
  return count < 0 ? -1 : count;
}
