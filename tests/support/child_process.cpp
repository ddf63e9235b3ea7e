#include "support/child_process.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <map>

namespace ksomd::test {
namespace {

const std::string child_flag = "--child=";

std::map<std::string, ChildFunction>& registry() {
  static std::map<std::string, ChildFunction> functions;
  return functions;
}

}  // namespace

ChildRegistration::ChildRegistration(const char* name, ChildFunction function) {
  registry()[name] = function;
}

ChildResult run_child(const std::string& name, const Arguments& arguments,
                      const std::vector<std::pair<std::string, std::string>>& environment) {
  Arguments command{child_flag + name};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return platform::run_this_program(command, environment);
}

void expect_exit(const ChildResult& child, int status, const std::string& output) {
  EXPECT_EQ(child.ending, Ending::Exit);
  EXPECT_EQ(child.status, status);
  EXPECT_EQ(child.output, output);
}

int run_as_child(int argc, char** argv) {
  if (argc < 2 || !std::string(argv[1]).starts_with(child_flag)) {
    return -1;
  }
  const auto found = registry().find(std::string(argv[1]).substr(child_flag.size()));
  if (found == registry().end()) {
    std::fprintf(stderr, "no child function for %s\n", argv[1]);
    return 125;
  }
  platform::prepare_child();
  return found->second(Arguments(argv + 2, argv + argc));
}

std::ostream& operator<<(std::ostream& stream, Ending ending) {
  constexpr const char* names[] = {
      "Exit", "Abort", "BreakpointTrap", "AccessViolation", "IllegalInstruction", "Other"};
  return stream << names[static_cast<int>(ending)];
}

}  // namespace ksomd::test
