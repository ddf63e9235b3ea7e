#include "report.h"

#include <cstring>

#include "cpu/feature_table.h"
#include "cpu/isa_names.h"
#include "math/math.h"
#include "matmul/drive/kernels.h"
#include "mem/dispatch.h"
#include "msg/messages.h"
#include "quad/dispatch.h"

namespace ksomd::info {
namespace {

// What a condition asks for, as the end of "... but ".
const char* unmet(Condition condition) {
  switch (condition) {
    case Condition::None:
      break;
    case Condition::Fxsave:
      return "the processor does not report FXSAVE";
    case Condition::Ymm:
      return "the system does not preserve the YMM registers";
    case Condition::Zmm:
      return "the system does not preserve the ZMM and mask registers";
    case Condition::Tmm:
      return "the system does not preserve the tile registers";
    case Condition::BoundRegisters:
      return "the system does not preserve the bound registers";
    case Condition::Avx:
      return "AVX is not usable";
    case Condition::Avx2:
      return "AVX2 is not usable";
    case Condition::AmxTile:
      return "AMX-TILE is not usable";
    case Condition::KeyLocker:
      return "the processor does not report Key Locker";
    case Condition::Avx10:
      return "the processor does not report AVX10";
    case Condition::Apx:
      return "the system does not preserve the extended general registers";
  }
  return "";
}

std::string vendor_of(const CpuidResult& leaf_0) {
  char text[13] = {};
  std::memcpy(text, &leaf_0.ebx, 4);
  std::memcpy(text + 4, &leaf_0.edx, 4);
  std::memcpy(text + 8, &leaf_0.ecx, 4);
  return text;
}

Identity identify(const Processor& processor) {
  constexpr std::uint32_t osxsave = 1u << 27;
  Identity identity{};
  const CpuidResult leaf_0 = processor.leaf(0);
  identity.vendor = vendor_of(leaf_0);
  identity.genuine = processor.vendor_is(genuine_vendor);
  identity.hybrid = hybrid_state(processor) == HybridState::Available;
  if (leaf_0.eax == 0) {
    return identity;
  }
  const CpuidResult leaf_1 = processor.leaf(1);
  const std::uint32_t signature = leaf_1.eax;
  const std::uint32_t family = signature >> 8 & 0xF;
  const bool extended = family == 0xF;
  identity.family = family + (extended ? signature >> 20 & 0xFF : 0);
  identity.model = signature >> 4 & 0xF;
  if (extended || family == 6) {
    identity.model |= (signature >> 16 & 0xF) << 4;
  }
  identity.stepping = signature & 0xF;
  identity.xgetbv = (leaf_1.ecx & osxsave) != 0;
  identity.xcr0 = identity.xgetbv ? processor.xcr0(processor.self) : 0;
  return identity;
}

// Items that a request holds in vain; the library reports them one at a time, without a context.
std::vector<std::string> refused;

void add_tuning(const Processor& processor, const char* request, Report& report) {
  report.tuning_request = request != nullptr ? request : mem::default_tuning_request;
  mem::TuningOrigin origins[mem::tuning_field_count];
  refused.clear();
  const mem::Tuning tuning = mem::requested_tuning(
      {processor, report.caches, report.tuning_request.c_str()}, &origins,
      [](const char* item, std::size_t length) { refused.emplace_back(item, length); });
  const mem::Tuning automatic = mem::automatic_tuning(processor, report.caches);
  for (std::size_t i = 0; i < mem::tuning_field_count; ++i) {
    const mem::TuningField& field = mem::tuning_fields[i];
    report.tuning.push_back({field.name, field.get(tuning), origins[i], field.get(automatic)});
  }
  report.refused_items = refused;
}

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool same_letters(std::string_view a, const char* b) {
  if (b == nullptr || a.size() != std::strlen(b)) {
    return false;
  }
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (lower(a[i]) != lower(b[i])) {
      return false;
    }
  }
  return true;
}

}  // namespace

std::span<const Family> families() {
  static const Family table[] = {
      {"memory", mem::memory_entries()},
      {"streaming stores", mem::streaming_entries()},
      {"quad precision", quad::dispatching_entries()},
      {"matrix products, second stage", matmul::dispatching_entries()},
      {"matrix products, kernels", matmul::kernel_entries()},
      {"math", math::dispatching_entries()},
  };
  return table;
}

Report make_report(const Processor& processor, const char* disabled_names,
                   const char* tuning_request) {
  Report report{};
  report.identity = identify(processor);
  report.disabled = disabled_names == nullptr ? "" : disabled_names;
  for (const std::string& name : split(report.disabled)) {
    FeatureSet named = {};
    add_disabled_features(name.c_str(), named);
    if ((named[0] | named[1]) == 0) {
      report.unknown_names.push_back(name);
    }
  }
  const Detection detection = detect_features(processor, disabled_names, false);
  std::memcpy(report.features, detection.features, sizeof report.features);
  explain_features(processor, disabled_names, report.explanations);
  for (const Level* level : std::span(levels, level_count)) {
    report.levels.push_back({level,
                             {level->required.words[0] & ~report.features[0],
                              level->required.words[1] & ~report.features[1]}});
  }
  report.caches = gather_caches(processor);
  add_tuning(processor, tuning_request, report);
  return report;
}

std::string reason(const Report& report, int id) {
  const Explanation& explanation = report.explanations[id];
  switch (explanation.finding) {
    case Finding::Present:
      return "";
    case Finding::NotReported:
      return "the processor does not report it";
    case Finding::NotAsked:
      return std::string("not asked for: ") + unmet(explanation.condition);
    case Finding::ConditionFails:
      return std::string("reported, but ") + unmet(explanation.condition);
    case Finding::SwitchedOff:
      return "switched off by ORVEX_ISA_DISABLE";
  }
  return "";
}

int find_feature(std::string_view name) {
  for (int id = 1; id < isa_id_count; ++id) {
    const FeatureRow& row = feature_table::rows[id];
    if (same_letters(name, row.upper_name) || same_letters(name, row.lower_name)) {
      return id;
    }
  }
  return 0;
}

std::vector<std::string> split(std::string_view list) {
  std::vector<std::string> parts;
  while (!list.empty()) {
    const std::size_t length = std::min(list.find(','), list.size());
    if (length != 0) {
      parts.emplace_back(list.substr(0, length));
    }
    list.remove_prefix(std::min(length + 1, list.size()));
  }
  return parts;
}

const char* origin_name(mem::TuningOrigin origin) {
  constexpr const char* names[] = {"computed", "auto", "KSOMD_MEM_TUNING"};
  return names[static_cast<int>(origin)];
}

const char* level_message(const Level& level) {
  return level.report == nullptr ? "" : __libkso_get_msg(level.message);
}

std::string level_entry(const Level& level) {
  return std::string("__orvex_new_proc_init") + (*level.letter == '\0' ? "" : "_") + level.letter;
}

}  // namespace ksomd::info
