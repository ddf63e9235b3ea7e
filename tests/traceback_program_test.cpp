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
  std::string image, pc, routine, line, source;
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
    rows.push_back({field(0, 17), field(19, 16), field(37, 17), field(56, 10), line.substr(68)});
  }
  return rows;
}

std::string file_name(const std::string& path) {
  return path.substr(path.find_last_of("/\\") + 1);
}

char dump[30000];

[[gnu::noinline, clang::disable_tail_calls]] int write_dump(CallSites& sites, void* user) {
  const auto write = tbk_string_stack_signal_impl;
  const std::uint32_t skip = user != nullptr ? 0 : 2;
  dump[0] = '\0';
  HERE(sites, "write_dump"), write(nullptr, dump, sizeof dump, 1, 1, skip);
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
    EXPECT_EQ(row.line, std::to_string(site.line)) << dump;
    const bool in_library = i == 1 || i == 2;
    EXPECT_EQ(row.image.starts_with("traceback_library"), in_library) << dump;
    EXPECT_EQ(row.image.starts_with("traceback_program"), !in_library) << dump;
  }
}

// The frames of the library under test come first if nothing is skipped.
TEST(Program, AcrossTheSharedLibrary) {
  CallSites sites = {};
  ASSERT_EQ(start(sites, write_dump, &sites), 5);
  const std::vector<Row> rows = rows_of(dump);
  ASSERT_GT(rows.size(), 8u) << dump;
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(rows[static_cast<std::size_t>(i)].image.starts_with("libksomd")) << dump;
    EXPECT_EQ(rows[static_cast<std::size_t>(i)].routine, "Unknown");
  }
  EXPECT_TRUE(rows[2].image.starts_with("traceback_program")) << dump;
  EXPECT_TRUE(rows[3].image.starts_with("traceback_library")) << dump;
}

}  // namespace
