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

// The first sweep from element i down to element head, which is left in carry.
template <int W>
TQNLP_BODY void sweep_up(const RotationSweeps::Rotations& up, long head, long i,
                         double* const* rows, Lanes<W>& carry) {
  Tile<W> tile;
  for (long at = i - W; at >= head; at -= W) {
    tile.load(rows, at);
#pragma GCC unroll 8
    for (int k = W - 1; k >= 0; --k) {
      // carry becomes the element behind column k, whose last change this is.
      rotate_lanes(up, at + k, tile.column[k], carry);
      if (k < W - 1) {
        tile.store_turned(carry, k + 1, rows, at);
      } else if (at + W < i) {
        tile.store_turned(carry, 0, rows, at + W);
      } else {
        scatter(carry, rows, i);
      }
      carry = tile.column[k];
    }
  }
}

// The second sweep from element head, in carry, up to element i.
template <int W>
TQNLP_BODY void sweep_down(const RotationSweeps::Rotations& down, long head, long i,
                           double* const* rows, Lanes<W>& carry) {
  Tile<W> tile;
  Lanes<W> next;
  for (long at = head; at < i; at += W) {
#pragma GCC unroll 8
    for (int k = 0; k < W; ++k) {
      if (k < W - 1) {
        tile.load_turned(next, k + 1, rows, at);
      } else if (at + W < i) {
        tile.load_turned(next, 0, rows, at + W);
      } else {
        gather(rows, i, next);
      }
      rotate_lanes(down, at + k, carry, next);
      tile.column[k] = carry;
      carry = next;
    }
    tile.store(rows, at);
  }
}

template <int W>
TQNLP_BODY void sweep_body(const RotationSweeps& sweeps, long i, double* c) {
  const long head = i % LANES;
  double* rows[LANES];
  for (long r = 0; r < LANES; ++r) rows[r] = c + packed_size(i + r);
  Lanes<W> carry, factor, v, front[LANES];
  gather(rows, i, carry);
  sweep_up(sweeps.up, head, i, rows, carry);
  for (long k = head - 1; k >= 0; --k) {
    gather(rows, k, front[k]);
    rotate_lanes(sweeps.up, k, front[k], carry);
    front[k + 1] = carry;
    carry = front[k];
  }
  factor.fill(sweeps.factor);
  v.load(sweeps.v + i);
  carry.add_product(factor, v);
  for (long k = 0; k < head; ++k) {
    rotate_lanes(sweeps.down, k, carry, front[k + 1]);
    scatter(carry, rows, k);
    carry = front[k + 1];
  }
  sweep_down(sweeps.down, head, i, rows, carry);
  scatter(carry, rows, i);
}
TQNLP_DISPATCH(void, sweep, (const RotationSweeps& sweeps, long i, double* c), (sweeps, i, c))

void sweep_rows(const RotationSweeps& sweeps, long i, double* c) { sweep(sweeps, i, c); }

}  // namespace tqnlp
