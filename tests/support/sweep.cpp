#include "support/sweep.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string_view>

namespace ksomd::test {
namespace {

constexpr struct Agreed {
  std::string_view name;
  std::uint64_t digest;
} agreed[] = {
#include "digests.inc"
    {"", 0},
};

constexpr std::size_t full_factor = 20;

std::string_view variable(const char* name) {
  const char* const value = std::getenv(name);
  return value != nullptr ? value : "";
}

}  // namespace

std::uint64_t Random::next() {
  std::uint64_t z = state_ += 0x9E3779B97F4A7C15;
  z = (z ^ z >> 30) * 0xBF58476D1CE4E5B9;
  z = (z ^ z >> 27) * 0x94D049BB133111EB;
  return z ^ z >> 31;
}

double Random::number() {
  const auto fraction = static_cast<double>(next() >> 11) * 0x1p-53 + 1;
  const auto scale = static_cast<double>(std::uint64_t{1} << below(20));
  return one_in(2) ? fraction * scale : -fraction / scale;
}

std::uint64_t seed_of(std::uint64_t own) {
  static const std::string given{variable("KSOMD_TEST_SEED")};
  return given.empty() ? own : Random(std::strtoull(given.c_str(), nullptr, 10) ^ own).next();
}

bool full_length() {
  static const bool full = variable("KSOMD_TEST_LENGTH") == "full";
  return full;
}

bool Sweep::proving() {
#ifdef _WIN32
  constexpr bool usual = false;
#else
  constexpr bool usual = true;
#endif
  static const bool shared = variable("KSOMD_TEST_LENGTH") == "shared";
  return full_length() || (usual && !shared);
}

Sweep::Sweep(const char* name) : name_(name) {}

std::size_t Sweep::start_loop(std::size_t shared, std::size_t proof) {
  std::uint64_t own = ++loops_;
  for (const char letter : name_) {
    own = own * 131 + static_cast<unsigned char>(letter);
  }
  random = Random(seed_of(own));
  shared_ = shared;
  round_ = 0;
  return !proving() ? shared : full_length() ? proof * full_factor : proof;
}

void Sweep::results(const void* data, std::size_t size) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  for (std::size_t part = 0; round_ < shared_ && size > 0; bytes += part, size -= part) {
    std::uint64_t word = 0;
    part = std::min(size, sizeof word);
    std::memcpy(&word, bytes, part);
    digest_ = (digest_ ^ word) * 0x100000001B3;
    digest_ ^= digest_ >> 29;
  }
}

Sweep::~Sweep() {
  if (!variable("KSOMD_TEST_SEED").empty() || testing::Test::HasFailure()) {
    return;
  }
  if (const std::string file{variable("KSOMD_WRITE_DIGESTS")}; !file.empty()) {
    char row[100];
    std::snprintf(row, sizeof row, "{\"%s\", 0x%016" PRIx64 "},\n", name_.c_str(), digest_);
    std::ofstream(file, std::ios::app) << row;
    return;
  }
  const auto* const row = std::ranges::find(agreed, name_, &Agreed::name);
  EXPECT_TRUE(row != std::end(agreed) && row->digest == digest_)
      << "the results of " << name_ << " are not those that the host proved: see ./dev digests";
}

}  // namespace ksomd::test
