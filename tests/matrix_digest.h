// Digests of results: what the parts of the digest program share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace ksomd::test {

// The four rounding modes, as MXCSR numbers them.
inline constexpr int rounding_modes = 4;

// FNV-1a over bytes, eight at a time.
class Digest {
 public:
  void add(const void* data, std::size_t size) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    for (; size > 0;) {
      std::uint64_t word = 0;
      const std::size_t part = size < sizeof word ? size : sizeof word;
      std::memcpy(&word, bytes, part);
      state_ = (state_ ^ word) * 0x100000001B3;
      state_ ^= state_ >> 29;
      bytes += part;
      size -= part;
    }
  }
  template <class Value>
  void add(const Value& value) {
    add(&value, sizeof value);
  }
  std::uint64_t value() const { return state_; }

 private:
  std::uint64_t state_ = 0xCBF29CE484222325;
};

class DigestRandom {
 public:
  explicit DigestRandom(std::uint64_t seed) : state_(seed) {}
  std::uint64_t next() {  // splitmix64
    std::uint64_t z = state_ += 0x9E3779B97F4A7C15;
    z = (z ^ z >> 30) * 0xBF58476D1CE4E5B9;
    z = (z ^ z >> 27) * 0x94D049BB133111EB;
    return z ^ z >> 31;
  }
  std::uint64_t below(std::uint64_t limit) { return next() % limit; }
  // A finite number of moderate magnitude, so mixed that another order of a sum shows.
  double number() {
    const auto fraction = static_cast<double>(next() >> 11) * 0x1p-53 + 1;
    const double scale = static_cast<double>(std::uint64_t{1} << below(20));
    return (next() & 1) != 0 ? fraction * scale : -fraction / scale;
  }

 private:
  std::uint64_t state_;
};

// Runs call() in a rounding mode and adds to the digest which exceptions it raised.
template <class Call>
void in_mode(Digest& digest, int mode, Call call) {
  constexpr unsigned masked = 0x1F80;
  constexpr unsigned flags = 0x3D;  // all but the denormal operand, which emulators judge otherwise
  __builtin_ia32_ldmxcsr(masked | static_cast<unsigned>(mode) << 13);
  call();
  const unsigned raised = __builtin_ia32_stmxcsr() & flags;
  __builtin_ia32_ldmxcsr(masked);
  digest.add(raised);
}

// One line of output: a name that says what was computed, and the digest of it.
void print_digest(const std::string& name, const Digest& digest);

// `effort` scales how much is computed.
void digest_matmul(int effort);
void digest_vector(int effort);
void digest_conversions(int effort);
void digest_memory(int effort);

}  // namespace ksomd::test
