// Prints what the library finds on the processor that it runs on; emulation_test.py compares that
// with what it told the emulator.
#include <cstdio>

#include "cpu/feature_set.h"
#include "cpu/isa_names.h"

namespace {

void print_set(const char* title, const ksomd::FeatureSet& set) {
  std::printf("%s:", title);
  for (int id = 1; id < ksomd::isa_id_count; ++id) {
    if (__orvex_test_feature(set, id) == 1) {
      std::printf(" %s", __orvex_feature_name(id));
    }
  }
  std::printf("\n");
}

}  // namespace

int main() {
  __orvex_cpu_features_init_vendor();
  print_set("gated", __orvex_vendor_feature_indicator);
  std::printf("general filled by the gated entry: %d\n",
              static_cast<int>(__orvex_cpu_feature_indicator[0] != 0));
  ksomd::feature_word();
  print_set("general", __orvex_cpu_feature_indicator);
  return 0;
}
