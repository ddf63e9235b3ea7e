#include <execinfo.h>

#include <iterator>

#include "support/backtrace.h"

void ksomd::test::Backtrace::walk() {
  count = backtrace(frames, static_cast<int>(std::size(frames)));
}
