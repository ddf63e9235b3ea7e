// Walks where the system fails, where registers lead astray, and where signals come between.
#include <ucontext.h>

#include <csignal>
#include <thread>

#include "support/child_process.h"
#include "traceback/entries.h"

namespace ksomd::test {
namespace {

// In a process of its own: the capture routine is looked up by the first walk that needs it.
KSOMD_CHILD(walk_while_the_system_fails) {
  const CONTEXT wild = {};
  CONTEXT own;
  RtlCaptureContext(&own);
  const auto check = [&own](const StackFaults& faults, const CONTEXT* context, std::uint32_t status,
                            const std::string& text) {
    Recorder recorder;
    SetLastError(33);
    stack_faults = faults;
    EXPECT_EQ(recorder.walk(context), status) << text;
    stack_faults = {};
    EXPECT_EQ(geterrorstring(), text);
    EXPECT_EQ(recorder.frames.empty(), status != 0) << text;
    EXPECT_TRUE(recorder.walk(&own) == 0 && stack_balance.symbol_handlers == 0) << text;
  };
  check({.get_module_handle = 126}, nullptr, 2, "NTDLL module not found");
  check({.get_proc_address = 127}, nullptr, 3,
        "RtlCaptureContext function not found in ntdll.dll\n"
        " Windows XP 64-bit Edition Version 2003 or newer ");
  check({}, nullptr, 0, "No error");
  check({.get_module_handle = 126}, nullptr, 0, "No error");
  check({.sym_initialize = ~0u}, &wild, 1,
        "Initialization of symbol handler failed. Error code -1\n");
  // What happened before the walk, and what the library asks on its own, is no error of it.
  const std::string walking = "StackWalk is terminated abnormally. Error code ";
  check({.virtual_query = 5, .stack_walk = [](STACKFRAME64*) { return 0; }}, &wild, 4,
        walking + "0");
  check({}, &wild, 4, walking + "487");
  check({.stack_walk = [](STACKFRAME64*) { return std::raise(SIGBUS); }}, &wild, 6,
        "Exception is raised during stack walking");
  EXPECT_NE(module_of(own.Rip), "");
  for (const StackFaults& faults :
       {StackFaults{.virtual_query = 87}, {.open_process = 5}, {.module_file_name = 6}}) {
    stack_faults = faults;
    EXPECT_EQ(module_of(own.Rip), "");
  }
  EXPECT_EQ(stack_balance.process_handles, 0);
  return testing::Test::HasFailure() ? 1 : 0;
}

TEST(Walk, HasStatusAndTextWhereTheSystemFails) {
  expect_exit(run_child("walk_while_the_system_fails"), 0, "");
}

// A frame that starts where rbx points to. Then two routines without a gap: the call that ends the
// first leaves both, and its return address is the first instruction of the second, which is none:
// one address that means two frames.
extern "C" [[gnu::visibility("hidden")]] void keeps(), ends_in_a_call(), interrupted_routine();
__asm__(R"(.text
.macro routine name, code
.type \name, @function
\name: .cfi_startproc; \code; .cfi_endproc
.endm
routine keeps, ".cfi_def_cfa rbx, 0; nop"
routine leaves, "subq $8, %rsp; .cfi_adjust_cfa_offset 8; call record_walk; addq $24, %rsp; ret"
routine ends_in_a_call, "subq $8, %rsp; .cfi_adjust_cfa_offset 8; call leaves"
routine interrupted_routine, "ud2; ret"
)");

// A caller whose stack pointer is its callee's is none.
TEST(Walk, EndsWhereTheStackDoesNotShrink) {
  std::uint64_t stack[] = {0, address_of(keeps) + 1, 0};
  CONTEXT context = {};
  context.Rsp = context.Rbx = address_of(stack + 2);
  context.Rip = address_of(keeps);
  Recorder recorder{.last = 3, .wish = -1};
  EXPECT_EQ(recorder.walk(&context), 0u);
  EXPECT_EQ(recorder.frames.size(), 1u);
}

Recorder last_walk;
extern "C" [[gnu::used, gnu::visibility("hidden")]] void record_walk() {
  last_walk = {};
  last_walk.walk(nullptr, 0);
}

TEST(Walk, GoesThroughTheRoutineThatASignalInterrupted) {
  const auto pc = [](const STACKFRAME64& frame) { return frame.AddrPC.Offset; };
  CONTEXT context;
  RtlCaptureContext(&context);
  Recorder own;
  ASSERT_EQ(own.walk(&context), 0u);
  struct sigaction action = {}, before;
  action.sa_sigaction = [](int, siginfo_t*, void* state) {
    record_walk();
    static_cast<ucontext_t*>(state)->uc_mcontext.gregs[REG_RIP] += 2;
  };
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  sigaction(SIGILL, &action, &before);
  char above[1 << 16];  // the handler's stack, above what it interrupts
  const stack_t stack = {.ss_sp = above, .ss_flags = 0, .ss_size = sizeof above};
  stack_t no_stack;
  sigaltstack(&stack, &no_stack);
  for (const auto routine : {interrupted_routine, ends_in_a_call, interrupted_routine}) {
    routine();
    const auto& frames = last_walk.frames;
    const auto frame = std::ranges::find(frames, address_of(interrupted_routine), pc);
    ASSERT_EQ(frames.end() - frame, std::ssize(own.frames) + 1);
    EXPECT_TRUE(std::ranges::equal(frame + 2, frames.end(), own.frames.begin() + 1,
                                   own.frames.end(), {}, pc, pc));
  }
  sigaltstack(&no_stack, nullptr);
  sigaction(SIGILL, &before, nullptr);
}

// A fault of another thread, or behind the call, is the business of the handler that was there
// before.
TEST(ProtectedCall, CatchesTheFaultsOfItsThread) {
  static int signal, depth, given_back;
  static void (*const fault)(void*) = [](void*) {
    if (depth-- > 0) {
      EXPECT_FALSE(run_protected(fault, nullptr)) << signal;
    }
    std::raise(signal);
  };
  for (const int each : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP}) {
    signal = each;
    struct sigaction action = {}, before;
    action.sa_handler = [](int) { ++given_back; };
    sigaction(signal, &action, &before);
    depth = 2;
    given_back = 0;
    EXPECT_FALSE(run_protected(fault, nullptr)) << signal;
    std::raise(signal);
    EXPECT_EQ(given_back, 1) << signal;
    const auto fault_twice = [](void*) {
      std::thread([] { fault(nullptr), fault(nullptr); }).join();
    };
    EXPECT_TRUE(run_protected(fault_twice, nullptr));
    EXPECT_EQ(given_back, 2) << signal;
    sigaction(signal, &before, nullptr);
  }
}

}  // namespace
}  // namespace ksomd::test
