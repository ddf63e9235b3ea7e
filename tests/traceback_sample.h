// Trace sections for the tests: a writer for them, and a second reader.
#pragma once

#include <cstdint>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace ksomd::test {

using Data = std::vector<std::uint8_t>;

inline Data operator+(Data left, const Data& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

inline Data number(std::uint64_t value, unsigned width) {
  Data result;
  for (unsigned i = 0; i < width; ++i) {
    result.push_back(static_cast<std::uint8_t>(value >> 8 * i));
  }
  return result;
}

inline Data text(const std::string& characters) {
  return Data(characters.begin(), characters.end());
}

// An item of a tag and an operand of that width; negative operands in two's complement.
inline Data item(unsigned tag, std::int64_t operand = 0, unsigned width = 0) {
  return number(tag, 1) + number(static_cast<std::uint64_t>(operand), width);
}

// Routine items with a 32-bit and a 64-bit address. Byte 1 is not read, and neither is the byte
// that stands where an empty name would.
inline Data routine_item(unsigned tag, std::uint64_t address, const std::string& name) {
  return Data{static_cast<std::uint8_t>(tag), 0xEE} + number(name.size(), 2) +
         number(address, tag == 0x02 ? 4 : 8) + (name.empty() ? Data{0xEE} : text(name));
}

inline Data block(std::uint64_t start, std::uint32_t range, const std::vector<std::string>& files,
                  const Data& items) {
  Data entries;
  for (const std::string& file : files) {
    entries = entries + number(file.size(), 2) + text(file);
  }
  const std::size_t length = 26 + entries.size() + items.size();
  return Data{10, 2, 0, 0} + number(length, 4) + number(start, 8) + number(files.size(), 4) +
         number(range, 4) + Data{0xEE, 0xEE} + entries + items;
}

struct Found {
  std::string routine = "Unknown";
  std::string file = "Unknown";
  std::string line = "Unknown";
  bool operator==(const Found&) const = default;
};

inline std::ostream& operator<<(std::ostream& stream, const Found& found) {
  return stream << found.routine << ' ' << found.file << ' ' << found.line;
}

// The lookup as its rules read, one after the other, with bounds that throw.
class ReferenceLookup {
 public:
  ReferenceLookup(const Data& section, std::uint64_t pc, std::uint64_t bias)
      : section_(section), pc_(pc), bias_(bias) {}

  Found find() {
    try {
      return find_block();
    } catch (const std::out_of_range&) {
      return {};
    }
  }

 private:
  std::uint64_t get(const Data& from, std::size_t at, unsigned width) const {
    std::uint64_t value = 0;
    for (unsigned i = 0; i < width; ++i) {
      value |= std::uint64_t{from.at(at + i)} << 8 * i;
    }
    return value;
  }

  static std::string cut(const Data& from, std::size_t at, std::size_t length) {
    if (at + length > from.size()) {
      throw std::out_of_range("name");
    }
    return std::string(from.begin() + static_cast<std::ptrdiff_t>(at),
                       from.begin() + static_cast<std::ptrdiff_t>(at + length));
  }

  // As it reads in a field: a terminated text of at most 259 characters.
  static std::string field(const std::string& name) {
    const std::string fits = name.substr(0, 259);
    return fits.substr(0, fits.find('\0'));
  }

  Found find_block() {
    for (std::size_t at = 0; at < section_.size();) {
      if (section_[at] == 0) {
        ++at;
        continue;
      }
      static_cast<void>(section_.at(at + 25));
      if (section_[at] != 10 || get(section_, at + 1, 2) != 2 || section_[at + 3] != 0) {
        return {};
      }
      const std::uint64_t length = get(section_, at + 4, 4);
      const std::uint64_t start = get(section_, at + 8, 8);
      if (length == 0 || length > section_.size() - at) {
        return {};
      }
      adjustment_ = bias_ != 0 && start < bias_ ? bias_ : 0;
      if (pc_ - (start + adjustment_) < get(section_, at + 20, 4) && pc_ >= start + adjustment_) {
        const auto begin = section_.begin() + static_cast<std::ptrdiff_t>(at);
        return decode(Data(begin, begin + static_cast<std::ptrdiff_t>(length)));
      }
      at += length;
    }
    return {};
  }

  Found decode(const Data& own) const {
    std::vector<std::string> files;
    std::size_t at = 26;
    for (std::uint64_t n = get(own, 16, 4); n > 0; --n) {
      const std::size_t length = get(own, at, 2);
      files.push_back(cut(own, at + 2, length));
      at += 2 + length;
    }
    if (files.empty()) {
      return {};
    }
    std::uint64_t line = 0;
    std::uint64_t address = adjustment_;
    std::uint64_t file = 0;
    std::string name = "Unknown";
    bool named = false;
    while (at < own.size()) {
      const unsigned tag = own[at];
      std::size_t size = 1;
      bool test = true;
      const auto advance = [&](std::uint64_t lines, std::uint64_t distance) {
        line += lines;
        address += distance;
      };
      if (tag >= 0xC0) {
        size = 2;
        advance(sign(get(own, at + 1, 1), 8), (tag & 0x3F) + 1);
      } else if (tag >= 0x80) {
        advance(1, (tag & 0x3F) + 1);
      } else if (tag == 0x00) {
        test = false;
      } else if (tag == 0x02 || tag == 0x0C) {
        const unsigned width = tag == 0x02 ? 4 : 8;
        const std::size_t length = get(own, at + 2, 2);
        const std::uint64_t start = get(own, at + 4, width);
        size = 4 + width + (length > 0 ? length : 1);
        static_cast<void>(own.at(at + size - 1));
        if (start > pc_) {
          return {};
        }
        address = start + adjustment_;
        if (length > 0 || named) {
          name = cut(own, at + 4 + width, length);
          named = true;
        }
        test = false;
      } else if (tag == 0x03) {
        size = 5;
        file = get(own, at + 1, 4);
        test = false;
      } else if (tag >= 0x04 && tag <= 0x06) {
        const unsigned width = 1u << (tag - 0x04);
        size = 1 + width;
        line += sign(get(own, at + 1, width), 8 * width);
        test = false;
      } else if (tag >= 0x07 && tag <= 0x09) {
        const unsigned width = 1u << (tag - 0x07);
        size = 1 + width;
        advance(0, (get(own, at + 1, width) + 1) & 0xFFFFFFFF);
      } else if (tag == 0x0D) {
        size = 9;
        static_cast<void>(own.at(at + 8));
      } else {
        return {};
      }
      if (test && address >= pc_) {
        return {field(name), file < files.size() ? field(files[file]) : "Unknown",
                std::to_string(line)};
      }
      at += size;
    }
    return {};
  }

  static std::uint64_t sign(std::uint64_t value, unsigned bits) {
    return value >> (bits - 1) != 0 ? value - (std::uint64_t{1} << bits) : value;
  }

  const Data& section_;
  std::uint64_t pc_;
  std::uint64_t bias_;
  std::uint64_t adjustment_ = 0;
};

}  // namespace ksomd::test
