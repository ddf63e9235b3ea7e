// Counts the instructions that a call executes, by kind, under the single-step trap (host only).
#pragma once

#include <cstddef>
#include <cstdint>

#include "support/single_step.h"

namespace ksomd::test {

enum class InstructionKind : int {
  StringMove,        // (rep) movsb, movsq
  StringFill,        // (rep) stosb, stosq
  NonTemporalStore,  // movnti, movntdq, movntps and their wide forms
  VectorStore,       // ordinary stores of vector registers
  GeneralStore,      // ordinary stores of general registers
  StoreFence,
  LoadFence,
  PrefetchNta,
  PrefetchT0,
  PrefetchT1,
  ZeroUpper,  // vzeroupper, and emms, which the library does not have
  Other,
};

struct InstructionCount {
  std::size_t executed[static_cast<int>(InstructionKind::Other) + 1] = {};
  // Ordinary stores between a non-temporal store and the store fence that follows it.
  std::size_t unfenced_stores = 0;
  // Whether the last non-temporal store has a fence behind it.
  bool fenced = true;

  std::size_t operator[](InstructionKind kind) const { return executed[static_cast<int>(kind)]; }
  // Counts the instruction that runs next; the repetitions of a string instruction only once.
  void add(const std::uint8_t* next);

 private:
  const std::uint8_t* last_ = nullptr;
};

// What body() executes.
template <class Body>
InstructionCount count_instructions(Body body) {
  InstructionCount count;
  single_step(body, [&count](const std::uint8_t* next) { count.add(next); });
  return count;
}

}  // namespace ksomd::test
