// Word primitives: 128-bit integers of the compiler, and of words of a chosen size.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>
#include <type_traits>

namespace ksomd::quad {

__extension__ using Uint128 = unsigned __int128;
__extension__ using Int128 = __int128;

inline Uint128 make_uint128(std::uint64_t high, std::uint64_t low) {
  return static_cast<Uint128>(high) << 64 | low;
}
inline std::uint64_t high_word(Uint128 value) {
  return static_cast<std::uint64_t>(value >> 64);
}
inline std::uint64_t low_word(Uint128 value) {
  return static_cast<std::uint64_t>(value);
}

// value != 0
inline int leading_zeros(Uint128 value) {
  const std::uint64_t high = high_word(value);
  return high != 0 ? std::countl_zero(high) : 64 + std::countl_zero(low_word(value));
}

// The place of the highest bit that is set; value != 0. Written as the instruction, because the
// compiler would compute the place from the number of leading zeros at every use.
inline std::uint64_t highest_bit(std::uint64_t value) {
  std::uint64_t place;
  asm("bsrq %1, %0" : "=r"(place) : "r"(value) : "cc");
  return place;
}

// value >> distance, 0 <= distance <= 127, with the lowest bit set if any bit is lost.
inline Uint128 shift_right_sticky(Uint128 value, int distance) {
  const Uint128 shifted = value >> distance;
  return shifted | static_cast<Uint128>((shifted << distance) != value);
}

// A 128-bit integer as 128 / bits-of-Word words, the lowest first.
template <class Word>
class Wide {
 public:
  static constexpr int word_bits = static_cast<int>(8 * sizeof(Word));
  static constexpr int words = 128 / word_bits;
  using Double = std::conditional_t<word_bits == 64, Uint128, std::uint64_t>;

  explicit Wide(Uint128 value) {
    for (Word& word : words_) {
      word = static_cast<Word>(value);
      value = value >> (word_bits - 1) >> 1;
    }
  }

  Uint128 value() const {
    Uint128 result = 0;
    for (int i = words; i-- > 0;) {
      result = (result << (word_bits - 1) << 1) | words_[i];
    }
    return result;
  }

  // this + other, or this - other (as the sum with the complement and a carry).
  Wide plus(const Wide& other, bool subtract) const {
    Wide result(0);
    const Word flip = subtract ? static_cast<Word>(~Word{0}) : Word{0};
    Double carry = subtract ? 1 : 0;
    for (int i = 0; i < words; ++i) {
      carry += static_cast<Double>(words_[i]) + static_cast<Word>(other.words_[i] ^ flip);
      result.words_[i] = static_cast<Word>(carry);
      carry >>= word_bits;
    }
    return result;
  }

  // 0 <= distance <= 127; the lowest bit of the result is set if any bit is lost.
  Wide shifted_right_sticky(int distance) const {
    Wide result(0);
    const int skip = distance / word_bits;
    const int bits = distance % word_bits;
    Word lost = 0;
    for (int i = 0; i < words; ++i) {
      // word : 0 shifted right: what stays in this word, and what enters the one below.
      const Double pair = (static_cast<Double>(words_[i]) << word_bits) >> bits;
      put_or(result, lost, i - skip, static_cast<Word>(pair >> word_bits));
      put_or(result, lost, i - skip - 1, static_cast<Word>(pair));
    }
    result.words_[0] |= static_cast<Word>(lost != 0 ? 1 : 0);
    return result;
  }

 private:
  static void put_or(Wide& result, Word& lost, int index, Word word) {
    Word& place = index >= 0 && index < words ? result.words_[index] : lost;
    place |= word;
  }

  Word words_[words];
};

}  // namespace ksomd::quad
