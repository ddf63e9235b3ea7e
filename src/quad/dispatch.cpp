#include "quad/dispatch.h"

namespace ksomd::quad {
namespace {

const char* variant(const FeatureSet& features) {
  return (features[0] & features_of_l) == features_of_l ? ".L" : ".A";
}

constexpr DispatchingEntry entries[] = {
    {"__addq", variant},
    {"__subq", variant},
    {"__mulq", variant},
    {"__divq", variant},
};

}  // namespace

std::span<const DispatchingEntry> dispatching_entries() {
  return entries;
}

}  // namespace ksomd::quad
