// Whether ranges of addresses are disjoint.
#include <cstdint>

#include "ksomd/vector.h"

namespace {

using Range = ksomd_range;

// So few ranges are sorted in little time, whatever their order.
constexpr std::int32_t always_partitioned = 1000;

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

// The rest of sort_monotonic for an ascending order with equal starts, of which the partitioning
// moves the last to the front. lo .. end is known to ascend.
[[gnu::noinline]] bool sort_ascending(Range* lo, Range* end, Range* hi) {
  if (end_of_run(end, hi, [](auto a, auto b) { return a <= b; }) != hi) {
    return false;
  }
  for (Range* r = lo; r <= hi;) {
    Range& first = *r;
    Range last = first;
    while (++r <= hi && r->start == last.start) {
      exchange(last, *r);
    }
    first = last;
  }
  return true;
}

// Orders that the partitioning would take quadratic time for, and that it leaves in the second half
// of a sorted array with one range appended:
//
//     4 5 6 7 8 9 | 1 2 3
//
// Distinct starts have one final order.
[[gnu::always_inline]] inline bool sort_monotonic(Range* lo, Range* hi) {
  const auto ascends = [](auto a, auto b) { return a < b; };
  Range* const end = end_of_run(lo, hi, ascends);
  if (end == hi) {
    return true;
  }
  if (end[0].start == end[1].start) {
    return sort_ascending(lo, end, hi);
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
  return false;
}

// Moves the record at `root` down a heap of `count` records, the highest start at its top.
void sift_down(Range* heap, std::size_t root, std::size_t count) {
  const Range moved = heap[root];
  for (std::size_t child; (child = 2 * root + 1) < count; root = child) {
    if (child + 1 < count && heap[child].start < heap[child + 1].start) {
      ++child;
    }
    if (heap[child].start <= moved.start) {
      break;
    }
    heap[root] = heap[child];
  }
  heap[root] = moved;
}

void heap_sort(Range* lo, Range* hi) {
  auto count = static_cast<std::size_t>(hi - lo) + 1;
  for (std::size_t root = count / 2; root-- > 0;) {
    sift_down(lo, root, count);
  }
  while (--count > 0) {
    exchange(lo[0], lo[count]);
    sift_down(lo, 0, count);
  }
}

// How many records the partitioning may look at.
struct Unlimited {
  static bool spend(std::int64_t /*records*/) { return true; }
};
class Limit {
 public:
  // Twice what it takes for a random order.
  explicit Limit(std::int64_t count)
      : left_(3 * count * (64 - __builtin_clzll(static_cast<std::uint64_t>(count)))) {}
  bool spend(std::int64_t records) { return (left_ -= records) >= 0; }

 private:
  std::int64_t left_;
};

// Sorts lo .. hi by start. The order of equal starts is part of the contract: the last record is
// the pivot, and lower ones are moved to the front one by one. Beyond the limit, which only few
// orders reach, a heap takes over: distinct starts have one final order. Where a sorted order is
// walked through, a loop across a cache line shows: hence the alignment.
template <class Limit>
[[gnu::aligned(64)]] void sort(Range* lo, Range* hi, Limit& limit) {
  while (lo < hi && !sort_monotonic(lo, hi)) {
    if (!limit.spend(hi - lo)) [[unlikely]] {
      heap_sort(lo, hi);
      return;
    }
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
      sort(lo, split - 1, limit);
      lo = split + 1;
    } else {
      sort(split + 1, hi, limit);
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
  if (n <= always_partitioned) {
    Unlimited limit;
    sort(ranges, last, limit);
  } else {
    Limit limit(n);
    sort(ranges, last, limit);
  }
  const Range* r = ranges;
  for (; last - r >= 2; r += 2) {
    if (static_cast<int>(touches_next(r)) | static_cast<int>(touches_next(r + 1))) {
      return 1;
    }
  }
  return r < last && touches_next(r) ? 1 : 0;
}
