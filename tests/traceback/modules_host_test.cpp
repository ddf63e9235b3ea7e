// Regions, modules and their trace sections, as the host's layer finds them.
#include <dlfcn.h>
#include <elf.h>
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
      ksomd_pc_info info;
      EXPECT_EQ(bias != 0 ? get_pc_info(&info, pc, bias, "ignored")
                          : get_pc_info_pie(&info, pc, nullptr, nullptr),
                0u);
      EXPECT_EQ(joined(info.routine, info.file, info.line),
                reference_look_up({image.memory.begin() + 0x1000, 0x1000}, pc, bias));
    }
  }
}

// The section counts where all of it can be read and belongs to the image: protecting one of the
// pages makes that another allocation.
TEST(PcInfo, IsNoneWhereTheSectionIsNotInTheImage) {
  for (const std::uint64_t place : {0x1000u, 0x3000u, 0x7FFFF000u}) {
    for (const std::uint64_t size : {25u, 26u, 0x1000u, 0x2000u, 0x2001u}) {
      for (const std::uint64_t other : {0x1000u, 0x2000u, 0x3000u}) {
        const Image image(place, size);
        mprotect(image.memory.begin() + other, other < 0x3000 ? 4096 : 0, PROT_READ);
        EXPECT_EQ(trace_section_of(address_of(image.memory.begin())).size,
                  place + size <= other && size >= 26 ? size : 0)
            << place << ' ' << size << ' ' << other;
      }
    }
  }
}

// The library of the traceback's test program, with holes between its segments. What is loaded is a
// copy, whose long name makes long lines of the kernel's list, longer and shorter ones so that
// their ends come at any place of a reader's buffer.
class LoadedLibrary : public testing::TestWithParam<unsigned> {
 protected:
  LoadedLibrary() {
    const auto folder = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    std::filesystem::copy_file(folder / "traceback_library.so", path);
    std::ifstream copy(path, std::ios::binary);
    file.assign(std::istreambuf_iterator<char>(copy), {});
    handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    Dl_info info = {};
    dladdr(dlsym(handle, "library_entry"), &info);
    base = static_cast<char*>(info.dli_fbase);
    unlink(path.c_str());
  }
  ~LoadedLibrary() override { unlink(path.c_str()), dlclose(handle); }

  const std::string name = std::string(GetParam(), 'm') + std::to_string(getpid()) + ".so";
  const std::string path = testing::TempDir() + name;
  const GuardedMemory pages{0x8000};  // listed behind the library
  std::string file;
  void* handle;
  char* base;
};

INSTANTIATE_TEST_SUITE_P(Names, LoadedLibrary, testing::Range(180u, 240u, 5u));

TEST_P(LoadedLibrary, HasASectionIfTheFileIsStillTheSame) {
  auto& header = *reinterpret_cast<Elf64_Ehdr*>(file.data());
  auto* row = reinterpret_cast<Elf64_Shdr*>(file.data() + header.e_shoff);
  const char* const names = file.data() + row[header.e_shstrndx].sh_offset;
  while (std::strcmp(names + row->sh_name, ".trace") != 0) {
    ++row;
  }
  const auto finds = [this](std::uint64_t size, std::ptrdiff_t at = 0) {
    unlink(path.c_str());
    std::ofstream(path, std::ios::binary).write(file.data(), static_cast<std::streamsize>(size));
    SectionPlace found;
    return find_native_section(base + at, ".trace", found.offset, found.size);
  };
  EXPECT_TRUE(finds(file.size()) && !finds(file.size(), 1));
  const Bytes section = trace_section_of(address_of(base));
  EXPECT_EQ(address_of(section.data), address_of(base) + row->sh_addr);
  EXPECT_EQ(section.size, row->sh_size);
  for (std::uint64_t cut = address_of(row + 1) - address_of(file.data()) - 1; cut > 50; cut -= 50) {
    EXPECT_FALSE(finds(cut)) << cut;
  }
  for (Elf64_Xword* const changed : {&row->sh_addr, &row->sh_size, &header.e_entry}) {
    *changed ^= 1ull << 40;
    EXPECT_FALSE(finds(file.size())) << changed - &row->sh_addr;
    *changed ^= 1ull << 40;
  }
}

// The kernel's list is the oracle.
TEST_P(LoadedLibrary, HasTheRegionsThatTheKernelLists) {
  EXPECT_EQ(module_of(address_of(base)), name);
  EXPECT_EQ(K32GetModuleFileNameExA(nullptr, base + 1, std::string(260, ' ').data(), 260), 0u);
  for (int rights = 0; rights < 8; ++rights) {
    mprotect(pages.begin() + 4096 * rights, 4096, rights);
  }
  std::map<std::string, std::uint64_t> modules;
  std::uint64_t first, end, last_end = 0;
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    SCOPED_TRACE(line);
    std::string allowed, module_path;
    std::istringstream fields(line);
    (fields >> std::hex >> first).ignore() >> end >> allowed >> module_path >> module_path >>
        module_path >> module_path;
    const bool module = module_path.starts_with("/") && allowed[3] == 'p',
               executable = allowed[2] == 'x';
    const std::uint64_t module_base = modules.emplace(module_path, first).first->second;
    MEMORY_BASIC_INFORMATION region;
    for (const std::uint64_t address : {first, end - 1}) {
      VirtualQuery(reinterpret_cast<void*>(address), &region, sizeof region);
      EXPECT_EQ(region.Protect, (executable ? 0x10u : 1u) << (allowed[0] == 'r' ? 1 : 0));
      EXPECT_EQ(is_code(address), executable);
      EXPECT_LT(address - address_of(region.BaseAddress), region.RegionSize);
      // Some modules are loaded by a shorter name.
      const std::string found = module_of(address),
                        last = module_path.substr(module_path.rfind('/') + 1);
      EXPECT_TRUE(!module || (address_of(region.AllocationBase) == module_base && !found.empty() &&
                              last.starts_with(found)));
    }
    if (last_end != 0 && last_end != first) {
      VirtualQuery(reinterpret_cast<void*>(last_end), &region, sizeof region);
      EXPECT_TRUE(region.State == MEM_FREE && module_of(last_end).empty());
    }
    last_end = module ? end : 0;
  }
}

}  // namespace
}  // namespace ksomd::test
