// Inner loops of the factorizations that keep rows: the update of a row by several others, and the
// largest element.
//
//   from[0]  | . . x x x x x x x x |  factor[0]
//   from[1]  | . . x x x x x x x x |  factor[1]       to[i] -= factor[0] from[0][at+i]
//   from[2]  | . . x x x x x x x x |  factor[2]               - factor[1] from[1][at+i] - ...
//                  ^ at
//   to             | x x x x x x x x |
//
// The row that is updated is read and written once, whatever the number of rows that go into it:
// the walk over the rows stands inside the walk over the columns, and a group of columns waits in
// registers. An element is the same sequence of products and differences whether it stands in a
// group of eight, four, two or alone, and whatever the width of the vectors: where a row is cut
// does not change its bits. The row must not overlap the others.
#pragma once

#include "kernels/lanes.h"

namespace tqnlp {

// Four and two doubles, for what is left of a row behind the last eight.
typedef double Four __attribute__((vector_size(32), aligned(8), may_alias));
typedef double Two __attribute__((vector_size(16), aligned(8), may_alias));

// to[i] -= sum of factor[p] * from[p][at + i] over p < rows, in the order of p, for i < n. Two
// groups of eight columns at a time: a factor is spread over its lanes once for both, and the
// differences of one group run beside those of the other.
template <int W>
TQNLP_BODY void subtract_rows(long n, long rows, const double* factor, const double* const* from,
                              long at, double* to) {
  long i = 0;
  for (; i + 2 * LANES <= n; i += 2 * LANES) {
    Lanes<W> a, b, c, f;
    a.load(to + i);
    b.load(to + i + LANES);
    for (long p = 0; p < rows; ++p) {
      f.fill(factor[p]);
      c.load(from[p] + at + i);
      a.subtract_product(f, c);
      c.load(from[p] + at + i + LANES);
      b.subtract_product(f, c);
    }
    a.store(to + i);
    b.store(to + i + LANES);
  }
  if (i + LANES <= n) {
    Lanes<W> a, c, f;
    a.load(to + i);
    for (long p = 0; p < rows; ++p) {
      f.fill(factor[p]);
      c.load(from[p] + at + i);
      a.subtract_product(f, c);
    }
    a.store(to + i);
    i += LANES;
  }
  if (n & 4) {
    Four sum = *reinterpret_cast<const Four*>(to + i);
#pragma GCC unroll 1
    for (long p = 0; p < rows; ++p)
      sum -= factor[p] * *reinterpret_cast<const Four*>(from[p] + at + i);
    *reinterpret_cast<Four*>(to + i) = sum;
    i += 4;
  }
  if (n & 2) {
    Two sum = *reinterpret_cast<const Two*>(to + i);
#pragma GCC unroll 1
    for (long p = 0; p < rows; ++p)
      sum -= factor[p] * *reinterpret_cast<const Two*>(from[p] + at + i);
    *reinterpret_cast<Two*>(to + i) = sum;
    i += 2;
  }
  if (n & 1) {
    double sum = to[i];
#pragma GCC unroll 1
    for (long p = 0; p < rows; ++p) sum -= factor[p] * from[p][at + i];
    to[i] = sum;
  }
}

// The same for one row, to[i] -= f * from[i]: no table of rows to set up.
template <int W>
TQNLP_BODY void subtract_row(long n, double f, const double* from, double* to) {
  long i = 0;
  if (n >= LANES) {
    Lanes<W> factor, a, b;
    factor.fill(f);
    for (; i + LANES <= n; i += LANES) {
      a.load(to + i);
      b.load(from + i);
      a.subtract_product(factor, b);
      a.store(to + i);
    }
  }
  if (n & 4) {
    *reinterpret_cast<Four*>(to + i) -= f * *reinterpret_cast<const Four*>(from + i);
    i += 4;
  }
  if (n & 2) {
    *reinterpret_cast<Two*>(to + i) -= f * *reinterpret_cast<const Two*>(from + i);
    i += 2;
  }
  if (n & 1) to[i] -= f * from[i];
}

// The same for two rows, to[i] = (to[i] - f * from[i]) - g * second[i]: what a pivot of order two
// takes from the rows before it.
template <int W>
TQNLP_BODY void subtract_two_rows(long n, double f, const double* from, double g,
                                  const double* second, double* to) {
  long i = 0;
  if (n >= LANES) {
    Lanes<W> factor, other, a, b, c;
    factor.fill(f);
    other.fill(g);
    for (; i + LANES <= n; i += LANES) {
      a.load(to + i);
      b.load(from + i);
      c.load(second + i);
      a.subtract_product(factor, b);
      a.subtract_product(other, c);
      a.store(to + i);
    }
  }
  if (n & 4) {
    *reinterpret_cast<Four*>(to + i) = *reinterpret_cast<const Four*>(to + i) -
                                       f * *reinterpret_cast<const Four*>(from + i) -
                                       g * *reinterpret_cast<const Four*>(second + i);
    i += 4;
  }
  if (n & 2) {
    *reinterpret_cast<Two*>(to + i) = *reinterpret_cast<const Two*>(to + i) -
                                      f * *reinterpret_cast<const Two*>(from + i) -
                                      g * *reinterpret_cast<const Two*>(second + i);
    i += 2;
  }
  if (n & 1) to[i] = to[i] - f * from[i] - g * second[i];
}

// floor := the largest modulus of x[0..n-1], at least floor. A NaN in x is passed over, since no
// comparison with it is true. Eight maxima side by side: the largest of them is the same in any
// order.
template <int W>
TQNLP_BODY void raise_to_largest(long n, const double* x, double& floor) {
  long i = 0;
  if (n >= LANES) {
    Lanes<W> largest, next;
    largest.fill(floor);
    for (; i + LANES <= n; i += LANES) {
      next.load(x + i);
#pragma GCC unroll 4
      for (int k = 0; k < Lanes<W>::PARTS; ++k) {
        const typename Lanes<W>::Vector modulus = next.part[k] < 0.0 ? -next.part[k] : next.part[k];
        largest.part[k] = largest.part[k] < modulus ? modulus : largest.part[k];
      }
    }
    double lane[LANES];
    largest.store(lane);
    for (int k = 0; k < 4; ++k) lane[k] = lane[k] < lane[k + 4] ? lane[k + 4] : lane[k];
    for (int k = 0; k < 2; ++k) lane[k] = lane[k] < lane[k + 2] ? lane[k + 2] : lane[k];
    floor = lane[0] < lane[1] ? lane[1] : lane[0];
  }
#pragma GCC unroll 1
  for (; i < n; ++i) {
    const double modulus = __builtin_fabs(x[i]);
    floor = floor < modulus ? modulus : floor;
  }
}

}  // namespace tqnlp
