// Folds against the same loop as two compilers vectorise it at -O3, long division against a loop
// bit by bit, conversions against the compilers' own, and the dependence test against a library
// sort. Time is per call; the arrays of a fold are counted by their elements.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "ksomd/builtins.h"
#include "ksomd/conversion.h"
#include "ksomd/vector.h"
#include "vec_peer.h"

namespace {

// Registers a benchmark that reports the fastest of its runs.
template <class Run>
void add_benchmark(const std::string& name, Run run) {
  benchmark::RegisterBenchmark(name.c_str(), run)
      ->ComputeStatistics("min", [](const std::vector<double>& times) {
        return *std::min_element(times.begin(), times.end());
      });
}

// The same numbers in every run.
std::mt19937_64 numbers() {
  return std::mt19937_64(4711);  // NOLINT: the point of it
}

// ---- folds --------------------------------------------------------------------------------------

struct Element {
  std::uint32_t code;
  std::size_t size;
  const char* name;
};
constexpr Element elements[] = {{1, 1, "u8"},  {2, 1, "i8"},   {3, 2, "u16"},  {4, 2, "i16"},
                                {5, 4, "u32"}, {6, 4, "i32"},  {7, 8, "u64"},  {8, 8, "i64"},
                                {9, 4, "f32"}, {10, 8, "f64"}, {20, 8, "c32"}, {21, 16, "c64"}};
constexpr const char* operations[] = {
    "",           "sum", "product", "difference", "maximum", "minimum", "logical_and",
    "logical_or", "and", "or",      "xor",        "xor",     "equal",   "not_equal"};

// Every contender's arrays lie in the same place: how two arrays lie to each other tells in the
// time.
constexpr std::size_t area = 48 << 20;
alignas(4096) unsigned char memory[area];

// Integers of all sizes; of floating-point numbers 1 and -1, which no fold takes to where
// arithmetic is slow.
void fill_with_numbers(unsigned char* array, const Element& element, std::size_t size) {
  std::mt19937_64 random = numbers();
  const bool is_double = element.code == 10 || element.code == 21;
  for (std::size_t at = 0; at + 8 <= size; at += 8) {
    const std::uint64_t bits = random();
    if (element.code <= 8) {
      std::memcpy(array + at, &bits, 8);
    } else if (is_double) {
      const double value = (bits & 1) != 0 ? 1 : -1;
      std::memcpy(array + at, &value, 8);
    } else {
      const float values[] = {(bits & 1) != 0 ? 1.0F : -1.0F, (bits & 2) != 0 ? 1.0F : -1.0F};
      std::memcpy(array + at, values, 8);
    }
  }
}

// The source has room for a stride of `stride`.
template <class Fold>
void measure_fold(benchmark::State& state, const Element& element, std::size_t count,
                  std::size_t stride, Fold fold) {
  const std::size_t size = (count * element.size + 63) & ~std::size_t{63};
  unsigned char* const destination = memory;
  unsigned char* const source = memory + size + 64 * 17;
  fill_with_numbers(destination, element, size);
  fill_with_numbers(source, element, stride * size);
  for (auto _ : state) {
    fold(destination, source, count);
    benchmark::ClobberMemory();
  }
}

void add_folds() {
  for (std::size_t row = 0; row < gcc_peer.count; ++row) {
    const PeerFold& gcc = gcc_peer.folds[row];
    const PeerFold& clang = clang_peer.folds[row];
    const Element& element = *std::find_if(std::begin(elements), std::end(elements),
                                           [&](const auto& e) { return e.code == gcc.type; });
    for (const std::size_t count : {1000u, 1000000u}) {
      const std::string name = std::string("fold/") + element.name + '/' +
                               operations[gcc.operation] + '/' + std::to_string(count) + '/';
      const auto add = [&](const char* contender, auto fold) {
        add_benchmark(name + contender, [=](benchmark::State& state) {
          measure_fold(state, element, count, 1, fold);
        });
      };
      add("ksomd", [=](void* d, const void* s, std::uint64_t n) {
        __orvex_simd_reduction_final_array(d, s, n, 1, 0, gcc.operation, gcc.type);
      });
      add("gcc", gcc.fold);
      add("clang", clang.fold);
    }
  }
}

void add_strided_folds() {
  for (const std::uint32_t code : {5u, 9u, 10u}) {
    const Element& element = *std::find_if(std::begin(elements), std::end(elements),
                                           [&](const auto& e) { return e.code == code; });
    add_benchmark(
        std::string("strided/") + element.name + "/sum/1000/ksomd", [=](benchmark::State& state) {
          measure_fold(state, element, 1000, 3, [=](void* d, const void* s, std::uint64_t n) {
            __orvex_simd_reduction_final_array(d, s, n, 3, 1, 1, code);
          });
        });
  }
}

// ---- long division ------------------------------------------------------------------------------

struct Operands {
  std::vector<std::uint32_t> dividend, divisor;
};

// Dividends of full length by divisors of half of it.
std::vector<Operands> divisions(std::uint32_t words) {
  std::mt19937_64 random = numbers();
  std::vector<Operands> pool(64);
  for (Operands& operands : pool) {
    operands = {std::vector<std::uint32_t>(words), std::vector<std::uint32_t>(words)};
    for (std::uint32_t j = 0; j < words; ++j) {
      operands.dividend[j] = static_cast<std::uint32_t>(random());
      operands.divisor[j] = j < (words + 1) / 2 ? static_cast<std::uint32_t>(random()) : 0;
    }
  }
  return pool;
}

template <class Divide>
void measure_division(benchmark::State& state, std::uint32_t words, Divide divide) {
  auto pool = divisions(words);
  std::array<std::uint32_t, 65> quotient{}, remainder{}, dividend{};
  std::size_t i = 0;
  for (auto _ : state) {
    Operands& operands = pool[i++ % pool.size()];
    std::copy(operands.dividend.begin(), operands.dividend.end(), dividend.begin());
    divide(quotient.data(), remainder.data(), dividend.data(), operands.divisor.data(), words);
    benchmark::DoNotOptimize(quotient);
    benchmark::DoNotOptimize(remainder);
  }
}

void add_divisions() {
  for (const std::uint32_t words : {2u, 4u, 8u, 16u, 64u}) {
    const std::string name = "divide/" + std::to_string(words) + "_words/";
    const auto add = [&](const char* contender, auto divide) {
      add_benchmark(name + contender,
                    [=](benchmark::State& state) { measure_division(state, words, divide); });
    };
    add("ksomd", __udivmodei5);
    add("gcc_bit_by_bit", gcc_peer.divide_bit_by_bit);
    add("clang_bit_by_bit", clang_peer.divide_bit_by_bit);
  }
}

// ---- conversions --------------------------------------------------------------------------------

template <class Convert>
void add_conversion(const std::string& name, Convert ours, Convert gcc, Convert clang) {
  const auto add = [&](const char* contender, Convert convert) {
    add_benchmark(name + contender, [=](benchmark::State& state) {
      std::mt19937_64 random = numbers();
      std::array<std::uint64_t, 1024> values{};
      for (auto& value : values) {
        value = random() >> random() % 64;
      }
      std::size_t i = 0;
      for (auto _ : state) {
        const auto* value = &values[i++ % values.size()];
        using Argument = decltype([]<class R, class A>(R (*)(A)) { return A{}; }(convert));
        benchmark::DoNotOptimize(convert(reinterpret_cast<Argument>(value)));
      }
    });
  };
  add("ksomd", ours);
  add("gcc", gcc);
  add("clang", clang);
}

// ---- dependence test ----------------------------------------------------------------------------

// The same question asked of the standard library.
std::uint64_t overlap_by_library(ksomd_range* ranges, std::int32_t n) {
  std::sort(ranges, ranges + n, [](const auto& a, const auto& b) { return a.start < b.start; });
  for (std::int32_t i = 0; i + 1 < n; ++i) {
    if (ranges[i].end >= ranges[i + 1].start) {
      return 1;
    }
  }
  return 0;
}

template <class Test>
void measure_dependence(benchmark::State& state, std::int32_t n, bool sorted, Test test) {
  std::mt19937_64 random = numbers();
  std::vector<ksomd_range> ranges(static_cast<std::size_t>(n));
  for (std::size_t i = 0; i < ranges.size(); ++i) {
    ranges[i] = {1000 * i, 1000 * i + 500};
  }
  if (!sorted) {
    std::shuffle(ranges.begin(), ranges.end(), random);
  }
  std::vector<ksomd_range> work(ranges.size());
  for (auto _ : state) {
    std::copy(ranges.begin(), ranges.end(), work.begin());
    benchmark::DoNotOptimize(test(work.data(), n));
  }
}

void add_dependence_tests() {
  for (const bool sorted : {false, true}) {
    for (const std::int32_t n : {2, 8, 32, 1000, 100000}) {
      const std::string name =
          "dependence/" + std::string(sorted ? "sorted/" : "random/") + std::to_string(n) + '/';
      const auto add = [&](const char* contender, auto test) {
        add_benchmark(name + contender,
                      [=](benchmark::State& state) { measure_dependence(state, n, sorted, test); });
      };
      add("ksomd", __orvex_rtdd_indep);
      add("library", overlap_by_library);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  add_folds();
  add_strided_folds();
  add_divisions();
  add_conversion("convert/i64_to_f64/", __cvti64todp_sse2, gcc_peer.to_double,
                 clang_peer.to_double);
  add_conversion("convert/u64_to_f64/", __cvtu64todp_sse2, gcc_peer.unsigned_to_double,
                 clang_peer.unsigned_to_double);
  add_conversion("convert/i64_to_f32/", __cvti64tosp_sse2, gcc_peer.to_float, clang_peer.to_float);
  add_conversion("convert/u64_to_f32/", __cvtu64tosp_sse2, gcc_peer.unsigned_to_float,
                 clang_peer.unsigned_to_float);
  add_dependence_tests();
  // Contenders take turns in short runs, of which the fastest counts: what else runs on the machine
  // hits them alike.
  std::vector<char*> arguments = {argv[0]};
  static char defaults[][48] = {"--benchmark_min_time=0.0005", "--benchmark_repetitions=20",
                                "--benchmark_enable_random_interleaving=true",
                                "--benchmark_report_aggregates_only=true"};
  for (char* argument : defaults) {
    arguments.push_back(argument);
  }
  arguments.insert(arguments.end(), argv + 1, argv + argc);
  argc = static_cast<int>(arguments.size());
  benchmark::Initialize(&argc, arguments.data());
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
}
