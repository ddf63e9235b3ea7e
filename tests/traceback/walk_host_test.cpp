// Walks where the system fails, where registers lead astray, and where signals come between.
#include <gtest/gtest.h>
#include <pthread.h>
#include <ucontext.h>

#include <algorithm>
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
  static std::string fault_handlers() {
    constexpr int restorer = 0x04000000;  // a flag of the C library's own
    std::string state;
    sigset_t blocked;
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    for (int signal = 1; signal < 32; ++signal) {
      struct sigaction action;
      sigaction(signal, nullptr, &action);
      state += std::to_string(reinterpret_cast<std::uintptr_t>(action.sa_sigaction)) + ' ' +
               std::to_string(action.sa_flags & ~restorer) +
               (sigismember(&blocked, signal) != 0 ? "-" : "+");
    }
    return state;
  }
  ~SystemFaults() override {
    stack_faults = {};
    EXPECT_TRUE(stack_balance.symbol_handlers == 0 && stack_balance.process_handles == 0);
    EXPECT_EQ(fault_handlers(), handlers_);
  }
  const std::string handlers_ = fault_handlers();
};

TEST_F(SystemFaults, HaveStatusAndText) {
  const CONTEXT wild = {};
  const auto fails = [](STACKFRAME64*) { return SetLastError(998), 0; };
  const auto fails_silently = [](STACKFRAME64*) { return 0; };
  const auto raises = [](STACKFRAME64*) { return std::raise(SIGBUS); };
  const struct {
    StackFaults faults;
    std::uint32_t status;
    const char* text;
  } rows[] = {
      {{.sym_initialize = 87}, 1, "Initialization of symbol handler failed. Error code 87\n"},
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
    EXPECT_STREQ(geterrorstring(), row.text);
    EXPECT_EQ(recorder.skips, "");
    stack_faults = {};
    EXPECT_EQ(recorder.walk(nullptr), 0u);
    EXPECT_STREQ(geterrorstring(), "No error");
  }
}

TEST_F(SystemFaults, LeaveAWildCallWhereItIsWithoutACaller) {
  const std::uint64_t no_code[] = {address_of(&stack_faults)};
  CONTEXT context = {};
  context.Rip = context.Rsp = address_of(no_code);
  Recorder recorder;
  EXPECT_EQ(recorder.walk(&context), 0u);
  EXPECT_TRUE(recorder.frames.size() == 1 && recorder.frames[0].AddrPC.Offset == context.Rip);
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
    std::printf("%u ", recorder.walk(nullptr));
    std::printf("%d %d [%s] ", !recorder.frames.empty(), stack_balance.symbol_handlers,
                geterrorstring());
    std::printf("%u\n", recorder.walk(&context));
  }
  return 0;
}

TEST_F(SystemFaults, LeaveNothingToCaptureWithUntilItIsFound) {
  expect_exit(run_child("walk_without_capture"), 0,
              "2 0 0 [NTDLL module not found] 0\n"
              "3 0 0 [RtlCaptureContext function not found in ntdll.dll\n"
              " Windows XP 64-bit Edition Version 2003 or newer ] 0\n"
              "0 1 0 [No error] 0\n0 1 0 [No error] 0\n");
}

TEST_F(SystemFaults, LeaveModulesWithoutNames) {
  for (const StackFaults& faults :
       {StackFaults{.virtual_query = 87}, StackFaults{.open_process = 5},
        StackFaults{.module_file_name = 6}}) {
    stack_faults = faults;
    EXPECT_EQ(module_of(address_of(&stack_faults)), "");
    EXPECT_EQ(stack_balance.process_handles, 0);
  }
}

// ---- registers ----------------------------------------------------------------------------------

// For each register a routine whose frame starts where the register points to, and which saved the
// caller's value there:   register -> caller's register, return address, the caller's frame
#define FOR_ALL_REGISTERS(each)                                                             \
  each(Rax, rax) each(Rcx, rcx) each(Rdx, rdx) each(Rbx, rbx) each(Rbp, rbp) each(Rsi, rsi) \
      each(Rdi, rdi) each(R8, r8) each(R9, r9) each(R10, r10) each(R11, r11) each(R12, r12) \
          each(R13, r13) each(R14, r14) each(R15, r15)
#define FRAME_BY(member, reg)                                  \
  __asm__(".type by_" #reg ", @function\nby_" #reg             \
          ": .cfi_startproc\n"                                 \
          ".cfi_def_cfa " #reg ", 16\n.cfi_offset " #reg       \
          ", -16\nnop\nnop\n"                                  \
          ".cfi_endproc\n.size by_" #reg ", .-by_" #reg "\n"); \
  extern "C" [[gnu::visibility("hidden")]] const char by_##reg[];
__asm__(".text");
FOR_ALL_REGISTERS(FRAME_BY)

TEST(Registers, AreFollowedFromFrameToFrame) {
#define ROW(member, reg) {&CONTEXT::member, address_of(by_##reg)},
  const std::pair<DWORD64 CONTEXT::*, std::uint64_t> rows[] = {FOR_ALL_REGISTERS(ROW)};
#undef ROW
  for (const auto& [member, code] : rows) {
    std::uint64_t stack[16] = {}, value = 0x1000;
    CONTEXT context = {};
    for (const auto& other : rows) {
      context.*other.first = value += 0x1111;
    }
    // Three frames; the last one's caller would not lie above it.
    context.*member = stack[6] = address_of(stack + 2);
    stack[2] = address_of(stack + 6);
    stack[3] = code + 1;
    stack[7] = code + 2;
    context.Rip = code;
    context.Rsp = address_of(stack);
    Recorder recorder;
    EXPECT_EQ(recorder.walk(&context), 0u);
    ASSERT_EQ(recorder.frames.size(), 3u) << &member - &rows[0].first;
    for (unsigned i = 0; i < 3; ++i) {
      const STACKFRAME64& frame = recorder.frames[i];
      EXPECT_EQ(frame.AddrPC.Offset, code + i);
      EXPECT_EQ(frame.AddrReturn.Offset, i < 2 ? code + i + 1 : 0);
      EXPECT_EQ(frame.AddrStack.Offset, address_of(stack + std::size_t{4} * i));
    }
    const STACKFRAME64& first = recorder.frames[0];
    EXPECT_TRUE(first.AddrFrame.Offset == context.Rbp && first.Params[0] == context.Rdi &&
                first.Params[1] == context.Rsi && first.Params[2] == context.Rdx &&
                first.Params[3] == context.Rcx);
    // A caller whose stack pointer is its callee's is none.
    context.Rsp = address_of(stack + 4);
    Recorder flat;
    EXPECT_EQ(flat.walk(&context), 0u);
    EXPECT_EQ(flat.frames.size(), 1u);
  }
}

// ---- signals ------------------------------------------------------------------------------------

// Two routines without a gap. The call that ends the first does not return, and its return address
// is the first instruction of the second, which is none: one address that means two frames.
extern "C" [[gnu::visibility("hidden")]] void ends_in_a_call();
extern "C" [[gnu::visibility("hidden")]] void interrupted_routine();
__asm__(
    ".type ends_in_a_call, @function\nends_in_a_call: .cfi_startproc\n"
    "subq $8, %rsp\n.cfi_adjust_cfa_offset 8\ncall walk_and_leave\n.cfi_endproc\n"
    ".type interrupted_routine, @function\ninterrupted_routine: .cfi_startproc\n"
    "ud2\nret\n.cfi_endproc\n");

std::vector<std::uint64_t> counters;
std::jmp_buf leave;

std::int32_t note_counter(const void* frame, void*, std::int32_t) {
  counters.push_back(getPC(frame));
  return 0;
}

extern "C" [[gnu::used, gnu::visibility("hidden")]] void walk_and_leave() {
  trace_stack(nullptr, nullptr, note_counter, 0);
  std::longjmp(leave, 1);  // NOLINT(cert-err52-cpp)
}

[[gnu::noinline, clang::disable_tail_calls]] void walk_from(void (*routine)()) {
  if (setjmp(leave) == 0) {  // NOLINT(cert-err52-cpp)
    routine();
  }
}

// Signal handlers run on a stack of their own, above or below the one that they interrupt.
void use_stack(std::vector<char>& memory, char* place) {
  const stack_t stack = {.ss_sp = place, .ss_flags = 0, .ss_size = memory.size()};
  sigaltstack(&stack, nullptr);
}

TEST_F(SystemFaults, WalksGoThroughTheRoutineThatASignalInterrupted) {
  CONTEXT context;
  RtlCaptureContext(&context);
  counters.clear();
  counters.reserve(256);  // signal handlers must not allocate
  ASSERT_EQ(trace_stack(&context, nullptr, note_counter, 0), 0u);
  const std::vector<std::uint64_t> callers(counters.begin() + 1, counters.end());
  struct sigaction action = {}, before;
  action.sa_sigaction = [](int, siginfo_t*, void* state) {
    trace_stack(nullptr, nullptr, note_counter, 0);
    static_cast<ucontext_t*>(state)->uc_mcontext.gregs[REG_RIP] += 2;
  };
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  sigaction(SIGILL, &action, &before);
  char above[1 << 16];
  std::vector<char> below(sizeof above);
  stack_t no_stack;
  sigaltstack(nullptr, &no_stack);
  for (char* const place : {above, below.data()}) {
    use_stack(below, place);
    for (const auto routine : {interrupted_routine, ends_in_a_call, interrupted_routine}) {
      counters.clear();
      walk_from(routine);
      const auto frame = std::ranges::find(counters, address_of(interrupted_routine));
      // It, walk_from, this test, and who called that.
      ASSERT_EQ(counters.end() - frame, std::ssize(callers) + 3);
      EXPECT_TRUE(std::equal(callers.begin(), callers.end(), frame + 3));
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
    for (int depth = 0; depth < 3; ++depth) {
      Attempt attempt{signal, depth};
      EXPECT_FALSE(run_protected(Attempt::run, &attempt)) << signal;
      EXPECT_EQ(fault_handlers(), handlers_);
    }
    // One of another thread is the business of the handler that was there before.
    static int given_back;
    struct sigaction action = {}, before;
    action.sa_handler = [](int) { ++given_back; };
    sigaction(signal, &action, &before);
    given_back = 0;
    Attempt other{signal, 0};
    EXPECT_TRUE(run_protected(
        [](void* argument) {
          std::thread([=] { Attempt::run(argument), Attempt::run(argument); }).join();
        },
        &other));
    EXPECT_EQ(given_back, 1);
    sigaction(signal, &before, nullptr);
  }
}

int overflow_stack(int depth) {
  volatile char room[4096] = {};
  return depth == 0 ? 0 : overflow_stack(depth + 1) + room[0];
}

KSOMD_CHILD(overflow_the_stack) {
  std::vector<char> memory(1 << 16);
  use_stack(memory, memory.data());
  return run_protected([](void*) { std::printf("%d", overflow_stack(1)); }, nullptr) ? 1 : 0;
}

TEST_F(SystemFaults, ProtectedCallsCatchAFullStack) {
  expect_exit(run_child("overflow_the_stack"), 0, "");
}

}  // namespace
}  // namespace ksomd::test
