// The features that the library knows: their names, their bits in a feature set, and where the
// processor reports each. This is the only such table. The number of a row is the feature's ISA id,
// and reports list features in this order.
#pragma once

#include <cstdint>
#include <string_view>

#include "cpu/feature_set.h"

namespace ksomd {

// The CPUID leaves that report features.
enum class Leaf : std::uint8_t {
  Basic1,
  Basic7,
  Basic7Sub1,
  Trace14,
  KeyLocker19,
  Tile1E,
  Avx10_24,
  Extended1,
  Extended8,
};
inline constexpr int leaf_count = 9;

enum class Register : std::uint8_t { Eax, Ebx, Ecx, Edx };

// A feature counts as present only if CPUID reports it and its condition holds.
//   Fxsave                  FXSAVE is reported
//   Ymm, Zmm, Tmm, Apx      the system preserves that register state (XCR0)
//   BoundRegisters          Ymm, and the system preserves the bound registers
//   Avx, Avx2, AmxTile      the named feature is present itself
//   KeyLocker, Avx10        the leaf that holds the report may be read
enum class Condition : std::uint8_t {
  None,
  Fxsave,
  Ymm,
  Zmm,
  Tmm,
  BoundRegisters,
  Avx,
  Avx2,
  AmxTile,
  KeyLocker,
  Avx10,
  Apx,
};

// A field reports its feature if the masked value is at least the minimum: all bits of a mask are
// set, or a version number is high enough.
struct Field {
  std::uint32_t mask, minimum;
};

enum class Reported : std::uint8_t { Never, Always, ByCpuid };

struct CpuidReport {
  Leaf leaf{};
  Register reg{};
  Field field{};
  Condition condition{};
  Reported reported = Reported::ByCpuid;
};

struct FeatureRow {
  const char* upper_name;  // as reports print it; null in a row without a feature
  const char* lower_name;  // as the disable variable spells it; null: cannot be switched off
  std::int32_t bit;        // in a 128-bit feature set; -1 in a row without a feature
  CpuidReport report;
};

namespace feature_table {

consteval Field bits(unsigned first) {
  return {1u << first, 1u << first};
}
consteval Field bits(unsigned first, unsigned second) {
  const std::uint32_t mask = 1u << first | 1u << second;
  return {mask, mask};
}
consteval Field at_least(std::uint32_t mask, std::uint32_t minimum) {
  return {mask, minimum};
}

inline constexpr CpuidReport never{{}, {}, {}, {}, Reported::Never};
inline constexpr CpuidReport always{{}, {}, {}, {}, Reported::Always};

// clang-format off
inline constexpr FeatureRow rows[] = {
    {nullptr, nullptr, -1, never},  // 0: names nothing
    {"GENERIC_QX32", nullptr, 0, always},
    {"X87", nullptr, 1, {Leaf::Basic1, Register::Edx, bits(0), Condition::None}},
    {"CMOV", nullptr, 2, {Leaf::Basic1, Register::Edx, bits(15), Condition::None}},
    {"MMX", "mmx", 3, {Leaf::Basic1, Register::Edx, bits(23), Condition::None}},
    {"FXSAVE", nullptr, 4, {Leaf::Basic1, Register::Edx, bits(24), Condition::None}},
    {"SSE", "sse", 5, {Leaf::Basic1, Register::Edx, bits(25), Condition::Fxsave}},
    {"SSE2", "sse2", 6, {Leaf::Basic1, Register::Edx, bits(26), Condition::Fxsave}},
    {"SSE3", "sse3", 7, {Leaf::Basic1, Register::Ecx, bits(0), Condition::Fxsave}},
    {"SSSE3", "ssse3", 8, {Leaf::Basic1, Register::Ecx, bits(9), Condition::Fxsave}},
    {"SSE4_1", "sse4.1", 9, {Leaf::Basic1, Register::Ecx, bits(19), Condition::Fxsave}},
    {"SSE4_2", "sse4", 10, {Leaf::Basic1, Register::Ecx, bits(20), Condition::Fxsave}},
    {"MOVBE", "movbe", 11, {Leaf::Basic1, Register::Ecx, bits(22), Condition::Fxsave}},
    {"POPCNT", "popcnt", 12, {Leaf::Basic1, Register::Ecx, bits(23), Condition::Fxsave}},
    {"PCLMULQDQ", "pclmul", 13, {Leaf::Basic1, Register::Ecx, bits(1), Condition::Fxsave}},
    {"AES", "aes", 14, {Leaf::Basic1, Register::Ecx, bits(25), Condition::Fxsave}},
    {"AVX", "avx", 16, {Leaf::Basic1, Register::Ecx, bits(28), Condition::Ymm}},
    {"F16C", "f16c", 15, {Leaf::Basic1, Register::Ecx, bits(29), Condition::Ymm}},
    {"RDRND", "rdrnd", 17, {Leaf::Basic1, Register::Ecx, bits(30), Condition::None}},
    {"FMA", "fma", 18, {Leaf::Basic1, Register::Ecx, bits(12), Condition::Ymm}},
    {"BMI", "bmi", 19, {Leaf::Basic7, Register::Ebx, bits(3, 8), Condition::None}},
    {"LZCNT", "lzcnt", 20, {Leaf::Extended1, Register::Ecx, bits(5), Condition::None}},
    {"HLE", "hle", 21, {Leaf::Basic7, Register::Ebx, bits(4), Condition::None}},
    {"RTM", "rtm", 22, {Leaf::Basic7, Register::Ebx, bits(11), Condition::None}},
    {"AVX2", "avx2", 23, {Leaf::Basic7, Register::Ebx, bits(5), Condition::Ymm}},
    {"AVX512F", "avx512f", 27, {Leaf::Basic7, Register::Ebx, bits(16), Condition::Zmm}},
    {"AVX512DQ", "avx512dq", 24, {Leaf::Basic7, Register::Ebx, bits(17), Condition::Zmm}},
    {"PTWRITE", "ptwrite", 25, {Leaf::Trace14, Register::Ebx, bits(4), Condition::None}},
    {"PLXNI", nullptr, 26, never},
    {"ADX", "adx", 28, {Leaf::Basic7, Register::Ebx, bits(19), Condition::None}},
    {"RDSEED", "rdseed", 29, {Leaf::Basic7, Register::Ebx, bits(18), Condition::None}},
    {"AVX512IFMA52", "avx512ifma", 30, {Leaf::Basic7, Register::Ebx, bits(21), Condition::Zmm}},
    {nullptr, nullptr, -1, never},  // 32: names nothing
    {"AVX512ER", "avx512er", 32, {Leaf::Basic7, Register::Ebx, bits(27), Condition::Zmm}},
    {"AVX512PF", "avx512pf", 33, {Leaf::Basic7, Register::Ebx, bits(26), Condition::Zmm}},
    {"AVX512CD", "avx512cd", 34, {Leaf::Basic7, Register::Ebx, bits(28), Condition::Zmm}},
    {"SHA", "sha", 35, {Leaf::Basic7, Register::Ebx, bits(29), Condition::Fxsave}},
    {"MPX", "mpx", 36, {Leaf::Basic7, Register::Ebx, bits(14), Condition::BoundRegisters}},
    {"AVX512BW", "avx512bw", 37, {Leaf::Basic7, Register::Ebx, bits(30), Condition::Zmm}},
    {"AVX512VL", "avx512vl", 38, {Leaf::Basic7, Register::Ebx, bits(31), Condition::Zmm}},
    {"AVX512VBMI", "avx512vbmi", 39, {Leaf::Basic7, Register::Ecx, bits(1), Condition::Zmm}},
    {"AVX512_4FMAPS", "avx5124fmaps", 40, {Leaf::Basic7, Register::Edx, bits(3), Condition::Zmm}},
    {"AVX512_4VNNIW", "avx5124vnniw", 41, {Leaf::Basic7, Register::Edx, bits(2), Condition::Zmm}},
    {"AVX512_VPOPCNTDQ", "avx512vpopcntdq", 42, {Leaf::Basic7, Register::Ecx, bits(14), Condition::Zmm}},
    {"AVX512_BITALG", "avx512bitalg", 43, {Leaf::Basic7, Register::Ecx, bits(12), Condition::Zmm}},
    {"AVX512_VBMI2", "avx512vbmi2", 44, {Leaf::Basic7, Register::Ecx, bits(6), Condition::Zmm}},
    {"GFNI", "gfni", 45, {Leaf::Basic7, Register::Ecx, bits(8), Condition::None}},
    {"VAES", "vaes", 46, {Leaf::Basic7, Register::Ecx, bits(9), Condition::Avx}},
    {"VPCLMULQDQ", "vpclmulqdq", 47, {Leaf::Basic7, Register::Ecx, bits(10), Condition::Avx}},
    {"AVX512_VNNI", "avx512vnni", 48, {Leaf::Basic7, Register::Ecx, bits(11), Condition::Zmm}},
    {"CLWB", "clwb", 49, {Leaf::Basic7, Register::Ebx, bits(24), Condition::None}},
    {"RDPID", "rdpid", 50, {Leaf::Basic7, Register::Ecx, bits(22), Condition::None}},
    {"IBT", "ibt", 51, {Leaf::Basic7, Register::Edx, bits(20), Condition::None}},
    {"SHSTK", "shstk", 52, {Leaf::Basic7, Register::Ecx, bits(7), Condition::None}},
    {"SGX", "sgx", 53, {Leaf::Basic7, Register::Ebx, bits(2), Condition::None}},
    {"WBNOINVD", "wbnoinvd", 54, {Leaf::Extended8, Register::Ebx, bits(9), Condition::None}},
    {"PCONFIG", "pconfig", 55, {Leaf::Basic7, Register::Edx, bits(18), Condition::None}},
    {"AVX512_VP2INTERSECT", "avx512vp2intersect", 56, {Leaf::Basic7, Register::Edx, bits(8), Condition::Zmm}},
    {"AVX512_FP16", "avx512fp16", 60, {Leaf::Basic7, Register::Edx, bits(23), Condition::Zmm}},
    {"CLDEMOTE", "cldemote", 64, {Leaf::Basic7, Register::Ecx, bits(25), Condition::None}},
    {"MOVDIRI", "movdiri", 65, {Leaf::Basic7, Register::Ecx, bits(27), Condition::None}},
    {"MOVDIR64B", "movdir64b", 66, {Leaf::Basic7, Register::Ecx, bits(28), Condition::None}},
    {"WAITPKG", "waitpkg", 67, {Leaf::Basic7, Register::Ecx, bits(5), Condition::None}},
    {"AVX512_BF16", "avx512bf16", 68, {Leaf::Basic7Sub1, Register::Eax, bits(5), Condition::Zmm}},
    {"ENQCMD", "enqcmd", 69, {Leaf::Basic7, Register::Ecx, bits(29), Condition::None}},
    {"AVX_VNNI", "avxvnni", 70, {Leaf::Basic7Sub1, Register::Eax, bits(4), Condition::Ymm}},
    {"AMX-TILE", "amx-tile", 71, {Leaf::Basic7, Register::Edx, bits(24), Condition::Tmm}},
    {"AMX-INT8", "amx-int8", 72, {Leaf::Basic7, Register::Edx, bits(25), Condition::AmxTile}},
    {"AMX-BF16", "amx-bf16", 73, {Leaf::Basic7, Register::Edx, bits(22), Condition::AmxTile}},
    {"KL", "kl", 74, {Leaf::KeyLocker19, Register::Ebx, bits(0), Condition::KeyLocker}},
    {"WIDE-KL", "wide-kl", 75, {Leaf::KeyLocker19, Register::Ebx, bits(2), Condition::KeyLocker}},
    {"HRESET", "hreset", 76, {Leaf::Basic7Sub1, Register::Eax, bits(22), Condition::None}},
    {"UINTR", "uintr", 77, {Leaf::Basic7, Register::Edx, bits(5), Condition::None}},
    {"PREFETCHI", "prefetchi", 78, {Leaf::Basic7Sub1, Register::Edx, bits(14), Condition::None}},
    {"AVX_VNNI_INT8", "avxvnniint8", 79, {Leaf::Basic7Sub1, Register::Edx, bits(4), Condition::Avx2}},
    {"CMPCCXADD", "cmpccxadd", 80, {Leaf::Basic7Sub1, Register::Eax, bits(7), Condition::None}},
    {"AVX_IFMA", "avxifma", 81, {Leaf::Basic7Sub1, Register::Eax, bits(23), Condition::Avx2}},
    {"AVX_NE_CONVERT", "avxneconvert", 82, {Leaf::Basic7Sub1, Register::Edx, bits(5), Condition::Avx2}},
    {"RAO_INT", "raoint", 83, {Leaf::Basic7Sub1, Register::Eax, bits(3), Condition::None}},
    {"AMX-FP16", "amx-fp16", 84, {Leaf::Basic7Sub1, Register::Eax, bits(21), Condition::AmxTile}},
    {"AMX-COMPLEX", "amx-complex", 85, {Leaf::Basic7Sub1, Register::Edx, bits(8), Condition::AmxTile}},
    {"SHA512", "sha512", 86, {Leaf::Basic7Sub1, Register::Eax, bits(0), Condition::Avx2}},
    {"SM3", "sm3", 87, {Leaf::Basic7Sub1, Register::Eax, bits(1), Condition::Avx}},
    {"SM4", "sm4", 88, {Leaf::Basic7Sub1, Register::Eax, bits(2), Condition::Avx2}},
    {"AVX_VNNI_INT16", "avxvnniint16", 89, {Leaf::Basic7Sub1, Register::Edx, bits(10), Condition::Avx2}},
    {"USER_MSR", "usermsr", 90, {Leaf::Basic7Sub1, Register::Edx, bits(15), Condition::None}},
    {"AVX_10_1", "avx10.1", 91, {Leaf::Avx10_24, Register::Ebx, at_least(0xFF, 1), Condition::Avx10}},
    {"AVX_10_2", "avx10.2", 92, {Leaf::Avx10_24, Register::Ebx, at_least(0xFF, 2), Condition::Avx10}},
    {"APXF", "apxf", 93, {Leaf::Basic7Sub1, Register::Edx, bits(21), Condition::Apx}},
    {"MSRLIST", "msrlist", 94, {Leaf::Basic7Sub1, Register::Eax, bits(27), Condition::None}},
    {"WRMSRNS", "wrmsrns", 95, {Leaf::Basic7Sub1, Register::Eax, bits(19), Condition::None}},
    {"PBNDKB", "pbndkb", 96, {Leaf::Basic7Sub1, Register::Ebx, bits(1), Condition::None}},
    {"AMX-FP8", "amx-fp8", 97, {Leaf::Tile1E, Register::Eax, bits(4), Condition::AmxTile}},
    {"AMX-TF32", "amx-tf32", 98, {Leaf::Tile1E, Register::Eax, bits(6), Condition::AmxTile}},
    {"AMX-TRANSPOSE", "amx-transpose", 99, {Leaf::Tile1E, Register::Eax, bits(5), Condition::AmxTile}},
    {"AMX-MOVRS", "amx-movrs", 100, {Leaf::Tile1E, Register::Eax, bits(8), Condition::AmxTile}},
    {"AMX-AVX512", "amx-avx512", 101, {Leaf::Tile1E, Register::Eax, bits(7), Condition::AmxTile}},
    {"MOVRS", "movrs", 102, {Leaf::Basic7Sub1, Register::Eax, bits(31), Condition::None}},
    {"INVPCID", "invpcid", 103, {Leaf::Basic7, Register::Ebx, bits(10), Condition::None}},
    {"PKU", "pku", 104, {Leaf::Basic7, Register::Ecx, bits(3), Condition::None}},
    {"PREFETCHW", "prefetchw", 105, {Leaf::Extended1, Register::Ecx, bits(8), Condition::None}},
    {"CLFLUSHOPT", "clflushopt", 106, {Leaf::Basic7, Register::Ebx, bits(23), Condition::None}},
    {"LAHFSAHF64", "lahfsahf64", 107, {Leaf::Extended1, Register::Ecx, bits(0), Condition::None}},
    {"SERIALIZE", "serialize", 108, {Leaf::Basic7, Register::Edx, bits(14), Condition::None}},
    {"TSXLDTRK", "tsxldtrk", 109, {Leaf::Basic7, Register::Edx, bits(16), Condition::None}},
    {"FSRM", "fsrm", 110, {Leaf::Basic7, Register::Edx, bits(4), Condition::None}},
    {"ERMSB", "ermsb", 111, {Leaf::Basic7, Register::Ebx, bits(9), Condition::None}},
    {"MWAIT", "mwait", 112, {Leaf::Basic1, Register::Ecx, bits(3), Condition::None}},
};
// clang-format on

}  // namespace feature_table

inline constexpr int isa_id_count = sizeof feature_table::rows / sizeof feature_table::rows[0];
static_assert(isa_id_count == 108);

// The row of the feature with this upper-case name; fails to compile for any other name.
consteval const FeatureRow& feature_row(std::string_view upper_name) {
  for (const FeatureRow& row : feature_table::rows) {
    if (row.upper_name != nullptr && upper_name == row.upper_name) {
      return row;
    }
  }
  __builtin_trap();  // no feature has this name
}

// The features with these upper-case names.
template <class... Names>
consteval FeatureMask feature_mask(Names... upper_names) {
  FeatureMask mask{};
  ((mask.words[feature_row(upper_names).bit / 64] |= std::uint64_t{1}
                                                     << feature_row(upper_names).bit % 64),
   ...);
  return mask;
}

}  // namespace ksomd
