// Trace sections and images for the tests: a writer for them, and second readers.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "traceback/pe_image.h"
#include "traceback/trace_section.h"

namespace ksomd::test {

using Data = std::vector<std::uint8_t>;

inline Data operator+(Data left, const Data& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

inline Data number(std::uint64_t value, unsigned width) {
  Data result(width);
  std::generate(result.begin(), result.end(),
                [&, i = 0]() mutable { return static_cast<std::uint8_t>(value >> 8 * i++); });
  return result;
}

inline Data text(const std::string& characters) {
  return Data(characters.begin(), characters.end());
}

// An item of a tag and an operand of that width; negative operands in two's complement.
inline Data item(unsigned tag, std::uint64_t operand = 0, unsigned width = 0) {
  return number(tag, 1) + number(operand, width);
}

// Routine items with a 32-bit and a 64-bit address. Byte 1 is not read, and neither is the byte
// that stands where an empty name would.
inline Data routine_item(unsigned tag, std::uint64_t address, const std::string& name) {
  return number(tag | 0xEE00, 2) + number(name.size(), 2) + number(address, tag == 0x02 ? 4 : 8) +
         (name.empty() ? Data{0xEE} : text(name));
}

inline Data block(std::uint64_t start, std::uint32_t range, const std::vector<std::string>& files,
                  const Data& items) {
  Data entries;
  for (const std::string& file : files) {
    entries = entries + number(file.size(), 2) + text(file);
  }
  return Data{10, 2, 0, 0} + number(26 + entries.size() + items.size(), 4) + number(start, 8) +
         number(files.size(), 4) + number(range, 4) + Data{0xEE, 0xEE} + entries + items;
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

struct Found {
  std::string routine = "Unknown", file = "Unknown", line = "Unknown";
  bool operator==(const Found&) const = default;
};

inline std::ostream& operator<<(std::ostream& stream, const Found& found) {
  return stream << found.routine << ' ' << found.file << ' ' << found.line;
}

// As it reads in a field: a terminated text of at most 259 characters.
inline std::string field_of(Bytes name, bool known) {
  const std::string fits(name.data, name.data + std::min<std::size_t>(name.size, 259));
  return known ? fits.substr(0, fits.find('\0')) : "Unknown";
}

// What the library's decoder finds.
inline Found look_up(Bytes section, std::uint64_t pc, std::uint64_t bias) {
  Location at = {};
  return find_location(section, pc, bias, at)
             ? Found{field_of(at.routine, at.routine_known), field_of(at.file, at.file_known),
                     std::to_string(at.line)}
             : Found{};
}

// The rules of lookups as they read, one after the other. What is not there reads as 0, and fails.
class Reference {
 public:
  static Found find(Bytes section, std::uint64_t pc, std::uint64_t bias) {
    Reference reference{pc, bias};
    const Found found = reference.find_block(section);
    return reference.lost_ ? Found{} : found;
  }

  // The first section named ".trace" in an image's headers.
  static std::optional<SectionPlace> find_section(Bytes image) {
    Reference all{0, 0};
    const std::uint64_t pe = all.get(image, 60, 4);
    const std::uint64_t table = pe + 24 + all.get(image, pe + 20, 2);
    const std::uint64_t end = table + 40 * all.get(image, pe + 6, 2);
    const bool valid = all.get(image, 0, 2) == 0x5A4D && pe < 0x80000000;
    for (std::uint64_t at = table; valid && at < end && !all.lost_; at += 40) {
      const SectionPlace place{all.get(image, at + 12, 4), all.get(image, at + 8, 4)};
      all.get(image, at + 32, 8);
      if (all.get(image, at, 8) == 0x65'63'61'72'74'2E && !all.lost_) {
        return place;
      }
    }
    return std::nullopt;
  }

 private:
  Reference(std::uint64_t pc, std::uint64_t bias) : pc_(pc), bias_(bias) {}

  std::uint64_t get(Bytes from, std::uint64_t at, unsigned width) {
    std::uint64_t value = 0;
    for (unsigned i = 0; i < width; ++i) {
      lost_ = lost_ || at + i >= from.size;
      value |= lost_ ? 0 : std::uint64_t{from.data[at + i]} << 8 * i;
    }
    return value;
  }

  std::string name(Bytes from, std::uint64_t at, std::uint64_t length) {
    get(from, at + length - 1, 1);
    return lost_ ? "" : field_of({from.data + at, length}, true);
  }

  Found find_block(Bytes section) {
    for (std::uint64_t at = 0; at < section.size; ++at) {
      if (section.data[at] == 0) {
        continue;
      }
      const std::uint64_t length = get(section, at + 4, 4), start = get(section, at + 8, 8);
      get(section, at + 24, 2);
      if (lost_ || get(section, at, 4) != 0x20A || length == 0 || length > section.size - at) {
        return {};
      }
      adjustment_ = bias_ != 0 && start < bias_ ? bias_ : 0;
      if (pc_ >= start + adjustment_ && pc_ - (start + adjustment_) < get(section, at + 20, 4)) {
        return decode({section.data + at, length});
      }
      at += length - 1;
    }
    return {};
  }

  Found decode(Bytes own) {
    constexpr int operand_sizes[] = {0, -1, 0, 4, 1, 2, 4, 1, 2, 4, -1, -1, 0, 8};
    std::vector<std::string> files;
    std::uint64_t at = 26, line = 0, address = adjustment_, file = 0;
    for (const std::uint64_t count = get(own, 16, 4); files.size() < count && !lost_;) {
      files.push_back(name(own, at + 2, get(own, at, 2)));
      at += 2 + get(own, at, 2);
    }
    std::string routine = "Unknown";
    bool named = false;
    while (at < own.size && !lost_ && !files.empty()) {
      const std::uint64_t tag = get(own, at++, 1);
      const int size = tag >= 0xC0 ? 1 : tag >= 0x80 ? 0 : tag > 0x0D ? -1 : operand_sizes[tag];
      if (size < 0) {
        return {};
      }
      const std::uint64_t operand = get(own, at, static_cast<unsigned>(size));
      const std::int64_t distance = size == 1   ? static_cast<std::int8_t>(operand)
                                    : size == 2 ? static_cast<std::int16_t>(operand)
                                                : static_cast<std::int32_t>(operand);
      at += static_cast<unsigned>(size);
      if (tag == 0x02 || tag == 0x0C) {
        const unsigned width = tag == 0x02 ? 4 : 8;
        const std::uint64_t length = get(own, at + 1, 2), start = get(own, at + 3, width);
        named = named || length > 0;
        routine = named ? name(own, at + 3 + width, length) : routine;
        at += 3 + width + std::max<std::uint64_t>(length, 1);
        get(own, at - 1, 1);
        if (start > pc_) {
          return {};
        }
        address = start + adjustment_;
      } else if (tag == 0x03) {
        file = operand;
      } else if ((tag >= 0x04 && tag <= 0x06) || tag >= 0xC0) {
        line += static_cast<std::uint64_t>(distance);
      } else if (tag >= 0x07 && tag <= 0x09) {
        address += (operand + 1) & 0xFFFFFFFF;
      } else if (tag >= 0x80) {
        line += 1;
      }
      address += tag >= 0x80 ? (tag & 0x3F) + 1 : 0;
      const bool test = tag >= 0x80 || tag == 0x0D || (tag >= 0x07 && tag <= 0x09);
      if (test && !lost_ && address >= pc_) {
        return {routine, file < files.size() ? files[file] : "Unknown", std::to_string(line)};
      }
    }
    return {};
  }

  std::uint64_t pc_, bias_, adjustment_ = 0;
  bool lost_ = false;
};

}  // namespace ksomd::test
