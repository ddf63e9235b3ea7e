#include "traceback/system_faults.h"

using namespace ksomd::test;

namespace {

bool fails(DWORD code) {
  if (code != 0) {
    SetLastError(code);
  }
  return code != 0;
}

}  // namespace

// NOLINTBEGIN(bugprone-macro-parentheses)
#define KSOMD_WRAP(result, name, symbol, ...)                    \
  result real_##name(__VA_ARGS__) __asm__("__real_" symbol);     \
  result name##_or_fault(__VA_ARGS__) __asm__("__wrap_" symbol); \
  result name##_or_fault(__VA_ARGS__)
// NOLINTEND(bugprone-macro-parentheses)

KSOMD_WRAP(BOOL, SymInitialize, "_Z13SymInitializePvPKci", HANDLE process, const char* path,
           BOOL invade) {
  const BOOL opened =
      !fails(stack_faults.sym_initialize) && real_SymInitialize(process, path, invade);
  stack_balance.symbol_handlers += opened;
  return opened;
}
KSOMD_WRAP(BOOL, SymCleanup, "_Z10SymCleanupPv", HANDLE process) {
  --stack_balance.symbol_handlers;
  return real_SymCleanup(process);
}
KSOMD_WRAP(HANDLE, OpenProcess, "_Z11OpenProcessjij", DWORD access, BOOL inherit, DWORD id) {
  void* const opened =
      fails(stack_faults.open_process) ? nullptr : real_OpenProcess(access, inherit, id);
  stack_balance.process_handles += opened != nullptr;
  return opened;
}
KSOMD_WRAP(BOOL, CloseHandle, "_Z11CloseHandlePv", HANDLE handle) {
  --stack_balance.process_handles;
  return real_CloseHandle(handle);
}
KSOMD_WRAP(BOOL, GetModuleHandleExA, "_Z18GetModuleHandleExAjPKcPPv", DWORD flags, const char* name,
           HMODULE* module) {
  return !fails(stack_faults.get_module_handle) && real_GetModuleHandleExA(flags, name, module);
}
KSOMD_WRAP(FARPROC, GetProcAddress, "_Z14GetProcAddressPvPKc", HMODULE module, const char* name) {
  return fails(stack_faults.get_proc_address) ? nullptr : real_GetProcAddress(module, name);
}
KSOMD_WRAP(std::size_t, VirtualQuery, "_Z12VirtualQueryPKvP24MEMORY_BASIC_INFORMATIONm",
           const void* address, MEMORY_BASIC_INFORMATION* region, std::size_t size) {
  return fails(stack_faults.virtual_query) ? 0 : real_VirtualQuery(address, region, size);
}
KSOMD_WRAP(DWORD, GetModuleFileName, "_Z23K32GetModuleFileNameExAPvS_Pcj", HANDLE process,
           HMODULE module, char* path, DWORD size) {
  return fails(stack_faults.module_file_name) ? 0
                                              : real_GetModuleFileName(process, module, path, size);
}
KSOMD_WRAP(BOOL, StackWalk64, "_Z11StackWalk64jPvS_P12STACKFRAME64P7CONTEXTS_S_S_S_", DWORD machine,
           HANDLE process, HANDLE thread, STACKFRAME64* frame, CONTEXT* context, void* read,
           void* table, void* base, void* translate) {
  return stack_faults.stack_walk != nullptr
             ? stack_faults.stack_walk(frame)
             : real_StackWalk64(machine, process, thread, frame, context, read, table, base,
                                translate);
}
