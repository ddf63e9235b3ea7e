#include "support/operand.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace ksomd::test {
namespace {

constexpr unsigned char canary = 0xC5;
// Canaries that are looked at on either side; a stray store farther away meets a page that faults.
constexpr std::ptrdiff_t watched = 4096;

}  // namespace

unsigned char* Operand::place(std::size_t size, Place place, std::size_t distance) {
  // Emulators read whole vectors where a mask leaves a part out, so they need a vector's room.
  static const bool emulated = std::getenv("KSOMD_TEST_EMULATED") != nullptr;
  distance += emulated ? 64 : 0;
  size_ = size;
  first_ = place == Place::AtStart ? memory_.begin() + distance : memory_.end() - distance - size;
  unsigned char* const from = first_ - std::min(watched, first_ - memory_.begin());
  unsigned char* const to = first_ + size + std::min(watched, memory_.end() - (first_ + size));
  std::memset(from, canary, static_cast<std::size_t>(to - from));
  return first_;
}

bool Operand::intact() const {
  const auto all_canaries = [](const unsigned char* from, const unsigned char* to) {
    return std::all_of(from, to, [](unsigned char byte) { return byte == canary; });
  };
  const unsigned char* const end = first_ + size_;
  return all_canaries(first_ - std::min(watched, first_ - memory_.begin()), first_) &&
         all_canaries(end, end + std::min(watched, memory_.end() - end));
}

}  // namespace ksomd::test
