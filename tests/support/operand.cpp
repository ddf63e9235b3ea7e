#include "support/operand.h"

#include <algorithm>
#include <cstdlib>

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
  first_ = place == Place::AtStart ? memory_.begin() + distance : memory_.end() - distance - size;
  end_ = first_ + size;
  from_ = first_ - std::min(watched, first_ - memory_.begin());
  to_ = end_ + std::min(watched, memory_.end() - end_);
  std::fill(from_, to_, canary);
  return first_;
}

bool Operand::intact() const {
  const auto is_canary = [](unsigned char byte) { return byte == canary; };
  return std::all_of(from_, first_, is_canary) && std::all_of(end_, to_, is_canary);
}

}  // namespace ksomd::test
