// The end of the process from the library's load-time initialiser.
#pragma once

namespace ksomd {

// As std::exit, at a moment at which a static program cannot yet exit by itself.
[[noreturn]] void exit_while_loading(int status);

}  // namespace ksomd
