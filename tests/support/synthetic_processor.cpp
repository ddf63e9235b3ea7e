#include "support/synthetic_processor.h"

#include <algorithm>
#include <cstring>
#include <sstream>

namespace ksomd::test {

std::uint32_t& SyntheticProcessor::reg(CpuidResult& result, char name) {
  std::uint32_t* const registers[] = {&result.eax, &result.ebx, &result.ecx, &result.edx};
  return *registers[name - 'a'];
}

void SyntheticProcessor::set_vendor(std::string_view name, std::uint32_t highest_leaf) {
  CpuidResult& result = at(0);
  result.eax = highest_leaf;
  std::memcpy(&result.ebx, name.data(), 4);
  std::memcpy(&result.edx, name.data() + 4, 4);
  std::memcpy(&result.ecx, name.data() + 8, 4);
}

SyntheticProcessor SyntheticProcessor::of_words(const std::function<std::uint32_t()>& word) {
  SyntheticProcessor p;
  p.xcr0_low = word();
  p.at(7, 1) = {word(), word(), word(), word()};
  p.at(0x1E, 1) = {word(), word(), word(), word()};
  for (const std::uint32_t leaf : {1u, 7u, 0x14u, 0x19u, 0x24u, 0x80000001u, 0x80000008u}) {
    p.at(leaf) = {word(), word(), word(), word()};
  }
  p.set_vendor(genuine_vendor);
  return p;
}

int SyntheticProcessor::times_asked(std::uint32_t leaf, std::uint32_t subleaf) const {
  return static_cast<int>(std::ranges::count(asked, std::uint64_t{leaf} << 32 | subleaf));
}

std::string SyntheticProcessor::describe() const {
  std::ostringstream text;
  text << std::hex << "p.xcr0_low = 0x" << xcr0_low << ';';
  const auto print = [&text](const CpuidResult& r) {
    text << "{0x" << r.eax << ", 0x" << r.ebx << ", 0x" << r.ecx << ", 0x" << r.edx << "}); ";
  };
  for (const auto& [leaf, result] : answers) {
    text << " p.answers.emplace(0x" << leaf << ", CpuidResult";
    print(result);
  }
  for (const CpuidResult& result : leaf_2) {
    text << " p.leaf_2.push_back(";
    print(result);
  }
  return text.str();
}

Processor SyntheticProcessor::processor() const {
  using Self = const SyntheticProcessor*;
  return {[](const void* self, std::uint32_t leaf, std::uint32_t subleaf) {
            const auto* const that = static_cast<Self>(self);
            const auto before = static_cast<std::size_t>(that->times_asked(leaf, subleaf));
            that->asked.push_back(std::uint64_t{leaf} << 32 | subleaf);
            if (leaf == 2 && !that->leaf_2.empty()) {
              return before < that->leaf_2.size() ? that->leaf_2[before] : CpuidResult{};
            }
            const auto found = that->answers.find(that->asked.back());
            return found != that->answers.end() ? found->second : CpuidResult{};
          },
          [](const void* self) {
            ++static_cast<Self>(self)->xgetbv_count;
            return static_cast<Self>(self)->xcr0_low;
          },
          [](const void* self) {
            const auto* const that = static_cast<Self>(self);
            return that->numbers[std::min(that->rdpid_count++, that->numbers.size() - 1)];
          },
          [](const void* self) { return static_cast<Self>(self)->cpuid_exists; }, this};
}

}  // namespace ksomd::test
