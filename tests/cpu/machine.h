// The machine as the library sees it, for tests to change: the processor that answers it, the
// disable variable, and the end of the process.
#pragma once

#include <csetjmp>
#include <cstdint>

#include "cpu/feature_set.h"
#include "support/synthetic_processor.h"

namespace ksomd::test {

// Puts a table of answers in the place of the real processor; null: the real one again. What the
// library knows of the processor is forgotten, the hybrid state excepted.
void install(const SyntheticProcessor* answers);

// What the library finds in ORVEX_ISA_DISABLE; null: the real variable's value.
extern const char* disabled_names;

// Called whenever the library reads ORVEX_ISA_DISABLE.
extern void (*on_disabled_names)();

// Where an end of the process with status 1 leads instead.
extern std::jmp_buf* exit_target;

// Whether call() ends the process with status 1; it goes on all the same.
template <class Call>
bool exits(const Call& call) {
  std::jmp_buf target;
  exit_target = &target;
  const bool ended = setjmp(target) != 0;
  if (!ended) {
    call();
  }
  exit_target = nullptr;
  return ended;
}

}  // namespace ksomd::test
