#include <windows.h>

#include <cstdlib>

#include "matmul_support.h"

namespace ksomd::test {

Guarded::Guarded(std::size_t bytes) {
  SYSTEM_INFO system;
  GetSystemInfo(&system);
  const std::size_t page = system.dwPageSize;
  size_ = (bytes + page - 1) / page * page + page;
  pages_ = VirtualAlloc(nullptr, size_, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
  if (pages_ == nullptr) std::abort();
  end_ = static_cast<char*>(pages_) + size_ - page;
  DWORD before = 0;
  if (VirtualProtect(end_, page, PAGE_NOACCESS, &before) == 0) std::abort();
}

Guarded::~Guarded() {
  VirtualFree(pages_, 0, MEM_RELEASE);
}

}  // namespace ksomd::test
