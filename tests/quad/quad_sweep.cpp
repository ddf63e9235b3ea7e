// Every routine of the family over operands at which something changes.
#include <gtest/gtest.h>

#include <sstream>
#include <vector>

#include "quad/quad_judge.h"
#include "quad/quad_operands.h"
#include "support/entry.h"

using namespace ksomd::test;
using namespace ksomd::test::quad;

namespace {

struct Entry {
  std::string name;
  const void* address;
};
std::vector<Entry> entries_of(const Routine& routine) {
  std::vector<Entry> entries;
  std::istringstream names(routine.names);
  for (std::string name; names >> name;) {
    entries.push_back({name, find_entry(name)});
  }
  return entries;
}

// Second names take turns with the first.
template <class Make>
void sweep_routine(Sweep& sweep, const Routine& routine, std::size_t shared, std::size_t proof,
                   Make make_operands) {
  const std::vector<Entry> entries = entries_of(routine);
  for ([[maybe_unused]] const auto round : sweep.rounds(shared, proof)) {
    Value operands[4];
    make_operands(sweep.random, operands);
    const Circumstances circumstances = any_circumstances(sweep.random, routine);
    const Entry& entry = entries[sweep.random.below(entries.size())];
    const Effect effect = call(entry.address, routine, operands, circumstances);
    sweep.result(effect.parts, effect.flags);
    if constexpr (has_judge) {
      if (Sweep::proving()) {
        Effect right = expected(routine, operands, circumstances);
        right.flags |= circumstances.mxcsr & mxcsr::ieee_flags;
        ASSERT_TRUE(effect == right)
            << describe(entry.name, operands, circumstances, effect) << "\nought to give\n"
            << describe(entry.name, operands, circumstances, right);
      }
    }
    ASSERT_FALSE(testing::Test::HasFailure())
        << describe(entry.name, operands, circumstances, effect);
  }
}

void make_pair(Random& random, Operation operation, Value& a, Value& b) {
  if ((operation == Operation::Multiply || operation == Operation::Divide) && random.one_in(4)) {
    make_hard(random, operation, a, b);
  } else {
    a = any_value(random);
    b = partner(random, a);
  }
}

TEST(QuadSweep, Arithmetic) {
  Sweep sweep("quad.arithmetic");
  for (const Routine& routine : routines()) {
    if (routine.operation <= Operation::Divide && !routine.is_complex()) {
      sweep_routine(sweep, routine, 6000, 500'000, [&](Random& random, Value(&operands)[4]) {
        make_pair(random, routine.operation, operands[0], operands[1]);
      });
    }
  }
}

TEST(QuadSweep, Comparisons) {
  Sweep sweep("quad.comparisons");
  for (const Routine& routine : routines()) {
    if (routine.operation > Operation::Divide && routine.operation < Operation::Convert) {
      sweep_routine(sweep, routine, 1000, 50'000, [](Random& random, Value(&operands)[4]) {
        for (Value& value : operands) {
          value = any_value(random);
        }
        const std::size_t other = 1 + random.below(2);  // where complex and real ones have b
        for (std::size_t i = 0; i + other < 4; ++i) {
          operands[i + other] = random.one_in(3) ? operands[i] : partner(random, operands[i]);
        }
      });
    }
  }
}

TEST(QuadSweep, Complex) {
  Sweep sweep("quad.complex");
  for (const Routine& routine : routines()) {
    if (routine.operation <= Operation::Divide && routine.is_complex()) {
      sweep_routine(sweep, routine, 1500, 60'000, [](Random& random, Value(&v)[4]) {
        // Mostly such that no product leaves the range; often such that two of them cancel.
        const bool any = random.one_in(4);
        for (Value& value : v) {
          value = any ? any_value(random)
                      : number(random, bias + within(random, 60), pattern(random, 112));
        }
        if (random.one_in(2)) {
          v[1] = partner(random, v[0]);
          v[3] = partner(random, v[2]);
        }
      });
    }
  }
}

TEST(QuadSweep, Conversions) {
  Sweep sweep("quad.conversions");
  for (const Routine& routine : routines()) {
    if (routine.operation == Operation::Convert) {
      const auto lower = [](char type) { return static_cast<char>(type | 0x20); };
      const char from = lower(routine.arguments[0]), to = lower(routine.result[0]);
      sweep_routine(sweep, routine, 1500, 60'000, [=](Random& random, Value(&operands)[4]) {
        operands[0] = source(random, from, to);
        operands[1] = source(random, from, to);
      });
    }
  }
}

}  // namespace
