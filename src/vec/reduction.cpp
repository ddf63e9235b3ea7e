// Reductions into arrays. A table holds one fill and one fold for every allowed pair of a type and
// an operation.
#include "vec/reduction.h"

#include <cstdlib>

#include "ksomd/vector.h"
#include "vec/reduction_kernels.h"

namespace ksomd::reduction {
namespace {

// Copies count elements that lie `stride` elements apart; the copies lie side by side.
using Gather = void (*)(void* destination, const char* source, std::int64_t stride,
                        std::uint64_t count);

template <class T>
void gather(void* destination, const char* source, std::int64_t stride, std::uint64_t count) {
  auto* d = static_cast<T*>(destination);
  const std::int64_t step = stride * static_cast<std::int64_t>(sizeof(T));
  for (std::uint64_t i = 0; i < count; ++i) {
    __builtin_memcpy(d + i, source, sizeof(T));
    source += step;
  }
}

// Both null where the type does not have the operation.
struct Pair {
  void (*fill)(void* array, std::uint64_t count);
  void (*fold)(void* destination, const void* source, std::uint64_t count);
};

constexpr std::uint32_t operations = 13;

struct Type {
  std::uint32_t size;
  Gather gather;
  Pair pairs[operations];
};

template <class T, class Operation>
constexpr Pair pair() {
  if constexpr (includes<T>(Operation::types)) {
    return {fill<T, Operation>, fold<T, Operation>};
  } else {
    return {};
  }
}

template <class T, class... Operation>
constexpr Type row() {
  static_assert(sizeof...(Operation) == operations);
  return {sizeof(T), gather<T>, {pair<T, Operation>()...}};
}

// The operations in the order of their codes, from 1.
template <class T>
constexpr Type type() {
  return row<T, Sum, Product, Difference, Maximum, Minimum, LogicalAnd, LogicalOr, And, Or, Xor,
             Xor, Equal, NotEqual>();
}

constexpr Type types[] = {
    {},
    type<std::uint8_t>(),
    type<std::int8_t>(),
    type<std::uint16_t>(),
    type<std::int16_t>(),
    type<std::uint32_t>(),
    type<std::int32_t>(),
    type<std::uint64_t>(),
    type<std::int64_t>(),
    type<float>(),
    type<double>(),
    {},
    {},
    type<quad128>(),
    {},
    {},
    {},
    {},
    {},
    {},
    type<Complex<float>>(),
    type<Complex<double>>(),
    {},
    type<Complex<quad128>>(),
};

const Type& type_or_abort(std::uint32_t code) {
  if (code >= sizeof types / sizeof types[0]) {
    std::abort();
  }
  return types[code];
}

// Unused type codes have no pairs, and abort here.
const Pair& pair_or_abort(const Type& type, std::int32_t operation) {
  const auto index = static_cast<std::uint32_t>(operation) - 1;
  if (index >= operations || type.pairs[index].fill == nullptr) {
    std::abort();
  }
  return type.pairs[index];
}

// Gathers strided elements block by block, and folds each block. Separate, so that unstrided folds
// do not pay for the 1 KiB buffer.
[[gnu::noinline]] void fold_strided(const Type& element, const Pair& pair, void* destination,
                                    const void* source, std::int32_t stride, std::uint64_t count) {
  alignas(16) char block[1024];
  const std::uint64_t per_block = sizeof block / element.size;
  auto* d = static_cast<char*>(destination);
  const auto* s = static_cast<const char*>(source);
  const std::int64_t step = std::int64_t{stride} * element.size;
  while (count > 0) {
    const std::uint64_t part = count < per_block ? count : per_block;
    element.gather(block, s, stride, part);
    pair.fold(d, block, part);
    d += part * element.size;
    s += static_cast<std::int64_t>(part) * step;
    count -= part;
  }
}

}  // namespace
}  // namespace ksomd::reduction

void __orvex_reduction_init_array(void* array, uint64_t count, int32_t operation, uint32_t type) {
  using namespace ksomd::reduction;
  pair_or_abort(type_or_abort(type), operation).fill(array, count);
}

void __orvex_reduction_combine_array(void* destination, const void* source, int32_t operation,
                                     uint32_t type, int32_t stride, uint64_t count) {
  using namespace ksomd::reduction;
  const Type& element = type_or_abort(type);
  const Pair& pair = pair_or_abort(element, operation);
  if (stride == 1) {
    pair.fold(destination, source, count);
    return;
  }
  fold_strided(element, pair, destination, source, stride, count);
}

void __orvex_simd_reduction_final_array(void* destination, const void* source, uint64_t count,
                                        int32_t stride, int32_t use_stride, int32_t operation,
                                        uint32_t type) {
  __orvex_reduction_combine_array(destination, source, operation, type,
                                  use_stride != 0 ? stride : 1, count);
}
