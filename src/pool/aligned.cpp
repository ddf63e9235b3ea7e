#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "ksomd/pool.h"

// The address of the heap block is in the 8 bytes below the aligned block:
//
//   raw               result - 8   result = the first multiple of the alignment from raw + 8 on
//   | unused          | raw        | size bytes ...              | unused
//   |<---------------- size + 8 + alignment ---------------------------->|
namespace {

constexpr std::size_t link_size = sizeof(std::uintptr_t);

}  // namespace

void* ksomd_mm_malloc(std::size_t size, std::size_t alignment) {
  std::size_t total = 0;
  if (__builtin_add_overflow(size, link_size, &total) ||
      __builtin_add_overflow(total, alignment, &total)) {
    return nullptr;
  }
  auto* const raw = static_cast<std::byte*>(std::malloc(total));
  if (raw == nullptr) {
    return nullptr;
  }
  const std::uintptr_t step = alignment > link_size ? alignment : link_size;
  const auto link = reinterpret_cast<std::uintptr_t>(raw);
  const std::uintptr_t aligned = (link + link_size + step - 1) & ~(step - 1);
  std::byte* const result = raw + (aligned - link);
  std::memcpy(result - link_size, &link, link_size);
  return result;
}

void ksomd_mm_free(void* block) {
  if (block == nullptr) {
    return;
  }
  std::uintptr_t link = 0;
  std::memcpy(&link, static_cast<std::byte*>(block) - link_size, link_size);
  std::free(reinterpret_cast<void*>(link));
}
