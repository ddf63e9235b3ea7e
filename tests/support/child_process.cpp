#include "support/child_process.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <map>

#ifdef _WIN32
#include <windows.h>
#else
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#endif

namespace ksomd::test {
namespace {

const std::string child_flag = "--child=";

std::map<std::string, ChildFunction>& registry() {
  static std::map<std::string, ChildFunction> functions;
  return functions;
}

// What differs between the systems: the command line, the environment, and how a process ended.
#ifdef _WIN32

constexpr const char* read_mode = "rb";
constexpr char quote = '"';
constexpr std::pair<unsigned, Ending> endings[] = {
    {3, Ending::Abort},
    {EXCEPTION_BREAKPOINT, Ending::BreakpointTrap},
    {EXCEPTION_ACCESS_VIOLATION, Ending::AccessViolation},
    {EXCEPTION_ILLEGAL_INSTRUCTION, Ending::IllegalInstruction}};

// The command processor takes off the outermost quotation marks.
std::string start_of_command() {
  return '"' + ('"' + std::string(_pgmptr) + '"');
}
void set_variable(const std::string& name, const char* value) {
  _putenv_s(name.c_str(), value != nullptr ? value : "");
}
// The exit code is all that tells; abort ends with 3.
std::pair<bool, unsigned> exited(int code) {
  return {code >= 0 && code < 256 && code != 3, static_cast<unsigned>(code)};
}

#else

constexpr const char* read_mode = "r";
constexpr char quote = '\'';
constexpr std::pair<unsigned, Ending> endings[] = {{SIGABRT, Ending::Abort},
                                                   {SIGTRAP, Ending::BreakpointTrap},
                                                   {SIGSEGV, Ending::AccessViolation},
                                                   {SIGILL, Ending::IllegalInstruction}};

std::string start_of_command() {
  char program[4096];
  const auto length = readlink("/proc/self/exe", program, sizeof program);
  return "exec '" + std::string(program, static_cast<std::size_t>(length)) + '\'';
}
void set_variable(const std::string& name, const char* value) {
  value != nullptr ? setenv(name.c_str(), value, 1) : unsetenv(name.c_str());
}
std::pair<bool, unsigned> exited(int status) {
  return {WIFEXITED(status),
          static_cast<unsigned>(WIFEXITED(status) ? WEXITSTATUS(status) : WTERMSIG(status))};
}

#endif

}  // namespace

ChildRegistration::ChildRegistration(const char* name, ChildFunction function) {
  registry()[name] = function;
}

ChildResult run_child(const std::string& name, const Arguments& arguments,
                      const std::vector<std::pair<std::string, std::string>>& environment) {
  std::string command = start_of_command() + ' ' + child_flag + name;
  for (const std::string& argument : arguments) {
    command += std::string(" ") + quote + argument + quote;
  }
  for (const auto& [variable, value] : environment) {
    set_variable(variable, value.c_str());
  }
  std::fflush(nullptr);
  // NOLINTNEXTLINE(bugprone-command-processor): the command is this program
  std::FILE* const child = popen((command + (quote == '"' ? "\"" : "")).c_str(), read_mode);
  for (const auto& variable : environment) {
    set_variable(variable.first, nullptr);
  }
  std::string output;
  for (int c = std::fgetc(child); c != EOF; c = std::fgetc(child)) {
    output += static_cast<char>(c);
  }
  const auto [regular, code] = exited(pclose(child));
  const auto* const fault = std::ranges::find(endings, code, &std::pair<unsigned, Ending>::first);
  const Ending ending = regular                      ? Ending::Exit
                        : fault != std::end(endings) ? fault->second
                                                     : Ending::Other;
  return {ending, static_cast<int>(code), output};
}

void expect_exit(const ChildResult& child, int status, const std::string& output) {
  EXPECT_EQ(child.ending, Ending::Exit);
  EXPECT_EQ(child.status, status);
  EXPECT_EQ(child.output, output);
}

std::string text_mode(const std::string& text) {
#ifdef _WIN32
  constexpr const char* line_end = "\r\n";
#else
  constexpr const char* line_end = "\n";
#endif
  std::string result;
  for (const char character : text) {
    result += character == '\n' ? line_end : std::string(1, character);
  }
  return result;
}

int platform::finish(int status) {
#ifdef _WIN32
  // After an exception was thrown, the compiler's emulation of thread-local storage aborts in the
  // run-time library's own clean-up: a program that has all its results leaves without it.
  std::fflush(nullptr);
  std::_Exit(status);
#endif
  return status;
}

int run_as_child(int argc, char** argv) {
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

std::ostream& operator<<(std::ostream& stream, Ending ending) {
  constexpr const char* names[] = {
      "Exit", "Abort", "BreakpointTrap", "AccessViolation", "IllegalInstruction", "Other"};
  return stream << names[static_cast<int>(ending)];
}

}  // namespace ksomd::test
