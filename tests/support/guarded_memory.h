// Memory between two pages that nothing may touch.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ksomd::test {

class GuardedMemory {
 public:
  // At least `size` bytes, rounded up to whole pages; at `address` (a multiple of 65536) if it is
  // not null and nothing else lies there.
  explicit GuardedMemory(std::size_t size, void* address = nullptr);
  ~GuardedMemory();
  GuardedMemory(const GuardedMemory&) = delete;
  GuardedMemory& operator=(const GuardedMemory&) = delete;

  explicit operator bool() const { return first_ != nullptr; }  // false: the system refused
  unsigned char* begin() const { return first_; }               // begin()[-1] faults
  unsigned char* end() const { return first_ + size_; }         // *end() faults
  std::size_t size() const { return size_; }

 private:
  unsigned char* first_ = nullptr;
  std::size_t size_;
};

}  // namespace ksomd::test
