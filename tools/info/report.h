// What ksomd-info tells about a processor, gathered apart from how it is printed.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "cpu/cache.h"
#include "cpu/core_type.h"
#include "cpu/detection.h"
#include "cpu/processor.h"
#include "cpu/startup.h"
#include "dispatch/variant.h"
#include "mem/tuning.h"

namespace ksomd::info {

struct Identity {
  std::string vendor;
  bool genuine;  // the vendor that the feature start-up check accepts
  std::uint32_t family, model, stepping;
  bool xgetbv;  // the system has enabled XGETBV; without it xcr0 is 0
  std::uint32_t xcr0;
  bool hybrid;  // core types can be told
};

// A start-up check and its outcome.
struct LevelOutcome {
  const Level* level;
  FeatureSet missing;
  bool passes() const { return missing[0] == 0 && missing[1] == 0; }
};

// Dispatching entry points of one kind.
struct Family {
  const char* title;
  std::span<const DispatchingEntry> entries;
};
std::span<const Family> families();

// A tuning value, where it comes from, and what "auto" would make of it.
struct TuningValue {
  const char* name;
  std::uint64_t value;
  mem::TuningOrigin origin;
  std::uint64_t automatic;
};

struct Report {
  Identity identity;
  std::string disabled;                    // the disable variable's value, or empty
  std::vector<std::string> unknown_names;  // those in it that no feature has
  FeatureSet features;                     // as detection fills the general set
  Explanation explanations[isa_id_count];
  std::vector<LevelOutcome> levels;
  CacheInfo caches;
  std::vector<TuningValue> tuning;
  std::string tuning_request;              // what KSOMD_MEM_TUNING says, or stands for
  std::vector<std::string> refused_items;  // those in it that ask for nothing known
};

// `disabled_names` and `tuning_request`: the values of ORVEX_ISA_DISABLE and KSOMD_MEM_TUNING; null
// where they are not set.
Report make_report(const Processor& processor, const char* disabled_names,
                   const char* tuning_request = nullptr);

// Why the feature is not present, as a sentence's end; empty for one that is.
std::string reason(const Report& report, int id);

// The ISA id of the feature with this name: as reports print it or as the disable variable spells
// it, in letters of either case; 0 if none has it.
int find_feature(std::string_view name);

// The texts between the commas, empty ones left out.
std::vector<std::string> split(std::string_view list);

void print_text(const Report& report);
void print_json(const Report& report);

// "computed", "auto" or "KSOMD_MEM_TUNING".
const char* origin_name(mem::TuningOrigin origin);

// Measures copies, moves and fills on this processor, with progress on standard error, and prints
// the setting of KSOMD_MEM_TUNING that suits it. False if the memory for it is not there.
bool tune();

// What a program would print whose start-up check fails, without the lines around it: the message.
const char* level_message(const Level& level);
// "__orvex_new_proc_init_E" for the level E.
std::string level_entry(const Level& level);

}  // namespace ksomd::info
