// Prints, for the processor that it runs on, which tiers the library takes and a digest of what
// each of its subsystems computes over fixed inputs. tools/matrix.py runs it on many processors.
//
//   matrix_digest EFFORT     tiers and digests; EFFORT from 1 scales how much is computed
//   matrix_digest level L    the start-up check of level L: ends with status 0 or 1
//   matrix_digest feature    the feature start-up check, of SSE2 alone
#include "matrix_digest.h"

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "cpu/feature_set.h"
#include "ksomd/builtins.h"
#include "ksomd/conversion.h"
#include "ksomd/memory.h"
#include "ksomd/processor.h"
#include "ksomd/quad.h"
#include "ksomd/vector.h"
#include "mem/dispatch.h"
#include "mem/vector.h"

namespace ksomd::test {

void print_digest(const std::string& name, const Digest& digest) {
  std::printf("%s %016llx\n", name.c_str(), static_cast<unsigned long long>(digest.value()));
}

namespace {

// ---- tiers --------------------------------------------------------------------------------------

template <class Routine>
struct Tier {
  Routine* routine;
  const char* name;
};

template <class Routine, std::size_t count>
void print_tier(const char* entry, Routine* chosen, const Tier<Routine> (&tiers)[count]) {
  const char* name = "platform";
  for (const auto& tier : tiers) {
    name = tier.routine == chosen ? tier.name : name;
  }
  std::printf("tier %s %s\n", entry, name);
}

void print_tiers() {
  alignas(64) unsigned char memory[256] = {};
  _orvex_fast_memcpy(memory, memory + 128, 70);
  _orvex_fast_memmove(memory, memory + 30, 70);
  _orvex_fast_memset(memory, 3, 70);
  struct {
    __libkso_nt_context context;
    unsigned char chunk[64];
  } stream = {};
  stream.context.destination = memory;
  __libkso_nontemporal_store(&stream.context, 8, 1);
  print_tier<mem::CopyRoutine>("memcpy", __orvex_fast_memcpy_slot,
                               {{__orvex_avx_rep_memcpy, "avx"}, {__orvex_new_memcpy, "generic"}});
  print_tier<mem::CopyRoutine>("memmove", __orvex_fast_memmove_slot,
                               {{__orvex_avx_memmove, "avx"}, {__orvex_new_memmove, "generic"}});
  print_tier<mem::FillRoutine>("memset", __orvex_fast_memset_slot,
                               {{__orvex_avx_rep_memset, "avx"}, {__orvex_new_memset, "generic"}});
  print_tier<mem::StreamRoutine>(
      "stream", __libkso_nontemporal_store_slot,
      {{__libkso_nontemporal_store_512, "avx512"}, {__libkso_nontemporal_store_256, "avx"}});
}

// ---- start-up checks ----------------------------------------------------------------------------

constexpr struct {
  char level;
  void (*check)(std::uint32_t flags);
} levels[] = {{'B', __orvex_new_proc_init_B}, {'N', __orvex_new_proc_init_N},
              {'P', __orvex_new_proc_init_P}, {'T', __orvex_new_proc_init_T},
              {'L', __orvex_new_proc_init_L}, {'S', __orvex_new_proc_init_S},
              {'H', __orvex_new_proc_init_H}, {'G', __orvex_new_proc_init_G},
              {'I', __orvex_new_proc_init_I}, {'E', __orvex_new_proc_init_E}};

int check_level(char wanted) {
  for (const auto& row : levels) {
    if (row.level == wanted) {
      row.check(0);
      return 0;
    }
  }
  return 2;
}

// ---- reductions ---------------------------------------------------------------------------------

// Bytes of an element, by type code; 0: no such type.
constexpr std::size_t sizes[] = {0, 1,  1, 2, 2, 4, 4, 8, 8, 4,  8, 0,
                                 0, 16, 0, 0, 0, 0, 0, 0, 8, 16, 0, 32};

bool allowed(std::uint32_t type, int operation) {
  const bool integer = type <= KSOMD_INT64;
  const bool quad = type == KSOMD_QUAD;
  const bool complex_quad = type == KSOMD_COMPLEX_QUAD;
  const bool bitwise = operation >= KSOMD_AND && operation <= KSOMD_XOR_2;
  const bool order = operation == KSOMD_MAXIMUM || operation == KSOMD_MINIMUM;
  if (integer) {
    return true;
  }
  const bool beyond_quads = (quad || complex_quad) && operation > KSOMD_MINIMUM;
  return !bitwise && !beyond_quads && !(complex_quad && order);
}

// Fills an array with numbers of the type; without NaNs, of which emulators may choose another.
void fill_array(std::vector<unsigned char>& array, std::uint32_t type, DigestRandom& random) {
  const auto put = [&](auto next) {
    for (std::size_t at = 0; at + sizeof(next()) <= array.size(); at += sizeof(next())) {
      const auto value = next();
      std::memcpy(array.data() + at, &value, sizeof value);
    }
  };
  if (type == KSOMD_FLOAT || type == KSOMD_COMPLEX_FLOAT) {
    put([&] { return static_cast<float>(random.below(8) == 0 ? 0 : random.number()); });
  } else if (type == KSOMD_DOUBLE || type == KSOMD_COMPLEX_DOUBLE) {
    put([&] { return random.below(8) == 0 ? 0.0 : random.number(); });
  } else if (type == KSOMD_QUAD || type == KSOMD_COMPLEX_QUAD) {
    put([&] {
      quad128 q;
      __dtoq(&q, random.number());
      q.low ^= random.next();
      return q;
    });
  } else {
    put([&] { return random.below(3) == 0 ? std::uint64_t{0} : random.next(); });
  }
}

void digest_reduction(std::uint32_t type, int operation, std::size_t count) {
  Digest digest;
  constexpr std::int32_t strides[] = {1, 3, -2, 0};
  const std::size_t size = sizes[type];
  for (int mode = 0; mode < rounding_modes; ++mode) {
    DigestRandom random(type * 100);
    for (const std::int32_t stride : strides) {
      std::vector<unsigned char> source(4 * count * size);
      std::vector<unsigned char> destination(count * size);
      fill_array(source, type, random);
      fill_array(destination, type, random);
      const std::size_t start = stride < 0 ? 2 * count * size : 0;
      in_mode(digest, mode, [&] {
        __orvex_simd_reduction_final_array(destination.data(), source.data() + start, count, stride,
                                           1, operation, type);
      });
      digest.add(destination.data(), destination.size());
      __orvex_reduction_init_array(destination.data(), count, operation, type);
      digest.add(destination.data(), destination.size());
    }
  }
  print_digest("reduction.type" + std::to_string(type) + ".operation" + std::to_string(operation),
               digest);
}

}  // namespace

void digest_vector(int effort) {
  for (std::uint32_t type = 1; type <= KSOMD_COMPLEX_QUAD; ++type) {
    for (int operation = KSOMD_SUM; operation <= KSOMD_NOT_EQUAL; ++operation) {
      if (sizes[type] != 0 && allowed(type, operation)) {
        digest_reduction(type, operation, static_cast<std::size_t>(101 * effort));
      }
    }
  }
  Digest digest;
  DigestRandom random(6);
  for (int i = 0; i < 200 * effort; ++i) {
    std::vector<ksomd_range> ranges(random.below(40));
    for (auto& range : ranges) {
      range.start = random.below(4000);
      range.end = range.start + random.below(60);
    }
    digest.add(__orvex_rtdd_indep(ranges.data(), static_cast<std::int32_t>(ranges.size())));
    digest.add(ranges.data(), ranges.size() * sizeof(ksomd_range));
  }
  print_digest("dependence", digest);
}

// ---- conversions and builtins -------------------------------------------------------------------

void digest_conversions(int effort) {
  Digest digest;
  for (int mode = 0; mode < rounding_modes; ++mode) {
    DigestRandom random(9);
    for (int i = 0; i < 1000 * effort; ++i) {
      const std::uint64_t bits = random.next() >> random.below(64);
      const auto with_sign = static_cast<std::int64_t>(random.below(2) == 0 ? bits : ~bits);
      in_mode(digest, mode, [&] { digest.add(__cvti64todp_sse2(&with_sign)); });
      in_mode(digest, mode, [&] { digest.add(__cvtu64todp_sse2(&bits)); });
      in_mode(digest, mode, [&] { digest.add(__cvti64tosp_sse2(&with_sign)); });
      in_mode(digest, mode, [&] { digest.add(__cvtu64tosp_sse2(&bits)); });
    }
  }
  print_digest("conversion", digest);

  Digest products;
  for (int mode = 0; mode < rounding_modes; ++mode) {
    DigestRandom random(10);
    for (int i = 0; i < 500 * effort; ++i) {
      const double a = random.number();
      const double b = random.number();
      const double c = random.number();
      const double d = random.number();
      in_mode(products, mode, [&] { products.add(__muldc3(a, b, c, d)); });
      in_mode(products, mode, [&] { products.add(__divdc3(a, b, c, d)); });
      in_mode(products, mode, [&] {
        products.add(__mulsc3(static_cast<float>(a), static_cast<float>(b), static_cast<float>(c),
                              static_cast<float>(d)));
        products.add(__divsc3(static_cast<float>(a), static_cast<float>(b), static_cast<float>(c),
                              static_cast<float>(d)));
      });
    }
  }
  print_digest("builtins.complex", products);

  Digest quotients;
  DigestRandom random(11);
  for (int i = 0; i < 500 * effort; ++i) {
    std::uint32_t dividend[9], divisor[8], quotient[8], remainder[8];
    for (int word = 0; word < 8; ++word) {
      dividend[word] = static_cast<std::uint32_t>(random.next());
      divisor[word] = static_cast<std::uint32_t>(word > 3 ? 0 : random.next());
    }
    dividend[8] = 0;
    __divmodei5(quotient, remainder, dividend, divisor, 8);
    quotients.add(quotient);
    quotients.add(remainder);
  }
  print_digest("builtins.division", quotients);
}

// ---- memory -------------------------------------------------------------------------------------

void digest_memory(int effort) {
  Digest digest;
  DigestRandom random(12);
  constexpr std::size_t room = 150000;
  std::vector<unsigned char> from(room);
  std::vector<unsigned char> to(room);
  for (auto& byte : from) {
    byte = static_cast<unsigned char>(random.next());
  }
  for (int i = 0; i < 100 * effort; ++i) {
    const std::size_t size = i % 20 == 19 ? random.below(140000) : random.below(1 << i % 12);
    const std::size_t d = random.below(200);
    const std::size_t s = random.below(200);
    _orvex_fast_memcpy(to.data() + d, from.data() + s, size);
    _orvex_fast_memset(to.data() + s + d, i, random.below(1 + size / 2));
    _orvex_fast_memmove(to.data() + d, to.data() + s, size);
    _VEC_memcpy(to.data() + s, from.data() + d, size / 2);
    digest.add(_orvex_fast_memcmp(to.data() + s, from.data() + d, size));
    digest.add(to.data(), size + 400);
  }
  print_digest("memory", digest);
}

}  // namespace ksomd::test

int main(int argc, char** argv) {
  using namespace ksomd::test;
  const std::string what = argc > 1 ? argv[1] : "1";
  if (what == "level") {
    return check_level(argc > 2 ? argv[2][0] : '\0');
  }
  if (what == "feature") {
    __orvex_new_feature_proc_init_n(0, 1u << 6);
    return 0;
  }
  const int effort = std::atoi(what.c_str());
  print_tiers();
  digest_matmul(effort);
  digest_vector(effort);
  digest_conversions(effort);
  digest_memory(effort);
  return 0;
}
