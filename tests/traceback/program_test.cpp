// A program and a library with trace sections of their own line tables, against the shared library:
// what a walk through all three shows.
#include "traceback/program/program.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "ksomd/traceback.h"
#include "support/effort.h"
#ifndef _WIN32
#include <dlfcn.h>

extern "C" const char __executable_start;
#endif

namespace {

std::vector<std::uint64_t> counters;

ksomd_pc_info info_at(std::uint64_t pc) {
  ksomd_pc_info info;
  tbk_get_pc_info(&info, pc, 0, nullptr);
  return info;
}

TRACED int note_walk(CallSites& sites) {
  const auto note = [](const void* frame, void*, std::int32_t skip) {
    counters.insert(counters.end(), skip != 0 ? 0 : 1, tbk_getPC(frame));
    return 0;
  };
  counters.clear();
  return RECORD(true), tbk_trace_stack(nullptr, nullptr, note, 1) == 0 ? 1 : 0;
}

TRACED int start(CallSites& sites, bool either) {
  return RECORD(true), program_middle(sites, note_walk, either) + 1;
}

// The innermost frames of the walk, in the library or not, are those of the sites.
void check_sites(const CallSites& sites, const std::string& in_library) {
  ASSERT_EQ(static_cast<std::size_t>(sites.count), in_library.size());
  ASSERT_GT(counters.size(), in_library.size() + 1);
  for (std::size_t i = 0; i < in_library.size(); ++i) {
    const CallSite& site = sites.sites[in_library.size() - 1 - i];
    const ksomd_pc_info info = info_at(counters[i]);
    SCOPED_TRACE(testing::Message() << info.routine << ' ' << info.file << ' ' << info.line);
    char image[260];
    tbk_getModuleName(counters[i], image, sizeof image, nullptr);
    EXPECT_TRUE(std::string(image).starts_with(in_library[i] == '1' ? "traceback_library"
                                                                    : "traceback_program"));
    EXPECT_STREQ(info.routine, site.routine);
    EXPECT_TRUE(std::string(info.file).ends_with(site.file));
    EXPECT_EQ(info.line == std::to_string(site.line), site.here) << site.line;
  }
}

TEST(Program, ShowsRoutinesFilesAndLines) {
  CallSites sites = {};
  ASSERT_EQ(start(sites, false), 5);
  check_sites(sites, "01100");
#if defined __clang__ && defined __OPTIMIZE__
  EXPECT_STREQ(info_at(counters[3]).line, "0") << "one call for two lines belongs to none";
#endif
}

TEST(Program, ShowsTheCallerOfARoutineThatDoesNotReturn) {
  CallSites sites = {};
  void* place[5];
  if (__builtin_setjmp(place) == 0) {
    program_ends_in_a_call(sites, note_walk, place);
  }
  check_sites(sites, "01100");
  const auto name_at = [](int (*routine)()) {
    return std::string(info_at(reinterpret_cast<std::uint64_t>(routine)).routine);
  };
  EXPECT_EQ(name_at(program_ends), "program_ends") << "no call before it";
#ifndef _WIN32
  if (!ksomd::test::sanitized) {  // whose code stands behind the call
    EXPECT_EQ(name_at(program_follows), "program_ends_in_a_call")
        << "not the return address of a call, and the test shows nothing";
  }
#endif
}

#ifndef _WIN32
// Another reader of the line table is the oracle, byte by byte. The byte behind a call may belong
// to the call's line.
TEST(Program, HasTheLinesOfItsLineTable) {
  const auto base = reinterpret_cast<std::uint64_t>(&__executable_start);
  const std::uint64_t first = reinterpret_cast<std::uint64_t>(program_inside) - 4000;
  Dl_info program = {};
  dladdr(&__executable_start, &program);
  std::string command = "llvm-symbolizer-22 --no-inlines --functions=none --obj=";
  command += program.dli_fname;
  for (std::uint64_t pc = first; pc < first + 5000; ++pc) {
    command += ' ' + std::to_string(pc - base);
  }
  std::FILE* const reader = popen(command.c_str(), "r");
  std::string before;
  for (std::uint64_t pc = first; pc < first + 5000; ++pc) {
    char line[4096] = "", empty[4];
    std::fgets(line, sizeof line, reader), std::fgets(empty, sizeof empty, reader);
    const ksomd_pc_info info = info_at(pc);
    const std::string unknown = "Unknown", where = info.file + (':' + std::string(info.line)) + ':';
    const std::string wanted = info.file == unknown ? "??:0:" : where;
    const auto* const code = reinterpret_cast<const std::uint8_t*>(pc);
    const bool behind_call = code[-5] == 0xE8 || code[-2] == 0xFF || code[-3] == 0xFF;
    EXPECT_NE(((behind_call ? before : "") + line).find(wanted), std::string::npos)
        << pc - base << ' ' << wanted << ' ' << line;
    before = line;
  }
  pclose(reader);
}
#endif

}  // namespace
