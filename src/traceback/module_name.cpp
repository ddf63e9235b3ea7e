#include "traceback/module_name.h"

#include <algorithm>
#include <cstring>

#include "ksomd/traceback.h"
#include "platform/platform.h"

namespace ksomd::traceback {
namespace {

constexpr std::size_t longest_part = 255;
constexpr DWORD query_and_read = PROCESS_QUERY_INFORMATION | PROCESS_VM_READ;

// The full path of the module that holds an address.
bool module_path(std::uint64_t address, char* path, DWORD size) {
  MEMORY_BASIC_INFORMATION region;
  if (VirtualQuery(reinterpret_cast<const void*>(address), &region, sizeof region) == 0) {
    return false;
  }
  // Free memory belongs to no module. A null module would be taken for the program itself.
  if (region.State == MEM_FREE || region.AllocationBase == nullptr) {
    return false;
  }
  HANDLE process = OpenProcess(query_and_read, false, GetCurrentProcessId());
  if (process == nullptr) {
    return false;
  }
  auto* module = static_cast<HMODULE>(region.AllocationBase);
  const DWORD length = K32GetModuleFileNameExA(process, module, path, size);
  CloseHandle(process);
  path[size - 1] = '\0';  // some systems do not terminate a path that does not fit
  return length != 0;
}

}  // namespace

const char* file_name_of(const char* path) {
  const char* name = path;
  if (path[0] != '\0' && path[1] == ':') {
    name = path + 2;
  }
  for (const char* at = name; *at != '\0'; ++at) {
    if (*at == '/' || *at == '\\') {
      name = at + 1;
    }
  }
  return name;
}

void write_module_name(const char* path, char* name, std::size_t size) {
  if (size == 0) {
    return;
  }
  const char* file = file_name_of(path);
  const char* end = file + std::strlen(file);
  const char* last_dot = std::strrchr(file, '.');
  const char* dot = last_dot != nullptr ? last_dot : end;
  const std::size_t stem = std::min({static_cast<std::size_t>(dot - file), longest_part, size - 1});
  const std::size_t extension =
      std::min({static_cast<std::size_t>(end - dot), longest_part, size - 1 - stem});
  std::memcpy(name, file, stem);
  std::memcpy(name + stem, dot, extension);
  name[stem + extension] = '\0';
}

}  // namespace ksomd::traceback

void tbk_getModuleName(std::uint64_t address, char* name, std::uint32_t size, std::uint64_t* base) {
  if (base != nullptr) {
    *base = 0;
  }
  char path[260];
  ksomd::traceback::write_module_name(
      ksomd::traceback::module_path(address, path, sizeof path) ? path : "", name, size);
}
