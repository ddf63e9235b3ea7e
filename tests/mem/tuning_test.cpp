// The sizes at which the routines change their method, derived from processors that are tables.
#include "mem/tuning.h"

#include "mem/routines.h"
#include "support/child_process.h"
#include "support/synthetic_processor.h"

namespace ksomd::test {
namespace {

constexpr std::uint32_t sse2 = 1u << 26, mmx = 1u << 23, l2_leaf = 0x80000006;
constexpr std::uint64_t most = 0xFFFFFFFF;

CacheInfo caches_of(std::uint64_t genuine, std::uint64_t leaf, const std::uint64_t (&kib)[3]) {
  CacheInfo info{static_cast<std::uint32_t>(genuine), static_cast<std::uint32_t>(leaf), {}, 1};
  for (int i = 0; i < 3; ++i) {
    info.level[i].size_kib = static_cast<std::uint32_t>(kib[i]);
  }
  return info;
}

// With the largest cache and that of level 1, in KiB.
mem::Tuning known(std::uint64_t largest, std::uint64_t l1, std::int32_t mem_class) {
  return {largest * 1024, largest * 512, l1 * 1024, l1 * 512, l1 * 256,
          8192,           l1 * 6144,     2048,      mem_class};
}
// With the largest cache alone.
mem::Tuning usual(std::int32_t mem_class, std::uint64_t largest = 128) {
  return {largest * 1024, largest * 512, 16384, 8192, 4096, 8192, 65536, 16384, mem_class};
}

TEST(TuningValues, FollowTheProcessor) {
  const struct {
    std::string_view vendor;
    std::uint32_t features, extended, l2_register;
    std::uint64_t leaf, caches[3];
    mem::Tuning expected;
  } rows[] = {
      {"GenuineOrvex", ~mmx, 0, 0, 22, {48, 1280, 30720}, known(30720, 48, 2)},
      {"GenuineOrvex", ~sse2, l2_leaf, ~0u, 1, {32, 8, 16}, known(32, 32, 1)},
      {"GenuineOrvex", mmx, 0, 0, 22, {1, 3, 2}, known(3, 1, 1)},
      {"GenuineOrvex", sse2, 0, 0, 22, {most, 1, most}, known(most, most, 2)},
      {"GenuineOrvex", sse2, 0, 0, 22, {0, 1280, 30720}, usual(2)},
      {"GenuineOrvex", mmx, 0, 0, 22, {0, 0, 0}, usual(1)},
      {"GenuineOrvex", ~(sse2 | mmx), 0, 0, 22, {0, 0, 0}, usual(0)},
      {"GenuineOrvex", sse2 | mmx, 0, 0, 0, {0, 9, 9}, usual(0)},
      {"AuthenticAMD", sse2 | mmx, l2_leaf, 512u << 16 | 0xFFFF, 0, {48, 9, 9}, usual(1, 512)},
      {"AuthenticAMD", ~mmx, l2_leaf + 2, ~0u, 0, {0, 0, 0}, usual(0, 0xFFFF)},
      {"AuthenticAMD", mmx, l2_leaf - 1, 512u << 16, 0, {0, 0, 0}, usual(1)},
      {"AuthenticAMD", mmx, l2_leaf, 0xFFFF, 0, {0, 0, 0}, usual(1, 0)},
      {"SomebodyElse", ~0u, l2_leaf, ~0u, 22, {48, 9, 9}, usual(0)},
  };
  for (const auto& row : rows) {
    SyntheticProcessor table;
    table.set_vendor(row.vendor);
    table.reg(1, 0, 'd') = row.features;
    table.reg(0x80000000, 0, 'a') = row.extended;
    table.reg(l2_leaf, 0, 'c') = row.l2_register;
    const CacheInfo caches = caches_of(row.vendor == "GenuineOrvex", row.leaf, row.caches);
    EXPECT_EQ(values_of(mem::derive_tuning(table.processor(), caches)), values_of(row.expected))
        << "row " << &row - rows;
  }
  EXPECT_EQ(values_of({}), values_of(usual(0)));
}

// Seen by a constructor of this program: the library's own has run before it. The tuning values of
// many processors are the defaults; that the caches are gathered tells on all of them.
const std::uint32_t gathered_at_construction = [] { return __libkso_cache_info.ready; }();
const mem::Tuning tuning_at_construction = [] { return __libkso_mem_tuning; }();
TEST(TuningValues, AreReadyForConstructors) {
  EXPECT_EQ(gathered_at_construction, 1u);
  const auto expected =
      values_of(mem::derive_tuning(hardware_processor, gather_caches(hardware_processor)));
  EXPECT_EQ(values_of(tuning_at_construction), expected);
  EXPECT_EQ(values_of(__libkso_mem_tuning), expected);
}

// The initialiser itself, on caches as a broken genuine processor reports them.
KSOMD_CHILD(initialise_again) {
  __libkso_cache_info = caches_of(std::stoul(arguments[0]), 4, {std::stoul(arguments[1]), 9, 0});
  __libkso_mem_tuning.mem_class = 77;
  __libkso_mem_tuning_init();
  return __libkso_mem_tuning.mem_class == 77 ? 0 : __libkso_mem_tuning.l1_size == 16384 ? 7 : 6;
}

TEST(TuningValues, DebugVariableEndsTheProcessWithoutALevelOneCache) {
  const struct {
    const char *genuine, *l1, *variable;
    int status;
  } rows[] = {{"1", "0", "1", 1},     {"1", "0", "off", 1}, {"1", "0", "", 7},
              {"1", "0", nullptr, 7}, {"0", "0", "1", 7},   {"1", "48", "1", 6}};
  for (const auto& row : rows) {
    std::vector<std::pair<std::string, std::string>> environment;
    if (row.variable != nullptr) {
      environment.emplace_back("__ORVEX_LIBKSO_DEBUG", row.variable);
    }
    const std::string message =
        "\nCache size is incorrectly reported as 0. Please engage your hardware and/or OS support "
        "to address the problem.\n\n";
    expect_exit(run_child("initialise_again", {row.genuine, row.l1}, environment), row.status,
                row.status == 1 ? text_mode(message) : "");
  }
}

}  // namespace
}  // namespace ksomd::test
