// Numbered messages, their translation and their output.
#include <gtest/gtest.h>

#include <string>

#include "cpu/feature_set.h"
#include "ksomd/processor.h"
#include "msg/messages.h"
#include "support/catalogue.h"
#include "support/child_process.h"

namespace ksomd::test {
namespace {

TEST(Defaults, EveryTextToTheByte) {
  // FNV-1a over the texts of messages 1 to 62, the terminating zeros included.
  std::uint64_t hash = 0xCBF29CE484222325;
  for (std::uint32_t n = 1; n < message_count; ++n) {
    const std::string text = __libkso_get_msg(n);
    for (std::size_t i = 0; i <= text.size(); ++i) {
      hash = (hash ^ static_cast<unsigned char>(text.c_str()[i])) * 0x100000001B3;
    }
  }
  EXPECT_EQ(hash, 0xBE79CFB8784DE674);
  EXPECT_STREQ(__libkso_get_msg(0), "");
}

TEST(Format, OnlyTheSignOfTheCountMatters) {
  EXPECT_STREQ(__libkso_format_msg(24, 0), "The allowed processors are: %s.");
  EXPECT_STREQ(__libkso_format_msg(24, -5), "The allowed processors are: %s.");
  EXPECT_STREQ(__libkso_format_msg(24, 9, "A"), "The allowed processors are: A.");
  EXPECT_STREQ(__libkso_format_msg(0, 3, "A"), "");
}

TEST(Format, CutsAt511Characters) {
  const std::string fixed = "The allowed processors are: ";
  for (const std::size_t length : {400u, 481u, 482u, 483u, 484u, 511u, 512u, 5000u}) {
    const std::string argument(length, 'x');
    const std::string whole = fixed + argument + ".";
    EXPECT_EQ(__libkso_format_msg(24, 1, argument.c_str()), whole.substr(0, 511));
  }
}

TEST(Sprintf, Counts) {
  char buffer[64];
  EXPECT_EQ(__libkso_sprintf(buffer, "%lu/%s", 1033uL, "kso_msg.dll"), 16);
  EXPECT_STREQ(buffer, "1033/kso_msg.dll");
  EXPECT_EQ(__libkso_sprintf(buffer, "%s", ""), 0);
}

TEST(Sprintf, FailureIsMinusOne) {
  char buffer[64];
  const wchar_t unpaired[] = {static_cast<wchar_t>(0xD800), 0};
  if (std::snprintf(buffer, sizeof buffer, "%ls", unpaired) >= 0) {
    GTEST_SKIP() << "this C library formats what it cannot encode";
  }
  EXPECT_EQ(__libkso_sprintf(buffer, "%ls", unpaired), -1);
}

KSOMD_CHILD(print_lines) {
  __libkso_print(1, 0, 0);
  __libkso_print(0, 0, 3, "ignored");
  __libkso_print(1, 24, 1, "A, B");
  __libkso_print(7, 24, 0);
  __libkso_print(0, 24, 2, "C", "unused");
  __libkso_print(1, 24, 1, std::string(1000, 'y').c_str());
  __libkso_printf("%d%%|", 5);
  return 0;
}

TEST(Print, OneLineEach) {
  const std::string cut = "The allowed processors are: " + std::string(483, 'y');
  EXPECT_EQ(run_child("print_lines").output,
            text_mode("\n\nThe allowed processors are: A, B.\nThe allowed processors are: %s.\n"
                      "The allowed processors are: C.\n" +
                      cut + "\n5%|"));
}

// ---- with a catalogue ------------------------------------------------------------------------

// catalogue yes|no: some messages as the catalogue has them.
KSOMD_CHILD(catalogue) {
  use_catalogue(arguments[0] == "yes");
  for (const std::uint32_t n : {23u, 24u, 27u, 28u, 29u, 30u, 49u, 57u}) {
    std::printf("%u<%s>", n, __libkso_get_msg(n));
  }
  std::printf("0<%s>", __libkso_get_msg(0));
  std::printf("24<%s>", __libkso_format_msg(24, 1, "it"));
  use_catalogue(arguments[0] != "yes");  // too late: the catalogue is looked for once
  std::printf("23<%s>", __libkso_get_msg(23));
  return 0;
}

TEST(Catalogue, TranslatesWhatItHolds) {
  std::string long_text;
  for (int i = 0; i < 511; ++i) {
    long_text += static_cast<char>('a' + i % 26);
  }
  expect_exit(run_child("catalogue", {"yes"}), 0,
              text_mode("23<Translated: not this processor.>"
                        "24<Translated: 100%% of %s.>"
                        "27<Translated: %d\n>"
                        "28<NTDLL module not found>"
                        "29<RtlCaptureContext function not found in ntdll.dll>"
                        "30<>"
                        "49<" +
                        long_text +
                        ">"
                        "57< plus%% >"
                        "0<>"
                        "24<Translated: 100% of it.>"
                        "23<Translated: not this processor.>"));
}

TEST(Catalogue, IsLookedForInTheLocalesDirectory) {
  const std::string wrong_processor =
      "Fatal Error: This program was not built to run on the processor in your system.";
  EXPECT_EQ(run_child("catalogue", {"no"}).output,
            "23<" + wrong_processor +
                ">"
                "24<The allowed processors are: %s.>"
                "27<Initialization of symbol handler failed. Error code %d>"
                "28<NTDLL module not found>"
                "29<RtlCaptureContext function not found in ntdll.dll>"
                "30< Windows XP 64-bit Edition Version 2003 or newer should be used.>"
                "49<Fatal Error: This program was not built to run in your system.>"
                "57< and >"
                "0<>"
                "24<The allowed processors are: it.>"
                "23<" +
                wrong_processor + ">");
}

KSOMD_CHILD(translated_report) {
  use_catalogue(true);
  __orvex_vendor_feature_indicator[0] = 3;
  __orvex_new_feature_proc_init_n(0, 0x840000);
  return 0;
}

KSOMD_CHILD(translated_fatal) {
  use_catalogue(true);
  __libkso_fatal_processor(44);
}

TEST(Catalogue, ReportsAreTranslated) {
  EXPECT_EQ(run_child("translated_report").output,
            text_mode("\nPlease verify that both the operating system and the processor support "
                      "Orvex(R) FMA plus%% AVX2 instructions.\n\n"));
  const ChildResult fatal = run_child("translated_fatal");
  EXPECT_EQ(fatal.status, 1);
  EXPECT_EQ(
      fatal.output,
      text_mode("\nTranslated: not this processor.\nTranslated: 100% of Translated level B.\n\n"));
}

}  // namespace
}  // namespace ksomd::test
