// Dumps: their text, and where they are cut.
#include <gtest/gtest.h>

#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <numeric>

#include "support/operand.h"
#include "traceback/entries.h"
#include "traceback/module_name.h"
#ifndef _WIN32
#include "support/sweep.h"
#include "traceback/image_host.h"
#endif

namespace ksomd::test {
namespace {

const std::string notice = "\nStack trace buffer overflow; further frames not shown.\n";
const std::string headings[] = {
    "\n\nTraceback symbolic or hex stack dump follows:\n\n",
    "Image              PC                Routine            Line        Source             \n"};

[[gnu::format(printf, 1, 2)]] std::string printed(const char* format, ...) {
  char text[4096];
  std::va_list values;
  va_start(values, format);
  std::vsnprintf(text, sizeof text, format, values);
  va_end(values);
  return text;
}

std::string address_line(const std::string& name, const ADDRESS64& address) {
  const char* const modes[] = {"AddrMode1616", "AddrMode1632", "AddrModeReal", "AddrModeFlat",
                               "Unknown"};
  return printed("%-17s%016" PRIX64 "  %-18s%04X  %-15s%s\n", (name + ".Offset:").c_str(),
                 std::uint64_t{address.Offset}, (name + ".Segment:").c_str(),
                 unsigned{address.Segment}, (name + ".Mode:").c_str(),
                 modes[std::min<std::size_t>(static_cast<std::size_t>(address.Mode), 4)]);
}

std::string entry_of(const STACKFRAME64& frame, bool brief, std::size_t frame_number) {
  const std::uint64_t pc = frame.AddrPC.Offset;
  const std::string module = module_of(pc);
  ksomd_pc_info info;
  get_pc_info(&info, pc, 0, module.c_str());
  if (brief) {
    return printed("%-17.17s  %016" PRIX64 "  %-17.17s  %10.10s  %s\n", module.c_str(), pc,
                   info.routine, info.line, file_name_of(info.file));
  }
  const std::uint64_t(parameters)[] = {frame.Params[0], frame.Params[1], frame.Params[2],
                                       frame.Params[3]};
  return printed(
             "--------- Frame # %zu ---------------------------------------\n\n"
             "Image:         %s\nPC:            %016" PRIX64
             "\nRoutine name:  %s\n"
             "Source file:   %s\nLine number:   %s\n\nInfo from StackFrame is:\n\n",
             frame_number, module.c_str(), pc, info.routine, info.file, info.line) +
         address_line("PC", frame.AddrPC) + address_line("Return", frame.AddrReturn) +
         address_line("Frame", frame.AddrFrame) + address_line("Stack", frame.AddrStack) +
         printed("\nParams[0]:       %016" PRIX64 "  Params[1]:   %016" PRIX64
                 "\nParams[2]:       %016" PRIX64 "  Params[3]:   %016" PRIX64 "\n\n",
                 parameters[0], parameters[1], parameters[2], parameters[3]);
}

// What a dump consists of: the heading and the entries of these frames.
using Pieces = std::vector<std::string>;
Pieces pieces_of(const std::vector<STACKFRAME64>& frames, bool brief) {
  Pieces pieces;
  for (const STACKFRAME64& frame : frames) {
    pieces.push_back(entry_of(frame, brief, pieces.size()));
  }
  pieces.insert(pieces.begin(), frames.empty() ? 0 : 1, headings[brief]);
  return pieces;
}

std::string joined(const Pieces& pieces) {
  return std::accumulate(pieces.begin(), pieces.end(), std::string());
}

// The text and the result for a buffer of that size, which held `before`.
std::pair<std::string, std::uint64_t> expected(const Pieces& pieces, std::uint64_t size,
                                               const std::string& before,
                                               const std::string& error) {
  if (size <= 57) {
    return {(before + notice).substr(0, size > 0 ? size - 1 : 0), 57};
  }
  const std::uint64_t capacity = size - 58;
  std::string text;
  for (const std::string& piece : pieces) {
    text += piece;
    if (capacity <= text.size()) {
      text = capacity > 0 ? text.substr(0, capacity - 1) : before;
      return {(text + notice).substr(0, size - 1), std::min(size, capacity + 57)};
    }
  }
  const std::uint64_t used = text.size() + (error.empty() ? 0 : error.size() + 1);
  return {((pieces.empty() ? before : text) + error).substr(0, size - 1), std::min(size, used)};
}

// Dumps into a buffer before a page that faults.
void check(const CONTEXT& context, const Pieces& pieces, bool brief, std::uint64_t size,
           std::string before = "", const std::string& error = "") {
  static Operand memory(65536);
  char* const buffer = memory.place_values<char>(size, Place::AtEnd);
  before = before.substr(0, size > 0 ? size - 1 : 0);
  std::copy_n(before.c_str(), std::min(size, before.size() + 1), buffer);
  const std::uint64_t result = string_stack_signal(&context, buffer, size, brief ? 9 : 0, 1);
  ASSERT_EQ(std::pair(std::string(buffer, strnlen(buffer, size)), result),
            expected(pieces, size, before, error))
      << "size " << size;
  ASSERT_TRUE(memory.intact()) << "size " << size;
}

TEST(Dump, ShowsThisStack) {
  CONTEXT context;
  RtlCaptureContext(&context);
  Recorder recorder;
  ASSERT_EQ(recorder.walk(&context), 0u);
  for (const bool brief : {false, true}) {
    const Pieces pieces = pieces_of(recorder.frames, brief);
    const std::uint64_t needed = joined(pieces).size() + 59;
    EXPECT_EQ(string_stack_signal(&context, nullptr, 0, brief, 1), needed);
    check(context, pieces, brief, needed);
    check(context, pieces, brief, brief ? 150 : needed - 1);
  }
}

#ifndef _WIN32

// Frames of the test's own, in place of the walker's; without an end the walk fails behind them.
std::vector<STACKFRAME64> script;
std::size_t played;

class ScriptedDump : public testing::Test {
 protected:
  ScriptedDump() {
    host::stack_faults.stack_walk = [](STACKFRAME64* frame) {
      if (played == script.size()) {
        return SetLastError(998), 0;
      }
      *frame = script[played++];
      return 1;
    };
  }
  ~ScriptedDump() override { host::stack_faults = {}; }

  // Frames that differ in everything that is shown, in code with and without a trace section.
  void set_script(std::size_t count, bool ends) {
    Random random(1);
    script.assign(count, {});
    std::uint32_t mode = 0;
    for (STACKFRAME64& frame : script) {
      for (ADDRESS64* const each :
           {&frame.AddrPC, &frame.AddrReturn, &frame.AddrFrame, &frame.AddrStack}) {
        *each = {random.next(), static_cast<WORD>(random.next()), ADDRESS_MODE{mode++ % 5}};
      }
      std::ranges::generate(frame.Params, [&] { return random.next(); });
      frame.AddrPC.Offset = random.one_of({image_.code(), image_.code() + 17, address_of(&script)});
      frame.AddrReturn.Offset *= !ends || &frame != &script.back() ? 1 : 0;
    }
    played = 0;
  }

  const Image image_;
  const CONTEXT context_ = {};
};

TEST_F(ScriptedDump, FillsBuffersOfEverySize) {
  for (const std::size_t count : {0u, 1u, 3u}) {
    host::stack_faults.sym_initialize = count == 0 ? 1u << 31 : 0;
    const std::string error =
        count == 0 ? "Initialization of symbol handler failed. Error code -2147483648\n"
                   : "StackWalk is terminated abnormally. Error code 998";
    for (const auto& [brief, ends] :
         {std::pair{true, false}, {false, false}, {true, true}, {false, true}}) {
      set_script(count, ends && count > 0);
      const Pieces pieces = pieces_of(script, brief);
      const std::string tail = ends && count > 0 ? "" : error;
      const std::uint64_t needed = joined(pieces).size() + 59;
      EXPECT_EQ(string_stack_signal(&context_, nullptr, 0, brief, 1),
                needed + (tail.empty() ? 0 : tail.size() + 1));
      for (std::uint64_t size = 0; size < needed + 130 && !HasFatalFailure(); ++size) {
        const std::string before[] = {"", "held", std::string(200, 'x')};
        played = 0;
        check(context_, pieces, brief, size, before[size % 3], tail);
      }
    }
  }
}

TEST_F(ScriptedDump, ShowsManyFramesUpToOneWithoutCode) {
  for (const bool brief : {false, true}) {
    set_script(12, false);
    const Pieces pieces = pieces_of(script, brief);
    script.push_back({});
    script.back().AddrReturn.Offset = 1;
    check(context_, pieces, brief, 40000);
    script.erase(script.begin(), script.end() - 1);
    played = 0;
    check(context_, {pieces[0]}, brief, 1000);
  }
}

TEST_F(ScriptedDump, LeavesOutLeadingFrames) {
  const struct {
    std::uint32_t direct, skip;
    std::size_t left_out;
  } rows[] = {{1, 0, 0}, {7, 6, 6}, {0, 0, 5}, {0, 8, 5}, {1, 8, 8}, {1, 1000, 8}, {1, 3, 3}};
  for (const auto& row : rows) {
    set_script(8, true);
    char text[10000] = "";
    const auto first = script.begin() + static_cast<std::ptrdiff_t>(row.left_out);
    const std::string wanted = joined(pieces_of({first, script.end()}, true));
    const std::uint64_t length =
        string_stack_signal_impl(nullptr, text, sizeof text, 1, row.direct, row.skip);
    EXPECT_TRUE(text == wanted && length == wanted.size()) << row.skip << text;
    if (row.skip == 3 || row.direct == 0) {
      played = 0;
      string_stack_signal(nullptr, text, sizeof text, 1, row.direct);
      EXPECT_EQ(text, wanted);
    }
    Recorder recorder;
    played = 0;
    trace_stack_impl(nullptr, &recorder, Recorder::record, row.direct, row.skip);
    EXPECT_EQ(recorder.skips, std::string(row.left_out, '1') + std::string(8 - row.left_out, '0'));
  }
}

#endif

}  // namespace
}  // namespace ksomd::test
