// The report for people.
#include <cstdio>
#include <map>

#include "cpu/feature_table.h"
#include "cpu/isa_names.h"
#include "report.h"

namespace ksomd::info {
namespace {

constexpr std::size_t line_width = 96;
constexpr int indentation = 2;

// Words on lines of limited width, after a title on a line of its own.
void print_words(const char* title, const std::vector<std::string>& words) {
  if (words.empty()) {
    return;
  }
  std::printf("%s\n", title);
  std::size_t column = 0;
  for (const std::string& word : words) {
    if (column != 0 && column + 1 + word.size() > line_width) {
      std::printf("\n");
      column = 0;
    }
    const int gap = column == 0 ? indentation : 1;
    std::printf("%*s%s", gap, "", word.c_str());
    column += static_cast<std::size_t>(gap) + word.size();
  }
  std::printf("\n");
}

void print_identity(const Report& report) {
  const Identity& identity = report.identity;
  std::printf("Processor: \"%s\", family %u, model %u, stepping %u\n", identity.vendor.c_str(),
              identity.family, identity.model, identity.stepping);
  std::printf("Feature start-up check: %s\n",
              identity.genuine ? "accepts this vendor"
                               : "rejects every program on this vendor's processors");
  if (identity.xgetbv) {
    std::printf("Register state that the system preserves: XCR0 0x%x\n", identity.xcr0);
  } else {
    std::printf("Register state that the system preserves: not told (no XGETBV)\n");
  }
  std::printf("Core types: %s\n", identity.hybrid ? "told apart" : "not told apart");
  if (!report.disabled.empty()) {
    std::printf("ORVEX_ISA_DISABLE: %s\n", report.disabled.c_str());
  }
  for (const std::string& name : report.unknown_names) {
    std::printf("  \"%s\" there names no feature\n", name.c_str());
  }
}

void print_features(const Report& report) {
  std::map<std::string, std::vector<std::string>> by_reason;
  for (int id = 1; id < isa_id_count; ++id) {
    if (const char* name = feature_table::rows[id].upper_name) {
      by_reason[reason(report, id)].emplace_back(name);
    }
  }
  print_words("\nFeatures", by_reason[""]);
  for (const auto& [why, names] : by_reason) {
    if (!why.empty()) {
      print_words(("\nNot there: " + why).c_str(), names);
    }
  }
}

void print_levels(const Report& report) {
  std::printf("\nStart-up checks\n");
  for (const LevelOutcome& outcome : report.levels) {
    const Level& level = *outcome.level;
    std::printf("  %-24s", level_entry(level).c_str());
    if (outcome.passes()) {
      std::printf("  passes\n");
      continue;
    }
    char missing[feature_list_size];
    list_features(outcome.missing, " and ", missing);
    std::printf("  %s: no %s\n", level.report == nullptr ? "does nothing" : "ends the program",
                missing);
    if (level.report != nullptr) {
      std::printf("  %-24s  message %u: %s\n", "", level.message, level_message(level));
    }
  }
}

void print_sizes(const Report& report) {
  std::printf("\nData caches%s\n",
              report.identity.genuine ? "" : " (asked of a genuine processor only)");
  for (std::uint32_t level = 0; level < cache_levels; ++level) {
    const Cache& cache = report.caches.level[level];
    if (cache.size_kib != 0) {
      std::printf("  level %u  %u KiB, lines of %u bytes, %u ways, %u partitions\n", level + 1,
                  cache.size_kib, cache.line, cache.ways, cache.partitions);
    } else {
      std::printf("  level %u  not known\n", level + 1);
    }
  }
  std::printf("\nTuning of the memory routines (sizes in bytes)\n");
  std::printf("  %-20s %12s  %-16s %12s\n", "", "value", "from", "auto gives");
  for (const TuningValue& field : report.tuning) {
    std::printf("  %-20s %12llu  %-16s %12llu\n", field.name,
                static_cast<unsigned long long>(field.value), origin_name(field.origin),
                static_cast<unsigned long long>(field.automatic));
  }
  if (!report.tuning_request.empty()) {
    std::printf("KSOMD_MEM_TUNING: %s\n", report.tuning_request.c_str());
  }
  for (const std::string& item : report.refused_items) {
    std::printf("  \"%s\" there names no tuning value or gives none\n", item.c_str());
  }
}

void print_dispatch(const Report& report) {
  std::printf("\nVariants that the entry points take\n");
  for (const Family& family : families()) {
    std::map<std::string, std::vector<std::string>> by_variant;
    for (const DispatchingEntry& entry : family.entries) {
      by_variant[entry.variant(report.features)].emplace_back(entry.name);
    }
    const bool one_each = by_variant.size() == family.entries.size();
    for (const DispatchingEntry& entry : one_each ? family.entries : decltype(family.entries){}) {
      std::printf("%s: %s takes %s\n", family.title, entry.name, entry.variant(report.features));
    }
    for (const auto& [variant, names] : by_variant) {
      if (!one_each) {
        print_words((std::string(family.title) + ": " + variant).c_str(), names);
      }
    }
  }
}

}  // namespace

void print_text(const Report& report) {
  print_identity(report);
  print_features(report);
  print_levels(report);
  print_sizes(report);
  print_dispatch(report);
}

}  // namespace ksomd::info
