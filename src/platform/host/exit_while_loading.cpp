#include <sys/auxv.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "platform/platform.h"

// The C run-time of a static program registers its unwind frames after this point. std::exit would
// try to remove that registration, and abort because there is none. A static program is one that no
// loader has loaded. It has no exit handlers yet, so it only has to flush its output.
void ksomd::exit_while_loading(int status) {
  if (getauxval(AT_BASE) == 0) {
    std::fflush(nullptr);
    _exit(status);
  }
  std::exit(status);
}
