// The decoder of trace sections and the reader of image headers, as functions of bytes.
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>

#include "support/child_process.h"
#include "support/operand.h"
#include "support/sweep.h"
#include "traceback/sample.h"

namespace ksomd::test {
namespace {

constexpr std::uint64_t base = 0x140001000;

// Every kind of item in three blocks of a few hundred bytes.
const Data sample =
    Data(1, 0) +
    block(base, 0x200, {"main.f90", "dir/module.f90"},
          routine_item(0x0C, base, "solve") + item(0x05, 467, 2) + item(0x07, 8, 1) + item(0x85) +
              item(0xC9, 0xFB, 1) + item(0x03, 1, 4) + item(0x04, 3, 1) + item(0x08, 0x80, 2) +
              item(0x00) + item(0x06, -std::uint64_t{100}, 4) + item(0x0D, 5, 8) +
              item(0x09, 0x60, 4) + item(0x03, 0, 4) + item(0xBF) + item(0x09, 0x1000, 4)) +
    Data(3, 0) +
    block(base + 0x200, 0x80, {"a.c", ""},
          routine_item(0x02, 0x1000, "short") + routine_item(0x0C, base + 0x200, "") +
              item(0x05, 0x8000, 2) + item(0x07, 0x3F, 1) + item(0x09, UINT32_MAX, 4) +
              item(0x03, 2, 4) + item(0xFF, 1, 1)) +
    block(0x2000, 0x40, {"low.c"},
          routine_item(0x02, 0x2000, "low") + item(0x04, 9, 1) + item(0x9F) + item(0x9F)) +
    Data(2, 0);

// Worked out by hand.
const struct {
  std::uint64_t pc, bias;
  Found found;
} lookups[] = {
    {base - 1, 0, {}},
    {base, 0, {"solve", "main.f90", "467"}},
    {base + 0xA, 0, {"solve", "main.f90", "468"}},
    {base + 0x12, 0, {"solve", "main.f90", "463"}},
    {base + 0x9A, 0, {"solve", "dir/module.f90", "466"}},
    {base + 0x1FF, 0, {"solve", "main.f90", "367"}},
    {base + 0x23F, 0, {"", "a.c", "18446744073709518848"}},
    {base + 0x27F, 0, {"", "Unknown", "18446744073709518849"}},
    {base + 0x280, 0, {}},
    {0x2000, 0x2000, {"low", "low.c", "10"}},
    {0x4022, 0x2001, {"low", "low.c", "11"}},
    {0x2000, 0x2001, {}},
};

// Bytes that end where memory ends, in which the library finds what the reference finds.
class TraceSection : public testing::Test {
 protected:
  static std::string paste(const Data& bytes) {
    std::string pasted = "Data{";
    for (const std::uint8_t byte : bytes) {
      pasted += std::to_string(byte) + ", ";
    }
    return pasted + "}";
  }
  Bytes place(const Data& bytes) {
    std::uint8_t* const first = memory_.place(bytes.size(), Place::AtEnd);
    std::ranges::copy(bytes, first);
    return {first, bytes.size()};
  }
  void check(const Data& section, Bytes placed, std::uint64_t pc, std::uint64_t bias) {
    ASSERT_EQ(look_up(placed, pc, bias), Reference::find(placed, pc, bias))
        << paste(section) << ", " << pc << ", " << bias;
  }
  // Every beginning of some bytes, and every change of one of them.
  template <class Check>
  static void damage(Data bytes, Check check_damaged) {
    for (std::ptrdiff_t size = 0; size <= std::ssize(bytes); ++size) {
      check_damaged(Data(bytes.begin(), bytes.begin() + size));
    }
    for (std::uint8_t& byte : bytes) {
      for (const std::uint8_t before = byte; !HasFatalFailure();) {
        byte = static_cast<std::uint8_t>(byte + (Sweep::proving() ? 1 : 32));
        if (byte == before) {
          break;
        }
        check_damaged(bytes);
      }
    }
  }

 private:
  Operand memory_{65536};
};

TEST_F(TraceSection, IsReadAsWrittenAndDamagedAsTheReferenceReadsIt) {
  for (const auto& row : lookups) {
    EXPECT_EQ(look_up(place(sample), row.pc, row.bias), row.found) << row.pc;
  }
  damage(sample, [this](const Data& damaged) {
    const Bytes placed = place(damaged);
    for (const auto& row : lookups) {
      check(damaged, placed, row.pc, row.bias);
    }
  });
}

TEST_F(TraceSection, IsReadToItsEndWhereABlockIsAsShortAsItSays) {
  for (std::size_t size = 8; size < 160; ++size) {
    Data section(sample.begin() + 1, sample.begin() + 1 + static_cast<std::ptrdiff_t>(size));
    std::ranges::copy(number(size, 4), section.begin() + 4);
    const Bytes placed = place(section);
    for (const auto& row : lookups) {
      check(section, placed, row.pc, row.bias);
    }
  }
}

TEST_F(TraceSection, IsReadAsTheReferenceReadsItAtRandom) {
  Random random(seed_of(7));
  for (int round = Sweep::proving() ? 30'000 : 2'000; round > 0 && !HasFatalFailure(); --round) {
    Data section(random.below(3), 0);
    std::vector<std::uint64_t> counters{random.next()};
    for (auto blocks = 1 + random.below(4); blocks > 0; --blocks) {
      const std::uint64_t start =
          random.one_of({base, std::uint64_t{0x2000}, UINT64_MAX - 127}) + random.below(64);
      const std::uint32_t range = random.one_of({0u, 1u, 16u, 63u, 255u, UINT32_MAX});
      std::vector<std::string> files;
      for (auto i = random.one_in(12) ? 0 : 1 + random.below(3); i > 0; --i) {
        files.emplace_back(random.one_of({0u, 1u, 7u, 259u, 260u}), static_cast<char>('a' + i));
      }
      // Half of all bytes mean an item, and most of those below 14 do.
      Data items = random.one_in(8) ? Data{} : routine_item(0x0C, start, "first");
      for (auto i = random.below(60); i > 0; --i) {
        items.push_back(static_cast<std::uint8_t>(random.below(random.one_in(3) ? 14 : 256)));
      }
      section = section + block(start, range, files, items) + Data(random.below(3), 0);
      const std::uint64_t inside = start + random.below(256);
      counters.insert(counters.end(), {start - 1, start, inside, start + range - 1, start + range});
    }
    for (auto changes = random.one_in(2) ? random.below(4) : 0; changes > 0; --changes) {
      section[random.below(section.size())] = static_cast<std::uint8_t>(random.next());
    }
    const Bytes placed = place(section);
    for (const std::uint64_t pc : counters) {
      const std::uint64_t bias = counters[random.below(counters.size())] + random.below(2);
      check(section, placed, pc, 0);
      check(section, placed, pc, bias);
      check(section, placed, pc + bias, bias);
    }
  }
}

TEST_F(TraceSection, IsFoundInDamagedImagesAsTheReferenceFindsIt) {
  Data image = image_headers({".tracex", ".trac", ".trace", ".trace"}, 30);
  image[0x48 + 7] = 1;  // 260 sections
  const auto third = Reference::find_section(place(image));
  ASSERT_TRUE(third && third->offset == 0x3000 && third->size == 0x125);
  damage(image, [this](const Data& damaged) {
    const Bytes placed = place(damaged);
    const auto wanted = Reference::find_section(placed);
    SectionPlace found{};
    const bool same = find_pe_section(placed, ".trace", found) == wanted.has_value();
    const SectionPlace place = wanted.value_or(found);
    ASSERT_TRUE(same && found.offset == place.offset && found.size == place.size) << paste(damaged);
  });
}

// Megabytes made to keep a careless decoder busy: each is read once or twice, in a moment.
TEST_F(TraceSection, IsReadInLinearTime) {
  constexpr std::uint32_t many = 1 << 19;
  Data selects, tiny_blocks;
  for (std::uint32_t i = 0; i < many; ++i) {
    selects.insert(selects.end(), {0x03, 0xFF, 0xFF, 0x07, 0x00, 0x07, 0x00});
    tiny_blocks.insert(tiny_blocks.end(), {10, 2, 0, 0, 8, 0, 0, 0});
  }
  Data crowded = block(base, UINT32_MAX, {}, Data(std::size_t{2} * many, 0) + selects);
  std::ranges::copy(number(many, 4), crowded.begin() + 16);
  for (const Data& section : {crowded, tiny_blocks, Data(std::size_t{8} * many, 0)}) {
    const auto start = std::chrono::steady_clock::now();
    look_up({section.data(), section.size()}, base + many * 2, 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
  }
}

// The seeds of the fuzzer: an image whose trace section is the sample, for some counters.
KSOMD_CHILD(write_trace_seeds) {
  Data image = image_headers({".text", ".trace"}, 240);
  std::ranges::copy(number(sample.size(), 4) + number(image.size(), 4), image.end() - 32);
  bool written = true;
  for (const auto& row : lookups) {
    const Data seed = number(row.pc, 8) + number(row.bias, 8) + image + sample;
    std::ofstream file(arguments.at(0) + "/seed" + std::to_string(&row - lookups));
    written &= !file.write(reinterpret_cast<const char*>(seed.data()), std::ssize(seed)).fail();
  }
  return written ? 0 : 1;
}

}  // namespace
}  // namespace ksomd::test
