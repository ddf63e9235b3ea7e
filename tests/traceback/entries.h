// The traceback's routines by their exported names, and what more than one of its tests does.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ksomd/traceback.h"
#include "platform/platform.h"
#include "support/entry.h"

namespace ksomd::test {

#define KSOMD_ENTRY(name) inline const auto name = entry<decltype(tbk_##name)>("tbk_" #name);
KSOMD_ENTRY(trace_stack)
KSOMD_ENTRY(trace_stack_impl)
KSOMD_ENTRY(getPC)
KSOMD_ENTRY(getRetAddr)
KSOMD_ENTRY(getFramePtr)
KSOMD_ENTRY(geterrorstring)
KSOMD_ENTRY(getModuleName)
KSOMD_ENTRY(get_pc_info)
KSOMD_ENTRY(get_pc_info_pie)
KSOMD_ENTRY(string_stack_signal)
KSOMD_ENTRY(string_stack_signal_impl)
#undef KSOMD_ENTRY

template <class Object>
std::uint64_t address_of(Object* object) {
  return reinterpret_cast<std::uint64_t>(object);
}

// What a walk hands over; at its frame number `last` it does `action` and answers `wish`.
struct Recorder {
  std::uint32_t last = UINT32_MAX;
  std::int32_t wish = 0;
  void (*action)() = [] {};
  // NOLINTBEGIN(readability-redundant-member-init): the compiler asks for it
  std::vector<STACKFRAME64> frames{};
  std::string skips{};  // the skip flags, a digit a frame
  // NOLINTEND(readability-redundant-member-init)

  std::uint32_t walk(const void* context, std::uint32_t direct = 1) {
    return trace_stack(context, this, record, direct);
  }
  static std::int32_t record(const void* frame, void* user, std::int32_t skip) {
    auto& own = *static_cast<Recorder*>(user);
    own.frames.push_back(*static_cast<const STACKFRAME64*>(frame));
    own.skips += std::to_string(skip);
    if (own.frames.size() < own.last) {
      return 0;
    }
    own.action();
    return own.wish;
  }
};

inline std::string module_of(std::uint64_t address) {
  char name[512];
  getModuleName(address, name, sizeof name, nullptr);
  return name;
}

}  // namespace ksomd::test
