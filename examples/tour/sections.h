// The sections of the tour, in the order in which it shows them.
#pragma once

namespace tour {

void show_processor();
void show_matmul();

}  // namespace tour
