// The order in which a detection's result appears to other threads, watched store by store.
#include <gtest/gtest.h>

#include <array>

#include "cpu/detection.h"
#include "support/single_step.h"

namespace ksomd::test {
namespace {

struct Watch {
  Detection detection;
  std::array<std::uint64_t, 4> seen;
  std::array<int, 8> order;  // numbers of the words as they change
  std::size_t changes;
};

// Words in the order in which they must appear.
std::uint64_t* const words[4] = {
    &__orvex_vendor_feature_indicator[1], &__orvex_vendor_feature_indicator[0],
    &__orvex_cpu_feature_indicator[1], &__orvex_cpu_feature_indicator[0]};

void observe(const std::uint8_t*, void* context) {
  auto* watch = static_cast<Watch*>(context);
  for (std::size_t i = 0; i < 4; ++i) {
    if (*words[i] != watch->seen[i]) {
      watch->seen[i] = *words[i];
      watch->order[watch->changes++ % 8] = static_cast<int>(i);
    }
  }
}

TEST(Publication, GatedSetFirstAndWordZeroLast) {
  if (!can_single_step()) {
    GTEST_SKIP() << "this processor or emulator does not single-step";
  }
  const std::pair<Publish, std::vector<int>> cases[] = {
      {Publish::Both, {0, 1, 2, 3}}, {Publish::General, {2, 3}}, {Publish::GateOnly, {0, 1}}};
  std::uint64_t pattern = 0x1111;
  for (const auto& [publish_to, expected] : cases) {
    Watch watch{{0, publish_to, {pattern, pattern + 1}}, {}, {}, 0};
    for (std::size_t i = 0; i < 4; ++i) {
      watch.seen[i] = *words[i];
    }
    single_step([](void* context) { publish(static_cast<Watch*>(context)->detection); }, observe,
                &watch);
    observe(nullptr, &watch);
    EXPECT_EQ(std::vector<int>(watch.order.begin(),
                               watch.order.begin() + static_cast<long>(watch.changes)),
              expected);
    pattern += 0x1000;
  }
}

}  // namespace
}  // namespace ksomd::test
