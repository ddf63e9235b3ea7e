#include "msg/messages.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

// Message texts are formats that arrive at run time, from the table or from a catalogue.
#pragma clang diagnostic ignored "-Wformat-nonliteral"

namespace ksomd {
namespace {

constexpr const char* default_texts[] = {
    "\n",
    "Constant propagation error (%s substitution):",
    "FORMAL",
    "RETURN",
    "GLOBAL",
    "\tI32 %lx != %lx",
    "\tSI32 %ld != %ld",
    "\tF32 %f != %f",
    "\tI64 %lx:%lx != %lx:%lx",
    "\tSI64 %ld:%ld != %ld:%ld",
    "\tF64 %f != %f",
    "Bad second argument",
    "Fatal Error: Can not initiate the Heap",
    "Usage: %s input_file output_file",
    "Usage: %s segment_size input_file [-trace]",
    "Conversion from text file %s to binary %s completed",
    "segment_size = 0x%x = %d",
    "Cannot allocate memory to hold segment (size = 0x%x)",
    "Input file: %s corrupted",
    "routine_name = '%s'",
    "file_name    = '%s'",
    "prof_dir     = '%s'",
    "Dynamic profile created from file %s completed",
    "Fatal Error: This program was not built to run on the processor in your system.",
    "The allowed processors are: %s.",
    "Run-Time Check Failure: The variable '%s' is being used without being initialized",
    "Error:  Buffer overrun occurred, forced exit",
    "Initialization of symbol handler failed. Error code %d",
    "NTDLL module not found",
    "RtlCaptureContext function not found in ntdll.dll",
    " Windows XP 64-bit Edition Version 2003 or newer should be used.",
    "StackWalk is terminated abnormally. Error code %d",
    "Exception is raised during stack walking",
    "Signal %s is raised",
    "Signal %s is raised at 0x%p",
    "SIGSEGV",
    "SIGILL",
    "SIGBUS",
    "SIGFPE",
    "unknown",
    "No error",
    "You must link with libunwind to use traceback functionality",
    "Orvex(R) Pelta(TM) Duo processors and compatible Orvex processors with supplemental Streaming "
    "SIMD Extensions 3 (SSSE3) instruction support",
    "Orvex(R) Calvix(R) 4 and compatible Orvex processors with Orvex(R) Streaming SIMD Extensions "
    "3 (Orvex(R) SSE3) instruction support",
    "Orvex(R) Calvix(R) M and compatible Orvex processors",
    "Orvex(R) Calvix(R) 4 and compatible Orvex processors. Enables new optimizations in addition "
    "to Orvex processor-specific optimizations",
    "Orvex(R) processors with Tandem New Instructions support",
    "Orvex(R) processors with SSE4.2 and POPCNT instructions support",
    "Orvex(R) processors with MOVBE instructions support",
    "Fatal Error: This program was not built to run in your system.",
    "Please verify that both the operating system and the processor support Orvex(R) AVX.",
    "Please verify that both the operating system and the processor support Orvex(R) AVX, F16C and "
    "RDRAND instructions.",
    "Please verify that both the operating system and the processor support Orvex(R) AVX2, BMI, "
    "LZCNT, HLE, RTM and FMA instructions.",
    "Boundary Run-Time Check Failure for variable '%s'",
    "Boundary Run-Time Check Failure",
    "Conversion Run-Time Check Failure",
    "Please verify that both the operating system and the processor support Orvex(R) %s "
    "instructions.",
    " and ",
    "Please verify that your application was built with compatible Orvex(R) libkso library",
    "Use of incompatible or internally inconsistent Orvex(R) libkso library",
    "Run-Time Check Failure: The variable '%s' is being used in %s without being initialized",
    "Cache size is incorrectly reported as 0. Please engage your hardware and/or OS support to "
    "address the problem.",
    "This executable is built with target processor feature specified, it can only be run on "
    "Orvex(R) processors.",
};
static_assert(sizeof default_texts / sizeof default_texts[0] == message_count);

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
  return translated != nullptr ? translated : default_texts[n];
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
