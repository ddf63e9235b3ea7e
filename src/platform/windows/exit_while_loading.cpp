#include "platform/exit_while_loading.h"

#include <cstdlib>

void ksomd::exit_while_loading(int status) {
  std::exit(status);
}
