// Quad arithmetic against the binary128 routines of two compilers' run-times, each called by its
// own object. Time is per operation, over pools of operands that are too large for the branch
// predictor to learn; `chain` is the latency, each result being an operand of the next call.
// LLVM's routines round to nearest and raise no flags; GCC's do what ours do, but report overflow
// and underflow in the x87 status word.
#include <benchmark/benchmark.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "ksomd/quad.h"

namespace {

__extension__ using Binary128 = __float128;

}  // namespace

// The peers' routines under their prefixed names.
#define PEERS(result, name, ...)                                     \
  extern "C" result gcc_##name(__VA_ARGS__) __asm__("gcc___" #name); \
  extern "C" result llvm_##name(__VA_ARGS__) __asm__("llvm___" #name);
PEERS(Binary128, addtf3, Binary128, Binary128)
PEERS(Binary128, subtf3, Binary128, Binary128)
PEERS(Binary128, multf3, Binary128, Binary128)
PEERS(Binary128, divtf3, Binary128, Binary128)
PEERS(long, eqtf2, Binary128, Binary128)
PEERS(long, letf2, Binary128, Binary128)
PEERS(double, trunctfdf2, Binary128)
PEERS(float, trunctfsf2, Binary128)
PEERS(long double, trunctfxf2, Binary128)
PEERS(int, fixtfsi, Binary128)
PEERS(long, fixtfdi, Binary128)
PEERS(unsigned long, fixunstfdi, Binary128)
PEERS(Binary128, extenddftf2, double)
PEERS(Binary128, extendsftf2, float)
PEERS(Binary128, extendxftf2, long double)
PEERS(Binary128, floatsitf, int)
PEERS(Binary128, floatditf, long)
PEERS(Binary128, floatunditf, unsigned long)

namespace {

constexpr std::size_t pool_size = 32768;

Binary128 load(const quad128& a) {
  Binary128 value;
  std::memcpy(&value, &a, sizeof value);
  return value;
}
void store(quad128& r, Binary128 value) {
  std::memcpy(&r, &value, sizeof value);
}

// ---- pools --------------------------------------------------------------------------------------

struct Pair {
  quad128 a, b;
};

// Random signs and fractions, exponents of a random distance up to `spread`.
std::vector<Pair> make_pool(std::uint64_t lowest_exponent, std::uint64_t spread) {
  std::mt19937_64 random(4711);  // NOLINT: the same pools in every run
  const auto number = [&] {
    const std::uint64_t exponent = lowest_exponent + random() % (spread + 1);
    const std::uint64_t bits = random();
    return quad128{random(), (bits & 0x8000FFFFFFFFFFFF) | exponent << 48};
  };
  std::vector<Pair> pool(pool_size);
  for (Pair& pair : pool) {
    pair = {number(), number()};
  }
  return pool;
}

const std::vector<Pair>& near_pool() {
  static const std::vector<Pair> pool = make_pool(0x3FFF, 8);
  return pool;
}
const std::vector<Pair>& far_pool() {
  static const std::vector<Pair> pool = make_pool(0x3FFF, 200);
  return pool;
}
// Factors between 1/2 and 2, and numbers between 1 and 2^31.
const std::vector<Pair>& unit_pool() {
  static const std::vector<Pair> pool = make_pool(0x3FFE, 1);
  return pool;
}
const std::vector<Pair>& integer_pool() {
  static const std::vector<Pair> pool = make_pool(0x3FFF, 30);
  return pool;
}
const std::vector<Pair>& positive_pool() {
  static const std::vector<Pair> pool = [] {
    std::vector<Pair> numbers = integer_pool();
    for (Pair& pair : numbers) {
      pair.a.high &= ~(std::uint64_t{1} << 63);
    }
    return numbers;
  }();
  return pool;
}

// ---- contenders ---------------------------------------------------------------------------------

template <auto* routine>
struct Ours {
  static void run(quad128& r, const quad128& a, const quad128& b) { routine(&r, &a, &b); }
};
template <auto* routine>
struct Peer {
  static void run(quad128& r, const quad128& a, const quad128& b) {
    store(r, routine(load(a), load(b)));
  }
};

template <class Contender>
void throughput(benchmark::State& state, const std::vector<Pair>& pool) {
  std::size_t i = 0;
  quad128 result = {};
  for (auto _ : state) {
    Contender::run(result, pool[i].a, pool[i].b);
    benchmark::ClobberMemory();
    i = (i + 1) % pool_size;
  }
  benchmark::DoNotOptimize(result);
}

template <class Contender>
void chain(benchmark::State& state, const std::vector<Pair>& pool) {
  std::size_t i = 0;
  quad128 result = pool[0].a;
  for (auto _ : state) {
    if (i == pool_size) {
      i = 0;
      result = pool[0].a;
    }
    Contender::run(result, result, pool[i].b);
    ++i;
  }
  benchmark::DoNotOptimize(result);
}

// Conversions and comparisons: one call of `call(pair)` each.
template <class Call>
void calls(benchmark::State& state, const std::vector<Pair>& pool, Call call) {
  std::size_t i = 0;
  for (auto _ : state) {
    call(pool[i]);
    i = (i + 1) % pool_size;
  }
}

template <class Contender>
void add_arithmetic(const std::string& operation, const char* contender, bool is_sum) {
  const auto add = [&](const char* kind, auto function, const std::vector<Pair>& (*pool)()) {
    const std::string name = operation + '/' + kind + '/' + contender;
    benchmark::RegisterBenchmark(name.c_str(),
                                 [=](benchmark::State& state) { function(state, pool()); });
  };
  add("near", throughput<Contender>, near_pool);
  add("far", throughput<Contender>, far_pool);
  add("chain", chain<Contender>, is_sum ? near_pool : unit_pool);
}

template <auto* ours, auto* gcc, auto* llvm>
void add_operation(const char* name, bool is_sum) {
  add_arithmetic<Ours<ours>>(name, "ksomd", is_sum);
  add_arithmetic<Peer<gcc>>(name, "gcc", is_sum);
  add_arithmetic<Peer<llvm>>(name, "llvm", is_sum);
}

template <class... Call>
void add_calls(const std::string& name, const std::vector<Pair>& (*pool)(), Call... call) {
  static constexpr std::array contenders = {"ksomd", "gcc", "llvm"};
  std::size_t n = 0;
  (benchmark::RegisterBenchmark((name + '/' + contenders[n++]).c_str(),
                                [=](benchmark::State& state) { calls(state, pool(), call); }),
   ...);
}

template <auto* routine>
auto keep_of(auto convert) {
  return [=](const Pair& pair) { benchmark::DoNotOptimize(routine(convert(pair))); };
}

// Conversions from quad, and comparisons.
template <auto* ours, auto* gcc, auto* llvm>
void add_from_quad(const char* name, const std::vector<Pair>& (*pool)(), auto... mode) {
  const auto value = [](const Pair& pair) { return load(pair.a); };
  add_calls(
      name, pool, [=](const Pair& pair) { benchmark::DoNotOptimize(ours(&pair.a, mode...)); },
      keep_of<gcc>(value), keep_of<llvm>(value));
}
template <auto* ours, auto* gcc, auto* llvm>
void add_comparison(const char* name) {
  add_calls(
      name, near_pool, [](const Pair& pair) { benchmark::DoNotOptimize(ours(&pair.a, &pair.b)); },
      [](const Pair& pair) { benchmark::DoNotOptimize(gcc(load(pair.a), load(pair.b)) <= 0); },
      [](const Pair& pair) { benchmark::DoNotOptimize(llvm(load(pair.a), load(pair.b)) <= 0); });
}

// Conversions to quad, of what `operand` makes of random bits.
template <auto* ours, auto* gcc, auto* llvm>
void add_to_quad(const char* name, auto operand) {
  const auto peer = [=](auto* routine) {
    return [=](const Pair& pair) {
      quad128 result;
      store(result, routine(operand(pair.a)));
      benchmark::DoNotOptimize(result);
    };
  };
  add_calls(
      name, integer_pool,
      [=](const Pair& pair) {
        quad128 result;
        ours(&result, operand(pair.a));
        benchmark::DoNotOptimize(result);
      },
      peer(gcc), peer(llvm));
}

void add_conversions() {
  add_comparison<__eqq, gcc_eqtf2, llvm_eqtf2>("eq");
  add_comparison<__leq, gcc_letf2, llvm_letf2>("le");
  add_from_quad<__qtod, gcc_trunctfdf2, llvm_trunctfdf2>("to_double", near_pool);
  add_from_quad<__qtof, gcc_trunctfsf2, llvm_trunctfsf2>("to_float", near_pool);
  add_from_quad<__qtoi, gcc_fixtfsi, llvm_fixtfsi>("to_int32", integer_pool,
                                                   KSOMD_ROUND_TOWARD_ZERO);
  add_from_quad<__qtoj, gcc_fixtfdi, llvm_fixtfdi>("to_int64", integer_pool,
                                                   KSOMD_ROUND_TOWARD_ZERO);
  add_from_quad<__qtok, gcc_fixunstfdi, llvm_fixunstfdi>("to_uint64", positive_pool);
  const auto keep_extended = [](auto* routine) {
    return [=](const Pair& pair) { benchmark::DoNotOptimize(routine(load(pair.a))); };
  };
  add_calls(
      "to_extended", near_pool,
      [](const Pair& pair) {
        extended80 result;
        benchmark::DoNotOptimize(__qtol(&result, &pair.a));
        benchmark::DoNotOptimize(result);
      },
      keep_extended(gcc_trunctfxf2), keep_extended(llvm_trunctfxf2));

  const auto as_double = [](const quad128& a) {
    double x;
    const std::uint64_t bits = (a.high & 0x800FFFFFFFFFFFFF) | std::uint64_t{0x3FF} << 52;
    std::memcpy(&x, &bits, sizeof x);
    return x;
  };
  add_to_quad<__dtoq, gcc_extenddftf2, llvm_extenddftf2>("from_double", as_double);
  add_to_quad<__ftoq, gcc_extendsftf2, llvm_extendsftf2>(
      "from_float", [=](const quad128& a) { return static_cast<float>(as_double(a)); });
  add_to_quad<__itoq, gcc_floatsitf, llvm_floatsitf>(
      "from_int32", [](const quad128& a) { return static_cast<std::int32_t>(a.low); });
  add_to_quad<__jtoq, gcc_floatditf, llvm_floatditf>("from_int64", [](const quad128& a) {
    return static_cast<std::int64_t>(a.low) >> (a.high & 63);
  });
  add_to_quad<__ktoq, gcc_floatunditf, llvm_floatunditf>(
      "from_uint64", [](const quad128& a) { return a.low >> (a.high & 63); });
}

const bool registered = [] {  // NOLINT(bugprone-throwing-static-initialization)
  add_operation<__addq, gcc_addtf3, llvm_addtf3>("add", true);
  add_operation<__subq, gcc_subtf3, llvm_subtf3>("sub", true);
  add_operation<__mulq, gcc_multf3, llvm_multf3>("mul", false);
  add_operation<__divq, gcc_divtf3, llvm_divtf3>("div", false);
  add_conversions();
  return true;
}();

}  // namespace
