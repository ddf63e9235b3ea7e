// The part of the operating system that the library calls. On Windows it is the system itself; on
// the host it is a small layer with the same names.
#pragma once

#ifdef _WIN32
#include "platform/windows/system.h"
#else
#include "platform/host/system.h"
#endif

#include <cstdint>

namespace ksomd {

// Runs body(argument). Returns false if a fault in it was not handled there: on Windows an
// exception, on the host SIGSEGV, SIGBUS, SIGFPE, SIGILL or SIGTRAP of this thread. The previous
// handlers are in place again when this returns. Calls may nest; on the host only one thread at a
// time may be in one.
bool run_protected(void (*body)(void*), void* argument);

// Finds a section by name in the image that starts at `image`, in the system's own format where
// that is not PE. `offset` counts from the image's start. The section table of an ELF image is read
// from its file, because it is not loaded.
bool find_native_section(const void* image, const char* name, std::uint64_t& offset,
                         std::uint64_t& size);

// Ends the process like std::exit, but from the library's load-time initialiser, where std::exit
// would abort a static program.
[[noreturn]] void exit_while_loading(int status);

}  // namespace ksomd
