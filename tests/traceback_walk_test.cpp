// Walks through this program's own stack, and what they call with each frame.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "ksomd/traceback.h"
#include "traceback/module_name.h"
#include "traceback_platform.h"

namespace ksomd::test {
namespace {

struct Frame {
  std::uint64_t pc;
  std::uint64_t return_address;
  std::int32_t skip;
};

struct Recorder {
  // NOLINTNEXTLINE(readability-redundant-member-init): the compiler asks for it
  std::vector<Frame> frames = {};
  std::size_t last = SIZE_MAX;  // the number of frames after which `wish` is the answer
  std::int32_t wish = 0;
  void (*action)() = nullptr;  // done at that frame
};

std::int32_t record(const void* frame, void* user, std::int32_t skip) {
  auto& recorder = *static_cast<Recorder*>(user);
  recorder.frames.push_back({tbk_getPC(frame), tbk_getRetAddr(frame), skip});
  EXPECT_EQ(tbk_getFramePtr(frame), 0u);
  if (recorder.frames.size() < recorder.last) {
    return 0;
  }
  if (recorder.action != nullptr) {
    recorder.action();
  }
  return recorder.wish;
}

std::uint64_t address_of(const void* code) {
  return reinterpret_cast<std::uint64_t>(code);
}

// Where the routine that called walk_... goes on: the program counter of its caller's frame.
struct Walked {
  std::uint32_t status;
  std::uint64_t caller;
};

[[gnu::noinline, clang::disable_tail_calls]] Walked walk(Recorder& recorder, std::uint32_t direct) {
  const std::uint32_t status = tbk_trace_stack(nullptr, &recorder, record, direct);
  return {status, address_of(__builtin_return_address(0))};
}

std::size_t skipped(const Recorder& recorder) {
  std::size_t count = 0;
  while (count < recorder.frames.size() && recorder.frames[count].skip == 1) {
    ++count;
  }
  for (std::size_t i = count; i < recorder.frames.size(); ++i) {
    EXPECT_EQ(recorder.frames[i].skip, 0) << i;
  }
  return count;
}

// Every frame's caller is the next frame, and the last one has none.
void check_chain(const Recorder& recorder) {
  ASSERT_GE(recorder.frames.size(), 5u);
  for (std::size_t i = 0; i + 1 < recorder.frames.size(); ++i) {
    EXPECT_EQ(recorder.frames[i].return_address, recorder.frames[i + 1].pc) << i;
  }
  EXPECT_EQ(recorder.frames.back().return_address, 0u);
}

std::string module_of(std::uint64_t address) {
  char name[512];
  tbk_getModuleName(address, name, sizeof name, nullptr);
  return name;
}

TEST(Walk, CapturedContext) {
  Recorder recorder;
  const Walked walked = walk(recorder, 1);
  EXPECT_EQ(walked.status, 0u);
  EXPECT_STREQ(tbk_geterrorstring(), "No error");
  check_chain(recorder);
  EXPECT_EQ(skipped(recorder), 2u);
  // tbk_trace_stack_impl, tbk_trace_stack, walk, this test.
  ASSERT_GT(recorder.frames.size(), 3u);
  EXPECT_EQ(recorder.frames[3].pc, walked.caller);
  const std::uint64_t own =
      recorder.frames[0].pc - address_of(reinterpret_cast<void*>(tbk_trace_stack_impl));
  EXPECT_LT(own, 4096u) << "the first frame is not the walk routine's";
  Recorder indirect;
  EXPECT_EQ(walk(indirect, 0).status, 0u);
  EXPECT_EQ(skipped(indirect), 5u);
}

// As if this were what a call through a bad pointer ran into, from where `calling` stands.
[[gnu::noinline, clang::disable_tail_calls]] Walked walk_wild_call(Recorder& recorder,
                                                                   const CONTEXT& calling,
                                                                   std::uint64_t target) {
  const std::uint64_t caller = address_of(__builtin_return_address(0));
  CONTEXT context;
  std::memcpy(&context, &calling, sizeof context);
  context.Rip = target;
  context.Rsp -= sizeof caller;
  EXPECT_EQ(*reinterpret_cast<const std::uint64_t*>(context.Rsp), caller);
  CONTEXT before;
  std::memcpy(&before, &context, sizeof before);
  const std::uint32_t status = tbk_trace_stack(&context, &recorder, record, 0);
  EXPECT_EQ(std::memcmp(&before, &context, sizeof before), 0);
  return {status, caller};
}

TEST(Walk, GivenContexts) {
  static std::uint64_t data;
  CONTEXT context;
  RtlCaptureContext(&context);
  Recorder whole;
  EXPECT_EQ(tbk_trace_stack(&context, &whole, record, 1), 0u);
  check_chain(whole);
  EXPECT_EQ(skipped(whole), 0u);
  for (const std::uint64_t target :
       affordable<std::uint64_t>({0, address_of(&data), UINT64_MAX}, 2)) {
    Recorder recorder;
    const Walked walked = walk_wild_call(recorder, context, target);
    EXPECT_EQ(walked.status, 0u);
    check_chain(recorder);
    ASSERT_EQ(recorder.frames.size(), whole.frames.size());
    EXPECT_EQ(recorder.frames[0].pc, walked.caller);
    EXPECT_EQ(recorder.frames[1].pc, whole.frames[1].pc);
  }
}

TEST(Walk, CallbackEndsIt) {
  struct Case {
    std::int32_t wish;
    std::size_t last;
    std::uint32_t status;
    bool ends;
  };
  const std::vector<Case> cases = {{-2, 1, 7, true},  {-1, 3, 0, true},  {-1, 1, 0, true},
                                   {-2, 3, 7, true},  {1, 1, 0, false},  {-3, 1, 0, false},
                                   {-3, 3, 0, false}, {100, 3, 0, false}};
  for (const Case& each : affordable(cases, 2)) {
    Recorder recorder{.last = each.last, .wish = each.wish};
    EXPECT_EQ(walk(recorder, 1).status, each.status) << each.wish;
    EXPECT_EQ(recorder.frames.size() == each.last, each.ends) << each.wish;
    EXPECT_STREQ(tbk_geterrorstring(), "No error");
  }
}

TEST(Walk, CallbackFaults) {
  const std::string before = fault_handlers();
  for (int round = walks_are_cheap() ? 0 : 2; round < 3; ++round) {
    Recorder recorder{.last = 2, .action = raise_access_violation};
    EXPECT_EQ(walk(recorder, 1).status, 6u);
    EXPECT_EQ(recorder.frames.size(), 2u);
    EXPECT_STREQ(tbk_geterrorstring(), "Exception is raised during stack walking");
    EXPECT_EQ(fault_handlers(), before);
    Recorder next;
    EXPECT_EQ(walk(next, 1).status, 0u);
    EXPECT_STREQ(tbk_geterrorstring(), "No error");
    EXPECT_EQ(fault_handlers(), before);
  }
}

// A callback may walk as well; a fault in the inner walk ends the inner one alone.
TEST(Walk, Nested) {
  Recorder outer{.last = 3, .wish = -2, .action = [] {
                   Recorder inner{.last = 1, .action = raise_access_violation};
                   EXPECT_EQ(walk(inner, 1).status, 6u);
                 }};
  EXPECT_EQ(walk(outer, 1).status, 7u);
  EXPECT_EQ(outer.frames.size(), 3u);
}

TEST(Walk, NowhereToStart) {
  CONTEXT context = {};
  Recorder recorder;
  const std::uint32_t status = tbk_trace_stack(&context, &recorder, record, 0);
  const std::string text = tbk_geterrorstring();
  if (status == 4) {
    EXPECT_TRUE(text.starts_with("StackWalk is terminated abnormally. Error code ")) << text;
    EXPECT_EQ(recorder.frames.size(), 0u);
  } else {
    // Some systems hand over the empty frame.
    EXPECT_EQ(status, 0u);
    EXPECT_EQ(recorder.frames.size(), 1u);
  }
}

// ---- module names -------------------------------------------------------------------------------

TEST(ModuleName, Paths) {
  const std::string long_name(300, 'n');
  const struct {
    std::string path;
    std::string name;
  } rows[] = {
      {R"(E:\apps\bin\mod.dll)", "mod.dll"},
      {"E:/apps/lib/util.dll", "util.dll"},
      {R"(/mixed\of/both\lib.so.6)", "lib.so.6"},
      {"plain", "plain"},
      {R"(dir.with.dots\plain)", "plain"},
      {"C:drive.exe", "drive.exe"},
      {".hidden", ".hidden"},
      {"/ends/in/dot.", "dot."},
      {"/directory/", ""},
      {"", ""},
      {"d/" + long_name, std::string(255, 'n')},
      {"d/" + long_name + ".dll", std::string(255, 'n') + ".dll"},
      {"a." + long_name, "a." + std::string(254, 'n')},
      {"d/" + std::string(255, 'n') + ".x", std::string(255, 'n') + ".x"},
  };
  for (const auto& row : rows) {
    char name[600];
    write_module_name(row.path.c_str(), name, sizeof name);
    EXPECT_EQ(name, row.name) << row.path;
    for (const std::size_t size :
         {std::size_t{1}, std::size_t{4}, row.name.size(), row.name.size() + 1}) {
      if (size > 0) {
        std::memset(name, '#', sizeof name);
        write_module_name(row.path.c_str(), name, size);
        EXPECT_EQ(name, row.name.substr(0, size - 1)) << row.path << ' ' << size;
        EXPECT_EQ(name[size], '#');
      }
    }
  }
  char untouched = '#';
  write_module_name("a.dll", &untouched, 0);
  EXPECT_EQ(untouched, '#');
}

TEST(ModuleName, OfAddresses) {
  std::uint64_t base = 99;
  char name[512] = "before";
  tbk_getModuleName(address_of(reinterpret_cast<void*>(walk)), name, sizeof name, &base);
  EXPECT_EQ(name, program_name());
  EXPECT_EQ(base, 0u);
  // The first and the last byte of the image count too, and so does data.
  static int data;
  EXPECT_EQ(module_of(address_of(&data)), program_name());

  constexpr std::size_t size = 0x10000;
  void* memory = allocate_pages(size);
  EXPECT_EQ(module_of(address_of(memory) + 100), "");
  free_pages(memory, size);
  for (const std::uint64_t address : {address_of(memory) + 100, std::uint64_t{0},
                                      std::uint64_t{0x10}, UINT64_MAX, std::uint64_t{1} << 63}) {
    base = 99;
    std::strcpy(name, "before");
    tbk_getModuleName(address, name, sizeof name, &base);
    EXPECT_STREQ(name, "") << address;
    EXPECT_EQ(base, 0u);
  }
}

}  // namespace
}  // namespace ksomd::test
