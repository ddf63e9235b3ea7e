// What the processor's documentation says of each feature, written down apart from the library's
// own table.
#pragma once

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <string>
#include <string_view>

#include "cpu/feature_table.h"

namespace ksomd::test {

struct LeafNumber {
  std::uint32_t leaf, subleaf;
};
inline constexpr LeafNumber l1{1, 0}, l7{7, 0}, s7{7, 1}, l14{0x14, 0}, l19{0x19, 0}, l1E{0x1E, 1},
    l24{0x24, 0}, x1{0x80000001, 0}, x8{0x80000008, 0};
inline constexpr LeafNumber feature_leaves[] = {l1, l7, s7, l14, l19, l1E, l24, x1, x8};

struct Feature {
  std::string_view name;
  int bit;  // in a feature set
  LeafNumber leaf{};
  char reg = '-';  // '-': no register reports it
  int reported = 0;
  Condition condition = Condition::None;
  int second = reported;  // two bits report it

  bool reported_by(std::uint32_t value) const {
    const std::uint32_t bits = 1u << reported | 1u << second;
    return leaf.leaf == 0x24 ? (value & 0xFF) >= bits : (value & bits) == bits;  // a version
  }
  // As the disable variable spells it; empty: not at all.
  std::string lower() const {
    constexpr std::string_view others =
        "|GENERIC_QX32=|X87=|CMOV=|FXSAVE=|PLXNI=|SSE4_1=sse4.1|SSE4_2=sse4|PCLMULQDQ=pclmul|"
        "AVX512IFMA52=avx512ifma|AVX_10_1=avx10.1|AVX_10_2=avx10.2|";
    const std::string key = '|' + std::string(name) + '=';
    if (const auto at = others.find(key); at != others.npos) {
      const auto start = at + key.size();
      return std::string(others.substr(start, others.find('|', start) - start));
    }
    std::string spelled(name);
    std::erase(spelled, '_');
    std::ranges::transform(spelled, spelled.begin(), [](int c) { return std::tolower(c); });
    return spelled;
  }
};

// In the order in which reports list them: the first is ISA id 1, and one id has no feature.
namespace documentation {
using enum Condition;
// clang-format off
inline constexpr Feature features[] = {
    {"GENERIC_QX32", 0}, {"X87", 1, l1, 'd', 0}, {"CMOV", 2, l1, 'd', 15}, {"MMX", 3, l1, 'd', 23},
    {"FXSAVE", 4, l1, 'd', 24}, {"SSE", 5, l1, 'd', 25, Fxsave}, {"SSE2", 6, l1, 'd', 26, Fxsave},
    {"SSE3", 7, l1, 'c', 0, Fxsave}, {"SSSE3", 8, l1, 'c', 9, Fxsave},
    {"SSE4_1", 9, l1, 'c', 19, Fxsave}, {"SSE4_2", 10, l1, 'c', 20, Fxsave},
    {"MOVBE", 11, l1, 'c', 22, Fxsave}, {"POPCNT", 12, l1, 'c', 23, Fxsave},
    {"PCLMULQDQ", 13, l1, 'c', 1, Fxsave}, {"AES", 14, l1, 'c', 25, Fxsave},
    {"AVX", 16, l1, 'c', 28, Ymm}, {"F16C", 15, l1, 'c', 29, Ymm}, {"RDRND", 17, l1, 'c', 30},
    {"FMA", 18, l1, 'c', 12, Ymm}, {"BMI", 19, l7, 'b', 3, None, 8}, {"LZCNT", 20, x1, 'c', 5},
    {"HLE", 21, l7, 'b', 4}, {"RTM", 22, l7, 'b', 11}, {"AVX2", 23, l7, 'b', 5, Ymm},
    {"AVX512F", 27, l7, 'b', 16, Zmm}, {"AVX512DQ", 24, l7, 'b', 17, Zmm},
    {"PTWRITE", 25, l14, 'b', 4}, {"PLXNI", 26}, {"ADX", 28, l7, 'b', 19},
    {"RDSEED", 29, l7, 'b', 18}, {"AVX512IFMA52", 30, l7, 'b', 21, Zmm}, {"", -1},
    {"AVX512ER", 32, l7, 'b', 27, Zmm}, {"AVX512PF", 33, l7, 'b', 26, Zmm},
    {"AVX512CD", 34, l7, 'b', 28, Zmm}, {"SHA", 35, l7, 'b', 29, Fxsave},
    {"MPX", 36, l7, 'b', 14, BoundRegisters}, {"AVX512BW", 37, l7, 'b', 30, Zmm},
    {"AVX512VL", 38, l7, 'b', 31, Zmm}, {"AVX512VBMI", 39, l7, 'c', 1, Zmm},
    {"AVX512_4FMAPS", 40, l7, 'd', 3, Zmm}, {"AVX512_4VNNIW", 41, l7, 'd', 2, Zmm},
    {"AVX512_VPOPCNTDQ", 42, l7, 'c', 14, Zmm}, {"AVX512_BITALG", 43, l7, 'c', 12, Zmm},
    {"AVX512_VBMI2", 44, l7, 'c', 6, Zmm}, {"GFNI", 45, l7, 'c', 8}, {"VAES", 46, l7, 'c', 9, Avx},
    {"VPCLMULQDQ", 47, l7, 'c', 10, Avx}, {"AVX512_VNNI", 48, l7, 'c', 11, Zmm},
    {"CLWB", 49, l7, 'b', 24}, {"RDPID", 50, l7, 'c', 22}, {"IBT", 51, l7, 'd', 20},
    {"SHSTK", 52, l7, 'c', 7}, {"SGX", 53, l7, 'b', 2}, {"WBNOINVD", 54, x8, 'b', 9},
    {"PCONFIG", 55, l7, 'd', 18}, {"AVX512_VP2INTERSECT", 56, l7, 'd', 8, Zmm},
    {"AVX512_FP16", 60, l7, 'd', 23, Zmm}, {"CLDEMOTE", 64, l7, 'c', 25},
    {"MOVDIRI", 65, l7, 'c', 27}, {"MOVDIR64B", 66, l7, 'c', 28}, {"WAITPKG", 67, l7, 'c', 5},
    {"AVX512_BF16", 68, s7, 'a', 5, Zmm}, {"ENQCMD", 69, l7, 'c', 29},
    {"AVX_VNNI", 70, s7, 'a', 4, Ymm}, {"AMX-TILE", 71, l7, 'd', 24, Tmm},
    {"AMX-INT8", 72, l7, 'd', 25, AmxTile}, {"AMX-BF16", 73, l7, 'd', 22, AmxTile},
    {"KL", 74, l19, 'b', 0, KeyLocker}, {"WIDE-KL", 75, l19, 'b', 2, KeyLocker},
    {"HRESET", 76, s7, 'a', 22}, {"UINTR", 77, l7, 'd', 5}, {"PREFETCHI", 78, s7, 'd', 14},
    {"AVX_VNNI_INT8", 79, s7, 'd', 4, Avx2}, {"CMPCCXADD", 80, s7, 'a', 7},
    {"AVX_IFMA", 81, s7, 'a', 23, Avx2}, {"AVX_NE_CONVERT", 82, s7, 'd', 5, Avx2},
    {"RAO_INT", 83, s7, 'a', 3}, {"AMX-FP16", 84, s7, 'a', 21, AmxTile},
    {"AMX-COMPLEX", 85, s7, 'd', 8, AmxTile}, {"SHA512", 86, s7, 'a', 0, Avx2},
    {"SM3", 87, s7, 'a', 1, Avx}, {"SM4", 88, s7, 'a', 2, Avx2},
    {"AVX_VNNI_INT16", 89, s7, 'd', 10, Avx2}, {"USER_MSR", 90, s7, 'd', 15},
    {"AVX_10_1", 91, l24, 'b', 0, Avx10}, {"AVX_10_2", 92, l24, 'b', 1, Avx10},
    {"APXF", 93, s7, 'd', 21, Apx}, {"MSRLIST", 94, s7, 'a', 27}, {"WRMSRNS", 95, s7, 'a', 19},
    {"PBNDKB", 96, s7, 'b', 1}, {"AMX-FP8", 97, l1E, 'a', 4, AmxTile},
    {"AMX-TF32", 98, l1E, 'a', 6, AmxTile}, {"AMX-TRANSPOSE", 99, l1E, 'a', 5, AmxTile},
    {"AMX-MOVRS", 100, l1E, 'a', 8, AmxTile}, {"AMX-AVX512", 101, l1E, 'a', 7, AmxTile},
    {"MOVRS", 102, s7, 'a', 31}, {"INVPCID", 103, l7, 'b', 10}, {"PKU", 104, l7, 'c', 3},
    {"PREFETCHW", 105, x1, 'c', 8}, {"CLFLUSHOPT", 106, l7, 'b', 23},
    {"LAHFSAHF64", 107, x1, 'c', 0}, {"SERIALIZE", 108, l7, 'd', 14},
    {"TSXLDTRK", 109, l7, 'd', 16}, {"FSRM", 110, l7, 'd', 4}, {"ERMSB", 111, l7, 'b', 9},
    {"MWAIT", 112, l1, 'c', 3},
};
// clang-format on
}  // namespace documentation
using documentation::features;

}  // namespace ksomd::test
