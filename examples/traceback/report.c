#include "report.h"

#include <ksomd/traceback.h>
#include <stdio.h>

/* In static storage: a fault handler had better not need much stack or any heap. */
static char dump[8192];

static void show(const void* context, uint32_t brief) {
  dump[0] = '\0';
  tbk_string_stack_signal(context, dump, sizeof dump, brief, 0);
  fputs(dump, stdout);
}

void report_fault(const void* context, int detailed) {
  show(context, 1);
  if (detailed) {
    show(context, 0);
  }
}
