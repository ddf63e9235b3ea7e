// Conversions from quad to the processor's own types.
#include "quad/format.h"
#include "quad/to_quad.h"
#include "second_names.h"

using namespace ksomd::quad;

namespace {

// ---- float and double ---------------------------------------------------------------------------

// The upper `width` bits of a significand, with the lowest also standing for all below them.
template <int width>
std::uint64_t upper_bits(Uint128 significand) {
  const std::uint64_t kept = high_word(significand) >> (64 - width);
  return kept | ((significand << width) != 0 ? 1 : 0);
}

template <class Float>
struct Narrowing {
  using Format = FloatFormat<Float>;
  using Bits = Format::Bits;

  // Enough for round_in_mode, and for deciding every tie.
  static constexpr int width = 32;
  static constexpr std::uint64_t half = std::uint64_t{1} << (width - 1);
  static constexpr int rebias = bias - Format::exponent_bias;

  static Float make(std::uint64_t sign, std::uint64_t magnitude) {
    return std::bit_cast<Float>(
        static_cast<Bits>(sign >> (63 - Format::sign_position) | magnitude));
  }

  // Rounds a significand with its leading one at bit 127, or lower with `exponent` 1, exponent
  // being the field of the result. A carry moves into the exponent.
  static Float round(std::uint64_t sign, int exponent, Uint128 significand) {
    const std::uint64_t kept = high_word(significand) >> (63 - Format::fraction_width);
    const std::uint64_t rounded =
        round_in_mode<width>(sign, upper_bits<width + 1>(significand << Format::fraction_width));
    const std::uint64_t exponent_bits = static_cast<std::uint64_t>(exponent - 1)
                                        << Format::fraction_width;
    return make(sign, exponent_bits + (kept & ~std::uint64_t{1}) + rounded);
  }

  static Float overflow(std::uint64_t sign) {
    raise_overflow_and_inexact();
    const auto infinite = std::uint64_t{Format::special} << Format::fraction_width;
    return make(sign, overflows_to_infinity(rounding_mode(), sign) ? infinite : infinite - 1);
  }

  [[gnu::cold, gnu::noinline]] static Float any(std::uint64_t high, std::uint64_t low) {
    const std::uint64_t sign = high & sign_bit;
    const int field = exponent_field(high);
    const auto infinite = std::uint64_t{Format::special} << Format::fraction_width;
    if (field == special_exponent) {
      if (!is_nan(high, low)) {
        return make(sign, infinite);
      }
      if (is_signaling(high, low)) {
        raise_invalid();
      }
      const std::uint64_t fraction = (high << 16 | low >> 48) >> (64 - Format::fraction_width);
      return make(sign, infinite | Bits{1} << (Format::fraction_width - 1) | fraction);
    }
    if (((high & magnitude_bits) | low) == 0) {
      return make(sign, 0);
    }
    const int exponent = field - rebias;
    // Numbers with exponent field 0 are far too small for their leading bits to matter.
    Uint128 significand = normal_significand(high, low);
    const auto carries_out = [&] {
      return significand >> (127 - Format::fraction_width) ==
                 (static_cast<Uint128>(2) << Format::fraction_width) - 1 &&
             rounds_up(rounding_mode(), sign, 1,
                       upper_bits<width>(significand << (Format::fraction_width + 1)), half);
    };
    if (exponent >= Format::special || (exponent == Format::special - 1 && carries_out())) {
      return overflow(sign);
    }
    if (exponent >= 1) {
      return round(sign, exponent, significand);
    }
    // Tiny, unless it is just below the smallest normal number and rounds up to it.
    const bool tiny = exponent < 0 || !carries_out();
    significand = shift_right_sticky(significand, std::min(1 - exponent, 127));
    if (tiny && significand << (Format::fraction_width + 1) != 0) {
      raise_underflow_and_inexact();
    }
    return round(sign, 1, significand);
  }

  static Float convert(const quad128* a) {
    const std::uint64_t high = a->high;
    const std::uint64_t low = a->low;
    // Normal results, rounded up or not.
    const std::uint64_t exponent = (high << 1 >> 49) - rebias;
    if (exponent - 1 > Format::special - 2 - 1) [[unlikely]] {
      return any(high, low);
    }
    return round(high & sign_bit, static_cast<int>(exponent), normal_significand(high, low));
  }
};

// ---- integers -----------------------------------------------------------------------------------

template <class Integer>
inline constexpr Integer indefinite =
    static_cast<Integer>(std::uint64_t{1} << (8 * sizeof(Integer) - 1));

template <class Integer>
[[gnu::cold, gnu::noinline]] Integer out_of_range() {
  raise_invalid();
  return indefinite<Integer>;
}

// A magnitude below 2^64 as its integer part and the 64 bits below the point, the lowest sticky.
struct FixedPoint {
  std::uint64_t integer;
  std::uint64_t fraction;
};
[[gnu::always_inline]] inline FixedPoint fixed_point(std::uint64_t high, std::uint64_t low) {
  const int exponent = exponent_field(high) - bias;
  const Uint128 significand = normal_significand(high, low);
  const std::uint64_t top = high_word(significand);
  const std::uint64_t sticky = low_word(significand) != 0 ? 1 : 0;
  if (exponent >= 0 && exponent < 63) [[likely]] {
    return {top >> (63 - exponent), top << 1 << exponent | sticky};
  }
  if (exponent == 63) {
    return {top, low_word(significand)};
  }
  if (exponent == -1) {
    return {0, top | sticky};
  }
  // Less than a half, and subnormal or 0 perhaps.
  return {0, ((high & magnitude_bits) | low) != 0 ? std::uint64_t{1} : 0};
}

inline bool rounds_up_to_integer(std::int32_t mode, bool negative, FixedPoint value,
                                 bool away_otherwise) {
  constexpr std::uint64_t half = std::uint64_t{1} << 63;
  const bool inexact = value.fraction != 0;
  switch (mode) {
    case KSOMD_ROUND_TOWARD_ZERO:
      return false;
    case KSOMD_ROUND_NEAREST_EVEN:
      return value.fraction > half || (value.fraction == half && (value.integer & 1) != 0);
    case KSOMD_ROUND_DOWN:
      return negative && inexact;
    case KSOMD_ROUND_UP:
      return !negative && inexact;
    default:
      return away_otherwise && inexact;
  }
}

// The common case: 1 <= |a| < 2^63, cut. The inexact flag is raised.
[[gnu::always_inline]] inline std::uint64_t cut_to_integer(int exponent, std::uint64_t high,
                                                           std::uint64_t low) {
  // A shift that keeps both parts, as a product: shifts by a variable distance take longer.
  const std::uint64_t factor = computed_here(std::uint64_t{1} << (exponent + 1));
  const Uint128 parts = static_cast<Uint128>(high_word(normal_significand(high, low))) * factor;
  raise_inexact_if((low_word(parts) | low << remainder_width) != 0);
  return high_word(parts);
}

template <class Integer>
[[gnu::noinline]] Integer to_signed_any(std::uint64_t high, std::uint64_t low, std::int32_t mode,
                                        bool away_otherwise) {
  constexpr int width = 8 * sizeof(Integer);
  if (exponent_field(high) >= bias + width) {
    return out_of_range<Integer>();
  }
  const FixedPoint value = fixed_point(high, low);
  const std::uint64_t negative = high >> 63;
  const std::uint64_t magnitude =
      value.integer + (rounds_up_to_integer(mode, negative != 0, value, away_otherwise) ? 1 : 0);
  constexpr std::uint64_t limit = std::uint64_t{1} << (width - 1);
  // A carry out of 64 bits leaves 0; the integer part then was too large before it.
  if (magnitude > limit - 1 + negative || value.integer > limit) {
    return out_of_range<Integer>();
  }
  raise_inexact_if(value.fraction != 0);
  return static_cast<Integer>((magnitude ^ -negative) + negative);
}

template <class Integer>
[[gnu::always_inline]] inline Integer to_signed(const quad128* a, std::int32_t mode,
                                                bool away_otherwise) {
  constexpr int width = 8 * sizeof(Integer);
  const std::uint64_t high = a->high;
  const int exponent = exponent_field(high) - bias;
  if (mode == KSOMD_ROUND_TOWARD_ZERO && exponent >= 0 && exponent < width - 1) [[likely]] {
    const auto mask = static_cast<std::uint64_t>(static_cast<std::int64_t>(high) >> 63);
    return static_cast<Integer>((cut_to_integer(exponent, high, a->low) ^ mask) - mask);
  }
  return to_signed_any<Integer>(high, a->low, mode, away_otherwise);
}

template <class Integer>
[[gnu::noinline]] Integer to_unsigned_any(std::uint64_t high, std::uint64_t low) {
  constexpr int width = 8 * sizeof(Integer);
  const int field = exponent_field(high);
  if (field >= bias + width || (field >= bias && (high & sign_bit) != 0)) {
    return out_of_range<Integer>();
  }
  const FixedPoint value = fixed_point(high, low);
  raise_inexact_if(value.fraction != 0);
  return static_cast<Integer>(value.integer);
}

template <class Integer>
[[gnu::always_inline]] inline Integer to_unsigned(const quad128* a) {
  constexpr std::uint64_t width = std::min<std::uint64_t>(8 * sizeof(Integer), 63);
  const std::uint64_t high = a->high;
  // The sign is left in it: negative numbers are out of the range asked for.
  const std::uint64_t exponent = (high >> 48) - bias;
  if (exponent < width) [[likely]] {
    return static_cast<Integer>(cut_to_integer(static_cast<int>(exponent), high, a->low));
  }
  return to_unsigned_any<Integer>(high, a->low);
}

// ---- 80 bits ------------------------------------------------------------------------------------

// Infinities and NaNs.
[[gnu::cold, gnu::noinline]] void special_to_extended(extended80* r, std::uint64_t high,
                                                      std::uint64_t low) {
  constexpr std::uint64_t integer_bit = std::uint64_t{1} << 63;
  constexpr std::uint64_t extended_quiet_bit = std::uint64_t{1} << 62;
  r->sign_exponent = static_cast<std::uint16_t>(high >> 48);
  if (!is_nan(high, low)) {
    r->significand = integer_bit;
    return;
  }
  if (is_signaling(high, low)) {
    raise_invalid();
  }
  r->significand = integer_bit | extended_quiet_bit | high << 16 >> 1 | low >> 49;
}

}  // namespace

double __qtod(const quad128* a) {
  return Narrowing<double>::convert(a);
}
KSOMD_SECOND_NAMES(__qtod);
float __qtof(const quad128* a) {
  return Narrowing<float>::convert(a);
}
KSOMD_SECOND_NAMES(__qtof);

extended80* __qtol(extended80* r, const quad128* a) {
  constexpr int remainder_bits = 49;
  constexpr std::uint64_t mask = (std::uint64_t{1} << remainder_bits) - 1;
  const std::uint64_t high = a->high;
  const std::uint64_t low = a->low;
  const std::uint64_t sign = high & sign_bit;
  const int field = exponent_field(high);
  if (field == special_exponent) [[unlikely]] {
    special_to_extended(r, high, low);
    return r;
  }
  const std::uint64_t integer_bit = static_cast<std::uint64_t>(field != 0 ? 1 : 0) << 63;
  const std::uint64_t kept = integer_bit | high << 16 >> 1 | low >> remainder_bits;
  const std::uint64_t remainder = low & mask;
  // The ends of the range: what carries out of the largest exponent, and what stays in the lowest.
  const std::uint64_t all_ones = ~std::uint64_t{0} >> (field != 0 ? 0 : 1);
  if ((field == 0 || field == largest_exponent) && remainder != 0) [[unlikely]] {
    const bool carries =
        kept == all_ones && rounds_up(rounding_mode(), sign, 1, remainder, (mask >> 1) + 1);
    if (field == 0 && !carries) {
      raise_underflow_and_inexact();
    } else if (field != 0 && carries) {
      raise_overflow_and_inexact();
    }
  }
  const std::uint64_t rounded = round_in_mode<remainder_bits>(sign, low & (2 * mask + 1));
  const std::uint64_t significand = (kept & ~std::uint64_t{1}) + rounded;
  // A carry out of all ones leaves the integer bit alone, one exponent higher; one of a subnormal
  // number sets it.
  const bool carry = (significand >> 63) != (kept >> 63);
  r->significand = significand | (kept & std::uint64_t{1} << 63);
  r->sign_exponent = static_cast<std::uint16_t>((high >> 48) + (carry ? 1 : 0));
  return r;
}

std::int32_t __qtoi(const quad128* a, std::int32_t mode) {
  return to_signed<std::int32_t>(a, mode, true);
}
KSOMD_SECOND_NAMES(__qtoi);
std::int64_t __qtoj(const quad128* a, std::int32_t mode) {
  return to_signed<std::int64_t>(a, mode, false);
}
KSOMD_SECOND_NAMES(__qtoj);
std::uint32_t __qtou(const quad128* a) {
  return to_unsigned<std::uint32_t>(a);
}
std::uint64_t __qtok(const quad128* a) {
  return to_unsigned<std::uint64_t>(a);
}
