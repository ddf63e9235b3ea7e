// The exported look-up of an address.
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "ksomd/traceback.h"
#include "traceback/image.h"
#include "traceback/trace_section.h"

namespace ksomd::traceback {
namespace {

constexpr std::size_t field_size = sizeof ksomd_pc_info::routine;
static_assert(sizeof(ksomd_pc_info) == 3 * field_size);

constexpr char unknown[] = "Unknown";

void fill_field(char (&field)[field_size], Bytes text, bool known) {
  if (!known) {
    text = {reinterpret_cast<const std::uint8_t*>(unknown), sizeof unknown - 1};
  }
  const Bytes fits = text.first(field_size - 1);
  if (fits.size > 0) {
    std::memcpy(field, fits.data, fits.size);
  }
  field[fits.size] = '\0';
}

}  // namespace
}  // namespace ksomd::traceback

using namespace ksomd::traceback;

std::uint32_t tbk_get_pc_info_pie(ksomd_pc_info* info, std::uint64_t pc, const std::uint64_t* bias,
                                  const char*) {
  Location location = {};
  const bool found = find_location(trace_section_of(pc), pc, bias != nullptr ? *bias : 0, location);
  fill_field(info->routine, location.routine, found && location.routine_known);
  fill_field(info->file, location.file, found && location.file_known);
  fill_field(info->line, {}, false);
  if (found) {
    std::snprintf(info->line, field_size, "%" PRIu64, location.line);
  }
  return 0;
}

std::uint32_t tbk_get_pc_info(ksomd_pc_info* info, std::uint64_t pc, std::uint64_t bias,
                              const char* module) {
  return tbk_get_pc_info_pie(info, pc, &bias, module);
}
