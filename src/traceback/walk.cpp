// Walks a stack and hands each frame to a callback.
#include <cstring>

#include "ksomd/traceback.h"
#include "msg/messages.h"
#include "platform/platform.h"
#include "traceback/image.h"

namespace ksomd::traceback {
namespace {

constexpr std::size_t error_text_size = 100;
char error_text[error_text_size];

using CaptureRoutine = void(WINAPI*)(CONTEXT*);
CaptureRoutine capture_routine;

constexpr std::uint32_t frames_skipped_indirect = 5;

void add_error(const char* text) {
  const std::size_t length = std::strlen(error_text);
  std::strncpy(error_text + length, text, error_text_size - 1 - length);
}

void set_error(const char* text) {
  std::memset(error_text, 0, sizeof error_text);
  add_error(text);
}

// `code` is the system's last-error value. The caller reads it before anything can change it.
void set_error_with_code(message::Number number, DWORD code) {
  set_error(__libkso_format_msg(number, 1, code));
}

std::uint32_t find_capture_routine() {
  HMODULE module = nullptr;
  if (!GetModuleHandleExA(0, "NTDLL.DLL", &module)) {
    set_error(__libkso_get_msg(message::no_ntdll));
    return KSOMD_WALK_NO_SYSTEM_MODULE;
  }
  const auto address =
      reinterpret_cast<std::uintptr_t>(GetProcAddress(module, "RtlCaptureContext"));
  capture_routine = reinterpret_cast<CaptureRoutine>(address);
  if (capture_routine == nullptr) {
    set_error(__libkso_get_msg(message::no_capture_routine));
    add_error("\n");
    add_error(__libkso_get_msg(message::newer_system_needed));
    return KSOMD_WALK_NO_CAPTURE;
  }
  return KSOMD_WALK_DONE;
}

// Handles a call through a null or wild pointer. No walk can start where there is no code, so it
// starts at the return address that the call left on the stack.
void leave_wild_call(CONTEXT& context) {
  const DWORD error = GetLastError();
  if (!is_code(context.Rip)) {
    const Bytes slot = readable_bytes(context.Rsp, sizeof context.Rip);
    const std::uint64_t caller =
        slot.size == sizeof context.Rip ? read_unsigned(slot.data, sizeof context.Rip) : 0;
    if (is_code(caller)) {
      context.Rip = caller;
      context.Rsp += sizeof caller;
    }
  }
  SetLastError(error);
}

struct Walk {
  HANDLE process;
  HANDLE thread;
  STACKFRAME64 frame;
  CONTEXT context;
  void* user;
  ksomd_frame_callback callback;
  std::uint32_t skip;
  std::uint32_t status;
};

// Steps from frame to frame until the walk's status is known.
void run_walk(void* argument) {
  auto& walk = *static_cast<Walk*>(argument);
  for (;;) {
    if (!StackWalk64(IMAGE_FILE_MACHINE_AMD64, walk.process, walk.thread, &walk.frame,
                     &walk.context, nullptr, nullptr, nullptr, nullptr)) {
      set_error_with_code(message::walk_failed, GetLastError());
      walk.status = KSOMD_WALK_FAILED;
      return;
    }
    const std::int32_t skip = walk.skip > 0 ? 1 : 0;
    walk.skip -= static_cast<std::uint32_t>(skip);
    const std::int32_t answer = walk.callback(&walk.frame, walk.user, skip);
    if (answer == KSOMD_FRAME_OVERFLOW) {
      walk.status = KSOMD_WALK_OVERFLOW;
      return;
    }
    if (answer == KSOMD_FRAME_STOP || walk.frame.AddrReturn.Offset == 0) {
      walk.status = KSOMD_WALK_DONE;
      return;
    }
  }
}

const STACKFRAME64& as_frame(const void* frame) {
  return *static_cast<const STACKFRAME64*>(frame);
}

}  // namespace
}  // namespace ksomd::traceback

using namespace ksomd;
using namespace ksomd::traceback;

// The context is captured in this routine's own frame, not in a helper's. Callers rely on two
// things: the walk's first frame is this one, and each routine between it and them has exactly one
// frame.
[[gnu::noinline, clang::disable_tail_calls]] std::uint32_t tbk_trace_stack_impl(
    const void* context, void* user, ksomd_frame_callback callback, std::uint32_t direct,
    std::uint32_t skip) {
  set_error(__libkso_get_msg(message::no_error));
  Walk walk;
  walk.process = GetCurrentProcess();
  walk.thread = GetCurrentThread();
  SetLastError(0);
  if (!SymInitialize(walk.process, nullptr, true)) {
    set_error_with_code(message::no_symbol_handler, GetLastError());
    add_error("\n");
    return KSOMD_WALK_NO_SYMBOL_HANDLER;
  }
  std::memset(&walk.frame, 0, sizeof walk.frame);
  walk.frame.AddrPC.Mode = AddrModeFlat;
  walk.frame.AddrFrame.Mode = AddrModeFlat;
  walk.frame.AddrStack.Mode = AddrModeFlat;
  walk.user = user;
  walk.callback = callback;
  if (context != nullptr) {
    std::memcpy(&walk.context, context, sizeof walk.context);
    leave_wild_call(walk.context);
    walk.skip = 0;
  } else {
    const std::uint32_t failure =
        capture_routine == nullptr ? find_capture_routine() : std::uint32_t{KSOMD_WALK_DONE};
    if (failure != KSOMD_WALK_DONE) {
      SymCleanup(walk.process);
      return failure;
    }
    capture_routine(&walk.context);
    walk.skip = direct != 0 ? skip : frames_skipped_indirect;
  }
  if (!run_protected(run_walk, &walk)) {
    set_error(__libkso_get_msg(message::walk_exception));
    walk.status = KSOMD_WALK_EXCEPTION;
  }
  SymCleanup(walk.process);
  return walk.status;
}

[[gnu::noinline, clang::disable_tail_calls]] std::uint32_t tbk_trace_stack(
    const void* context, void* user, ksomd_frame_callback callback, std::uint32_t direct) {
  return tbk_trace_stack_impl(context, user, callback, direct, 2);
}

std::uint64_t tbk_getPC(const void* frame) {
  return as_frame(frame).AddrPC.Offset;
}

std::uint64_t tbk_getRetAddr(const void* frame) {
  return as_frame(frame).AddrReturn.Offset;
}

std::uint64_t tbk_getFramePtr(const void*) {
  return 0;
}

const char* tbk_geterrorstring() {
  return error_text;
}
