// Walks through this program's own stack, and names out of paths.
#include <gtest/gtest.h>

#include <cstring>

#include "traceback/entries.h"
#include "traceback/module_name.h"

namespace ksomd::test {
namespace {

// Every frame's caller is the next frame, and the last one has none.
void check_chain(const Recorder& recorder) {
  ASSERT_GE(recorder.frames.size(), 5u);
  std::uint64_t caller = recorder.frames[0].AddrPC.Offset;
  for (const STACKFRAME64& frame : recorder.frames) {
    EXPECT_TRUE(getPC(&frame) == caller && frame.AddrPC.Offset == caller);
    caller = getRetAddr(&frame);
    EXPECT_TRUE(caller == frame.AddrReturn.Offset && getFramePtr(&frame) == 0);
    EXPECT_EQ(frame.AddrPC.Mode, AddrModeFlat);
    EXPECT_EQ(frame.AddrReturn.Mode, AddrModeFlat);
    EXPECT_EQ(frame.AddrFrame.Mode, AddrModeFlat);
    EXPECT_EQ(frame.AddrStack.Mode, AddrModeFlat);
  }
  EXPECT_EQ(caller, 0u);
}

std::uint64_t caller;

[[gnu::noinline, clang::disable_tail_calls]] std::uint32_t walk(Recorder& recorder) {
  const std::uint32_t status = trace_stack(nullptr, &recorder, Recorder::record, 1);
  caller = address_of(__builtin_return_address(0));
  return status;
}

// As if this were what a call through a bad pointer ran into, from where `calling` stands.
[[gnu::noinline, clang::disable_tail_calls]] std::uint32_t walk_wild_call(Recorder& recorder,
                                                                          const CONTEXT& calling,
                                                                          std::uint64_t target) {
  caller = address_of(__builtin_return_address(0));
  CONTEXT context = calling;
  context.Rip = target;
  context.Rsp -= 8;
  const CONTEXT before = context;
  const std::uint32_t status = recorder.walk(&context);
  EXPECT_EQ(std::memcmp(&before, &context, sizeof before), 0);
  return status;
}

TEST(Walk, StartsInItsOwnRoutine) {
  Recorder recorder;
  EXPECT_EQ(walk(recorder), 0u);
  EXPECT_STREQ(geterrorstring(), "No error");
  check_chain(recorder);
  EXPECT_EQ(recorder.skips, "11" + std::string(recorder.frames.size() - 2, '0'));
  const std::uint64_t routines[] = {address_of(trace_stack_impl), address_of(trace_stack)};
  EXPECT_LT(recorder.frames[0].AddrPC.Offset - routines[0], 4096u);
  EXPECT_LT(recorder.frames[1].AddrPC.Offset - routines[1], 4096u);
  EXPECT_EQ(recorder.frames[3].AddrPC.Offset, caller);
}

TEST(Walk, StartsAtTheCallerWhereThereIsNoCode) {
  CONTEXT context;
  RtlCaptureContext(&context);
  Recorder whole;
  EXPECT_EQ(whole.walk(&context), 0u);
  check_chain(whole);
  EXPECT_EQ(whole.skips, std::string(whole.frames.size(), '0'));
  for (const std::uint64_t target : {std::uint64_t{0}, address_of(&caller), UINT64_MAX}) {
    Recorder recorder;
    EXPECT_EQ(walk_wild_call(recorder, context, target), 0u);
    ASSERT_EQ(recorder.frames.size(), whole.frames.size());
    EXPECT_EQ(recorder.frames[0].AddrPC.Offset, caller);
    EXPECT_EQ(recorder.frames[1].AddrPC.Offset, whole.frames[1].AddrPC.Offset);
  }
}

// A callback may walk as well; a fault in the inner walk ends the inner one alone.
TEST(Walk, EndsAsTheCallbackWishesOrFaults) {
  const struct {
    std::int32_t wish;
    std::uint32_t last, status;
  } rows[] = {{-2, 1, 7}, {-1, 3, 0}, {-3, 1, 0}, {1, 2, 0}};
  for (const auto& row : rows) {
    Recorder recorder{.last = row.last, .wish = row.wish};
    EXPECT_EQ(walk(recorder), row.status) << row.wish;
    EXPECT_EQ(recorder.frames.size() == row.last, row.wish == -1 || row.wish == -2) << row.wish;
    EXPECT_STREQ(geterrorstring(), "No error");
  }
  Recorder outer{
      .last = 3, .wish = -2, .action = [] {
        for (void (*fault)() : {+[] { *reinterpret_cast<volatile char*>(std::uintptr_t{8}) = 1; },
                                +[] { __builtin_trap(); }}) {
          Recorder inner{.last = 2, .action = fault};
          EXPECT_EQ(walk(inner), 6u);
          EXPECT_EQ(inner.frames.size(), 2u);
          EXPECT_STREQ(geterrorstring(), "Exception is raised during stack walking");
        }
      }};
  EXPECT_EQ(walk(outer), 7u);
  EXPECT_EQ(outer.frames.size(), 3u);
}

#ifdef _WIN32
// The program uses the symbol handler itself, and did not ask it to look at the modules: some
// systems do not start it a second time, and others cannot walk with it.
TEST(Walk, FailsWhileTheSymbolHandlerIsInUse) {
  ASSERT_TRUE(SymInitialize(GetCurrentProcess(), nullptr, FALSE));
  const std::uint32_t status = Recorder{}.walk(nullptr);
  const std::string error = geterrorstring();
  SymCleanup(GetCurrentProcess());
  EXPECT_TRUE(status == 1
                  ? error.starts_with("Initialization of symbol handler failed. Error code ")
                  : status == 4 && error.starts_with("StackWalk is terminated abnormally."))
      << status << error;
}
#endif

TEST(ModuleName, IsTheEndOfAPath) {
  const std::string n255(255, 'n'), n300(300, 'n');
  const std::pair<std::string, std::string> rows[] = {
      {R"(E:\apps\bin\mod.dll)", "mod.dll"},
      {R"(/mixed\of/both\lib.so.6)", "lib.so.6"},
      {R"(dir.with.dots\plain)", "plain"},
      {"C:drive.exe", "drive.exe"},
      {".hidden", ".hidden"},
      {"/ends/in/dot.", "dot."},
      {"/directory/", ""},
      {"", ""},
      {"d/n." + n300 + ".dll", "n." + n255.substr(2) + ".dll"},
      {"a." + n300, "a." + n255.substr(1)},
  };
  for (const auto& [path, wanted] : rows) {
    for (std::size_t size = 0; size <= wanted.size() + 2; ++size) {
      char name[600];
      std::memset(name, '#', sizeof name);
      write_module_name(path.c_str(), name, size);
      const std::string kept = wanted.substr(0, size > 0 ? size - 1 : 0);
      EXPECT_EQ(std::string(name, size > 0 ? strnlen(name, size) : 0), kept);
      EXPECT_EQ(name[size], '#') << path << ' ' << size;
    }
  }
  for (const std::uint64_t address : {std::uint64_t{0}, std::uint64_t{0x10}, UINT64_MAX}) {
    std::uint64_t module_base = 99;
    char name[] = "before";
    getModuleName(address, name, sizeof name, &module_base);
    EXPECT_TRUE(name[0] == '\0' && module_base == 0) << address;
  }
}

}  // namespace
}  // namespace ksomd::test
