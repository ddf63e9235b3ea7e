// The machine as the library sees it, for tests to change: the processor that answers it, and the
// end of the process; and what its tests have in common.
#pragma once

#include <gtest/gtest.h>

#include <csetjmp>
#include <functional>

#include "cpu/cache.h"
#include "cpu/feature_set.h"
#include "support/child_process.h"
#include "support/entry.h"
#include "support/single_step.h"
#include "support/sweep.h"
#include "support/synthetic_processor.h"

namespace ksomd::test {

// The processor of this machine, and the one that answers the library: the linker leads every use
// of hardware_processor to the second, which must answer before anything is constructed.
extern const Processor real_machine __asm__("__real__ZN5ksomd18hardware_processorE");
inline constinit Processor machine __asm__("__wrap__ZN5ksomd18hardware_processorE") = {
    [](const void*, std::uint32_t leaf, std::uint32_t subleaf) {
      return real_machine.leaf(leaf, subleaf);
    },
    [](const void*) { return real_machine.xcr0(nullptr); },
    [](const void*) { return real_machine.rdpid(nullptr); },
    [](const void*) { return real_machine.has_cpuid(nullptr); }, nullptr};

// Makes this the one that answers. What the library knows of the processor is forgotten, the hybrid
// state excepted.
inline void install(const Processor& processor = real_machine) {
  machine = processor;
  __libkso_cache_info = {};
  for (FeatureSet* set : {&__orvex_cpu_feature_indicator, &__orvex_vendor_feature_indicator}) {
    (*set)[0] = (*set)[1] = 0;
  }
}

// Makes the call and, where this processor and this system can, shows `observe` the address of each
// instruction before it runs.
inline void watch(const std::function<void()>& call,
                  [[maybe_unused]] const std::function<void(const std::uint8_t*)>& observe) {
#ifdef _WIN32
  call();
#else
  single_step(call, observe);
#endif
}

// Where an end of the process with status 1 leads instead: in cpu_test, the linker leads the
// library's calls of exit here.
inline std::jmp_buf* exit_target;
extern "C" [[noreturn]] inline void library_exit(int status) __asm__("__wrap_exit");
[[gnu::used]] inline void library_exit(int status) {
  if (exit_target != nullptr && status == 1) {
    std::longjmp(*exit_target, 1);
  }
  std::_Exit(status);
}

// What a call writes, and "(ends)" if it ends the process with status 1; it goes on all the same.
inline std::string outcome(const std::function<void()>& call) {
  testing::internal::CaptureStdout();
  std::jmp_buf target;
  exit_target = &target;
  const bool ended = setjmp(target) != 0;
  ended ? void() : call();
  exit_target = nullptr;
  return testing::internal::GetCapturedStdout() + (ended ? "(ends)" : "");
}

}  // namespace ksomd::test
