// What the library finds out about a processor that is a table: features and why they are there or
// not, core types, caches; the disable variable; and how the feature sets are published.
#include "cpu/detection.h"

#include <algorithm>
#include <array>
#include <barrier>
#include <bit>
#include <thread>

#include "cpu/core_type.h"
#include "cpu/isa_names.h"
#include "cpu/machine.h"
#include "ksomd/core.h"
#include "support/operand.h"

namespace ksomd::test {
namespace {

// ---- the processor's documentation, written down apart from the library's own table -------------

constexpr std::pair<std::uint32_t, std::uint32_t> leaves[] = {  // and subleaves
    {0, 0},    {1, 0},    {7, 0},    {7, 1},          {0x14, 0},
    {0x19, 0}, {0x1E, 1}, {0x24, 0}, {0x80000001, 0}, {0x80000008, 0}};

// Whether CPUID reports what `report` says: the code of the leaf, the register, the bit, and either
// the code of a condition or + and a second bit. "-" says nothing.
bool reports(SyntheticProcessor& p, const std::string& report) {
  char leaf = '-', reg = 'a', condition = '+';
  unsigned bit = 0, second = 0;
  const int read =
      std::sscanf(report.c_str(), "%c%c%u%c%u", &leaf, &reg, &bit, &condition, &second);
  const auto& [number, subleaf] = leaves[std::string_view("-17stkmvxy").find(leaf)];
  const std::uint32_t value = p.reg(number, subleaf, reg);
  const std::uint32_t bits = 1u << bit | 1u << (read == 5 ? second : bit);
  return leaf == '-' || (leaf == 'v' ? (value & 0xFF) > bit : (value & bits) == bits);  // a version
}

struct Feature {
  std::string name, lower;  // `lower` as the disable variable spells it; empty: not at all
  int bit;                  // in a feature set
  std::string report;
};

// In the order in which reports list them: the first is ISA id 1, and one id has no feature. Each
// is NAME[/LOWER] BIT REPORT.
const std::vector<Feature> features = [] {
  std::istringstream words(R"(
    GENERIC_QX32/ 0 - X87/ 1 1d0 CMOV/ 2 1d15 MMX 3 1d23 FXSAVE/ 4 1d24 SSE 5 1d25F SSE2 6 1d26F
    SSE3 7 1c0F SSSE3 8 1c9F SSE4_1/sse4.1 9 1c19F SSE4_2/sse4 10 1c20F MOVBE 11 1c22F
    POPCNT 12 1c23F PCLMULQDQ/pclmul 13 1c1F AES 14 1c25F AVX 16 1c28Y F16C 15 1c29Y RDRND 17 1c30
    FMA 18 1c12Y BMI 19 7b3+8 LZCNT 20 xc5 HLE 21 7b4 RTM 22 7b11 AVX2 23 7b5Y AVX512F 27 7b16Z
    AVX512DQ 24 7b17Z PTWRITE 25 tb4 PLXNI/ 26 - ADX 28 7b19 RDSEED 29 7b18
    AVX512IFMA52/avx512ifma 30 7b21Z ? -1 - AVX512ER 32 7b27Z AVX512PF 33 7b26Z AVX512CD 34 7b28Z
    SHA 35 7b29F MPX 36 7b14B AVX512BW 37 7b30Z AVX512VL 38 7b31Z AVX512VBMI 39 7c1Z
    AVX512_4FMAPS 40 7d3Z AVX512_4VNNIW 41 7d2Z AVX512_VPOPCNTDQ 42 7c14Z AVX512_BITALG 43 7c12Z
    AVX512_VBMI2 44 7c6Z GFNI 45 7c8 VAES 46 7c9A VPCLMULQDQ 47 7c10A AVX512_VNNI 48 7c11Z
    CLWB 49 7b24 RDPID 50 7c22 IBT 51 7d20 SHSTK 52 7c7 SGX 53 7b2 WBNOINVD 54 yb9 PCONFIG 55 7d18
    AVX512_VP2INTERSECT 56 7d8Z AVX512_FP16 60 7d23Z CLDEMOTE 64 7c25 MOVDIRI 65 7c27
    MOVDIR64B 66 7c28 WAITPKG 67 7c5 AVX512_BF16 68 sa5Z ENQCMD 69 7c29 AVX_VNNI 70 sa4Y
    AMX-TILE 71 7d24T AMX-INT8 72 7d25L AMX-BF16 73 7d22L KL 74 kb0K WIDE-KL 75 kb2K HRESET 76 sa22
    UINTR 77 7d5 PREFETCHI 78 sd14 AVX_VNNI_INT8 79 sd4W CMPCCXADD 80 sa7 AVX_IFMA 81 sa23W
    AVX_NE_CONVERT 82 sd5W RAO_INT 83 sa3 AMX-FP16 84 sa21L AMX-COMPLEX 85 sd8L SHA512 86 sa0W
    SM3 87 sa1A SM4 88 sa2W AVX_VNNI_INT16 89 sd10W USER_MSR 90 sd15 AVX_10_1/avx10.1 91 vb0V
    AVX_10_2/avx10.2 92 vb1V APXF 93 sd21P MSRLIST 94 sa27 WRMSRNS 95 sa19 PBNDKB 96 sb1
    AMX-FP8 97 ma4L AMX-TF32 98 ma6L AMX-TRANSPOSE 99 ma5L AMX-MOVRS 100 ma8L AMX-AVX512 101 ma7L
    MOVRS 102 sa31 INVPCID 103 7b10 PKU 104 7c3 PREFETCHW 105 xc8 CLFLUSHOPT 106 7b23
    LAHFSAHF64 107 xc0 SERIALIZE 108 7d14 TSXLDTRK 109 7d16 FSRM 110 7d4 ERMSB 111 7b9 MWAIT 112 1c3)");
  std::vector<Feature> all;
  int bit = 0;
  for (std::string name, report; words >> name >> bit >> report;) {
    std::string lower = name.substr(name.find('/') + 1);
    std::erase(lower, '_');
    std::ranges::transform(lower, lower.begin(), [](int c) { return std::tolower(c); });
    name.resize(std::min(name.size(), name.find_first_of("/?")));
    all.push_back({name, lower, bit, report});
  }
  return all;
}();

// What conditions want beside the report: register states that the system preserves, and another
// report. The first is none, the others are as their codes.
constexpr std::string_view condition_codes = "FYZTBAWLKVP";
const std::pair<std::uint32_t, const char*> conditions[] = {
    {0, "-"},    {0, "1d24"}, {6, "-"},          {0xE6, "-"}, {0x60000, "-"}, {0x1E, "-"},
    {6, "1c28"}, {6, "7b5"},  {0x60000, "7d24"}, {0, "7c23"}, {0, "sd19"},    {0x80000, "-"}};

bool is_present(const Feature& f, SyntheticProcessor& p, const std::string& disabled) {
  const auto& [state, also] = conditions[condition_codes.find(f.report.back()) + 1];
  const std::uint32_t preserved = reports(p, "1c27") ? p.xcr0_low : 0;
  const bool holds = (preserved & state) == state && reports(p, also) && reports(p, f.report);
  const bool named = (',' + disabled + ',').find(',' + f.lower + ',') != std::string::npos;
  return holds && f.report != "-" && (f.lower.empty() || !named);
}

TEST(Detection, OfRandomProcessorsAndLists) {
  static Operand text(4096);  // the variable's value ends at a page that faults
  Random random(seed_of(1));
  for (int round = 0; round < (full_length() ? 200'000 : 4000); ++round) {
    SyntheticProcessor p = SyntheticProcessor::of_words([&random, density = random.below(6)] {
      std::uint64_t word = 0;
      for (std::uint64_t i = 0; i < density; ++i) {
        word |= random.next();
      }
      return static_cast<std::uint32_t>(word);
    });
    const bool genuine = random.one_in(2), check = random.one_in(2), silent = random.one_in(16);
    p.set_vendor(genuine ? "GenuineOrvex" : "OtherVendor!", silent ? 0 : 1);
    std::string list;  // of names, some of them spoiled
    for (std::uint64_t count = random.below(7); count > 0; --count) {
      const std::string& name = features[random.below(features.size())].lower;
      list += random.one_of<std::string>({name, name, name, name + ' ', ' ' + name, name + '0',
                                          name + ";avx", name.substr(0, 3), "AVX", ""});
      list += random.one_in(8) ? "" : ",";
    }
    char* const value =
        std::strcpy(text.place_values<char>(list.size() + 1, Place::AtEnd), list.c_str());
    const Detection found = detect_features(p.processor(), value, check);
    const bool quiet = silent || (check && !genuine), xgetbv = !quiet && reports(p, "1c27");
    ASSERT_TRUE(p.xgetbv_count == xgetbv && found.status == 0 && text.intact()) << p.describe();
    std::array<std::uint64_t, 2> expected = {1, 0};
    for (const Feature& f : features) {
      const bool present = !quiet && is_present(f, p, list);
      expected[f.bit >> 6 & 1] |= std::uint64_t{present} << (f.bit & 63);
    }
    ASSERT_TRUE(std::ranges::equal(found.features, expected))
        << "without '" << list << "' " << check << " on " << p.describe();
  }
}

TEST(Names, EveryRow) {
  ASSERT_EQ(features.size(), isa_id_count - 1u);
  for (int id = 1; id < isa_id_count; ++id) {
    const auto& [name, lower, bit, report] = features[static_cast<std::size_t>(id) - 1];
    const char* const upper = __orvex_feature_name(id);
    EXPECT_TRUE((upper != nullptr ? upper : "") == name && __orvex_feature_bit(id) == bit) << id;
    FeatureSet set = {};
    const int before = __orvex_test_feature(set, id), status = __orvex_set_feature(set, id);
    EXPECT_TRUE(before == std::min(bit, 0) && status == before) << id;
    EXPECT_EQ(__orvex_test_feature(set, id), bit < 0 ? -1 : 1) << id;
  }
}

// ---- the two sets -------------------------------------------------------------------------------

TEST(Sets, ArePublishedGatedFirstAndWordZeroLast) {
  putenv(const_cast<char*>("ORVEX_ISA_DISABLE=avx2,amx-tile"));
  for (const bool gated : {false, true}) {
    for (const bool genuine : {false, true}) {
      SyntheticProcessor p = SyntheticProcessor::of_words([] { return ~0u; });
      p.at(0).ebx ^= genuine ? 0 : 1;
      const Detection found = detect_features(p.processor(), "avx2,amx-tile", false);
      const auto& [low, high] = found.features;
      install(p.processor());
      std::array<std::uint64_t, 4> seen = {}, now = {};  // in the order in which they must change
      std::string order;
      const auto look = [&](const std::uint8_t*) {
        std::ranges::reverse_copy(__orvex_vendor_feature_indicator, now.begin());
        std::ranges::reverse_copy(__orvex_cpu_feature_indicator, now.begin() + 2);
        for (std::size_t i = 0; i < 4; ++i) {
          order += std::exchange(seen[i], now[i]) != now[i] ? std::to_string(i) : "";
        }
      };
      watch([gated] { gated ? __orvex_cpu_features_init_vendor() : __orvex_cpu_features_init(); },
            look);
      look(nullptr);
      EXPECT_EQ(order, !gated ? "23" : genuine ? "0123" : "1");
      now = {genuine ? high : 0, genuine ? low : 1, high, low};
      std::fill_n(now.begin() + (gated ? 2 : 0), gated && genuine ? 0 : 2, 0);
      ASSERT_EQ(seen, now);
      EXPECT_FALSE(has_features(FeatureMask{{low, 0}} | feature_mask("AVX2")));
    }
  }
  putenv(const_cast<char*>("ORVEX_ISA_DISABLE="));
}

// Sixteen threads that all find everything empty.
KSOMD_CHILD(race) {
  install();
  std::barrier start(16);
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads(16);
  for (std::thread& thread : threads) {
    thread = std::thread([&start, &wrong] {
      start.arrive_and_wait();
      wrong += features[4].name != __orvex_feature_name(5) || (feature_word() & 1) == 0;
      wrong += __cacheSize(1) != gather_caches(real_machine).level[0].size_kib;
      __detect_cpu_core_type();
    });
  }
  std::ranges::for_each(threads, &std::thread::join);
  return wrong;
}

TEST(Sets, RacingFirstUsersAgree) {
  expect_exit(run_child("race"), 0, "");
}

// ---- caches -------------------------------------------------------------------------------------

// By byte: level, 0 if it describes none, and cache. The text is the published encoding of the data
// and unified caches of leaf 2: level and byte, KiB/ways[/line[/partitions]]; lines are of 64 bytes
// if not said otherwise.
const auto by_byte = [] {
  std::istringstream words(R"(
      10A 8/2/32 10C 16/4/32 10D 16/4 10E 24/6 110 16/4/32 12C 32/8 160 16/8 162 32/8 166 8/4/64/2
      167 16/4/64/2 168 32/4/64/2 169 64/4/64/2 21A 96/6 21D 128/2 221 256/8 224 1024/16 239 128/4
      23A 192/6 23B 128/2 23C 256/4 23D 384/6 23E 512/4 23F 256/4 241 128/4/32 242 256/4/32
      243 512/4/32 244 1024/4/32 245 2048/4/32 248 3072/12 249 4096/16 24E 6144/24 278 1024/4
      279 128/8/64/2 27A 256/8/64/2 27B 512/8/64/2 27C 1024/8/64/2 27D 2048/8/64/2 27E 256/12/128
      27F 512/2 280 512/8 281 128/8/32 282 256/8/32 283 512/8/32 284 1024/8/32 285 2048/8/32
      286 512/4 287 1024/8 322 512/4/64/2 323 1024/8/64/2 325 2048/8/64/2 329 4096/8/64/2 346 4096/4
      347 8192/8 34A 6144/12 34B 8192/16 34C 12288/12 34D 16384/16 388 2048/4 389 4096/4 38A 8192/4
      38D 3072/12/128 3D0 512/4 3D1 1024/4 3D2 2048/4 3D6 1024/8 3D7 2048/8 3D8 4096/8 3DC 2048/12
      3DD 4096/12 3DE 8192/12 3E2 2048/16 3E3 4096/16 3E4 8192/16 3EA 12288/24 3EB 18432/24
      3EC 24576/24)");
  std::array<std::pair<std::size_t, Cache>, 256> all = {};
  std::size_t key = 0;
  for (std::string sizes; words >> std::hex >> key >> sizes;) {
    auto& [level, c] = all[key & 0xFF] = {key >> 8, {0, 64, 1, 0}};
    std::sscanf(sizes.c_str(), "%u/%u/%u/%u", &c.size_kib, &c.ways, &c.line, &c.partitions);
  }
  return all;
}();

CacheInfo expected_caches(SyntheticProcessor& p, bool genuine) {
  const std::uint32_t highest = genuine ? p.at(0).eax : 0, executions = p.leaf_2[0].eax & 0xFF;
  CacheInfo info{genuine, highest, {}, 1};
  for (std::uint32_t i = 0, type = 1; highest >= 4 && type != 0 && i < 8; ++i) {
    const auto [eax, ebx, ecx, edx] = p.at(4, i);
    const std::uint32_t level = eax / 32 % 8, ways = ebx / 4194304 + 1;
    const std::uint32_t line = ebx % 4096 + 1, partitions = ebx / 4096 % 1024 + 1;
    type = eax % 32;
    if ((type == 1 || type == 3) && level >= 1 && level <= cache_levels) {
      const std::uint32_t bytes = ways * line * partitions * (ecx + 1);  // 32 bits of it
      info.level[level - 1] = {bytes / 1024, line, partitions, ways};
    }
  }
  if (info.level[0].size_kib != 0 || highest < 2) {
    return info;
  }
  std::string bytes(reinterpret_cast<const char*>(p.leaf_2.data()), 16 * std::min(executions, 4u));
  for (std::size_t i = 0; i < bytes.size(); i += 4) {
    bytes[i + 3] < 0 ? bytes.replace(i, 4, 4, '\0') : bytes;  // the register says nothing
  }
  const bool moved = (p.at(1).eax & 0x0FFF0FF0) == 0xF60;  // family 15, model 6
  for (const char byte : bytes) {
    if (const auto& [level, cache] = by_byte[static_cast<unsigned char>(byte)]; level != 0) {
      info.level[byte == 0x49 && moved ? 2 : level - 1] = cache;
    }
  }
  std::fill_n(info.level, bytes.find('\xFF') == bytes.npos ? 0 : cache_levels, Cache{});
  return info;
}

TEST(Caches, OfRandomProcessorsAreGatheredByTheFirstUser) {
  const auto cache_size = entry<std::uint32_t(std::uint32_t)>("__cacheSize");
  Random random(seed_of(2));
  const auto word = [&random] { return static_cast<std::uint32_t>(random.next()); };
  for (int round = 0; round < (full_length() ? 1'000'000 : 20'000); ++round) {
    SyntheticProcessor p;
    p.set_vendor(genuine_vendor, random.one_of({0u, 1u, 2u, 3u, 4u, 0x16u}));
    p.cpuid_exists = !random.one_in(16);
    const bool genuine = !random.one_in(16);
    p.reg(0, 0, random.one_of({'b', 'c', 'd'})) ^= genuine ? 0 : 1u << random.below(32);
    p.at(1).eax = random.one_of({0xF65u, 0xF50u, 0xE60u, 0x10F65u, 0x100F60u, 0xF000F06Fu, word()});
    for (auto subleaf = static_cast<std::uint32_t>(random.below(10)); subleaf-- > 0;) {
      const std::uint32_t type = random.one_of({1u, 2u, 3u, 3u, 4u, 17u}), level = word() & 0xE0;
      const std::uint32_t mask = random.one_in(4) ? ~0u : 0x01C0703F;
      p.at(4, subleaf) = {(word() & ~0xFFu) | level | type, word() & mask, word() & mask, word()};
    }
    p.leaf_2.resize(4);
    for (CpuidResult& r : p.leaf_2) {
      for (const char reg : {'a', 'b', 'c', 'd'}) {
        const std::uint32_t mask = random.one_of({~0u, 0x7FFFFFFFu, 0x7F7F7F7Fu, 0u});
        SyntheticProcessor::reg(r, reg) = random.one_in(3) ? 0x49 : word() & mask;
      }
    }
    p.leaf_2[0].eax = (p.leaf_2[0].eax & ~0xFFu) | random.one_of({0u, 1u, 2u, 3u, 4u, 5u, 0x2Cu});

    const CacheInfo info = expected_caches(p, genuine && p.cpuid_exists);
    install(p.processor());
    const bool none = cache_size(0) + cache_size(4) + cache_size(~0u) == 0 && p.asked.empty();
    const bool same = cache_size(1) == info.level[0].size_kib &&
                      cache_size(2) == info.level[1].size_kib &&
                      cache_size(3) == info.level[2].size_kib;
    const CacheInfo found = process_caches();
    ASSERT_TRUE(none && same && std::memcmp(&found, &info, sizeof found) == 0 &&
                p.times_asked(2) <= 4)
        << p.describe();
  }
  install();
}

// ---- core types ---------------------------------------------------------------------------------

TEST(CoreType, NeedsEveryBitAndIsReadTwiceAtMost) {
  const auto types = entry<std::uint8_t>("__cpu_core_type");
  EXPECT_EQ(entry<void>("__detect_cpu_core_type"), entry<void>("__detect_cpu_core_type_1n"));
  SyntheticProcessor p;
  p.set_vendor(genuine_vendor, 0x1A);
  p.at(7) = {0, 0, 1u << 22, 1u << 15};
  p.at(0x1A).eax = 0x40000001;
  for (const char* place : {"0a", "0b", "0c", "0d", "7c", "7d"}) {
    SyntheticProcessor other = p;
    other.reg(place[0] == '0' ? 0 : 7, 0, place[1]) /= 2;
    EXPECT_EQ(hybrid_state(other.processor()), HybridState::Unavailable) << place;
  }
  install(p.processor());
  entry<void()>("__init_cpu_core_type")();
  // Successive processor numbers, and which entry is filled.
  for (const auto& [numbers, filled] :
       {std::pair{std::vector{1030u, 1030u}, 6}, {{1, 2, 5, 5}, 5}, {{1, 2, 2, 1, 7, 7}, -1}}) {
    p.numbers = numbers;
    p.rdpid_count = 0;
    std::fill_n(types, 1024, 0);
    EXPECT_EQ(__detect_cpu_core_type(), filled < 0 ? 0u : 64u);
    EXPECT_EQ(p.rdpid_count, std::min<std::size_t>(numbers.size(), 4));
    EXPECT_EQ(std::count(types, types + 1024, 0), filled < 0 ? 1024 : 1023);
    EXPECT_EQ(std::find(types, types + 1024, 64) - types, filled < 0 ? 1024 : filled);
  }
  EXPECT_LE(p.times_asked(7), 1);
  install();

  bool same = (real_machine.leaf(7).ecx >> 22 & 1) == 0;
  for (unsigned attempt = 0, number = 0; attempt < 100 && !same; ++attempt) {  // it may change
    __builtin_ia32_rdtscp(&number);
    same = real_machine.rdpid(nullptr) == number;
  }
  EXPECT_TRUE(same && real_machine.has_cpuid(nullptr));
}

}  // namespace
}  // namespace ksomd::test
