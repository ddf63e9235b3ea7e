// Failures of the system, switched on one after the other.
#include <gtest/gtest.h>
#include <ucontext.h>

#include <algorithm>
#include <csetjmp>
#include <csignal>
#include <cstring>
#include <string>
#include <vector>

#include "ksomd/traceback.h"
#include "support/child_process.h"
#include "traceback_platform.h"

namespace ksomd::test {
namespace {

using host::stack_balance;
using host::stack_faults;
using host::StackFaults;

class SystemFaults : public testing::Test {
 protected:
  void TearDown() override {
    stack_faults = {};
    EXPECT_EQ(stack_balance.symbol_handlers, 0) << "started and not cleaned up, or the reverse";
    EXPECT_EQ(stack_balance.process_handles, 0);
  }
};

std::int32_t count(const void*, void* user, std::int32_t) {
  ++*static_cast<int*>(user);
  return 0;
}

TEST_F(SystemFaults, Statuses) {
  const struct {
    StackFaults faults;
    std::uint32_t status;
    int frames;
    const char* text;
  } rows[] = {
      {{.sym_initialize = 87}, 1, 0, "Initialization of symbol handler failed. Error code 87\n"},
      {{.sym_initialize = 0xFFFFFFFF},
       1,
       0,
       "Initialization of symbol handler failed. Error code -1\n"},
      {{.stack_walk = 487}, 4, 0, "StackWalk is terminated abnormally. Error code 487"},
      {{.stack_walk = 998, .stack_walk_countdown = 3},
       4,
       3,
       "StackWalk is terminated abnormally. Error code 998"},
      {{.stack_walk = 1, .stack_walk_countdown = 2, .stack_walk_raises = true},
       6,
       2,
       "Exception is raised during stack walking"},
  };
  const std::string handlers = fault_handlers();
  for (const auto& row : rows) {
    stack_faults = row.faults;
    int frames = 0;
    EXPECT_EQ(tbk_trace_stack(nullptr, &frames, count, 1), row.status);
    EXPECT_EQ(frames, row.frames);
    EXPECT_STREQ(tbk_geterrorstring(), row.text);
    EXPECT_EQ(fault_handlers(), handlers);
    stack_faults = {};
    EXPECT_EQ(tbk_trace_stack(nullptr, &frames, count, 1), 0u);
    EXPECT_STREQ(tbk_geterrorstring(), "No error");
  }
}

// The capture routine is looked up by the first walk that needs it: in a process of its own.
KSOMD_CHILD(walk_without_capture) {
  int frames = 0;
  CONTEXT context;
  RtlCaptureContext(&context);
  for (const StackFaults& faults :
       {StackFaults{.get_module_handle = 126}, StackFaults{.get_proc_address = 127}}) {
    stack_faults = faults;
    std::printf("%u ", tbk_trace_stack(nullptr, &frames, count, 1));
    std::printf("%d %d [%s]\n", frames, stack_balance.symbol_handlers, tbk_geterrorstring());
    std::printf("%u\n", tbk_trace_stack(&context, &frames, count, 1));
    frames = 0;
  }
  stack_faults = {};
  std::printf("%u\n", tbk_trace_stack(nullptr, &frames, count, 1));
  // Once found, it is kept.
  stack_faults.get_module_handle = 126;
  std::printf("%u\n", tbk_trace_stack(nullptr, &frames, count, 1));
  return 0;
}

TEST_F(SystemFaults, NoCapture) {
  // The third text is cut to 99 characters.
  EXPECT_EQ(run_child("walk_without_capture").output,
            "2 0 0 [NTDLL module not found]\n0\n"
            "3 0 0 [RtlCaptureContext function not found in ntdll.dll\n"
            " Windows XP 64-bit Edition Version 2003 or newer ]\n0\n"
            "0\n0\n");
}

TEST_F(SystemFaults, ModuleNames) {
  const auto address = reinterpret_cast<std::uint64_t>(&count);
  for (const StackFaults& faults :
       {StackFaults{.virtual_query = 87}, StackFaults{.open_process = 5},
        StackFaults{.module_file_name = 6}}) {
    stack_faults = faults;
    char name[64] = "before";
    std::uint64_t base = 1;
    tbk_getModuleName(address, name, sizeof name, &base);
    EXPECT_STREQ(name, "");
    EXPECT_EQ(base, 0u);
    EXPECT_EQ(stack_balance.process_handles, 0);
  }
  stack_faults = {.virtual_query = 87};
  ksomd_pc_info info;
  EXPECT_EQ(tbk_get_pc_info(&info, address, 0, nullptr), 0u);
  EXPECT_STREQ(info.routine, "Unknown");
}

// Two routines without a gap. The call that ends the first does not return, and its return address
// is the first instruction of the second, which is none: one address that means two frames.
extern "C" [[gnu::visibility("hidden")]] void ends_in_a_call();
extern "C" [[gnu::visibility("hidden")]] void interrupted_routine();
__asm__(R"(
        .text
        .type ends_in_a_call, @function
ends_in_a_call:
        .cfi_startproc
        subq $8, %rsp
        .cfi_adjust_cfa_offset 8
        call walk_and_leave
        .cfi_endproc
        .type interrupted_routine, @function
interrupted_routine:
        .cfi_startproc
        ud2
        ret
        .cfi_endproc
)");

std::vector<std::uint64_t> counters;
std::jmp_buf leave;

std::int32_t note_counter(const void* frame, void*, std::int32_t) {
  counters.push_back(tbk_getPC(frame));
  return 0;
}

extern "C" [[gnu::used, gnu::visibility("hidden")]] void walk_and_leave() {
  tbk_trace_stack(nullptr, nullptr, note_counter, 0);
  std::longjmp(leave, 1);  // NOLINT(cert-err52-cpp)
}

void walk_and_resume(int, siginfo_t*, void* state) {
  tbk_trace_stack(nullptr, nullptr, note_counter, 0);
  static_cast<ucontext_t*>(state)->uc_mcontext.gregs[REG_RIP] += 2;
}

[[gnu::noinline, clang::disable_tail_calls]] void walk_from(void (*routine)()) {
  if (setjmp(leave) == 0) {  // NOLINT(cert-err52-cpp)
    routine();
  }
}

// Signal handlers run on a stack above the one that they interrupt.
TEST(SignalHandler, WalksThroughTheInterruptedRoutine) {
  CONTEXT context;
  RtlCaptureContext(&context);
  counters.clear();
  ASSERT_EQ(tbk_trace_stack(&context, nullptr, note_counter, 0), 0u);
  const std::vector<std::uint64_t> callers(counters.begin() + 1, counters.end());
  char above[1 << 16];
  const stack_t stack = {.ss_sp = above, .ss_flags = 0, .ss_size = sizeof above};
  stack_t stack_before;
  sigaltstack(&stack, &stack_before);
  struct sigaction action = {};
  struct sigaction before;
  action.sa_sigaction = walk_and_resume;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  sigaction(SIGILL, &action, &before);
  for (const auto routine : {interrupted_routine, ends_in_a_call, interrupted_routine}) {
    counters.clear();
    walk_from(routine);
    const auto frame = std::find(counters.begin(), counters.end(),
                                 reinterpret_cast<std::uint64_t>(&interrupted_routine));
    // It, walk_from, this test, and who called that.
    ASSERT_EQ(counters.end() - frame, std::ssize(callers) + 3);
    EXPECT_TRUE(std::equal(callers.begin(), callers.end(), frame + 3));
  }
  sigaction(SIGILL, &before, nullptr);
  sigaltstack(&stack_before, nullptr);
}

// A walk that fails after some frames: what was written stays, and the error text follows it.
TEST_F(SystemFaults, FailingDump) {
  CONTEXT context;
  RtlCaptureContext(&context);
  const std::string error = "StackWalk is terminated abnormally. Error code 998";
  std::string whole(10000, '\0');
  whole.resize(tbk_string_stack_signal(&context, whole.data(), whole.size(), 1, 1));
  for (const DWORD frames : {0u, 2u}) {
    std::string written;
    if (frames > 0) {
      std::size_t end = 0;
      for (DWORD line = 0; line <= frames; ++line) {
        end = whole.find('\n', end) + 1;
      }
      written = whole.substr(0, end);
    }
    const auto fail_later = [&] {
      stack_faults = {.stack_walk = 998, .stack_walk_countdown = frames};
    };
    fail_later();
    EXPECT_EQ(tbk_string_stack_signal(&context, nullptr, 0, 1, 1),
              written.size() + error.size() + 1 + 57 + 2);
    for (std::uint64_t size = written.size() + 59; size < written.size() + 200; ++size) {
      fail_later();
      std::vector<char> buffer(size + 1, '#');
      buffer[0] = '\0';
      EXPECT_EQ(tbk_string_stack_signal(&context, buffer.data(), size, 1, 1),
                std::min(size, written.size() + error.size() + 1));
      EXPECT_EQ(buffer.data(), (written + error).substr(0, size - 1)) << size;
      EXPECT_EQ(buffer[size], '#');
    }
  }
}

}  // namespace
}  // namespace ksomd::test
