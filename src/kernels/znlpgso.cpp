// znlpgso: Gram-Schmidt Orthogonalization of a vector against the orthonormal columns of Q, with
// reorthogonalization (Daniel, Gragg, Kaufman and Stewart 1976, Mathematics of Computation 30).
//
//   a pass     v := v - Q Q'v, r := r + Q'v
//   accepted   when what is left is not shorter than the part taken away: |v| before < sqrt(2) |v|
//              after. Otherwise the rounding errors of the pass are large beside what is left, and
//              only a further pass makes it orthogonal; nearly always the second one is the last.
//   in span    |v| has fallen to a tenth of a rounding unit of what it was: its direction is noise.
//              Once, v is replaced by a multiple of a unit vector, that of the row in which Q has
//              the smallest norm. The squares of the m row norms add up to n, so that this row has
//              at most n/m, and a part of length sqrt(1 - n/m) at least stays outside of the span.
//
// The coefficients of the passes add up in r, so that v on entry is Q r + rho v on return to
// working precision. A column
// of Q is read once a pass, for its coefficient and its part alike (the classical form), so that Q
// may stand in a utility file.
//
// Work: u holds m doubles (the projection of a pass), w m doubles (a column read from the file).
#include <cmath>

#include "aasubs/record/constants.h"
#include "host/log.h"
#include "host/process.h"
#include "kernels/dense.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr long MOST_PASSES = 10;
static constexpr double ROOT_TWO = 1.4142135623730951;
static constexpr double COEFFICIENT_SHARE = 1e-8;  // of the norm removed, added to the old norm
static constexpr double SPAN_PRECISION = 1.110223024625157e-17;
static constexpr int FEWER_ROWS = -1;
static constexpr int ZERO_VECTOR = -2;
static constexpr int NO_CONVERGENCE = -3;

// Q as the passes see it.
struct Columns {
  int job;
  long m;
  long incq;
  const GsoBasis& basis;
  double* buffer;
};

static void work_file_failed(int rc) {
  xprrlog(0, rc);
  xexit(EXIT_WORK_FILE, 0);
}

static void rewind_columns(const Columns& q) {
  if (q.job == 0) return;
  const int rc = xcpoint(q.basis.file, 0);
  if (rc != 0) work_file_failed(rc);
}

// Column j; columns must be asked for in ascending order after a rewind.
static const double* next_column(const Columns& q, long j) {
  if (q.job == 0) return q.basis.q + j * q.incq;
  const long bytes = q.m * static_cast<long>(sizeof(double));
  const int rc = xcread(q.basis.file, q.buffer, bytes);
  if (rc != 0) work_file_failed(rc);
  return q.buffer;
}

// The row in which Q has the smallest norm, the last of equals. u is used for the sums.
static long weakest_row(const Columns& q, long n, double* u) {
  vzfdl(0.0, u, q.m);
  rewind_columns(q);
  for (long j = 0; j < n; ++j) {
    const double* column = next_column(q, j);
    for (long i = 0; i < q.m; ++i) u[i] += column[i] * column[i];
  }
  long row = 0;
  for (long i = 1; i < q.m; ++i) row = u[i] <= u[row] ? i : row;
  return row;
}

// u := Q Q'v; adds the coefficients to r unless r is null; returns the sum of their squares.
static double project(const Columns& q, long n, long incv, long incr, const double* v, double* r,
                      double* u) {
  vzfdl(0.0, u, q.m);
  double squares = 0.0;
  rewind_columns(q);
  for (long j = 0; j < n; ++j) {
    const double* column = next_column(q, j);
    const double s = zvdotj1(q.m, incv, v, column);
    if (r != nullptr) r[j * incr] += s;
    zvxay11(q.m, u, s, column);
    squares += s * s;
  }
  return squares;
}

int znlpgso(int job, long m, long n, long incq, long incv, long incr, const GsoBasis& utq,
            double* v, double* r, double* rho, double* u, double* w) {
  const Columns q{job, m, incq, utq, w};
  *rho = 0.0;
  if (m < n) return FEWER_ROWS;
  const double first_norm = zvenorm(m, incv, v);
  *rho = first_norm;
  if (!(first_norm > TINY)) return ZERO_VECTOR;
  // From here on r holds sums over the passes.
  for (long j = 0; j < n; ++j) r[j * incr] = 0.0;

  bool restarted = false;
  bool null = false;  // the result no longer has a part of v: coefficients do not count
  int code = 0;
  double norm = first_norm;
  for (long iter = 1;; ++iter) {
    const double previous = norm;
    const double squares = project(q, n, incv, incr, v, null ? nullptr : r, u);
    // Q spans everything: nothing can be left, whatever rounding says.
    if (m == n) {
      for (long i = 0; i < m; ++i) v[i * incv] = 0.0;
      norm = 0.0;
      break;
    }
    zvxayj1(m, incv, v, -1.0, u);
    norm = zvenorm(m, incv, v);
    // The share of the coefficients asks for a little more: where they are huge, their rounding is
    // in what is left.
    if (std::sqrt(squares) * COEFFICIENT_SHARE + previous < ROOT_TWO * norm) break;
    if (iter == MOST_PASSES) {
      code = NO_CONVERGENCE;
      break;
    }
    // A vector that still has a length keeps it in its new direction, so that the passes compare
    // with it; one that has none takes a direction of length 1, to which v has no part.
    if (!restarted && !(norm > first_norm * SPAN_PRECISION)) {
      restarted = true;
      const long row = weakest_row(q, n, u);
      for (long i = 0; i < m; ++i) v[i * incv] = 0.0;
      null = !(norm > TINY);
      if (null) norm = 1.0;
      v[row * incv] = norm;
      iter = 0;
    }
  }
  if (null || !(norm > TINY)) {
    *rho = 0.0;
  } else {
    for (long i = 0; i < m; ++i) v[i * incv] /= norm;
    *rho = norm;
  }
  return code;
}

}  // namespace tqnlp
