// The report for programs: one JSON object on one line or more, keys always in the same order.
#include <cstdio>

#include "cpu/feature_table.h"
#include "ksomd_version.h"
#include "report.h"

namespace ksomd::info {
namespace {

std::string quoted(std::string_view text) {
  std::string result = "\"";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      result += '\\';
      result += c;
    } else if (byte < 0x20 || byte > 0x7E) {
      char escape[7];  // bytes beyond ASCII stand for the characters of Latin-1
      std::snprintf(escape, sizeof escape, "\\u%04x", byte);
      result += escape;
    } else {
      result += c;
    }
  }
  return result + '"';
}

const char* boolean(bool value) {
  return value ? "true" : "false";
}

// Prints the separator of every element but the first.
class Separator {
 public:
  void print() {
    std::printf("%s\n    ", first_ ? "" : ",");
    first_ = false;
  }

 private:
  bool first_ = true;
};

std::string name_list(const FeatureSet& features) {
  std::string list;
  for (int id = 1; id < isa_id_count; ++id) {
    const FeatureRow& row = feature_table::rows[id];
    if (row.bit >= 0 && (features[row.bit / 64] >> (row.bit % 64) & 1) != 0) {
      list += (list.empty() ? "" : ", ") + quoted(row.upper_name);
    }
  }
  return "[" + list + "]";
}

void print_identity(const Report& report) {
  const Identity& identity = report.identity;
  std::printf("  \"version\": %s,\n", quoted(KSOMD_VERSION).c_str());
  std::printf(
      "  \"processor\": {\"vendor\": %s, \"genuine\": %s, \"family\": %u, \"model\": %u, "
      "\"stepping\": %u, \"xcr0\": ",
      quoted(identity.vendor).c_str(), boolean(identity.genuine), identity.family, identity.model,
      identity.stepping);
  if (identity.xgetbv) {
    std::printf("%u", identity.xcr0);
  } else {
    std::printf("null");
  }
  std::printf(", \"hybrid\": %s},\n", boolean(identity.hybrid));
  std::string unknown;
  for (const std::string& name : report.unknown_names) {
    unknown += (unknown.empty() ? "" : ", ") + quoted(name);
  }
  std::printf("  \"disable_variable\": {\"value\": %s, \"unknown\": [%s]},\n",
              quoted(report.disabled).c_str(), unknown.c_str());
}

void print_features(const Report& report) {
  std::printf("  \"features\": [");
  Separator separator;
  for (int id = 1; id < isa_id_count; ++id) {
    const FeatureRow& row = feature_table::rows[id];
    if (row.upper_name == nullptr) {
      continue;
    }
    separator.print();
    const std::string why = reason(report, id);
    std::printf(
        "{\"id\": %d, \"name\": %s, \"disable_name\": %s, \"bit\": %d, \"present\": %s, "
        "\"reason\": %s}",
        id, quoted(row.upper_name).c_str(),
        row.lower_name == nullptr ? "null" : quoted(row.lower_name).c_str(), row.bit,
        boolean(why.empty()), why.empty() ? "null" : quoted(why).c_str());
  }
  std::printf("\n  ],\n");
}

void print_levels(const Report& report) {
  std::printf("  \"levels\": [");
  Separator separator;
  for (const LevelOutcome& outcome : report.levels) {
    const Level& level = *outcome.level;
    separator.print();
    std::printf("{\"level\": %s, \"entry\": %s, \"passes\": %s, \"missing\": %s, \"message\": ",
                quoted(level.letter).c_str(), quoted(level_entry(level)).c_str(),
                boolean(outcome.passes()), name_list(outcome.missing).c_str());
    if (level.report == nullptr) {
      std::printf("null}");
    } else {
      std::printf("{\"number\": %u, \"text\": %s}}", level.message,
                  quoted(level_message(level)).c_str());
    }
  }
  std::printf("\n  ],\n");
}

void print_sizes(const Report& report) {
  std::printf("  \"caches\": [");
  Separator caches;
  for (std::uint32_t level = 0; level < cache_levels; ++level) {
    const Cache& cache = report.caches.level[level];
    caches.print();
    std::printf("{\"level\": %u, \"size_kib\": %u, \"line\": %u, \"ways\": %u, \"partitions\": %u}",
                level + 1, cache.size_kib, cache.line, cache.ways, cache.partitions);
  }
  std::printf("\n  ],\n  \"tuning\": {");
  Separator fields;
  for (const TuningValue& field : report.tuning) {
    fields.print();
    std::printf("%s: %llu", quoted(field.name).c_str(),
                static_cast<unsigned long long>(field.value));
  }
  std::printf("\n  },\n  \"tuning_origin\": {");
  Separator origins;
  for (const TuningValue& field : report.tuning) {
    origins.print();
    std::printf("%s: {\"from\": %s, \"auto\": %llu}", quoted(field.name).c_str(),
                quoted(origin_name(field.origin)).c_str(),
                static_cast<unsigned long long>(field.automatic));
  }
  std::printf("\n  },\n  \"tuning_variable\": {\"value\": %s, \"refused\": [",
              quoted(report.tuning_request).c_str());
  const char* comma = "";
  for (const std::string& item : report.refused_items) {
    std::printf("%s%s", comma, quoted(item).c_str());
    comma = ", ";
  }
  std::printf("]},\n");
}

void print_dispatch(const Report& report) {
  std::printf("  \"dispatch\": [");
  Separator separator;
  for (const Family& family : families()) {
    for (const DispatchingEntry& entry : family.entries) {
      separator.print();
      std::printf("{\"family\": %s, \"entry\": %s, \"variant\": %s}", quoted(family.title).c_str(),
                  quoted(entry.name).c_str(), quoted(entry.variant(report.features)).c_str());
    }
  }
  std::printf("\n  ]\n");
}

}  // namespace

void print_json(const Report& report) {
  std::printf("{\n");
  print_identity(report);
  print_features(report);
  print_levels(report);
  print_sizes(report);
  print_dispatch(report);
  std::printf("}\n");
}

}  // namespace ksomd::info
