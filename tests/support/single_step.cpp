#include "support/single_step.h"

#include <ucontext.h>

#include <csignal>

namespace ksomd::test {
namespace {

struct Session {
  void (*observe)(const std::uint8_t* next, void* context);
  void* context;
};

Session session;

void on_trap(int, siginfo_t*, void* state) {
  const auto* machine = static_cast<const ucontext_t*>(state);
  session.observe(reinterpret_cast<const std::uint8_t*>(machine->uc_mcontext.gregs[REG_RIP]),
                  session.context);
}

constexpr std::uint64_t trap_flag = 1u << 8;

// Neither may be inlined: the flags change within them must not surround other code.
[[gnu::noinline]] void run_trapped(void (*body)(void*), void* context) {
  __builtin_ia32_writeeflags_u64(__builtin_ia32_readeflags_u64() | trap_flag);
  body(context);
  __builtin_ia32_writeeflags_u64(__builtin_ia32_readeflags_u64() & ~trap_flag);
}

}  // namespace

void single_step(void (*body)(void*), void (*observe)(const std::uint8_t*, void*), void* context) {
  session = {observe, context};
  struct sigaction action = {}, before = {};
  action.sa_sigaction = on_trap;
  action.sa_flags = SA_SIGINFO;
  sigaction(SIGTRAP, &action, &before);
  run_trapped(body, context);
  sigaction(SIGTRAP, &before, nullptr);
}

bool can_single_step() {
  int steps = 0;
  single_step([] {}, [&steps](const std::uint8_t*) { ++steps; });
  return steps > 0;
}

}  // namespace ksomd::test
