#include "support/entry.h"

#include <cstdio>
#include <cstdlib>

#include "support/shared_library.h"

namespace ksomd::test {

// Generated from the export list.
struct Entry {
  const char* name;
  const void* address;
};
extern const Entry exported_entries[];
extern const int exported_entry_count;

namespace {

std::vector<bool>& asked_for() {
  static std::vector<bool> asked(static_cast<std::size_t>(exported_entry_count));
  return asked;
}

}  // namespace

const void* find_entry(std::string_view name) {
  static const bool shared = std::getenv("KSOMD_TEST_SHARED") != nullptr;
  for (int i = 0; i < exported_entry_count; ++i) {
    const Entry& entry = exported_entries[i];
    if (entry.name == name) {
      asked_for()[static_cast<std::size_t>(i)] = true;
      const void* const address = shared ? find_exported(entry.name) : entry.address;
      if (address != nullptr) {
        return address;
      }
    }
  }
  std::fprintf(stderr, "no exported routine is named %.*s\n", static_cast<int>(name.size()),
               name.data());
  std::abort();
}

std::vector<std::string_view> entries_with_prefix(std::string_view prefix) {
  std::vector<std::string_view> names;
  for (int i = 0; i < exported_entry_count; ++i) {
    if (std::string_view(exported_entries[i].name).starts_with(prefix)) {
      names.emplace_back(exported_entries[i].name);
    }
  }
  return names;
}

void report_entries() {
  const char* const path = std::getenv("KSOMD_ENTRY_REPORT");
  std::FILE* const out = path != nullptr ? std::fopen(path, "w") : nullptr;
  if (out == nullptr) {
    return;
  }
  for (int i = 0; i < exported_entry_count; ++i) {
    if (asked_for()[static_cast<std::size_t>(i)]) {
      std::fprintf(out, "%s\n", exported_entries[i].name);
    }
  }
  std::fclose(out);
}

}  // namespace ksomd::test
