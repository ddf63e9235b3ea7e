#include "mem/routines.h"

namespace ksomd::test {

const std::vector<Routine>& routines() {
  static const std::vector<Routine> found = [] {
    std::vector<Routine> result;
    for (Routine routine : std::initializer_list<Routine>{
             {"_orvex_fast_memcpy", Kind::Copy, needs_sse2, Upper::AsVariant},
             {"_orvex_fast_memmove", Kind::Move, needs_sse2, Upper::AsVariant},
             {"_orvex_fast_memset", Kind::Fill, needs_sse2, Upper::AsVariant},
             {"__orvex_new_memcpy", Kind::Copy, needs_sse2, Upper::Keep},
             {"__orvex_new_memmove", Kind::Move, needs_sse2, Upper::Keep},
             {"__orvex_new_memset", Kind::Fill, needs_sse2, Upper::Keep},
             {"__orvex_avx_rep_memcpy", Kind::Copy, needs_avx, Upper::Clear},
             {"__orvex_avx_memmove", Kind::Move, needs_avx2, Upper::Clear},
             {"__orvex_avx_rep_memset", Kind::Fill, needs_avx2, Upper::Clear},
             {"__orvex_tvr_avx512_memcpy", Kind::Copy, needs_avx512f, Upper::Clear},
             {"__orvex_tvr_avx512_memset", Kind::Fill, needs_avx512bw, Upper::Clear},
             {"__orvex_pxn_avx512f_memcpy", Kind::Copy, needs_avx512f, Upper::Keep},
             {"__orvex_pxn_avx512f_rfo_memcpy", Kind::Copy, needs_avx512f, Upper::Keep},
             {"__orvex_pxn_avx512f_memset", Kind::Fill, needs_avx512f, Upper::Keep},
             {"__orvex_pxn_avx512f_rfo_memset", Kind::Fill, needs_avx512f, Upper::Keep},
             {"_VEC_memcpy", Kind::Copy, needs_sse2, Upper::Keep},
             {"_VEC_memset", Kind::Fill, needs_sse2, Upper::Keep},
             {"_VEC_memzero", Kind::Zero, needs_sse2, Upper::Keep},
         }) {
      routine.address = find_entry(routine.name);
      if (has_features(routine.needs)) {
        result.push_back(routine);
      }
    }
    return result;
  }();
  return found;
}

void* run_plainly(const Routine& routine, const Call& c, std::string&) {
  return routine.copies() ? routine.as<CopyRoutine>()(c.d, c.s, c.n)
                          : routine.as<FillRoutine>()(c.d, c.value, c.n);
}

void* run_watched(const Routine& routine, const Call& c, std::string& wrong) {
  const bool wide = has_features(needs_avx), keeps = routine.upper == Upper::Keep;
  const VectorState width = wide ? VectorState::Ymm : VectorState::Xmm;
  RegisterFile before, after;
  wrong +=
      routine.copies()
          ? what_call_changes(width, before, after, routine.as<CopyRoutine>(), c.d, c.s, c.n)
          : what_call_changes(width, before, after, routine.as<FillRoutine>(), c.d, c.value, c.n);
  // The routines that keep the upper halves use few registers at most.
  constexpr Byte zero[16] = {};
  for (int i = keeps ? 15 : 0; wide && routine.upper != Upper::AsVariant && i < 16; ++i) {
    if (std::memcmp(after.vector[i] + 16, keeps ? before.vector[i] + 16 : zero, 16) != 0) {
      wrong += "upper half of ymm" + std::to_string(i) + ' ';
    }
  }
  return reinterpret_cast<void*>(after.general[0]);
}

testing::AssertionResult runs_right(const Routine& routine, const Call& c, Runner* run) {
  if (routine.copies()) {
    std::memmove(c.target.expected_at(c.d), c.source.expected_at(c.s), c.n);
  } else {
    std::memset(c.target.expected_at(c.d), routine.kind == Kind::Zero ? 0 : c.value, c.n);
  }
  std::string wrong;
  if (run(routine, c, wrong) != c.d) {
    wrong += "result ";
  }
  if (!c.target.holds(c.d, c.n) || !c.source.holds(c.s, routine.copies() ? c.n : 0)) {
    wrong += "bytes ";
  }
  if (wrong.empty()) {
    return testing::AssertionSuccess();
  }
  return testing::AssertionFailure()
         << routine.name << "(target + " << c.d - c.target.begin()
         << (&c.target == &c.source ? ", target + " : ", source + ") << c.s - c.source.begin()
         << ", " << c.n << "), value " << c.value << ": wrong " << wrong << "with tuning "
         << testing::PrintToString(values_of(__libkso_mem_tuning));
}

Range::Range(std::size_t size, void* address) : memory(size, address) {
  Random random(size);
  for (std::size_t i = 0; memory && i < memory.size(); ++i) {
    expected.push_back(memory.begin()[i] = static_cast<Byte>(random.next()));
  }
}

Byte* Range::place(Random& random, std::size_t n) const {
  const std::size_t distance = random.one_in(4) ? 0 : random.below(64);
  return random.one_in(2) ? memory.begin() + distance : memory.end() - n - distance;
}

bool Range::holds(const Byte* place, std::size_t n) {
  constexpr std::ptrdiff_t margin = 256;
  const Byte* const from = place - std::min(margin, place - memory.begin());
  const Byte* const to = place + n + std::min(margin, memory.end() - (place + n));
  return std::memcmp(from, expected_at(from), static_cast<std::size_t>(to - from)) == 0;
}

constexpr std::uint64_t mem::Tuning::* sizes[] = {&mem::Tuning::largest_cache_size,
                                                  &mem::Tuning::copy_nt_threshold,
                                                  &mem::Tuning::l1_size,
                                                  &mem::Tuning::l1_half,
                                                  &mem::Tuning::l1_quarter,
                                                  &mem::Tuning::rep_movsb_threshold,
                                                  &mem::Tuning::avx512_nt_threshold,
                                                  &mem::Tuning::rep_stosb_threshold};

mem::Tuning random_tuning(Random& random, std::size_t count) {
  mem::Tuning tuning;
  for (const auto size : sizes) {
    tuning.*size = random.one_in(6)
                       ? random.one_of({std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{1} << 31,
                                        std::uint64_t{1} << 62, ~std::uint64_t{0}})
                       : count + random.below(3) - (count != 0 ? 1 : 0);
  }
  // Fractions of them count.
  tuning.l1_size = tuning.l1_size * 16 / 15;
  tuning.l1_half = tuning.l1_half * 4 / 3;
  tuning.mem_class = random.one_of({0, 1, 2, 2});
  return tuning;
}

std::vector<std::uint64_t> values_of(const mem::Tuning& tuning) {
  std::vector<std::uint64_t> values{static_cast<std::uint64_t>(tuning.mem_class)};
  for (const auto size : sizes) {
    values.push_back(tuning.*size);
  }
  return values;
}

}  // namespace ksomd::test
