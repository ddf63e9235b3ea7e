// Fuzzes the way from an image's bytes to a routine, a file and a line: 8 bytes of counter, 8 bytes
// of bias, then the image. What is found is compared with the tests' own reader.
#include <cstdlib>
#include <cstring>

#include "../traceback_sample.h"
#include "traceback/pe_image.h"
#include "traceback/trace_section.h"

using namespace ksomd;

namespace {

std::string field(Bytes name, bool known) {
  return known ? std::string(std::string(name.data, name.data + name.size).substr(0, 259).c_str())
               : "Unknown";
}

void compare(const test::Data& section, std::uint64_t pc, std::uint64_t bias) {
  Location location = {};
  test::Found found;
  if (find_location({section.data(), section.size()}, pc, bias, location)) {
    found = {field(location.routine, location.routine_known),
             field(location.file, location.file_known), std::to_string(location.line)};
  }
  if (found != test::ReferenceLookup(section, pc, bias).find()) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 16) {
    return 0;
  }
  const std::uint64_t pc = read_unsigned(data, 8);
  const std::uint64_t bias = read_unsigned(data + 8, 8);
  const Bytes image{data + 16, size - 16};
  SectionPlace place;
  if (find_pe_section(image, ".trace", place)) {
    const Bytes section = image.from(place.offset).first(place.size);
    compare(test::Data(section.data, section.data + section.size), pc, bias);
  }
  return 0;
}
