// Finds out which features a processor has.
#pragma once

#include "cpu/feature_set.h"
#include "cpu/feature_table.h"
#include "cpu/processor.h"

namespace ksomd {

// The feature sets that a detection fills.
enum class Publish {
  General,   // the general set
  Both,      // the vendor-gated set, then the general one
  GateOnly,  // the vendor-gated set alone: the vendor is another one
};

struct Detection {
  int status;  // 0; or the error of __orvex_set_feature, and then publish() stores nothing
  Publish publish;
  FeatureSet features;
};

// Detects the features of `processor` and leaves out those that `disabled_names` names (the value
// of the disable variable, or null). With `check_vendor`, a processor whose vendor string is not
// "GenuineOrvex" gets bit 0 only.
Detection detect_features(const Processor& processor, const char* disabled_names,
                          bool check_vendor);

// Why a feature is, or is not, in the set that detect_features gives.
enum class Finding : std::uint8_t {
  Present,
  NotReported,     // CPUID does not report it, or nothing ever does
  NotAsked,        // the leaf that reports it is not read, since the condition does not hold
  ConditionFails,  // CPUID reports it, but the condition does not hold
  SwitchedOff,     // the disable variable names it; else it would be present
};

struct Explanation {
  Finding finding;
  Condition condition;  // the one that does not hold, for NotAsked and ConditionFails
};

// Explains every row of the feature table. The rows that are Present are the features that
// detect_features finds without the vendor check. A row without a feature is NotReported.
void explain_features(const Processor& processor, const char* disabled_names,
                      Explanation (&explanations)[isa_id_count]);

// Stores the features of a detection, unless it failed: the vendor-gated set before the general
// one, and word 1 before word 0. A reader that finds word 0 filled relies on word 1.
void publish(const Detection& detection);

}  // namespace ksomd
