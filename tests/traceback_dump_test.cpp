// Dumps: their text, and where they are cut.
#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdarg>
#include <cstring>
#include <string>
#include <vector>

#include "ksomd/traceback.h"
#include "traceback/module_name.h"
#include "traceback_platform.h"
#include "traceback_sample.h"

namespace ksomd::test {
namespace {

const std::string notice = "\nStack trace buffer overflow; further frames not shown.\n";
constexpr std::uint64_t notice_size = 57;
const std::string detailed_heading = "\n\nTraceback symbolic or hex stack dump follows:\n\n";
const std::string table_heading =
    "Image              PC                Routine            Line        Source             \n";

[[gnu::format(printf, 1, 2)]] std::string printed(const char* format, ...) {
  char text[4096];
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  return text;
}

struct Described {
  char module[512];
  ksomd_pc_info info;
};

Described describe(std::uint64_t pc) {
  Described frame;
  std::uint64_t bias = 0;
  tbk_getModuleName(pc, frame.module, sizeof frame.module, &bias);
  tbk_get_pc_info_pie(&frame.info, pc, &bias, frame.module);
  return frame;
}

std::string table_entry(const STACKFRAME64& record) {
  const Described frame = describe(record.AddrPC.Offset);
  return printed("%-17.17s  %16.16" PRIX64 "  %-17.17s  %10.10s  %s\n", frame.module,
                 std::uint64_t{record.AddrPC.Offset}, frame.info.routine, frame.info.line,
                 file_name_of(frame.info.file));
}

// The one format of a detailed entry.
std::string detailed_entry(const STACKFRAME64& record, unsigned number) {
  const Described frame = describe(record.AddrPC.Offset);
  const char* modes[] = {"AddrMode1616", "AddrMode1632", "AddrModeReal", "AddrModeFlat"};
  const auto offset = [](const ADDRESS64& address) { return std::uint64_t{address.Offset}; };
  const auto segment = [](const ADDRESS64& address) { return unsigned{address.Segment}; };
  const auto mode = [&](const ADDRESS64& address) {
    return modes[static_cast<unsigned>(address.Mode)];
  };
  const auto parameter = [&](int n) { return std::uint64_t{record.Params[n]}; };
  return printed(
      "--------- Frame # %s ---------------------------------------\n\nImage:         %s\nPC:     "
      "       %16.16" PRIX64
      "\nRoutine name:  %s\nSource file:   %s\nLine number:   %s\n\n%s%s%16.16" PRIX64
      "%s%4.4X%s%s\n%s%16.16" PRIX64 "%s%4.4X%s%s\n%s%16.16" PRIX64 "%s%4.4X%s%s\n%s%16.16" PRIX64
      "%s%4.4X%s%s\n\n%s%16.16" PRIX64 "%s%16.16" PRIX64 "\n%s%16.16" PRIX64 "%s%16.16" PRIX64
      "\n\n",
      std::to_string(number).c_str(), frame.module, offset(record.AddrPC), frame.info.routine,
      frame.info.file, frame.info.line, "Info from StackFrame is:\n\n",
      "PC.Offset:       ", offset(record.AddrPC), "  PC.Segment:       ", segment(record.AddrPC),
      "  PC.Mode:       ", mode(record.AddrPC), "Return.Offset:   ", offset(record.AddrReturn),
      "  Return.Segment:   ", segment(record.AddrReturn),
      "  Return.Mode:   ", mode(record.AddrReturn), "Frame.Offset:    ", offset(record.AddrFrame),
      "  Frame.Segment:    ", segment(record.AddrFrame),
      "  Frame.Mode:    ", mode(record.AddrFrame), "Stack.Offset:    ", offset(record.AddrStack),
      "  Stack.Segment:    ", segment(record.AddrStack),
      "  Stack.Mode:    ", mode(record.AddrStack), "Params[0]:       ", parameter(0),
      "  Params[1]:   ", parameter(1), "Params[2]:       ", parameter(2),
      "  Params[3]:   ", parameter(3));
}

std::int32_t collect(const void* frame, void* user, std::int32_t) {
  static_cast<std::vector<STACKFRAME64>*>(user)->push_back(
      *static_cast<const STACKFRAME64*>(frame));
  return 0;
}

// What a whole dump consists of, heading first, made from a walk of the test's own.
std::vector<std::string> expected_pieces(const CONTEXT& context, bool detailed) {
  std::vector<STACKFRAME64> frames;
  EXPECT_EQ(tbk_trace_stack(&context, &frames, collect, 1), 0u);
  std::vector<std::string> pieces{detailed ? detailed_heading : table_heading};
  unsigned number = 0;
  for (const STACKFRAME64& frame : frames) {
    pieces.push_back(detailed ? detailed_entry(frame, number++) : table_entry(frame));
  }
  return pieces;
}

std::string joined(const std::vector<std::string>& pieces) {
  std::string text;
  for (const std::string& piece : pieces) {
    text += piece;
  }
  return text;
}

struct Dump {
  std::string text;
  std::uint64_t result;
  bool operator==(const Dump&) const = default;
};

std::ostream& operator<<(std::ostream& stream, const Dump& dump) {
  return stream << dump.result << " of " << dump.text.size() << ": " << dump.text;
}

// What a buffer of that size holds, by the rules; `tail` is the error text of a failed walk.
Dump expected_dump(const std::vector<std::string>& pieces, std::uint64_t size,
                   const std::string& before = "", const std::string& tail = "") {
  if (size <= notice_size) {
    return {size > 0 ? (before + notice).substr(0, size - 1) : "", notice_size};
  }
  const std::uint64_t capacity = size - notice_size - 1;
  std::string text;
  for (const std::string& piece : pieces) {
    if (capacity <= text.size() + piece.size()) {
      text = capacity > 0 ? (text + piece).substr(0, capacity - 1) : before;
      return {(text + notice).substr(0, size - 1), std::min(size, capacity + notice_size)};
    }
    text += piece;
  }
  const std::uint64_t used = tail.empty() ? text.size() : text.size() + tail.size() + 1;
  return {(text + tail).substr(0, size - 1), std::min(size, used)};
}

// A dump into a buffer of that size, whose neighbours stay as they are.
Dump actual_dump(const CONTEXT& context, std::uint64_t size, bool detailed,
                 const std::string& before = "") {
  constexpr char canary = '\x7E';
  std::vector<char> memory(size + 32, canary);
  char* buffer = memory.data() + 16;
  if (size > 0) {
    before.copy(buffer, size - 1);
    buffer[std::min<std::uint64_t>(before.size(), size - 1)] = '\0';
  }
  const std::uint64_t result = tbk_string_stack_signal(&context, buffer, size, detailed ? 0 : 1, 1);
  for (std::size_t i = 0; i < 16; ++i) {
    EXPECT_EQ(memory[i], canary) << "size " << size;
    EXPECT_EQ(buffer[size + i], canary) << "size " << size;
  }
  return {size > 0 ? std::string(buffer, strnlen(buffer, size)) : "", result};
}

// Every size up to some bytes more than the whole dump needs; where walks cost much, those where
// something changes.
std::vector<std::uint64_t> sizes_for(const std::vector<std::string>& pieces) {
  const std::uint64_t whole = joined(pieces).size() + notice_size + 2;
  const std::uint64_t heading = pieces[0].size() + notice_size + 1;
  std::vector<std::uint64_t> sizes{0,         1,     notice_size - 1, notice_size, heading + 4,
                                   whole - 1, whole, notice_size + 1, heading,     whole + 2};
  for (std::uint64_t size = 0; size <= whole + 2; ++size) {
    sizes.push_back(size);
  }
  return affordable(sizes, 7);
}

void check_every_size(const CONTEXT& context, bool detailed) {
  const std::vector<std::string> pieces = expected_pieces(context, detailed);
  ASSERT_GE(pieces.size(), 4u);
  const std::uint64_t whole = joined(pieces).size();
  EXPECT_EQ(tbk_string_stack_signal(&context, nullptr, 0, detailed ? 0 : 1, 1),
            whole + notice_size + 2);
  for (const std::uint64_t size : sizes_for(pieces)) {
    ASSERT_EQ(actual_dump(context, size, detailed), expected_dump(pieces, size)) << "size " << size;
  }
}

TEST(Dump, EverySize) {
  CONTEXT context;
  RtlCaptureContext(&context);
  check_every_size(context, false);
  check_every_size(context, true);
}

TEST(Dump, TextInTheBuffer) {
  CONTEXT context;
  RtlCaptureContext(&context);
  const std::vector<std::string> pieces = expected_pieces(context, false);
  for (const std::string& before : {std::string("abc"), std::string(200, 'x')}) {
    for (const std::uint64_t size :
         affordable<std::uint64_t>({1, 4, 40, 57, 58, 59, 150, 300, 4000}, 5)) {
      EXPECT_EQ(actual_dump(context, size, false, before.substr(0, size - 1)),
                expected_dump(pieces, size, before.substr(0, size - 1)))
          << size;
    }
  }
}

// ---- lookups in images of the test's own
// ----------------------------------------------------------

// An image in memory: headers with a section table, and a trace section on its second page.
class Image {
 public:
  Image() : bytes_(static_cast<std::uint8_t*>(allocate_pages(size))) {
    put(0, text("MZ"));
    put(60, number(0x80, 4));
    put(0x80 + 6, number(2, 2));
    put(0x80 + 20, number(240, 2));
    put(table, text(".text"));
    put(table + 40, text(".trace"));
    const Data section = trace();
    put(table + 48, number(section.size(), 4) + number(place, 4));
    put(place, section);
  }
  ~Image() { free_pages(bytes_, size); }
  Image(const Image&) = delete;
  Image& operator=(const Image&) = delete;

  void put(std::size_t at, const Data& data) { std::copy(data.begin(), data.end(), bytes_ + at); }
  void hide(std::size_t at, std::size_t length) { forbid_access(bytes_ + at, length); }
  [[nodiscard]] std::uint64_t code() const {
    return reinterpret_cast<std::uint64_t>(bytes_) + 0x2000;
  }

  [[nodiscard]] Data trace() const {
    return block(code(), 16, {"file.f90"},
                 routine_item(0x0C, code(), "routine") + item(0x05, 42, 2) + item(0x07, 15, 1)) +
           block(code() + 16, 16, {"next.f90"},
                 routine_item(0x0C, code() + 16, "next") + item(0x05, 7, 2) + item(0x07, 15, 1));
  }
  [[nodiscard]] Found look_up(std::uint64_t pc, const std::uint64_t* bias = nullptr) const {
    ksomd_pc_info info;
    std::memset(&info, '#', sizeof info);
    EXPECT_EQ(tbk_get_pc_info_pie(&info, pc, bias, "ignored"), 0u);
    return {info.routine, info.file, info.line};
  }

  static constexpr std::size_t size = 0x3000;
  static constexpr std::size_t table = 0x80 + 24 + 240;
  static constexpr std::size_t place = 0x1000;

 private:
  std::uint8_t* bytes_;
};

const Found found{"routine", "file.f90", "42"};
const Found next{"next", "next.f90", "7"};

TEST(PcInfo, OfAnImage) {
  const Image image;
  EXPECT_EQ(image.look_up(image.code()), found);
  EXPECT_EQ(image.look_up(image.code() + 15), found);
  EXPECT_EQ(image.look_up(image.code() + 16), next);
  EXPECT_EQ(image.look_up(image.code() + 32), Found{});
  // A block that starts at the bias or above it stays where it is.
  const std::uint64_t bias = image.code();
  EXPECT_EQ(image.look_up(image.code(), &bias), found);
  ksomd_pc_info info;
  EXPECT_EQ(tbk_get_pc_info(&info, image.code(), 0, nullptr), 0u);
  EXPECT_STREQ(info.line, "42");
}

TEST(PcInfo, ImagesThatAreNone) {
  const struct {
    const char* what;
    std::size_t at;
    Data bytes;
  } rows[] = {
      {"no magic number", 0, text("ZM")},
      {"other name", Image::table + 40, text(".tracer")},
      {"section too small", Image::table + 48, number(25, 4)},
      {"section beyond the image", Image::table + 48, number(Image::size, 4)},
      {"section outside the image", Image::table + 52, number(0x7FFFF000, 4)},
      {"no sections", 0x80 + 6, number(0, 2)},
  };
  for (const auto& row : rows) {
    Image image;
    image.put(row.at, row.bytes);
    EXPECT_EQ(image.look_up(image.code()), Found{}) << row.what;
  }
  Image hidden_section;
  hidden_section.hide(Image::place, 0x1000);
  EXPECT_EQ(hidden_section.look_up(hidden_section.code()), Found{});
  Image hidden_headers;
  hidden_headers.hide(0, 0x1000);
  EXPECT_EQ(hidden_headers.look_up(hidden_headers.code()), Found{});
}

}  // namespace
}  // namespace ksomd::test
