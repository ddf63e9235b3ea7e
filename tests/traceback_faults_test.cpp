// Failures of the system, switched on one after the other.
#include <gtest/gtest.h>

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
