// The library's pool allocator, on top of the C library's heap.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "pool/allocator.h"

namespace ksomd::pool {

// Blocks in the region of a pool: ten times as many for the sizes that programs ask for most.
constexpr std::int32_t region_capacity(std::uint64_t size) {
  const bool frequent = size == 40 || size == 48 || size == 96;
  return frequent ? 300000 : 30000;
}

struct PlatformRuntime {
  static void* allocate(std::size_t size) { return std::malloc(size); }
  static void* allocate_zeroed(std::size_t count, std::size_t size) {
    return std::calloc(count, size);
  }
  static void* resize(void* block, std::size_t size) { return std::realloc(block, size); }
  static void release(void* block) { std::free(block); }
  static std::int32_t capacity(std::uint64_t size) { return region_capacity(size); }
  static void step() {}
  static void wait() {}
};

// The allocator behind the exported routines.
[[gnu::visibility("hidden")]] extern Allocator<PlatformRuntime> process_allocator;

}  // namespace ksomd::pool
