// Rotations of neighbours along eight rows side by side.
//
// Along a row each rotation waits for the one before, so that a lane is a row: tiles of columns are
// turned on their way from memory (tile.h), pass the first sweep from the last tile to the first,
// and stay turned in the room that they have in the rows. The second sweep comes back along them
// and turns them again. One element is always on its way between two tiles: it waits in carry.
//
//   columns   0 .. head-1 | tile | tile | tile | i          i - head is a multiple of eight
//   first     <---------- | <--- | <--- | <--- | carry
//   second    ----------> | ---> | ---> | ---> | carry
//
// Each element is two products and one sum a rotation, in the order of the rotations, as in the
// plain loop along one row.
#include "kernels/rotation_sweeps.h"

#include "aasubs/record/packed.h"
#include "kernels/tile.h"

namespace tqnlp {

// One rotation of eight pairs.
template <int W>
TQNLP_BODY void rotate_lanes(const RotationSweeps::Rotations& rotations, long k, Lanes<W>& upper,
                             Lanes<W>& lower) {
  Lanes<W> c, s, rotated = upper;
  c.fill(rotations.c[k]);
  s.fill(rotations.s[k]);
  rotated.multiply(c);
  rotated.add_product(s, lower);
  lower.multiply(c);
  lower.subtract_product(s, upper);
  upper = rotated;
}

// Element k of the eight rows.
template <int W>
TQNLP_BODY void gather(double* const* rows, long k, Lanes<W>& to) {
  double lane[LANES];
#pragma GCC unroll 8
  for (long r = 0; r < LANES; ++r) lane[r] = rows[r][k];
  to.load(lane);
}
template <int W>
TQNLP_BODY void scatter(const Lanes<W>& from, double* const* rows, long k) {
  double lane[LANES];
  from.store(lane);
#pragma GCC unroll 8
  for (long r = 0; r < LANES; ++r) rows[r][k] = lane[r];
}

// The first sweep of B blocks of eight rows, from element i down to element head, which is left in
// carry.
template <int W, int B>
TQNLP_BODY void sweep_up(const RotationSweeps::Rotations& up, long head, long i,
                         double* const* rows, Lanes<W>* carry) {
  Tile<W> tile[B];
  for (long at = i - W; at >= head; at -= W) {
#pragma GCC unroll 2
    for (int b = 0; b < B; ++b) tile[b].load(rows + b * LANES, at);
#pragma GCC unroll 8
    for (int k = W - 1; k >= 0; --k) {
#pragma GCC unroll 2
      for (int b = 0; b < B; ++b) {
        // carry becomes the element behind column k, whose last change this is.
        rotate_lanes(up, at + k, tile[b].column[k], carry[b]);
        if (k < W - 1) {
          tile[b].store_turned(carry[b], k + 1, rows + b * LANES, at);
        } else if (at + W < i) {
          tile[b].store_turned(carry[b], 0, rows + b * LANES, at + W);
        } else {
          scatter(carry[b], rows + b * LANES, i);
        }
        carry[b] = tile[b].column[k];
      }
    }
  }
}

// The second sweep from element head, in carry, up to element i.
template <int W, int B>
TQNLP_BODY void sweep_down(const RotationSweeps::Rotations& down, long head, long i,
                           double* const* rows, Lanes<W>* carry) {
  Tile<W> tile[B];
  Lanes<W> next;
  for (long at = head; at < i; at += W) {
#pragma GCC unroll 8
    for (int k = 0; k < W; ++k) {
#pragma GCC unroll 2
      for (int b = 0; b < B; ++b) {
        if (k < W - 1) {
          tile[b].load_turned(next, k + 1, rows + b * LANES, at);
        } else if (at + W < i) {
          tile[b].load_turned(next, 0, rows + b * LANES, at + W);
        } else {
          gather(rows + b * LANES, i, next);
        }
        rotate_lanes(down, at + k, carry[b], next);
        tile[b].column[k] = carry[b];
        carry[b] = next;
      }
    }
#pragma GCC unroll 2
    for (int b = 0; b < B; ++b) tile[b].store(rows + b * LANES, at);
  }
}

// The elements before the first tile, there and back, with the change of element 0 between.
template <int W>
TQNLP_BODY void turn_at_front(const RotationSweeps& sweeps, long head, long row,
                              double* const* rows, Lanes<W>& carry) {
  Lanes<W> factor, v, front[LANES];
  for (long k = head - 1; k >= 0; --k) {
    gather(rows, k, front[k]);
    rotate_lanes(sweeps.up, k, front[k], carry);
    front[k + 1] = carry;
    carry = front[k];
  }
  factor.fill(sweeps.factor);
  v.load(sweeps.v + row);
  carry.add_product(factor, v);
  for (long k = 0; k < head; ++k) {
    rotate_lanes(sweeps.down, k, carry, front[k + 1]);
    scatter(carry, rows, k);
    carry = front[k + 1];
  }
}

// B blocks of eight rows from first on.
template <int W, int B>
TQNLP_BODY void sweep_blocks(const RotationSweeps& sweeps, long i, long first, double* c) {
  const long head = i % LANES;
  double* rows[B * LANES];
  for (long r = 0; r < B * LANES; ++r) rows[r] = c + packed_size(first + r);
  Lanes<W> carry[B];
#pragma GCC unroll 2
  for (int b = 0; b < B; ++b) gather(rows + b * LANES, i, carry[b]);
  sweep_up<W, B>(sweeps.up, head, i, rows, carry);
#pragma GCC unroll 2
  for (int b = 0; b < B; ++b) {
    turn_at_front(sweeps, head, first + b * LANES, rows + b * LANES, carry[b]);
  }
  sweep_down<W, B>(sweeps.down, head, i, rows, carry);
#pragma GCC unroll 2
  for (int b = 0; b < B; ++b) scatter(carry[b], rows + b * LANES, i);
}

// Two blocks at once hide the time that a rotation waits for the one before, where there are
// registers for them.
template <int W>
TQNLP_BODY void sweep_body(const RotationSweeps& sweeps, long i, long count, double* c) {
  static constexpr int B = W == 8 ? 2 : 1;
  long first = i;
  for (; first + B * LANES <= i + count; first += B * LANES) {
    sweep_blocks<W, B>(sweeps, i, first, c);
  }
  if (B == 2 && first < i + count) sweep_blocks<W, 1>(sweeps, i, first, c);
}
TQNLP_DISPATCH(void, sweep, (const RotationSweeps& sweeps, long i, long count, double* c),
               (sweeps, i, count, c))

void sweep_rows(const RotationSweeps& sweeps, long i, long count, double* c) {
  sweep(sweeps, i, count, c);
}

}  // namespace tqnlp
