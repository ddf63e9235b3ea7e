#include "traceback/trace_section.h"

namespace ksomd::traceback {
namespace {

constexpr std::size_t header_size = 26;
constexpr std::uint64_t block_tag = 10 | 2 << 8;  // the first four bytes of a header

enum class Kind : std::uint8_t {
  Invalid,
  Filler,
  Routine,     // name length at byte 2, address from byte 4 to the end of the fixed part, name
  SelectFile,  // operand: the index of a source-file entry
  Line,        // operand: the signed distance of the line
  Address,     // operand: the distance of the address minus 1
  Match,
  NextLine,        // low six bits: the distance of the address minus 1
  LineAndAddress,  // the same; operand: the signed distance of the line
};

struct Item {
  Kind kind;
  std::uint8_t size;  // of the fixed part: the tag byte and the operand
};

constexpr Item items_by_tag[] = {
    /* 00 */ {Kind::Filler, 1},
    /* 01 */ {Kind::Invalid, 1},
    /* 02 */ {Kind::Routine, 8},
    /* 03 */ {Kind::SelectFile, 5},
    /* 04 */ {Kind::Line, 2},
    /* 05 */ {Kind::Line, 3},
    /* 06 */ {Kind::Line, 5},
    /* 07 */ {Kind::Address, 2},
    /* 08 */ {Kind::Address, 3},
    /* 09 */ {Kind::Address, 5},
    /* 0A */ {Kind::Invalid, 1},
    /* 0B */ {Kind::Invalid, 1},
    /* 0C */ {Kind::Routine, 12},
    /* 0D */ {Kind::Match, 9},
};
constexpr Item item_80_to_bf = {Kind::NextLine, 1};
constexpr Item item_c0_to_ff = {Kind::LineAndAddress, 2};

Item item_for(std::uint8_t tag) {
  if (tag < sizeof items_by_tag / sizeof items_by_tag[0]) {
    return items_by_tag[tag];
  }
  return tag >= 0xC0 ? item_c0_to_ff : tag >= 0x80 ? item_80_to_bf : Item{Kind::Invalid, 1};
}

// The block that describes an address.
struct Block {
  Bytes files;  // everything after the header: source-file entries, then items
  std::uint64_t file_count;
  std::uint64_t adjustment;
};

bool find_block(Bytes rest, std::uint64_t pc, std::uint64_t bias, Block& block) {
  while (rest.size > 0) {
    if (rest.data[0] == 0) {
      rest = rest.from(1);
      continue;
    }
    if (rest.size < header_size || read_unsigned(rest.data, 4) != block_tag) {
      return false;
    }
    const std::uint64_t length = read_unsigned(rest.data + 4, 4);
    const std::uint64_t start = read_unsigned(rest.data + 8, 8);
    const std::uint64_t range = read_unsigned(rest.data + 20, 4);
    if (length == 0 || length > rest.size) {
      return false;
    }
    const std::uint64_t adjustment = start < bias ? bias : 0;
    const std::uint64_t first = start + adjustment;
    if (pc >= first && pc - first < range) {
      block = {rest.first(length).from(header_size), read_unsigned(rest.data + 16, 4), adjustment};
      return true;
    }
    rest = rest.from(length);
  }
  return false;
}

// Takes one source-file entry off the front of `rest`.
bool take_file(Bytes& rest, Bytes& name) {
  if (rest.size < 2) {
    return false;
  }
  const std::size_t length = read_unsigned(rest.data, 2);
  if (rest.size - 2 < length) {
    return false;
  }
  name = rest.from(2).first(length);
  rest = rest.from(2 + length);
  return true;
}

// Takes `count` source-file entries off the front of `rest`; `name` becomes the last one's. An
// entry has at least two bytes, so a wrong count stops where the bytes end.
bool take_files(Bytes& rest, std::uint64_t count, Bytes& name) {
  for (; count > 0; --count) {
    if (!take_file(rest, name)) {
      return false;
    }
  }
  return true;
}

struct State {
  std::uint64_t line = 0;
  std::uint64_t address;
  std::uint64_t file = 0;
  Bytes routine = {};
  bool routine_known = false;
};

// Decodes a routine item. All bytes of its fixed part are there. `size` becomes that of the whole
// item.
bool decode_routine(Bytes rest, std::uint64_t pc, std::uint64_t adjustment, std::size_t& size,
                    State& state) {
  const std::size_t length = read_unsigned(rest.data + 2, 2);
  const std::uint64_t address = read_unsigned(rest.data + 4, static_cast<unsigned>(size) - 4);
  const Bytes name = rest.from(size).first(length);
  size += length > 0 ? length : 1;  // an empty name still takes a byte
  // The address is compared as it is recorded, before the adjustment.
  if (size > rest.size || address > pc) {
    return false;
  }
  state.address = address + adjustment;
  state.routine = name;
  state.routine_known = state.routine_known || length > 0;
  return true;
}

enum class Step {
  GoOn,
  Test,  // compare the address with the one that is looked up
  Fail
};

// Decodes the item at the front of `rest`. All of its `size` bytes are there.
Step decode_item(Item item, Bytes rest, std::uint64_t pc, std::uint64_t adjustment,
                 std::size_t& size, State& state) {
  const std::uint8_t* operand = rest.data + 1;
  const auto width = static_cast<unsigned>(item.size) - 1;
  switch (item.kind) {
    case Kind::Invalid:
      return Step::Fail;
    case Kind::Filler:
      return Step::GoOn;
    case Kind::Routine:
      return decode_routine(rest, pc, adjustment, size, state) ? Step::GoOn : Step::Fail;
    case Kind::SelectFile:
      state.file = read_unsigned(operand, width);
      return Step::GoOn;
    case Kind::Line:
      state.line += read_signed(operand, width);
      return Step::GoOn;
    case Kind::Address:
      state.address += static_cast<std::uint32_t>(read_unsigned(operand, width) + 1);
      return Step::Test;
    case Kind::Match:
      return Step::Test;
    case Kind::NextLine:
      state.line += 1;
      state.address += (rest.data[0] & 0x3Fu) + 1;
      return Step::Test;
    case Kind::LineAndAddress:
      state.line += read_signed(operand, width);
      state.address += (rest.data[0] & 0x3Fu) + 1;
      return Step::Test;
  }
  return Step::Fail;
}

bool decode_items(Bytes rest, std::uint64_t pc, std::uint64_t adjustment, State& state) {
  while (rest.size > 0) {
    const Item item = item_for(rest.data[0]);
    std::size_t size = item.size;
    if (size > rest.size) {
      return false;
    }
    const Step step = decode_item(item, rest, pc, adjustment, size, state);
    if (step == Step::Fail) {
      return false;
    }
    if (step == Step::Test && state.address >= pc) {
      return true;
    }
    rest = rest.from(size);
  }
  return false;
}

}  // namespace

bool find_location(Bytes section, std::uint64_t pc, std::uint64_t bias, Location& location) {
  Block block;
  if (!find_block(section, pc, bias, block)) {
    return false;
  }
  Bytes items = block.files;
  Bytes last_file;
  if (!take_files(items, block.file_count, last_file)) {
    return false;
  }
  State state = {.address = block.adjustment};
  if (block.file_count == 0 || !decode_items(items, pc, block.adjustment, state)) {
    return false;
  }
  location.routine = state.routine;
  location.routine_known = state.routine_known;
  location.line = state.line;
  location.file_known =
      state.file < block.file_count && take_files(block.files, state.file + 1, location.file);
  return true;
}

}  // namespace ksomd::traceback
