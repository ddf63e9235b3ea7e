// Walks where the system fails, where registers lead astray, and where signals come between.
#include <pthread.h>
#include <ucontext.h>

#include <csetjmp>
#include <csignal>
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
  static std::vector<std::uint64_t> fault_handlers() {
    std::vector<std::uint64_t> state;
    sigset_t blocked;
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    for (int signal = 1; signal < 32; ++signal) {
      struct sigaction action;
      sigaction(signal, nullptr, &action);
      state.push_back(address_of(action.sa_sigaction));
      state.push_back(sigismember(&blocked, signal) != 0 ? 1 : 0);
    }
    return state;
  }
  ~SystemFaults() override {
    stack_faults = {};
    EXPECT_TRUE(stack_balance.symbol_handlers == 0 && stack_balance.process_handles == 0);
    EXPECT_EQ(fault_handlers(), handlers_);
  }
  const std::vector<std::uint64_t> handlers_ = fault_handlers();
};

TEST_F(SystemFaults, HaveStatusAndText) {
  const CONTEXT wild = {};
  const auto fails = [](STACKFRAME64*) { return SetLastError(998), 0; };
  const auto fails_silently = [](STACKFRAME64*) { return 0; };
  const auto raises = [](STACKFRAME64*) { return std::raise(SIGBUS); };
  const struct {
    StackFaults faults;
    std::uint32_t status;
    std::string text;
  } rows[] = {
      {{.sym_initialize = ~0u}, 1, "Initialization of symbol handler failed. Error code -1\n"},
      {{.stack_walk = fails}, 4, "StackWalk is terminated abnormally. Error code 998"},
      // What happened before the walk, and what the library asks on its own, is no error of it.
      {{.virtual_query = 5, .stack_walk = fails_silently},
       4,
       "StackWalk is terminated abnormally. Error code 0"},
      {{}, 4, "StackWalk is terminated abnormally. Error code 487"},
      {{.stack_walk = raises}, 6, "Exception is raised during stack walking"},
  };
  for (const auto& row : rows) {
    Recorder recorder;
    stack_faults = row.faults;
    SetLastError(33);
    EXPECT_EQ(recorder.walk(&wild), row.status);
    EXPECT_EQ(geterrorstring(), row.text);
    EXPECT_EQ(recorder.skips, "");
    stack_faults = {};
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

// A frame that keeps every register; one that saved each, by its number; one whose caller is not
// above it. Then two routines without a gap: the call that ends the first does not return, and its
// return address is the first instruction of the second, which is none: one address, two frames.
extern "C" [[gnu::visibility("hidden")]] const char keeps[], restores[], flat[];
extern "C" [[gnu::visibility("hidden")]] void ends_in_a_call(), interrupted_routine();
__asm__(R"(
.macro routine name, rule:vararg
.type \name, @function
\name: .cfi_startproc
\rule
.endm
.text
routine keeps, .cfi_def_cfa 7, 16
nop
.cfi_endproc
routine restores, .cfi_def_cfa 7, 160
.irp n, 0, 1, 2, 3, 4, 5, 6, 8, 9, 10, 11, 12, 13, 14, 15
.cfi_offset \n, -16 - 8 * \n
.endr
nop
.cfi_endproc
routine flat, .cfi_def_cfa 7, 0
nop
.cfi_endproc
routine ends_in_a_call, subq $8, %rsp
.cfi_adjust_cfa_offset 8
call walk_and_leave
.cfi_endproc
routine interrupted_routine, ud2
ret
.cfi_endproc
)");

TEST(Registers, AreFollowedFromFrameToFrame) {
  using C = CONTEXT;
  constexpr DWORD64 C::* registers[] = {&C::Rax, &C::Rdx, &C::Rcx, &C::Rbx, &C::Rsi, &C::Rdi,
                                        &C::Rbp, &C::Rsp, &C::R8,  &C::R9,  &C::R10, &C::R11,
                                        &C::R12, &C::R13, &C::R14, &C::R15, &C::Rip};
  std::uint64_t stack[22], value = 0x1000;
  CONTEXT context = {};
  for (const auto each : registers) {
    context.*each = value += 0x1111;
  }
  for (std::uint64_t& slot : stack) {
    slot = value += 0x1111;
  }
  context.Rsp = address_of(stack);
  context.Rip = address_of(keeps);
  stack[1] = address_of(restores + 1);
  stack[21] = address_of(flat + 1);
  CONTEXT wanted = context;
  STACKFRAME64 frame = {};
  for (const std::uint64_t caller : {stack[1], stack[21], std::uint64_t{0}}) {
    ASSERT_TRUE(StackWalk64(IMAGE_FILE_MACHINE_AMD64, nullptr, nullptr, &frame, &context, nullptr,
                            nullptr, nullptr, nullptr));
    for (const auto& each : registers) {
      EXPECT_EQ(context.*each, wanted.*each) << &each - registers << ", below " << caller;
    }
    EXPECT_TRUE(frame.AddrPC.Offset == wanted.Rip && frame.AddrReturn.Offset == caller &&
                frame.AddrStack.Offset == wanted.Rsp && frame.AddrFrame.Offset == wanted.Rbp &&
                frame.Params[0] == wanted.Rdi && frame.Params[1] == wanted.Rsi &&
                frame.Params[2] == wanted.Rdx && frame.Params[3] == wanted.Rcx);
    wanted.Rip = caller;
    wanted.Rsp = address_of(caller == stack[1] ? stack + 2 : stack + 22);
    for (int number = 0; caller == stack[21] && number < 16; ++number) {
      wanted.*registers[number] = number == 7 ? wanted.Rsp : stack[20 - number];
    }
  }
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
