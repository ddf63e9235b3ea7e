#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include "support/child_process.h"
#include "support/entry.h"

int main(int argc, char** argv) {
  if (const int status = ksomd::test::run_as_child(argc, argv); status >= 0) {
    return status;
  }
  testing::InitGoogleTest(&argc, argv);
  const int status = RUN_ALL_TESTS();
  ksomd::test::report_entries();
#ifdef _WIN32
  // After an exception was thrown, the compiler's emulation of thread-local storage aborts in the
  // run-time library's own clean-up: a program that has all its results leaves without it.
  std::fflush(nullptr);
  std::_Exit(status);
#endif
  return status;
}
