#include <windows.h>

#include "fault.h"
#include "report.h"

/* Runs before the stack is unwound: the frames of the fault are still there. */
static long report(const EXCEPTION_POINTERS* fault, int detailed) {
  report_fault(fault->ContextRecord, detailed);
  return EXCEPTION_EXECUTE_HANDLER;
}

int dump_fault_of(void (*body)(void), int detailed) {
  __try {
    body();
    return 0;
  } __except (report(GetExceptionInformation(), detailed)) {
    return 1;
  }
}
