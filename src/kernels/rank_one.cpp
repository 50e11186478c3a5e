// Rows of L under rank-one corrections.
//
// Along a row y is a running difference, so that an element waits for all the elements before it.
// Eight rows are therefore taken side by side, a lane each, and a tile of columns is turned on its
// way from memory and back (tile.h). Every element sees the columns in their order, and the second
// correction behind the first, exactly as in the plain loop over one row.
//
//   rows i .. i+7   | tile | tile | tile |      y of the eight rows waits in registers
//                   | ---> | ---> | ---> |      and is carried from column to column
//
// The rows are walked along their memory: eight streams that a processor prefetches, where columns
// one by one would touch another line, and mostly another page, with each element. Which pivots and
// multipliers the changes hold is the caller's matter.
#include "kernels/rank_one.h"

#include "aasubs/record/packed.h"
#include "kernels/tile.h"

namespace tqnlp {

// One element l and the y of its row under change k.
TQNLP_BODY void change_element(const ColumnChanges& changes, long k, double& l, double& y) {
  const double before = y;
  y -= l * changes.v[k];
  l = changes.by_ratio[k] ? before * changes.w[k] + l * changes.u[k] : l + changes.w[k] * y;
}

template <int COUNT>
static void change_elements(const RowCorrections& corrections, long begin, long end, long i,
                            double* row) {
  double y[COUNT];
  for (int m = 0; m < COUNT; ++m) y[m] = corrections.y[m][i];
  for (long k = begin; k < end; ++k) {
    double l = row[k];
    for (int m = 0; m < COUNT; ++m) change_element(corrections.changes[m], k, l, y[m]);
    row[k] = l;
  }
  for (int m = 0; m < COUNT; ++m) corrections.y[m][i] = y[m];
}

void change_row(const RowCorrections& corrections, long begin, long end, long i, double* row) {
  if (corrections.count == 1) {
    change_elements<1>(corrections, begin, end, i, row);
  } else {
    change_elements<2>(corrections, begin, end, i, row);
  }
}

// Column k of a tile.
template <int W, bool MIXED>
TQNLP_BODY void change_column(const ColumnChanges& changes, long k, Lanes<W>& l, Lanes<W>& y) {
  Lanes<W> v, w;
  v.fill(changes.v[k]);
  w.fill(changes.w[k]);
  if (MIXED && changes.by_ratio[k]) {
    Lanes<W> u, before = y;
    u.fill(changes.u[k]);
    y.subtract_product(l, v);
    before.multiply(w);
    before.add_product(l, u);
    l = before;
  } else {
    y.subtract_product(l, v);
    l.add_product(w, y);
  }
}

// Changes begin..begin+W-1 of eight rows.
template <int W, int COUNT, bool MIXED>
TQNLP_BODY void change_tile(const RowCorrections& corrections, long begin, double* const* rows,
                            Lanes<W>* y) {
  Tile<W> tile;
  tile.load(rows, begin);
#pragma GCC unroll 8
  for (int k = 0; k < W; ++k) {
#pragma GCC unroll 2
    for (int m = 0; m < COUNT; ++m) {
      change_column<W, MIXED>(corrections.changes[m], begin + k, tile.column[k], y[m]);
    }
  }
  tile.store(rows, begin);
}

// Rows from..to-1. In the last block the last row stands in for those that are missing: it is
// changed and stored several times alike.
template <int W, int COUNT>
TQNLP_BODY void change_blocks(const RowCorrections& corrections, long count, long from, long to,
                              long first, double* c) {
  static constexpr long GROUP = ColumnChanges::GROUP;
  static_assert(GROUP % W == 0);
  const long grouped = count - count % GROUP;
  for (long i = from; i < to; i += LANES) {
    const long present = to - i < LANES ? to - i : LANES;
    double* rows[LANES];
    double y_of_rows[COUNT][LANES];
    for (long r = 0; r < LANES; ++r) {
      const long row = i + (r < present ? r : present - 1);
      rows[r] = c + packed_size(row) + first;
      for (int m = 0; m < COUNT; ++m) y_of_rows[m][r] = corrections.y[m][row];
    }
    Lanes<W> y[COUNT];
#pragma GCC unroll 2
    for (int m = 0; m < COUNT; ++m) y[m].load(y_of_rows[m]);
    for (long k = 0; k < grouped; k += GROUP) {
      bool mixed = corrections.changes[0].mixed[k / GROUP];
      if (COUNT == 2) mixed = mixed || corrections.changes[1].mixed[k / GROUP];
      for (long at = k; at < k + GROUP; at += W) {
        if (mixed) {
          change_tile<W, COUNT, true>(corrections, at, rows, y);
        } else {
          change_tile<W, COUNT, false>(corrections, at, rows, y);
        }
      }
    }
#pragma GCC unroll 2
    for (int m = 0; m < COUNT; ++m) {
      y[m].store(y_of_rows[m]);
      for (long r = 0; r < present; ++r) corrections.y[m][i + r] = y_of_rows[m][r];
    }
    for (long r = 0; r < present && grouped < count; ++r) {
      change_elements<COUNT>(corrections, grouped, count, i + r, rows[r]);
    }
  }
}

template <int W>
TQNLP_BODY void blocks_body(const RowCorrections& corrections, long count, long from, long to,
                            long first, double* c) {
  if (corrections.count == 1) {
    change_blocks<W, 1>(corrections, count, from, to, first, c);
  } else {
    change_blocks<W, 2>(corrections, count, from, to, first, c);
  }
}
TQNLP_DISPATCH(void, blocks,
               (const RowCorrections& corrections, long count, long from, long to, long first,
                double* c),
               (corrections, count, from, to, first, c))

void change_rows(const RowCorrections& corrections, long count, long from, long to, long first,
                 double* c) {
  static constexpr long FEW_ROWS = 3,
                        FEW_COLUMNS = 16;  // a block of eight would stand mostly empty
  if (count < 1) return;
  if (to - from > FEW_ROWS || count > FEW_COLUMNS) {
    if (from < to) blocks(corrections, count, from, to, first, c);
    return;
  }
  for (long i = from; i < to; ++i) change_row(corrections, 0, count, i, c + packed_size(i) + first);
}

// ---- A symmetric matrix -------------------------------------------------------------------------

static constexpr long TOGETHER = 4;  // rows that share the loads of s and p

// Rows i .. i+R-1, each up to its diagonal.
template <int W, int R>
TQNLP_BODY void add_to_rows(long i, const double* a, const double* s, const double* b,
                            const double* p, double* h) {
  const long common = (i + 1) / LANES * LANES;
  double* rows[R];
  Lanes<W> of_a[R], of_b[R], of_s, of_p, element, change;
#pragma GCC unroll 4
  for (int r = 0; r < R; ++r) {
    rows[r] = h + packed_size(i + r);
    of_a[r].fill(a[i + r]);
    of_b[r].fill(b[i + r]);
  }
  for (long k = 0; k < common; k += LANES) {
    of_s.load(s + k);
    of_p.load(p + k);
#pragma GCC unroll 4
    for (int r = 0; r < R; ++r) {
      change = of_s;
      change.multiply(of_a[r]);
      change.subtract_product(of_b[r], of_p);
      element.load(rows[r] + k);
      element.add(change);
      element.store(rows[r] + k);
    }
  }
  for (int r = 0; r < R; ++r) {
#pragma GCC unroll 1
    for (long k = common; k <= i + r; ++k) rows[r][k] += a[i + r] * s[k] - b[i + r] * p[k];
  }
}

template <int W>
TQNLP_BODY void products_body(long n, const double* a, const double* s, const double* b,
                              const double* p, double* h) {
  long i = 0;
  for (; i + TOGETHER <= n; i += TOGETHER) add_to_rows<W, TOGETHER>(i, a, s, b, p, h);
  for (; i < n; ++i) add_to_rows<W, 1>(i, a, s, b, p, h);
}
TQNLP_DISPATCH(void, products,
               (long n, const double* a, const double* s, const double* b, const double* p,
                double* h),
               (n, a, s, b, p, h))

void add_products(long n, const double* a, const double* s, const double* b, const double* p,
                  double* h) {
  if (n >= 2 * LANES) {
    products(n, a, s, b, p, h);
    return;
  }
  double* row = h;
  for (long i = 0; i < n; row += ++i) {
    for (long j = 0; j <= i; ++j) row[j] += a[i] * s[j] - b[i] * p[j];
  }
}

}  // namespace tqnlp
