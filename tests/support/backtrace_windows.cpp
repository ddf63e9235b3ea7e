#include <windows.h>

#include <iterator>

#include "support/backtrace.h"

void ksomd::test::Backtrace::walk() {
  count = CaptureStackBackTrace(0, std::size(frames), frames, nullptr);
}
