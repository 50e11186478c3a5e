// znlpfea, equalities: residuals of the constraints, the minimum-norm step onto the working set,
// and the least-distance solve.
//
// With the active rows factored as A Q = (0 T), the shortest step p with A p = r (the residuals of
// the rows) is p = Y y, T y = r, Y being the last nalc columns of Q. By Gram-Schmidt instead, with
// A = L V and orthonormal rows V, it is p = V'y, L y = r. Golub and Van Loan, Matrix Computations
// (1996), section 5.7; the repetition is iterative refinement.
//
// Layout: row r of T stands at llcn[r(r+1)/2] with its pivot first, element k belonging to column
// nfre - 1 - r + k of Q. In the Gram-Schmidt form row r of V stands at qlcn[r n], row r of L at
// llcn[r(r+1)/2] with its pivot last. Work: lagm residuals, gpro their solution, sdir the step,
// awrk one row; in the Gram-Schmidt form also work and dcds.
#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpba1.h"
#include "aasubs/constraints/znlpbas.h"
#include "aasubs/constraints/znlpfea.h"
#include "kernels/dense.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr double LARGEST_TOLERANCE = 0.001;
static constexpr double PIVOT_LIMIT = 2.2250738585072019e-308;
static constexpr int REFINEMENTS = 4;
static constexpr double WORTHWHILE = 0.5;  // a refinement must bring the residual below this share

// ---- Constraints by code ----------------------------------------------------------------------

double residual_tolerance(double b, double eps) {
  return std::max((std::fabs(b) + 1.0) * eps, eps);
}

long admitted_constraints(const MINSTR* str, long kcon) {
  const long all = str->nvar + str->ncon;
  return kcon < 0 ? all : std::min(kcon, all);
}

double constraint_side(const MINSTR* str, long c) {
  const long n = str->nvar;
  if (c < n) return str->lb[c];
  return c < 2 * n ? str->ub[c - n] : str->blcn[c - 2 * n];
}

double constraint_residual(MINSTR* str, long c) {
  const long n = str->nvar;
  if (c < n) return lower_exists(str->lb[c]) ? str->x[c] - str->lb[c] : HUGE_VALUE;
  if (c < 2 * n) return upper_exists(str->ub[c - n]) ? str->ub[c - n] - str->x[c - n] : HUGE_VALUE;
  str->acget(str, c - 2 * n, str->awrk);
  return zvdot11(n, str->awrk, str->x) - str->blcn[c - 2 * n];
}

void constraint_normal(MINSTR* str, long c, double* normal) {
  const long n = str->nvar;
  if (c >= 2 * n) {
    str->acget(str, c - 2 * n, normal);
    return;
  }
  vzfdl(0.0, normal, n);
  normal[c < n ? c : c - n] = c < n ? 1.0 : -1.0;
}

void split_code(const MINSTR* str, long c, int* koc, long* ic) {
  const long n = str->nvar;
  *koc = c < n ? 1 : c < 2 * n ? -1 : 0;
  *ic = c < n ? c : c < 2 * n ? c - n : c - 2 * n;
}

bool in_working_set(const MINSTR* str, long c) {
  const long n = str->nvar;
  if (c < 2 * n) return str->iabc[c < n ? c : c - n] != 0;
  return std::find(str->iact, str->iact + str->nalc, c - 2 * n) != str->iact + str->nalc;
}

void keep_fixed_bounds(MINSTR* str) {
  str->nabc = 0;
  for (long j = 0; str->bounds != 0 && j < str->nvar; ++j) {
    if (str->iabc[j] == 2) {
      ++str->nabc;
    } else {
      str->iabc[j] = 0;
    }
  }
}

// ---- Minimum-norm step onto the working set ---------------------------------------------------

static void move_onto_bounds(MINSTR* str) {
  for (long j = 0; str->bounds != 0 && j < str->nvar; ++j) {
    if (str->iabc[j] != 0) str->x[j] = str->iabc[j] < 0 ? str->ub[j] : str->lb[j];
  }
}

// Residuals b - a'x of the first count rows of iact. Returns the largest magnitude.
static double missing_to_rows(MINSTR* str, long count, double* residual) {
  for (long r = 0; r < count; ++r) {
    const long i = str->iact[r];
    str->acget(str, i, str->awrk);
    residual[r] = str->blcn[i] - zvdot11(str->nvar, str->awrk, str->x);
  }
  return zvamx(count, residual);
}

// y := solution of T y = rhs. Returns 0, or the number of a singular row.
static int solve_reversed(const MINSTR* str, long count, const double* rhs, double* y) {
  for (long r = 0; r < count; ++r) {
    const double* row = str->llcn + packed_size(r);
    if (!(std::fabs(row[0]) > PIVOT_LIMIT)) return static_cast<int>(r + 1);
    double sum = rhs[r];
    for (long k = 1; k <= r; ++k) sum -= row[k] * y[r - k];
    y[r] = sum / row[0];
  }
  return 0;
}

// x += Y y, with y in the order of the rows of T, whose pivots fill Q from its last column on.
static void step_in_range_space(MINSTR* str, long count, const double* y) {
  const long free = str->nvar - str->nabc;
  for (long l = 0; l < free; ++l) {
    const double* row = str->qlcn + l * str->nvar + free - 1;
    double sum = 0.0;
    for (long r = 0; r < count; ++r) sum += row[-r] * y[r];
    str->x[str->ifxr[l]] += sum;
  }
}

int settle_on_working_set(MINSTR* str) {
  const long count = str->nalc;
  move_onto_bounds(str);
  if (count == 0) return 0;
  double left = missing_to_rows(str, count, str->lagm);
  for (int k = 0; k < REFINEMENTS && left > 0.0; ++k) {
    const int singular = solve_reversed(str, count, str->lagm, str->gpro);
    if (singular != 0) return singular;
    step_in_range_space(str, count, str->gpro);
    const double next = missing_to_rows(str, count, str->lagm);
    if (!(next < WORTHWHILE * left)) break;
    left = next;
  }
  return 0;
}

// ---- Gram-Schmidt form ------------------------------------------------------------------------

// Orthonormal rows and triangle of the rows of iact on the free parameters. Rows of which nothing
// remains are left out: the others move to the front of iact. Returns the number of the others;
// weakest receives the smallest share of a row's length that remains of it.
static long orthonormal_rows(MINSTR* str, long free, double* weakest) {
  const long n = str->nvar;
  const GsoBasis basis{str->qlcn, nullptr};
  long accepted = 0;
  *weakest = 1.0;
  for (long r = 0; r < str->nalc; ++r) {
    double* v = str->work;
    double* coefficients = str->dcds;
    str->acget(str, str->iact[r], str->awrk);
    for (long l = 0; l < free; ++l) v[l] = str->awrk[str->ifxr[l]];
    const double length = zvenorm(free, 1, v);
    double residual = 0.0;
    const int failed = znlpgso(0, free, accepted, n, 1, 1, basis, v, coefficients, &residual,
                               str->sdir, str->gpro);
    if (failed != 0 || !(residual >= TINY)) continue;
    *weakest = std::min(*weakest, residual / length);
    double* row = str->llcn + packed_size(accepted);
    std::copy_n(coefficients, accepted, row);
    row[accepted] = residual;
    std::copy_n(v, free, str->qlcn + accepted * n);
    std::swap(str->iact[accepted], str->iact[r]);
    ++accepted;
  }
  return accepted;
}

// One minimum-norm step through Gram-Schmidt rows. Returns as doequc.
static int step_by_orthonormal_rows(MINSTR* str) {
  const long n = str->nvar;
  const long nalc = str->nalc;
  // ifxr is only needed here as a list of the parameters without a status.
  long free = 0;
  for (long j = 0; j < n; ++j) {
    if (str->bounds == 0 || str->iabc[j] == 0) str->ifxr[free++] = j;
  }
  move_onto_bounds(str);
  double weakest;
  const long rows = orthonormal_rows(str, free, &weakest);
  // Of a dependent row little more than rounding remains, and a step along that would lead far off:
  // such rows are left to the rotations, which defer them.
  if (rows == 0 || !(weakest > str->ldct)) {
    std::sort(str->iact, str->iact + nalc);
    return 0;
  }
  missing_to_rows(str, rows, str->lagm);
  const int singular = znlpqts(1, rows, PIVOT_LIMIT, str->llcn, str->lagm, str->gpro);
  std::sort(str->iact, str->iact + nalc);
  if (singular != 0) return singular;
  for (long r = 0; r < rows; ++r) {
    const double* v = str->qlcn + r * n;
    for (long l = 0; l < free; ++l) str->x[str->ifxr[l]] += str->gpro[r] * v[l];
  }
  return 0;
}

int doequc(MINSTR* str, int job) {
  int singular = 0;
  if (job > 0) singular = step_by_orthonormal_rows(str);
  znlpfta(str, 0, 0, 0, nullptr, nullptr, nullptr);
  return singular != 0 ? singular : settle_on_working_set(str);
}

// ---- Test of the equalities -------------------------------------------------------------------

// Is parameter j off the value or the bound that its status names?
static bool off_its_bound(const MINSTR* str, long j, double eps) {
  const double lb = str->lb[j];
  const double ub = str->ub[j];
  if (str->iabc[j] == 2) return std::fabs(str->x[j] - lb) > std::fabs(lb) * eps;
  if (str->iabc[j] > 0) return str->x[j] - lb < -residual_tolerance(lb, eps);
  return str->iabc[j] < 0 && ub - str->x[j] < -residual_tolerance(ub, eps);
}

long tsteqc(MINSTR* str, int jeps) {
  const double eps = std::min(feasibility_tolerance(str, str->ipre + jeps), LARGEST_TOLERANCE);
  long violated = 0;
  for (long j = 0; str->bounds != 0 && j < str->nvar; ++j) {
    if (off_its_bound(str, j, eps)) ++violated;
  }
  for (long i = 0; i < str->neqc; ++i) {
    const double r = constraint_residual(str, 2 * str->nvar + i);
    if (!(std::fabs(r) <= (std::fabs(str->blcn[i]) + 1.0) * eps)) ++violated;
  }
  return violated;
}

// ---- Least distance ---------------------------------------------------------------------------

int dolcq(MINSTR* str) {
  static constexpr double UNIT_HESSIAN = 2.0;  // of y'y
  for (long j = 0; j < str->nvar; ++j) str->grad[j] = -UNIT_HESSIAN * str->x[j];
  return znlplcq(str, 1, 0, UNIT_HESSIAN, str->grad, nullptr, nullptr);
}

// The working set of fixed parameters and linear equalities alone, with its frame.
static void frame_of_equalities(MINSTR* str) {
  keep_fixed_bounds(str);
  str->nalc = str->neqc;
  for (long i = 0; i < str->neqc; ++i) str->iact[i] = i;
  znlpfta(str, 0, 0, 0, nullptr, nullptr, nullptr);
}

int reach_equalities(MINSTR* str, int job) {
  // The doubled negative point is exact, so that the point of entry comes back unchanged from it.
  for (long j = 0; j < str->nvar; ++j) str->grad[j] = -2.0 * str->x[j];
  const int singular = doequc(str, job);
  if (tsteqc(str, 0) == 0 && singular == 0) return 0;

  for (long j = 0; j < str->nvar; ++j) str->x[j] = -0.5 * str->grad[j];
  dolcq(str);
  if (tsteqc(str, 0) != 0) return -3;
  frame_of_equalities(str);
  return 0;
}

}  // namespace tqnlp
