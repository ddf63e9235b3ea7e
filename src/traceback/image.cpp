#include "traceback/image.h"

#include "platform/platform.h"
#include "traceback/pe_image.h"

namespace ksomd::traceback {
namespace {

constexpr const char* trace_section_name = ".trace";
constexpr std::size_t smallest_block = 26;
constexpr std::size_t most_header_bytes = std::size_t{1} << 20;

constexpr DWORD unreadable = PAGE_NOACCESS | PAGE_EXECUTE | PAGE_GUARD;
constexpr DWORD executable =
    PAGE_EXECUTE | PAGE_EXECUTE_READ | PAGE_EXECUTE_READWRITE | PAGE_EXECUTE_WRITECOPY;

// The region that an address lies in; false if it is free.
bool find_region(std::uint64_t address, MEMORY_BASIC_INFORMATION& region) {
  return VirtualQuery(reinterpret_cast<const void*>(address), &region, sizeof region) != 0 &&
         region.State != MEM_FREE && region.AllocationBase != nullptr;
}

// The part of the `wanted` bytes at `start` that can be read and belongs to `image`. Memory that is
// only reserved, or guarded, would fault.
Bytes readable(const std::uint8_t* start, std::size_t wanted, const void* image) {
  std::size_t size = 0;
  while (size < wanted) {
    MEMORY_BASIC_INFORMATION region;
    if (!find_region(reinterpret_cast<std::uint64_t>(start) + size, region) ||
        region.AllocationBase != image || region.State != MEM_COMMIT ||
        (region.Protect & unreadable) != 0) {
      break;
    }
    const auto* end = static_cast<const std::uint8_t*>(region.BaseAddress) + region.RegionSize;
    size = static_cast<std::size_t>(end - start);
  }
  return Bytes{start, size}.first(wanted);
}

}  // namespace

Bytes readable_bytes(std::uint64_t address, std::size_t wanted) {
  MEMORY_BASIC_INFORMATION region;
  if (!find_region(address, region)) {
    return {};
  }
  return readable(reinterpret_cast<const std::uint8_t*>(address), wanted, region.AllocationBase);
}

bool is_code(std::uint64_t address) {
  MEMORY_BASIC_INFORMATION region;
  return find_region(address, region) && region.State == MEM_COMMIT &&
         (region.Protect & executable) != 0;
}

Bytes trace_section_of(std::uint64_t pc) {
  MEMORY_BASIC_INFORMATION region;
  if (!find_region(pc, region)) {
    return {};
  }
  const auto* image = static_cast<const std::uint8_t*>(region.AllocationBase);
  SectionPlace place;
  if (!find_pe_section(readable(image, most_header_bytes, image), trace_section_name, place) &&
      !find_native_section(image, trace_section_name, place.offset, place.size)) {
    return {};
  }
  const Bytes section = readable(image + place.offset, place.size, image);
  return section.size == place.size && place.size >= smallest_block ? section : Bytes{};
}

}  // namespace ksomd::traceback
