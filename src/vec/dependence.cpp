// Whether ranges of addresses are disjoint.
#include <algorithm>
#include <cstdint>
#include <utility>

#include "ksomd/vector.h"

namespace {

using Range = ksomd_range;

// Up to this many ranges are sorted in little time, whatever their order.
constexpr std::int32_t always_partitioned = 1000;

// The last record of the run from lo along which relation(r[i].start, r[i + 1].start) holds.
template <class Relation>
Range* end_of_run(Range* lo, Range* hi, Relation relation) {
  while (lo < hi && relation(lo[0].start, lo[1].start)) {
    ++lo;
  }
  return lo;
}

// The part of sort_monotonic for an ascending order with equal starts. Of equal starts the
// partitioning would move the last to the front, so this does too. lo .. end is known to ascend.
[[gnu::noinline]] bool sort_ascending(Range* lo, Range* end, Range* hi) {
  if (end_of_run(end, hi, [](auto a, auto b) { return a <= b; }) != hi) {
    return false;
  }
  for (Range* r = lo; r <= hi;) {
    Range& first = *r;
    Range last = first;
    for (++r; r <= hi && r->start == last.start; ++r) {
      std::swap(last, *r);
    }
    first = last;
  }
  return true;
}

// Sorts the orders for which the partitioning would take quadratic time: ascending, descending, and
// two ascending runs, which are what it leaves of a sorted array with one range appended:
//
//     4 5 6 7 8 9 | 1 2 3
//
// If it returns false, nothing has changed. Distinct starts have only one final order.
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
    std::reverse(lo, end + 1);
    std::reverse(end + 1, hi + 1);
    std::reverse(lo, hi + 1);
    return true;
  }
  if (end_of_run(lo, hi, [](auto a, auto b) { return a > b; }) == hi) {
    std::reverse(lo, hi + 1);
    return true;
  }
  return false;
}

// Moves the record at `root` down a heap of `count` records, whose top has the highest start.
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
    std::swap(lo[0], lo[count]);
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
// the pivot, and lower ones are moved to the front one by one. Only few orders reach the limit,
// beyond which a heap takes over; distinct starts have only one final order. The alignment keeps
// the loop over a sorted order in one cache line, which shows in its time.
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
        std::swap(*r, *split++);
      }
    }
    std::swap(*split, *hi);
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
