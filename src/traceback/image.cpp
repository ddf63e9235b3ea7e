#include "traceback/image.h"

#include "stack_system.h"
#include "traceback/pe_image.h"

namespace ksomd {
namespace {

constexpr const char* trace_section_name = ".trace";
constexpr std::size_t smallest_block = 26;
constexpr std::size_t most_header_bytes = std::size_t{1} << 20;

// How many of the `wanted` bytes at `start` can be read, as long as they belong to `image`: memory
// that is merely reserved, or guarded, would fault.
Bytes readable(const std::uint8_t* start, std::size_t wanted, const void* image) {
  std::size_t size = 0;
  while (size < wanted) {
    MEMORY_BASIC_INFORMATION region;
    if (VirtualQuery(start + size, &region, sizeof region) == 0 || region.AllocationBase != image ||
        region.State != MEM_COMMIT || (region.Protect & (PAGE_NOACCESS | PAGE_GUARD)) != 0) {
      break;
    }
    const auto* end = static_cast<const std::uint8_t*>(region.BaseAddress) + region.RegionSize;
    size = static_cast<std::size_t>(end - start);
  }
  return Bytes{start, size}.first(wanted);
}

}  // namespace

Bytes trace_section_of(std::uint64_t pc) {
  MEMORY_BASIC_INFORMATION region;
  if (VirtualQuery(reinterpret_cast<const void*>(pc), &region, sizeof region) == 0 ||
      region.State == MEM_FREE || region.AllocationBase == nullptr) {
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

}  // namespace ksomd
