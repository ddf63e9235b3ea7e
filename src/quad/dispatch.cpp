#include "quad/dispatch.h"

namespace ksomd::quad {

std::span<const DispatchingEntry> dispatching_entries() {
  static constexpr DispatchingEntry entries[] = {
      dispatching_entry<add_variants>("__addq"),
      dispatching_entry<subtract_variants>("__subq"),
      dispatching_entry<multiply_variants>("__mulq"),
      dispatching_entry<divide_variants>("__divq"),
  };
  return entries;
}

}  // namespace ksomd::quad
