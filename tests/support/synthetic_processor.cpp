#include "support/synthetic_processor.h"

#include <algorithm>
#include <cstring>

namespace ksomd::test {

CpuidResult& SyntheticProcessor::at(std::uint32_t leaf, std::uint32_t subleaf) {
  for (Answer& answer : answers) {
    if (answer.leaf == leaf && answer.subleaf == subleaf) {
      return answer.result;
    }
  }
  return answers.emplace_back(Answer{leaf, subleaf, {}}).result;
}

std::uint32_t& SyntheticProcessor::reg(std::uint32_t leaf, std::uint32_t subleaf, char name) {
  CpuidResult& result = at(leaf, subleaf);
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

bool SyntheticProcessor::was_asked(std::uint32_t leaf, std::uint32_t subleaf) const {
  return std::ranges::count(asked, std::uint64_t{leaf} << 32 | subleaf) > 0;
}

Processor SyntheticProcessor::processor() const {
  return Processor{[](const void* self, std::uint32_t leaf, std::uint32_t subleaf) -> CpuidResult {
                     const auto* that = static_cast<const SyntheticProcessor*>(self);
                     that->asked.push_back(std::uint64_t{leaf} << 32 | subleaf);
                     for (const Answer& answer : that->answers) {
                       if (answer.leaf == leaf && answer.subleaf == subleaf) {
                         return answer.result;
                       }
                     }
                     return {};
                   },
                   [](const void* self) -> std::uint32_t {
                     const auto* that = static_cast<const SyntheticProcessor*>(self);
                     ++that->xgetbv_count;
                     return that->xcr0_low;
                   },
                   [](const void* self) -> std::uint32_t {
                     return static_cast<const SyntheticProcessor*>(self)->number;
                   },
                   [](const void* self) -> bool {
                     return static_cast<const SyntheticProcessor*>(self)->cpuid_exists;
                   },
                   this};
}

}  // namespace ksomd::test
