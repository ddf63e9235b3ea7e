// Start-up checks: what each exported entry requires, sets and reports; and the messages, their
// translation and their output.
#include "cpu/startup.h"

#include <immintrin.h>

#include <map>
#include <numeric>

#include "cpu/isa_names.h"
#include "cpu/machine.h"
#include "msg/messages.h"
#include "platform/platform.h"

namespace ksomd::test {
namespace {

// The mask only reaches the feature check.
using Routine = void(std::uint32_t flags, std::uint64_t mask);

struct Check {
  std::string name;
  std::uint64_t required;  // of word 0; 0: checks nothing
  Guarantees known;
  std::uint32_t message;  // of the report; 0: returns where something is missing
  bool takes_flags, sets_mode;
  Routine* routine = entry<Routine>(name);

  [[clang::no_sanitize("function")]] void call(std::uint32_t flags, std::uint64_t word) const {
    __orvex_cpu_feature_indicator[0] = __orvex_vendor_feature_indicator[0] = word;
    routine(flags, 0);
  }
};

// Every exported check, by the documentation. A row is a level: its letter, what it requires,
// guarantees and reports, and its dotted names that set the mode alone, each followed by what it
// takes for granted.
const std::vector<Check> checks = [] {
  std::istringstream rows(R"(- 2E 0 0 H0  B 6E 2 44 J0K2L2  N 6E 2 45 J0K2L2  P EE 2 43 L2
      T 1EE 2 42 M2  L 9EE 2 48 O2  S 3EE 2 46 N2  H 17EE 6 47 P6  G 117EE 6 50 R6
      I 197EE 6 51 S6  E 9D9FEE 6 52 V6)");
  std::vector<Check> all{{"__orvex_new_feature_proc_init", 0x20, 0, 0, true, true}};
  std::string letter, dotted;
  std::uint64_t required = 0;
  std::uint32_t known = 0, message = 0;
  while (rows >> letter >> std::hex >> required >> known >> std::dec >> message >> dotted) {
    for (const bool flags : {true, false}) {
      const std::string name = (flags ? "__orvex_new_proc_init" : "__orvex_proc_init") +
                               (letter == "-" ? "" : '_' + letter);
      all.push_back({name, required, known, message, flags, true});
      all.push_back({name + ".A", 0, 0, message, flags, false});
      for (std::size_t i = 0; i < dotted.size(); i += 2) {
        const auto granted = static_cast<Guarantees>(dotted[i + 1] - '0');
        all.push_back({name + '.' + dotted[i], 0, granted, 0, flags, true});
      }
      if (std::string("-BNPT").find(letter) == std::string::npos) {
        break;  // these levels came later
      }
    }
  }
  return all;
}();

// ---- reports ------------------------------------------------------------------------------------

const auto said = [](std::uint32_t message) -> std::string { return __libkso_get_msg(message); };

// Every check with its set, and without each of its features.
TEST(Reports, OfEveryLevel) {
  for (const Check& check : checks) {
    const std::uint32_t m = check.message;
    const auto fail = m < 49 ? __libkso_fatal_processor : __libkso_fatal_system;
    const std::string report = outcome([=] { fail(m); });
    for (std::uint64_t bit = 1u << 24; bit != 0; bit /= 2) {
      const bool missing = (check.required & bit) != 0;
      const bool ends = m != 0 && (missing || !check.sets_mode);
      const auto call = [&] { check.call(0, missing ? ~bit : check.required | 1); };
      EXPECT_EQ(outcome(call), ends ? report : "") << check.name << ' ' << bit;
      _mm_setcsr(mxcsr::all_masked);
    }
  }
}

// The names of features of a word of the set in the order of reports, as many as fit into 1023
// characters, the joiner before the last.
std::string listed(int index, std::uint64_t missing, const std::string& joiner) {
  std::string list, open, next;
  for (int id = 1, count = 0; id < isa_id_count; ++id) {
    const int bit = __orvex_feature_bit(id);
    if (bit >= 0 && bit >> 6 == index && (missing >> (bit & 63) & 1) != 0) {
      open += (count > 1 ? ", " : "") + next;
      next = __orvex_feature_name(id);
      const std::string closed = open + (count > 0 ? joiner : "") + next;
      list = ++count <= 2 || closed.size() <= 1023 ? closed : list;
    }
  }
  return list;
}

TEST(Reports, OfMissingFeatures) {
  const auto check_features =
      entry<decltype(__orvex_new_feature_proc_init_n)>("__orvex_new_feature_proc_init_n");
  Random random(seed_of(5));
  for (std::size_t round = 0; round < 1000; ++round) {
    const std::uint64_t have = random.next() | 2, word_1 = random.next();
    const auto word_0 = random.one_of<std::uint64_t>({1, 3, ~0uLL, have, have, have});
    const std::int32_t index = random.one_of({-1, 0, 0, 0, 1, 1, 1, 2, 0x7FFFFFFF});
    std::uint64_t few = random.next();
    few &= random.next();
    const auto mask = random.one_of<std::uint64_t>(
        {few, few, few & have, 0, 1uLL << 31, 1uLL << 52, 3uLL << 51, ~0uLL});
    const std::uint64_t lacks = mask & ~(index == 0 ? word_0 | 1uLL << 52 : word_1);
    const std::string names = listed(index, lacks, " and "), joiner(round, '+');
    const bool genuine = word_0 != 1, good = genuine && (index == 0 || index == 1);
    const std::uint32_t message = !genuine ? 62 : good && !names.empty() ? 56 : 58;
    const std::string text = __libkso_format_msg(message, 1, names.c_str());
    __orvex_vendor_feature_indicator[0] = word_0;
    __orvex_vendor_feature_indicator[1] = word_1;
    auto* const check =
        index == 0 && round % 2 != 0 ? __orvex_new_feature_proc_init : check_features;
    EXPECT_EQ(outcome([=] { check(index, mask); }),
              good && lacks == 0 ? "" : '\n' + text + "\n\n(ends)")
        << std::hex << word_0 << ' ' << word_1 << ' ' << index << ' ' << mask;
    char list[feature_list_size];  // cut at a whole name, wherever that ends
    ASSERT_TRUE(list_features({~0uLL, 0}, joiner.c_str(), list));
    ASSERT_EQ(list, listed(0, ~0uLL, joiner));
  }
}

// The gated set is filled by the check itself, through the name table.
TEST(Reports, OfASetThatTheCheckFills) {
  for (const auto& [vendor, bit, message] :
       {std::tuple{"GenuineOrvex", 0, 0u}, {"OtherVendor!", 0, 62}, {"GenuineOrvex", 1000, 59}}) {
    SyntheticProcessor p;
    p.set_vendor(vendor);
    p.at(1).edx = 1;
    install(p.processor());
    __orvex_isa_table[1].bit = bit;
    EXPECT_EQ(outcome([] { __orvex_new_feature_proc_init_n(0, 2); }),
              message == 0 ? "" : '\n' + said(message) + "\n\n(ends)");
  }
  __orvex_isa_table[1].bit = 0;
  install();
}

TEST(Reports, AFailedDispatchTraps) {
  constexpr const char* fail = "__orvex_cpu_dispatch_fail";
  EXPECT_NE(find_entry(fail), nullptr);
  EXPECT_EQ(run_child("call", {fail, "0"}).ending, Ending::BreakpointTrap);
}

// ---- MXCSR --------------------------------------------------------------------------------------

// Whether what is known leaves a doubt, which asks for a probe; and what MXCSR gains on a processor
// with this MXCSR_MASK.
const auto in_doubt = [](auto known, auto flags) { return (flags & ~known & 6) != 0; };
std::uint32_t gained_mode(Guarantees known, std::uint32_t flags, std::uint32_t supported) {
  const std::uint32_t wanted = (flags & 1) << 15 | (flags & 2) << 5 | (flags & 4) << 15;
  return in_doubt(known, flags) ? wanted & (supported | 0x8000) : wanted;
}

struct RecordedMxcsr {
  std::uint32_t value, mask, probes = 0;
  std::uint32_t read() const { return value; }
  void write(std::uint32_t next) { value = next; }
  std::uint32_t supported() { return ++probes, mask; }
};

TEST(Mode, EveryGuaranteeFlagAndMask) {
  for (std::uint32_t i = 0; i < 4 * 16 * 4; ++i) {
    const std::uint32_t known = i % 4 * 2, flags = i / 4 % 16, no_daz = i / 64 % 2, no_17 = i / 128;
    RecordedMxcsr mxcsr{0x1F80, ~(no_daz << 6 | no_17 << 17)};
    set_fp_mode(mxcsr, known, flags);
    EXPECT_TRUE(mxcsr.value == (0x1F80 | gained_mode(known, flags, mxcsr.mask)) &&
                mxcsr.probes == (in_doubt(known, flags) ? 1 : 0))
        << known << ' ' << flags << ' ' << mxcsr.mask;
  }
}

// call ENTRY FLAGS, on a processor that has everything.
KSOMD_CHILD(call) {
  __orvex_cpu_feature_indicator[0] = __orvex_vendor_feature_indicator[0] = ~0uLL;
  entry<void(std::uint32_t)>(arguments[0])(static_cast<std::uint32_t>(std::stoul(arguments[1])));
  return 0;
}

TEST(Mode, OfEveryEntryOnThisProcessor) {
  alignas(16) std::uint32_t image[128] = {};
  _fxsave64(image);
  const std::uint32_t supported = image[7];
  for (std::size_t i = 0; i < checks.size() * 8; ++i) {
    const Check& check = checks[i / 8];
    const std::uint32_t flags = i % 8, before = flags % 2 == 0 ? 0x7FBF : 0x1F80;
    const std::uint32_t effective = !check.sets_mode ? 0 : check.takes_flags ? flags : 3;
    const std::uint32_t gained = gained_mode(check.known, effective, supported);
    SCOPED_TRACE(check.name + " flags " + std::to_string(flags));
    if ((gained & ~supported) != 0) {
      // The mode is beyond this processor; a sanitizer would make a report of the fault.
      if (!sanitized) {
        const ChildResult child = run_child("call", {check.name, std::to_string(flags)});
        EXPECT_EQ(child.ending, Ending::AccessViolation);
      }
    } else if (check.sets_mode || check.message == 0) {
      std::uint32_t after = 0;
      int probes = 0, watched = 0;
      const auto call = [&] {
        _mm_setcsr(before);  // what is set stays
        check.call(flags, check.required | 1);
        after = _mm_getcsr();
        _mm_setcsr(mxcsr::all_masked);
      };
      // FXSAVE64: REX.W, 0F AE, and 0 in the middle of the next byte.
      watch(call, [&](const std::uint8_t* next) {
        watched = 1;
        probes += next[0] / 8 == 9 && next[1] == 0x0F && next[2] == 0xAE && (next[3] & 0x38) == 0;
      });
      EXPECT_EQ(after, before | gained);
      EXPECT_EQ(probes, in_doubt(check.known, effective) ? watched : 0);
    }
  }
  install();
}

// ---- messages -----------------------------------------------------------------------------------

TEST(Messages, EveryDefaultTextToTheByte) {
  // The low half of the FNV-1a hash of the text of each message from 1 on.
  const std::string hashes =
      "CD91E89A377F0AAE11220FEB08A3B5D9901412CE5B6B07D2112D5D2C46870FA64261219D794A1810DE9132C262E4"
      "7EC9B804CC5A59C76C3201A4B97EF2F851AC0FDB5AD176FB07B14454FF439FB9F6B8F93AF6FC42D483D9F7BFFCE6"
      "007F659A6F80B02621E10B9BFD6309663CF401B6AE7804171420B461AF32D09A";
  for (std::uint32_t n = 1; n < message_count; ++n) {
    const std::string text = said(n);
    const auto step = [](std::uint32_t hash, unsigned char c) { return (hash ^ c) * 0x1000193; };
    const std::uint32_t hash = std::accumulate(text.begin(), text.end(), 0x811C9DC5, step);
    EXPECT_EQ(hash & 0xFFFF, std::stoul(hashes.substr(4 * n - 4, 4), nullptr, 16)) << text;
  }
}

TEST(Messages, AreFormattedIfThereAreArgumentsAndCut) {
  const std::string start = "The allowed processors are: ", plain = start + "%s.";
  const std::string printed = outcome([] {
    const char* const formatted = __libkso_format_msg(24, 1, "own");
    __libkso_print(1, 0, 0);
    __libkso_print(0, 0, 3, "ignored");
    __libkso_print(7, 24, 0);
    __libkso_print(0, 24, -2, "C");
    __libkso_print(1, 24, 9, std::string(1000, 'y').c_str());
    __libkso_printf("%d%%|%s", 5, formatted);  // its buffer is its own
  });
  const std::string cut = start + std::string(483, 'y');
  EXPECT_EQ(printed, "\n\n" + plain + '\n' + plain + '\n' + cut + "\n5%|" + start + "own.");
  EXPECT_EQ(__libkso_format_msg(24, -5), plain);
  EXPECT_STREQ(__libkso_format_msg(0, 3, "A"), "");
  EXPECT_EQ(__libkso_format_msg(24, 9, std::string(1000, 'y').c_str()), cut);
  char text[64];
  EXPECT_EQ(__libkso_sprintf(text, "%lu/%s", 1033uL, "kso_msg.dll"), 16);
}

// ---- with a catalogue ---------------------------------------------------------------------------

// Makes this process find the catalogue kso_msg.mc, or none, in the directory of its locale.
void use_catalogue(bool present) {
#ifdef _WIN32
  SetCurrentDirectoryA("catalogue");  // where the build put the directory 1033
  SetThreadLocale(present ? 1033 : 1031);
#else
  static const std::map<DWORD, std::string> texts = {{23, "Translated: not this processor.\r\n"},
                                                     {24, "Translated: 100%% of %s.\r\n"},
                                                     {27, "Translated: %d\n"},
                                                     {30, "\r\n"},
                                                     {31, "x"},
                                                     {44, "Translated level B\r\n"},
                                                     {49, std::string(600, 'x') + "\r\n"},
                                                     {50, "Translated: %d%%.\r\n"},
                                                     {57, " plus%% "}};
  static host::Catalogue catalogue{
      0,
      // A message that is needed while the catalogue is loaded is not translated.
      [](const char* name) {
        return name == std::string("1033/kso_msg.dll") && said(57) == " and ";
      },
      [](DWORD identifier) {
        const auto found = texts.find(identifier - 0x80000000);
        return found != texts.end() ? found->second.c_str() : "";
      }};
  catalogue.locale = present ? 1033 : 1031;
  host::catalogue = &catalogue;
#endif
}

KSOMD_CHILD(catalogue) {
  use_catalogue(arguments[0] == "yes");
  std::string all = said(0);
  for (const std::uint32_t n : {23u, 24u, 27u, 28u, 30u, 31u, 49u, 57u}) {
    all += std::to_string(n) + '<' + said(n) + '>';
  }
  __orvex_vendor_feature_indicator[0] = 3;
  all += __libkso_format_msg(24, 1, "it");
  all += outcome([] { __orvex_new_feature_proc_init_n(0, 0x840000); });
  all += outcome([] { __libkso_fatal_system(50); });
  all += outcome([] { __libkso_fatal_processor(44); });
  use_catalogue(arguments[0] != "yes");  // too late: the catalogue is looked for once
  std::printf("%s%s", all.c_str(), __libkso_get_msg(23));
  return 0;
}

TEST(Catalogue, OfTheLocalesDirectoryTranslatesWhatItHolds) {
  const std::string cut(511, 'x');
  std::string translated = "23<Translated: not this processor.>24<Translated: 100%% of %s.>";
  translated +=
      "27<Translated: %d\n>28<NTDLL module not found>30<>31<x>49<" + cut + ">57< plus%% >";
  translated += "Translated: 100% of it.\nPlease verify that both the operating system and the ";
  translated += "processor support Orvex(R) FMA plus%% AVX2 instructions.\n\n(ends)\n" + cut + '\n';
  translated += "Translated: %d%%.\n\n(ends)\nTranslated: not this processor.\n";
  translated += "Translated: 100% of Translated level B.\n\n(ends)Translated: not this processor.";
  expect_exit(run_child("catalogue", {"yes"}), 0, text_mode(translated));
  EXPECT_TRUE(run_child("catalogue", {"no"}).output.ends_with(said(23)));
}

}  // namespace
}  // namespace ksomd::test
