#include "support/entry.h"

#include <cstdio>
#include <cstdlib>

#ifdef _WIN32
#include <windows.h>
#else
#include <dlfcn.h>
#endif

namespace ksomd::test {

struct Entry {
  const char* name;
  const void* address;
  bool asked = false;
};

// Generated from the export list: static Entry exported_entries[].
#include "exported_entries.inc"

namespace {

// In the shared library beside the tests; null if it has no such routine.
const void* find_exported(const char* name) {
#ifdef _WIN32
  static const HMODULE library = LoadLibraryA("..\\libksomd.dll");
  return library == nullptr ? nullptr
                            : reinterpret_cast<const void*>(GetProcAddress(library, name));
#else
  static void* const library = dlopen("../libksomd.so", RTLD_NOW | RTLD_LOCAL);
  return library == nullptr ? nullptr : dlsym(library, name);
#endif
}

}  // namespace

const void* find_entry(std::string_view name) {
  static const bool shared = std::getenv("KSOMD_TEST_SHARED") != nullptr;
  for (Entry& entry : exported_entries) {
    if (entry.name == name) {
      __atomic_store_n(&entry.asked, true, __ATOMIC_RELAXED);
      if (const void* found = shared ? find_exported(entry.name) : entry.address) {
        return found;
      }
    }
  }
  std::fprintf(stderr, "no exported routine is named %.*s\n", static_cast<int>(name.size()),
               name.data());
  std::abort();
}

std::vector<std::string_view> entries_with_prefix(std::string_view prefix) {
  std::vector<std::string_view> names;
  for (const Entry& entry : exported_entries) {
    if (std::string_view(entry.name).starts_with(prefix)) {
      names.emplace_back(entry.name);
    }
  }
  return names;
}

void report_entries() {
  const char* const path = std::getenv("KSOMD_ENTRY_REPORT");
  if (std::FILE* const out = path != nullptr ? std::fopen(path, "w") : nullptr; out != nullptr) {
    for (const Entry& entry : exported_entries) {
      entry.asked ? std::fprintf(out, "%s\n", entry.name) : 0;
    }
    std::fclose(out);
  }
}

}  // namespace ksomd::test
