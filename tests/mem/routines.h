// The routines that copy, move and fill, and ranges for them that know what they should hold.
#pragma once

#include <gtest/gtest.h>

#include <vector>

#include "cpu/feature_set.h"
#include "cpu/feature_table.h"
#include "mem/tuning.h"
#include "support/entry.h"
#include "support/guarded_memory.h"
#include "support/preserved_registers.h"
#include "support/sweep.h"

namespace ksomd::test {

using Byte = unsigned char;
using CopyRoutine = void*(void*, const void*, std::size_t);
using FillRoutine = void*(void*, int, std::size_t);
using CompareRoutine = int(const void*, const void*, std::size_t);
inline constexpr const char* compare_routines[] = {"_orvex_fast_memcmp", "__orvex_new_memcmp"};

inline constexpr std::uint64_t needs_sse2 = 0, needs_avx = feature_mask("AVX"),
                               needs_avx2 = needs_avx | feature_mask("AVX2"),
                               needs_avx512f = needs_avx2 | feature_mask("AVX512F"),
                               needs_avx512bw = needs_avx512f | feature_mask("AVX512BW");

enum class Kind { Copy, Move, Fill, Zero };
// What a routine does with the upper halves of the vector registers.
enum class Upper { Keep, Clear, AsVariant };

struct Routine {
  const char* name;
  Kind kind;
  std::uint64_t needs;
  Upper upper;
  const void* address = nullptr;

  bool copies() const { return kind == Kind::Copy || kind == Kind::Move; }
  template <class Function>
  Function* as() const {
    return reinterpret_cast<Function*>(reinterpret_cast<std::uintptr_t>(address));
  }
};

// All that this processor can run.
const std::vector<Routine>& routines();

// Memory between pages that fault, and what it should hold.
struct Range {
  explicit Range(std::size_t size, void* address = nullptr);

  Byte* begin() const { return memory.begin(); }
  Byte* expected_at(const Byte* place) { return expected.data() + (place - begin()); }
  // A place for n bytes, less than a line from either end or at it.
  Byte* place(Random& random, std::size_t n) const;
  // Whether the n bytes and those around them are what they should be.
  bool holds(const Byte* place, std::size_t n);

  GuardedMemory memory;
  std::vector<Byte> expected;
};

// The arguments of one call. A fill has no source.
struct Call {
  Range& target;
  Byte* d;
  Range& source;
  const Byte* s;
  int value;
  std::size_t n;
};

// How a routine is run; adds to `wrong` what is not as it should be.
using Runner = void*(const Routine& routine, const Call& call, std::string& wrong);
Runner run_plainly;
Runner run_watched;  // looks at the registers

// Whether the result and every byte of both ranges are right.
testing::AssertionResult runs_right(const Routine& routine, const Call& call,
                                    Runner* run = run_plainly);

// A value replaced as long as this lives. (The tuning values are those of the archive; the shared
// library has its own.)
template <class Value>
class Injected {
 public:
  Injected(Value& place, const Value& value) : place_(place), saved_(place) { place = value; }
  ~Injected() { place_ = saved_; }
  Injected(const Injected&) = delete;
  Injected& operator=(const Injected&) = delete;

 private:
  Value &place_, saved_;
};

// Each threshold at random: one below to one above what it takes to switch at `count`, or absurd.
mem::Tuning random_tuning(Random& random, std::size_t count);
std::vector<std::uint64_t> values_of(const mem::Tuning& tuning);

}  // namespace ksomd::test
