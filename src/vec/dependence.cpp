// Whether ranges of addresses are disjoint.
#include <cstdint>

#include "ksomd/vector.h"

namespace {

using Range = ksomd_range;

void exchange(Range& a, Range& b) {
  const Range saved = a;
  a = b;
  b = saved;
}

void reverse(Range* first, Range* last) {
  for (; first < last; ++first, --last) {
    exchange(*first, *last);
  }
}

// Whether relation(r[i].start, r[i + 1].start) holds all along lo .. hi.
template <class Relation>
bool holds_along(const Range* lo, const Range* hi, Relation relation) {
  for (const Range* r = lo; r < hi; ++r) {
    if (!relation(r[0].start, r[1].start)) {
      return false;
    }
  }
  return true;
}

// Orders that the partitioning would take quadratic time for. Distinct starts have one final order;
// equal ones end as the partitioning would leave them, each step exchanging the first and the last.
bool sort_monotonic(Range* lo, Range* hi) {
  if (holds_along(lo, hi, [](auto a, auto b) { return a < b; })) {
    return true;
  }
  if (holds_along(lo, hi, [](auto a, auto b) { return a > b; })) {
    reverse(lo, hi);
    return true;
  }
  if (holds_along(lo, hi, [](auto a, auto b) { return a == b; })) {
    for (; lo < hi; ++lo) {
      exchange(*lo, *hi);
    }
    return true;
  }
  return false;
}

// Sorts lo .. hi by start. The order of equal starts is part of the contract: the last record is
// the pivot, and lower ones are moved to the front one by one.
void sort(Range* lo, Range* hi) {
  while (lo < hi && !sort_monotonic(lo, hi)) {
    const std::uint64_t pivot = hi->start;
    Range* split = lo;
    for (Range* r = lo; r < hi; ++r) {
      if (r->start < pivot) {
        exchange(*r, *split++);
      }
    }
    exchange(*split, *hi);
    // The two parts are independent: recursion into the smaller one bounds the depth.
    if (split - lo < hi - split) {
      sort(lo, split - 1);
      lo = split + 1;
    } else {
      sort(split + 1, hi);
      hi = split - 1;
    }
  }
}

bool touches_next(const Range* r) {
  return r[0].end >= r[1].start;
}

}  // namespace

uint64_t __orvex_rtdd_indep(ksomd_range* ranges, int32_t n) {
  if (n <= 1) {
    return 0;
  }
  Range* const last = ranges + n - 1;
  sort(ranges, last);
  const Range* r = ranges;
  for (; last - r >= 2; r += 2) {
    if (static_cast<int>(touches_next(r)) | static_cast<int>(touches_next(r + 1))) {
      return 1;
    }
  }
  return r < last && touches_next(r) ? 1 : 0;
}
