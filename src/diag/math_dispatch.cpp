// The processor level of the math routines, their slots, and what an error does to errno.
#include <cerrno>

#include "diag/math.h"

namespace ksomd::math {
namespace {

struct LevelRow {
  std::uint32_t level;
  FeatureSet needs;
};

template <class... Bit>
consteval LevelRow level_row(std::uint32_t level, Bit... bits) {
  LevelRow row{level, {0, 0}};
  ((row.needs[bits / 64] |= std::uint64_t{1} << bits % 64), ...);
  return row;
}

// The first row that the features fill counts.
constexpr LevelRow levels[] = {
    level_row(12, 92),                  // AVX_10_2
    level_row(11, 43, 44, 48),          // AVX512_BITALG, AVX512_VBMI2, AVX512_VNNI
    level_row(10, 13, 18, 19, 20, 23),  // PCLMULQDQ, FMA, BMI, LZCNT, AVX2
    level_row(9, 16),                   // AVX
    level_row(8, 10),                   // SSE4_2
    level_row(7, 9),                    // SSE4_1
    level_row(6, 8),                    // SSSE3
    level_row(5, 7),                    // SSE3
    level_row(4, 6),                    // SSE2
    level_row(3, 5),                    // SSE
    level_row(2, 1),                    // X87
    level_row(1),
};

struct ErrorRow {
  Error error;
  int number;
  bool only_for_zero;
};

constexpr ErrorRow errors[] = {
    {Error::LogbOfZero, EDOM, false},        {Error::LogbfOfZero, EDOM, false},
    {Error::ScalbnOverflow, ERANGE, false},  {Error::ScalbnUnderflow, ERANGE, true},
    {Error::ScalbnfOverflow, ERANGE, false}, {Error::ScalbnfUnderflow, ERANGE, true},
};

}  // namespace

void report(Error error, bool result_is_zero) {
  for (const ErrorRow& row : errors) {
    if (row.error == error && (result_is_zero || !row.only_for_zero)) {
      errno = row.number;
    }
  }
}

std::uint32_t level_of(const FeatureSet& features) {
  for (const LevelRow& row : levels) {
    if ((features[0] & row.needs[0]) == row.needs[0] &&
        (features[1] & row.needs[1]) == row.needs[1]) {
      return row.level;
    }
  }
  return 1;
}

std::uint32_t process_level(LevelState& state) {
  std::uint32_t level = __atomic_load_n(&state.level, __ATOMIC_ACQUIRE);
  while (level == 0) {
    std::uint32_t idle = 0;
    if (__atomic_compare_exchange_n(&state.started, &idle, 1, false, __ATOMIC_ACQ_REL,
                                    __ATOMIC_ACQUIRE)) {
      const std::uint64_t word = feature_word();
      const FeatureSet features = {word, load_feature_word(__orvex_cpu_feature_indicator[1])};
      std::uint32_t unset = 0;
      __atomic_compare_exchange_n(&state.level, &unset, level_of(features), false, __ATOMIC_ACQ_REL,
                                  __ATOMIC_ACQUIRE);
    } else {
      __builtin_ia32_pause();
    }
    level = __atomic_load_n(&state.level, __ATOMIC_ACQUIRE);
  }
  return level;
}

namespace {

// A slot's resolver and table.
template <auto& slot, auto* first, auto* second, class = decltype(first)>
struct Dispatch;

template <auto& slot, auto* first, auto* second, class Result, class... Argument>
struct Dispatch<slot, first, second, Result (*)(Argument...)> {
  static Result resolve(Argument... argument) {
    static constexpr auto table = table_of<Result(Argument...)>(resolve, first, second);
    return install(slot, table, __libkso_math_level)(argument...);
  }
};

template <class Function>
Function* load(Function* const& slot) {
  return __atomic_load_n(&slot, __ATOMIC_ACQUIRE);
}

}  // namespace
}  // namespace ksomd::math

using namespace ksomd::math;

constinit LevelState __libkso_math_level{};

constinit double (*__libkso_fmax_slot)(double, double) =
    Dispatch<__libkso_fmax_slot, general::fmax, vector::fmax>::resolve;
constinit float (*__libkso_fmaxf_slot)(float, float) =
    Dispatch<__libkso_fmaxf_slot, general::fmaxf, vector::fmaxf>::resolve;
constinit double (*__libkso_copysign_slot)(double, double) =
    Dispatch<__libkso_copysign_slot, general::copysign, vector::copysign>::resolve;
constinit float (*__libkso_copysignf_slot)(float, float) =
    Dispatch<__libkso_copysignf_slot, general::copysignf, vector::copysignf>::resolve;
constinit double (*__libkso_logb_slot)(double) =
    Dispatch<__libkso_logb_slot, general::logb, vector::logb>::resolve;
constinit double (*__libkso_scalbn_slot)(double, std::int32_t) =
    Dispatch<__libkso_scalbn_slot, general::scalbn, vector::scalbn>::resolve;

double __libkso_fmax(double x, double y) {
  return load(__libkso_fmax_slot)(x, y);
}
float __libkso_fmaxf(float x, float y) {
  return load(__libkso_fmaxf_slot)(x, y);
}
double __libkso_copysign(double x, double y) {
  return load(__libkso_copysign_slot)(x, y);
}
float __libkso_copysignf(float x, float y) {
  return load(__libkso_copysignf_slot)(x, y);
}
double __libkso_logb(double x) {
  return load(__libkso_logb_slot)(x);
}
double __libkso_scalbn(double x, std::int32_t n) {
  return load(__libkso_scalbn_slot)(x, n);
}
