// Regions, modules and their trace sections, as the host's layer finds them.
#include <dlfcn.h>
#include <elf.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>

#include "traceback/entries.h"
#include "traceback/image.h"
#include "traceback/image_host.h"

namespace ksomd::test {
namespace {

Found pc_info(std::uint64_t pc, std::uint64_t bias = 0) {
  ksomd_pc_info info[2], same;
  std::memset(info, '#', sizeof info);
  EXPECT_EQ(get_pc_info_pie(info, pc, bias != 0 ? &bias : nullptr, "ignored"), 0u);
  EXPECT_EQ(get_pc_info(&same, pc, bias, nullptr), 0u);
  const Found found{info->routine, info->file, info->line};
  EXPECT_EQ(found, (Found{same.routine, same.file, same.line}));
  EXPECT_EQ(info[1].routine[0], '#');
  return found;
}

TEST(PcInfo, IsThatOfTheImage) {
  const Image image;
  const Found first{"routine", "dir\\file.f90", "42"};
  EXPECT_EQ(pc_info(image.code()), first);
  EXPECT_EQ(pc_info(image.code() + 15), first);
  const Found second{std::string(259, 'n'), "next/" + std::string(254, 'f'), "0"};
  EXPECT_EQ(pc_info(image.code() + 16), second);
  EXPECT_EQ(pc_info(image.code() + 32), Found{});
  // A block that starts at the bias stays where it is, one below it moves.
  EXPECT_EQ(pc_info(image.code(), image.code()), first);
  EXPECT_EQ(pc_info(image.code(), image.code() + 1), Found{});
}

TEST(PcInfo, IsNoneWhereTheSectionIsNotInTheImage) {
  const struct {
    std::size_t at;
    std::uint32_t value, size, other;
  } rows[] = {
      {0, 0x4D5A, 0, 0x3000},                       // no image
      {Image::size_at, 25, 0, 0x3000},              // smaller than a block's header
      {Image::size_at, 26, 26, 0x3000},             //
      {Image::size_at, 0x2000, 0x2000, 0x3000},     // up to the image's end
      {Image::size_at, 0x2001, 0, 0x3000},          // beyond it
      {Image::size_at + 4, 0x3000, 0, 0x3000},      //
      {Image::size_at + 4, 0x7FFFF000, 0, 0x3000},  //
      {Image::size_at, 0x2000, 0, 0x2000},          // half of it in another allocation
      {Image::size_at, 30, 0, 0x1000},              // all of it
      {Image::size_at, 30, 0, 0},                   // all but the headers
  };
  for (const auto& row : rows) {
    Image image;
    image.put(row.at, number(row.value, 4));
    mprotect(image.begin() + row.other, row.other < 0x3000 ? 4096 : 0, PROT_READ);
    EXPECT_EQ(trace_section_of(address_of(image.begin())).size, row.size) << &row - rows;
  }
}

// ---- ELF files ----------------------------------------------------------------------------------

// The file of the library that belongs to the traceback's test program.
class Elf {
 public:
  Elf() {
    const auto place = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    std::ifstream file(place / "traceback_library.so", std::ios::binary);
    bytes.assign(std::istreambuf_iterator<char>(file), {});
    for (unsigned i = 0; i < header().e_phnum; ++i) {
      auto& segment = at<Elf64_Phdr>(header().e_phoff + i * sizeof(Elf64_Phdr));
      end = segment.p_type == PT_LOAD ? (segment.p_vaddr + segment.p_memsz + 4095) & ~4095ull : end;
      other_segment = segment.p_type == PT_GNU_EH_FRAME ? &segment : other_segment;
    }
    names = header().e_shoff + header().e_shstrndx * sizeof(Elf64_Shdr);
    for (trace = header().e_shoff;; trace += sizeof(Elf64_Shdr)) {
      const auto name = at<Elf64_Shdr>(names).sh_offset + at<Elf64_Shdr>(trace).sh_name;
      if (std::strcmp(&at<char>(name), ".trace") == 0) {
        break;
      }
    }
  }
  template <class Record>
  Record& at(std::uint64_t offset) {
    return *reinterpret_cast<Record*>(bytes.data() + offset);
  }
  Elf64_Ehdr& header() { return at<Elf64_Ehdr>(0); }
  void put(std::uint64_t offset, std::size_t width, std::uint64_t value) {
    std::memcpy(bytes.data() + offset, &value, width);
  }
  void write(const std::string& path) const {
    std::ofstream(path, std::ios::binary).write(bytes.data(), std::ssize(bytes));
  }

  std::vector<char> bytes;
  std::uint64_t end = 0, names = 0, trace = 0;  // end of the module in memory, two section headers
  Elf64_Phdr* other_segment = nullptr;
};

// A changed library, loaded; its file is gone.
struct Loaded {
  Loaded(const Elf& elf, const std::string& name)
      : path(testing::TempDir() + std::to_string(getpid()) + name + ".so") {
    elf.write(path);
    handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    unlink(path.c_str());
    Dl_info info = {};
    dladdr(dlsym(handle, "library_entry"), &info);
    base = static_cast<std::uint8_t*>(info.dli_fbase);
  }
  ~Loaded() {
    unlink(path.c_str());
    dlclose(handle);
  }
  Loaded(const Loaded&) = delete;
  Loaded& operator=(const Loaded&) = delete;

  std::string path;
  void* handle;
  std::uint8_t* base;
};

#define FIELD(record, member) offsetof(record, member), sizeof(record::member)

TEST(ElfSection, IsFoundByTheFileThatWasLoaded) {
  const Elf built;
  Elf probe;
  const std::uint64_t trace = built.trace, end = built.end, file_size = built.bytes.size();
  const std::uint64_t name = probe.at<Elf64_Shdr>(trace).sh_name;
  const std::uint64_t index = (trace - probe.header().e_shoff) / sizeof(Elf64_Shdr);
  const std::uint64_t place = probe.at<Elf64_Shdr>(trace).sh_addr;
  const struct {
    std::uint64_t record, offset, width, value;
    bool found;
  } changes[] = {
      {0, FIELD(Elf64_Ehdr, e_shentsize), 64, true},
      {0, FIELD(Elf64_Ehdr, e_shentsize), 63, false},
      {0, FIELD(Elf64_Ehdr, e_shentsize), 65, false},
      {0, FIELD(Elf64_Ehdr, e_shstrndx), 0, false},
      {0, FIELD(Elf64_Ehdr, e_shstrndx), 0xFFF0, false},
      {0, FIELD(Elf64_Ehdr, e_shoff), file_size, false},
      {0, FIELD(Elf64_Ehdr, e_shnum), index, false},
      {0, FIELD(Elf64_Ehdr, e_shnum), index + 1, true},
      {trace, FIELD(Elf64_Shdr, sh_flags), SHF_WRITE, false},
      {trace, FIELD(Elf64_Shdr, sh_type), SHT_NOBITS, false},
      {trace, FIELD(Elf64_Shdr, sh_name), name + 1, false},
      {trace, FIELD(Elf64_Shdr, sh_addr), -std::uint64_t{4096}, false},
      {trace, FIELD(Elf64_Shdr, sh_addr), end, false},
      {trace, FIELD(Elf64_Shdr, sh_addr), end - 1, false},
      {trace, FIELD(Elf64_Shdr, sh_addr), 0, true},
      {trace, FIELD(Elf64_Shdr, sh_size), end - place, true},
      {trace, FIELD(Elf64_Shdr, sh_size), end - place + 1, false},
      {built.names, FIELD(Elf64_Shdr, sh_offset), file_size - name, true},  // the file's last bytes
      {built.names, FIELD(Elf64_Shdr, sh_offset), file_size - name + 7, false},
  };
  const struct {
    std::size_t size;
    std::uint8_t flags;
    bool found;
  } replaced[] = {{0, 0, false},
                  {63, 0, false},
                  {built.names + 63, 0, false},
                  {built.names + 64, 0, true},
                  {file_size, 1, false}};
  std::uint64_t offset = 0, size = 0;
  for (const auto& row : changes) {
    Elf elf;
    elf.put(row.record + row.offset, row.width, row.value);
    elf.bytes.insert(elf.bytes.end(), {'.', 't', 'r', 'a', 'c', 'e', '\0'});
    const Loaded library(elf, ".change" + std::to_string(&row - changes));
    elf.write(library.path);
    ASSERT_EQ(find_native_section(library.base, ".trace", offset, size), row.found)
        << &row - changes;
    EXPECT_FALSE(find_native_section(library.base + 1, ".trace", offset, size));
    char path[260];
    EXPECT_EQ(K32GetModuleFileNameExA(nullptr, library.base + 1, path, sizeof path), 0u);
    const Bytes section = trace_section_of(address_of(library.base));
    const auto& wanted = elf.at<Elf64_Shdr>(trace);
    EXPECT_TRUE(row.found ? section.data == library.base + wanted.sh_addr &&
                                section.size == wanted.sh_size
                          : section.data == nullptr)
        << &row - changes;
  }
  for (const auto& row : replaced) {
    Elf elf;
    const Loaded library(elf, ".replaced" + std::to_string(&row - replaced));
    elf.put(FIELD(Elf64_Ehdr, e_flags), row.flags);
    elf.bytes.resize(row.size);
    elf.write(library.path);
    EXPECT_EQ(find_native_section(library.base, ".trace", offset, size), row.found) << row.size;
  }
}

// ---- regions ------------------------------------------------------------------------------------

MEMORY_BASIC_INFORMATION region_of(std::uintptr_t address) {
  MEMORY_BASIC_INFORMATION region;
  EXPECT_EQ(VirtualQuery(reinterpret_cast<void*>(address), &region, sizeof region), sizeof region);
  return region;
}

// The kernel's list is the oracle. The module behind it has a long name, a hole, and then a segment
// of any rights.
TEST(Regions, AreThoseOfTheKernelAndTheLoader) {
  for (unsigned rights = 0; rights < 8; ++rights) {
    Elf elf;
    const std::uint64_t more = elf.end + 0x3000;
    *elf.other_segment = {PT_LOAD, rights, 0, more, more, 0, 0x800, 4096};
    elf.at<Elf64_Shdr>(elf.trace).sh_addr = more;
    elf.at<Elf64_Shdr>(elf.trace).sh_size = 26;
    const Loaded library(elf, std::string(200, 'm') + std::to_string(rights));
    const auto own = reinterpret_cast<std::uintptr_t>(library.base);
    elf.write(library.path);
    EXPECT_EQ(trace_section_of(own).size, (rights & PF_R) != 0 ? 26 : 0) << rights;
    std::ifstream maps("/proc/self/maps");
    std::map<std::string, std::uintptr_t> modules;
    std::uintptr_t previous_end = 0;
    for (std::string line; std::getline(maps, line);) {
      std::uintptr_t first, end;
      std::string allowed, skipped, path;
      char dash;
      std::istringstream fields(line);
      fields >> std::hex >> first >> dash >> end >> allowed >> skipped >> skipped >> skipped >>
          path;
      const std::uintptr_t base = modules.emplace(path, first).first->second;
      if (previous_end != 0 && previous_end != first) {
        EXPECT_TRUE(region_of(previous_end).State == MEM_FREE && module_of(previous_end).empty());
      }
      previous_end = path.starts_with("/") ? end : 0;
      for (const std::uintptr_t address : {first, end - 1}) {
        SCOPED_TRACE(line);
        const bool readable = allowed[0] == 'r', executable = allowed[2] == 'x';
        const DWORD protection = readable ? (executable ? PAGE_EXECUTE_READ : PAGE_READONLY)
                                          : (executable ? PAGE_EXECUTE : PAGE_NOACCESS);
        const MEMORY_BASIC_INFORMATION region = region_of(address);
        EXPECT_TRUE(region.State == MEM_COMMIT && region.Protect == protection);
        EXPECT_EQ(is_code(address), executable);
        EXPECT_LT(address - address_of(region.BaseAddress), region.RegionSize);
        // The kernel joins a module's last pages with others behind them.
        const bool in_library = address - own < more + 4096;
        if (in_library || path.starts_with("/")) {
          EXPECT_EQ(address_of(region.AllocationBase), in_library ? own : base);
          // Some are loaded by a shorter name.
          const std::string module = module_of(address), full = in_library ? library.path : path;
          const std::string name = full.substr(full.rfind('/') + 1);
          EXPECT_TRUE(in_library ? name == module : !module.empty() && name.starts_with(module));
        }
      }
    }
  }
}

}  // namespace
}  // namespace ksomd::test
