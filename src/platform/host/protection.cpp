#include <pthread.h>

#include <csetjmp>
#include <csignal>

#include "platform/platform.h"

namespace ksomd {
namespace {

constexpr int signals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP};
constexpr int signal_count = sizeof signals / sizeof signals[0];

struct Protection {
  sigjmp_buf resume;
  pthread_t thread;
  struct sigaction before[signal_count];
  Protection* outer;
};

Protection* current;  // the innermost protected call

// Handles a signal on a thread that is not protected: reinstalls the previous handler. The faulting
// instruction runs again and raises the signal for that handler.
void hand_back(const Protection& protection, int signal) {
  for (int i = 0; i < signal_count; ++i) {
    if (signals[i] == signal) {
      sigaction(signal, &protection.before[i], nullptr);
    }
  }
}

void on_signal(int signal, siginfo_t*, void*) {
  Protection& protection = *current;
  if (pthread_equal(pthread_self(), protection.thread) == 0) {
    hand_back(protection, signal);
    return;
  }
  siglongjmp(protection.resume, 1);
}

}  // namespace

bool run_protected(void (*body)(void*), void* argument) {
  Protection protection;
  protection.thread = pthread_self();
  protection.outer = current;
  const bool normal = sigsetjmp(protection.resume, 1) == 0;
  if (normal) {
    current = &protection;
    struct sigaction action = {};
    action.sa_sigaction = on_signal;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigemptyset(&action.sa_mask);
    for (int i = 0; i < signal_count; ++i) {
      sigaction(signals[i], &action, &protection.before[i]);
    }
    body(argument);
  }
  for (int i = 0; i < signal_count; ++i) {
    sigaction(signals[i], &protection.before[i], nullptr);
  }
  current = protection.outer;
  return normal;
}

}  // namespace ksomd
