// Calls that cross between a program and a shared library of its own, with the lines they stand on.
#pragma once

// Where a call stands: what the frame that makes it should show.
struct CallSite {
  const char *routine, *file;
  int line;
  bool here;  // or anywhere but on this line
};

// The innermost last.
struct CallSites {
  CallSite sites[8];
  int count;
};

// Records the line that it stands on: that of the call to be recorded, or not.
#define RECORD(here) (sites.sites[sites.count++] = {__func__, __FILE__, __LINE__, here})

#define TRACED [[gnu::noinline, clang::disable_tail_calls]]

using Step = int (*)(CallSites& sites);

// Of the library: calls step, through a routine of its own that is not exported.
extern "C" int library_entry(CallSites& sites, Step step);

// Of the program's second file: calls the library, which calls step.
int program_middle(CallSites& sites, Step step, bool either);

// Calls the library, which calls step, and does not return; what calls that ends in the call, and
// program_follows in the file, and program_ends that. program_inside stands within a line.
[[noreturn]] void program_leaves(CallSites& sites, Step step, void* place[]);
void program_ends_in_a_call(CallSites& sites, Step step, void* place[]);
int program_follows();
int program_ends();
extern "C" void program_inside();
