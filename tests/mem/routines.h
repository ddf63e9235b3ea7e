// The routines that copy, move and fill, and ranges for them that know what they should hold.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "mem/dispatch.h"
#include "mem/tuning.h"
#include "support/entry.h"
#include "support/guarded_memory.h"
#include "support/preserved_registers.h"
#include "support/sweep.h"

namespace ksomd::test {

using Byte = unsigned char;
// Copies and fills alike: the second argument is the address of a source, or a value.
using AnyRoutine = void*(Byte*, std::uint64_t, std::size_t);

inline constexpr FeatureMask needs_sse2{},
    needs_avx = feature_mask("AVX"), needs_avx2 = needs_avx | feature_mask("AVX2"),
    needs_avx512f = needs_avx2 | feature_mask("AVX512F"),
    needs_avx512bw = needs_avx512f | feature_mask("AVX512BW");

enum class Kind { Copy, Move, Fill, Zero };
// What a routine does with the upper halves of the vector registers.
enum class Upper { Keep, Clear, AsVariant };

struct Routine {
  const char* name;
  Kind kind;
  FeatureMask needs;
  Upper upper;
  const char* second_name = name;
  AnyRoutine* address = entry<AnyRoutine>(name);
};
inline const Routine routines[] = {
    {"_orvex_fast_memcpy", Kind::Copy, needs_sse2, Upper::AsVariant},
    {"_orvex_fast_memmove", Kind::Move, needs_sse2, Upper::AsVariant},
    {"_orvex_fast_memset", Kind::Fill, needs_sse2, Upper::AsVariant},
    {"__orvex_new_memcpy", Kind::Copy, needs_sse2, Upper::Keep, "__orvex_memcpy"},
    {"__orvex_new_memmove", Kind::Move, needs_sse2, Upper::Keep},
    {"__orvex_new_memset", Kind::Fill, needs_sse2, Upper::Keep, "__orvex_memset"},
    {"__orvex_avx_rep_memcpy", Kind::Copy, needs_avx, Upper::Clear},
    {"__orvex_avx_memmove", Kind::Move, needs_avx2, Upper::Clear},
    {"__orvex_avx_rep_memset", Kind::Fill, needs_avx2, Upper::Clear},
    {"__orvex_tvr_avx512_memcpy", Kind::Copy, needs_avx512f, Upper::Clear},
    {"__orvex_tvr_avx512_memset", Kind::Fill, needs_avx512bw, Upper::Clear},
    {"__orvex_pxn_avx512f_memcpy", Kind::Copy, needs_avx512f, Upper::Keep},
    {"__orvex_pxn_avx512f_rfo_memcpy", Kind::Copy, needs_avx512f, Upper::Keep},
    {"__orvex_pxn_avx512f_memset", Kind::Fill, needs_avx512f, Upper::Keep},
    {"__orvex_pxn_avx512f_rfo_memset", Kind::Fill, needs_avx512f, Upper::Keep},
    {"_VEC_memcpy", Kind::Copy, needs_sse2, Upper::Keep, "__orvex_VEC_memcpy"},
    {"_VEC_memset", Kind::Fill, needs_sse2, Upper::Keep, "__orvex_VEC_memset"},
    {"_VEC_memzero", Kind::Zero, needs_sse2, Upper::Keep, "__orvex_VEC_memzero"},
};

// Memory between pages that fault, across `boundary` if that is free, and what it should hold.
struct Range {
  explicit Range(std::size_t size, std::uintptr_t boundary = 0)
      : memory(size, reinterpret_cast<void*>(boundary - (boundary == 0 ? 0 : 65536))) {
    std::generate(begin(), end(), [random = Random(size)]() mutable { return random.next(); });
    expected.assign(begin(), end());
  }
  Byte* begin() const { return memory.begin(); }
  Byte* end() const { return memory.end(); }
  Byte* expected_at(const Byte* place) { return expected.data() + (place - begin()); }
  // A place for n bytes across the boundary if they are few, or less than a line from either end.
  Byte* place(Random& random, std::size_t n) const {
    constexpr std::size_t boundary = 65536;
    const std::size_t distance = random.one_in(4) ? 0 : random.below(64);
    if (n < boundary && boundary + n < expected.size() && random.one_in(4)) {
      return begin() + boundary - random.below(n + 1);
    }
    return random.one_in(2) ? begin() + distance : end() - n - distance;
  }
  // Whether the n bytes and those around them are what they should be.
  bool holds(const Byte* place, std::size_t n) {
    constexpr std::ptrdiff_t margin = 256;
    const Byte* const from = place - std::min(margin, place - begin());
    const Byte* const to = place + n + std::min(margin, end() - (place + n));
    return std::memcmp(from, expected_at(from), static_cast<std::size_t>(to - from)) == 0;
  }

  GuardedMemory memory;
  std::vector<Byte> expected;
};

// ---- tuning values ------------------------------------------------------------------------------

inline std::string text_of(const mem::Tuning& tuning) {
  std::string text;
  for (const mem::TuningField& field : mem::tuning_fields) {
    text += std::to_string(field.get(tuning)) + ' ';
  }
  return text;
}

// Each threshold at random: one below to one above what it takes to switch at `count`, or absurd.
inline mem::Tuning random_tuning(Random& random, std::size_t count, std::int32_t mem_class) {
  mem::Tuning tuning;
  for (const mem::TuningField& field : mem::tuning_fields) {
    const bool absurd = random.one_in(6);
    field.set(tuning, absurd ? random.one_of<std::uint64_t>({0, 1, 1u << 31, 1ull << 62, ~0ull})
                             : count + random.below(3) - (count != 0 ? 1 : 0));
  }
  tuning.l1_size = tuning.l1_size * 16 / 15;  // fractions of these two count
  tuning.l1_half = tuning.l1_half * 4 / 3;
  tuning.mem_class = mem_class;
  return tuning;
}

// ---- one call -----------------------------------------------------------------------------------

// A fill has no source.
struct Call {
  const Routine& routine;
  Range& target;
  Byte* d;
  Range& source;
  const Byte* s;
  int value;
  std::size_t n;

  bool copies() const { return routine.kind == Kind::Copy || routine.kind == Kind::Move; }
  std::uint64_t second() const {
    return copies() ? reinterpret_cast<std::uintptr_t>(s) : static_cast<std::uint64_t>(value);
  }
};

inline std::ostream& operator<<(std::ostream& out, const Call& c) {
  return out << c.routine.name << " of " << c.n << " bytes to " << c.d - c.target.begin()
             << " from " << c.s - c.source.begin() << (&c.target == &c.source ? " there" : "")
             << ", value " << c.value << ", tuning " << text_of(__libkso_mem_tuning);
}

// Ways to run a routine; they add to `wrong` what is not as it should be.
[[clang::no_sanitize("function")]] inline void* run_plainly(const Call& c, std::string&) {
  return c.routine.address(c.d, c.second(), c.n);
}

// Looks at the registers.
inline void* run_watched(const Call& c, std::string& wrong) {
  const bool wide = has_features(needs_avx), keeps = c.routine.upper == Upper::Keep;
  RegisterFile before, after;
  wrong += what_call_changes(wide ? VectorState::Ymm : VectorState::Xmm, before, after,
                             c.routine.address, c.d, c.second(), c.n);
  // The routines that keep the upper halves use few registers at most.
  constexpr Byte zero[16] = {};
  for (int i = keeps ? 15 : 0; wide && c.routine.upper != Upper::AsVariant && i < 16; ++i) {
    if (std::memcmp(after.vector[i] + 16, keeps ? before.vector[i] + 16 : zero, 16) != 0) {
      wrong += "upper half of ymm" + std::to_string(i) + ' ';
    }
  }
  return reinterpret_cast<void*>(after.general[0]);
}

// Whether the result and every byte of both ranges are right.
inline testing::AssertionResult runs_right(const Call& c,
                                           void* (*run)(const Call&, std::string&) = run_plainly) {
  if (c.copies()) {
    std::memmove(c.target.expected_at(c.d), c.source.expected_at(c.s), c.n);
  } else {
    std::memset(c.target.expected_at(c.d), c.routine.kind == Kind::Zero ? 0 : c.value, c.n);
  }
  std::string wrong;
  const bool right = run(c, wrong) == c.d && c.target.holds(c.d, c.n) &&
                     c.source.holds(c.s, c.copies() ? c.n : 0) && wrong.empty();
  return testing::AssertionResult(right) << c << ": wrong result, bytes or " << wrong;
}

}  // namespace ksomd::test
