#include "traceback/pe_image.h"

#include <cstring>

namespace ksomd::traceback {
namespace {

constexpr std::size_t dos_header_size = 64;
constexpr std::size_t file_header_size = 24;  // with the signature before it
constexpr std::size_t section_entry_size = 40;
constexpr std::size_t section_name_size = 8;

}  // namespace

bool find_pe_section(Bytes headers, const char* name, SectionPlace& place) {
  if (headers.size < dos_header_size || headers.data[0] != 'M' || headers.data[1] != 'Z') {
    return false;
  }
  // A negative offset becomes a huge one, and nothing of the image is left from there on.
  const Bytes pe = headers.from(read_signed(headers.data + 60, 4));
  if (pe.size < file_header_size) {
    return false;
  }
  const std::uint64_t count = read_unsigned(pe.data + 6, 2);
  Bytes table = pe.from(file_header_size + read_unsigned(pe.data + 20, 2));
  char wanted[section_name_size] = {};  // padded with zero bytes, as in the table
  std::memcpy(wanted, name, strnlen(name, sizeof wanted));
  for (std::uint64_t i = 0; i < count && table.size >= section_entry_size; ++i) {
    if (std::memcmp(table.data, wanted, sizeof wanted) == 0) {
      place.size = read_unsigned(table.data + 8, 4);
      place.offset = read_unsigned(table.data + 12, 4);
      return true;
    }
    table = table.from(section_entry_size);
  }
  return false;
}

}  // namespace ksomd::traceback
