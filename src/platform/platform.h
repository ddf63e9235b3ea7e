// The part of the operating system that the library calls. On Windows it is the system itself; on
// the host it is a small layer with the same names.
#pragma once

#ifdef _WIN32
#include "platform/windows/system.h"
#else
#include "platform/host/system.h"
#endif

namespace ksomd {

// Ends the process like std::exit, but from the library's load-time initialiser, where std::exit
// would abort a static program.
[[noreturn]] void exit_while_loading(int status);

}  // namespace ksomd
