// A tile: W columns of eight rows, turned, so that a lane is a row. What runs along a row one
// element after the other then runs along eight rows side by side.
//
//   row 0 |  a0 b0 c0 ..            column[0] | a0 a1 a2 .. a7
//   row 1 |  a1 b1 c1 ..            column[1] | b0 b1 b2 .. b7
//   ..                              column[2] | c0 c1 c2 .. c7
//   row 7 |  a7 b7 c7 ..
//
// No lane ever meets another one, so that each row is worked on as if it stood alone: the result is
// that of the plain loop along the row, to the last bit and at every width of the vectors.
#pragma once

#include <utility>

#include "kernels/lanes.h"

namespace tqnlp {

template <int W>
struct Tile {
  using Vector = typename Lanes<W>::Vector;
  using Unaligned = typename Lanes<W>::Unaligned;
  static constexpr int PARTS = Lanes<W>::PARTS;
  Lanes<W> column[W];

  // Columns at .. at+W-1 of the eight rows.
  [[gnu::always_inline]] inline void load(double* const* rows, long at) {
#pragma GCC unroll 4
    for (int p = 0; p < PARTS; ++p) {
      Vector a[W];
#pragma GCC unroll 8
      for (int k = 0; k < W; ++k) a[k] = *reinterpret_cast<const Unaligned*>(rows[p * W + k] + at);
      turn(a);
#pragma GCC unroll 8
      for (int k = 0; k < W; ++k) column[k].part[p] = a[k];
    }
  }
  [[gnu::always_inline]] inline void store(double* const* rows, long at) const {
#pragma GCC unroll 4
    for (int p = 0; p < PARTS; ++p) {
      Vector a[W];
#pragma GCC unroll 8
      for (int k = 0; k < W; ++k) a[k] = column[k].part[p];
      turn(a);
#pragma GCC unroll 8
      for (int k = 0; k < W; ++k) *reinterpret_cast<Unaligned*>(rows[p * W + k] + at) = a[k];
    }
  }

  // A column as it is, in the room that the tile has in the rows: what a first walk leaves for a
  // second one.
  [[gnu::always_inline]] static inline void load_turned(Lanes<W>& from, int k, double* const* rows,
                                                        long at) {
#pragma GCC unroll 4
    for (int p = 0; p < PARTS; ++p)
      from.part[p] = *reinterpret_cast<const Unaligned*>(rows[p * W + k] + at);
  }
  [[gnu::always_inline]] static inline void store_turned(const Lanes<W>& to, int k,
                                                         double* const* rows, long at) {
#pragma GCC unroll 4
    for (int p = 0; p < PARTS; ++p)
      *reinterpret_cast<Unaligned*>(rows[p * W + k] + at) = to.part[p];
  }

 private:
  // Exchanges the blocks of order D that stand beside the diagonal of each block of order 2 D.
  template <int D, int... K>
  [[gnu::always_inline]] static inline void exchange(Vector& upper, Vector& lower,
                                                     std::integer_sequence<int, K...>) {
    const Vector a = upper;
    const Vector b = lower;
    upper = __builtin_shufflevector(a, b, ((K & D) != 0 ? W + K - D : K)...);
    lower = __builtin_shufflevector(a, b, ((K & D) != 0 ? W + K : K + D)...);
  }
  template <int D>
  [[gnu::always_inline]] static inline void exchange_blocks(Vector (&a)[W]) {
#pragma GCC unroll 8
    for (int k = 0; k < W; ++k) {
      if ((k & D) == 0) exchange<D>(a[k], a[k + D], std::make_integer_sequence<int, W>());
    }
  }
  // Transposes a square of order W.
  [[gnu::always_inline]] static inline void turn(Vector (&a)[W]) {
    exchange_blocks<1>(a);
    if constexpr (W > 2) exchange_blocks<2>(a);
    if constexpr (W > 4) exchange_blocks<4>(a);
  }
};

}  // namespace tqnlp
