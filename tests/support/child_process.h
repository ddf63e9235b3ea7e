// Parts of a test that end the process, or want a fresh one: run as a child of the test program.
//
//   KSOMD_CHILD(report) { __libkso_fatal_system(50); return 0; }
//   TEST(Report, Text) { EXPECT_EQ(run_child("report").output, text_mode("...\n")); }
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace ksomd::test {

using Arguments = std::vector<std::string>;
using ChildFunction = int (*)(const Arguments&);

// Registers a function that a child process can run; its result is the exit status.
struct ChildRegistration {
  ChildRegistration(const char* name, ChildFunction function);
};

// NOLINTNEXTLINE(bugprone-macro-parentheses): `name` becomes part of a declaration
#define KSOMD_CHILD(name)                                                                   \
  static int child_##name(const ::ksomd::test::Arguments&);                                 \
  static const ::ksomd::test::ChildRegistration register_child_##name(#name, child_##name); \
  static int child_##name([[maybe_unused]] const ::ksomd::test::Arguments& arguments)

enum class Ending { Exit, Abort, BreakpointTrap, AccessViolation, Other };

struct ChildResult {
  Ending ending;
  int status;          // exit status; what the system reported, if the ending is not Exit
  std::string output;  // the exact bytes of standard output
};

// Runs a registered function in a new process of this program, with more environment variables.
ChildResult run_child(const std::string& name, const Arguments& arguments = {},
                      const std::vector<std::pair<std::string, std::string>>& environment = {});

// Expects that a child ended with this status and wrote these bytes.
void expect_exit(const ChildResult& child, int status, const std::string& output);

// Text as this platform's standard output writes it: line feeds become CR LF on Windows.
std::string text_mode(const std::string& text);

// For main: runs the child function that the command line asks for and returns its status; -1 if
// this is not a child. Children start by the name that this program was started by.
int run_as_child(int argc, char** argv);

}  // namespace ksomd::test
