// Walks where the system fails, where registers lead astray, and where signals come between.
#include <pthread.h>
#include <ucontext.h>

#include <csetjmp>
#include <csignal>
#include <fstream>
#include <iterator>
#include <thread>

#include "support/child_process.h"
#include "traceback/entries.h"

namespace ksomd::test {
namespace {

using host::stack_balance;
using host::stack_faults;
using host::StackFaults;

// Every test leaves the handlers of faults as they were, and all that it opened closed.
class SystemFaults : public testing::Test {
 protected:
  static std::string fault_handlers() {
    std::thread([] {}).join();  // with the first one the C library catches a signal of its own
    std::ifstream status("/proc/self/status");
    std::string all(std::istreambuf_iterator<char>(status), {});
    return all.substr(all.find("SigBlk"), all.find("CapInh") - all.find("SigBlk"));
  }
  ~SystemFaults() override {
    stack_faults = {};
    EXPECT_TRUE(stack_balance.symbol_handlers == 0 && stack_balance.process_handles == 0);
    EXPECT_EQ(fault_handlers(), handlers_);
  }
  const std::string handlers_ = fault_handlers();
};

TEST_F(SystemFaults, HaveStatusAndText) {
  const std::string walking = "StackWalk is terminated abnormally. Error code ";
  const struct {
    StackFaults faults;
    std::uint32_t status;
    std::string text;
  } rows[] = {
      {{.sym_initialize = ~0u}, 1, "Initialization of symbol handler failed. Error code -1\n"},
      {{.stack_walk = [](STACKFRAME64*) { return SetLastError(998), 0; }}, 4, walking + "998"},
      // What happened before the walk, and what the library asks on its own, is no error of it.
      {{.virtual_query = 5, .stack_walk = [](STACKFRAME64*) { return 0; }}, 4, walking + "0"},
      {{}, 4, walking + "487"},
      {{.stack_walk = [](STACKFRAME64*) { return std::raise(SIGBUS); }},
       6,
       "Exception is raised during stack walking"}};
  for (const auto& row : rows) {
    const CONTEXT wild = {};
    Recorder recorder;
    SetLastError(33);
    stack_faults = row.faults;
    EXPECT_EQ(recorder.walk(&wild), row.status);
    stack_faults = {};
    EXPECT_EQ(geterrorstring() + recorder.skips, row.text);
    EXPECT_EQ(recorder.walk(nullptr), 0u);
    EXPECT_STREQ(geterrorstring(), "No error");
  }
  for (const StackFaults& faults :
       {StackFaults{.virtual_query = 87}, {.open_process = 5}, {.module_file_name = 6}}) {
    stack_faults = faults;
    EXPECT_EQ(module_of(address_of(fault_handlers)), "");
  }
}

// The capture routine is looked up by the first walk that needs it: in a process of its own.
KSOMD_CHILD(walk_without_capture) {
  CONTEXT context;
  RtlCaptureContext(&context);
  for (const StackFaults& faults : {StackFaults{.get_module_handle = 126},
                                    {.get_proc_address = 127},
                                    {},
                                    {.get_module_handle = 126}}) {
    Recorder recorder;
    stack_faults = faults;
    const std::uint32_t status = recorder.walk(nullptr);
    std::printf("%u %d [%s]\n", status, !recorder.frames.empty(), geterrorstring());
    EXPECT_TRUE(recorder.walk(&context) == 0 && stack_balance.symbol_handlers == 0);
  }
  return testing::Test::HasFailure() ? 1 : 0;
}

TEST_F(SystemFaults, LeaveNothingToCaptureWithUntilItIsFound) {
  expect_exit(run_child("walk_without_capture"), 0,
              "2 0 [NTDLL module not found]\n3 0 [RtlCaptureContext function not found in "
              "ntdll.dll\n Windows XP 64-bit Edition Version 2003 or newer ]\n"
              "0 1 [No error]\n0 1 [No error]\n");
}

// ---- registers and signals ------------------------------------------------------------------------

// A frame that starts where rbx points to, and keeps every register. Then two routines without a
// gap: the call that ends the first does not return, and its return address is the first
// instruction of the second, which is none: one address that means two frames.
extern "C" [[gnu::visibility("hidden")]] void keeps(), ends_in_a_call(), interrupted_routine();
__asm__(R"(.text
.macro routine name, code
.type \name, @function
\name: .cfi_startproc; \code; .cfi_endproc
.endm
routine keeps, ".cfi_def_cfa rbx, 0; nop"
routine ends_in_a_call, "subq $8, %rsp; .cfi_adjust_cfa_offset 8; call walk_and_leave"
routine interrupted_routine, "ud2; ret"
)");

// A caller whose stack pointer is its callee's is none.
TEST(Registers, AreFollowedFromFrameToFrame) {
  std::uint64_t stack[3] = {}, value = 0;
  CONTEXT context = {};
  for (DWORD64* each = &context.Rax; each <= &context.Rip; ++each) {
    *each = value += 0x1111;
  }
  context.Rsp = address_of(stack);
  context.Rbx = address_of(stack + 2);
  context.Rip = address_of(keeps);
  stack[1] = context.Rip + 1;
  CONTEXT wanted = context;
  STACKFRAME64 frame = {};
  for (const std::uint64_t caller : {stack[1], std::uint64_t{0}}) {
    ASSERT_TRUE(StackWalk64(IMAGE_FILE_MACHINE_AMD64, nullptr, nullptr, &frame, &context, nullptr,
                            nullptr, nullptr, nullptr));
    EXPECT_TRUE(std::equal(&wanted.Rax, &wanted.Rip + 1, &context.Rax));
    EXPECT_TRUE(frame.AddrPC.Offset == wanted.Rip && frame.AddrReturn.Offset == caller &&
                frame.AddrStack.Offset == wanted.Rsp && frame.AddrFrame.Offset == wanted.Rbp &&
                frame.Params[0] == wanted.Rdi && frame.Params[1] == wanted.Rsi &&
                frame.Params[2] == wanted.Rdx && frame.Params[3] == wanted.Rcx);
    wanted.Rsp = wanted.Rbx;
    wanted.Rip = caller;
  }
  Recorder flat;
  context.Rip = address_of(keeps);
  EXPECT_EQ(flat.walk(&context), 0u);
  EXPECT_EQ(flat.frames.size(), 1u);
}

Recorder recorder;
std::jmp_buf leave;

void record_walk() {
  recorder = {};
  recorder.walk(nullptr, 0);
}

extern "C" [[gnu::used, gnu::visibility("hidden")]] void walk_and_leave() {
  record_walk();
  std::longjmp(leave, 1);  // NOLINT(cert-err52-cpp)
}

[[gnu::noinline, clang::disable_tail_calls]] void walk_from(void (*routine)()) {
  if (setjmp(leave) == 0) {  // NOLINT(cert-err52-cpp)
    routine();
  }
}

// Signal handlers run on a stack of their own, above or below the one that they interrupt.
constexpr std::size_t stack_size = 1 << 16;
void use_stack(char* place) {
  const stack_t stack = {.ss_sp = place, .ss_flags = 0, .ss_size = stack_size};
  sigaltstack(&stack, nullptr);
}

TEST_F(SystemFaults, WalksGoThroughTheRoutineThatASignalInterrupted) {
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
  char above[stack_size];
  const auto below = std::make_unique<char[]>(stack_size);
  stack_t no_stack;
  sigaltstack(nullptr, &no_stack);
  for (char* const place : {above, below.get()}) {
    use_stack(place);
    for (const auto routine : {interrupted_routine, ends_in_a_call, interrupted_routine}) {
      walk_from(routine);
      const auto& frames = recorder.frames;
      const auto frame = std::ranges::find(frames, address_of(interrupted_routine), pc);
      // It, walk_from, this test, and who called that.
      ASSERT_EQ(frames.end() - frame, std::ssize(own.frames) + 2);
      EXPECT_TRUE(std::ranges::equal(frame + 3, frames.end(), own.frames.begin() + 1,
                                     own.frames.end(), {}, pc, pc));
    }
  }
  sigaltstack(&no_stack, nullptr);
  sigaction(SIGILL, &before, nullptr);
}

// ---- the protected call -------------------------------------------------------------------------

struct Attempt {
  int signal, depth;
  static void run(void* argument) {
    auto& attempt = *static_cast<Attempt*>(argument);
    if (attempt.depth-- > 0) {
      EXPECT_FALSE(run_protected(run, argument));
    }
    std::raise(attempt.signal);
  }
};

TEST_F(SystemFaults, ProtectedCallsCatchThoseOfTheirThread) {
  for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP}) {
    Attempt attempt{signal, 2}, other{signal, 0};
    EXPECT_FALSE(run_protected(Attempt::run, &attempt)) << signal;
    EXPECT_EQ(fault_handlers(), handlers_);
    // One of another thread is the business of the handler that was there before.
    static int given_back;
    struct sigaction action = {}, before;
    action.sa_handler = [](int) { ++given_back; };
    sigaction(signal, &action, &before);
    given_back = 0;
    const auto run_twice = [](void* argument) {
      std::thread([=] { Attempt::run(argument), Attempt::run(argument); }).join();
    };
    EXPECT_TRUE(run_protected(run_twice, &other));
    EXPECT_EQ(given_back, 1);
    sigaction(signal, &before, nullptr);
  }
}

int overflow_stack(int depth) {
  volatile char room[4096] = {};
  return depth == 0 ? 0 : overflow_stack(depth + 1) + room[0];
}

KSOMD_CHILD(overflow_the_stack) {
  static char handler_stack[stack_size];
  use_stack(handler_stack);
  return run_protected([](void*) { std::printf("%d", overflow_stack(1)); }, nullptr) ? 1 : 0;
}

TEST_F(SystemFaults, ProtectedCallsCatchAFullStack) {
  expect_exit(run_child("overflow_the_stack"), 0, "");
}

}  // namespace
}  // namespace ksomd::test
