#include <windows.h>

#include <cstdio>
#include <cstdlib>

#include "support/child_process.h"

namespace ksomd::test {
namespace {

// The exit code is all that tells how a process ended; abort ends with 3.
Ending ending_of_exit_code(DWORD code) {
  switch (code) {
    case 3:
      return Ending::Abort;
    case EXCEPTION_BREAKPOINT:
      return Ending::BreakpointTrap;
    case EXCEPTION_ACCESS_VIOLATION:
      return Ending::AccessViolation;
    case EXCEPTION_ILLEGAL_INSTRUCTION:
      return Ending::IllegalInstruction;
    default:
      return code < 256 ? Ending::Exit : Ending::Other;
  }
}

// Sets environment variables, for a child to inherit, as long as it lives.
class ScopedEnvironment {
 public:
  explicit ScopedEnvironment(const std::vector<std::pair<std::string, std::string>>& variables)
      : variables_(variables) {
    for (const auto& [name, value] : variables_) {
      SetEnvironmentVariableA(name.c_str(), value.c_str());
    }
  }
  ~ScopedEnvironment() {
    for (const auto& variable : variables_) {
      SetEnvironmentVariableA(variable.first.c_str(), nullptr);
    }
  }
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

 private:
  std::vector<std::pair<std::string, std::string>> variables_;
};

std::string command_line(const std::string& program, const Arguments& command) {
  std::string line = '"' + program + '"';
  for (const std::string& argument : command) {
    line += " \"" + argument + '"';
  }
  return line;
}

}  // namespace

std::string text_mode(const std::string& text) {
  std::string result;
  for (const char character : text) {
    result += character == '\n' ? "\r\n" : std::string(1, character);
  }
  return result;
}

// After an exception was thrown, the compiler's emulation of thread-local storage aborts in the
// run-time library's own clean-up: a program that has all its results leaves without it.
int platform::finish(int status) {
  std::fflush(nullptr);
  std::_Exit(status);
}

// A fault ends the child with the exception's code, and no debugger writes into its output.
void platform::prepare_child() {
  SetUnhandledExceptionFilter(
      [](EXCEPTION_POINTERS*) -> LONG { return EXCEPTION_EXECUTE_HANDLER; });
}

ChildResult platform::run_this_program(
    const Arguments& command, const std::vector<std::pair<std::string, std::string>>& environment) {
  char program[MAX_PATH];
  GetModuleFileNameA(nullptr, program, sizeof program);
  SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
  HANDLE read_end, write_end;
  if (!CreatePipe(&read_end, &write_end, &inheritable, 0)) {
    return {Ending::Other, static_cast<int>(GetLastError()), "no pipe"};
  }
  SetHandleInformation(read_end, HANDLE_FLAG_INHERIT, 0);
  STARTUPINFOA startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
  startup.hStdOutput = write_end;
  startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
  PROCESS_INFORMATION process{};
  std::string line = command_line(program, command);
  const ScopedEnvironment scope(environment);
  const BOOL started = CreateProcessA(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr,
                                      nullptr, &startup, &process);
  CloseHandle(write_end);
  if (!started) {
    return {Ending::Other, static_cast<int>(GetLastError()), "not started"};
  }
  ChildResult result{};
  char buffer[4096];
  for (DWORD count; ReadFile(read_end, buffer, sizeof buffer, &count, nullptr) && count > 0;) {
    result.output.append(buffer, count);
  }
  WaitForSingleObject(process.hProcess, INFINITE);
  DWORD code = 0;
  GetExitCodeProcess(process.hProcess, &code);
  CloseHandle(read_end);
  CloseHandle(process.hThread);
  CloseHandle(process.hProcess);
  return {ending_of_exit_code(code), static_cast<int>(code), result.output};
}

}  // namespace ksomd::test
