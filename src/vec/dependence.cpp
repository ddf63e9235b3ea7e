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

// The last record of the run from lo along which relation(r[i].start, r[i + 1].start) holds.
template <class Relation>
Range* end_of_run(Range* lo, Range* hi, Relation relation) {
  while (lo < hi && relation(lo[0].start, lo[1].start)) {
    ++lo;
  }
  return lo;
}

// Orders that the partitioning would take quadratic time for, and that it leaves in the second half
// of a sorted array with one range appended:
//
//     4 5 6 7 8 9 | 1 2 3
//
// Distinct starts have one final order; equal ones end as the partitioning would leave them, each
// step exchanging the first and the last.
bool sort_monotonic(Range* lo, Range* hi) {
  const auto ascends = [](auto a, auto b) { return a < b; };
  Range* const end = end_of_run(lo, hi, ascends);
  if (end == hi) {
    return true;
  }
  if (hi->start < lo->start && end_of_run(end + 1, hi, ascends) == hi) {
    reverse(lo, end);
    reverse(end + 1, hi);
    reverse(lo, hi);
    return true;
  }
  if (end_of_run(lo, hi, [](auto a, auto b) { return a > b; }) == hi) {
    reverse(lo, hi);
    return true;
  }
  if (end_of_run(lo, hi, [](auto a, auto b) { return a == b; }) == hi) {
    for (; lo < hi; ++lo) {
      exchange(*lo, *hi);
    }
    return true;
  }
  return false;
}

// Sorts lo .. hi by start. The order of equal starts is part of the contract: the last record is
// the pivot, and lower ones are moved to the front one by one. Other sorts would need memory to
// keep it, so some orders take quadratic time.
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
