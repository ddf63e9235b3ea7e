// A PE image in memory, with headers on its first page and a trace section on its second one.
#pragma once

#include "support/guarded_memory.h"
#include "traceback/sample.h"

namespace ksomd::test {

class Image {
 public:
  Image() {
    put(0, image_headers({".text", ".trace"}, 240));
    const Data trace =
        block(code(), 16, {"dir\\file.f90"},
              routine_item(0x0C, code(), "routine") + item(0x05, 42, 2) + item(0x07, 15, 1)) +
        block(code() + 16, 16, {"next/" + std::string(300, 'f')},
              routine_item(0x0C, code() + 16, std::string(300, 'n')) + item(0x07, 15, 1));
    put(size_at, number(trace.size(), 4) + number(4096, 4));
    put(4096, trace);
  }

  void put(std::size_t at, const Data& data) { std::ranges::copy(data, memory_.begin() + at); }
  [[nodiscard]] std::uint8_t* begin() const { return memory_.begin(); }
  [[nodiscard]] std::uint64_t code() const {
    return reinterpret_cast<std::uint64_t>(memory_.begin()) + 0x2000;
  }

  // Where the headers keep the trace section's size and, 4 bytes on, its place.
  static constexpr std::size_t size_at = 0x48 + 24 + 240 + 40 + 8;

 private:
  GuardedMemory memory_{0x3000};
};

}  // namespace ksomd::test
