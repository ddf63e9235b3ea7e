// What the dispatching entry points take, as data: for reports about a processor, which may be
// another one than this.
#pragma once

#include "cpu/feature_set.h"

namespace ksomd {

// An entry point, and the name of the variant that it takes on a processor with these features.
// Each subsystem that dispatches has a table of its own.
struct DispatchingEntry {
  const char* name;
  const char* (*variant)(const FeatureSet& features);
};

}  // namespace ksomd
