// What the processor can do at most with separate multiplies and adds, operands in registers.
#pragma once

struct Ceiling {
  int bits;                 // of a vector
  bool (*available)();      // on this processor
  double (*sums_r8)(long);  // does that many steps; the result is of no interest
  double (*sums_r4)(long);
};

// One multiply and one add each, of vectors.
inline constexpr int products_per_step = 10;

extern const Ceiling ceilings[3];
