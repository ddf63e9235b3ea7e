// A processor made of a table of answers.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "cpu/processor.h"

namespace ksomd::test {

struct SyntheticProcessor {
  // By leaf << 32 | subleaf; a leaf that is not here answers 0.
  std::map<std::uint64_t, CpuidResult> answers;
  std::vector<CpuidResult> leaf_2;        // if any: successive answers of leaf 2, then 0
  std::vector<std::uint32_t> numbers{0};  // successive processor numbers; the last one stays
  std::uint32_t xcr0_low = 0;
  bool cpuid_exists = true;

  mutable int xgetbv_count = 0;
  mutable std::size_t rdpid_count = 0;
  mutable std::vector<std::uint64_t> asked;  // leaf << 32 | subleaf

  CpuidResult& at(std::uint32_t leaf, std::uint32_t subleaf = 0) {
    return answers[std::uint64_t{leaf} << 32 | subleaf];
  }
  static std::uint32_t& reg(CpuidResult& result, char name);  // 'a' to 'd'
  std::uint32_t& reg(std::uint32_t leaf, std::uint32_t subleaf, char name) {
    return reg(at(leaf, subleaf), name);
  }
  void set_vendor(std::string_view name, std::uint32_t highest_leaf = 0x24);
  // A genuine one: in the leaves that tell features, and in XCR0, each word is what word() returns.
  static SyntheticProcessor of_words(const std::function<std::uint32_t()>& word);
  int times_asked(std::uint32_t leaf, std::uint32_t subleaf = 0) const;

  std::string describe() const;  // in a form that can be pasted

  // Valid as long as this object stays where it is.
  Processor processor() const;
};

}  // namespace ksomd::test
