#include <windows.h>

#include "support/guarded_memory.h"

namespace ksomd::test {

constexpr std::size_t guard = 65536;

GuardedMemory::GuardedMemory(std::size_t size, void* address) : size_((size + 4095) / 4096 * 4096) {
  void* const wish = address == nullptr ? nullptr : static_cast<unsigned char*>(address) - guard;
  mapped_ = size_ + 2 * guard;
  mapping_ = VirtualAlloc(wish, mapped_, MEM_RESERVE, PAGE_NOACCESS);
  if (mapping_ == nullptr) {
    return;
  }
  auto* const first = static_cast<unsigned char*>(mapping_) + guard;
  first_ = static_cast<unsigned char*>(VirtualAlloc(first, size_, MEM_COMMIT, PAGE_READWRITE));
}

GuardedMemory::~GuardedMemory() {
  if (mapping_ != nullptr) {
    VirtualFree(mapping_, 0, MEM_RELEASE);
  }
}

}  // namespace ksomd::test
