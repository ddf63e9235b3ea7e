// The sections of the tour, in the order in which it shows them.
#pragma once

namespace tour {

// The start-up checks. `program` is the path of this program: each level is tried in a process of
// its own, since a check that fails ends the process.
void show_processor(const char* program);

// What such a process does: the check of a level, silently, or with its report to be seen after
// AVX2 was taken away. Returns the exit status if the check does.
int check_level(const char* level);
int check_without_avx2();

void show_pool();
void show_quad();
void show_traceback();
void show_memory();
void show_matmul();
void show_vector();
void show_builtins();

}  // namespace tour
