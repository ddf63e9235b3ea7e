#include <gtest/gtest.h>

#include "support/child_process.h"

int main(int argc, char** argv) {
  if (const int status = ksomd::test::run_as_child(argc, argv); status >= 0) {
    return status;
  }
  testing::InitGoogleTest(&argc, argv);
  return ksomd::test::platform::finish(RUN_ALL_TESTS());
}
