#include "cpu/machine.h"

#include <cstdlib>
#include <cstring>

#include "cpu/cache.h"

#ifdef _WIN32
#include <process.h>
#include <windows.h>
#else
#include <sys/mman.h>
#endif

namespace ksomd::test {

const char* disabled_names;
void (*on_disabled_names)();
std::jmp_buf* exit_target;

void install(const SyntheticProcessor* answers) {
  static const Processor real = hardware_processor;
  const Processor processor = answers != nullptr ? answers->processor() : real;
  // The library's own is constant: its page is made writable.
  const auto target = reinterpret_cast<std::uintptr_t>(&hardware_processor);
#ifdef _WIN32
  DWORD before = 0;
  VirtualProtect(reinterpret_cast<void*>(target), sizeof processor, PAGE_READWRITE, &before);
#else
  mprotect(reinterpret_cast<void*>(target & ~4095uL), 8192, PROT_READ | PROT_WRITE);
#endif
  std::memcpy(reinterpret_cast<void*>(target), &processor, sizeof processor);
  __libkso_cache_info = {};
  for (FeatureSet* set : {&__orvex_cpu_feature_indicator, &__orvex_vendor_feature_indicator}) {
    (*set)[0] = (*set)[1] = 0;
  }
}

}  // namespace ksomd::test

// The linker leads the library's calls of getenv and exit here. The Windows import library's own
// would come back to here, too.
extern "C" {
#ifdef _WIN32
static char* real_getenv(const char* name) {
  static char value[4096];
  std::size_t size = 0;
  return getenv_s(&size, value, sizeof value, name) == 0 && size != 0 ? value : nullptr;
}
[[noreturn]] static void real_exit(int status) {
  _cexit();
  _exit(status);
}
#else
char* real_getenv(const char* name) __asm__("__real_getenv");
[[noreturn]] void real_exit(int status) __asm__("__real_exit");
#endif

char* library_getenv(const char* name) __asm__("__wrap_getenv");
char* library_getenv(const char* name) {
  using namespace ksomd::test;
  if (std::strcmp(name, "ORVEX_ISA_DISABLE") != 0) {
    return real_getenv(name);
  }
  if (on_disabled_names != nullptr) {
    on_disabled_names();
  }
  return disabled_names != nullptr ? const_cast<char*>(disabled_names) : real_getenv(name);
}

[[noreturn]] void library_exit(int status) __asm__("__wrap_exit");
void library_exit(int status) {
  if (ksomd::test::exit_target != nullptr && status == 1) {
    std::longjmp(*ksomd::test::exit_target, 1);
  }
  real_exit(status);
}
}  // extern "C"
