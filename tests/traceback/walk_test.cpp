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
    const std::uint64_t pc = frames[i].AddrPC.Offset, caller = frames[i].AddrReturn.Offset;
    EXPECT_EQ(caller, i + 1 < frames.size() ? frames[i + 1].AddrPC.Offset : 0);
    EXPECT_TRUE(getPC(&frames[i]) == pc && getRetAddr(&frames[i]) == caller);
    EXPECT_EQ(getFramePtr(&frames[i]), 0u);
    for (const auto address : {&STACKFRAME64::AddrPC, &STACKFRAME64::AddrReturn,
                               &STACKFRAME64::AddrFrame, &STACKFRAME64::AddrStack}) {
      EXPECT_EQ((frames[i].*address).Mode, AddrModeFlat);
    }
  }
  EXPECT_EQ(recorder.skips, skips + std::string(frames.size() - skips.size(), '0'));
}

std::uint64_t caller;

// As if this were what a call through a bad pointer ran into, from where `context` stands.
[[gnu::noinline, clang::disable_tail_calls]] std::uint32_t walk_wild_call(Recorder& recorder,
                                                                          CONTEXT context,
                                                                          std::uint64_t target) {
  caller = address_of(__builtin_return_address(0));
  context.Rip = target;
  context.Rsp -= 8;
  const CONTEXT before = context;
  const std::uint32_t status = recorder.walk(&context);
  EXPECT_EQ(std::memcmp(&before, &context, sizeof before), 0);
  return status;
}

TEST(Walk, StartsInItsOwnRoutine) {
  Recorder recorder;
  EXPECT_EQ(recorder.walk(nullptr), 0u);
  EXPECT_STREQ(geterrorstring(), "No error");
  check_chain(recorder, "11");
  const std::uint64_t routines[] = {address_of(trace_stack_impl), address_of(trace_stack)};
  EXPECT_LT(recorder.frames[0].AddrPC.Offset - routines[0], 4096u);
  EXPECT_LT(recorder.frames[1].AddrPC.Offset - routines[1], 4096u);
}

TEST(Walk, StartsAtTheCallerWhereThereIsNoCode) {
  CONTEXT context;
  RtlCaptureContext(&context);
  Recorder whole;
  EXPECT_EQ(whole.walk(&context), 0u);
  check_chain(whole, "");
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

#ifdef _WIN32
// The program uses the symbol handler itself, and did not ask it to look at the modules: some
// systems do not start it a second time, and others cannot walk with it.
TEST(Walk, FailsWhileTheSymbolHandlerIsInUse) {
  ASSERT_TRUE(SymInitialize(GetCurrentProcess(), nullptr, FALSE));
  const std::uint32_t status = Recorder{}.walk(nullptr);
  const std::string error = geterrorstring();
  SymCleanup(GetCurrentProcess());
  EXPECT_TRUE(error.starts_with(status == 1 ? "Initialization of symbol handler failed. Error code "
                                            : "StackWalk is terminated abnormally."))
      << status << error;
}
#endif

TEST(ModuleName, IsTheEndOfAPath) {
  const std::string n255(255, 'n'), n300(300, 'n');
  for (const std::string folder : {"", "C:", R"(E:\apps\v1.2\)", R"(/mixed\of/both.d/)"}) {
    for (const std::string& stem : {std::string(), std::string("lib.so"), n255, n300}) {
      for (const std::string& extension : {std::string(), std::string("."), '.' + n255}) {
        const std::string part = extension.substr(0, 255), wanted = stem.substr(0, 255) + part;
        for (std::size_t size = 0; size <= wanted.size() + 2; ++size) {
          char name[600] = {'#'};
          name[size] = '#';
          write_module_name((folder + stem + extension).c_str(), name, size);
          ASSERT_EQ(name[size], '#') << folder << stem << extension << ' ' << size;
          ASSERT_EQ(name, size > 0 ? wanted.substr(0, size - 1) : "#") << folder << extension;
        }
      }
    }
  }
  for (const std::uint64_t address : {std::uint64_t{0}, std::uint64_t{0x10}, UINT64_MAX}) {
    EXPECT_EQ(module_of(address), "") << address;
  }
}

}  // namespace
}  // namespace ksomd::test
