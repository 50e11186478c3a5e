// znlpldc: Linear Dependence of the Constraints. Takes redundant rows out of the linear constraint
// matrix before a run starts.
//
//   1  duplicates: a later row that agrees with an earlier one in every coefficient and in the
//      right side, up to a few units of rounding, is removed
//   2  parameters with equal bounds are put aside, so that their coefficients do not count
//   3  equalities that depend linearly on earlier ones are removed: through the orthogonal factor
//      A Q = (0 T), built up row by row with Givens rotations (donsp: null-space form), or by
//      Gram-Schmidt orthogonalization (dorsp: range-space form). Golub and Van Loan, Matrix
//      Computations (1996), chapter 5. A dependent row whose right side contradicts the others is
//      not redundant and stays.
//
// Work: liwk marks (0 keep, -1 remove); awrk the row at hand; work the second row of a comparison,
// or the row through Q; dcds one sweep of rotations; qlcn and llcn the factor, or qlcn (utq) the
// orthonormal rows with grad their coefficients and gold, sdir scratch of the kernel; xold a point
// on the equalities accepted so far.
#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba1.h"
#include "aasubs/reports/znlppre.h"
#include "host/files.h"
#include "host/log.h"
#include "host/process.h"
#include "kernels/dense.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr double SAME_FLOOR = 2.2250738585072018e-307;
static constexpr double SAME_RATIO = 1.110223024625157e-15;

// Right sides of dependent rows agree up to this multiple of the tolerance of feasibility, and this
// share of the terms of the row.
static constexpr double AGREEMENT_RATIO = 10.0;
static constexpr double ROUNDING_RATIO = 1e-12;

static constexpr long REMOVE = -1;

static constexpr int MESSAGE_DUPLICATES = 50;
static constexpr int MESSAGE_DEPENDENT = 51;
static constexpr int REPORT_DUPLICATES = 1;  // jobs of pricon
static constexpr int REPORT_DEPENDENT = 2;
static constexpr double REPORT_LEVEL = 2.0;

// ---- Removal of marked rows -------------------------------------------------------------------

static void move_sparse_row(long* jalc, double* alcn, long from, long to, long length) {
  std::copy(jalc + from, jalc + from + length, jalc + to);
  std::copy(alcn + from, alcn + from + length, alcn + to);
}

// Removes the rows marked in liwk from the row store; their number must be removed.
static void compress_rows(MINSTR* str, int aspa, long* jalc, long* naco, double* alcn,
                          long removed) {
  const long n = str->nvar;
  const long rows = str->ncon;
  const long equalities = str->neqc;
  long kept = 0;
  long stored = 0;  // coefficients kept so far
  long begin = 0;   // where the row at hand begins
  for (long i = 0; i < rows; ++i) {
    const long end = aspa != 0 ? naco[i] : 0;
    if (str->liwk[i] == REMOVE) {
      --str->ncon;
      --str->ntco;
      if (i < equalities) {
        --str->neqc;
        --str->ntec;
      }
    } else {
      if (aspa != 0) {
        move_sparse_row(jalc, alcn, begin, stored, end - begin);
        stored += end - begin;
        naco[kept] = stored;
      } else if (kept != i) {
        std::copy_n(alcn + i * n, n, alcn + kept * n);
      }
      str->blcn[kept++] = str->blcn[i];
    }
    begin = end;
  }
  if (kept != str->ncon || rows - kept != removed) xexit(EXIT_INCONSISTENT, 0);
}

// Tells of the marked rows and removes them. The report comes first: it shows the rows.
static void remove_marked(MINSTR* str, int aspa, long* jalc, long* naco, double* alcn, long removed,
                          int message, int report) {
  xpmlog(OPTIMIZATION, message, {removed});
  if (str->dbug > REPORT_LEVEL) pricon(str, report);
  compress_rows(str, aspa, jalc, naco, alcn, removed);
}

// ---- Duplicates -------------------------------------------------------------------------------

static bool same(double v, double other) {
  return std::fabs(other - v) <= std::max(SAME_FLOOR, SAME_RATIO * std::fabs(v));
}

// Marks every row that repeats an earlier one. Returns their number. Tolerances belong to the
// earlier row.
static long mark_duplicates(MINSTR* str) {
  const long n = str->nvar;
  long marked = 0;
  for (long i = 0; i + 1 < str->ncon; ++i) {
    if (str->liwk[i] == REMOVE) continue;
    str->acget(str, i, str->awrk);
    for (long k = i + 1; k < str->ncon; ++k) {
      if (str->liwk[k] == REMOVE || !same(str->blcn[i], str->blcn[k])) continue;
      str->acget(str, k, str->work);
      if (!std::equal(str->awrk, str->awrk + n, str->work, same)) continue;
      str->liwk[k] = REMOVE;
      ++marked;
    }
  }
  return marked;
}

// ---- Parameters with equal bounds -------------------------------------------------------------

// Sets ifxr with those parameters at its tail, and their iabc. Returns the number of the others.
static long put_fixed_aside(MINSTR* str) {
  const long n = str->nvar;
  long free = 0;
  long tail = n;
  for (long j = 0; j < n; ++j) {
    bool fixed = false;
    if (str->bounds != 0) {
      double* lb = str->lb;
      double* ub = str->ub;
      if (ub[j] < lb[j]) ub[j] = lb[j];
      fixed = lower_exists(lb[j]) && upper_exists(ub[j]) &&
              ub[j] - lb[j] <= (std::fabs(lb[j]) + 1.0) * str->ceps;
      if (fixed) ub[j] = lb[j];
      str->iabc[j] = fixed ? 2 : 0;
    }
    if (fixed) {
      str->ifxr[--tail] = j;
    } else {
      str->ifxr[free++] = j;
    }
  }
  return free;
}

// ---- Dependent equalities ---------------------------------------------------------------------

// w := Q'a on the free parameters, Q of order free with stride n.
static void carry_through(const MINSTR* str, long free, const double* row, double* w) {
  vzfdl(0.0, w, free);
  for (long l = 0; l < free; ++l) {
    const double a = row[str->ifxr[l]];
    if (a != 0.0) zvxay11(free, w, a, str->qlcn + l * str->nvar);
  }
}

// A dependent row is redundant only if its right side agrees with those of the rows that it depends
// on. xold is made a point that satisfies all rows accepted so far; what it leaves of a dependent
// row tells. A row that contradicts them stays, so that the start is found infeasible and the run
// says so.

// The parameters with equal bounds at these, the others at zero.
static void start_witness(MINSTR* str, long free) {
  vzfdl(0.0, str->xold, str->nvar);
  for (long l = free; l < str->nvar; ++l) str->xold[str->ifxr[l]] = str->lb[str->ifxr[l]];
}

// Right side of row i (in awrk) less its value at the witness.
static double witness_gap(const MINSTR* str, long i) {
  return str->blcn[i] - zvdot11(str->nvar, str->awrk, str->xold);
}

// May the dependent row i (in awrk) go? remainder is the length of what is left of it, which a move
// of the witness by its own size could still turn into a change of the row; beside that only the
// tolerance of feasibility and rounding are allowed for.
static bool agrees_with_witness(const MINSTR* str, long i, double remainder) {
  double size = 0.0;
  double farthest = 1.0;
  for (long j = 0; j < str->nvar; ++j) {
    size += std::fabs(str->awrk[j] * str->xold[j]);
    farthest = std::max(farthest, std::fabs(str->xold[j]));
  }
  const double tolerance = AGREEMENT_RATIO * str->ceps * (std::fabs(str->blcn[i]) + 1.0);
  const double allowance = tolerance + ROUNDING_RATIO * size + remainder * farthest;
  return !(std::fabs(witness_gap(str, i)) > allowance);
}

// Moves the witness along a direction of the free parameters (stride inc), which leaves the earlier
// rows as they are, until it satisfies row i; slope is the row's value along the direction.
static void satisfy_row(MINSTR* str, long i, long free, const double* direction, long inc,
                        double slope) {
  const double step = witness_gap(str, i) / slope;
  for (long l = 0; l < free; ++l) str->xold[str->ifxr[l]] += step * direction[l * inc];
}

// Dependence through Q and T. A row is dependent when its component in the null space of the rows
// before it falls to ldct times its largest component.
static long donsp(MINSTR* str, long free) {
  const long n = str->nvar;
  double* w = str->work;
  double* cosines = str->dcds;
  double* sines = str->dcds + n;
  vzfdl(0.0, str->qlcn, n * n);
  for (long l = 0; l < free; ++l) str->qlcn[l * n + l] = 1.0;

  start_witness(str, free);
  long accepted = 0;
  long dependent = 0;
  for (long i = 0; i < str->neqc; ++i) {
    const long null_space = free - accepted;
    bool is_dependent = null_space <= 0;
    str->acget(str, i, str->awrk);
    if (!is_dependent) {
      carry_through(str, free, str->awrk, w);
      const double threshold = str->ldct * zvamx(free, w);
      for (long k = 0; k + 1 < null_space; ++k) {
        zgivcon(&w[k + 1], &w[k], &cosines[k], &sines[k]);
      }
      is_dependent = !(std::fabs(w[null_space - 1]) > threshold);
    }
    if (is_dependent) {
      const double remainder = null_space > 0 ? std::fabs(w[null_space - 1]) : 0.0;
      if (!agrees_with_witness(str, i, remainder)) continue;
      str->liwk[i] = REMOVE;
      ++dependent;
      continue;
    }
    for (long k = 0; k + 1 < null_space; ++k) {
      zgivapl(free, n, n, cosines[k], sines[k], str->qlcn + k + 1, str->qlcn + k);
    }
    std::copy_n(w + null_space - 1, accepted + 1, str->llcn + packed_size(accepted));
    satisfy_row(str, i, free, str->qlcn + null_space - 1, n, w[null_space - 1]);
    ++accepted;
  }
  return dependent;
}

static void check_file(int status) {
  if (status == 0) return;
  xprrlog(0, status);
  xexit(EXIT_WORK_FILE, 0);
}

// Dependence through Gram-Schmidt rows. A row is dependent when nothing of it remains, or no more
// than the share ldct of its length: of an exactly dependent row rounding leaves a little, and as a
// member of the basis that little would make independent rows look dependent.
static long dorsp(MINSTR* str, long free, int opro) {
  const long n = str->nvar;
  const long row_bytes = free * static_cast<long>(sizeof(double));
  bool opened = false;
  if (str->qlcn == nullptr && str->utq == nullptr) {
    const WorkFileOptions options{row_bytes};
    check_file(xcopen(&str->utq, &options));
    opened = true;
  }
  const GsoBasis basis{str->qlcn, str->utq};
  const int in_file = str->utq != nullptr ? 1 : 0;

  start_witness(str, free);
  long accepted = 0;
  long dependent = 0;
  for (long i = 0; i < str->neqc; ++i) {
    double* v = str->work;
    str->acget(str, i, str->awrk);
    for (long l = 0; l < free; ++l) v[l] = str->awrk[str->ifxr[l]];
    const double threshold = std::max(TINY, str->ldct * zvenorm(free, 1, v));
    double residual = 0.0;
    const int failed = znlpgso(in_file, free, accepted, n, 1, 1, basis, v, str->grad, &residual,
                               str->gold, str->sdir);
    if (failed != 0 || !(residual >= threshold)) {
      if (!agrees_with_witness(str, i, failed != 0 ? 0.0 : residual)) continue;
      str->liwk[i] = REMOVE;
      ++dependent;
      continue;
    }
    if (in_file != 0) {
      check_file(xcpoint(str->utq, accepted * row_bytes));
      check_file(xcwrite(str->utq, v, row_bytes));
    } else {
      std::copy_n(v, free, str->qlcn + accepted * n);
    }
    satisfy_row(str, i, free, v, 1, residual);
    ++accepted;
  }
  // Only the range-space frame goes on with the file.
  if (opened && opro != 2) {
    check_file(xcclose(str->utq, 1));
    str->utq = nullptr;
  }
  return dependent;
}

int znlpldc(MINSTR* str, int opro, int aspa, long* jalc, long* naco, double* alcn) {
  std::fill_n(str->liwk, str->ncon, 0L);
  const long duplicates = mark_duplicates(str);
  if (duplicates > 0) {
    remove_marked(str, aspa, jalc, naco, alcn, duplicates, MESSAGE_DUPLICATES, REPORT_DUPLICATES);
  }

  const long free = put_fixed_aside(str);
  if (str->neqc <= 0) return 0;
  std::fill_n(str->liwk, str->ncon, 0L);
  const long dependent = opro == 1 ? donsp(str, free) : dorsp(str, free, opro);
  if (dependent > 0) {
    remove_marked(str, aspa, jalc, naco, alcn, dependent, MESSAGE_DEPENDENT, REPORT_DEPENDENT);
  }
  return 0;
}

}  // namespace tqnlp
