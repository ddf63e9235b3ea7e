/* What a fault handler shows. */
#ifndef REPORT_H
#define REPORT_H

void report_fault(const void* context, int detailed);

#endif
