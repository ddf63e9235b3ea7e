// The slice of the operating system that the library calls: the real thing on Windows, a small
// layer of our own with the same names on the host.
#pragma once

#ifdef _WIN32
#include "platform/windows/system.h"
#else
#include "platform/host/system.h"
#endif

namespace ksomd {

// As std::exit, from the library's load-time initialiser: a moment at which a static program cannot
// yet exit by itself.
[[noreturn]] void exit_while_loading(int status);

}  // namespace ksomd
