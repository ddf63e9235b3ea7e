#include "support/guarded_memory.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <sys/mman.h>
#endif

namespace ksomd::test {
namespace {

// The granule of a chosen address on Windows.
constexpr std::size_t guard = 65536;

#ifdef _WIN32
void* reserve(void* wish, std::size_t size) {
  return VirtualAlloc(wish, size, MEM_RESERVE, PAGE_NOACCESS);
}
bool open(void* first, std::size_t size) {
  return VirtualAlloc(first, size, MEM_COMMIT, PAGE_READWRITE) != nullptr;
}
void release(void* memory, std::size_t /*size*/) {
  VirtualFree(memory, 0, MEM_RELEASE);
}
#else
void* reserve(void* wish, std::size_t size) {
  const int flags =
      MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | (wish != nullptr ? MAP_FIXED_NOREPLACE : 0);
  void* const memory = mmap(wish, size, PROT_NONE, flags, -1, 0);
  return memory == MAP_FAILED ? nullptr : memory;
}
bool open(void* first, std::size_t size) {
  return mprotect(first, size, PROT_READ | PROT_WRITE) == 0;
}
void release(void* memory, std::size_t size) {
  munmap(memory, size);
}
#endif

}  // namespace

GuardedMemory::GuardedMemory(std::size_t size, void* address) : size_((size + 4095) / 4096 * 4096) {
  const std::size_t whole = size_ + 2 * guard;
  void* memory = address == nullptr ? address : static_cast<unsigned char*>(address) - guard;
  memory = memory == nullptr ? memory : reserve(memory, whole);
  memory = memory == nullptr ? reserve(nullptr, whole) : memory;
  auto* const first = static_cast<unsigned char*>(memory) + guard;
  first_ = memory != nullptr && open(first, size_) ? first : nullptr;
}

GuardedMemory::~GuardedMemory() {
  if (first_ != nullptr) {
    release(first_ - guard, size_ + 2 * guard);
  }
}

}  // namespace ksomd::test
