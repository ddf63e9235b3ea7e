// A program and a library with trace sections of their own line tables, against the shared library:
// what a dump through all three shows.
#include <gtest/gtest.h>

#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "traceback_program/program.h"

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

struct Skip {
  std::uint32_t direct, frames;
};

char dump[30000];

[[gnu::noinline, clang::disable_tail_calls]] int write_dump(CallSites& sites, void* user) {
  dump[0] = '\0';
  const auto* skip = static_cast<const Skip*>(user);
  if (skip != nullptr) {
    tbk_string_stack_signal_impl(nullptr, dump, sizeof dump, 1, skip->direct, skip->frames);
  } else {
    HERE(sites, "write_dump"), tbk_string_stack_signal(nullptr, dump, sizeof dump, 1, 1);
  }
  return 1;
}

[[gnu::noinline, clang::disable_tail_calls]] int start(CallSites& sites, Step step, void* user) {
  return HERE(sites, "start"), program_middle(sites, step, user) + 1;
}

TEST(Program, RoutinesFilesAndLines) {
  CallSites sites = {};
  ASSERT_EQ(start(sites, write_dump, nullptr), 5);
  const std::vector<Row> rows = rows_of(dump);
  ASSERT_GT(rows.size(), 6u) << dump;
  // Innermost first: write_dump, the library's two routines, program_middle, start.
  ASSERT_EQ(sites.count, 5);
  for (int i = 0; i < 5; ++i) {
    const CallSite& site = sites.sites[4 - i];
    const Row& row = rows[static_cast<std::size_t>(i)];
    const std::string wanted(site.routine);
    EXPECT_EQ(row.routine, wanted.substr(0, 17)) << dump;
    EXPECT_EQ(row.source, file_name(site.file)) << dump;
    EXPECT_EQ(row.line == std::to_string(site.line), site.here) << dump;
    const bool in_library = i == 1 || i == 2;
    EXPECT_EQ(row.image.starts_with("traceback_library"), in_library) << dump;
    EXPECT_EQ(row.image.starts_with("traceback_program"), !in_library) << dump;
  }
}

// The frames of the library under test come first if nothing is skipped.
TEST(Program, SkippedFrames) {
  const struct {
    Skip skip;
    std::vector<std::string> images;
    const char* first;
  } rows[] = {
      {{1, 0}, {"libksomd", "libksomd", "traceback_program", "traceback_library"}, "Unknown"},
      {{1, 3}, {"traceback_library", "traceback_library"}, "library_inner"},
      {{0, 1}, {"traceback_program"}, "program_middle"},
  };
  for (auto row : rows) {
    CallSites sites = {};
    ASSERT_EQ(start(sites, write_dump, &row.skip), 5);
    const std::vector<Row> shown = rows_of(dump);
    ASSERT_GT(shown.size(), row.images.size()) << dump;
    EXPECT_EQ(shown[0].routine, row.first) << dump;
    for (std::size_t i = 0; i < row.images.size(); ++i) {
      EXPECT_TRUE(shown[i].image.starts_with(row.images[i])) << dump;
    }
  }
  // Everything skipped: nothing is written.
  CallSites sites = {};
  Skip all = {1, 1000};
  start(sites, write_dump, &all);
  EXPECT_STREQ(dump, "");
}

}  // namespace
