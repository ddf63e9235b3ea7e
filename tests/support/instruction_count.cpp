#include "support/instruction_count.h"

namespace ksomd::test {
namespace {

// As much of an instruction as its kind depends on.
struct Decoded {
  enum Map { OneByte, TwoByte, OtherMap } map;
  std::uint8_t opcode, modrm;
  bool wide;      // VEX or EVEX
  int mandatory;  // 0, 0x66, 0xF3, 0xF2: the prefix that selects among instructions
};

bool is_legacy_prefix(std::uint8_t byte) {
  return byte == 0x66 || byte == 0xF2 || byte == 0xF3 || byte == 0x2E || byte == 0x3E ||
         byte == 0x67;
}

constexpr int mandatory_prefixes[] = {0, 0x66, 0xF3, 0xF2};

Decoded decode(const std::uint8_t* code) {
  int mandatory = 0;
  for (; is_legacy_prefix(*code); ++code) {
    mandatory = *code == 0x2E || *code == 0x3E || *code == 0x67 ? mandatory : *code;
  }
  const auto map_of = [](int number) { return number == 1 ? Decoded::TwoByte : Decoded::OtherMap; };
  switch (*code) {
    case 0xC5:
      return {Decoded::TwoByte, code[2], code[3], true, mandatory_prefixes[code[1] & 3]};
    case 0xC4:
      return {map_of(code[1] & 31), code[3], code[4], true, mandatory_prefixes[code[2] & 3]};
    case 0x62:
      return {map_of(code[1] & 7), code[4], code[5], true, mandatory_prefixes[code[2] & 3]};
    default:
      break;
  }
  if ((*code & 0xF0) == 0x40) {
    ++code;
  }
  if (*code != 0x0F) {
    return {Decoded::OneByte, code[0], code[1], false, mandatory};
  }
  const bool longer = code[1] == 0x38 || code[1] == 0x3A;
  return {longer ? Decoded::OtherMap : Decoded::TwoByte, code[1], code[2], false, mandatory};
}

InstructionKind classify_two_byte(const Decoded& found) {
  const bool to_memory = found.modrm >> 6 != 3;
  switch (found.opcode) {
    case 0xC3:  // movnti
    case 0xE7:  // movntdq
    case 0x2B:  // movntps, movntpd
      return InstructionKind::NonTemporalStore;
    case 0xAE:
      return found.modrm == 0xF8   ? InstructionKind::StoreFence
             : found.modrm == 0xE8 ? InstructionKind::LoadFence
                                   : InstructionKind::Other;
    case 0x18:
      switch (found.modrm >> 3 & 7) {
        case 0:
          return InstructionKind::PrefetchNta;
        case 1:
          return InstructionKind::PrefetchT0;
        case 2:
          return InstructionKind::PrefetchT1;
        default:
          return InstructionKind::Other;
      }
    case 0x77:
      return found.wide ? InstructionKind::ZeroUpper : InstructionKind::Other;
    case 0x11:  // movups and the like
    case 0x29:  // movaps
    case 0x7F:  // movdqa, movdqu
    case 0xD6:  // movq
    case 0x7E:  // movd, movq
    case 0x13:  // movlps
    case 0x17:  // movhps
      return to_memory && (found.opcode != 0x7E || found.mandatory != 0xF3)
                 ? InstructionKind::VectorStore
                 : InstructionKind::Other;
    default:
      return InstructionKind::Other;
  }
}

}  // namespace

InstructionKind classify(const std::uint8_t* code) {
  const Decoded found = decode(code);
  if (found.map == Decoded::TwoByte) {
    return classify_two_byte(found);
  }
  if (found.map == Decoded::OtherMap) {
    return InstructionKind::Other;
  }
  switch (found.opcode) {
    case 0xA4:
    case 0xA5:
      return InstructionKind::StringMove;
    case 0xAA:
    case 0xAB:
      return InstructionKind::StringFill;
    case 0x88:
    case 0x89:
    case 0xC6:
    case 0xC7:
      return found.modrm >> 6 != 3 ? InstructionKind::GeneralStore : InstructionKind::Other;
    default:
      return InstructionKind::Other;
  }
}

}  // namespace ksomd::test
