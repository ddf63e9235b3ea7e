// Fuzzes the way from an image's bytes to a routine, a file and a line: 8 bytes of counter, 8 bytes
// of bias, then the image. What is found is compared with the tests' own reader.
#include <cstdlib>

#include "../traceback/sample.h"

using namespace ksomd;
using namespace ksomd::traceback;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Bytes image = Bytes{data, size}.from(16);
  SectionPlace place;
  if (find_pe_section(image, ".trace", place)) {
    const std::uint64_t pc = read_unsigned(data, 8), bias = read_unsigned(data + 8, 8);
    const Bytes section = image.from(place.offset).first(place.size);
    if (test::look_up(section, pc, bias) != test::reference_look_up(section, pc, bias)) {
      std::abort();
    }
  }
  return 0;
}
