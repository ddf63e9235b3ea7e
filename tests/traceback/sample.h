// Trace sections and images for the tests: a writer for them, and a second reader.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "traceback/pe_image.h"
#include "traceback/trace_section.h"

namespace ksomd::test {

using namespace traceback;

// ---- writing ------------------------------------------------------------------------------------

using Data = std::vector<std::uint8_t>;

inline Data operator+(Data left, const Data& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

inline Data number(std::uint64_t value, unsigned width) {
  const auto* const bytes = reinterpret_cast<const std::uint8_t*>(&value);
  return {bytes, bytes + width};
}

inline Data text(const std::string& characters) {
  return {characters.begin(), characters.end()};
}

// Routine items with a 32-bit (tag 2) and a 64-bit address (tag 12). Byte 1 is not read, and
// neither is the byte that stands where an empty name would.
inline Data routine_item(unsigned tag, std::uint64_t address, const std::string& name) {
  return number(tag | 0xEE00, 2) + number(name.size(), 2) + number(address, tag == 2 ? 4 : 8) +
         text(name.empty() ? "?" : name);
}

inline Data block(std::uint64_t start, std::uint32_t range, const std::vector<std::string>& files,
                  const Data& items) {
  Data body;
  for (const std::string& file : files) {
    body = std::move(body) + number(file.size(), 2) + text(file);
  }
  return number(0x20A, 4) + number(26 + body.size() + items.size(), 4) + number(start, 8) +
         number(files.size(), 4) + number(range, 4) + Data{0xEE, 0xEE} + body + items;
}

// The headers of an image with these sections: name, size, place.
using Section = std::tuple<std::string, std::uint64_t, std::uint64_t>;
inline Data image_headers(const std::vector<Section>& sections, std::size_t optional_header) {
  Data image = text("MZ") + Data(58, 0) + number(0x48, 4) + Data(8, 0) + text("PE") + Data(4, 0) +
               number(sections.size(), 2) + Data(12, 0) + number(optional_header, 2) +
               Data(2 + optional_header, 0);
  for (const auto& [name, size, place] : sections) {
    image = std::move(image) + text(name) + Data(8 - name.size(), 0) + number(size, 4) +
            number(place, 4) + Data(24, 0);
  }
  return image;
}

// ---- reading ------------------------------------------------------------------------------------

// Routine, file and line: in this form the tests compare them.
inline std::string joined(const std::string& routine, const std::string& file,
                          const std::string& line) {
  return routine + " | " + file + " | " + line;
}
const std::string unknown = joined("Unknown", "Unknown", "Unknown");

// As a name reads in a field: a terminated text of at most 259 characters.
inline std::string field_of(const std::string& name) {
  return name.substr(0, std::min(name.find('\0'), std::size_t{259}));
}

// What the library's decoder finds.
inline std::string look_up(Bytes section, std::uint64_t pc, std::uint64_t bias) {
  Location at = {};
  const auto field = [](Bytes name, bool known) {
    return known ? field_of({name.data, name.data + name.size}) : "Unknown";
  };
  return find_location(section, pc, bias, at)
             ? joined(field(at.routine, at.routine_known), field(at.file, at.file_known),
                      std::to_string(at.line))
             : unknown;
}

// What is demanded of bytes that make sense. What reads others ends.
struct NoSense {};
inline void demand(bool sense) {
  if (!sense) {
    throw NoSense();
  }
}

struct Cursor {
  Bytes rest;

  std::string text(std::uint64_t size) {
    demand(size <= rest.size);
    rest = {rest.data + size, rest.size - size};
    return {rest.data - size, rest.data};
  }
  std::uint64_t number(unsigned width) {
    std::uint64_t value = 0;
    text(width).copy(reinterpret_cast<char*>(&value), width);
    return value;
  }
};

// The rules of lookups as they read, one after the other: behind the header of a block, and in a
// section.
inline std::string reference_in_block(Cursor in, std::uint64_t count, std::uint64_t pc,
                                      std::uint64_t adjustment) {
  constexpr unsigned none = 9, sizes[] = {0, none, 0, 4, 1, 2, 4, 1, 2, 4, none, none, 0, 8};
  demand(count > 0);
  std::vector<std::string> files;
  while (files.size() < count) {
    files.push_back(field_of(in.text(in.number(2))));
  }
  std::string routine = "Unknown";
  for (std::uint64_t line = 0, address = adjustment, file = 0;;) {
    const std::uint64_t tag = in.number(1);
    const unsigned size = tag >= 0x80 ? tag >> 6 & 1 : tag < 14 ? sizes[tag] : none;
    demand(size != none);
    const std::uint64_t operand = in.number(size), sign = size > 0 ? 1ull << (8 * size - 1) : 0;
    if (tag == 2 || tag == 12) {
      const std::uint64_t length = in.number(3) >> 8, start = in.number(tag == 2 ? 4 : 8);
      const std::string name = in.text(std::max(length, std::uint64_t{1}));
      demand(start <= pc);
      routine = length > 0 ? field_of(name) : routine == "Unknown" ? routine : "";
      address = start + adjustment;
      continue;
    }
    file = tag == 3 ? operand : file;
    line += tag >= 0xC0 || (tag >= 4 && tag <= 6) ? (operand ^ sign) - sign : tag >= 0x80 ? 1 : 0;
    address += tag >= 0x80 ? (tag & 63) + 1 : tag >= 7 && tag <= 9 ? (operand + 1) & UINT32_MAX : 0;
    if (tag >= 7 && address >= pc) {
      return joined(routine, file < files.size() ? files[file] : "Unknown", std::to_string(line));
    }
  }
}

inline std::string reference_look_up(Bytes section, std::uint64_t pc, std::uint64_t bias) try {
  for (Cursor in{section};;) {
    Cursor header = in, block = in;
    if (in.number(1) == 0) {
      continue;
    }
    demand(header.number(4) == 0x20A);
    const std::uint64_t length = header.number(4), start = header.number(8),
                        files = header.number(4), range = header.number(4),
                        adjustment = start < bias ? bias : 0, first = start + adjustment;
    header.text(2);
    demand(length > 0);
    in.text(length - 1);
    if (pc >= first && pc - first < range) {
      block.rest.size = length;
      block.text(26);
      return reference_in_block(block, files, pc, adjustment);
    }
  }
} catch (const NoSense&) {
  return unknown;
}

}  // namespace ksomd::test
