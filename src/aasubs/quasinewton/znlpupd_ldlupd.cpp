// znlpupd, the rank-one correction of L D L' (ldlupd), in place in the packed array.
//
// Method     L D L' + sig y y': column by column, with y carried down the rows below each pivot; a
//            correction that subtracts runs the recurrence of the pivots backward first, so that
//            they keep their sign
// Reference  Fletcher and Powell (1974), Mathematics of Computation 28; Gill, Golub, Murray and
//            Saunders (1974), same journal
//
// The array is packed by rows, so the columns are taken in panels: the pivots of a panel need its
// own rows alone, and the rows below follow when the panel is known, each walked along its memory.
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
  double t;         // recurrence: 1/sig and a sum over the columns so far
  const double* p;  // the recurrence behind each column, prepared, or null
};

// Corrects pivot d of column j, where y has arrived at v, and says how the column below changes, as
// change k of its panel. Of the two equivalent forms the constant 4 selects the more stable one.
// False: no column below changes any more.
static bool correct_pivot(Sweep& sweep, long j, double v, double& d, ColumnChanges& changes,
                          long k) {
  static constexpr double FORMS_MEET = 4.0;
  const double w = v / d;
  const double r = sweep.p != nullptr ? sweep.p[j] : v * w + sweep.t;
  const double q = r / sweep.t;
  d *= q;
  if (q == 0.0) return false;
  const bool by_ratio = q > FORMS_MEET;
  changes.set(k, v, w / r, by_ratio ? sweep.t / r : 1.0, by_ratio);
  sweep.t = r;
  return true;
}

// An empty column takes the rest of y.
static void fill_column(long n, long j, double t, double* c, const double* y) {
  c[zisub(j, j)] = y[j] * y[j] / t;
  for (long i = j + 1; i < n; ++i) c[packed_size(i) + j] = y[i] / y[j];
}

// Forward sweep over the columns: pivot j grows by q = r / t, where t and r are the recurrence
// before and behind it. The rows below a panel of columns follow when its pivots are known.
long ldlupd(long n, int mk, long ir, double eps, double sig, double* c, double* y, double* p) {
  if (sig == 0.0) return std::labs(ir);
  if (n == 1) {
    c[0] += sig * y[0] * y[0];
    return std::labs(ir);
  }
  Sweep sweep{1.0 / sig, nullptr};
  if (sig <= 0.0 && prepare_subtraction(n, mk, &ir, eps, sig, c, y, p, &sweep.t)) sweep.p = p;
  ColumnChanges changes;
  for (long first = 0; first < n; first += ColumnChanges::MOST) {
    const long end = std::min(first + ColumnChanges::MOST, n);
    for (long j = first; j < end; ++j) {
      const long count = j - first;
      double* row = c + packed_size(j) + first;
      change_row(changes, count, row, y + j);
      double& d = row[count];
      const bool fills = !(d > 0.0) && ir <= 0 && sig >= 0.0 && y[j] != 0.0;
      changes.set(count, 0.0, 0.0, 1.0, false);  // an empty column changes nothing
      if (fills || (d > 0.0 && !correct_pivot(sweep, j, y[j], d, changes, count))) {
        change_rows(changes, count, j + 1, n, first, c, y);
        if (fills) fill_column(n, j, sweep.t, c, y);
        return fills ? 1 - ir : std::labs(ir);
      }
    }
    change_rows(changes, end - first, end, n, first, c, y);
  }
  return std::labs(ir);
}

}  // namespace tqnlp
