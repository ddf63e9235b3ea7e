// Numbered messages, their translation and their output.
#include <gtest/gtest.h>

#include <array>
#include <string>

#include "cpu/catalogue.h"
#include "cpu/machine.h"
#include "ksomd/processor.h"
#include "msg/messages.h"
#include "support/child_process.h"
#ifndef _WIN32
#include <malloc.h>

#include "platform/platform.h"
#endif

namespace ksomd::test {
namespace {

// FNV-1a of the text of each message from 1 on.
constexpr std::uint32_t text_hashes[] = {
    0xF7B1CD91, 0xAF47E89A, 0x28AF377F, 0x833A0AAE, 0xC71E1122, 0x5E0A0FEB, 0x025D08A3, 0x0C90B5D9,
    0xB6159014, 0x361F12CE, 0x36225B6B, 0xC8F907D2, 0x6796112D, 0x2C825D2C, 0xE3CE4687, 0x962E0FA6,
    0x631D4261, 0xBD56219D, 0xA59C794A, 0xCC111810, 0xDC90DE91, 0x13E732C2, 0x907F62E4, 0x01F27EC9,
    0x9F92B804, 0x14F1CC5A, 0x3F0359C7, 0x11BE6C32, 0x29B701A4, 0x8132B97E, 0x2BE1F2F8, 0x93C751AC,
    0x9E4C0FDB, 0x26695AD1, 0xC72376FB, 0xD3B507B1, 0xFDA54454, 0xAC6FFF43, 0x9B759FB9, 0x8B28F6B8,
    0x581AF93A, 0xBE10F6FC, 0xC36C42D4, 0x27B883D9, 0xDAA4F7BF, 0x1640FCE6, 0x6765007F, 0xF654659A,
    0x33CB6F80, 0x2923B026, 0xB38321E1, 0x7ADD0B9B, 0x62F7FD63, 0xC8030966, 0x41B13CF4, 0xF03701B6,
    0x31E9AE78, 0xB5FF0417, 0xD1931420, 0x8A05B461, 0x0B67AF32, 0x1CD0D09A};

TEST(Defaults, EveryTextToTheByte) {
  EXPECT_STREQ(__libkso_get_msg(0), "");
  for (std::uint32_t n = 1; n < message_count; ++n) {
    std::uint32_t hash = 0x811C9DC5;
    const std::string text = __libkso_get_msg(n);
    for (const char c : text) {
      hash = (hash ^ static_cast<unsigned char>(c)) * 0x1000193;
    }
    EXPECT_EQ(hash, text_hashes[n - 1]) << n << ": " << text;
  }
}

TEST(Format, OnlyTheSignOfTheCountMatters) {
  const std::string plain = "The allowed processors are: %s.";
  EXPECT_EQ(__libkso_format_msg(24, 0), plain);
  EXPECT_EQ(__libkso_format_msg(24, -5), plain);
  EXPECT_STREQ(__libkso_format_msg(24, 9, "A"), "The allowed processors are: A.");
  EXPECT_STREQ(__libkso_format_msg(0, 3, "A"), "");
}

TEST(Format, CutsAt511Characters) {
  for (const std::size_t length : {481u, 482u, 483u, 484u, 511u, 512u, 5000u}) {
    const std::string argument(length, 'x');
    const std::string whole = "The allowed processors are: " + argument + ".";
    EXPECT_EQ(__libkso_format_msg(24, 1, argument.c_str()), whole.substr(0, 511));
    char copy[message_size];
    copy_message(copy, whole.c_str());
    EXPECT_EQ(copy, whole.substr(0, 511));
  }
}

TEST(Sprintf, CountsOrFails) {
  char buffer[64];
  EXPECT_EQ(__libkso_sprintf(buffer, "%lu/%s", 1033uL, "kso_msg.dll"), 16);
  EXPECT_STREQ(buffer, "1033/kso_msg.dll");
  EXPECT_EQ(__libkso_sprintf(buffer, "%s", ""), 0);
  const wchar_t unpaired[] = {static_cast<wchar_t>(0xD800), 0};
  if (std::snprintf(buffer, sizeof buffer, "%ls", unpaired) >= 0) {
    GTEST_SKIP() << "this C library formats what it cannot encode";
  }
  EXPECT_EQ(__libkso_sprintf(buffer, "%ls", unpaired), -1);
}

KSOMD_CHILD(print_lines) {
  const char* const formatted = __libkso_format_msg(24, 1, "own");
  __libkso_print(1, 0, 0);
  __libkso_print(0, 0, 3, "ignored");
  __libkso_print(1, 24, 1, "A, B");
  __libkso_print(7, 24, 0);
  __libkso_print(0, 24, -2, "C");
  __libkso_print(1, 24, 1, std::string(1000, 'y').c_str());
  __libkso_printf("%d%%|%s", 5, formatted);  // its buffer is its own
  return 0;
}

TEST(Print, OneLineEach) {
  const std::string start = "The allowed processors are: ";
  expect_exit(run_child("print_lines"), 0,
              text_mode("\n\n" + start + "A, B.\n" + start + "%s.\n" + start + "%s.\n" + start +
                        std::string(483, 'y') + "\n5%|" + start + "own."));
}

// ---- with a catalogue ---------------------------------------------------------------------------

// catalogue yes|no: some messages as the catalogue has them.
KSOMD_CHILD(catalogue) {
  use_catalogue(arguments[0] == "yes");
  for (const std::uint32_t n : {23u, 24u, 27u, 28u, 29u, 30u, 31u, 49u, 57u, 0u}) {
    std::printf("%u<%s>", n, __libkso_get_msg(n));
  }
  std::printf("24<%s>", __libkso_format_msg(24, 1, "it"));
  use_catalogue(arguments[0] != "yes");  // too late: the catalogue is looked for once
  std::printf("23<%s>", __libkso_get_msg(23));
  return 0;
}

// Message 49 of the catalogue, cut.
std::string long_text() {
  std::string text;
  for (int i = 0; i < 511; ++i) {
    text += static_cast<char>('a' + i % 26);
  }
  return text;
}

TEST(Catalogue, TranslatesWhatItHolds) {
  expect_exit(run_child("catalogue", {"yes"}), 0,
              text_mode("23<Translated: not this processor.>24<Translated: 100%% of %s.>"
                        "27<Translated: %d\n>28<NTDLL module not found>"
                        "29<RtlCaptureContext function not found in ntdll.dll>30<>31<x>49<" +
                        long_text() +
                        ">57< plus%% >0<>24<Translated: 100% of it.>"
                        "23<Translated: not this processor.>"));
}

TEST(Catalogue, IsLookedForInTheLocalesDirectory) {
  std::string expected;
  for (const std::uint32_t n : {23u, 24u, 27u, 28u, 29u, 30u, 31u, 49u, 57u, 0u}) {
    expected += std::to_string(n) + '<' + __libkso_get_msg(n) + '>';
  }
  expected += "24<The allowed processors are: it.>23<" + std::string(__libkso_get_msg(23)) + '>';
  expect_exit(run_child("catalogue", {"no"}), 0, expected);
}

KSOMD_CHILD(translated_reports) {
  use_catalogue(true);
  __orvex_vendor_feature_indicator[0] = 3;
  exits([] { __orvex_new_feature_proc_init_n(0, 0x840000); });
  exits([] { __libkso_fatal_system(50); });
  __libkso_fatal_processor(44);
}

TEST(Catalogue, ReportsAreTranslated) {
  expect_exit(run_child("translated_reports"), 1,
              text_mode("\nPlease verify that both the operating system and the processor support "
                        "Orvex(R) FMA plus%% AVX2 instructions.\n\n\n" +
                        long_text() +
                        "\nTranslated: %d%%.\n\n\nTranslated: not this processor.\n"
                        "Translated: 100% of Translated level B.\n\n"));
}

#ifndef _WIN32

// The first message, and one that is needed while the catalogue is loaded.
KSOMD_CHILD(needs_a_message_itself) {
  static std::string meanwhile;
  static int loaded = 0;
  static constexpr host::Catalogue asking{
      1033, [](const char*) { return meanwhile = __libkso_get_msg(57), ++loaded > 0; },
      [](DWORD n) { return n == 0x80000039 ? "" : "text\r\n"; }};
  host::catalogue = &asking;
  std::printf("%s", __libkso_get_msg(24));
  std::printf("%s(%s)%d", __libkso_get_msg(57), meanwhile.c_str(), loaded);
  const std::size_t used = mallinfo2().uordblks;
  for (int i = 0; i < 100; ++i) {
    __libkso_get_msg(24);
  }
  return mallinfo2().uordblks == used ? 0 : 1;
}

TEST(Catalogue, IsLoadedOnceAndItsTextsAreReleased) {
  expect_exit(run_child("needs_a_message_itself"), 0, "text and ( and )1");
}

// What stands in for Windows on the host refuses what it does not serve.
TEST(Catalogue, OfTheHostServesOneWayOfAsking) {
  host::catalogue = nullptr;
  EXPECT_EQ(GetThreadLocale(), 1033u);
  EXPECT_EQ(LoadLibraryExA("1033/kso_msg.dll", nullptr, 0), nullptr);
  use_catalogue(true);
  EXPECT_EQ(LoadLibraryExA("1031/kso_msg.dll", nullptr, 0), nullptr);
  auto* const module = LoadLibraryExA("1033/kso_msg.dll", nullptr, 0);
  const std::array<DWORD, 4> questions[] = {{0x100, 0x80000017, 0x409, 0},
                                            {0x800, 0x80000017, 0x409, 0},
                                            {0x900, 0x80000017, 0x407, 0},
                                            {0x900, 23, 0x409, 0},
                                            {0x900, 0x80000017, 0x409, 33}};
  for (const auto& [flags, identifier, language, length] : questions) {
    char* text = nullptr;
    EXPECT_EQ(FormatMessageA(flags, module, identifier, language, reinterpret_cast<char*>(&text),
                             512, nullptr),
              length);
    EXPECT_EQ(text != nullptr, length != 0);
    EXPECT_EQ(LocalFree(text), nullptr);
  }
  host::catalogue = nullptr;
}

#endif

}  // namespace
}  // namespace ksomd::test
