#include "shapes.h"

double total_area(int shapes) {
  double total = 0;
  for (int shape = 0; shape < shapes; ++shape) {
    total += area_of_shape(shape);
  }
  return total;
}
