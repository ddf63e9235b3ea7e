#include <sys/mman.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

#include "traceback_platform.h"

namespace ksomd::test {
namespace {

constexpr std::size_t page_size = 4096;

}  // namespace

// Between pages without access, or the system would join it with a neighbour.
void* allocate_pages(std::size_t size) {
  auto* memory = static_cast<char*>(
      mmap(nullptr, size + 2 * page_size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  mprotect(memory + page_size, size, PROT_READ | PROT_WRITE);
  return memory + page_size;
}

void free_pages(void* memory, std::size_t size) {
  munmap(static_cast<char*>(memory) - page_size, size + 2 * page_size);
}

void forbid_access(void* memory, std::size_t size) {
  mprotect(memory, size, PROT_NONE);
}

std::string program_name() {
  char path[4096];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
  const std::string text(path, static_cast<std::size_t>(length));
  return text.substr(text.rfind('/') + 1);
}

std::string fault_handlers() {
  std::string state;
  for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP}) {
    struct sigaction action;
    sigaction(signal, nullptr, &action);
    state.append(reinterpret_cast<const char*>(&action.sa_sigaction), sizeof action.sa_sigaction);
    state += std::to_string(action.sa_flags);
  }
  sigset_t blocked;
  sigprocmask(SIG_BLOCK, nullptr, &blocked);
  for (int signal = 1; signal < 32; ++signal) {
    state += sigismember(&blocked, signal) != 0 ? '1' : '0';
  }
  return state;
}

bool walks_are_cheap() {
  return true;
}

void raise_access_violation() {
  // NOLINTNEXTLINE(clang-analyzer-core.FixedAddressDereference)
  *reinterpret_cast<volatile char*>(std::uintptr_t{8}) = 1;
}

}  // namespace ksomd::test
