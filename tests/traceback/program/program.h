// Calls that cross between a program and a shared library of its own.
#pragma once

#include <cstdlib>

#define TRACED [[gnu::noinline, clang::disable_tail_calls]]

using Step = int (*)();

// Of the library: calls step, through a routine of its own that is not exported.
extern "C" int library_entry(Step step);

// Of the program's second file: calls the library, which calls step.
int program_middle(Step step);

// Does not return; what calls that ends in the call, and program_follows in the file, and
// program_ends that. program_inside stands within a line.
[[noreturn]] void program_leaves();
void program_ends_in_a_call();
int program_follows();
int program_ends();
extern "C" void program_inside();
