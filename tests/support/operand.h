// Operands whose neighbourhood is watched: they end, or begin, at a page that faults, and the bytes
// around them must not change.
//
//        page that faults | canaries | operand | page that faults        (AtEnd)
//        page that faults | operand | canaries | page that faults        (AtStart)
#pragma once

#include <cstddef>

#include "support/guarded_memory.h"

namespace ksomd::test {

enum class Place { AtEnd, AtStart };

class Operand {
 public:
  explicit Operand(std::size_t capacity) : memory_(capacity) {}

  // Room for `size` bytes, `distance` bytes from the page that faults, all of them and the canaries
  // filled with one pattern. Earlier results are gone.
  unsigned char* place(std::size_t size, Place place, std::size_t distance = 0);
  template <class Value>
  Value* place_values(std::size_t count, Place where, std::size_t distance = 0) {
    return reinterpret_cast<Value*>(place(count * sizeof(Value), where, distance));
  }

  // Whether every byte around the operand is what it was.
  bool intact() const;

 private:
  GuardedMemory memory_;
  unsigned char *from_ = nullptr, *first_ = nullptr, *end_ = nullptr, *to_ = nullptr;
};

}  // namespace ksomd::test
