// The bare loops of one width: compiled once for each, with WIDTH and what it takes of the
// processor.
#include <immintrin.h>

#include <cstdint>
#include <type_traits>

#include "mem_bench.h"

namespace ksomd::bench {
namespace {

#if WIDTH == 8
typedef std::uint64_t Vector __attribute__((may_alias));
#else
typedef long long Vector __attribute__((vector_size(WIDTH), may_alias));
#endif
typedef Vector Unaligned __attribute__((aligned(1)));

constexpr std::size_t width = WIDTH;
constexpr std::size_t block = 8 * width;
constexpr std::size_t line = 64;

// Which lines are prefetched while a block is copied, seen in the direction of the copy.
struct Prefetch {
  int from = 0, lines = 0, locality = 3;
};

template <bool down, Prefetch what>
[[gnu::always_inline]] inline void prefetch(const Byte* s) {
#pragma clang loop unroll(full)
  for (int i = 0; i < what.lines; ++i) {
    const auto offset = what.from + i * static_cast<int>(line);
    __builtin_prefetch(down ? s + block - line - offset : s + offset, 0, what.locality);
  }
}

enum class Load { any, aligned };
enum class Store { ordinary, streaming };

template <Load load>
[[gnu::always_inline]] inline Vector get(const Byte* s) {
  if constexpr (load == Load::aligned) {
    return *reinterpret_cast<const Vector*>(s);
  } else {
    return *reinterpret_cast<const Unaligned*>(s);
  }
}

template <Store store>
[[gnu::always_inline]] inline void put(Byte* d, Vector value) {
  if constexpr (store == Store::streaming) {
    __builtin_nontemporal_store(value, reinterpret_cast<Vector*>(d));
  } else {
    *reinterpret_cast<Vector*>(d) = value;
  }
}

template <Store store>
void end_run() {
  if constexpr (store == Store::streaming) {
    _mm_sfence();
  }
}

// Groups of four: all are loaded before any is stored.
template <Load load, Store store, bool down = false, Prefetch ahead = {}, bool fenced = true>
void copy(Byte* d, const Byte* s, std::size_t n) {
  for (std::size_t done = 0; done < n; done += block) {
    const std::size_t at = down ? n - block - done : done;
    prefetch<down, ahead>(s + at);
#pragma clang loop unroll(full)
    for (std::size_t half = 0; half < 2; ++half) {
      const std::size_t group = at + (down ? 1 - half : half) * 4 * width;
      Vector value[4];
#pragma clang loop unroll(full)
      for (std::size_t i = 0; i < 4; ++i) {
        value[i] = get<load>(s + group + i * width);
      }
#pragma clang loop unroll(full)
      for (std::size_t i = 0; i < 4; ++i) {
        put<store>(d + group + i * width, value[i]);
      }
    }
  }
  if constexpr (fenced) {
    end_run<store>();
  }
}

template <Store store>
void fill(Byte* d, const Byte* s, std::size_t n) {
  const Vector value = *reinterpret_cast<const Unaligned*>(s);
  for (std::size_t done = 0; done < n; done += block) {
#pragma clang loop unroll(full)
    for (std::size_t i = 0; i < 8; ++i) {
      put<store>(d + done + i * width, value);
    }
    __asm__ volatile("" : : : "memory");
  }
  end_run<store>();
}

// `shift` bytes into two neighbouring vectors.
#if WIDTH == 16
[[gnu::always_inline]] inline Vector between(Vector low, Vector high) {
  return reinterpret_cast<Vector>(
      _mm_or_si128(_mm_srli_si128(reinterpret_cast<__m128i>(low), realign_shift),
                   _mm_slli_si128(reinterpret_cast<__m128i>(high), 16 - realign_shift)));
}
constexpr std::size_t step = 2;
#elif WIDTH == 32
[[gnu::always_inline]] inline Vector between(Vector low, Vector high) {
  const auto x = reinterpret_cast<__m256i>(low), y = reinterpret_cast<__m256i>(high);
  return reinterpret_cast<Vector>(
      _mm256_alignr_epi8(_mm256_permute2x128_si256(x, y, 0x21), x, realign_shift));
}
constexpr std::size_t step = 4;
#endif

#if WIDTH == 16 || WIDTH == 32
template <bool down>
void realign(Byte* d, const Byte* s, std::size_t n) {
  const Byte* const aligned = s - realign_shift;
  Vector passed = *reinterpret_cast<const Vector*>(aligned + (down ? n : 0));
  for (std::size_t done = 0; done < n; done += step * width) {
    Vector value[step];
#pragma clang loop unroll(full)
    for (std::size_t i = 0; i < step; ++i) {
      const std::size_t moved = done + i * width;
      const Vector next =
          *reinterpret_cast<const Vector*>(aligned + (down ? n - width - moved : moved + width));
      value[i] = down ? between(next, passed) : between(passed, next);
      passed = next;
    }
#pragma clang loop unroll(full)
    for (std::size_t i = 0; i < step; ++i) {
      const std::size_t moved = done + i * width;
      put<Store::ordinary>(d + (down ? n - width - moved : moved), value[i]);
    }
  }
}
constexpr Loop* realign_up = realign<false>;
constexpr Loop* realign_down = realign<true>;
#else
constexpr Loop* realign_up = nullptr;
constexpr Loop* realign_down = nullptr;
#endif

constexpr Prefetch ahead = width == 8    ? Prefetch{384, 1, 0}
                           : width == 16 ? Prefetch{448, 2, 0}
                           : width == 32 ? Prefetch{512, 4}
                                         : Prefetch{512, 16};
constexpr Prefetch second_level{1536, width / 8, 2};
constexpr auto ordinary = Store::ordinary, streaming = Store::streaming;

}  // namespace

#define NAME_OF(width) bare_##width
#define NAME(width) NAME_OF(width)
extern const BareLoops NAME(WIDTH);
const BareLoops NAME(WIDTH) = {
    copy<Load::any, ordinary>,
    copy<Load::any, ordinary, true>,
    copy<Load::aligned, ordinary>,
    copy<Load::aligned, ordinary, true>,
    realign_up,
    realign_down,
    copy<Load::any, streaming, false, ahead>,
    copy<Load::any, streaming, true, ahead>,
    copy<Load::any, ordinary, false, second_level>,
    copy<Load::any, streaming, false, second_level>,
    copy<Load::any, streaming, false, Prefetch{}, false>,
    fill<ordinary>,
    fill<streaming>,
};

}  // namespace ksomd::bench
