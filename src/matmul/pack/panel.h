// Packs panels: copies of operand blocks in which a tile's rows, or columns, stand side by side for
// each l.
#pragma once

#include "matmul/pack/transpose.h"

namespace ksomd::matmul {

template <class Rows>
struct Panel {
  using Element = Rows::Element;
  using Block = BlockTranspose<typename Rows::Shuffles, sizeof(Element)>;
  static constexpr Size side = Block::side;

  // The members (rows of op(A), columns of op(B)) are adjacent in the stored operand.
  static void pack_adjacent(const Element* source, Size leading, Size members, Size depth,
                            Element* panel, Size panel_leading) {
    if (members >= Rows::width) {
      copy<Rows::width>(source, leading, members, depth, panel, panel_leading);
    } else if (members >= piece) {
      copy<piece>(source, leading, members, depth, panel, panel_leading);
    } else {
      for (Size l = 0; l < depth; ++l) {
        for (Size member = 0; member < members; ++member) {
          panel[member + l * panel_leading] = source[member + l * leading];
        }
      }
    }
  }

  // The values of a member along the depth are adjacent in the stored operand.
  static void pack_transposed(const Element* source, Size leading, Size members, Size depth,
                              Element* panel, Size panel_leading) {
    if (members >= side && depth >= side) {
      // The last blocks are moved back to where they are complete.
      for (Size next = 0; next < members; next += side) {
        const Size member = min(next, members - side);
        for (Size next_l = 0; next_l < depth; next_l += side) {
          const Size l = min(next_l, depth - side);
          Block::run(source + l + member * leading, leading, panel + member + l * panel_leading,
                     panel_leading);
        }
      }
      return;
    }
    for (Size member = 0; member < members; ++member) {
      for (Size l = 0; l < depth; ++l) {
        panel[member + l * panel_leading] = source[l + member * leading];
      }
    }
  }

 private:
  // Elements of 16 bytes.
  static constexpr Size piece = 16 / sizeof(Element);

  // In vectors of `width` elements; the last one is moved back to where it is complete.
  template <Size width>
  KSOMD_INLINE static void copy(const Element* source, Size leading, Size members, Size depth,
                                Element* panel, Size panel_leading) {
    constexpr Size ahead = 8;
    for (Size l = 0; l < depth; ++l) {
      const Element* from = source + l * leading;
      Element* to = panel + l * panel_leading;
      for (Size next = 0; next < members; next += width) {
        const Size member = min(next, members - width);
        __builtin_prefetch(from + ahead * leading + member);
        __builtin_memcpy(to + member, from + member, width * sizeof(Element));
      }
    }
  }
};

}  // namespace ksomd::matmul
