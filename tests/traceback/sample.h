// Trace sections and images for the tests: a writer for them, and a second reader.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
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

// The headers of an image; section i is at 4096 (i + 1) and has 0x123 + i bytes.
inline Data image_headers(const std::vector<std::string>& names, std::size_t optional_header) {
  Data image = text("MZ") + Data(58, 0) + number(0x48, 4) + Data(8, 0) + text("PE") + Data(4, 0) +
               number(names.size(), 2) + Data(12, 0) + number(optional_header, 2) +
               Data(2 + optional_header, 0);
  for (std::size_t i = 0; i < names.size(); ++i) {
    image = image + text(names[i]) + Data(8 - names[i].size(), 0) + number(0x123 + i, 4) +
            number(4096 * (i + 1), 4) + Data(24, 0);
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

// Reads on and on. What is not there reads as 0, and from then on everything is lost.
struct Cursor {
  Bytes from;
  std::uint64_t at = 0;
  bool lost = false;

  std::uint64_t number(unsigned width) {
    std::uint64_t value = 0;
    for (unsigned i = 0; i < width; ++i, ++at) {
      lost = lost || at >= from.size;
      value |= lost ? 0 : std::uint64_t{from.data[at]} << 8 * i;
    }
    return value;
  }
  std::string text(std::uint64_t size) {
    std::string characters;
    for (; size > 0 && !lost; --size) {
      characters += static_cast<char>(number(1));
    }
    return characters;
  }
};

// The rules of lookups as they read, one after the other.
struct Reference {
  static std::string find(Bytes section, std::uint64_t pc, std::uint64_t bias) {
    for (std::uint64_t at = 0, length = 1; at < section.size; at += length) {
      Cursor in{section, at};
      length = 1;
      if (section.data[at] != 0) {
        const bool tagged = in.number(4) == 0x20A;
        length = in.number(4);
        const std::uint64_t start = in.number(8), files = in.number(4), range = in.number(4);
        const std::uint64_t adjustment = start < bias ? bias : 0, first = start + adjustment;
        in.number(2);
        if (in.lost || !tagged || length == 0 || length > section.size - at) {
          break;
        }
        if (pc >= first && pc - first < range) {
          return decode({{section.data + at, length}, 26}, files, pc, adjustment);
        }
      }
    }
    return unknown;
  }

  // The first section named ".trace" in an image's headers.
  static std::optional<SectionPlace> find_section(Bytes image) {
    const std::uint64_t pe = Cursor{image, 60}.number(4), count = Cursor{image, pe + 6}.number(2);
    Cursor table{image, pe + 24 + Cursor{image, pe + 20}.number(2)};
    for (std::uint64_t i = 0; i < count && Cursor{image}.number(2) == 0x5A4D; ++i) {
      const std::uint64_t name = table.number(8), size = table.number(4), place = table.number(4);
      table.text(24);
      if (name == 0x65'63'61'72'74'2E && !table.lost) {
        return SectionPlace{place, size};
      }
    }
    return std::nullopt;
  }

 private:
  static std::string decode(Cursor in, std::uint64_t count, std::uint64_t pc,
                            std::uint64_t adjustment) {
    constexpr unsigned none = 99, sizes[] = {0, none, 0, 4, 1, 2, 4, 1, 2, 4, none, none, 0, 8};
    std::vector<std::string> files;
    while (files.size() < count && !in.lost) {
      files.push_back(field_of(in.text(in.number(2))));
    }
    std::string routine = "Unknown";
    std::uint64_t line = 0, address = adjustment, file = 0;
    while (in.at < in.from.size && !in.lost && count > 0) {
      const std::uint64_t tag = in.number(1);
      const unsigned size = tag >= 0xC0 ? 1 : tag >= 0x80 ? 0 : tag > 13 ? none : sizes[tag];
      if (size == none) {
        break;
      }
      const std::uint64_t operand = in.number(size), sign = size > 0 ? 1ull << (8 * size - 1) : 0;
      if (tag == 2 || tag == 12) {
        const std::uint64_t length = in.number(3) >> 8, start = in.number(tag == 2 ? 4 : 8);
        const std::string name = in.text(std::max(length, std::uint64_t{1}));
        routine = length > 0 ? field_of(name) : routine == "Unknown" ? routine : "";
        address = start + adjustment;
        in.lost = in.lost || start > pc;
      } else if (tag == 3) {
        file = operand;
      } else if (tag >= 0x80) {
        address += (tag & 63) + 1;
        line += tag >= 0xC0 ? (operand ^ sign) - sign : 1;
      } else if (tag >= 7 && tag <= 9) {
        address += (operand + 1) & UINT32_MAX;
      } else if (tag >= 4 && tag <= 6) {
        line += (operand ^ sign) - sign;
      }
      if (tag >= 7 && tag != 12 && !in.lost && address >= pc) {
        return joined(routine, file < files.size() ? files[file] : "Unknown", std::to_string(line));
      }
    }
    return unknown;
  }
};

}  // namespace ksomd::test
