#include "support/child_process.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <regex>

#ifdef _WIN32
#include <windows.h>
#else
#include <sys/wait.h>

#include <csignal>
#endif

namespace ksomd::test {
namespace {

const std::string child_flag = "--child=";
std::string program;

std::map<std::string, ChildFunction>& registry() {
  static std::map<std::string, ChildFunction> functions;
  return functions;
}

// What differs between the systems: the command line, the environment, and how a process ended.
#ifdef _WIN32

constexpr const char* read_mode = "rb";
// The command processor takes off the outermost quotation marks.
constexpr const char *before_command = "\"", *after_command = "\"", *line_end = "\r\n";
const std::map<int, Ending> endings = {{3, Ending::Abort},
                                       {EXCEPTION_BREAKPOINT, Ending::BreakpointTrap},
                                       {EXCEPTION_ACCESS_VIOLATION, Ending::AccessViolation}};

void set_variable(const std::string& name, const char* value) {
  _putenv_s(name.c_str(), value != nullptr ? value : "");
}
// The exit code is all that tells; abort ends with 3.
std::pair<bool, int> exited(int code) {
  return {code >= 0 && code < 256 && code != 3, code};
}

#else

constexpr const char* read_mode = "r";
constexpr const char *before_command = "exec ", *after_command = "", *line_end = "\n";
const std::map<int, Ending> endings = {{SIGABRT, Ending::Abort},
                                       {SIGTRAP, Ending::BreakpointTrap},
                                       {SIGSEGV, Ending::AccessViolation}};

void set_variable(const std::string& name, const char* value) {
  value != nullptr ? setenv(name.c_str(), value, 1) : unsetenv(name.c_str());
}
std::pair<bool, int> exited(int status) {
  return {WIFEXITED(status), WIFEXITED(status) ? WEXITSTATUS(status) : WTERMSIG(status)};
}

#endif

}  // namespace

ChildRegistration::ChildRegistration(const char* name, ChildFunction function) {
  registry()[name] = function;
}

ChildResult run_child(const std::string& name, const Arguments& arguments,
                      const std::vector<std::pair<std::string, std::string>>& environment) {
  std::string command = before_command + ('"' + program + "\" ") + child_flag + name;
  for (const std::string& argument : arguments) {
    command += " \"" + argument + '"';
  }
  for (const auto& [variable, value] : environment) {
    set_variable(variable, value.c_str());
  }
  std::fflush(nullptr);
  // NOLINTNEXTLINE(bugprone-command-processor): the command is this program
  std::FILE* const child = popen((command + after_command).c_str(), read_mode);
  for (const auto& variable : environment) {
    set_variable(variable.first, nullptr);
  }
  std::string output;
  for (int c = std::fgetc(child); c != EOF; c = std::fgetc(child)) {
    output += static_cast<char>(c);
  }
  const auto [regular, code] = exited(pclose(child));
  const auto fault = endings.find(code);
  const Ending unusual = fault != endings.end() ? fault->second : Ending::Other;
  return {regular ? Ending::Exit : unusual, code, output};
}

void expect_exit(const ChildResult& child, int status, const std::string& output) {
  EXPECT_EQ(child.ending, Ending::Exit);
  EXPECT_EQ(child.status, status);
  EXPECT_EQ(child.output, output);
}

std::string text_mode(const std::string& text) {
  return std::regex_replace(text, std::regex("\n"), line_end);
}

int run_as_child(int argc, char** argv) {
  program = argv[0];
  if (argc < 2 || !std::string(argv[1]).starts_with(child_flag)) {
    return -1;
  }
#ifdef _WIN32
  // A fault ends the child with the exception's code, and no debugger writes into its output.
  SetUnhandledExceptionFilter(
      [](EXCEPTION_POINTERS*) -> LONG { return EXCEPTION_EXECUTE_HANDLER; });
#endif
  return registry().at(std::string(argv[1]).substr(child_flag.size()))(
      Arguments(argv + 2, argv + argc));
}

}  // namespace ksomd::test
