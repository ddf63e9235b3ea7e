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

struct Lookup {
  std::uint64_t pc, bias;
  std::string found;
};

// Worked out by hand.
const std::vector<Lookup> lookups = {{base - 1, 0, unknown},
                                     {base, 0, "solve | main.f90 | 467"},
                                     {base + 0xA, 0, "solve | main.f90 | 468"},
                                     {base + 0x12, 0, "solve | main.f90 | 463"},
                                     {base + 0x9A, 0, "solve | dir/module.f90 | 466"},
                                     {base + 0x1FF, 0, "solve | main.f90 | 367"},
                                     {base + 0x23F, 0, " | a.c | 18446744073709518848"},
                                     {base + 0x27F, 0, " | Unknown | 18446744073709518849"},
                                     {base + 0x280, 0, unknown},
                                     {0x2000, 0x2000, "low | low.c | 10"},
                                     {0x4022, 0x2001, "low | low.c | 11"},
                                     {0x2000, 0x2001, unknown},
                                     {high + 63, 0, "high | high.c | 1"},
                                     {0, 0, unknown}};

// Bytes that end where memory ends, in which the library finds what the reference finds.
class TraceSection : public testing::Test {
 protected:
  Bytes place(const Data& bytes) {
    std::uint8_t* const first = memory_.place(bytes.size(), Place::AtEnd);
    std::ranges::copy(bytes, first);
    return {first, bytes.size()};
  }
  static std::string pasted(Bytes bytes) {
    return testing::PrintToString(std::string(bytes.data, bytes.data + bytes.size));
  }
  void check(const Data& section, const std::vector<Lookup>& rows = lookups) {
    const Bytes placed = place(section);
    for (const auto& [pc, bias, found] : rows) {
      ASSERT_EQ(look_up(placed, pc, bias), Reference::find(placed, pc, bias))
          << pasted(placed) << ", " << pc << ", " << bias;
    }
  }
  // Every beginning of some bytes, and every change of a few of them. Half of all bytes mean an
  // item, and most of those below 14 do.
  template <class Check>
  static void damage(const Data& good, Check check_damaged) {
    for (std::ptrdiff_t size = 0; size <= std::ssize(good); ++size) {
      check_damaged(Data(good.begin(), good.begin() + size));
    }
    Random random(seed_of(7));
    for (int round = Sweep::proving() ? 50'000 : 2'000; round > 0 && !HasFatalFailure(); --round) {
      Data bytes = good;
      for (auto changes = 1 + random.below(random.one_of({1u, 4u, 30u})); changes > 0; --changes) {
        std::uint8_t& byte = bytes[random.below(bytes.size())];
        const std::uint64_t limit = random.one_in(2) ? 14 : 256;
        byte = static_cast<std::uint8_t>(random.below(limit));
      }
      check_damaged(bytes);
    }
  }

 private:
  Operand memory_{65536};
};

TEST_F(TraceSection, IsReadAsWrittenAndDamagedAsTheReferenceReadsIt) {
  for (const auto& row : lookups) {
    EXPECT_EQ(look_up(place(sample), row.pc, row.bias), row.found) << row.pc;
  }
  Random random(seed_of(8));
  damage(sample, [&](Data damaged) {
    const std::uint64_t pc = random.one_of({base, base + 0x200, high}) + random.below(0x80),
                        bias = random.one_of({base + 1, high, std::uint64_t{3}});
    check(damaged);
    check(damaged, {{pc, 0, ""}, {pc, bias, ""}, {pc + bias, bias, ""}});
    if (damaged.size() > 9 && damaged.size() < sample.size()) {  // a block as short as it says
      std::ranges::copy(number(damaged.size() - 1, 4), damaged.begin() + 5);
      check(damaged);
    }
  });
}

TEST_F(TraceSection, IsFoundInDamagedImagesAsTheReferenceFindsIt) {
  Data image = image_headers({".tracex", ".trac", ".trace", ".trace"}, 30);
  image[0x48 + 7] = 1;  // 260 sections
  const auto third = Reference::find_section(place(image));
  ASSERT_TRUE(third && third->offset == 0x3000 && third->size == 0x125);
  damage(image, [this](const Data& damaged) {
    const Bytes placed = place(damaged);
    const auto wanted = Reference::find_section(placed);
    SectionPlace found;
    ASSERT_EQ(find_pe_section(placed, ".trace", found), wanted.has_value()) << pasted(placed);
    ASSERT_TRUE(!wanted || (found.offset == wanted->offset && found.size == wanted->size))
        << pasted(placed);
  });
}

// The seeds of the fuzzer: an image whose trace section is the sample, for some counters.
KSOMD_CHILD(write_trace_seeds) {
  Data image = image_headers({".text", ".trace"}, 240);
  std::ranges::copy(number(sample.size(), 4) + number(image.size(), 4), image.end() - 32);
  bool written = true;
  for (const auto& row : lookups) {
    const Data seed = number(row.pc, 8) + number(row.bias, 8) + image + sample;
    std::ofstream file(arguments.at(0) + "/seed" + std::to_string(row.pc + row.bias));
    written &= !file.write(reinterpret_cast<const char*>(seed.data()), std::ssize(seed)).fail();
  }
  return written ? 0 : 1;
}

}  // namespace
}  // namespace ksomd::test
