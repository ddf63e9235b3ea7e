/* A C program that uses an installed ksomd, second names and dotted ones included. */
#include <ksomd/core.h>
#include <ksomd/memory.h>
#include <ksomd/processor.h>
#include <ksomd/quad.h>
#include <string.h>

void report_none(unsigned flags) __asm__("__orvex_new_proc_init.A");

int main(void) {
  quad128 one, two;
  char text[5];
  __orvex_new_proc_init_B(KSOMD_FLUSH_TO_ZERO);
  report_none(0);
  a_itoq(&one, 1);
  a_addq(&two, &one, &one);
  __orvex_memcpy(text, "text", sizeof text);
  return strcmp(text, "text") != 0 || a_qtoi(&two, KSOMD_ROUND_TOWARD_ZERO) != 2 ||
         __detect_cpu_core_type_1n() != __detect_cpu_core_type();
}
