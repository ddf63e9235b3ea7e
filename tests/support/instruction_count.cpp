#include "support/instruction_count.h"

#include <algorithm>
#include <utility>

namespace ksomd::test {
namespace {

using enum InstructionKind;

// The kinds by their opcodes, 0x0F in front of those of the second map, and by bits of the ModRM
// byte. Stores are told from register moves by that byte, too.
constexpr struct {
  InstructionKind kind;
  int opcodes[7];
  std::uint8_t mask = 0, modrm = 0;
} kinds[] = {
    {StringMove, {0xA4, 0xA5}},
    {StringFill, {0xAA, 0xAB}},
    {GeneralStore, {0x88, 0x89, 0xC6, 0xC7}},
    {NonTemporalStore, {0x0F2B, 0x0FC3, 0x0FE7}},
    {VectorStore, {0x0F11, 0x0F13, 0x0F17, 0x0F29, 0x0F7E, 0x0F7F, 0x0FD6}},
    {StoreFence, {0x0FAE}, 0xFF, 0xF8},
    {LoadFence, {0x0FAE}, 0xFF, 0xE8},
    {PrefetchNta, {0x0F18}, 0x38, 0x00},
    {PrefetchT0, {0x0F18}, 0x38, 0x08},
    {PrefetchT1, {0x0F18}, 0x38, 0x10},
    {ZeroUpper, {0x0F77}},
};

InstructionKind classify(const std::uint8_t* code) {
  bool f3 = false;
  constexpr std::uint8_t prefixes[] = {0x66, 0xF2, 0xF3, 0x2E, 0x3E, 0x67};
  for (; std::ranges::count(prefixes, *code) != 0; ++code) {
    f3 |= *code == 0xF3;
  }
  int map = 0;
  if (const int vex = *code == 0xC5 ? 1 : *code == 0xC4 ? 2 : *code == 0x62 ? 3 : 0; vex != 0) {
    map = vex == 1 ? 1 : code[1] & (vex == 2 ? 31 : 7);
    f3 = (code[vex == 1 ? 1 : 2] & 3) == 2;
    code += vex + 1;
  } else {
    code += (*code & 0xF0) == 0x40 ? 1 : 0;
    map = *code == 0x0F ? 1 : 0;
    code += map;
  }
  const int opcode = (map == 1 ? 0x0F00 : map << 16) | code[0];
  for (const auto& row : kinds) {
    if (std::ranges::count(row.opcodes, opcode) != 0 && (code[1] & row.mask) == row.modrm) {
      const bool stores = row.kind >= NonTemporalStore && row.kind <= GeneralStore;
      const bool to_register = code[1] >> 6 == 3 || (f3 && opcode == 0x0F7E);
      return stores && to_register ? Other : row.kind;
    }
  }
  return Other;
}

}  // namespace

void InstructionCount::add(const std::uint8_t* next) {
  const InstructionKind kind = classify(next);
  if (std::exchange(last_, next) == next && (kind == StringMove || kind == StringFill)) {
    return;
  }
  ++executed[static_cast<int>(kind)];
  fenced = kind == StoreFence || (fenced && kind != NonTemporalStore);
  unfenced_stores += !fenced && (kind == VectorStore || kind == GeneralStore);
}

}  // namespace ksomd::test
