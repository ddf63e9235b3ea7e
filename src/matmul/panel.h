// Copies of operand blocks in which a tile's rows, or columns, stand side by side for each l.
#pragma once

#include "matmul/block_transpose.h"
#include "matmul/register_tile.h"

namespace ksomd::matmul {

// `adjacent`: whether the members of a group (rows of op(A), columns of op(B)) are adjacent in the
// stored operand; otherwise the values along the depth are.
template <class Rows, bool adjacent>
struct Panel {
  using Element = Rows::Element;
  using Block = BlockTranspose<typename Rows::Shuffles, sizeof(Element)>;
  static constexpr Size side = Block::side;

  // panel[member + l * panel_members] = op(X)(member, l).
  static void pack(const Element* source, Size leading, Size members, Size depth, Element* panel,
                   Size panel_members) {
    if constexpr (adjacent) {
      copy(source, leading, members, depth, panel, panel_members);
    } else if (members >= side && depth >= side) {
      // The last blocks are moved back to where they are complete.
      for (Size next = 0; next < members; next += side) {
        const Size member = min(next, members - side);
        for (Size next_l = 0; next_l < depth; next_l += side) {
          const Size l = min(next_l, depth - side);
          Block::run(source + l + member * leading, leading, panel + member + l * panel_members,
                     panel_members);
        }
      }
    } else {
      for (Size member = 0; member < members; ++member) {
        for (Size l = 0; l < depth; ++l) {
          panel[member + l * panel_members] = source[l + member * leading];
        }
      }
    }
  }

 private:
  static void copy(const Element* source, Size leading, Size members, Size depth, Element* panel,
                   Size panel_members) {
    constexpr Size width = Rows::width;
    constexpr Size ahead = 8;
    for (Size l = 0; l < depth; ++l) {
      const Element* from = source + l * leading;
      Element* to = panel + l * panel_members;
      if (members >= width) {
        for (Size next = 0; next < members; next += width) {
          const Size member = min(next, members - width);
          __builtin_prefetch(from + ahead * leading + member);
          Rows::copy(to + member, from + member);
        }
      } else {
        for (Size member = 0; member < members; ++member) {
          to[member] = from[member];
        }
      }
    }
  }
};

}  // namespace ksomd::matmul
