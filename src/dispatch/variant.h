// How a routine that exists in several processor-specific variants finds the one to run.
//
// Each such routine has one table of variants, best first. The choice among them, what a slot
// remembers and what a report prints all come from that table.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>

#include "cpu/feature_set.h"

namespace ksomd {

// A variant: its name, the features that it needs, and what to use if they are present: a routine
// or a set of kernels. The last row of a table needs nothing.
template <class Choice>
struct Variant {
  const char* name;
  FeatureMask needs;
  Choice choice;
};
// A row that is named after its routine.
#define KSOMD_VARIANT(needs, routine) {#routine, needs, routine}

// The first row whose features are all present.
template <class Variants>
constexpr const auto& choose(const Variants& variants, const FeatureSet& features) {
  const std::size_t last = std::size(variants) - 1;
  for (std::size_t row = 0; row < last; ++row) {
    if (variants[row].needs.all_in(features)) {
      return variants[row];
    }
  }
  return variants[last];
}

// A slot remembers a choice for the life of the process; it is null until the first use. Threads
// that race for the first use store the same pointer.
template <class Target>
Target* load_slot(Target* const& slot) {
  return __atomic_load_n(&slot, __ATOMIC_RELAXED);
}
template <class Target, class Variants>
Target* fill_slot(Target*& slot, const Variants& variants) {
  FeatureSet features;
  read_features(features);
  Target* const chosen = choose(variants, features).choice;
  __atomic_store_n(&slot, chosen, __ATOMIC_RELAXED);
  return chosen;
}

// Fills the slot and forwards the call. It has the variants' type, as a tail call requires.
template <auto& slot, const auto& variants, class... Arguments>
[[gnu::cold, gnu::noinline]] auto resolve(Arguments... arguments) {
  auto* const chosen = fill_slot(slot, variants);
  [[clang::musttail]] return chosen(arguments...);
}

// The body of an entry point: forwards the call to the variant in the slot. The entry point has the
// variants' type, as a tail call requires.
template <auto& slot, const auto& variants, class... Arguments>
[[gnu::always_inline]] inline auto dispatch(Arguments... arguments) {
  if (auto* const routine = load_slot(slot)) [[likely]] {
    [[clang::musttail]] return routine(arguments...);
  }
  [[clang::musttail]] return resolve<slot, variants>(arguments...);
}

// A row of a report: an entry point, and a function that names the variant it takes on a processor
// with the given features, which need not be this processor.
struct DispatchingEntry {
  const char* name;
  const char* (*variant)(const FeatureSet& features);
};
template <const auto& variants>
constexpr DispatchingEntry dispatching_entry(const char* name) {
  return {name, [](const FeatureSet& features) { return choose(variants, features).name; }};
}

}  // namespace ksomd
