// Walks through this program's own stack, and names out of paths.
#include <cstring>

#include "traceback/entries.h"
#include "traceback/module_name.h"

namespace ksomd::test {
namespace {

// Every frame's caller is the next frame, and the last one has none.
void check_chain(const Recorder& recorder, const std::string& skips) {
  const auto& frames = recorder.frames;
  ASSERT_GE(frames.size(), 5u);
  for (std::size_t i = 0; i < frames.size(); ++i) {
    const STACKFRAME64& frame = frames[i];
    EXPECT_EQ(frame.AddrReturn.Offset, i + 1 < frames.size() ? frames[i + 1].AddrPC.Offset : 0);
    EXPECT_EQ(getRetAddr(&frame), frame.AddrReturn.Offset);
    EXPECT_TRUE(getPC(&frame) == frame.AddrPC.Offset && getFramePtr(&frame) == 0);
    EXPECT_TRUE(std::all_of(&frame.AddrPC, &frame.AddrStack + 1,
                            [](const ADDRESS64& each) { return each.Mode == AddrModeFlat; }));
  }
  EXPECT_EQ(recorder.skips, skips + std::string(frames.size() - skips.size(), '0'));
}

TEST(Walk, StartsInItsOwnRoutine) {
  Recorder recorder;
  EXPECT_EQ(recorder.walk(nullptr), 0u);
  EXPECT_STREQ(geterrorstring(), "No error");
  check_chain(recorder, "11");
  EXPECT_LT(recorder.frames[0].AddrPC.Offset - address_of(trace_stack_impl), 4096u);
  EXPECT_LT(recorder.frames[1].AddrPC.Offset - address_of(trace_stack), 4096u);
}

// As if this were what a call through a bad pointer ran into, from where `start` stands: the
// caller's address.
[[gnu::noinline, clang::disable_tail_calls]] std::uint64_t walk_wild_call(Recorder& recorder,
                                                                          const CONTEXT& start,
                                                                          std::uint64_t target) {
  CONTEXT context = start;
  context.Rip = target;
  context.Rsp -= 8;
  const CONTEXT before = context;
  EXPECT_EQ(recorder.walk(&context), 0u);
  EXPECT_EQ(std::memcmp(&before, &context, sizeof before), 0);
  return address_of(__builtin_return_address(0));
}

TEST(Walk, StartsAtTheCallerWhereThereIsNoCode) {
  static int no_code;
  CONTEXT context;
  RtlCaptureContext(&context);
  Recorder whole;
  EXPECT_EQ(whole.walk(&context), 0u);
  check_chain(whole, "");
  for (const std::uint64_t target : {std::uint64_t{0}, address_of(&no_code), UINT64_MAX}) {
    Recorder recorder;
    const std::uint64_t caller = walk_wild_call(recorder, context, target);
    ASSERT_EQ(recorder.frames.size(), whole.frames.size());
    EXPECT_EQ(recorder.frames[0].AddrPC.Offset, caller);
    EXPECT_EQ(recorder.frames[1].AddrPC.Offset, whole.frames[1].AddrPC.Offset);
  }
}

// A callback may walk as well; a fault in the inner walk ends the inner one alone.
TEST(Walk, EndsAsTheCallbackWishesOrFaults) {
  Recorder stopped{.last = 3, .wish = -1};
  EXPECT_EQ(stopped.walk(nullptr), 0u);
  EXPECT_EQ(stopped.frames.size(), 3u);
  Recorder outer{
      .last = 3, .wish = -2, .action = [] {
        for (void (*fault)() : {+[] { *reinterpret_cast<volatile char*>(std::uintptr_t{8}) = 1; },
                                +[] { __builtin_trap(); }}) {
          Recorder inner{.last = 2, .action = fault};
          EXPECT_EQ(inner.walk(nullptr), 6u);
          EXPECT_EQ(inner.frames.size(), 2u);
          EXPECT_STREQ(geterrorstring(), "Exception is raised during stack walking");
        }
      }};
  EXPECT_EQ(outer.walk(nullptr), 7u);
  EXPECT_EQ(outer.frames.size(), 3u);
}

TEST(ModuleName, IsTheEndOfAPath) {
  const std::string n255(255, 'n'), n300(300, 'n');
  const std::pair<std::string, std::string> rows[] = {
      {R"(E:\v1.2\mod.dll)", "mod.dll"},
      {R"(/mixed\of/both.d\lib.so.6)", "lib.so.6"},
      {"d.d/plain", "plain"},
      {"C:.hidden", ".hidden"},
      {"/ends.", "ends."},
      {"/folder.d/", ""},
      {"d/n." + n300 + ".dll", "n." + n255.substr(2) + ".dll"},
      {"a." + n300, "a." + n255.substr(1)}};
  for (const auto& [path, wanted] : rows) {
    for (std::size_t size = 0; size <= wanted.size() + 2; ++size) {
      char name[600] = {'#'};
      name[size] = '#';
      write_module_name(path.c_str(), name, size);
      ASSERT_EQ(name[size], '#') << path << ' ' << size;
      ASSERT_EQ(name, size > 0 ? wanted.substr(0, size - 1) : "#") << path;
    }
  }
  for (const std::uint64_t address : {std::uint64_t{0}, std::uint64_t{0x10}, UINT64_MAX}) {
    EXPECT_EQ(module_of(address), "") << address;
  }
}

}  // namespace
}  // namespace ksomd::test
