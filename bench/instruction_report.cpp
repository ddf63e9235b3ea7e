// Prints how many instructions fixed calls execute, for each processor level that this machine can
// show: figures that depend on neither clock nor load. tools/count_instructions.py compares them
// with a table.
//
// The feature set and the sizes at which methods change are forced, the operands fixed, and each
// call is made once before it is counted. A repeated string instruction counts once.
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "cpu/feature_set.h"
#include "ksomd/builtins.h"
#include "ksomd/conversion.h"
#include "ksomd/matmul.h"
#include "ksomd/memory.h"
#include "ksomd/pool.h"
#include "ksomd/quad.h"
#include "ksomd/vector.h"
#include "matmul/drive/kernels.h"
#include "mem/dispatch.h"
#include "mem/tuning.h"
#include "support/instruction_count.h"
#include "support/sweep.h"

namespace ksomd::test {
namespace {

std::string level_name;

template <class Body>
void report(const std::string& name, Body body) {
  body();
  const InstructionCount count = count_instructions(body);
  std::size_t total = 0;
  for (const std::size_t executed : count.executed) {
    total += executed;
  }
  std::printf("%s/%s %zu\n", level_name.c_str(), name.c_str(), total);
}

// ---- quad precision -----------------------------------------------------------------------------

constexpr int operand_count = 32;

struct QuadOperands {
  quad128 values[operand_count + 1];
};

// Numbers whose exponents lie `spread` about 1.
QuadOperands quad_operands(std::uint64_t spread) {
  Random random(3);
  QuadOperands operands = {};
  for (quad128& value : operands.values) {
    const std::uint64_t sign_and_exponent =
        (random.next() & 1) << 15 | (16383 - spread / 2 + random.below(spread));
    value = {random.next(), sign_and_exponent << 48 | random.next() >> 16};
  }
  return operands;
}

template <class Call>
void report_quad(const std::string& name, std::uint64_t spread, Call call) {
  const QuadOperands operands = quad_operands(spread);
  report("quad/" + name, [&] {
    for (int i = 0; i < operand_count; ++i) {
      call(&operands.values[i], &operands.values[i + 1]);
    }
  });
}

void report_quads() {
  quad128 r = {};
  cquad128 z = {};
  constexpr struct {
    const char* name;
    void (*routine)(quad128*, const quad128*, const quad128*);
  } binary[] = {{"add", __addq}, {"subtract", __subq}, {"multiply", __mulq}, {"divide", __divq}};
  for (const auto& row : binary) {
    for (const std::uint64_t spread : {4u, 300u}) {
      report_quad(std::string(row.name) + '/' + std::to_string(spread), spread,
                  [&](const quad128* a, const quad128* b) { row.routine(&r, a, b); });
    }
  }
  constexpr struct {
    const char* name;
    void (*routine)(cquad128*, const quad128*, const quad128*, const quad128*, const quad128*);
  } complex[] = {{"complex_multiply", __cmulq}, {"complex_divide", __cdivq}};
  for (const auto& row : complex) {
    report_quad(row.name, 30,
                [&](const quad128* a, const quad128* b) { row.routine(&z, a, b, b, a); });
  }
  report_quad("less", 4, [](const quad128* a, const quad128* b) { __ltq(a, b); });
  report_quad("equal", 4, [](const quad128* a, const quad128* b) { __eqq(a, b); });
  report_quad("to_double", 60, [](const quad128* a, const quad128*) { __qtod(a); });
  report_quad("to_float", 60, [](const quad128* a, const quad128*) { __qtof(a); });
  report_quad("to_i32", 60, [](const quad128* a, const quad128*) { __qtoi(a, 0); });
  report_quad("to_i64", 60, [](const quad128* a, const quad128*) { __qtoj(a, 1); });
  report_quad("from_double", 4, [&](const quad128* a, const quad128*) {
    __dtoq(&r, static_cast<double>(a->low >> 12));
  });
  report_quad("from_i64", 4, [&](const quad128* a, const quad128*) {
    __jtoq(&r, static_cast<std::int64_t>(a->low));
  });
}

// ---- memory -------------------------------------------------------------------------------------

constexpr std::size_t room = 1 << 18;
alignas(4096) unsigned char source_memory[room];
alignas(4096) unsigned char target_memory[room];

void report_memory() {
  for (const std::size_t size : {1u, 7u, 16u, 33u, 100u, 256u, 1000u, 4000u, 20000u}) {
    for (const std::size_t shift : {0u, 5u}) {
      const std::string suffix = '/' + std::to_string(size) + (shift == 0 ? "" : "/unaligned");
      unsigned char* const d = target_memory + shift;
      unsigned char* const s = source_memory + 2 * shift;
      report("memory/copy" + suffix, [&] { _orvex_fast_memcpy(d, s, size); });
      report("memory/move" + suffix, [&] { _orvex_fast_memmove(d, s, size); });
      report("memory/move_up" + suffix, [&] { _orvex_fast_memmove(d + 48, d, size); });
      report("memory/fill" + suffix, [&] { _orvex_fast_memset(d, 1, size); });
      std::memset(d, 0, size);
      std::memset(s, 0, size);
      report("memory/compare" + suffix, [&] { _orvex_fast_memcmp(d, s, size); });
    }
  }
}

// ---- matrix products ----------------------------------------------------------------------------

template <class Element, class Entry>
void report_product(const char* name, Entry entry) {
  static Element a[400], b[400], p[400];
  for (const std::uint64_t n : {3u, 20u}) {
    report(std::string("matmul/") + name + '/' + std::to_string(n),
           [&] { entry(a, b, p, n, n, n, n, n, n); });
  }
}

void report_products() {
#define KSOMD_REPORT(code, element, a, b) \
  report_product<element>(#code "_" #a "_" #b, _MATMUL_##code##_##a##_##b);
  KSOMD_MATMUL_EACH(KSOMD_REPORT)
#undef KSOMD_REPORT
}

// ---- the rest -----------------------------------------------------------------------------------

void report_folds() {
  constexpr int count = 200;
  static quad128 destination[2 * count], source[2 * count];
  constexpr struct {
    const char* name;
    std::uint32_t type;
  } types[] = {{"u8", KSOMD_UINT8},          {"i32", KSOMD_INT32},         {"i64", KSOMD_INT64},
               {"f32", KSOMD_FLOAT},         {"f64", KSOMD_DOUBLE},        {"quad", KSOMD_QUAD},
               {"c32", KSOMD_COMPLEX_FLOAT}, {"c64", KSOMD_COMPLEX_DOUBLE}};
  constexpr struct {
    const char* name;
    int operation;
  } operations[] = {{"sum", KSOMD_SUM}, {"product", KSOMD_PRODUCT}, {"maximum", KSOMD_MAXIMUM}};
  for (const auto& type : types) {
    for (const auto& operation : operations) {
      const std::string name = std::string(type.name) + '/' + operation.name;
      report("fold/" + name, [&] {
        __orvex_simd_reduction_final_array(destination, source, count, 1, 0, operation.operation,
                                           type.type);
      });
      report("identity/" + name, [&] {
        __orvex_reduction_init_array(destination, count, operation.operation, type.type);
      });
    }
    report(std::string("strided/") + type.name, [&] {
      __orvex_simd_reduction_final_array(destination, source, count / 2, 2, 1, KSOMD_SUM,
                                         type.type);
    });
  }
}

void report_others() {
  Random random(4);
  std::vector<ksomd_range> ranges(100);
  for (auto& range : ranges) {
    range.start = random.next() >> 20;
    range.end = range.start + 10;
  }
  report("dependence/100", [&] {
    ksomd_range copy[100];
    std::copy(ranges.begin(), ranges.end(), copy);
    __orvex_rtdd_indep(copy, 100);
  });
  const std::uint64_t value = 0x123456789ABCDEF1;
  report("convert/u64_to_double", [&] { __cvtu64todp_sse2(&value); });
  report("convert/u64_to_float", [&] { __cvtu64tosp_sse2(&value); });
  report("divide/8_words", [&] {
    std::uint32_t dividend[9] = {1, 2, 3, 4, 5, 6, 7, 8, 0};
    std::uint32_t divisor[8] = {9, 8, 7, 6};
    std::uint32_t quotient[8], remainder[8];
    __udivmodei5(quotient, remainder, dividend, divisor, 8);
  });
  report("pool/malloc_free", [&] { __i_pool_free(__i_pool_malloc(48)); });
  report("pool/calloc_free", [&] { __i_pool_free(__i_pool_calloc(2, 20)); });
}

// ---- levels -------------------------------------------------------------------------------------

void force(std::uint64_t word) {
  __orvex_cpu_feature_indicator[0] = word;
  __orvex_fast_memcpy_slot = __orvex_fast_memmove_slot = nullptr;
  __orvex_fast_memset_slot = nullptr;
  __libkso_nontemporal_store_slot = nullptr;
  __libkso_nontemporal_store_dynamic_slot = nullptr;
  matmul::kernels_slot = nullptr;
}

int report_levels() {
  constexpr std::size_t sizes[] = {48, 40, 0};
  __i_pool_init(sizes, KSOMD_POOL_MALLOC);
  __i_pool_init(sizes, KSOMD_POOL_CALLOC);
  __libkso_mem_tuning = {};
  __libkso_mem_tuning.mem_class = 2;
  const std::uint64_t present = feature_word();
  constexpr struct {
    const char* name;
    FeatureMask features;
  } levels[] = {
      {"baseline", mem::baseline_level}, {"avx2", mem::avx2_level}, {"avx512", mem::avx512_level}};
  for (const auto& level : levels) {
    level_name = level.name;
    if (!level.features.all_in({present, 0})) {
      std::printf("%s absent\n", level.name);
      continue;
    }
    force(level.features.words[0] | 1);
    report_quads();
    report_memory();
    report_products();
    report_folds();
    report_others();
  }
  return 0;
}

}  // namespace
}  // namespace ksomd::test

int main() {
  if (!ksomd::test::can_single_step()) {
    std::puts("absent");
    return 0;
  }
  return ksomd::test::report_levels();
}
