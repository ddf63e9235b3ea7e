// The decoder of trace sections, as a function of bytes.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <random>

#include "support/child_process.h"
#include "support/seed.h"
#include "traceback/pe_image.h"
#include "traceback/trace_section.h"
#include "traceback_sample.h"

namespace ksomd::test {
namespace {

// A copy of its own, of just that size: a memory checker sees the first byte beyond.
Found look_up(const Data& section, std::uint64_t pc, std::uint64_t bias = 0) {
  const std::unique_ptr<std::uint8_t[]> copy(new std::uint8_t[section.size()]);
  std::copy(section.begin(), section.end(), copy.get());
  Location location = {};
  if (!find_location({copy.get(), section.size()}, pc, bias, location)) {
    return {};
  }
  const auto name = [](Bytes bytes, bool known) {
    const std::string fits(bytes.data, bytes.data + bytes.first(259).size);
    return known ? fits.substr(0, fits.find('\0')) : std::string("Unknown");
  };
  return {name(location.routine, location.routine_known), name(location.file, location.file_known),
          std::to_string(location.line)};
}

const Found nothing;
constexpr std::uint64_t base = 0x140001000;

TEST(TraceSection, WorkedExample) {
  const Data example =
      block(base, 9, {"src/fabs_wrap.ff"},
            routine_item(0x0C, base, "fabs") + item(0x05, 467, 2) + item(0x07, 8, 1)) +
      Data(3, 0);
  ASSERT_EQ(example.size(), 26u + 18 + 16 + 3 + 2 + 3);
  for (std::uint64_t pc = base - 2; pc <= base + 11; ++pc) {
    const bool inside = pc >= base && pc <= base + 8;
    EXPECT_EQ(look_up(example, pc), inside ? (Found{"fabs", "src/fabs_wrap.ff", "467"}) : nothing)
        << pc - base;
  }
}

// What each kind of item does to the line and the address, told by which counters it covers.
TEST(TraceSection, EachItem) {
  const struct {
    const char* what;
    Data item;
    std::uint64_t distance;  // of the address; no_match: the item makes no match test
    std::int64_t line;       // it starts at 1000
  } rows[] = {
      {"line, 8 bits", item(0x04, 100, 1), 0, 1100},
      {"line, 8 bits, back", item(0x04, -128, 1), 0, 872},
      {"line, 16 bits", item(0x05, 32767, 2), 0, 33767},
      {"line, 16 bits, back", item(0x05, -1000, 2), 0, 0},
      {"line, 32 bits", item(0x06, 2147483647, 4), 0, 2147484647},
      {"line, 32 bits, back below 0", item(0x06, -2001, 4), 0, -1001},
      {"address, 8 bits, least", item(0x07, 0, 1), 1, 1000},
      {"address, 8 bits, most", item(0x07, 255, 1), 256, 1000},
      {"address, 16 bits", item(0x08, 65535, 2), 65536, 1000},
      {"address, 32 bits", item(0x09, 0x01000000, 4), 0x01000001, 1000},
      {"address, 32 bits, most: increment wraps to 0", item(0x09, 0xFFFFFFFF, 4), 0, 1000},
      {"match alone", item(0x0D, -1, 8), 0, 1000},
      {"next line, least", item(0x80), 1, 1001},
      {"next line, most", item(0xBF), 64, 1001},
      {"line and address, back", item(0xC0, 0xFB, 1), 1, 995},
      {"line and address, most", item(0xFF, 127, 1), 64, 1127},
      {"filler", item(0x00), 0, 1000},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    // The item, a match test of its own, and a last item that covers everything else.
    const Data section = block(base, 0x02000000, {"f"},
                               routine_item(0x0C, base, "r") + item(0x05, 1000, 2) + row.item +
                                   item(0x0D, 0, 8) + item(0x06, 7, 4) + item(0x09, 0x02000000, 4));
    const auto line = static_cast<std::uint64_t>(row.line);
    EXPECT_EQ(look_up(section, base + row.distance), (Found{"r", "f", std::to_string(line)}));
    EXPECT_EQ(look_up(section, base + row.distance + 1),
              (Found{"r", "f", std::to_string(line + 7)}));
    if (row.distance > 0) {
      EXPECT_EQ(look_up(section, base), (Found{"r", "f", std::to_string(line)}));
    }
  }
}

TEST(TraceSection, RoutineNames) {
  const Data end = item(0x0D, 0, 8) + item(0x07, 15, 1);
  const struct {
    const char* what;
    Data items;
    std::string routine;
  } rows[] = {
      {"64-bit address", routine_item(0x0C, base, "wide") + end, "wide"},
      {"no routine item", item(0x09, 0x40001000, 4) + item(0x09, 0xFFFFFFF0, 4) + end, "Unknown"},
      {"empty name", routine_item(0x0C, base, "") + end, "Unknown"},
      {"empty after named", routine_item(0x0C, base, "a") + routine_item(0x0C, base, "") + end, ""},
      {"named twice", routine_item(0x0C, base, "a") + routine_item(0x0C, base, "bc") + end, "bc"},
      {"259 bytes", routine_item(0x0C, base, std::string(259, 'x')) + end, std::string(259, 'x')},
      {"300 bytes", routine_item(0x0C, base, std::string(300, 'x')) + end, std::string(259, 'x')},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(look_up(block(base, 16, {"f"}, row.items), base).routine, row.routine) << row.what;
  }
  const Data low = block(0x1000, 16, {"f"}, routine_item(0x02, 0x1000, "low") + end);
  EXPECT_EQ(look_up(low, 0x1008), (Found{"low", "f", "0"}));
  // A second routine further on: counters before it do not get past its item.
  const Data two = block(base, 32, {"f"},
                         routine_item(0x0C, base, "a") + item(0x07, 3, 1) +
                             routine_item(0x0C, base + 16, "b") + item(0x07, 15, 1));
  EXPECT_EQ(look_up(two, base + 4).routine, "a");
  EXPECT_EQ(look_up(two, base + 5), nothing);
  EXPECT_EQ(look_up(two, base + 15), nothing);
  EXPECT_EQ(look_up(two, base + 16).routine, "b");
}

TEST(TraceSection, Blocks) {
  const auto simple = [](std::uint64_t start, std::uint32_t range, const char* name) {
    return block(start, range, {"f"}, routine_item(0x0C, start, name) + item(0x09, range - 1, 4));
  };
  const Data section = Data(2, 0) + simple(base + 0x100, 16, "second") + simple(base, 16, "first") +
                       Data(5, 0) + simple(base + 8, 16, "alias") +
                       simple(0xFFFFFFFFFFFFFFF0, 15, "top") + Data(1, 0);
  const struct {
    std::uint64_t pc;
    const char* routine;
  } rows[] = {
      {base - 1, "Unknown"},
      {base, "first"},
      {base + 15, "first"},
      {base + 16, "alias"},
      {base + 23, "alias"},
      {base + 24, "Unknown"},
      {base + 0x100, "second"},
      {base + 0x10F, "second"},
      {base + 0x110, "Unknown"},
      {0xFFFFFFFFFFFFFFF0, "top"},
      {0xFFFFFFFFFFFFFFFE, "top"},
      {0xFFFFFFFFFFFFFFFF, "Unknown"},
      {0, "Unknown"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(look_up(section, row.pc).routine, row.routine) << row.pc;
  }
  // The first block that describes a counter is the one, even if it leads nowhere.
  const Data broken = block(base, 16, {"f"}, routine_item(0x0C, base, "r") + item(0x07, 3, 1));
  EXPECT_EQ(look_up(broken + simple(base, 16, "alias"), base + 8), nothing);
}

// ---- damage -------------------------------------------------------------------------------------

// Every kind of item in three blocks of a few hundred bytes.
Data sample_section() {
  return Data(1, 0) +
         block(base, 0x200, {"main.f90", "dir/module.f90"},
               routine_item(0x0C, base, "solve") + item(0x05, 467, 2) + item(0x07, 8, 1) +
                   item(0x85) + item(0xC9, 0xFB, 1) + item(0x03, 1, 4) + item(0x04, 3, 1) +
                   item(0x08, 0x80, 2) + item(0x00) + item(0x06, -100, 4) + item(0x0D, 5, 8) +
                   item(0x09, 0x60, 4) + item(0x03, 0, 4) + item(0xBF) + item(0x09, 0x1000, 4)) +
         Data(3, 0) +
         block(base + 0x200, 0x80, {"a rather long name of a source file, in a directory/x.c"},
               routine_item(0x02, 0x1000, "short") + routine_item(0x0C, base + 0x200, "wide") +
                   item(0x05, -1, 2) + item(0x07, 0x3F, 1) + item(0xFF, 1, 1)) +
         block(0x2000, 0x40, {"low.c"},
               routine_item(0x02, 0x2000, "low") + item(0x04, 9, 1) + item(0x9F) + item(0x9F)) +
         Data(2, 0);
}

const std::pair<std::uint64_t, std::uint64_t> sample_counters[] = {
    {base, 0},          {base + 9, 0},     {base + 0x12, 0},       {base + 0x90, 0},
    {base + 0x1FF, 0},  {base + 0x200, 0}, {base + 0x250, 0},      {base + 0x27F, 0},
    {0x2000, 0},        {0x203F, 0},       {0x2000, 0x2000},       {0x4001, 0x2001},
    {0x2000, 0x2001},   {0x5020, 0x3000},  {base + 0x300, 0x4000}, {0, 0},
    {UINT64_MAX, base},
};

// Found as the reference finds it, and within a millisecond; a busy machine gets three attempts.
void check_damaged(const Data& section, const std::string& what) {
  for (const auto& [pc, bias] : sample_counters) {
    Found found;
    std::chrono::duration<double, std::milli> least(1e9);
    for (int attempt = 0; attempt < 3 && least.count() > 1; ++attempt) {
      const auto start = std::chrono::steady_clock::now();
      found = look_up(section, pc, bias);
      least = std::min(least, {std::chrono::steady_clock::now() - start});
    }
    ASSERT_LE(least.count(), 1) << what;
    ASSERT_EQ(found, ReferenceLookup(section, pc, bias).find()) << what << ", counter " << pc;
  }
}

TEST(TraceSection, SampleReadsAsWritten) {
  const Data section = sample_section();
  ASSERT_GE(section.size(), 200u);
  EXPECT_EQ(look_up(section, base + 9), (Found{"solve", "main.f90", "467"}));
  EXPECT_EQ(look_up(section, base + 0x12), (Found{"solve", "main.f90", "463"}));
  EXPECT_EQ(look_up(section, base + 0x90), (Found{"solve", "dir/module.f90", "466"}));
  EXPECT_EQ(look_up(section, base + 0x1FF), (Found{"solve", "main.f90", "367"}));
  EXPECT_EQ(look_up(section, 0x203F), (Found{"low", "low.c", "11"}));
  // Blocks below the bias are moved by it.
  EXPECT_EQ(look_up(section, 0x2000, 0x2000), (Found{"low", "low.c", "10"}));
  EXPECT_EQ(look_up(section, 0x4001, 0x2001), (Found{"low", "low.c", "10"}));
  check_damaged(section, "whole");
}

TEST(TraceSection, EveryTruncation) {
  const Data section = sample_section();
  for (std::size_t size = 0; size < section.size(); ++size) {
    const Data cut(section.begin(), section.begin() + static_cast<std::ptrdiff_t>(size));
    check_damaged(cut, "first " + std::to_string(size) + " bytes");
  }
}

TEST(TraceSection, EverySingleByteChange) {
  Data section = sample_section();
  for (std::size_t at = 0; at < section.size(); ++at) {
    const std::uint8_t original = section[at];
    for (unsigned value = 0; value < 256; ++value) {
      section[at] = static_cast<std::uint8_t>(value);
      check_damaged(section, "byte " + std::to_string(at) + " = " + std::to_string(value));
    }
    section[at] = original;
  }
}

TEST(TraceSection, RandomChanges) {
  std::mt19937_64 random(seed_of(7));
  for (int round = 0; round < 20000; ++round) {
    Data section = sample_section();
    for (std::uint64_t changes = 1 + random() % 6; changes > 0; --changes) {
      section[random() % section.size()] = static_cast<std::uint8_t>(random());
    }
    check_damaged(section, "round " + std::to_string(round));
  }
}

// Megabytes made to keep a careless decoder busy: each is read once or twice, in a moment.
TEST(TraceSection, LinearTime) {
  constexpr std::uint32_t many = 1 << 19;
  Data entries;
  Data selects;
  for (std::uint32_t i = 0; i < many; ++i) {
    entries.insert(entries.end(), {0, 0});
    selects.insert(selects.end(), {0x03, 0xFF, 0xFF, 0x07, 0x00, 0x07, 0x00});
  }
  const Data items = entries + selects;
  const Data crowded = Data{10, 2, 0, 0} + number(26 + items.size(), 4) + number(base, 8) +
                       number(many, 4) + number(UINT32_MAX, 4) + Data(2, 0) + items;
  Data tiny_blocks;
  for (std::uint32_t i = 0; i < many; ++i) {
    tiny_blocks.insert(tiny_blocks.end(), {10, 2, 0, 0, 8, 0, 0, 0});
  }
  for (const Data& section : {crowded, tiny_blocks, Data(many * 8, 0)}) {
    const auto start = std::chrono::steady_clock::now();
    look_up(section, base + many * 2);
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
    EXPECT_LT(taken.count(), 2) << section.size() << " bytes";
  }
}

// ---- images -------------------------------------------------------------------------------------

// Headers of an image: the section table follows an optional header of that size.
Data image_headers(const std::vector<std::string>& names, std::uint64_t pe = 0x80,
                   std::size_t optional = 240) {
  Data image = text("MZ") + Data(58, 0) + number(pe, 4);
  image.resize(0x80);
  image = image + text("PE") + Data(4, 0) + number(names.size(), 2) + Data(12, 0) +
          number(optional, 2) + Data(2, 0) + Data(optional, 0);
  std::uint64_t place = 0x1000;
  for (const std::string& name : names) {
    Data padded = text(name);
    padded.resize(8);
    image = image + padded + number(place + 1, 4) + number(place, 4) + Data(24, 0);
    place += 0x1000;
  }
  return image;
}

TEST(TraceImage, SectionTable) {
  const struct {
    std::vector<std::string> names;
    std::uint32_t offset;  // 0: none
  } rows[] = {
      {{".trace"}, 0x1000},
      {{".text", ".trace", ".trace"}, 0x2000},
      {{".text", ".tracex", ".trac", "trace"}, 0},
      {{}, 0},
  };
  for (const auto& row : rows) {
    const Data image = image_headers(row.names);
    SectionPlace place = {};
    EXPECT_EQ(find_pe_section({image.data(), image.size()}, ".trace", place), row.offset != 0);
    EXPECT_EQ(place.offset, row.offset);
    EXPECT_EQ(place.size, row.offset != 0 ? row.offset + 1 : 0);
  }
}

TEST(TraceImage, DamagedHeaders) {
  SectionPlace place;
  const Data good = image_headers({".text", ".trace"}, 0x80, 112);
  EXPECT_TRUE(find_pe_section({good.data(), good.size()}, ".trace", place));
  for (const std::uint64_t pe : {0xFFFFFF80u, 0x80000000u, 0x7FFFFFFFu, 0x10080u, 0x1000u, 0x3Cu}) {
    const Data image = image_headers({".text", ".trace"}, pe, 112);
    EXPECT_FALSE(find_pe_section({image.data(), image.size()}, ".trace", place)) << pe;
  }
  for (std::size_t size = 0; size < good.size(); ++size) {
    const std::unique_ptr<std::uint8_t[]> copy(new std::uint8_t[size]);
    std::copy_n(good.begin(), size, copy.get());
    EXPECT_FALSE(find_pe_section({copy.get(), size}, ".trace", place)) << size;
  }
}

// The seeds of the fuzzer: an image whose trace section is the sample, for some counters.
KSOMD_CHILD(write_trace_seeds) {
  int n = 0;
  for (const auto& [pc, bias] : sample_counters) {
    Data image = image_headers({".text", ".trace"});
    const Data section = sample_section();
    for (const auto& [field, value] : {std::pair{8, section.size()}, std::pair{12, image.size()}}) {
      const Data bytes = number(value, 4);
      std::copy(bytes.begin(), bytes.end(), image.end() - 40 + field);
    }
    const Data seed = number(pc, 8) + number(bias, 8) + image + section;
    const std::string path = arguments.at(0) + "/seed" + std::to_string(n++);
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr || std::fwrite(seed.data(), 1, seed.size(), file) != seed.size()) {
      return 1;
    }
    std::fclose(file);
  }
  return 0;
}

}  // namespace
}  // namespace ksomd::test
