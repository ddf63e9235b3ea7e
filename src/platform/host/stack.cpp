// Handles, the last error, the capture of registers and the walk, by libunwind.
#define UNW_LOCAL_ONLY
#include <libunwind.h>
#include <ucontext.h>
#include <unistd.h>

#include <cstring>

#include "platform/platform.h"

namespace ksomd::host {

namespace {

thread_local DWORD last_error;

// Its address is the one handle that there is.
char process_handle;

// A general register: in a CONTEXT, in libunwind, and in the system's own context, where libunwind
// starts.
struct Register {
  DWORD64 CONTEXT::* in_context;
  unw_regnum_t number;
  int greg;
};

constexpr Register registers[] = {
    {&CONTEXT::Rax, UNW_X86_64_RAX, REG_RAX}, {&CONTEXT::Rcx, UNW_X86_64_RCX, REG_RCX},
    {&CONTEXT::Rdx, UNW_X86_64_RDX, REG_RDX}, {&CONTEXT::Rbx, UNW_X86_64_RBX, REG_RBX},
    {&CONTEXT::Rsp, UNW_X86_64_RSP, REG_RSP}, {&CONTEXT::Rbp, UNW_X86_64_RBP, REG_RBP},
    {&CONTEXT::Rsi, UNW_X86_64_RSI, REG_RSI}, {&CONTEXT::Rdi, UNW_X86_64_RDI, REG_RDI},
    {&CONTEXT::R8, UNW_X86_64_R8, REG_R8},    {&CONTEXT::R9, UNW_X86_64_R9, REG_R9},
    {&CONTEXT::R10, UNW_X86_64_R10, REG_R10}, {&CONTEXT::R11, UNW_X86_64_R11, REG_R11},
    {&CONTEXT::R12, UNW_X86_64_R12, REG_R12}, {&CONTEXT::R13, UNW_X86_64_R13, REG_R13},
    {&CONTEXT::R14, UNW_X86_64_R14, REG_R14}, {&CONTEXT::R15, UNW_X86_64_R15, REG_R15},
    {&CONTEXT::Rip, UNW_X86_64_RIP, REG_RIP},
};

void read_registers(unw_cursor_t& cursor, CONTEXT& context) {
  for (const Register& each : registers) {
    unw_word_t value = 0;
    if (unw_get_reg(&cursor, each.number, &value) == 0) {
      context.*each.in_context = value;
    }
  }
}

// The state of a walk, which the frame record keeps from one call to the next.
enum Progress : DWORD64 {
  not_started,
  at_instruction,  // at the next instruction: the first frame, or one that a signal interrupted
  behind_call      // at a return address
};

// Replaces the registers by those of the caller and updates `progress`. If there is no caller it
// returns false and changes neither.
bool step_to_caller(CONTEXT& context, DWORD64& progress) {
  unw_context_t machine;
  std::memset(&machine, 0, sizeof machine);
  for (const Register& each : registers) {
    machine.uc_mcontext.gregs[each.greg] = static_cast<greg_t>(context.*each.in_context);
  }
  unw_cursor_t cursor;
  const int flags = progress == behind_call ? 0 : UNW_INIT_SIGNAL_FRAME;
  if (unw_init_local2(&cursor, &machine, flags) != 0 || unw_step(&cursor) <= 0) {
    return false;
  }
  // After the step this is true if a signal interrupted the frame that the step has reached.
  const bool interrupted = unw_is_signal_frame(&cursor) > 0;
  CONTEXT caller = context;
  read_registers(cursor, caller);
  // The stack grows down, so a caller's frame lies above its callee's. Only a signal handler may
  // run on a separate stack.
  if (caller.Rip == 0 || (!interrupted && caller.Rsp <= context.Rsp)) {
    return false;
  }
  context = caller;
  progress = interrupted ? at_instruction : behind_call;
  return true;
}

}  // namespace
}  // namespace ksomd::host

using namespace ksomd::host;

DWORD GetLastError() {
  return last_error;
}

void SetLastError(DWORD code) {
  last_error = code;
}

HANDLE GetCurrentProcess() {
  return &process_handle;
}

HANDLE GetCurrentThread() {
  return &last_error;
}

DWORD GetCurrentProcessId() {
  return static_cast<DWORD>(getpid());
}

HANDLE OpenProcess(DWORD, BOOL, DWORD) {
  return &process_handle;
}

BOOL CloseHandle(HANDLE) {
  return true;
}

BOOL GetModuleHandleExA(DWORD, const char*, HMODULE* module) {
  *module = &process_handle;
  return true;
}

FARPROC GetProcAddress(HMODULE, const char*) {
  return reinterpret_cast<FARPROC>(RtlCaptureContext);
}

[[gnu::noinline]] void RtlCaptureContext(CONTEXT* context) {
  std::memset(context, 0, sizeof *context);
  unw_context_t machine;
  unw_getcontext(&machine);
  unw_cursor_t cursor;
  if (unw_init_local(&cursor, &machine) == 0 && unw_step(&cursor) > 0) {
    read_registers(cursor, *context);
  }
}

BOOL SymInitialize(HANDLE, const char*, BOOL) {
  // The unwinder's cache is keyed by address alone. But one address may be the start of a routine
  // and also the return address of a call at the end of the routine before it.
  unw_set_caching_policy(unw_local_addr_space, UNW_CACHE_NONE);
  return true;
}

BOOL SymCleanup(HANDLE) {
  return true;
}

BOOL StackWalk64(DWORD, HANDLE, HANDLE, STACKFRAME64* frame, CONTEXT* context, void*, void*, void*,
                 void*) {
  DWORD64& progress = frame->Reserved[0];
  const bool moved = progress == not_started || step_to_caller(*context, progress);
  if (!moved || context->Rip == 0) {
    last_error = ERROR_INVALID_ADDRESS;
    return false;
  }
  if (progress == not_started) {
    progress = at_instruction;
  }
  CONTEXT caller = *context;
  DWORD64 caller_progress = progress;
  frame->AddrPC.Offset = context->Rip;
  frame->AddrStack.Offset = context->Rsp;
  frame->AddrFrame.Offset = context->Rbp;
  frame->AddrReturn.Mode = AddrModeFlat;
  frame->AddrReturn.Offset = step_to_caller(caller, caller_progress) ? caller.Rip : 0;
  const DWORD64 arguments[] = {context->Rdi, context->Rsi, context->Rdx, context->Rcx};
  std::memcpy(frame->Params, arguments, sizeof arguments);
  return true;
}
