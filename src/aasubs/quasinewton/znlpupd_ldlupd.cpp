// znlpupd, the rank-one correction of L D L' (ldlupd), in place in the packed array.
//
// Method     L D L' + sig y y': column by column, with y carried down the rows below each pivot; a
//            correction that subtracts runs the recurrence of the pivots backward first, so that
//            they keep their sign
// Reference  Fletcher and Powell (1974), Mathematics of Computation 28; Gill, Golub, Murray and
//            Saunders (1974), same journal
//
// The array is packed by rows and walked in the order of its memory: row i needs the changes of the
// columns before i alone, which are kept. A panel is as many columns as their changes find room for
// in the first-level cache; the rows below it follow when its own are done. So each element is read
// and written once, and a second correction can ride along.
#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "aasubs/quasinewton/znlpupd.h"
#include "aasubs/record/packed.h"
#include "kernels/rank_one.h"
#include "kernels/vector.h"

namespace tqnlp {

// Solves L p = y for the columns with a positive pivot; returns 1/sig + sum of p_j^2 / d_j.
static double forward_substitute(long n, double start, const double* c, const double* y,
                                 double* p) {
  double sum = start;
  for (long i = 0; i < n; ++i) {
    const double* row = c + packed_size(i);
    const double value = y[i] - zvdot11(i, row, p);
    p[i] = row[i] > 0.0 ? value : 0.0;
    if (row[i] > 0.0) sum += p[i] * p[i] / row[i];
  }
  return sum;
}

// The same sum for a p that was given.
static double sum_of_given(long n, double start, const double* c, const double* p) {
  double sum = start;
  for (long j = 0; j < n; ++j) {
    const double d = c[zisub(j, j)];
    if (d != 0.0) sum += p[j] * p[j] / d;
  }
  return sum;
}

// Prepares a correction that subtracts: p receives the values of t behind each column, summed from
// the last column up, so that they keep their sign where the plain recurrence would lose it to
// cancellation. A matrix that is to lose rank ends with t exactly 0, and its last pivot with it.
// Returns false when the plain recurrence will do.
static bool prepare_subtraction(long n, int mk, long* ir, double eps, double sig, const double* c,
                                const double* y, double* p, double* t) {
  const double s = mk == 0 ? forward_substitute(n, *t, c, y, p) : sum_of_given(n, *t, c, p);
  if (*ir <= 0) {
    *ir = -1 - *ir;
    *t = 0.0;
  } else if (s > 0.0) {
    *t = eps / sig;
    if (eps == 0.0) --*ir;
  } else if (mk >= 2) {
    *t = s;
  } else {
    return false;
  }
  for (long j = n - 1; j >= 0; --j) {
    const double v = p[j];
    const double d = c[zisub(j, j)];
    p[j] = *t;
    if (d != 0.0) *t -= v * v / d;
  }
  return true;
}

// What the sweep of a correction carries from column to column.
struct Sweep {
  double sig;
  long ir;                    // as ldlupd has it; its modulus is the rank when the sweep is over
  double t;                   // recurrence: 1/sig and a sum over the columns so far
  const double* p = nullptr;  // the recurrence behind each column, prepared, or null
  bool ended = false;         // no column changes any more
};

// Corrects pivot d of column j, where y has arrived at v, and says how the column below changes, as
// change k of its panel; false: no column changes any more. Of the two equivalent forms the
// constant 4 selects the more stable one.
static bool correct_pivot(Sweep& sweep, long j, double v, double& d, ColumnChanges& changes,
                          long k) {
  static constexpr double FORMS_MEET = 4.0;
  const double w = v / d;
  const double r = sweep.p != nullptr ? sweep.p[j] : v * w + sweep.t;
  const double q = r / sweep.t;
  d *= q;
  sweep.ended = q == 0.0;
  if (sweep.ended) return false;
  const bool by_ratio = q > FORMS_MEET;
  changes.set(k, v, w / r, by_ratio ? sweep.t / r : 1.0, by_ratio);
  sweep.t = r;
  return true;
}

// Decides column j, change k of its panel, for all corrections. True: the last correction fills the
// column, which is empty, with the rest of its y.
static bool decide_column(Sweep* sweeps, long j, double& d, RowCorrections& rows, long k) {
  for (int m = 0; m < rows.count; ++m) {
    Sweep& sweep = sweeps[m];
    const double y = rows.y[m][j];
    if (!sweep.ended && d > 0.0 && correct_pivot(sweep, j, y, d, rows.changes[m], k)) continue;
    rows.changes[m].set(k, 0.0, 0.0, 1.0, false);  // an empty column changes nothing
    if (!sweep.ended && sweep.ir <= 0 && sweep.sig >= 0.0 && y != 0.0) {
      sweep.ended = true;
      sweep.ir = 1 - sweep.ir;
      return true;
    }
  }
  return false;
}

static bool all_ended(const Sweep* sweeps, int count) {
  return sweeps[0].ended && sweeps[count - 1].ended;
}

static void fill_column(long n, long j, double t, double* c, const double* y) {
  c[zisub(j, j)] = y[j] * y[j] / t;
  for (long i = j + 1; i < n; ++i) c[packed_size(i) + j] = y[i] / y[j];
}

// Sweeps over a panel of columns that begins at first: the pivots are decided row after row, and
// the rows below follow when the panel is known. Returns where the next panel begins.
static long sweep_panel(long n, long first, Sweep* sweeps, RowCorrections& rows, double* c) {
  static constexpr long BLOCK = ColumnChanges::GROUP;
  const long end = std::min(first + ColumnChanges::MOST, n);
  for (long block = first; block < end; block += BLOCK) {
    const long block_end = std::min(block + BLOCK, end);
    change_rows(rows, block - first, block, block_end, first, c);
    for (long j = block; j < block_end; ++j) {
      double* row = c + packed_size(j) + first;
      change_row(rows, block - first, j - first, j, row);
      const bool fills = decide_column(sweeps, j, row[j - first], rows, j - first);
      if (!fills && !all_ended(sweeps, rows.count)) continue;
      // The panel closes before column j.
      for (long i = j + 1; i < block_end; ++i) {
        change_row(rows, block - first, j - first, i, c + packed_size(i) + first);
      }
      change_rows(rows, j - first, block_end, n, first, c);
      const int last = rows.count - 1;
      if (fills) fill_column(n, j, sweeps[last].t, c, rows.y[last]);
      return all_ended(sweeps, rows.count) ? n : j + 1;
    }
  }
  change_rows(rows, end - first, end, n, first, c);
  return end;
}

static void sweep_columns(long n, Sweep* sweeps, RowCorrections& rows, double* c) {
  for (long first = 0; first < n;) first = sweep_panel(n, first, sweeps, rows, c);
}

// Forward sweep over the columns: pivot j grows by q = r / t, where t and r are the recurrence
// before and behind it.
long ldlupd(long n, int mk, long ir, double eps, double sig, double* c, double* y, double* p) {
  if (sig == 0.0) return std::labs(ir);
  if (n == 1) {
    c[0] += sig * y[0] * y[0];
    return std::labs(ir);
  }
  Sweep sweep{sig, ir, 1.0 / sig};
  if (sig <= 0.0 && prepare_subtraction(n, mk, &sweep.ir, eps, sig, c, y, p, &sweep.t)) sweep.p = p;
  RowCorrections rows;
  rows.count = 1;
  rows.y[0] = y;
  sweep_columns(n, &sweep, rows, c);
  return std::labs(sweep.ir);
}

// The rank that the subtraction leaves is known before its sweep, and an addition needs nothing of
// the factor that it finds, so that both sweeps go over the rows together.
long ldlup2(long n, double taken, double given, double* c, double* from, double* to, double* p) {
  static constexpr int GIVEN = 1;
  if (n == 1 || taken == 0.0 || given == 0.0) {
    const long rank = ldlupd(n, GIVEN, -n, 0.0, taken, c, from, p);
    return ldlupd(n, 0, -rank, 0.0, given, c, to, p);
  }
  Sweep sweeps[] = {{taken, -n, 1.0 / taken}, {given, 0, 1.0 / given}};
  prepare_subtraction(n, GIVEN, &sweeps[0].ir, 0.0, taken, c, from, p, &sweeps[0].t);
  sweeps[0].p = p;
  sweeps[1].ir = -std::labs(sweeps[0].ir);
  RowCorrections rows;
  rows.count = 2;
  rows.y[0] = from;
  rows.y[1] = to;
  sweep_columns(n, sweeps, rows, c);
  return std::labs(sweeps[1].ir);
}

}  // namespace tqnlp
