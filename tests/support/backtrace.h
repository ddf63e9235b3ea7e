// Return addresses on the stack, by the platform's own unwinder.
#pragma once

#include <algorithm>

namespace ksomd::test {

struct Backtrace {
  void* frames[64] = {};
  int count = 0;

  void walk();
  bool contains(const void* return_address) const {
    return std::find(frames, frames + count, return_address) != frames + count;
  }
};

}  // namespace ksomd::test
