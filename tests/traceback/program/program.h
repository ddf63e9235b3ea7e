// Calls that cross between a program and a shared library of its own, with the lines they stand on.
#pragma once

#include <cstdint>
#include <string>

#include "ksomd/traceback.h"

// Where a call stands: what the frame that makes it should show.
struct CallSite {
  const char* routine;
  const char* file;
  int line;
  bool here;  // or anywhere but on this line
};

// At most 8 of them, the innermost last.
struct CallSites {
  CallSite sites[8];
  int count;
};

#define RECORD(sites, routine, here) \
  ((sites).sites[(sites).count++] = CallSite{routine, __FILE__, __LINE__, here})

// Records the line that it stands on; the call to be recorded goes there too.
#define HERE(sites, routine) RECORD(sites, routine, true)

// Records the line that it stands on; the call stands further down.
#define NOT_HERE(sites, routine) RECORD(sites, routine, false)

using Step = int (*)(CallSites& sites, void* user);

extern "C" {
// Of the library: calls step, through a routine of its own that is not exported.
int library_entry(CallSites& sites, Step step, void* user);
}

// Of the program's second file: calls the library, which calls step.
int program_middle(CallSites& sites, Step step, void* user);

// Calls the library, which calls step, and throws a Left; what calls that ends in the call, and
// program_follows in the file, and program_ends that.
struct Left {};
[[noreturn]] void program_leaves(CallSites& sites, Step step, void* user);
void program_ends_in_a_call(CallSites& sites, Step step, void* user);
int program_follows();
int program_ends();
