// The loops that the library's folds are measured against, as two compilers make them.
#pragma once

#include <cstddef>
#include <cstdint>

struct PeerFold {
  std::uint32_t type;
  std::int32_t operation;
  void (*fold)(void* destination, const void* source, std::uint64_t count);
};

struct Peer {
  const PeerFold* folds;
  std::size_t count;
  void (*divide_bit_by_bit)(std::uint32_t* quotient, std::uint32_t* remainder,
                            const std::uint32_t* dividend, const std::uint32_t* divisor,
                            std::uint32_t words);
  double (*to_double)(const std::int64_t* value);
  double (*unsigned_to_double)(const std::uint64_t* value);
  float (*to_float)(const std::int64_t* value);
  float (*unsigned_to_float)(const std::uint64_t* value);
};

extern const Peer clang_peer;
extern const Peer gcc_peer;
