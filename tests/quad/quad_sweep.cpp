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

using Operands = Value[4];

// Second names take turns with the first.
template <class Make>
void sweep_routine(Sweep& sweep, const Routine& routine, std::size_t shared, std::size_t proof,
                   Make make_operands) {
  std::istringstream words(routine.names);
  const std::vector<std::string> names(std::istream_iterator<std::string>(words), {});
  std::vector<const void*> entries;
  for (const std::string& name : names) {
    entries.push_back(find_entry(name));
  }
  for ([[maybe_unused]] const auto round : sweep.rounds(shared, proof)) {
    Operands operands;
    make_operands(sweep.random, operands);
    const Circumstances circumstances = any_circumstances(sweep.random, routine);
    const std::size_t which = sweep.random.below(names.size());
    const Effect effect = call(entries[which], routine, operands, circumstances);
    sweep.result(effect.parts, effect.flags);
    Effect right = effect;
    if constexpr (has_judge) {
      right = Sweep::proving() ? expected(routine, operands, circumstances) : effect;
      right.flags |= circumstances.mxcsr & mxcsr::ieee_flags;
    }
    ASSERT_TRUE(effect == right && !testing::Test::HasFailure())
        << describe(names[which], operands, circumstances, effect) << "\nought to give\n"
        << describe(names[which], operands, circumstances, right);
  }
}

TEST(QuadSweep, Arithmetic) {
  Sweep sweep("quad.arithmetic");
  for (const Routine& routine : routines()) {
    if (routine.operation <= Operation::Divide && !routine.is_complex()) {
      sweep_routine(sweep, routine, 5000, 800'000, [&](Random& random, Operands& v) {
        v[0] = any_value(random);
        v[1] = partner(random, v[0]);
        if (routine.operation >= Operation::Multiply && random.one_in(4)) {
          make_hard(random, routine.operation, v[0], v[1]);
        }
      });
    }
  }
}

TEST(QuadSweep, ComparisonsAndNegation) {
  Sweep sweep("quad.comparisons");
  for (const Routine& routine : routines()) {
    if (routine.operation > Operation::Divide && routine.operation < Operation::Convert) {
      sweep_routine(sweep, routine, 1000, 50'000, [&](Random& random, Operands& v) {
        const std::size_t second = routine.is_complex() ? 2 : 1;
        for (std::size_t i = 0; i < 4; ++i) {
          v[i] = i < second         ? any_value(random)
                 : random.one_in(3) ? v[i - second]
                                    : partner(random, v[i - second]);
        }
      });
    }
  }
}

TEST(QuadSweep, Complex) {
  Sweep sweep("quad.complex");
  for (const Routine& routine : routines()) {
    if (routine.operation <= Operation::Divide && routine.is_complex()) {
      sweep_routine(sweep, routine, 1500, 120'000, [](Random& random, Operands& v) {
        // Mostly such that no product leaves the range; often such that two of them cancel.
        const bool any = random.one_in(4);
        for (Value& value : v) {
          value = any ? any_value(random) : number(random, bias + within(random, 60));
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
      const auto one = [](char type) { return static_cast<char>(type | 0x20); };
      const char from = one(routine.arguments[0]), to = one(routine.result[0]);
      sweep_routine(sweep, routine, 1500, 120'000, [=](Random& random, Operands& v) {
        v[0] = source(random, from, to);
        v[1] = source(random, from, to);
      });
    }
  }
}

}  // namespace
