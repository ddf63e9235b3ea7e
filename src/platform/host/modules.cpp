// Regions of memory, the paths of modules, and the sections of ELF images.
#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/platform.h"

namespace {

constexpr std::uintptr_t page_size = 4096;
constexpr const char* own_file = "/proc/self/exe";

// Neighbouring pages with one protection.
struct Mapping {
  std::uintptr_t first, end;
  DWORD protection;
};

// An ELF module as it lies in memory: from its first loaded page to its last.
struct Module {
  std::uintptr_t address;  // the address that is looked up
  std::uintptr_t first, end;
  std::uintptr_t bias;  // what the loader added to the file's addresses
  const char* path;     // empty for the program itself
  Mapping segment;      // the one that holds the address; all 0 if none does
};

// The library never asks whether memory may be written.
DWORD protection_of(bool readable, bool executable) {
  if (!readable) {
    return executable ? PAGE_EXECUTE : PAGE_NOACCESS;
  }
  return executable ? PAGE_EXECUTE_READ : PAGE_READONLY;
}

int visit_module(dl_phdr_info* info, std::size_t, void* data) {
  auto& wanted = *static_cast<Module*>(data);
  std::uintptr_t first = UINTPTR_MAX;
  std::uintptr_t end = 0;
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const ElfW(Phdr) & segment = info->dlpi_phdr[i];
    if (segment.p_type == PT_LOAD) {
      const std::uintptr_t start = (info->dlpi_addr + segment.p_vaddr) & ~(page_size - 1);
      const std::uintptr_t stop =
          (info->dlpi_addr + segment.p_vaddr + segment.p_memsz + page_size - 1) & ~(page_size - 1);
      first = start < first ? start : first;
      end = stop > end ? stop : end;
      if (wanted.address >= start && wanted.address < stop) {
        wanted.segment = {
            start, stop,
            protection_of((segment.p_flags & PF_R) != 0, (segment.p_flags & PF_X) != 0)};
      }
    }
  }
  if (wanted.address < first || wanted.address >= end) {
    return 0;
  }
  wanted.first = first;
  wanted.end = end;
  wanted.bias = info->dlpi_addr;
  wanted.path = info->dlpi_name;
  return 1;
}

bool find_module(const void* address, Module& module) {
  module = {};
  module.address = reinterpret_cast<std::uintptr_t>(address);
  return dl_iterate_phdr(visit_module, &module) != 0;
}

class File {
 public:
  explicit File(const char* path) : file_(open(path, O_RDONLY | O_CLOEXEC)) {}
  ~File() {
    if (file_ >= 0) {
      close(file_);
    }
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  // Reads on from where the last call ended; 0 at the end of the file.
  template <std::size_t size>
  std::size_t read_next(char (&piece)[size]) const {
    const ssize_t count = read(file_, piece, size);
    return count > 0 ? static_cast<std::size_t>(count) : 0;
  }

  template <typename Record>
  bool read_at(std::uint64_t offset, Record& record) const {
    return pread(file_, &record, sizeof record, static_cast<off_t>(offset)) == sizeof record;
  }

  // Whether the file has `text` (at most 14 characters) and its terminator at `offset`.
  [[nodiscard]] bool has_text(std::uint64_t offset, const char* text) const {
    char found[16] = {};
    return pread(file_, found, sizeof found - 1, static_cast<off_t>(offset)) > 0 &&
           std::strcmp(found, text) == 0;
  }

 private:
  int file_;
};

// Reads a text file line by line, without the heap.
class Lines {
 public:
  explicit Lines(const char* path) : file_(path) {}

  // Reads the next line and truncates it to the buffer. False at the end of the file.
  bool next(char (&line)[256]) {
    std::size_t length = 0;
    for (;;) {
      if (at_ == filled_) {
        at_ = 0;
        filled_ = file_.read_next(piece_);
        if (filled_ == 0) {
          return false;
        }
      }
      const char next = piece_[at_++];
      if (next == '\n') {
        line[length] = '\0';
        return true;
      }
      if (length < sizeof line - 1) {
        line[length++] = next;
      }
    }
  }

 private:
  File file_;
  char piece_[1024];
  std::size_t at_ = 0;
  std::size_t filled_ = 0;
};

// Finds the mapping that holds an address in the kernel's list; false if there is none.
bool find_mapping(std::uintptr_t address, Mapping& mapping) {
  Lines maps("/proc/self/maps");
  char line[256];
  while (maps.next(line)) {
    char* rest = line;
    mapping.first = std::strtoul(rest, &rest, 16);
    mapping.end = std::strtoul(rest + 1, &rest, 16);
    mapping.protection = protection_of(rest[1] == 'r', rest[3] == 'x');
    if (address >= mapping.first && address < mapping.end) {
      return true;
    }
  }
  return false;
}

}  // namespace

std::size_t VirtualQuery(const void* address, MEMORY_BASIC_INFORMATION* region, std::size_t size) {
  *region = {};
  // The loader's list of modules is asked first, because the kernel's list takes longer to read.
  Module module;
  Mapping mapping;
  const bool in_module = find_module(address, module);
  if (in_module && module.segment.end != 0) {
    mapping = module.segment;
  } else if (!find_mapping(reinterpret_cast<std::uintptr_t>(address), mapping)) {
    region->State = MEM_FREE;
    return size;
  }
  region->BaseAddress = reinterpret_cast<void*>(mapping.first);
  region->AllocationBase = reinterpret_cast<void*>(in_module ? module.first : mapping.first);
  region->RegionSize = mapping.end - mapping.first;
  region->State = MEM_COMMIT;
  region->Protect = mapping.protection;
  return size;
}

DWORD K32GetModuleFileNameExA(HANDLE, HMODULE handle, char* path, DWORD size) {
  Module module;
  if (!find_module(handle, module) || handle != reinterpret_cast<HMODULE>(module.first)) {
    return 0;
  }
  if (module.path[0] == '\0') {
    const ssize_t length = readlink(own_file, path, size - 1);
    // NOLINTNEXTLINE(clang-analyzer-security.ArrayBound): the condition bounds it
    path[length > 0 && length < size ? length : 0] = '\0';
  } else {
    std::snprintf(path, size, "%s", module.path);
  }
  return static_cast<DWORD>(std::strlen(path));
}

bool ksomd::find_native_section(const void* image, const char* name, std::uint64_t& offset,
                                std::uint64_t& size) {
  Module module;
  if (!find_module(image, module) || image != reinterpret_cast<void*>(module.first) ||
      (module.segment.protection & (PAGE_READONLY | PAGE_EXECUTE_READ)) == 0) {
    return false;
  }
  const File file(module.path[0] != '\0' ? module.path : own_file);
  Elf64_Ehdr header;
  Elf64_Shdr names;
  // The file may have been replaced since it was loaded. Its header is compared with the one in
  // memory to notice that.
  if (!file.read_at(0, header) || std::memcmp(image, &header, sizeof header) != 0 ||
      header.e_shentsize != sizeof names ||
      !file.read_at(header.e_shoff + header.e_shstrndx * sizeof names, names)) {
    return false;
  }
  for (unsigned i = 0; i < header.e_shnum; ++i) {
    Elf64_Shdr section;
    if (!file.read_at(header.e_shoff + i * sizeof section, section)) {
      return false;
    }
    const std::uintptr_t address = module.bias + section.sh_addr;
    if ((section.sh_flags & SHF_ALLOC) != 0 && section.sh_type != SHT_NOBITS &&
        file.has_text(names.sh_offset + section.sh_name, name) && address >= module.first &&
        address < module.end && section.sh_size <= module.end - address) {
      offset = address - module.first;
      size = section.sh_size;
      return true;
    }
  }
  return false;
}
