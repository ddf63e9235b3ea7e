/* Runs something that may fault, with a handler that dumps the stack of the fault. */
#ifndef FAULT_H
#define FAULT_H

#ifdef __cplusplus
extern "C" {
#endif

/* Calls body(). If it faults, writes the stack to standard output as a table and, if `detailed` is
 * not 0, frame by frame in detail. Returns whether it faulted. */
int dump_fault_of(void (*body)(void), int detailed);

#ifdef __cplusplus
}
#endif

#endif
