// A program and a library with trace sections of their own line tables, against the shared library:
// what a walk through all three shows.
#include "traceback/program/program.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "ksomd/traceback.h"
#include "support/effort.h"
#ifndef _WIN32
#include <dlfcn.h>
#include <unistd.h>
#endif

namespace {

std::vector<std::uint64_t> counters;
int walk_line, start_line;

ksomd_pc_info info_at(std::uint64_t pc) {
  ksomd_pc_info info;
  tbk_get_pc_info(&info, pc, 0, nullptr);
  return info;
}

std::string name_at(int (*routine)()) {
  return info_at(reinterpret_cast<std::uint64_t>(routine)).routine;
}

TRACED int note_walk() {
  counters.clear();
  const auto note = [](const void* frame, void*, std::int32_t skip) {
    counters.insert(counters.end(), skip != 0 ? 0 : 1, tbk_getPC(frame));
    return 0;
  };
  return walk_line = __LINE__, tbk_trace_stack(nullptr, nullptr, note, 1) == 0 ? 1 : 0;
}

TRACED int start() {
  return start_line = __LINE__, program_middle(note_walk) + 1;
}

// The innermost frames of the walk, in the library or not.
TEST(Program, ShowsRoutinesFilesAndLines) {
  ASSERT_EQ(start(), 5);
  ASSERT_GT(counters.size(), 6u);
  const std::string routines[] = {"note_walk", "library_inner", "library_entry", "program_middle",
                                  "start"};
  for (std::size_t i = 0; i < 5; ++i) {
    char image[260];
    tbk_getModuleName(counters[i], image, sizeof image, nullptr);
    EXPECT_EQ(info_at(counters[i]).routine, routines[i]);
    EXPECT_TRUE(std::string(image).starts_with(i == 1 || i == 2 ? "traceback_library"
                                                                : "traceback_program"));
  }
  EXPECT_EQ(info_at(counters[0]).line, std::to_string(walk_line));
  EXPECT_EQ(info_at(counters[4]).line, std::to_string(start_line));
  EXPECT_TRUE(std::string(info_at(counters[4]).file).ends_with("traceback/program_test.cpp"));
}

// The return address of a call that ends a routine is the first of the routine behind it.
TEST(Program, ShowsTheCallerOfARoutineThatDoesNotReturn) {
  EXPECT_EQ(name_at(program_ends), "program_ends") << "no call before it";
#ifndef _WIN32
  if (!ksomd::test::sanitized) {  // whose code stands behind the call
    EXPECT_EQ(name_at(program_follows), "program_ends_in_a_call")
        << "not the return address of a call, and the test shows nothing";
  }
#endif
}

#ifndef _WIN32
// Another reader of the line tables is the oracle. The byte behind a call may belong to the call's
// line: return addresses do.
TEST(Program, HasTheLinesOfItsLineTable) {
  ASSERT_EQ(start(), 5);
  counters.resize(5);
  const auto inside = reinterpret_cast<std::uint64_t>(program_inside);
  for (std::uint64_t pc = inside - 4000; pc < inside + 1000; ++pc) {
    counters.push_back(pc);
  }
  const std::string path = testing::TempDir() + "lines" + std::to_string(getpid());
  const std::string command = "llvm-symbolizer-22 --no-inlines --functions=none >" + path;
  // NOLINTNEXTLINE(bugprone-command-processor): no word of the command comes from outside
  std::FILE* const reader = popen(command.c_str(), "w");
  for (const std::uint64_t pc : counters) {
    Dl_info image = {};
    dladdr(reinterpret_cast<void*>(pc), &image);
    const auto offset = pc - reinterpret_cast<std::uint64_t>(image.dli_fbase);
    std::fprintf(reader, "%s %lu\n%s %lu\n", image.dli_fname, offset - 1, image.dli_fname, offset);
  }
  pclose(reader);
  std::ifstream lines(path);
  for (const std::uint64_t pc : counters) {
    std::string before, line, empty;
    std::getline(std::getline(lines, before), empty);
    std::getline(std::getline(lines, line), empty);
    const ksomd_pc_info info = info_at(pc);
    const std::string wanted = info.file == std::string("Unknown")
                                   ? "??:0:"
                                   : info.file + (':' + std::string(info.line)) + ':';
    const auto* const code = reinterpret_cast<const std::uint8_t*>(pc);
    const bool call = code[-5] == 0xE8 || code[-2] == 0xFF || code[-3] == 0xFF;
    EXPECT_NE(((call ? before : "") + line).find(wanted), std::string::npos)
        << info.routine << ' ' << wanted << ' ' << before << ' ' << line;
  }
  std::remove(path.c_str());
}
#endif

}  // namespace
