#include <setjmp.h>
#include <signal.h>
#include <stdint.h>
#include <string.h>
#include <ucontext.h>

#include "fault.h"
#include "report.h"

static sigjmp_buf resume;
static int wants_detail;

/* Where a register stands in the context that the library takes: bytes from its start. */
static const struct {
  int greg;
  int offset;
} registers[] = {
    {REG_RAX, 120}, {REG_RCX, 128}, {REG_RDX, 136}, {REG_RBX, 144}, {REG_RSP, 152}, {REG_RBP, 160},
    {REG_RSI, 168}, {REG_RDI, 176}, {REG_R8, 184},  {REG_R9, 192},  {REG_R10, 200}, {REG_R11, 208},
    {REG_R12, 216}, {REG_R13, 224}, {REG_R14, 232}, {REG_R15, 240}, {REG_RIP, 248},
};

static void on_fault(int signal, siginfo_t* info, void* state) {
  const ucontext_t* machine = state;
  unsigned char context[1232] = {0};
  (void)signal;
  (void)info;
  for (size_t i = 0; i < sizeof registers / sizeof registers[0]; ++i) {
    memcpy(context + registers[i].offset, &machine->uc_mcontext.gregs[registers[i].greg], 8);
  }
  report_fault(context, wants_detail);
  siglongjmp(resume, 1);
}

int dump_fault_of(void (*body)(void), int detailed) {
  struct sigaction action;
  struct sigaction before;
  memset(&action, 0, sizeof action);
  action.sa_sigaction = on_fault;
  action.sa_flags = SA_SIGINFO;
  sigaction(SIGSEGV, &action, &before);
  wants_detail = detailed;
  const int faulted = sigsetjmp(resume, 1);
  if (faulted == 0) {
    body();
  }
  sigaction(SIGSEGV, &before, NULL);
  return faulted;
}
