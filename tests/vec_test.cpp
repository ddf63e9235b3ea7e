// Reductions against a definition written out element by element.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <type_traits>
#include <vector>

#include "ksomd/quad.h"
#include "ksomd/vector.h"
#include "support/child_process.h"
#include "vec/reduction.h"

namespace {

using namespace ksomd::test;

template <class T, std::uint32_t C, std::uint32_t P = 1>
struct Element {
  using Component = T;
  static constexpr std::uint32_t code = C;
  static constexpr std::uint32_t parts = P;
  static constexpr std::size_t size = sizeof(T) * P;
  static constexpr bool quad = std::is_same_v<T, quad128>;
  static bool allows(int operation) {
    if (operation <= 3) {
      return true;
    }
    if (operation <= 5) {
      return !quad || P != 2;
    }
    return operation >= 8 && operation <= 11 ? std::is_integral_v<T> : !quad;
  }
};

template <class T>
T number(int value) {
  if constexpr (std::is_same_v<T, quad128>) {
    return value == 0 ? quad128{0, 0} : quad128{0, 0x3FFF000000000000};
  } else {
    return static_cast<T>(value);
  }
}

template <class T>
T extreme(bool lowest) {
  if constexpr (std::is_same_v<T, quad128>) {
    return {~std::uint64_t{0}, lowest ? 0xFFFEFFFFFFFFFFFF : 0x7FFEFFFFFFFFFFFF};
  } else if (std::is_same_v<T, float>) {
    return std::bit_cast<T, std::conditional_t<sizeof(T) == 4, std::uint32_t, T>>(
        static_cast<std::conditional_t<sizeof(T) == 4, std::uint32_t, T>>(lowest ? 0xFF7FFFFF
                                                                                 : 0x7F7FFFFF));
  } else {
    return lowest ? std::numeric_limits<T>::lowest() : std::numeric_limits<T>::max();
  }
}

template <class T>
T identity(int operation, std::uint32_t part) {
  switch (operation) {
    case 2:
    case 6:
    case 12:
      return number<T>(part == 0 ? 1 : 0);
    case 4:
    case 5:
      return extreme<T>(operation == 4);
    case 8:
      if constexpr (std::is_integral_v<T>) {
        return static_cast<T>(~T{0});
      }
      return T{};
    default:
      return T{};
  }
}

template <class T>
T combined(int operation, T d, T s) {
  if constexpr (std::is_same_v<T, quad128>) {
    T r = d;
    switch (operation) {
      case 1:
        __addq(&r, &d, &s);
        return r;
      case 2:
        __mulq(&r, &d, &s);
        return r;
      case 3:
        __subq(&r, &d, &s);
        return r;
      case 4:
        return __leq(&d, &s) ? s : d;
      default:
        return __geq(&d, &s) ? s : d;
    }
  } else {
    if constexpr (std::is_integral_v<T>) {
      const auto a = static_cast<unsigned __int128>(d);
      const auto b = static_cast<unsigned __int128>(s);
      switch (operation) {
        case 1:
          return static_cast<T>(a + b);
        case 2:
          return static_cast<T>(a * b);
        case 3:
          return static_cast<T>(a - b);
        case 8:
          return static_cast<T>(a & b);
        case 9:
          return static_cast<T>(a | b);
        case 10:
        case 11:
          return static_cast<T>(a ^ b);
        default:
          break;
      }
    } else {
      volatile T a = d;
      volatile T b = s;
      switch (operation) {
        case 1:
          return a + b;
        case 2:
          return a * b;
        case 3:
          return a - b;
        default:
          break;
      }
    }
    switch (operation) {
      case 4:
        return s <= d ? d : s;
      case 5:
        return d <= s ? d : s;
      case 6:
        return T(d != T{} && s != T{});
      case 7:
        return T(d != T{} || s != T{});
      case 12:
        return T(d == s);
      default:
        return T(!(d == s));
    }
  }
}

template <class T>
T product_part(const T (&d)[2], const T (&s)[2], int part) {
  const auto term = [](T a, T b) { return combined<T>(2, a, b); };
  return part == 0 ? combined<T>(3, term(d[0], s[0]), term(d[1], s[1]))
                   : combined<T>(1, term(d[0], s[1]), term(d[1], s[0]));
}

template <class T>
T random_value(std::mt19937_64& random) {
  if constexpr (std::is_same_v<T, quad128>) {
    switch (random() % 8) {
      case 0:
        return {0, 0};
      case 1:
        return {0, 0x7FFF800000000001};
      case 2:
        return {0, 0x3FFF000000000000};
      case 3:
        return {0, 0x8000000000000000};
      default:
        return {random(), (random() & 0x8000FFFFFFFFFFFF) | (0x3FF0 + random() % 32) << 48};
    }
  } else if constexpr (std::is_floating_point_v<T>) {
    using Limits = std::numeric_limits<T>;
    const T special[] = {0,
                         -T{0},
                         1,
                         -1,
                         Limits::infinity(),
                         -Limits::infinity(),
                         Limits::quiet_NaN(),
                         Limits::max(),
                         Limits::lowest(),
                         Limits::denorm_min(),
                         Limits::min()};
    return random() % 4 == 0 ? special[random() % std::size(special)]
                             : static_cast<T>(static_cast<std::int64_t>(random())) /
                                   static_cast<T>(1 << random() % 30);
  } else {
    const T special[] = {0, 1, 2, static_cast<T>(-1), extreme<T>(true), extreme<T>(false)};
    return random() % 3 == 0 ? special[random() % std::size(special)] : static_cast<T>(random());
  }
}

template <class T>
bool is_nan(const T& a) {
  if constexpr (std::is_same_v<T, quad128>) {
    return __eqq(&a, &a) == 0;
  } else {
    return a != a;
  }
}

// Bits agree. Where an operation makes a NaN of two, which one is not the definition's matter.
template <class T>
bool same(const T& a, const T& b) {
  return std::memcmp(&a, &b, sizeof a) == 0 || (is_nan(a) && is_nan(b));
}

template <class E>
class Reduction : public testing::Test {};

using Elements =
    testing::Types<Element<std::uint8_t, 1>, Element<std::int8_t, 2>, Element<std::uint16_t, 3>,
                   Element<std::int16_t, 4>, Element<std::uint32_t, 5>, Element<std::int32_t, 6>,
                   Element<std::uint64_t, 7>, Element<std::int64_t, 8>, Element<float, 9>,
                   Element<double, 10>, Element<quad128, 13>, Element<float, 20, 2>,
                   Element<double, 21, 2>, Element<quad128, 23, 2>>;
TYPED_TEST_SUITE(Reduction, Elements);

constexpr char untouched = 0x5A;

TYPED_TEST(Reduction, Fill) {
  using T = TypeParam::Component;
  for (int operation = 1; operation <= 13; ++operation) {
    if (!TypeParam::allows(operation)) {
      continue;
    }
    for (std::size_t count = 0; count <= 40; ++count) {
      // One byte off any alignment, with margins that stay as they are.
      std::vector<char> bytes(count * TypeParam::size + 34, untouched);
      __orvex_reduction_init_array(bytes.data() + 17, count, operation, TypeParam::code);
      for (std::size_t j = 0; j < count * TypeParam::parts; ++j) {
        T value;
        std::memcpy(&value, bytes.data() + 17 + j * sizeof(T), sizeof(T));
        const T expected = identity<T>(operation, j % TypeParam::parts);
        ASSERT_EQ(std::memcmp(&value, &expected, sizeof(T)), 0)
            << "operation " << operation << ", part " << j << " of " << count << " elements";
      }
      for (std::size_t j = 0; j < 17; ++j) {
        ASSERT_EQ(bytes[j], untouched);
        ASSERT_EQ(bytes[bytes.size() - 1 - j], untouched);
      }
    }
  }
}

template <class E>
void check_fold(int operation, std::size_t count, int stride, std::mt19937_64& random) {
  using T = E::Component;
  constexpr std::size_t margin = 19;
  const std::size_t reach =
      1 + (count == 0 ? 0 : count - 1) * static_cast<std::size_t>(std::abs(stride));
  std::vector<T> d(count * E::parts), s(reach * E::parts);
  for (T& value : d) {
    value = random_value<T>(random);
  }
  for (T& value : s) {
    value = random_value<T>(random);
  }
  std::vector<char> destination(d.size() * sizeof(T) + 2 * margin, untouched);
  std::vector<char> source(s.size() * sizeof(T) + 3);
  if (!d.empty()) {
    std::memcpy(destination.data() + margin, d.data(), d.size() * sizeof(T));
  }
  std::memcpy(source.data() + 3, s.data(), s.size() * sizeof(T));
  const std::size_t origin = stride < 0 ? reach - 1 : 0;
  __orvex_simd_reduction_final_array(destination.data() + margin,
                                     source.data() + 3 + origin * E::size, count, stride, 1,
                                     operation, E::code);
  for (std::size_t i = 0; i < count; ++i) {
    const auto at = static_cast<std::size_t>(static_cast<std::int64_t>(origin) +
                                             static_cast<std::int64_t>(i) * stride) *
                    E::parts;
    for (std::size_t part = 0; part < E::parts; ++part) {
      const std::size_t j = i * E::parts + part;
      T expected;
      if (E::parts == 2 && operation == 2) {
        expected =
            product_part<T>({d[i * 2], d[i * 2 + 1]}, {s[at], s[at + 1]}, static_cast<int>(part));
      } else {
        expected = combined<T>(operation, d[j], s[at + part]);
      }
      T value;
      std::memcpy(&value, destination.data() + margin + j * sizeof(T), sizeof(T));
      ASSERT_TRUE(same(value, expected)) << "operation " << operation << ", element " << i << " of "
                                         << count << ", part " << part << ", stride " << stride;
    }
  }
  for (std::size_t j = 0; j < margin; ++j) {
    ASSERT_EQ(destination[j], untouched);
    ASSERT_EQ(destination[destination.size() - 1 - j], untouched);
  }
}

TYPED_TEST(Reduction, Fold) {
  std::mt19937_64 random(TypeParam::code);
  for (int operation = 1; operation <= 13; ++operation) {
    if (!TypeParam::allows(operation)) {
      continue;
    }
    for (int stride = -3; stride <= 5; ++stride) {
      for (std::size_t count = 0; count <= 40; ++count) {
        ASSERT_NO_FATAL_FAILURE(check_fold<TypeParam>(operation, count, stride, random));
      }
      ASSERT_NO_FATAL_FAILURE(check_fold<TypeParam>(operation, 1000, stride, random));
    }
  }
}

TEST(ReductionFold, StrideIsIgnoredUnlessInUse) {
  std::int32_t d[] = {1, 2, 3};
  const std::int32_t s[] = {10, 20, 30};
  __orvex_simd_reduction_final_array(d, s, 3, 7, 0, KSOMD_SUM, KSOMD_INT32);
  EXPECT_EQ(d[0], 11);
  EXPECT_EQ(d[1], 22);
  EXPECT_EQ(d[2], 33);
}

KSOMD_CHILD(reduce) {
  const auto type = static_cast<std::uint32_t>(std::stoul(arguments[1]));
  const int operation = std::stoi(arguments[2]);
  alignas(16) char array[64] = {};
  if (arguments[0] == "fill") {
    __orvex_reduction_init_array(array, 0, operation, type);
  } else {
    __orvex_simd_reduction_final_array(array, array, 0, 1, 0, operation, type);
  }
  return 0;
}

// 14 types; what the table of operations leaves out, with count 0.
TEST(ReductionCodes, OthersAbort) {
  const auto allowed = [](unsigned type, int operation) {
    const bool integer = type >= 1 && type <= 8;
    const bool native = integer || type == 9 || type == 10 || type == 20 || type == 21;
    if (!native && type != 13 && type != 23) {
      return false;
    }
    if (operation < 1 || operation > 13) {
      return false;
    }
    return operation <= 3 || (operation <= 5                      ? type != 23
                              : operation >= 8 && operation <= 11 ? integer
                                                                  : native);
  };
  std::vector<std::pair<unsigned, int>> codes;
  for (const unsigned type :
       {0u, 11u, 12u, 14u, 15u, 16u, 17u, 18u, 19u, 22u, 24u, 25u, 26u, 27u, 4294967295u}) {
    codes.emplace_back(type, 1);
  }
  for (const unsigned type : {1u, 2u, 3u, 4u, 5u, 6u, 7u, 8u, 9u, 10u, 13u, 20u, 21u, 23u}) {
    for (const int operation : {-1, 0, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14}) {
      if (!allowed(type, operation)) {
        codes.emplace_back(type, operation);
      }
    }
  }
  for (const auto& [type, operation] : codes) {
    for (const char* routine : {"fill", "fold"}) {
      EXPECT_EQ(
          run_child("reduce", {routine, std::to_string(type), std::to_string(operation)}).ending,
          Ending::Abort)
          << routine << " of type " << type << ", operation " << operation;
    }
  }
  EXPECT_EQ(run_child("reduce", {"fold", "23", "3"}).ending, Ending::Exit);
}

}  // namespace
