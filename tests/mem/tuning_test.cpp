// What KSOMD_MEM_TUNING asks for, on processors made of answers.
#include "mem/tuning.h"

#include <gtest/gtest.h>

#include "support/child_process.h"
#include "support/synthetic_processor.h"

namespace ksomd::test {
namespace {

std::string refused;

// Caches of 32 KiB, 1 MiB and 16 MiB, in the leaf that describes one in each subleaf.
SyntheticProcessor with_caches(const char* vendor, std::uint32_t leaf) {
  SyntheticProcessor processor;
  processor.set_vendor(vendor, 0x10);
  processor.at(1).edx = 1u << 26 | 1u << 23;
  processor.at(0x80000000).eax = 0x80000020;
  processor.at(leaf, 0) = {1u << 5 | 1, 7u << 22 | 63, 63, 0};
  processor.at(leaf, 1) = {1u << 5 | 2, 7u << 22 | 63, 63, 0};
  processor.at(leaf, 2) = {2u << 5 | 3, 15u << 22 | 63, 1023, 0};
  processor.at(leaf, 3) = {3u << 5 | 3, 15u << 22 | 63, 16383, 0};
  return processor;
}

// The values in the order of their names in Tuning, then what was refused.
std::string asked(const SyntheticProcessor& from, const char* request) {
  const Processor processor = from.processor();
  refused.clear();
  const mem::Tuning tuning = mem::requested_tuning(
      {processor, gather_caches(processor), request}, nullptr,
      [](const char* item, std::size_t length) { refused += '|' + std::string(item, length); });
  std::string text;
  for (const mem::TuningField& field : mem::tuning_fields) {
    text += std::to_string(field.get(tuning)) + ' ';
  }
  return text + refused;
}

TEST(TuningRequest, SetsWhatItNamesAndRefusesTheRest) {
  const SyntheticProcessor genuine = with_caches("GenuineOrvex", 4);
  const SyntheticProcessor other = with_caches("SomebodyElse", 0x8000001D);
  SyntheticProcessor silent;
  silent.set_vendor("SomebodyElse");
  const std::string fixed = "131072 65536 16384 8192 4096 8192 65536 16384 ";
  const std::string derived = "16777216 8388608 32768 16384 8192 8192 196608 2048 ";
  EXPECT_EQ(asked(genuine, nullptr), derived + "2 ");
  EXPECT_EQ(asked(other, ""), fixed + "0 ");
  EXPECT_EQ(asked(other, "auto"), derived + "2 ");
  EXPECT_EQ(asked(with_caches("SomebodyElse", 4), "auto"), derived + "2 ");
  EXPECT_EQ(asked(silent, "auto"), fixed + "0 ");
  EXPECT_EQ(asked(other, "auto,largest_cache_size=3,l1_quarter=16K,mem_class=1"),
            "3 8388608 32768 16384 16384 8192 196608 2048 1 ");
  EXPECT_EQ(asked(other, "copy_nt_threshold=8M,,rep_stosb_threshold=2G,mem_class=2,l1_half=0"),
            "131072 8388608 16384 0 4096 8192 65536 2147483648 2 ");
  EXPECT_EQ(asked(other, "l1_size=18446744073709551615,l1_half=16777215G"),
            "131072 65536 18446744073709551615 18014397435740160 4096 8192 65536 16384 0 ");
  for (const std::string item :
       {"Auto", "l1_size", "l1_size=", "l1_size=K", "l1_size=1k", "l1_size=1KB", "l1_size=-1",
        "l1_size= 1", "l1_size=18446744073709551616", "l1_size=17179869184G", "l1=5", "=5", "=",
        "mem_class=3", "L1_size=1"}) {
    EXPECT_EQ(asked(other, item.c_str()), fixed + "0 |" + item);
    EXPECT_EQ(asked(other, (item + ",mem_class=1").c_str()), fixed + "1 |" + item);
  }
}

KSOMD_CHILD(tell_tuning) {
  std::printf("%d", static_cast<int>(__libkso_mem_tuning.rep_movsb_threshold));
  return 0;
}

TEST(TuningRequest, IsReadAtLoad) {
  expect_exit(run_child("tell_tuning", {}, {{"KSOMD_MEM_TUNING", "auto,rep_movsb_threshold=3K"}}),
              0, "3072");
}

}  // namespace
}  // namespace ksomd::test
