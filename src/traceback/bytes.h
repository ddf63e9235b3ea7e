// A range of bytes that can be narrowed but never widened: a parser that takes its bytes from here
// stays inside, whatever the bytes say.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ksomd::traceback {

struct Bytes {
  const std::uint8_t* data = nullptr;
  std::size_t size = 0;

  // The part from `offset` on; empty if there is none.
  [[nodiscard]] Bytes from(std::size_t offset) const {
    return offset < size ? Bytes{data + offset, size - offset} : Bytes{};
  }
  [[nodiscard]] Bytes first(std::size_t count) const { return {data, count < size ? count : size}; }
};

// Little-endian number of 1 to 8 bytes at any alignment.
inline std::uint64_t read_unsigned(const std::uint8_t* bytes, unsigned width) {
  std::uint64_t value = 0;
  for (unsigned i = width; i-- > 0;) {
    value = value << 8 | bytes[i];
  }
  return value;
}

// The same with the sign extended to 64 bits.
inline std::uint64_t read_signed(const std::uint8_t* bytes, unsigned width) {
  const std::uint64_t sign = std::uint64_t{1} << (8 * width - 1);
  return (read_unsigned(bytes, width) ^ sign) - sign;
}

}  // namespace ksomd::traceback
