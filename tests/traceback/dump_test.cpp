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
#define HEX "%016" PRIX64

// The text of a dump that shows these frames, up to one without code.
std::string text_of(const Frames& frames, bool brief) {
  constexpr const char* modes[] = {"AddrMode1616", "AddrMode1632", "AddrModeReal", "AddrModeFlat",
                                   "Unknown"};
  char part[4096];
  std::string text = brief ? "Image              PC                Routine            "
                             "Line        Source             \n"
                           : "\n\nTraceback symbolic or hex stack dump follows:\n\n";
  for (std::size_t i = 0; i < frames.size() && frames[i].AddrPC.Offset != 0; ++i) {
    const std::uint64_t pc = frames[i].AddrPC.Offset;
    const std::string module = module_of(pc);
    ksomd_pc_info at;
    get_pc_info(&at, pc, 0, nullptr);
    if (brief) {
      ADD("%-17.17s  " HEX "  %-17.17s  %10.10s  %s\n", module.c_str(), pc, at.routine, at.line,
          file_name_of(at.file));
      continue;
    }
    ADD("--------- Frame # %zu ---------------------------------------\n\nImage:         %s\n"
        "PC:            " HEX
        "\nRoutine name:  %s\nSource file:   %s\nLine number:   %s\n\n"
        "Info from StackFrame is:\n\n",
        i, module.c_str(), pc, at.routine, at.file, at.line);
    const ADDRESS64* address = &frames[i].AddrPC;
    for (const std::string name : {"PC.", "Return.", "Frame.", "Stack."}) {
      ADD("%-17s" HEX "  %-18s%04X  %-15s%s\n", (name + "Offset:").c_str(), address->Offset,
          (name + "Segment:").c_str(), unsigned{address->Segment}, (name + "Mode:").c_str(),
          modes[static_cast<int>(address->Mode)]);
      ++address;
    }
    const auto& parameters = frames[i].Params;
    ADD("\nParams[0]:       " HEX "  Params[1]:   " HEX "\nParams[2]:       " HEX
        "  Params[3]:   " HEX "\n\n",
        parameters[0], parameters[1], parameters[2], parameters[3]);
  }
  return text;
}

TEST(Dump, ShowsThisStack) {
  CONTEXT context;
  RtlCaptureContext(&context);
  Recorder recorder;
  ASSERT_EQ(recorder.walk(&context), 0u);
  for (const bool brief : {false, true}) {
    const std::string text = text_of(recorder.frames, brief);
    std::string buffer(text.size() + 59, '\0');
    EXPECT_EQ(string_stack_signal(&context, buffer.data(), buffer.size(), brief, 1), text.size());
    EXPECT_STREQ(buffer.c_str(), text.c_str());
  }
}

#ifndef _WIN32

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

// Frames of the test's own, in place of the walker's; behind the last one the walk fails.
Frames script;
std::size_t played;

TEST(Dump, ShowsWhatFits) {
  const Image image;
  const CONTEXT wild = {};
  Operand memory(65536);
  Random random(seed_of(1));
  for (int round = 0; round < 400 && !testing::Test::HasFailure(); ++round) {
    // Frames that differ in everything that is shown, in code with and without a trace section.
    script.assign(1 + random.below(9), {});
    for (STACKFRAME64& frame : script) {
      for (ADDRESS64* each = &frame.AddrPC; each <= &frame.AddrStack; ++each) {
        *each = {random.next(), static_cast<WORD>(random.next()), ADDRESS_MODE(random.below(5))};
      }
      std::ranges::generate(frame.Params, [&] { return random.next(); });
      frame.AddrPC.Offset = random.one_of({image.code(), image.code() + 17, address_of(&script)});
    }
    STACKFRAME64& last = script.back();
    last.AddrReturn.Offset *= random.below(2);
    last.AddrPC.Offset *= random.below(2);
    const bool brief = random.one_in(2), starts = !random.one_in(8);
    const CONTEXT* const context = random.one_in(2) ? &wild : nullptr;
    const auto direct = static_cast<std::uint32_t>(random.below(2));
    const std::uint32_t skip = random.one_of({0u, 1u, 3u, 6u, 1000u});
    const std::size_t skipped = context != nullptr ? 0 : direct != 0 ? skip : 5;
    const Frames shown(script.begin() + std::min(std::ssize(script), std::ptrdiff_t(skipped)),
                       script.end());
    stack_faults.sym_initialize = starts ? 0 : 1u << 31;
    stack_faults.stack_walk = [](STACKFRAME64* frame) {
      SetLastError(998);
      *frame = played < script.size() ? script[played] : *frame;
      return played++ < script.size() ? 1 : 0;
    };
    const std::string text = shown.empty() || !starts ? "" : text_of(shown, brief);
    std::string error;
    if (!starts) {
      error = "Initialization of symbol handler failed. Error code -2147483648\n";
    } else if (last.AddrReturn.Offset != 0 && (last.AddrPC.Offset != 0 || shown.empty())) {
      error = "StackWalk is terminated abnormally. Error code 998";
    }
    const auto dump = [&](char* buffer, std::uint64_t size) {
      played = 0;
      return skip == 3 ? string_stack_signal(context, buffer, size, brief, direct)
                       : string_stack_signal_impl(context, buffer, size, brief, direct, skip);
    };
    EXPECT_EQ(dump(nullptr, 0), text.size() + 59 + (error.empty() ? 0 : error.size() + 1));
    for (int i = 0; i < 6; ++i) {
      const std::uint64_t most = random.one_of({std::size_t{59}, text.size() + 200}),
                          near = text.size() + 55 + random.below(5),
                          size = i % 2 == 0 ? random.below(most) : near;
      const std::string before(std::min(random.one_of({0ul, 4ul, 200ul}), std::max(size, 1ul) - 1),
                               'x');
      char* const buffer = memory.place_values<char>(size, Place::AtEnd);
      std::copy_n(before.c_str(), std::min(size, before.size() + 1), buffer);
      const std::uint64_t result = dump(buffer, size);
      EXPECT_EQ(Outcome(std::string(buffer, strnlen(buffer, size)), result),
                outcome_of(text, error, size, before))
          << size;
      EXPECT_TRUE(memory.intact()) << size;
    }
  }
  stack_faults = {};
}

#endif

}  // namespace
}  // namespace ksomd::test
