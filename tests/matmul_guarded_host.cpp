#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>

#include "matmul_support.h"

namespace ksomd::test {

Guarded::Guarded(std::size_t bytes) {
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  size_ = (bytes + page - 1) / page * page + page;
  pages_ = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (pages_ == MAP_FAILED) {
    std::abort();
  }
  end_ = static_cast<char*>(pages_) + size_ - page;
  if (mprotect(end_, page, PROT_NONE) != 0) {
    std::abort();
  }
}

Guarded::~Guarded() {
  munmap(pages_, size_);
}

}  // namespace ksomd::test
