// A C++ program that uses the value type of an installed ksomd.
#include <cstdio>
#include <ksomd/quad.hpp>

int main() {
  using namespace ksomd::literals;
  const ksomd::Quad third = 1_q / 3;
  const std::string text = ksomd::to_string(third);
  if (ksomd::from_string(text) != third || 3 * third != 1) {
    return 1;
  }
  std::puts("client ran");
  return 0;
}
