// Finds, by measuring, where the memory routines should change their method on this machine.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "ksomd/memory.h"
#include "mem/tuning.h"
#include "report.h"

namespace ksomd::info {
namespace {

constexpr std::size_t room = std::size_t{64} << 20;
constexpr std::uint64_t never = ~std::uint64_t{0} >> 8;

// What is measured: an operation, and the tuning value at which it changes its method. `fraction`
// of the value is the size from which the second method is taken.
struct Subject {
  const char* operation;
  const char* field;
  std::size_t smallest, largest;
  double fraction;
  void (*run)(unsigned char* d, unsigned char* s, std::size_t n);
};

constexpr Subject subjects[] = {
    {"copies by string instruction", "l1_half", 2048, 1 << 20, 0.75,
     [](unsigned char* d, unsigned char* s, std::size_t n) { _orvex_fast_memcpy(d, s, n); }},
    {"fills by string instruction", "l1_size", 2048, 1 << 20, 15.0 / 16,
     [](unsigned char* d, unsigned char*, std::size_t n) { _orvex_fast_memset(d, 1, n); }},
    {"copies and moves past the caches", "copy_nt_threshold", 1 << 16, room, 1,
     [](unsigned char* d, unsigned char* s, std::size_t n) {
       _orvex_fast_memcpy(d, s, n);
       _orvex_fast_memmove(s + n / 4, s, n - n / 4);
     }},
};

const mem::TuningField& field_named(const char* name) {
  for (const mem::TuningField& field : mem::tuning_fields) {
    if (std::strcmp(field.name, name) == 0) {
      return field;
    }
  }
  std::abort();
}

// Nanoseconds of one run: the fastest of several batches, since what disturbs makes runs slower.
double time_of(const Subject& subject, unsigned char* memory, std::size_t n) {
  using Clock = std::chrono::steady_clock;
  const std::size_t runs = std::max<std::size_t>(1, (std::size_t{4} << 20) / n);
  double best = 1e18;
  for (int batch = 0; batch < 7; ++batch) {
    const auto start = Clock::now();
    for (std::size_t i = 0; i < runs; ++i) {
      subject.run(memory, memory + room + 4096, n);
    }
    const std::chrono::duration<double, std::nano> spent = Clock::now() - start;
    best = std::min(best, spent.count() / static_cast<double>(runs));
  }
  return best;
}

// The smallest size from which the second method is the faster one at every larger size, by more
// than measurements differ.
std::uint64_t threshold_of(const Subject& subject, unsigned char* memory) {
  const mem::TuningField& field = field_named(subject.field);
  std::vector<std::size_t> sizes;
  for (std::size_t n = subject.smallest; n <= subject.largest; n *= 2) {
    sizes.push_back(n);
  }
  std::uint64_t threshold = never;
  for (auto n = sizes.rbegin(); n != sizes.rend(); ++n) {
    std::fprintf(stderr, "\r%-36s %8zu KiB ", subject.operation, *n >> 10);
    field.set(__libkso_mem_tuning, never);
    const double first = time_of(subject, memory, *n);
    field.set(__libkso_mem_tuning, 0);
    const double second = time_of(subject, memory, *n);
    if (second >= 0.97 * first) {
      break;
    }
    threshold = static_cast<std::uint64_t>(static_cast<double>(*n) / subject.fraction);
  }
  field.set(__libkso_mem_tuning, threshold);
  return threshold;
}

}  // namespace

bool tune() {
  const std::unique_ptr<unsigned char[]> memory(new (std::nothrow) unsigned char[3 * room]);
  if (memory == nullptr) {
    return false;
  }
  std::memset(memory.get(), 1, 3 * room);
  const mem::Tuning before = __libkso_mem_tuning;
  __libkso_mem_tuning = mem::automatic_tuning(hardware_processor, process_caches());
  std::string setting = "KSOMD_MEM_TUNING=auto";
  for (const Subject& subject : subjects) {
    setting += ',' + std::string(subject.field) + '=' +
               std::to_string(threshold_of(subject, memory.get()));
  }
  std::fprintf(stderr, "\r%60s\r", "");
  std::printf("%s\n", setting.c_str());
  __libkso_mem_tuning = before;
  return true;
}

}  // namespace ksomd::info
