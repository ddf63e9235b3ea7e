#include <cstdio>

#include "sections.h"

void tour::show_processor() { std::printf("\nProcessor\n"); }
