// A C++ program that uses an installed ksomd.
#include <ksomd/processor.h>

#include <cstdio>

int main() {
  __orvex_new_proc_init(0);
  __orvex_proc_init_B();
  std::puts("client ran");
  return 0;
}
