// The traceback's routines by their exported names, and what more than one of its tests needs.
#pragma once

#include <gtest/gtest.h>

#include "ksomd/traceback.h"
#include "platform/platform.h"
#include "support/entry.h"
#include "support/guarded_memory.h"
#include "traceback/sample.h"
#ifndef _WIN32
#include "traceback/system_faults.h"
#endif

namespace ksomd::test {

using namespace traceback;

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
  std::vector<STACKFRAME64> frames = {};
  std::string skips = {};  // the skip flags, a digit a frame
  // NOLINTEND(readability-redundant-member-init)

  std::uint32_t walk(const void* context, std::uint32_t direct = 1) {
    return trace_stack(context, this, record, direct);
  }
  static std::int32_t record(const void* frame, void* user, std::int32_t skip) {
    auto& own = *static_cast<Recorder*>(user);
    own.frames.push_back(*static_cast<const STACKFRAME64*>(frame));
    own.skips += std::to_string(skip);
    if (own.frames.size() >= own.last) {
      own.action();
    }
    return own.frames.size() >= own.last ? own.wish : 1;
  }
};

inline std::string module_of(std::uint64_t address) {
  char name[512];
  std::uint64_t base = 99;
  getModuleName(address, name, sizeof name, &base);
  EXPECT_EQ(base, 0u);
  return name;
}

// A PE image in memory, with headers on its first page and a trace section on its second one; the
// headers may place the section elsewhere.
struct Image {
  explicit Image(std::uint64_t place = 0x1000, std::uint64_t size = 0x1000) {
    const auto routine = [](std::uint64_t at, const std::string& file, const std::string& name) {
      return block(at, 16, {file}, routine_item(12, at, name) + Data{5, 42, 0, 7, 15});
    };
    std::ranges::copy(image_headers({{".text", 99, 99}, {".trace", size, place}}, 240),
                      memory.begin());
    std::ranges::copy(
        routine(code(), "dir\\file.f90", "routine") +
            routine(code() + 16, "next/" + std::string(300, 'f'), std::string(300, 'n')),
        memory.begin() + 0x1000);
  }
  [[nodiscard]] std::uint64_t code() const { return address_of(memory.begin()) + 0x2000; }

  GuardedMemory memory{0x3000};
};

}  // namespace ksomd::test
