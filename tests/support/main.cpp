#include <gtest/gtest.h>

#include "support/child_process.h"
#include "support/entry.h"

int main(int argc, char** argv) {
  if (const int status = ksomd::test::run_as_child(argc, argv); status >= 0) {
    return status;
  }
  testing::InitGoogleTest(&argc, argv);
  const int status = RUN_ALL_TESTS();
  ksomd::test::report_entries();
  return ksomd::test::platform::finish(status);
}
