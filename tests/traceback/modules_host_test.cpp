// Regions, modules and their trace sections, as the host's layer finds them.
#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
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

namespace ksomd::test {
namespace {

TEST(PcInfo, IsThatOfTheImage) {
  const Image image;
  for (std::uint64_t pc = image.code() - 1; pc < image.code() + 34; ++pc) {
    for (const std::uint64_t bias : {std::uint64_t{0}, image.code(), image.code() + 1}) {
      ksomd_pc_info info = {}, same = {};
      EXPECT_EQ(get_pc_info_pie(&info, pc, bias != 0 ? &bias : nullptr, "ignored"), 0u);
      EXPECT_EQ(get_pc_info(&same, pc, bias, nullptr), 0u);
      EXPECT_EQ(joined(info.routine, info.file, info.line),
                Reference::find({image.memory.begin() + 4096, 4096}, pc, bias));
      EXPECT_EQ(std::memcmp(&info, &same, sizeof info), 0);
    }
  }
}

// The section counts where all of it can be read and belongs to the image: protecting one of the
// pages makes that another allocation.
TEST(PcInfo, IsNoneWhereTheSectionIsNotInTheImage) {
  for (const std::uint64_t place : {0x1000u, 0x3000u, 0x7FFFF000u}) {
    for (const std::uint64_t size : {25u, 26u, 0x1000u, 0x2000u, 0x2001u}) {
      for (const std::uint64_t other : {0u, 0x1000u, 0x2000u, 0x3000u}) {
        Image image;
        image.put(Image::size_at, number(size, 4) + number(place, 4));
        mprotect(image.memory.begin() + other, other < 0x3000 ? 4096 : 0, PROT_READ);
        const bool inside = place + size <= std::max(other, std::uint64_t{0x1000});
        EXPECT_EQ(trace_section_of(address_of(image.memory.begin())).size,
                  inside && size >= 26 ? size : 0)
            << place << ' ' << size << ' ' << other;
      }
    }
  }
}

// The library of the traceback's test program, with a section table of its own behind it, a long
// name, and a segment of any rights behind a hole. It is loaded, and a copy is in its file's place.
struct Library {
  static constexpr std::uint64_t place = 0x400000, end = place + 0x1000;

  explicit Library(std::uint32_t rights) {
    const auto folder = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    std::ifstream built(folder / "traceback_library.so", std::ios::binary);
    file.assign(std::istreambuf_iterator<char>(built), {});
    const std::uint64_t table = (file.size() + 7) & ~7ull, names = table + 3 * sizeof *rows;
    file.resize(table);
    file.append(names - table, '\0').append("\0.trace", 8);
    header = reinterpret_cast<Elf64_Ehdr*>(file.data());
    header->e_shoff = table;
    header->e_shnum = 3;
    header->e_shstrndx = 2;
    rows = reinterpret_cast<Elf64_Shdr*>(file.data() + table);
    rows[1] = {1, SHT_PROGBITS, SHF_ALLOC, place, 0, 26, 0, 0, 0, 0};
    rows[2].sh_offset = names;
    auto* segment = reinterpret_cast<Elf64_Phdr*>(file.data() + header->e_phoff);
    while (segment->p_type != PT_GNU_EH_FRAME) {
      ++segment;
    }
    *segment = {PT_LOAD, rights, 0, place, place, 0x800, 0x800, 4096};
    write(file.size());
    handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    Dl_info info = {};
    dladdr(dlsym(handle, "library_entry"), &info);
    base = static_cast<char*>(info.dli_fbase);
    write(file.size());
  }
  ~Library() { unlink(path.c_str()), dlclose(handle); }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;
  void write(std::uint64_t size) const {
    unlink(path.c_str());
    std::ofstream(path, std::ios::binary).write(file.data(), static_cast<std::streamsize>(size));
  }

  const std::string name = std::string(200, 'm') + std::to_string(getpid()) + ".so";
  const std::string path = testing::TempDir() + name;
  std::string file;
  void* handle;
  char* base;
  Elf64_Ehdr* header;
  Elf64_Shdr* rows;
};

TEST(ElfSection, IsFoundByTheFileThatWasLoaded) {
  Library library(PF_R);
  const Elf64_Ehdr& header = *library.header;
  const Elf64_Shdr &row = library.rows[1], &names = library.rows[2], good = names;
  const std::uint64_t table = header.e_shoff, size = library.file.size();
  const char* const text = library.file.data() + good.sh_offset + 1;
  SectionPlace found;
  const auto finds = [&](std::ptrdiff_t at) {
    return find_native_section(library.base + at, ".trace", found.offset, found.size);
  };
  mprotect(library.base, 4096, PROT_READ | PROT_WRITE);
  constexpr std::uint64_t end = Library::end, places[][2] = {{end - 1, 1},
                                                             {end, 0},
                                                             {0, end},
                                                             {-4096ull, 26},
                                                             {Library::place, 4096}};
  for (const auto& [address, bytes] : places) {
    library.rows[1].sh_addr = address;
    library.rows[1].sh_size = bytes;
    for (std::uint64_t at = 0; at < size; at += at == 63 ? table - 63 : 1) {
      // Of the header first only the file's, which makes it another file.
      char other = 0, &loaded = at < sizeof header ? library.base[at] : other;
      for (const int change : {1, 8, 9, 0xFF, 0}) {
        SCOPED_TRACE(testing::Message() << address << ", byte " << at << " ^ " << change);
        const char before = library.file[at];
        library.file[at] = static_cast<char>(before ^ change);
        library.write(size);
        EXPECT_FALSE(at < sizeof header && change != 0 && finds(0));
        loaded = library.file[at];
        const bool wanted = header.e_shentsize == 64 && header.e_shoff == table &&
                            header.e_shnum > 1 && header.e_shstrndx == 2 &&
                            names.sh_offset == good.sh_offset && row.sh_name == 1 &&
                            std::strcmp(text, ".trace") == 0 && row.sh_type != SHT_NOBITS &&
                            (row.sh_flags & SHF_ALLOC) != 0 && row.sh_addr < end &&
                            row.sh_size <= end - row.sh_addr;
        ASSERT_EQ(finds(0), wanted);
        ASSERT_TRUE(!wanted || (found.offset == row.sh_addr && found.size == row.sh_size));
        loaded = library.file[at] = before;
      }
    }
  }
  EXPECT_FALSE(finds(1));
  EXPECT_EQ(K32GetModuleFileNameExA(nullptr, library.base + 1, std::string(260, ' ').data(), 260),
            0u);
  for (std::uint64_t cut = 2; cut < size; cut += cut < size - 64 && cut > 256 ? 64 : 1) {
    library.write(size - cut);
    EXPECT_FALSE(finds(0)) << cut;
  }
}

// The kernel's list is the oracle.
TEST(Regions, AreThoseOfTheKernelAndTheLoader) {
  for (std::uint32_t rights = 0; rights < 8; ++rights) {
    const Library library(rights);
    EXPECT_EQ(module_of(address_of(library.base)), library.name);
    const Bytes section = trace_section_of(address_of(library.base));
    const bool readable = (rights & PF_R) != 0;
    EXPECT_EQ(section.size, readable ? 26 : 0) << rights;
    EXPECT_EQ(address_of(section.data), readable ? address_of(library.base + library.place) : 0);
    std::ifstream maps("/proc/self/maps");
    std::map<std::string, std::uint64_t> modules;
    std::uint64_t first, end, last_end = 0;
    for (std::string line, skipped; std::getline(maps, line);) {
      SCOPED_TRACE(line);
      std::string allowed, path;
      std::istringstream fields(line);
      (fields >> std::hex >> first).ignore() >> end >> allowed >> skipped >> skipped >> skipped >>
          path;
      const bool module = path.starts_with("/") && allowed[3] == 'p',
                 executable = allowed[2] == 'x';
      const std::uint64_t base = modules.emplace(path, first).first->second;
      MEMORY_BASIC_INFORMATION region;
      for (const std::uint64_t address : {first, end - 1}) {
        VirtualQuery(reinterpret_cast<void*>(address), &region, sizeof region);
        EXPECT_EQ(region.State, MEM_COMMIT);
        EXPECT_EQ(region.Protect, (executable ? 0x10u : 1u) << (allowed[0] == 'r' ? 1 : 0));
        EXPECT_EQ(is_code(address), executable);
        EXPECT_LT(address - address_of(region.BaseAddress), region.RegionSize);
        // Some modules are loaded by a shorter name.
        const std::string name = module_of(address), file = path.substr(path.rfind('/') + 1);
        EXPECT_TRUE(!module || (address_of(region.AllocationBase) == base && !name.empty() &&
                                file.starts_with(name)));
      }
      if (last_end != 0 && last_end != first) {
        VirtualQuery(reinterpret_cast<void*>(last_end), &region, sizeof region);
        EXPECT_TRUE(region.State == MEM_FREE && module_of(last_end).empty());
      }
      last_end = module ? end : 0;
    }
  }
}

}  // namespace
}  // namespace ksomd::test
