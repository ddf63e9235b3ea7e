// Small square blocks of elements, transposed in registers, at every vector width.
//
// Elements are bit patterns of 4, 8 or 16 bytes here; a vector is `parts` pieces of 16 bytes. First
// the elements of each piece change places as within one 16-byte vector, then the pieces:
//
//     rows of 8-byte elements, two pieces      after the first step       after the second
//
//       a0 a1 | a2 a3                            a0 b0 | a2 b2              a0 b0 | c0 d0
//       b0 b1 | b2 b3                            a1 b1 | a3 b3              a1 b1 | c1 d1
//       c0 c1 | c2 c3                            c0 d0 | c2 d2              a2 b2 | c2 d2
//       d0 d1 | d2 d3                            c1 d1 | c3 d3              a3 b3 | c3 d3
//
// Shuffles, of each instruction set:
//   Bits, parts           vector of any element type, number of its 16-byte pieces
//   low32, high32         within each piece, the lower or upper 4-byte elements of two vectors
//   low64, high64         the same for 8-byte elements
//   exchange_parts        transposes `parts` x `parts` pieces
#pragma once

#include "matmul/contract.h"

namespace ksomd::matmul {

template <class Shuffles, Size bytes>
struct BlockTranspose {
  using Bits = Shuffles::Bits;
  static constexpr Size in_part = 16 / bytes;
  static constexpr Size side = in_part * Shuffles::parts;

  // side x side elements: destination[r + c * destination_leading] = source[c + r * leading].
  template <class Element, class Stride>
  KSOMD_INLINE static void run(const Element* source, Stride leading, Element* destination,
                               Size destination_leading) {
    static_assert(sizeof(Element) == bytes);
    Bits row[side];
    for (Size r = 0; r < side; ++r) {
      __builtin_memcpy(&row[r], source + static_cast<Stride>(r) * leading, sizeof(Bits));
    }
    within_parts(row);
    for (Size c = 0; c < in_part; ++c) {
      Bits piece[Shuffles::parts];
      for (Size i = 0; i < Shuffles::parts; ++i) {
        piece[i] = row[i * in_part + c];
      }
      Shuffles::exchange_parts(piece);
      for (Size i = 0; i < Shuffles::parts; ++i) {
        __builtin_memcpy(destination + (i * in_part + c) * destination_leading, &piece[i],
                         sizeof(Bits));
      }
    }
  }

 private:
  KSOMD_INLINE static void within_parts(Bits (&row)[side]) {
    for (Size i = 0; i < side; i += in_part) {
      if constexpr (bytes == 8) {
        const Bits low = Shuffles::low64(row[i], row[i + 1]);
        row[i + 1] = Shuffles::high64(row[i], row[i + 1]);
        row[i] = low;
      } else if constexpr (bytes == 4) {
        const Bits low01 = Shuffles::low32(row[i], row[i + 1]);
        const Bits high01 = Shuffles::high32(row[i], row[i + 1]);
        const Bits low23 = Shuffles::low32(row[i + 2], row[i + 3]);
        const Bits high23 = Shuffles::high32(row[i + 2], row[i + 3]);
        row[i] = Shuffles::low64(low01, low23);
        row[i + 1] = Shuffles::high64(low01, low23);
        row[i + 2] = Shuffles::low64(high01, high23);
        row[i + 3] = Shuffles::high64(high01, high23);
      }
    }
  }
};

}  // namespace ksomd::matmul
