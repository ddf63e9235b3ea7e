// Watches a piece of code instruction by instruction (host only).
#pragma once

#include <cstdint>

namespace ksomd::test {

// Whether this process can be single-stepped: not under an emulator that ignores the trap flag.
bool can_single_step();

// Runs body(context) with the processor's trap flag set: before every instruction but the first,
// observe(next, context) sees the address of the instruction about to run. `observe` runs inside
// a signal handler. One thread at a time.
void single_step(void (*body)(void* context),
                 void (*observe)(const std::uint8_t* next, void* context), void* context);

// The same with body() and observe(next).
template <class Body, class Observe>
void single_step(Body body, Observe observe) {
  struct Both {
    Body& body;
    Observe& observe;
  } both{body, observe};
  single_step(
      [](void* context) { static_cast<Both*>(context)->body(); },
      [](const std::uint8_t* next, void* context) { static_cast<Both*>(context)->observe(next); },
      &both);
}

}  // namespace ksomd::test
