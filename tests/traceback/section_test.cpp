// The decoder of trace sections and the reader of image headers, as functions of bytes.
#include <gtest/gtest.h>

#include <fstream>

#include "support/child_process.h"
#include "support/operand.h"
#include "support/sweep.h"
#include "traceback/sample.h"

namespace ksomd::test {
namespace {

constexpr std::uint64_t base = 0x140001000, high = UINT64_MAX - 63;

// Every kind of item, in blocks near both ends of the address space and far from them.
const Data sample =
    Data(1, 0) +
    block(base, 0x200, {"main.f90", "dir/module.f90"},
          routine_item(12, base, "solve") +
              Data{5, 0xD3, 1, 7, 8, 0x85, 0xC9, 0xFB, 3, 1, 0, 0, 0, 4, 3, 8, 0x80, 0, 0} +
              Data{6, 0x9C, 255, 255, 255, 13, 5, 0, 0, 0, 0, 0, 0, 0, 9, 0x60, 0, 0, 0} +
              Data{3, 0, 0, 0, 0, 0xBF, 9, 0, 16, 0, 0}) +
    Data(3, 0) +
    block(base + 0x200, 0x80, {"a.c", ""},
          routine_item(2, 0x1000, "short") + routine_item(12, base + 0x200, "") +
              Data{5, 0, 0x80, 7, 0x3F, 9, 255, 255, 255, 255, 3, 2, 0, 0, 0, 0xFF, 1}) +
    block(0x2000, 0x40, {"low.c"}, routine_item(2, 0x2000, "low") + Data{4, 9, 0x9F, 0x9F}) +
    block(high, 0x80, {"high.c"}, routine_item(12, high, "high") + Data{0xBE, 0xBF}) + Data(2, 0);

using Lookup = std::tuple<std::uint64_t, std::uint64_t, std::string>;

// A counter, a bias and what is found, worked out by hand.
const std::vector<Lookup> lookups = {{base, 0, "solve | main.f90 | 467"},
                                     {base + 0x12, 0, "solve | main.f90 | 463"},
                                     {base + 0x9A, 0, "solve | dir/module.f90 | 466"},
                                     {base + 0x1FF, 0, "solve | main.f90 | 367"},
                                     {base + 0x23F, 0, " | a.c | 18446744073709518848"},
                                     {base + 0x27F, 0, " | Unknown | 18446744073709518849"},
                                     {0x2000, 0x2000, "low | low.c | 10"},
                                     {0x4022, 0x2001, "low | low.c | 11"},
                                     {high + 63, 0, "high | high.c | 1"}};

// Every beginning of the section, with the first block as long as it says and as long as it is,
// then every change of a few bytes. Half of all bytes mean an item, and most of those below 14 do.
TEST(TraceSection, IsReadAsWrittenAndDamagedAsTheReferenceReadsIt) {
  Operand memory(4096);
  Random random(seed_of(7));
  for (std::size_t round = 0; round < (Sweep::proving() ? 50'000 : 3'000); ++round) {
    Data bytes = sample;
    bytes.resize(std::min(round / 2, sample.size()));
    if (bytes.size() < sample.size() && bytes.size() > 9 && round % 2 == 1) {
      std::ranges::copy(number(bytes.size() - 1, 4), &bytes[5]);
    }
    const auto most = bytes.size() < sample.size() ? 1 : random.one_of({2u, 4u, 30u});
    for (auto changes = random.below(most); changes > 0; --changes) {
      std::uint8_t& byte = bytes[random.below(bytes.size())];
      const std::uint64_t limit = random.one_in(2) ? 14 : 256;
      byte = static_cast<std::uint8_t>(random.below(limit));
    }
    const std::uint64_t start = random.one_of({base, base + 0x200, high, std::uint64_t{0x2000}}),
                        pc = start - 1 + random.below(0x82),
                        bias = random.one_of({base + 1, high, std::uint64_t{3}});
    std::vector<Lookup> rows = {{pc, 0, ""}, {pc, bias, ""}, {pc + bias, bias, ""}};
    rows.insert(rows.end(), lookups.begin(), lookups.end());
    const Bytes section{memory.place(bytes.size(), Place::AtEnd), bytes.size()};
    std::ranges::copy(bytes, const_cast<std::uint8_t*>(section.data));
    for (const auto& [counter, moved, found] : rows) {
      const std::string wanted = reference_look_up(section, counter, moved);
      ASSERT_EQ(look_up(section, counter, moved), wanted)
          << testing::PrintToString(bytes) << ", " << counter << ", " << moved;
      ASSERT_TRUE(bytes != sample || found.empty() || wanted == found) << wanted << ", " << counter;
    }
  }
}

// Of 260 sections, the third is named as wanted first.
TEST(PeImage, HasASectionIfTheHeadersAreWhole) {
  constexpr std::size_t pe = 0x48, end_of_third = pe + 24 + 30 + 3 * 40;
  Data good =
      image_headers({{".tracex", 1, 1}, {".trac", 2, 2}, {".trace", 3, 4}, {".trace", 5, 6}}, 30);
  good[pe + 7] = 1;
  Operand memory(4096);
  const auto check = [&memory](const Data& headers, bool wanted) {
    const Bytes placed{memory.place(headers.size(), Place::AtEnd), headers.size()};
    std::ranges::copy(headers, const_cast<std::uint8_t*>(placed.data));
    SectionPlace place;
    const bool found = find_pe_section(placed, ".trace", place);
    EXPECT_EQ(found && place.size == 3 && place.offset == 4, wanted)
        << testing::PrintToString(headers);
  };
  for (Data headers = good; !headers.empty(); headers.pop_back()) {
    check(headers, headers.size() >= end_of_third);
  }
  for (const unsigned at : {0u, 1u, 60u, 61u, 62u, 63u, 92u, 93u}) {
    good[at] ^= 1;
    check(good, false);
    good[at] ^= 1;
  }
}

// A seed of the fuzzer: a counter, a bias, and an image whose trace section is the sample.
KSOMD_CHILD(write_trace_seeds) {
  const Data seed = number(base, 8) + number(0, 8) +
                    image_headers({{".text", 1, 1}, {".trace", sample.size(), 416}}, 240) + sample;
  std::ofstream file(arguments.at(0) + "/seed", std::ios::binary);
  return file.write(reinterpret_cast<const char*>(seed.data()), std::ssize(seed)) ? 0 : 1;
}

}  // namespace
}  // namespace ksomd::test
