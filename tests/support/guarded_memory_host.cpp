#include <sys/mman.h>

#include "support/guarded_memory.h"

namespace ksomd::test {

// The guard before a chosen address takes a whole granule, as on Windows.
constexpr std::size_t guard = 65536;

GuardedMemory::GuardedMemory(std::size_t size, void* address) : size_((size + 4095) / 4096 * 4096) {
  void* const wish = address == nullptr ? nullptr : static_cast<unsigned char*>(address) - guard;
  const int fixed = address == nullptr ? 0 : MAP_FIXED_NOREPLACE;
  mapped_ = size_ + 2 * guard;
  mapping_ =
      mmap(wish, mapped_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | fixed, -1, 0);
  if (mapping_ == MAP_FAILED) {
    mapping_ = nullptr;
    return;
  }
  auto* const first = static_cast<unsigned char*>(mapping_) + guard;
  if (mprotect(first, size_, PROT_READ | PROT_WRITE) == 0) {
    first_ = first;
  }
}

GuardedMemory::~GuardedMemory() {
  if (mapping_ != nullptr) {
    munmap(mapping_, mapped_);
  }
}

}  // namespace ksomd::test
