// What only the real system can do to a walk.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include "ksomd/traceback.h"
#include "support/child_process.h"
#include "traceback_platform.h"

namespace ksomd::test {
namespace {

std::int32_t go_on(const void*, void*, std::int32_t) {
  return 0;
}

// The program uses the symbol handler itself, and did not ask it to look at the modules: some
// systems do not start it a second time, and others cannot walk with it.
TEST(System, SymbolHandlerInUse) {
  ASSERT_TRUE(SymInitialize(GetCurrentProcess(), nullptr, FALSE));
  const std::uint32_t status = tbk_trace_stack(nullptr, nullptr, go_on, 1);
  const std::string text = tbk_geterrorstring();
  SymCleanup(GetCurrentProcess());
  const std::string start = status == 1 ? "Initialization of symbol handler failed. Error code "
                                        : "StackWalk is terminated abnormally. Error code ";
  ASSERT_TRUE(status == 1 || status == 4) << status;
  ASSERT_TRUE(text.starts_with(start)) << text;
  EXPECT_EQ(text.ends_with('\n'), status == 1) << text;
  EXPECT_GT(std::strtoul(text.c_str() + start.size(), nullptr, 10), 0u) << text;
  // In order again once the program is done with it.
  EXPECT_EQ(tbk_trace_stack(nullptr, nullptr, go_on, 1), 0u);
}

TEST(System, EveryExceptionIsCaught) {
  const struct {
    const char* what;
    ksomd_frame_callback callback;
  } rows[] = {
      {"raised",
       [](const void*, void*, std::int32_t) -> std::int32_t {
         RaiseException(0xE0001234, 0, 0, nullptr);
         return 0;
       }},
      {"divided",
       [](const void*, void*, std::int32_t) -> std::int32_t {
         volatile std::int32_t zero = 0;
         return 10 / zero;
       }},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(tbk_trace_stack(nullptr, nullptr, row.callback, 1), 6u) << row.what;
    EXPECT_STREQ(tbk_geterrorstring(), "Exception is raised during stack walking") << row.what;
  }
}

// In a process of its own, which ends without the C++ run-time library's farewell: the exception
// that never reached a handler is still in its thread's state.
KSOMD_CHILD(throw_out_of_a_walk) {
  const std::uint32_t status = tbk_trace_stack(
      nullptr, nullptr,
      [](const void*, void*, std::int32_t) -> std::int32_t { throw std::runtime_error("out"); }, 1);
  std::printf("%s", tbk_geterrorstring());
  std::fflush(stdout);
  std::_Exit(static_cast<int>(status));
}

TEST(System, AThrownExceptionIsCaught) {
  expect_exit(run_child("throw_out_of_a_walk"), 6, "Exception is raised during stack walking");
}

TEST(System, NamesOfLoadedModules) {
  char own[MAX_PATH];
  char temporary[MAX_PATH];
  GetModuleFileNameA(nullptr, own, sizeof own);
  GetTempPathA(sizeof temporary, temporary);
  const std::string source =
      std::string(own).substr(0, std::string(own).rfind('\\')) + "\\libksomd.dll";
  for (const std::string& name : {"several.dots.in.it.dll", "no_extension.", "odd name.xyz"}) {
    const std::string path = std::string(temporary) + name;
    ASSERT_TRUE(CopyFileA(source.c_str(), path.c_str(), FALSE)) << source;
    HMODULE module = LoadLibraryExA(path.c_str(), nullptr, DONT_RESOLVE_DLL_REFERENCES);
    ASSERT_NE(module, nullptr) << path;
    const auto address = reinterpret_cast<std::uint64_t>(module) + 0x1000;
    char found[512];
    tbk_getModuleName(address, found, sizeof found, nullptr);
    // The system itself drops a dot at the end.
    const std::string wanted = name.ends_with('.') ? name.substr(0, name.size() - 1) : name;
    EXPECT_TRUE(found == wanted || found == name) << found;
    tbk_getModuleName(address, found, 8, nullptr);
    EXPECT_EQ(found, name.substr(0, 7));
    FreeLibrary(module);
    tbk_getModuleName(address, found, sizeof found, nullptr);
    EXPECT_STREQ(found, "") << "unloaded";
    DeleteFileA(path.c_str());
  }
}

}  // namespace
}  // namespace ksomd::test
