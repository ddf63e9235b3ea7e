#include "traceback_platform.h"

namespace ksomd::test {

void* allocate_pages(std::size_t size) {
  return VirtualAlloc(nullptr, size, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
}

void free_pages(void* memory, std::size_t) {
  VirtualFree(memory, 0, MEM_RELEASE);
}

void forbid_access(void* memory, std::size_t size) {
  DWORD before;
  VirtualProtect(memory, size, PAGE_NOACCESS, &before);
}

std::string program_name() {
  char path[MAX_PATH];
  GetModuleFileNameA(nullptr, path, sizeof path);
  const std::string text(path);
  return text.substr(text.rfind('\\') + 1);
}

// Setting the filter is the one way to ask for it.
std::string fault_handlers() {
  const LPTOP_LEVEL_EXCEPTION_FILTER filter = SetUnhandledExceptionFilter(nullptr);
  SetUnhandledExceptionFilter(filter);
  return std::to_string(reinterpret_cast<std::uintptr_t>(filter));
}

bool walks_are_cheap() {
  return false;
}

void raise_access_violation() {
  *reinterpret_cast<volatile char*>(std::uintptr_t{8}) = 1;
}

}  // namespace ksomd::test
