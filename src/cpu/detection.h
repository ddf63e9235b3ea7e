// Detection of the processor's features, as a function of the processor.
#pragma once

#include "cpu/feature_set.h"
#include "cpu/feature_table.h"
#include "cpu/processor.h"

namespace ksomd {

// Where a detection's result belongs.
enum class Publish {
  General,   // the general set
  Both,      // the vendor-gated set, then the general one
  GateOnly,  // the vendor-gated set: the processor is another vendor's
};

struct Detection {
  int status;  // 0, or what __orvex_set_feature found wrong; then nothing is to be published
  Publish publish;
  FeatureSet features;
};

// Detects the features of `processor`, less those that `disabled_names` (the value of the disable
// variable, or null) names. With `check_vendor`, a processor whose vendor string is not
// "GenuineOrvex" has bit 0 alone.
Detection detect_features(const Processor& processor, const char* disabled_names,
                          bool check_vendor);

// Why a feature is, or is not, in the set that detect_features gives.
enum class Finding : std::uint8_t {
  Present,
  NotReported,     // CPUID does not report it, or nothing ever does
  NotAsked,        // the leaf that reports it is not read, since the condition does not hold
  ConditionFails,  // CPUID reports it, but the condition does not hold
  SwitchedOff,     // it would be present, did not the disable variable name it
};

struct Explanation {
  Finding finding;
  Condition condition;  // the one that does not hold, for NotAsked and ConditionFails
};

// Explains every row of the feature table; a row without a feature is NotReported. What is Present
// is what detect_features puts into its set.
void explain_features(const Processor& processor, const char* disabled_names,
                      Explanation (&explanations)[isa_id_count]);

// Stores a detection's features where they belong, unless it failed: the vendor-gated set before
// the general one, word 1 before word 0, which is what readers look at first.
void publish(const Detection& detection);

}  // namespace ksomd
