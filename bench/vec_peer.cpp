// Compiled by each compiler at -O3, for the processors that the library supports at least; PEER is
// the name of the result.
#include "vec_peer.h"

namespace {

template <class T>
struct Complex {
  T re, im;
};

template <class T, std::int32_t operation>
T combined(T d, T s) {
  if constexpr (operation == 1) {
    return static_cast<T>(d + s);
  } else if constexpr (operation == 2) {
    return static_cast<T>(static_cast<decltype(T{} + 0U)>(d) * s);
  } else if constexpr (operation == 3) {
    return static_cast<T>(d - s);
  } else if constexpr (operation == 4) {
    return s <= d ? d : s;
  } else if constexpr (operation == 5) {
    return d <= s ? d : s;
  } else if constexpr (operation == 6) {
    return d != 0 && s != 0;
  } else if constexpr (operation == 7) {
    return d != 0 || s != 0;
  } else if constexpr (operation == 8) {
    return static_cast<T>(d & s);
  } else if constexpr (operation == 9) {
    return static_cast<T>(d | s);
  } else if constexpr (operation == 10) {
    return static_cast<T>(d ^ s);
  } else if constexpr (operation == 12) {
    return d == s;
  } else {
    return d != s;
  }
}

template <class T, std::int32_t operation>
void fold(void* destination, const void* source, std::uint64_t count) {
  auto* d = static_cast<T*>(destination);
  const auto* s = static_cast<const T*>(source);
  for (std::uint64_t i = 0; i < count; ++i) {
    d[i] = combined<T, operation>(d[i], s[i]);
  }
}

template <class T>
void multiply(void* destination, const void* source, std::uint64_t count) {
  auto* d = static_cast<Complex<T>*>(destination);
  const auto* s = static_cast<const Complex<T>*>(source);
  for (std::uint64_t i = 0; i < count; ++i) {
    d[i] = {d[i].re * s[i].re - d[i].im * s[i].im, d[i].re * s[i].im + d[i].im * s[i].re};
  }
}

#define FLOAT_FOLDS(code, T)                                                                  \
  {code, 1, fold<T, 1>}, {code, 2, fold<T, 2>}, {code, 3, fold<T, 3>}, {code, 4, fold<T, 4>}, \
      {code, 5, fold<T, 5>}, {code, 6, fold<T, 6>}, {code, 7, fold<T, 7>},                    \
      {code, 12, fold<T, 12>}, {                                                              \
    code, 13, fold<T, 13>                                                                     \
  }
#define INTEGER_FOLDS(code, T)                                          \
  FLOAT_FOLDS(code, T), {code, 8, fold<T, 8>}, {code, 9, fold<T, 9>}, { \
    code, 10, fold<T, 10>                                               \
  }

const PeerFold folds[] = {
    INTEGER_FOLDS(1, std::uint8_t),  INTEGER_FOLDS(2, std::int8_t),
    INTEGER_FOLDS(3, std::uint16_t), INTEGER_FOLDS(4, std::int16_t),
    INTEGER_FOLDS(5, std::uint32_t), INTEGER_FOLDS(6, std::int32_t),
    INTEGER_FOLDS(7, std::uint64_t), INTEGER_FOLDS(8, std::int64_t),
    FLOAT_FOLDS(9, float),           FLOAT_FOLDS(10, double),
    {20, 2, multiply<float>},        {21, 2, multiply<double>},
};

void divide_bit_by_bit(std::uint32_t* quotient, std::uint32_t* remainder,
                       const std::uint32_t* dividend, const std::uint32_t* divisor,
                       std::uint32_t words) {
  for (std::uint32_t j = 0; j < words; ++j) {
    quotient[j] = remainder[j] = 0;
  }
  for (std::uint32_t bit = words * 32; bit-- > 0;) {
    std::uint32_t in = dividend[bit / 32] >> bit % 32 & 1;
    for (std::uint32_t j = 0; j < words; ++j) {
      const std::uint32_t out = remainder[j] >> 31;
      remainder[j] = remainder[j] << 1 | in;
      in = out;
    }
    std::uint32_t j = words;
    while (j > 0 && remainder[j - 1] == divisor[j - 1]) {
      --j;
    }
    if (in != 0 || j == 0 || remainder[j - 1] > divisor[j - 1]) {
      std::uint64_t borrow = 0;
      for (j = 0; j < words; ++j) {
        const std::uint64_t difference = std::uint64_t{remainder[j]} - divisor[j] - borrow;
        remainder[j] = static_cast<std::uint32_t>(difference);
        borrow = difference >> 63;
      }
      quotient[bit / 32] |= std::uint32_t{1} << bit % 32;
    }
  }
}

template <class Result, class Integer>
Result convert(const Integer* value) {
  return static_cast<Result>(*value);
}

}  // namespace

const Peer PEER = {folds,
                   sizeof folds / sizeof folds[0],
                   divide_bit_by_bit,
                   convert<double, std::int64_t>,
                   convert<double, std::uint64_t>,
                   convert<float, std::int64_t>,
                   convert<float, std::uint64_t>};
