// Start-up checks: what each exported entry requires, sets and reports.
#include "cpu/startup.h"

#include <gtest/gtest.h>
#include <immintrin.h>

#include <cstring>
#include <functional>
#include <tuple>

#include "cpu/features.h"
#include "cpu/isa_names.h"
#include "cpu/machine.h"
#include "msg/messages.h"
#include "support/child_process.h"
#include "support/entry.h"
#include "support/sweep.h"
#ifndef _WIN32
#include "support/single_step.h"
#endif

namespace ksomd::test {
namespace {

// The mask only reaches the feature check.
using Routine = void(std::uint32_t flags, std::uint64_t mask);

struct Check {
  std::string name;
  bool takes_flags;
  std::uint64_t required;  // of word 0; 0: checks nothing
  Guarantees known;
  bool sets_mode;
  std::uint32_t message;  // of the report; 0: returns where something is missing
  Routine* routine = entry<Routine>(name);

  [[clang::no_sanitize("function")]] void call(std::uint32_t flags) const { routine(flags, 0); }
};

// Every exported check, by the documentation: what each level requires, guarantees and reports, and
// its dotted names that set the mode alone, each followed by what it takes for granted.
std::vector<Check> all_checks() {
  const struct {
    std::string letter;
    std::uint64_t required;
    Guarantees known;
    std::uint32_t message;
    std::string dotted;
  } levels[] = {
      {"", 0x2E, 0, 0, "H0"},      {"B", 0x6E, 2, 44, "J0K2L2"}, {"N", 0x6E, 2, 45, "J0K2L2"},
      {"P", 0xEE, 2, 43, "L2"},    {"T", 0x1EE, 2, 42, "M2"},    {"L", 0x9EE, 2, 48, "O2"},
      {"S", 0x3EE, 2, 46, "N2"},   {"H", 0x17EE, 6, 47, "P6"},   {"G", 0x117EE, 6, 50, "R6"},
      {"I", 0x197EE, 6, 51, "S6"}, {"E", 0x9D9FEE, 6, 52, "V6"}};
  std::vector<Check> checks{{"__orvex_new_feature_proc_init", true, 0x20, 0, true, 0}};
  for (const auto& level : levels) {
    for (const bool with_flags : {false, true}) {
      if (!with_flags && std::strstr("BNPT", level.letter.c_str()) == nullptr) {
        continue;  // these levels came later
      }
      const std::string name = (with_flags ? "__orvex_new_proc_init" : "__orvex_proc_init") +
                               (level.letter.empty() ? "" : '_' + level.letter);
      checks.push_back({name, with_flags, level.required, level.known, true, level.message});
      checks.push_back({name + ".A", with_flags, 0, 0, false, level.message});
      for (std::size_t i = 0; i < level.dotted.size(); i += 2) {
        checks.push_back({name + '.' + level.dotted[i], with_flags, 0,
                          static_cast<Guarantees>(level.dotted[i + 1] - '0'), true, 0});
      }
    }
  }
  return checks;
}

TEST(Checks, AreAllThatIsExported) {
  EXPECT_EQ(all_checks().size() - 1, entries_with_prefix("__orvex_proc_init").size() +
                                         entries_with_prefix("__orvex_new_proc_init").size());
}

void pretend(std::uint64_t word_0, std::uint64_t word_1 = 0) {
  __orvex_cpu_feature_indicator[0] = __orvex_vendor_feature_indicator[0] = word_0;
  __orvex_vendor_feature_indicator[1] = word_1;
}

// ---- MXCSR --------------------------------------------------------------------------------------

// Whether what is known leaves a doubt, which asks for a probe.
bool in_doubt(Guarantees known, std::uint32_t flags) {
  return (flags & ~known & 6) != 0;
}

// What MXCSR gains on a processor with this MXCSR_MASK.
std::uint32_t gained_mode(Guarantees known, std::uint32_t flags, std::uint32_t supported) {
  const std::uint32_t wanted = ((flags & 1) != 0 ? 0x8000 : 0) | ((flags & 2) != 0 ? 0x40 : 0) |
                               ((flags & 4) != 0 ? 0x20000 : 0);
  return in_doubt(known, flags) ? wanted & (supported | 0x8000) : wanted;
}

// An MXCSR that tells what was done to it.
struct RecordedMxcsr {
  std::uint32_t value, mask;
  std::string& log;
  std::uint32_t read() const { return value; }
  void write(std::uint32_t next) {
    log += std::to_string(next ^ value) + ' ';
    value = next;
  }
  std::uint32_t supported() const {
    log += "probe ";
    return mask;
  }
};

TEST(Mode, EveryGuaranteeFlagAndMask) {
  for (const Guarantees known : {0u, 2u, 4u, 6u}) {
    for (std::uint32_t flags = 0; flags < 16; ++flags) {
      for (const std::uint32_t mask : {0u, 0x40u, 0x20000u, 0x20040u, ~0x40u, ~0x20000u, ~0u}) {
        std::string log, expected = in_doubt(known, flags) ? "probe " : "";
        set_fp_mode(RecordedMxcsr{0x1F80, mask, log}, known, flags);
        for (const std::uint32_t bit : {0x8000u, 0x40u, 0x20000u}) {
          const bool set = (gained_mode(known, flags, mask) & bit) != 0;
          expected += set ? std::to_string(bit) + ' ' : "";  // one at a time, in this order
        }
        EXPECT_EQ(log, expected) << known << ' ' << flags << ' ' << std::hex << mask;
      }
    }
  }
}

std::uint32_t mxcsr_mask() {
  alignas(16) std::uint32_t image[128] = {};
  _fxsave64(image);
  return image[7];
}

struct Step {
  const Check& check;
  std::uint32_t flags;
  int probes = 0;
};

// Makes the call; on the host instruction by instruction, to see how often MXCSR_MASK is asked for.
void call_watched(Step& step) {
  const auto call = [](void* context) {
    static_cast<const Step*>(context)->check.call(static_cast<const Step*>(context)->flags);
  };
#ifdef _WIN32
  call(&step);
#else
  // FXSAVE64 with a memory operand: a REX.W prefix, 0F AE, and 0 in the middle of the next byte.
  const auto observe = [](const std::uint8_t* next, void* context) {
    static_cast<Step*>(context)->probes += (next[0] & 0xF8) == 0x48 && next[1] == 0x0F &&
                                           next[2] == 0xAE && (next[3] & 0x38) == 0 &&
                                           (next[3] & 0xC0) != 0xC0;
  };
  single_step(call, observe, &step);
#endif
}

bool can_watch() {
#ifdef _WIN32
  return false;
#else
  static const bool can_step = can_single_step();
  return can_step;
#endif
}

// set_mode ENTRY FLAGS: faults where the mode is beyond this processor.
KSOMD_CHILD(set_mode) {
  pretend(~0uLL);
  entry<void(std::uint32_t)>(arguments[0])(static_cast<std::uint32_t>(std::stoul(arguments[1])));
  return 0;
}

TEST(Mode, OfEveryEntryOnThisProcessor) {
  const std::uint32_t supported = mxcsr_mask();
  for (const Check& check : all_checks()) {
    for (std::uint32_t flags = 0; flags < 8 && (check.sets_mode || check.message == 0); ++flags) {
      SCOPED_TRACE(testing::Message() << check.name << " flags " << flags);
      const std::uint32_t effective = !check.sets_mode ? 0 : check.takes_flags ? flags : 3;
      const std::uint32_t gained = gained_mode(check.known, effective, supported);
      if ((gained & ~supported) != 0) {
        const ChildResult child = run_child("set_mode", {check.name, std::to_string(flags)});
        EXPECT_EQ(child.ending, Ending::AccessViolation);
        continue;
      }
      const std::uint32_t before = flags % 2 == 0 ? 0x7FBF : 0x1F80;  // what is set stays
      Step step{check, flags};
      pretend(check.required | 1);
      _mm_setcsr(before);
      call_watched(step);
      const std::uint32_t after = _mm_getcsr();
      _mm_setcsr(mxcsr::all_masked);
      EXPECT_EQ(after, before | gained);
      EXPECT_EQ(step.probes, can_watch() && in_doubt(check.known, effective) ? 1 : 0);
    }
  }
  pretend(0);
}

// ---- reports ------------------------------------------------------------------------------------

// A call, and what it reports before it ends the process; "": it returns.
struct Case {
  std::string what;
  std::function<void()> call;
  std::string report;
};

std::string text_of(std::uint32_t message) {
  return __libkso_get_msg(message);
}

std::string report_of(const Check& check) {
  const std::string text = text_of(check.message);
  return check.message < 49 ? '\n' + text_of(23) + "\nThe allowed processors are: " + text + ".\n\n"
                            : '\n' + text_of(49) + '\n' + text + "\n\n";
}

// Every check with its set, and without each of its features.
void add_level_cases(std::vector<Case>& cases) {
  for (const Check& check : all_checks()) {
    for (int bit = -1; bit < 24; ++bit) {
      const std::uint64_t missing = bit < 0 ? 0 : check.required & 1uLL << bit;
      if (bit < 0 || missing != 0) {
        const bool ends = check.message != 0 && (missing != 0 || !check.sets_mode);
        const auto call = [check, word = missing == 0 ? check.required | 1 : ~missing] {
          pretend(word);
          check.call(0);
        };
        cases.push_back(
            {check.name + ' ' + std::to_string(bit), call, ends ? report_of(check) : ""});
      }
    }
  }
}

// The names of features of a word of the set, in the order of reports.
std::vector<std::string_view> names_of(std::int32_t index, std::uint64_t missing) {
  std::vector<std::string_view> names;
  for (const Feature& f : features) {
    if (f.bit >= 0 && f.bit / 64 == index && (missing >> f.bit % 64 & 1) != 0) {
      names.push_back(f.name);
    }
  }
  return names;
}

std::string joined(const std::vector<std::string_view>& names, std::size_t count,
                   const std::string& joiner) {
  std::string list;
  for (std::size_t i = 0; i < count; ++i) {
    list += i == 0 ? "" : i + 1 == count ? joiner : ", ";
    list += names[i];
  }
  return list;
}

using FeatureCheck = void(std::int32_t index_or_flags, std::uint64_t mask);
const auto check_features = entry<FeatureCheck>("__orvex_new_feature_proc_init_n");
const auto check_and_set_mode = entry<FeatureCheck>("__orvex_new_feature_proc_init");

Case feature_case(std::uint64_t word_0, std::uint64_t word_1, std::int32_t index,
                  std::uint64_t mask) {
  const bool good_index = index == 0 || index == 1, other_vendor = word_0 == 1;
  const std::uint64_t lacks = mask & ~(index == 0 ? word_0 | 1uLL << 52 : word_1);
  const auto names = names_of(index, lacks);
  std::string text = text_of(other_vendor ? 62 : 58);
  if (!other_vendor && good_index && !names.empty()) {
    text = "Please verify that both the operating system and the processor support Orvex(R) " +
           joined(names, names.size(), " and ") + " instructions.";
  }
  const bool passes = !other_vendor && good_index && lacks == 0;
  const auto call = [=] {
    pretend(word_0, word_1);
    index == 0 && word_1 % 2 != 0 ? check_and_set_mode(0, mask) : check_features(index, mask);
  };
  return {testing::PrintToString(std::tuple{word_0, word_1, index, mask}), call,
          passes ? "" : '\n' + text.substr(0, 511) + "\n\n"};
}

// The gated set is filled by the check itself, through the name table.
Case filling_case(const char* vendor, std::int32_t generic_bit, std::uint32_t message) {
  const auto call = [=] {
    static SyntheticProcessor p;
    p.set_vendor(vendor);
    p.at(1).edx = 1;
    install(&p);
    __orvex_isa_table_init();
    __orvex_isa_table[1].bit = generic_bit;
    check_features(0, 2);
  };
  return {vendor, call, message == 0 ? "" : '\n' + text_of(message) + "\n\n"};
}

std::vector<Case> all_cases() {
  std::vector<Case> cases;
  add_level_cases(cases);
  for (const std::uint64_t have : {1uLL, 3uLL, ~0uLL}) {
    for (const std::int32_t index : {-1, 0, 1, 2, 0x7FFFFFFF}) {
      for (const std::uint64_t mask : {0uLL, 1uLL << 31, 1uLL << 52, 3uLL << 51, ~0uLL}) {
        cases.push_back(feature_case(have, have, index, mask));
      }
    }
  }
  Random random(5);
  for (int round = 0; round < 200; ++round) {
    const std::uint64_t have = random.next() | 2,
                        few = random.next() & random.next() & random.next();
    cases.push_back(feature_case(have, random.next(), round & 1, few & (random.next() | few << 9)));
  }
  for (const std::int32_t generic_bit : {0, 1000}) {
    cases.push_back(filling_case("GenuineOrvex", generic_bit, generic_bit == 0 ? 0 : 59));
    cases.push_back(filling_case("OtherVendor!", generic_bit, generic_bit == 0 ? 62 : 59));
  }
  return cases;
}

KSOMD_CHILD(reports) {
  for (const Case& c : all_cases()) {
    std::printf("%s:", c.what.c_str());
    std::printf(exits(c.call) ? "ended\n" : "returned\n");
  }
  return 0;
}

TEST(Reports, AreExact) {
  std::string expected;
  for (const Case& c : all_cases()) {
    expected += c.what + ':' + c.report + (c.report.empty() ? "returned\n" : "ended\n");
  }
  expect_exit(run_child("reports"), 0, text_mode(expected));
}

const auto dispatch_fail = entry<void()>("__orvex_cpu_dispatch_fail");

// end [ENTRY]: really ends.
KSOMD_CHILD(end) {
  std::atexit([] { std::printf("exit handlers run\n"); });
  arguments.empty() ? dispatch_fail() : entry<void()>(arguments[0])();
  return 0;
}

TEST(Reports, EndTheProcessInOrder) {
  for (const Check& check : all_checks()) {
    if (check.name.ends_with("new_proc_init_B.A") || check.name.ends_with("new_proc_init_E.A")) {
      expect_exit(run_child("end", {check.name}), 1,
                  text_mode(report_of(check) + "exit handlers run\n"));
    }
  }
  const ChildResult child = run_child("end");
  EXPECT_EQ(child.ending, Ending::BreakpointTrap);
  EXPECT_EQ(child.output, "");
}

TEST(Reports, ListsAreCutAtWholeNames) {
  const auto names = names_of(0, ~0uLL);
  for (std::size_t length = 0; length < 1000; ++length) {
    // As many names as fit into 1023 characters, the joiner before the last.
    const std::string joiner(length, '+');
    std::size_t count = 2;
    while (count < names.size() && joined(names, count + 1, joiner).size() <= 1023) {
      ++count;
    }
    char text[feature_list_size];
    ASSERT_TRUE(list_features({~0uLL, 0}, joiner.c_str(), text));
    ASSERT_EQ(text, joined(names, count, joiner)) << "joiner of " << length;
  }
}

TEST(Reports, ARowWithoutANameEndsTheList) {
  __orvex_isa_table_init();
  const IsaRow saved = __orvex_isa_table[16];
  for (const char* name : {static_cast<const char*>(nullptr), ""}) {
    char text[feature_list_size];
    __orvex_isa_table[16].upper_name = name;
    EXPECT_FALSE(list_features({1uLL << 16 | 1uLL << 6, 0}, " and ", text));
  }
  __orvex_isa_table[16] = saved;
}

}  // namespace
}  // namespace ksomd::test
