// The check of constants that the compiler propagated.
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ksomd/diagnostics.h"
#include "msg/messages.h"

namespace message = ksomd::message;

namespace {

char kind_name[64];

std::uint32_t low(std::uint64_t word) {
  return static_cast<std::uint32_t>(word);
}
std::uint32_t high(std::uint64_t word) {
  return static_cast<std::uint32_t>(word >> 32);
}
float as_float(std::uint64_t word) {
  return std::bit_cast<float>(low(word));
}
double as_double(std::uint64_t word) {
  return std::bit_cast<double>(word);
}

bool equal_low(std::uint64_t a, std::uint64_t b) {
  return low(a) == low(b);
}
bool equal_word(std::uint64_t a, std::uint64_t b) {
  return a == b;
}
bool equal_float(std::uint64_t a, std::uint64_t b) {
  return as_float(a) == as_float(b);
}
bool equal_double(std::uint64_t a, std::uint64_t b) {
  return as_double(a) == as_double(b);
}

// The texts print longs, of whatever width.
unsigned long hex(std::uint32_t half) {
  return half;
}
long decimal(std::uint32_t half) {
  return static_cast<std::int32_t>(half);
}

void print_hex(message::Number number, std::uint64_t a, std::uint64_t b) {
  __libkso_print(0, number, 2, hex(low(a)), hex(low(b)));
}
void print_decimal(message::Number number, std::uint64_t a, std::uint64_t b) {
  __libkso_print(0, number, 2, decimal(low(a)), decimal(low(b)));
}
void print_hex_halves(message::Number number, std::uint64_t a, std::uint64_t b) {
  __libkso_print(0, number, 4, hex(low(a)), hex(high(a)), hex(low(b)), hex(high(b)));
}
void print_decimal_halves(message::Number number, std::uint64_t a, std::uint64_t b) {
  __libkso_print(0, number, 4, decimal(low(a)), decimal(high(a)), decimal(low(b)),
                 decimal(high(b)));
}
void print_float(message::Number number, std::uint64_t a, std::uint64_t b) {
  __libkso_print(0, number, 2, static_cast<double>(as_float(a)), static_cast<double>(as_float(b)));
}
void print_double(message::Number number, std::uint64_t a, std::uint64_t b) {
  __libkso_print(0, number, 2, as_double(a), as_double(b));
}

struct Type {
  bool (*equal)(std::uint64_t a, std::uint64_t b);
  message::Number number;
  void (*print)(message::Number number, std::uint64_t a, std::uint64_t b);
};

constexpr Type types[] = {
    {equal_low, message::differ_int32, print_hex},                     // 32-bit integer
    {equal_low, message::differ_signed_int32, print_decimal},          // signed
    {equal_float, message::differ_float, print_float},                 // float
    {equal_word, message::differ_int64, print_hex_halves},             // 64-bit integer
    {equal_word, message::differ_signed_int64, print_decimal_halves},  // signed
    {equal_double, message::differ_double, print_double},              // double
};

message::Number kind_message(std::int32_t kind) {
  constexpr message::Number names[] = {message::formal_kind, message::return_kind,
                                       message::global_kind};
  return kind >= 0 && kind <= 2 ? names[kind] : message::unknown_kind;
}

// abort() does not write out what is buffered.
[[noreturn]] void abort_with_report() {
  std::fflush(stdout);
  std::abort();
}

}  // namespace

void _IPO_Check_CP(int32_t kind, uint32_t type, uint64_t first, uint64_t second) {
  if (type >= sizeof types / sizeof types[0]) {
    __libkso_print(0, message::bad_second_argument, 0);
    abort_with_report();
  }
  if (types[type].equal(first, second)) {
    return;
  }
  std::strncpy(kind_name, __libkso_format_msg(kind_message(kind), 0), sizeof kind_name - 1);
  __libkso_print(0, message::constant_mismatch, 1, kind_name);
  types[type].print(types[type].number, first, second);
  abort_with_report();
}
