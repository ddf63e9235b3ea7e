#include "cpu/isa_names.h"

#include <cstring>

using ksomd::isa_id_count;
using ksomd::IsaRow;

IsaRow __orvex_isa_table[isa_id_count];

namespace {

bool isa_table_ready;

template <class T>
void store_relaxed(T& target, T value) {
  __atomic_store_n(&target, value, __ATOMIC_RELAXED);
}

template <class T>
T load_relaxed(const T& source) {
  return __atomic_load_n(&source, __ATOMIC_RELAXED);
}

// The ISA id of the feature with this lower-case name; 0 if there is none.
std::int32_t isa_id_of_lower_name(const char* name, std::size_t length) {
  for (std::int32_t id = 1; id < isa_id_count; ++id) {
    const char* candidate = load_relaxed(__orvex_isa_table[id].lower_name);
    if (candidate != nullptr && std::strlen(candidate) == length &&
        std::memcmp(candidate, name, length) == 0) {
      return id;
    }
  }
  return 0;
}

}  // namespace

// Threads may fill the table at the same time. Each stores only a row's final values, so a thread
// that already reads the table sees no change.
void __orvex_isa_table_init() {
  if (__atomic_load_n(&isa_table_ready, __ATOMIC_ACQUIRE)) {
    return;
  }
  for (int id = 0; id < isa_id_count; ++id) {
    const ksomd::FeatureRow& row = ksomd::feature_table::rows[id];
    store_relaxed(__orvex_isa_table[id].upper_name, row.upper_name);
    store_relaxed(__orvex_isa_table[id].bit, row.bit);
    store_relaxed(__orvex_isa_table[id].lower_name, row.lower_name);
  }
  __atomic_store_n(&isa_table_ready, true, __ATOMIC_RELEASE);
}

const char* __orvex_feature_name(std::int32_t id) {
  __orvex_isa_table_init();
  return load_relaxed(__orvex_isa_table[id].upper_name);
}

std::int32_t __orvex_feature_bit(std::int32_t id) {
  __orvex_isa_table_init();
  const std::int32_t bit = load_relaxed(__orvex_isa_table[id].bit);
  return bit >= -1 && bit <= 127 ? bit : ksomd::isa_bad_bit;
}

std::int32_t __orvex_test_feature(const std::uint64_t* set, std::int32_t id) {
  const std::int32_t bit = __orvex_feature_bit(id);
  return bit < 0 ? bit : static_cast<std::int32_t>(set[bit / 64] >> (bit % 64) & 1);
}

std::int32_t __orvex_set_feature(std::uint64_t* set, std::int32_t id) {
  const std::int32_t bit = __orvex_feature_bit(id);
  if (bit < 0) {
    return bit;
  }
  set[bit / 64] |= std::uint64_t{1} << (bit % 64);
  return 0;
}

namespace ksomd {

void add_disabled_features(const char* value, FeatureSet& mask) {
  if (value == nullptr) {
    return;
  }
  __orvex_isa_table_init();
  while (*value != '\0') {
    const std::size_t length = std::strcspn(value, ",");
    const std::int32_t id = length == 0 ? 0 : isa_id_of_lower_name(value, length);
    if (id != 0) {
      __orvex_set_feature(mask, id);
    }
    value += length;
    value += *value == ',' ? 1 : 0;
  }
}

}  // namespace ksomd
