#include <gtest/gtest.h>

#include "cpu/feature_set.h"
TEST(A, B) {
  EXPECT_TRUE(ksomd::feature_word() & 1);
}
