#include <sys/auxv.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "platform/platform.h"

// At exit the C run-time of a static program takes back its registration of frames, which it makes
// only after this moment, and aborts where there is none. Such a program is one without a loader,
// and has no exit handlers yet.
void ksomd::exit_while_loading(int status) {
  if (getauxval(AT_BASE) == 0) {
    std::fflush(nullptr);
    _exit(status);
  }
  std::exit(status);
}
