#include "cpu/detection.h"

#include <cstdlib>

#include "cpu/isa_names.h"

ksomd::FeatureSet __orvex_cpu_feature_indicator;
ksomd::FeatureSet __orvex_vendor_feature_indicator;

namespace ksomd {
namespace {

constexpr std::uint32_t bit(unsigned number) {
  return 1u << number;
}

constexpr bool all_of(std::uint32_t value, std::uint32_t mask) {
  return (value & mask) == mask;
}

// XCR0 bits: the register states that the system preserves.
constexpr std::uint32_t ymm_state = bit(1) | bit(2);
constexpr std::uint32_t bound_state = bit(3) | bit(4);
constexpr std::uint32_t zmm_state = bit(5) | bit(6) | bit(7);
constexpr std::uint32_t tile_state = bit(17) | bit(18);
constexpr std::uint32_t apx_state = bit(19);

// The CPUID leaves that report features, each read once, and the conditions that hold.
class Snapshot {
 public:
  // A processor that reports nothing. Every leaf counts as read, so that every feature is
  // NotReported.
  Snapshot() : read_(~0u) {}
  explicit Snapshot(const Processor& processor);

  Explanation explain(const CpuidReport& report) const {
    if (reports(report)) {
      return holds(report.condition) ? Explanation{Finding::Present, Condition::None}
                                     : Explanation{Finding::ConditionFails, report.condition};
    }
    return was_read(report.leaf) ? Explanation{Finding::NotReported, Condition::None}
                                 : Explanation{Finding::NotAsked, report.condition};
  }

 private:
  std::uint32_t reg(Leaf leaf, Register reg) const {
    const CpuidResult& result = leaves_[static_cast<int>(leaf)];
    const std::uint32_t registers[] = {result.eax, result.ebx, result.ecx, result.edx};
    return registers[static_cast<int>(reg)];
  }
  // Whether CPUID reports the feature. Its condition is not looked at.
  bool reports(const CpuidReport& report) const {
    return (reg(report.leaf, report.reg) & report.field.mask) >= report.field.minimum;
  }
  bool holds(Condition condition) const {
    return all_of(conditions_, bit(static_cast<unsigned>(condition)));
  }
  void set(Condition condition, bool holds) {
    conditions_ |= holds ? bit(static_cast<unsigned>(condition)) : 0;
  }
  void read(const Processor& processor, Leaf leaf, std::uint32_t number, std::uint32_t subleaf) {
    leaves_[static_cast<int>(leaf)] = processor.leaf(number, subleaf);
    read_ |= bit(static_cast<unsigned>(leaf));
  }
  bool was_read(Leaf leaf) const { return all_of(read_, bit(static_cast<unsigned>(leaf))); }

  CpuidResult leaves_[leaf_count] = {};  // a leaf that may not be read stays 0: it reports nothing
  std::uint32_t conditions_ = 0;
  std::uint32_t read_ = 0;
};

// CPUID bits that conditions depend on. The feature table has no rows for them.
constexpr CpuidReport xgetbv_enabled{Leaf::Basic1, Register::Ecx, feature_table::bits(27)};
constexpr CpuidReport key_locker{Leaf::Basic7, Register::Ecx, feature_table::bits(23)};
constexpr CpuidReport avx10{Leaf::Basic7Sub1, Register::Edx, feature_table::bits(19)};

Snapshot::Snapshot(const Processor& processor) {
  read(processor, Leaf::Basic1, 1, 0);
  read(processor, Leaf::Basic7, 7, 0);
  read(processor, Leaf::Basic7Sub1, 7, 1);
  read(processor, Leaf::Extended1, 0x80000001, 0);
  read(processor, Leaf::Extended8, 0x80000008, 0);
  read(processor, Leaf::Trace14, 0x14, 0);

  const std::uint32_t xcr0 = reports(xgetbv_enabled) ? processor.xcr0(processor.self) : 0;
  const bool ymm = all_of(xcr0, ymm_state);
  const bool tmm = all_of(xcr0, tile_state);
  set(Condition::None, true);
  set(Condition::Fxsave, reports(feature_row("FXSAVE").report));
  set(Condition::Ymm, ymm);
  set(Condition::Zmm, ymm && all_of(xcr0, zmm_state));
  set(Condition::Tmm, tmm);
  set(Condition::BoundRegisters, ymm && all_of(xcr0, bound_state));
  set(Condition::Avx, ymm && reports(feature_row("AVX").report));
  set(Condition::Avx2, ymm && reports(feature_row("AVX2").report));
  set(Condition::AmxTile, tmm && reports(feature_row("AMX-TILE").report));
  set(Condition::KeyLocker, reports(key_locker));
  set(Condition::Avx10, reports(avx10));
  set(Condition::Apx, all_of(xcr0, apx_state));

  if (holds(Condition::KeyLocker)) {
    read(processor, Leaf::KeyLocker19, 0x19, 0);
  }
  if (holds(Condition::AmxTile)) {
    read(processor, Leaf::Tile1E, 0x1E, 1);
  }
  if (holds(Condition::Avx10)) {
    read(processor, Leaf::Avx10_24, 0x24, 0);
  }
}

void store(FeatureSet& set, const FeatureSet& features) {
  __atomic_store_n(&set[1], features[1], __ATOMIC_RELEASE);
  __atomic_store_n(&set[0], features[0], __ATOMIC_RELEASE);
}

}  // namespace

void explain_features(const Processor& processor, const char* disabled_names,
                      Explanation (&explanations)[isa_id_count]) {
  FeatureSet disabled = {};
  add_disabled_features(disabled_names, disabled);
  const Snapshot snapshot = processor.leaf(0).eax == 0 ? Snapshot() : Snapshot(processor);
  for (int id = 0; id < isa_id_count; ++id) {
    const CpuidReport& report = feature_table::rows[id].report;
    Explanation& explanation = explanations[id];
    explanation = {Finding::NotReported, Condition::None};
    if (report.reported == Reported::Always) {
      explanation.finding = Finding::Present;
    } else if (report.reported == Reported::ByCpuid) {
      explanation = snapshot.explain(report);
    }
    if (explanation.finding == Finding::Present && __orvex_test_feature(disabled, id) == 1) {
      explanation.finding = Finding::SwitchedOff;
    }
  }
}

Detection detect_features(const Processor& processor, const char* disabled_names,
                          bool check_vendor) {
  constexpr int generic_id = 1;
  Detection detection{0, check_vendor ? Publish::Both : Publish::General, {}};
  if (check_vendor && processor.leaf(0).eax != 0 && !processor.vendor_is(genuine_vendor)) {
    detection.publish = Publish::GateOnly;
    detection.status = __orvex_set_feature(detection.features, generic_id);
    return detection;
  }
  Explanation explanations[isa_id_count];
  explain_features(processor, disabled_names, explanations);
  for (int id = 1; id < isa_id_count && detection.status == 0; ++id) {
    if (explanations[id].finding == Finding::Present) {
      detection.status = __orvex_set_feature(detection.features, id);
    }
  }
  return detection;
}

void publish(const Detection& detection) {
  if (detection.status != 0) {
    return;
  }
  if (detection.publish != Publish::General) {
    store(__orvex_vendor_feature_indicator, detection.features);
  }
  if (detection.publish != Publish::GateOnly) {
    store(__orvex_cpu_feature_indicator, detection.features);
  }
}

}  // namespace ksomd

int __orvex_cpu_features_detect(int check_vendor) {
  const ksomd::Detection detection = ksomd::detect_features(
      ksomd::hardware_processor, std::getenv("ORVEX_ISA_DISABLE"), check_vendor != 0);
  ksomd::publish(detection);
  return detection.status;
}
