// The constant-propagation check: its report to the byte, and its ending.
#include <gtest/gtest.h>

#include <string>

#include "ksomd/diagnostics.h"
#include "support/child_process.h"

namespace {

using namespace ksomd::test;

KSOMD_CHILD(check_constant) {
  _IPO_Check_CP(std::stoi(arguments[0]), static_cast<std::uint32_t>(std::stoul(arguments[1])),
                std::stoull(arguments[2], nullptr, 0), std::stoull(arguments[3], nullptr, 0));
  return 0;
}

struct Mismatch {
  const char* kind;
  const char* type;
  const char* first;
  const char* second;
  const char* report;
};

constexpr Mismatch mismatches[] = {
    {"1", "0", "5", "7", "Constant propagation error (RETURN substitution):\n\tI32 5 != 7\n"},
    {"0", "0", "0xFFFFFFFF", "0x1FFFFFFFE",
     "Constant propagation error (FORMAL substitution):\n\tI32 ffffffff != fffffffe\n"},
    {"2", "1", "0xFFFFFFFF", "1",
     "Constant propagation error (GLOBAL substitution):\n\tSI32 -1 != 1\n"},
    {"0", "2", "0x3FC00000", "0xC0000000",
     "Constant propagation error (FORMAL substitution):\n\tF32 1.500000 != -2.000000\n"},
    {"0", "3", "0x0000000100000002", "0x0000000100000003",
     "Constant propagation error (FORMAL substitution):\n\tI64 2:1 != 3:1\n"},
    {"0", "4", "0xFFFFFFFE00000002", "0x00000001FFFFFFFD",
     "Constant propagation error (FORMAL substitution):\n\tSI64 2:-2 != -3:1\n"},
    {"2", "5", "0x3FF8000000000000", "0x4000000000000000",
     "Constant propagation error (GLOBAL substitution):\n\tF64 1.500000 != 2.000000\n"},
    {"3", "1", "0x7FFFFFFF", "0x80000000",
     "Constant propagation error (unknown substitution):\n\tSI32 2147483647 != -2147483648\n"},
    {"-1", "3", "0x8000000000000000", "0x7FFFFFFFFFFFFFFF",
     "Constant propagation error (unknown substitution):\n"
     "\tI64 0:80000000 != ffffffff:7fffffff\n"},
    {"1", "2", "0x80000000", "0x3F800000",
     "Constant propagation error (RETURN substitution):\n\tF32 -0.000000 != 1.000000\n"},
    {"1", "5", "0x430C6BF526340000", "0x8000000000000001",
     "Constant propagation error (RETURN substitution):\n"
     "\tF64 1000000000000000.000000 != -0.000000\n"},
    {"0", "6", "1", "1", "Bad second argument\n"},
    {"0", "4294967295", "1", "1", "Bad second argument\n"},
};

TEST(ConstantCheck, Reports) {
  for (const Mismatch& row : mismatches) {
    const ChildResult result =
        run_child("check_constant", {row.kind, row.type, row.first, row.second});
    EXPECT_EQ(result.ending, Ending::Abort) << row.report;
    EXPECT_EQ(result.output, text_mode(row.report));
  }
}

TEST(ConstantCheck, NanIsNeverEqual) {
  const std::pair<const char*, const char*> nans[] = {{"2", "0x7FC00000"},
                                                      {"5", "0x7FF8000000000000"}};
  for (const auto& [type, nan] : nans) {
    EXPECT_EQ(run_child("check_constant", {"0", type, nan, nan}).ending, Ending::Abort);
  }
}

TEST(ConstantCheck, EqualValuesReturn) {
  for (const std::uint32_t type : {0u, 1u}) {
    _IPO_Check_CP(0, type, 0x1234567800000009, 9);
  }
  _IPO_Check_CP(1, 2, 0x80000000, 0xABCD00000000);  // -0 and +0
  _IPO_Check_CP(1, 5, 0x8000000000000000, 0);
  _IPO_Check_CP(2, 3, 0x8000000100000002, 0x8000000100000002);
  _IPO_Check_CP(2, 4, 0x8000000100000002, 0x8000000100000002);
}

}  // namespace
