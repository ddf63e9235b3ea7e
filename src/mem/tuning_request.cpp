// What the environment or the builder of the library asks of the tuning values.
#include <cstring>

#include "mem/tuning.h"

#ifndef KSOMD_DEFAULT_MEM_TUNING
#define KSOMD_DEFAULT_MEM_TUNING ""
#endif

namespace ksomd::mem {
namespace {

struct Text {
  const char* start;
  std::size_t length;

  bool is(const char* word) const {
    return length == std::strlen(word) && std::memcmp(start, word, length) == 0;
  }
};

// Decimal digits and an optional unit; false for anything else and beyond 64 bits.
bool parse_size(Text text, std::uint64_t& value) {
  value = 0;
  std::size_t i = 0;
  for (; i < text.length && text.start[i] >= '0' && text.start[i] <= '9'; ++i) {
    const auto digit = static_cast<std::uint64_t>(text.start[i] - '0');
    if (__builtin_mul_overflow(value, std::uint64_t{10}, &value) ||
        __builtin_add_overflow(value, digit, &value)) {
      return false;
    }
  }
  std::uint64_t unit = 1;
  const char* const units = "KMG";
  if (i != 0 && i + 1 == text.length) {
    const char* const found = std::strchr(units, text.start[i]);
    if (found == nullptr) {
      return false;
    }
    unit <<= 10 * (found - units + 1);
    ++i;
  }
  return i != 0 && i == text.length && !__builtin_mul_overflow(value, unit, &value);
}

}  // namespace

#define KSOMD_FIELD(name) {#name, offsetof(Tuning, name), sizeof(Tuning::name)}
constexpr TuningField tuning_fields[tuning_field_count] = {
    KSOMD_FIELD(largest_cache_size),
    KSOMD_FIELD(copy_nt_threshold),
    KSOMD_FIELD(l1_size),
    KSOMD_FIELD(l1_half),
    KSOMD_FIELD(l1_quarter),
    KSOMD_FIELD(rep_movsb_threshold),
    KSOMD_FIELD(avx512_nt_threshold),
    KSOMD_FIELD(rep_stosb_threshold),
    KSOMD_FIELD(mem_class),
};
#undef KSOMD_FIELD

constexpr const char* const default_tuning_request = KSOMD_DEFAULT_MEM_TUNING;

std::uint64_t TuningField::get(const Tuning& tuning) const {
  std::uint64_t value = 0;
  std::memcpy(&value, reinterpret_cast<const char*>(&tuning) + offset, size);
  return value;
}

void TuningField::set(Tuning& tuning, std::uint64_t value) const {
  std::memcpy(reinterpret_cast<char*>(&tuning) + offset, &value, size);
}

Tuning requested_tuning(const TuningRequest& request, TuningOrigin (*origins)[tuning_field_count],
                        void (*refuse)(const char* item, std::size_t length)) {
  constexpr std::uint64_t most_class = 2;
  Tuning tuning = derive_tuning(request.processor, request.caches);
  TuningOrigin own[tuning_field_count];
  TuningOrigin(&origin)[tuning_field_count] = origins != nullptr ? *origins : own;
  for (TuningOrigin& each : origin) {
    each = TuningOrigin::Computed;
  }
  const char* rest = request.text != nullptr ? request.text : "";
  while (*rest != '\0') {
    const Text item{rest, std::strcspn(rest, ",")};
    rest += item.length;
    rest += *rest == ',' ? 1 : 0;
    bool understood = item.length == 0;
    if (item.is("auto")) {
      tuning = automatic_tuning(request.processor, request.caches);
      for (TuningOrigin& each : origin) {
        each = TuningOrigin::Automatic;
      }
      understood = true;
    }
    const auto* const sign = static_cast<const char*>(std::memchr(item.start, '=', item.length));
    for (std::size_t i = 0; i < tuning_field_count && sign != nullptr; ++i) {
      const TuningField& field = tuning_fields[i];
      const auto name_length = static_cast<std::size_t>(sign - item.start);
      std::uint64_t value = 0;
      if (Text{item.start, name_length}.is(field.name) &&
          parse_size({sign + 1, item.length - name_length - 1}, value) &&
          (field.size == sizeof value || value <= most_class)) {
        field.set(tuning, value);
        origin[i] = TuningOrigin::Variable;
        understood = true;
      }
    }
    if (!understood) {
      refuse(item.start, item.length);
    }
  }
  return tuning;
}

}  // namespace ksomd::mem
