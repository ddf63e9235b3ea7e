// Calls of the host's platform layer that a test makes fail, and what the others have opened. The
// linker's --wrap leads the library's calls through system_faults.cpp.
#pragma once

#include "platform/platform.h"

namespace ksomd::test {

// A call whose field is not 0 fails with this last-error value.
struct StackFaults {
  DWORD sym_initialize = 0, get_module_handle = 0, get_proc_address = 0, virtual_query = 0,
        open_process = 0, module_file_name = 0;
  BOOL (*stack_walk)(STACKFRAME64* frame) = nullptr;  // what StackWalk64 is to do instead
};
inline StackFaults stack_faults;

// What is open: symbol handlers started and process handles opened, less those closed.
struct StackBalance {
  int symbol_handlers, process_handles;
};
inline StackBalance stack_balance;

}  // namespace ksomd::test
