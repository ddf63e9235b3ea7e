// Reductions against a definition written out element by element.
#include <gtest/gtest.h>
#include <immintrin.h>

#include <algorithm>
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
#include "support/effort.h"
#include "support/guarded_memory.h"
#include "support/seed.h"
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
using BitsOf = std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint64_t>;

// By the bits, so that no flag is raised.
template <class T>
bool is_nan(T a) {
  const auto infinity = std::bit_cast<BitsOf<T>>(std::numeric_limits<T>::infinity());
  return (std::bit_cast<BitsOf<T>>(a) << 1) > (infinity << 1);
}

template <class T>
T quieted(T a) {
  return std::bit_cast<T>(std::bit_cast<BitsOf<T>>(a) | BitsOf<T>{1} << (sizeof(T) == 4 ? 22 : 51));
}

// Of two NaNs the first survives, quiet. The operation takes place for its flags even so, which a
// compiler does not know of.
template <class T>
T arithmetic(int operation, T d, T s) {
  const volatile T result = operation == 1 ? d + s : operation == 2 ? d * s : d - s;
  return is_nan(d) ? quieted(d) : is_nan(s) ? quieted(s) : result;
}

quad128 arithmetic(int operation, quad128 d, quad128 s) {
  (operation == 1 ? __addq : operation == 2 ? __mulq : __subq)(&d, &d, &s);
  return d;
}

template <class T>
T combined(int operation, T d, T s) {
  if constexpr (std::is_same_v<T, quad128>) {
    switch (operation) {
      case 4:
        return __leq(&d, &s) ? s : d;
      case 5:
        return __geq(&d, &s) ? s : d;
      default:
        return arithmetic(operation, d, s);
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
    } else if (operation <= 3) {
      return arithmetic(operation, d, s);
    }
    switch (operation) {
      case 4:
        return s <= d ? d : s;
      case 5:
        return d <= s ? d : s;
      case 6:
        return T((d != T{}) & (s != T{}));
      case 7:
        return T((d != T{}) | (s != T{}));
      case 12:
        return T(d == s);
      default:
        return T(!(d == s));
    }
  }
}

template <class T>
struct Parts {
  T re, im;
};

template <class T>
Parts<T> product(Parts<T> d, Parts<T> s) {
  return {arithmetic(3, arithmetic(2, d.re, s.re), arithmetic(2, d.im, s.im)),
          arithmetic(1, arithmetic(2, d.re, s.im), arithmetic(2, d.im, s.re))};
}

Parts<quad128> product(Parts<quad128> d, Parts<quad128> s) {
  cquad128 result;
  __cmulq(&result, &d.re, &d.im, &s.re, &s.im);
  return {result.re, result.im};
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
    using Bits = BitsOf<T>;
    switch (random() % 8) {
      case 0:
      case 1:
        return special[random() % std::size(special)];
      case 2: {  // a NaN, quiet or signalling, that can be told from others
        const Bits exponent = std::bit_cast<Bits>(Limits::infinity());
        return std::bit_cast<T>(static_cast<Bits>(random()) | exponent | 1);
      }
      case 3:  // any exponent
        return std::bit_cast<T>(static_cast<Bits>(random()));
      default:
        return static_cast<T>(static_cast<std::int64_t>(random())) /
               static_cast<T>(1 << random() % 30);
    }
  } else {
    const T special[] = {0, 1, 2, static_cast<T>(-1), extreme<T>(true), extreme<T>(false)};
    return random() % 3 == 0 ? special[random() % std::size(special)] : static_cast<T>(random());
  }
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

// Where an array lies: up against the page before it, up against the page after it, or one byte off
// any alignment in between.
enum class Place { Front, Back, Odd, Count };

class Area {
 public:
  explicit Area(std::size_t size) : memory_(size) {}

  // Room for `size` bytes, the rest filled with a mark.
  unsigned char* place(std::size_t size, Place place) {
    size_ = size;
    start_ = place == Place::Front  ? memory_.begin()
             : place == Place::Back ? memory_.end() - size
                                    : memory_.begin() + 17;
    std::memset(memory_.begin(), mark, static_cast<std::size_t>(start_ - memory_.begin()));
    std::memset(start_ + size, mark, static_cast<std::size_t>(memory_.end() - start_) - size);
    return start_;
  }
  bool rest_is_untouched() const {
    const auto is_mark = [](unsigned char byte) { return byte == mark; };
    return std::all_of(memory_.begin(), start_, is_mark) &&
           std::all_of(start_ + size_, memory_.end(), is_mark);
  }

 private:
  static constexpr unsigned char mark = 0x5A;
  GuardedMemory memory_;
  unsigned char* start_ = nullptr;
  std::size_t size_ = 0;
};

TYPED_TEST(Reduction, Fill) {
  using T = TypeParam::Component;
  Area area(4096);
  for (int operation = 1; operation <= 13; ++operation) {
    if (!TypeParam::allows(operation)) {
      continue;
    }
    for (std::size_t count = 0; count <= 40; ++count) {
      for (int place = 0; place < static_cast<int>(Place::Count); ++place) {
        const unsigned char* const array =
            area.place(count * TypeParam::size, static_cast<Place>(place));
        __orvex_reduction_init_array(const_cast<unsigned char*>(array), count, operation,
                                     TypeParam::code);
        for (std::size_t j = 0; j < count * TypeParam::parts; ++j) {
          const T expected = identity<T>(operation, j % TypeParam::parts);
          ASSERT_EQ(std::memcmp(array + j * sizeof(T), &expected, sizeof(T)), 0)
              << "operation " << operation << ", part " << j << " of " << count << " elements";
        }
        ASSERT_TRUE(area.rest_is_untouched()) << operation << ", " << count << " elements";
      }
    }
  }
}

constexpr std::size_t largest_count = 1000;
constexpr int largest_stride = 5;
constexpr unsigned flag_bits = 0x3F;

struct Areas {
  Area destination;
  Area source;
};

// One fold in a random place and a random rounding mode, against the definition: every bit of the
// result, every flag.
template <class E>
void check_fold(Areas& areas, int operation, std::size_t count, int stride,
                std::mt19937_64& random) {
  using T = E::Component;
  const std::size_t reach =
      1 + (count == 0 ? 0 : count - 1) * static_cast<std::size_t>(std::abs(stride));
  std::vector<T> d(count * E::parts), s(reach * E::parts);
  std::generate(d.begin(), d.end(), [&] { return random_value<T>(random); });
  std::generate(s.begin(), s.end(), [&] { return random_value<T>(random); });
  const auto place = [&] { return static_cast<Place>(random() % int(Place::Count)); };
  unsigned char* const destination = areas.destination.place(d.size() * sizeof(T), place());
  unsigned char* const source = areas.source.place(s.size() * sizeof(T), place());
  if (!d.empty()) {
    std::memcpy(destination, d.data(), d.size() * sizeof(T));
  }
  std::memcpy(source, s.data(), s.size() * sizeof(T));
  const std::size_t origin = stride < 0 ? reach - 1 : 0;

  const unsigned saved = _mm_getcsr();
  const unsigned mode = random() % 4;
  _mm_setcsr(0x1F80 | mode << 13);
  __orvex_simd_reduction_final_array(destination, source + origin * E::size, count, stride, 1,
                                     operation, E::code);
  const unsigned flags = _mm_getcsr() & flag_bits;
  _mm_setcsr(0x1F80 | mode << 13);
  for (std::size_t i = 0; i < count; ++i) {
    const auto at = static_cast<std::size_t>(static_cast<std::int64_t>(origin) +
                                             static_cast<std::int64_t>(i) * stride) *
                    E::parts;
    T* const element = &d[i * E::parts];
    if constexpr (E::parts == 2) {
      if (operation == 2) {
        const Parts<T> r = product(Parts<T>{element[0], element[1]}, Parts<T>{s[at], s[at + 1]});
        element[0] = r.re;
        element[1] = r.im;
        continue;
      }
    }
    for (std::size_t part = 0; part < E::parts; ++part) {
      element[part] = combined<T>(operation, element[part], s[at + part]);
    }
  }
  const unsigned expected_flags = _mm_getcsr() & flag_bits;
  _mm_setcsr(saved);

  for (std::size_t j = 0; j < d.size(); ++j) {
    ASSERT_EQ(std::memcmp(destination + j * sizeof(T), &d[j], sizeof(T)), 0)
        << "operation " << operation << ", part " << j << " of " << count << " elements, stride "
        << stride << ", mode " << mode;
  }
  ASSERT_EQ(flags, expected_flags) << "operation " << operation << ", " << count
                                   << " elements, stride " << stride << ", mode " << mode;
  ASSERT_TRUE(areas.destination.rest_is_untouched()) << operation << ", " << count << " elements";
}

TYPED_TEST(Reduction, Fold) {
  std::mt19937_64 random(seed_of(static_cast<std::uint32_t>(TypeParam::code)));
  Areas areas = {Area(largest_count * TypeParam::size + 64),
                 Area(largest_count * largest_stride * TypeParam::size + 64)};
  const int rounds = full_length() ? 50 : 1;
  for (int operation = 1; operation <= 13; ++operation) {
    if (!TypeParam::allows(operation)) {
      continue;
    }
    for (int stride = -3; stride <= largest_stride; ++stride) {
      for (int round = 0; round < (stride == 1 ? 4 : 1) * rounds; ++round) {
        for (std::size_t count = 0; count <= 40; ++count) {
          ASSERT_NO_FATAL_FAILURE(check_fold<TypeParam>(areas, operation, count, stride, random));
        }
        ASSERT_NO_FATAL_FAILURE(
            check_fold<TypeParam>(areas, operation, largest_count, stride, random));
      }
    }
  }
}

// Arrays that are fetched ahead by the block, and end in the middle of one.
TYPED_TEST(Reduction, FoldOfLargeArrays) {
  std::mt19937_64 random(seed_of(static_cast<std::uint32_t>(TypeParam::code)));
  const std::size_t count = (600 << 10) / TypeParam::size + 37;
  Areas areas = {Area(count * TypeParam::size + 64), Area(count * TypeParam::size + 64)};
  ASSERT_NO_FATAL_FAILURE(check_fold<TypeParam>(areas, KSOMD_SUM, count, 1, random));
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
