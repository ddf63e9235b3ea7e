#include "ksomd/pool.h"

#include <cstdint>
#include <cstdio>
#include <vector>

#include "sections.h"

namespace {

// 30000 nodes in a row, and the whole region again once all of them are free.
void show_recycling() {
  const std::size_t sizes[] = {100, 0};
  __i_pool_init(sizes, KSOMD_POOL_MALLOC);
  constexpr int capacity = 30000;
  std::vector<char*> nodes;
  nodes.reserve(capacity);
  for (int i = 0; i < capacity; ++i) {
    nodes.push_back(static_cast<char*>(__i_pool_malloc(100)));
  }
  std::printf("  %d blocks of 100 bytes lie %td bytes apart, %td bytes from first to last\n",
              capacity, nodes[1] - nodes[0], nodes.back() - nodes.front());
  for (char* node : nodes) {
    __i_pool_free(node);
  }
  void* const next = __i_pool_malloc(100);
  std::printf("  all of them freed, the next block is %s\n",
              next == nodes.front() ? "the first one again" : "somewhere else");
  __i_pool_free(next);
}

void show_aligned() {
  for (const std::size_t alignment : {4u, 64u, 4096u}) {
    void* const block = ksomd_mm_malloc(100, alignment);
    std::printf("  100 bytes aligned to %zu: the lowest 13 bits of the address are 0x%04zx\n",
                alignment,
                static_cast<std::size_t>(reinterpret_cast<std::uintptr_t>(block)) & 0x1FFF);
    ksomd_mm_free(block);
  }
}

}  // namespace

void tour::show_pool() {
  std::printf("\nMemory pools and aligned allocation\n");
  show_recycling();
  show_aligned();
}
