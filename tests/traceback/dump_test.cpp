// Dumps: their text, and where they are cut.
#include <cinttypes>

#include "support/operand.h"
#include "support/sweep.h"
#include "traceback/entries.h"
#include "traceback/module_name.h"

namespace ksomd::test {
namespace {

using Frames = std::vector<STACKFRAME64>;

#define ADD(...) (std::snprintf(part, sizeof part, __VA_ARGS__), text += part)

// The text of a dump that shows these frames.
std::string text_of(const Frames& frames, bool brief) {
  char part[4096];
  std::string text = brief ? "Image              PC                Routine            "
                             "Line        Source             \n"
                           : "\n\nTraceback symbolic or hex stack dump follows:\n\n";
  for (const STACKFRAME64& frame : frames) {
    const std::uint64_t pc = frame.AddrPC.Offset;
    const auto& [a, b, c, d] = frame.Params;
    const std::string module = module_of(pc);
    ksomd_pc_info at;
    get_pc_info(&at, pc, 0, nullptr);
    if (brief) {
      ADD("%-17.17s  %016" PRIX64 "  %-17.17s  %10.10s  %s\n", module.c_str(), pc, at.routine,
          at.line, file_name_of(at.file));
      continue;
    }
    ADD("--------- Frame # %zu ---------------------------------------\n\nImage:         %s\n"
        "PC:            %016" PRIX64
        "\nRoutine name:  %s\nSource file:   %s\n"
        "Line number:   %s\n\nInfo from StackFrame is:\n\n",
        static_cast<std::size_t>(&frame - frames.data()), module.c_str(), pc, at.routine, at.file,
        at.line);
    const ADDRESS64* address = &frame.AddrPC;
    for (const std::string name : {"PC", "Return", "Frame", "Stack"}) {
      constexpr const char* modes[] = {"1616", "1632", "Real", "Flat"};
      const auto mode = static_cast<std::size_t>(address->Mode);
      ADD("%-17s%016" PRIX64 "  %-18s%04X  %-15s%s\n", (name + ".Offset:").c_str(),
          std::uint64_t{address->Offset}, (name + ".Segment:").c_str(), unsigned{address->Segment},
          (name + ".Mode:").c_str(),
          mode < 4 ? (std::string("AddrMode") + modes[mode]).c_str() : "Unknown");
      ++address;
    }
    ADD("\nParams[0]:       %016" PRIX64 "  Params[1]:   %016" PRIX64
        "\nParams[2]:       %016" PRIX64 "  Params[3]:   %016" PRIX64 "\n\n",
        std::uint64_t{a}, std::uint64_t{b}, std::uint64_t{c}, std::uint64_t{d});
  }
  return text;
}

// What a dump of this text, with this error behind it, leaves in a buffer of that size, and the
// result.
using Outcome = std::pair<std::string, std::uint64_t>;
Outcome outcome_of(const std::string& text, const std::string& error, std::uint64_t size,
                   const std::string& before) {
  const std::string notice = "\nStack trace buffer overflow; further frames not shown.\n";
  if (size <= 57) {
    return {(before + notice).substr(0, size > 0 ? size - 1 : 0), 57};
  }
  if (!text.empty() && text.size() + 58 >= size) {
    const std::string kept = size > 58 ? text.substr(0, size - 59) : before;
    return {(kept + notice).substr(0, size - 1), size - 1};
  }
  const std::uint64_t used = text.size() + (error.empty() ? 0 : error.size() + 1);
  return {((text.empty() ? before : text) + error).substr(0, size - 1), std::min(size, used)};
}

// Dumps into a buffer before a page that faults.
template <class Dump>
void check(Dump dump, const std::string& text, const std::string& error, std::uint64_t size,
           std::string before) {
  static Operand memory(65536);
  char* const buffer = memory.place_values<char>(size, Place::AtEnd);
  before = before.substr(0, size > 0 ? size - 1 : 0);
  std::copy_n(before.c_str(), std::min(size, before.size() + 1), buffer);
  const std::uint64_t result = dump(buffer, size);
  ASSERT_EQ(Outcome(std::string(buffer, strnlen(buffer, size)), result),
            outcome_of(text, error, size, before))
      << "size " << size;
  ASSERT_TRUE(memory.intact()) << "size " << size;
}

TEST(Dump, ShowsThisStack) {
  CONTEXT context;
  RtlCaptureContext(&context);
  Recorder recorder;
  ASSERT_EQ(recorder.walk(&context), 0u);
  for (const bool brief : {false, true}) {
    const std::string text = text_of(recorder.frames, brief);
    const auto dump = [&](char* buffer, std::uint64_t size) {
      return string_stack_signal(&context, buffer, size, brief, 1);
    };
    check(dump, text, "", text.size() + (brief ? 0 : 59), "");
  }
}

#ifndef _WIN32

// Frames of the test's own, in place of the walker's; behind the last one the walk fails.
Frames script;
std::size_t played;

TEST(Dump, ShowsWhatFits) {
  const Image image;
  const CONTEXT wild = {};
  Random random(seed_of(1));
  for (int round = 0; round < 400 && !testing::Test::HasFatalFailure(); ++round) {
    // Frames that differ in everything that is shown, in code with and without a trace section.
    script.assign(random.below(10), {});
    for (STACKFRAME64& frame : script) {
      for (ADDRESS64* each = &frame.AddrPC; each <= &frame.AddrStack; ++each) {
        *each = {random.next(), static_cast<WORD>(random.next()), ADDRESS_MODE(random.below(5))};
      }
      std::ranges::generate(frame.Params, [&] { return random.next(); });
      frame.AddrPC.Offset = random.one_of({image.code(), image.code() + 17, address_of(&script)});
    }
    const bool brief = random.one_in(2), starts = !random.one_in(8), wilds = random.one_in(2),
               ends = !script.empty() && random.one_in(2), no_code = random.one_in(4);
    const auto direct = static_cast<std::uint32_t>(random.below(2));
    const std::uint32_t skip = random.one_of({0u, 1u, 3u, 6u, 1000u});
    const std::size_t count = script.size(), left_out = std::min<std::size_t>(wilds         ? 0
                                                                              : direct != 0 ? skip
                                                                                            : 5,
                                                                              count);
    host::stack_faults.sym_initialize = starts ? 0 : 1u << 31;
    host::stack_faults.stack_walk = [](STACKFRAME64* frame) {
      SetLastError(998);
      *frame = played < script.size() ? script[played] : *frame;
      return played++ < script.size() ? 1 : 0;
    };
    if (ends) {
      script.back().AddrReturn.Offset = 0;
    }
    Recorder recorder;
    played = 0;
    trace_stack_impl(wilds ? &wild : nullptr, &recorder, Recorder::record, direct, skip);
    const std::string skips = std::string(left_out, '1') + std::string(count - left_out, '0');
    EXPECT_EQ(recorder.skips, starts ? skips : "");
    Frames shown(script.begin() + static_cast<std::ptrdiff_t>(left_out), script.end());
    const bool cut = no_code && !shown.empty();
    if (cut) {  // a frame without code ends the dump
      shown.resize(random.below(shown.size()));
      script[left_out + shown.size()].AddrPC.Offset = 0;
    }
    const std::string text = left_out < count && starts ? text_of(shown, brief) : "",
                      error = !starts       ? "Initialization of symbol handler failed. Error code "
                                              "-2147483648\n"
                              : ends || cut ? ""
                                            : "StackWalk is terminated abnormally. Error code 998";
    const auto dump = [&](char* buffer, std::uint64_t size) {
      const CONTEXT* const context = wilds ? &wild : nullptr;
      played = 0;
      return skip == 3 ? string_stack_signal(context, buffer, size, brief, direct)
                       : string_stack_signal_impl(context, buffer, size, brief, direct, skip);
    };
    EXPECT_EQ(dump(nullptr, 0), text.size() + 59 + (error.empty() ? 0 : error.size() + 1));
    for (const std::uint64_t any : {random.below(59), random.below(text.size() + 200)}) {
      for (const std::uint64_t size : {any, any % 200 + text.size(), any % 4 + text.size() + 56}) {
        check(dump, text, error, size, std::string(random.one_of({0u, 4u, 200u}), 'x'));
      }
    }
  }
  host::stack_faults = {};
}

#endif

}  // namespace
}  // namespace ksomd::test
