#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

#include "support/child_process.h"

namespace ksomd::test {
namespace {

Ending ending_of_signal(int signal) {
  switch (signal) {
    case SIGABRT:
      return Ending::Abort;
    case SIGTRAP:
      return Ending::BreakpointTrap;
    case SIGSEGV:
      return Ending::AccessViolation;
    case SIGILL:
      return Ending::IllegalInstruction;
    default:
      return Ending::Other;
  }
}

[[noreturn]] void become_child(const Arguments& command,
                               const std::vector<std::pair<std::string, std::string>>& environment,
                               int output) {
  for (const auto& [name, value] : environment) {
    setenv(name.c_str(), value.c_str(), 1);
  }
  dup2(output, STDOUT_FILENO);
  std::string program = "/proc/self/exe";
  std::vector<char*> argv{program.data()};
  Arguments copy = command;
  for (std::string& argument : copy) {
    argv.push_back(argument.data());
  }
  argv.push_back(nullptr);
  execv(program.c_str(), argv.data());
  _exit(126);
}

}  // namespace

std::string text_mode(const std::string& text) {
  return text;
}

int platform::finish(int status) {
  return status;
}

void platform::prepare_child() {}

ChildResult platform::run_this_program(
    const Arguments& command, const std::vector<std::pair<std::string, std::string>>& environment) {
  int ends[2];
  if (pipe(ends) != 0) {
    return {Ending::Other, errno, "no pipe"};
  }
  const pid_t child = fork();
  if (child == 0) {
    close(ends[0]);
    become_child(command, environment, ends[1]);
  }
  close(ends[1]);
  ChildResult result{};
  char buffer[4096];
  for (ssize_t count; (count = read(ends[0], buffer, sizeof buffer)) > 0;) {
    result.output.append(buffer, static_cast<std::size_t>(count));
  }
  close(ends[0]);
  int status = 0;
  waitpid(child, &status, 0);
  if (WIFEXITED(status)) {
    return {Ending::Exit, WEXITSTATUS(status), result.output};
  }
  return {ending_of_signal(WTERMSIG(status)), WTERMSIG(status), result.output};
}

}  // namespace ksomd::test
