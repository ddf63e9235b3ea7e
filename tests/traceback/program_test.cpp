// A program and a library with trace sections of their own line tables, against the shared library:
// what a dump through all three shows.
#include "traceback/program/program.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "support/effort.h"

namespace {

struct Row {
  std::string image, routine, line, source;
};

std::vector<Row> rows_of(const std::string& table) {
  std::vector<Row> rows;
  std::istringstream lines(table);
  std::string line;
  std::getline(lines, line);
  while (std::getline(lines, line)) {
    const auto field = [&](std::size_t at, std::size_t width) {
      std::string text = line.substr(at, width);
      text.erase(0, text.find_first_not_of(' '));
      text.erase(text.find_last_not_of(' ') + 1);
      return text;
    };
    rows.push_back({field(0, 17), field(37, 17), field(56, 10), line.substr(68)});
  }
  return rows;
}

std::string file_name(const std::string& path) {
  return path.substr(path.find_last_of("/\\") + 1);
}

char dump[30000];

[[gnu::noinline, clang::disable_tail_calls]] int write_dump(CallSites& sites, void*) {
  dump[0] = '\0';
  HERE(sites, "write_dump"), tbk_string_stack_signal(nullptr, dump, sizeof dump, 1, 1);
  return 1;
}

[[gnu::noinline, clang::disable_tail_calls]] int start(CallSites& sites, Step step, void* user) {
  return HERE(sites, "start"), program_middle(sites, step, user) + 1;
}

// The innermost rows of the dump, in the library or not, are those of the sites.
void check_sites(const CallSites& sites, const std::string& in_library) {
  const std::vector<Row> rows = rows_of(dump);
  ASSERT_EQ(static_cast<std::size_t>(sites.count), in_library.size());
  ASSERT_GT(rows.size(), in_library.size() + 1) << dump;
  for (std::size_t i = 0; i < in_library.size(); ++i) {
    const CallSite& site = sites.sites[in_library.size() - 1 - i];
    EXPECT_EQ(rows[i].routine, std::string(site.routine).substr(0, 17)) << dump;
    EXPECT_EQ(rows[i].source, file_name(site.file)) << dump;
    EXPECT_EQ(rows[i].line == std::to_string(site.line), site.here) << dump;
    const std::string image = in_library[i] == '1' ? "traceback_library" : "traceback_program";
    EXPECT_TRUE(rows[i].image.starts_with(image)) << dump;
  }
}

TEST(Program, ShowsRoutinesFilesAndLines) {
  CallSites sites = {};
  ASSERT_EQ(start(sites, write_dump, nullptr), 5);
  check_sites(sites, "01100");
#if defined __clang__ && defined __OPTIMIZE__
  EXPECT_EQ(rows_of(dump)[3].line, "0") << "one call for two lines belongs to none\n" << dump;
#endif
}

TEST(Program, ShowsTheCallerOfARoutineThatDoesNotReturn) {
  CallSites sites = {};
  EXPECT_THROW(program_ends_in_a_call(sites, write_dump, nullptr), Left);
  check_sites(sites, "01100");
  const auto name_at = [](int (*routine)()) {
    ksomd_pc_info info;
    tbk_get_pc_info(&info, reinterpret_cast<std::uint64_t>(routine), 0, nullptr);
    return std::string(info.routine);
  };
  EXPECT_EQ(name_at(program_ends), "program_ends") << "no call before it";
#ifndef _WIN32
  if (!ksomd::test::sanitized) {  // whose code stands behind the call
    EXPECT_EQ(name_at(program_follows), "program_ends_in_a_call")
        << "not the return address of a call, and the test shows nothing";
  }
#endif
}

}  // namespace

// A thrown exception leaves one compiler's thread-local storage in a state that its own clean-up
// does not survive: the program ends without it.
int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  const int status = RUN_ALL_TESTS();
  std::fflush(nullptr);
  std::_Exit(status);
}
