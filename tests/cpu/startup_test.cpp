// Start-up checks: what each exported entry requires, sets and reports.
#include "cpu/startup.h"

#include <gtest/gtest.h>
#include <immintrin.h>

#include <cstring>

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
      {"", 0x2E, 0, 0, "H0"},       {"_B", 0x6E, 2, 44, "J0K2L2"}, {"_N", 0x6E, 2, 45, "J0K2L2"},
      {"_P", 0xEE, 2, 43, "L2"},    {"_T", 0x1EE, 2, 42, "M2"},    {"_L", 0x9EE, 2, 48, "O2"},
      {"_S", 0x3EE, 2, 46, "N2"},   {"_H", 0x17EE, 6, 47, "P6"},   {"_G", 0x117EE, 6, 50, "R6"},
      {"_I", 0x197EE, 6, 51, "S6"}, {"_E", 0x9D9FEE, 6, 52, "V6"}};
  std::vector<Check> checks{{"__orvex_new_feature_proc_init", true, 0x20, 0, true, 0}};
  for (const auto& level : levels) {
    for (const bool with_flags : {false, true}) {
      if (!with_flags && std::strchr("_B_N_P_T", level.letter.back()) == nullptr) {
        continue;  // these levels came later
      }
      const std::string name =
          (with_flags ? "__orvex_new_proc_init" : "__orvex_proc_init") + level.letter;
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

TEST(Mode, EveryGuaranteeFlagAndMask) {
  struct Recorder {
    std::uint32_t value, mask;
    std::vector<std::uint32_t>& writes;
    int& probes;
    std::uint32_t read() const { return value; }
    void write(std::uint32_t next) {
      writes.push_back(next ^ value);
      value = next;
    }
    std::uint32_t supported() const {
      ++probes;
      return mask;
    }
  };
  for (const Guarantees known : {0u, 2u, 4u, 6u}) {
    for (std::uint32_t flags = 0; flags < 16; ++flags) {
      for (const std::uint32_t mask : {0u, 0x40u, 0x20000u, 0x20040u, ~0x40u, ~0x20000u, ~0u}) {
        std::vector<std::uint32_t> writes, expected;
        int probes = 0;
        set_fp_mode(Recorder{0x1F80, mask, writes, probes}, known, flags);
        for (const std::uint32_t bit : {0x8000u, 0x40u, 0x20000u}) {
          if ((gained_mode(known, flags, mask) & bit) != 0) {
            expected.push_back(bit);  // one at a time, in this order
          }
        }
        EXPECT_EQ(writes, expected) << known << ' ' << flags << ' ' << std::hex << mask;
        EXPECT_EQ(probes, in_doubt(known, flags) ? 1 : 0);
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
  const Check* check;
  std::uint32_t flags;
  int probes;
};

void call_step(void* step) {
  static_cast<const Step*>(step)->check->call(static_cast<const Step*>(step)->flags);
}

#ifndef _WIN32
// FXSAVE64 with a memory operand: a REX.W prefix, 0F AE, and 0 in the middle of the next byte.
void count_probe(const std::uint8_t* next, void* step) {
  static_cast<Step*>(step)->probes += (next[0] & 0xF8) == 0x48 && next[1] == 0x0F &&
                                      next[2] == 0xAE && (next[3] & 0x38) == 0 &&
                                      (next[3] & 0xC0) != 0xC0;
}
#endif

// set_mode ENTRY FLAGS: faults where the mode is beyond this processor.
KSOMD_CHILD(set_mode) {
  pretend(~0uLL);
  entry<void(std::uint32_t)>(arguments[0])(static_cast<std::uint32_t>(std::stoul(arguments[1])));
  return 0;
}

// On the host instruction by instruction: MXCSR_MASK is asked for exactly where there is a doubt.
TEST(Mode, OfEveryEntryOnThisProcessor) {
  const std::uint32_t supported = mxcsr_mask();
  for (const Check& check : all_checks()) {
    for (std::uint32_t flags = 0; flags < 8 && (check.sets_mode || check.message == 0); ++flags) {
      const std::uint32_t effective = check.takes_flags ? flags : 3;
      const bool sets = check.sets_mode;
      const std::uint32_t gained = sets ? gained_mode(check.known, effective, supported) : 0;
      SCOPED_TRACE(testing::Message() << check.name << " flags " << flags);
      if ((gained & ~supported) != 0) {
        if (flags == 4) {
          EXPECT_EQ(run_child("set_mode", {check.name, "4"}).ending, Ending::AccessViolation);
        }
        continue;
      }
      for (const std::uint32_t before : {0x1F80u, 0x7FBFu, 0x9FC0u}) {
        Step step{&check, flags, 0};
        pretend(check.required | 1);
        _mm_setcsr(before);
#ifdef _WIN32
        call_step(&step);
#else
        single_step(call_step, count_probe, &step);
        const std::uint32_t stepped = _mm_getcsr();
        _mm_setcsr(mxcsr::all_masked);
        static const bool can_step = can_single_step();
        EXPECT_EQ(step.probes, can_step && sets && in_doubt(check.known, effective) ? 1 : 0);
        _mm_setcsr(stepped);
#endif
        const std::uint32_t after = _mm_getcsr();
        _mm_setcsr(mxcsr::all_masked);
        EXPECT_EQ(after, before | gained);
      }
    }
  }
  pretend(0);
}

// ---- reports ------------------------------------------------------------------------------------

std::string text_of(std::uint32_t message) {
  return __libkso_get_msg(message);
}

std::string report_of(const Check& check) {
  const std::string start = text_of(check.message < 49 ? 23 : 49) + '\n';
  const std::string description = text_of(check.message);
  return '\n' + start +
         (check.message < 49 ? "The allowed processors are: " + description + '.' : description) +
         "\n\n";
}

// Calls show(what, call, report) for every check with its set, and without each of its features.
template <class Show>
void for_each_report(Show show) {
  for (const Check& check : all_checks()) {
    for (int bit = -1; bit < 24; ++bit) {
      const std::uint64_t missing = bit >= 0 ? check.required & 1uLL << bit : 0;
      if (missing == 0 && bit >= 0) {
        continue;
      }
      const std::uint64_t word = missing == 0 ? check.required | 1 : ~missing;
      const bool ends = check.message != 0 && (missing != 0 || !check.sets_mode);
      show(
          check.name + ' ' + std::to_string(bit),
          [&] {
            pretend(word);
            check.call(0);
          },
          ends ? report_of(check) : "");
    }
  }
}

struct FeatureCheck {
  std::uint64_t have[2], mask;
  std::int32_t index;
};

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

std::string report_of(const FeatureCheck& c) {
  const std::uint64_t never_required = c.index == 0 ? 1uLL << 52 : 0;
  const bool bad_index = c.index != 0 && c.index != 1;
  const std::uint64_t missing = bad_index ? 1 : c.mask & ~c.have[c.index] & ~never_required;
  const auto names = names_of(c.index, missing);
  const std::string list =
      "Please verify that both the operating system and the processor support "
      "Orvex(R) " +
      joined(names, names.size(), " and ") + " instructions.";
  const std::string text = c.have[0] == 1 ? text_of(62) : names.empty() ? text_of(58) : list;
  return missing == 0 && c.have[0] != 1 ? "" : '\n' + text.substr(0, 511) + "\n\n";
}

using FeatureEntry = void(std::int32_t index, std::uint64_t mask);
constexpr const char* feature_entry = "__orvex_new_feature_proc_init_n";

template <class Show>
void for_each_feature_report(Show show) {
  Random random(5);
  const auto show_check = [&](const FeatureCheck& c) {
    show(
        testing::PrintToString(c.mask) + " of " + testing::PrintToString(c.have[0]),
        [&] {
          pretend(c.have[0], c.have[1]);
          entry<FeatureEntry>(feature_entry)(c.index, c.mask);
        },
        report_of(c));
  };
  for (const std::uint64_t have : {1uLL, 3uLL, ~0uLL}) {
    for (const std::int32_t index : {-1, 0, 1, 2, 0x7FFFFFFF}) {
      for (const std::uint64_t mask : {0uLL, 1uLL << 31, 1uLL << 52, 3uLL << 51, ~0uLL}) {
        show_check({{have, have}, mask, index});
      }
    }
  }
  for (int round = 0; round < 200; ++round) {
    const std::uint64_t few = random.next() & random.next() & random.next() & random.next();
    show_check({{random.next() | 2, random.next()},
                round % 2 == 0 ? few : random.next(),
                static_cast<std::int32_t>(round / 2 % 2)});
  }
  // The gated set is filled by the check itself.
  for (const char* vendor : {"GenuineOrvex", "OtherVendor!"}) {
    for (const std::int32_t generic_bit : {0, 1000}) {
      const std::uint32_t message = generic_bit != 0 ? 59 : *vendor == 'O' ? 62 : 0;
      show(
          vendor + std::to_string(generic_bit),
          [&] {
            static SyntheticProcessor p;
            p.set_vendor(vendor);
            p.at(1).edx = 1;
            install(&p);
            __orvex_isa_table_init();
            __orvex_isa_table[1].bit = generic_bit;
            entry<FeatureEntry>(feature_entry)(0, 2);
          },
          message == 0 ? "" : '\n' + text_of(message) + "\n\n");
    }
  }
}

KSOMD_CHILD(reports) {
  const auto show = [](const std::string& what, const auto& call, const std::string&) {
    std::printf("%s:", what.c_str());
    std::printf(exits(call) ? "ended\n" : "returned\n");
  };
  arguments[0] == "levels" ? for_each_report(show) : for_each_feature_report(show);
  return 0;
}

TEST(Reports, AreExact) {
  for (const char* kind : {"levels", "features"}) {
    std::string expected;
    const auto show = [&](const std::string& what, const auto&, const std::string& report) {
      expected += what + ':' + report + (report.empty() ? "returned\n" : "ended\n");
    };
    *kind == 'l' ? for_each_report(show) : for_each_feature_report(show);
    expect_exit(run_child("reports", {kind}), 0, text_mode(expected));
  }
}

// end ENTRY: really ends.
KSOMD_CHILD(end) {
  std::atexit([] { std::printf("exit handlers run\n"); });
  entry<void()>(arguments[0])();
  return 0;
}

TEST(Reports, EndTheProcessInOrder) {
  for (const Check& check : all_checks()) {
    if (check.name.ends_with("new_proc_init_B.A") || check.name.ends_with("new_proc_init_E.A")) {
      expect_exit(run_child("end", {check.name}), 1,
                  text_mode(report_of(check) + "exit handlers run\n"));
    }
  }
  const ChildResult child = run_child("end", {"__orvex_cpu_dispatch_fail"});
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
