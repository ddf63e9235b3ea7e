#include <cstdlib>

#include "platform/platform.h"

void ksomd::exit_while_loading(int status) {
  std::exit(status);
}
