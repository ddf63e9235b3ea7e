// Counts the instructions that a call executes, by kind, under the single-step trap (host only).
#pragma once

#include <cstddef>
#include <cstdint>

#include "support/single_step.h"

namespace ksomd::test {

enum class InstructionKind : int {
  StringMove,        // (rep) movsb, movsq
  StringFill,        // (rep) stosb, stosq
  NonTemporalStore,  // movnti, movntdq and their wide forms
  VectorStore,       // ordinary stores of vector registers
  GeneralStore,      // ordinary stores of general registers
  StoreFence,
  LoadFence,
  PrefetchNta,
  PrefetchT0,
  PrefetchT1,
  ZeroUpper,
  Other,
};
inline constexpr int instruction_kinds = 12;

// The kind of the instruction at `code`.
InstructionKind classify(const std::uint8_t* code);

struct InstructionCount {
  std::size_t executed[instruction_kinds] = {};
  // Ordinary stores between a non-temporal store and the store fence that follows it.
  std::size_t unfenced_stores = 0;
  // Whether the last non-temporal store has a fence behind it.
  bool fenced = true;

  std::size_t operator[](InstructionKind kind) const { return executed[static_cast<int>(kind)]; }
};

// What body() executes. A repeated string instruction counts once.
template <class Body>
InstructionCount count_instructions(Body body) {
  struct Session {
    Body& body;
    InstructionCount count;
    const std::uint8_t* last = nullptr;
  } session{body, {}, nullptr};
  single_step(
      [](void* context) { static_cast<Session*>(context)->body(); },
      [](const std::uint8_t* next, void* context) {
        auto& now = *static_cast<Session*>(context);
        const InstructionKind kind = classify(next);
        const bool repeated = next == now.last;
        now.last = next;
        if (repeated &&
            (kind == InstructionKind::StringMove || kind == InstructionKind::StringFill)) {
          return;
        }
        ++now.count.executed[static_cast<int>(kind)];
        if (kind == InstructionKind::NonTemporalStore) {
          now.count.fenced = false;
        } else if (kind == InstructionKind::StoreFence) {
          now.count.fenced = true;
        } else if (kind == InstructionKind::VectorStore || kind == InstructionKind::GeneralStore) {
          now.count.unfenced_stores += !now.count.fenced;
        }
      },
      &session);
  return session.count;
}

}  // namespace ksomd::test
