#include "shapes.h"

struct circle {
  double radius;
};

static const struct circle unit = {1.0};
static const struct circle* const volatile circles[] = {&unit, &unit, 0};

double radius_of_circle(int circle) {
  const struct circle* chosen = circles[circle];
  return chosen->radius;
}
