// znlpgan, the direction: Jacobian, factors, the variable to release, Gauss-Newton steps of any
// dimension.
//
// With J D^-1 P = Q R the step of dimension k solves the leading k x k part of R with the first k
// elements of -Q'F. It is the minimum of |F + J d| in the subspace of the k variables pivoted first
// and removes just those k elements from the residuals; b and c of the record tell for each
// dimension how long it is and how much it removes.
#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba1.h"
#include "aasubs/derivatives/znlpfid.h"
#include "aasubs/leastsquares/znlpgan.h"
#include "aasubs/loop/loads.h"
#include "kernels/dense.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr int TO_QT = 3;                            // zqrform: b := Q'b
static constexpr int SOLVE_R = 1;                          // zqrsol
static constexpr double INDEPENDENT = 1.0000000105367122;  // 1 + root of the rounding unit
static constexpr double WORTH_A_RELEASE = 1.1;             // growth of the predicted reduction

// ---- Derivatives --------------------------------------------------------------------------------

static bool has_jacobian(const MINSTR* str) {
  return str->usjac != nullptr && str->utjacm != nullptr;
}

// Columns whose distance from the others is below this share of the largest one count as dependent:
// the accuracy of the Jacobian. Columns that are nearly dependent are left to the choice of the
// dimension, which sees the residuals too.
static double rank_tolerance(const MINSTR* str) {
  static constexpr int JACOBIAN_DIGIT = 1;
  const bool supplied = has_jacobian(str) && fidi_digit(str->fidi, JACOBIAN_DIGIT) == 0;
  return supplied ? HUNDRED_EPS : std::max(HUNDRED_EPS, str->sing);
}

static bool load_jacobian(GNSTR* g) {
  MINSTR* str = g->minstr;
  if (!has_jacobian(str)) return jacdif(str, g->jac) == 0;
  if (!evaluate(str, ORDER_GRADIENT, str->usjac)) return false;
  znlpjrd(str, g->jac);
  return true;
}

// grad := J'F and the column norms. False: they hold a number that is none.
static bool measure_columns(GNSTR* g) {
  MINSTR* str = g->minstr;
  const long n = str->nvar;
  vzfdl(0.0, str->grad, n);
  for (long i = 0; i < str->mequ; ++i) zvxay11(n, str->grad, str->func[i], g->jac + i * n);
  bool finite = true;
  for (long j = 0; j < n; ++j) {
    g->norms[j] = zvenorm(str->mequ, n, g->jac + j);
    finite = finite && std::isfinite(g->norms[j]) && std::isfinite(str->grad[j]);
    if (str->hesc != 0) str->dsca[j] = g->norms[j] > 0.0 ? g->norms[j] : 1.0;
  }
  return finite;
}

// ---- Working set --------------------------------------------------------------------------------

static void list_free(GNSTR* g) {
  MINSTR* str = g->minstr;
  g->free = 0;
  for (long j = 0; j < str->nvar; ++j) {
    if (is_free(str, j)) str->iwk[g->free++] = j;
  }
  str->nabc = str->nvar - g->free;
  if (str->bounds != 0) znlpinc(str, 0);
}

// Does the gradient pull variable j away from the bound that holds it?
static bool pulls_inside(const MINSTR* str, long j) {
  return str->bounds != 0 && std::abs(str->iabc[j]) == 1 && str->grad[j] * str->iabc[j] < 0.0;
}

// gmax counts the bound variables that should be released: a point is not optimal before they are.
static void measure_gradient(GNSTR* g, double* gnrm) {
  MINSTR* str = g->minstr;
  double squares = 0.0;
  str->gmax = str->gcri = 0.0;
  for (long j = 0; j < str->nvar; ++j) {
    const bool free = is_free(str, j);
    if (!free && !pulls_inside(str, j)) continue;
    const double size = std::fabs(str->grad[j]);
    str->gmax = std::max(str->gmax, size);
    if (g->norms[j] > 0.0 && str->crit > 0.0) {
      str->gcri = std::max(str->gcri, size / (g->norms[j] * std::sqrt(str->crit)));
    }
    if (free) squares += size * size;
  }
  *gnrm = std::sqrt(squares);
}

// ---- Factors ------------------------------------------------------------------------------------

// Column j of J, scaled, with stride inc.
static void scaled_column(const GNSTR* g, long j, long inc, double* target) {
  const MINSTR* str = g->minstr;
  const double scale = variable_scale(str, j);
  for (long i = 0; i < str->mequ; ++i) target[i * inc] = g->jac[i * str->nvar + j] / scale;
}

// The factors over the free variables.
static void factor_free(GNSTR* g) {
  MINSTR* str = g->minstr;
  const long n = str->nvar;
  const long m = str->mequ;
  list_free(g);
  double largest = 0.0;
  for (long k = 0; k < g->free; ++k) {
    scaled_column(g, str->iwk[k], n, g->qr + k);
    largest = std::max(largest, zvenorm(m, n, g->qr + k));
    str->ipiv[k] = 0;
  }
  const long nullity = zqrdec(m, g->free, 0, n, 1, str->ipiv, rank_tolerance(str) * largest, g->qr,
                              nullptr, g->diag, g->sums);
  g->full = std::min(m, g->free) - nullity;
  for (long k = 0; k < g->free; ++k) str->ipiv[k] = str->iwk[str->ipiv[k]];
  for (long i = 0; i < m; ++i) g->qf[i] = -str->func[i];
  zqrform(TO_QT, m, g->full, 1, n, 1, g->qr, g->qf, g->qf, nullptr, nullptr, g->h);
}

// What becomes of the predicted reduction when variable j is released: the square of the part of
// the residuals that its column removes beyond the others. 0 when it must stay.
static double gain_of_release(GNSTR* g, long j) {
  MINSTR* str = g->minstr;
  const long m = str->mequ;
  const long rest = m - g->full;
  scaled_column(g, j, 1, g->column);
  const double length = zvenorm(m, 1, g->column);
  if (rest <= 0 || !(length > TINY)) return 0.0;
  zqrform(TO_QT, m, g->full, 1, str->nvar, 1, g->qr, g->column, g->column, nullptr, nullptr, g->h);
  const double* beyond = g->column + g->full;
  const double outside = zvenorm(rest, 1, beyond);
  if (!(1.0 + outside / length > INDEPENDENT)) return 0.0;
  const double e = zvdot11(rest, beyond, g->qf + g->full) / outside;
  return e * str->iabc[j] > 0.0 ? e * e : 0.0;
}

// Brings the column of the released variable, as Q' made it, to the end of the triangle. The
// columns that were found dependent stay behind it and are not used.
static void join_column(GNSTR* g, long j) {
  MINSTR* str = g->minstr;
  const long n = str->nvar;
  const long m = str->mequ;
  const long place = g->full;
  scaled_column(g, j, 1, g->column);
  zqrform(TO_QT, m, place, 1, n, 1, g->qr, g->column, g->column, nullptr, nullptr, g->h);
  for (long i = 0; i < m; ++i) {
    g->qr[i * n + g->free] = g->qr[i * n + place];
    g->qr[i * n + place] = g->column[i];
  }
  str->ipiv[g->free] = str->ipiv[place];
  str->ipiv[place] = j;
  double* corner = g->qr + place * n + place;
  zqrdec(m - place, 1, 0, n, 1, nullptr, 0.0, corner, nullptr, g->diag + place, g->sums + place);
  zqrform(TO_QT, m - place, 1, 1, n, 1, corner, g->qf + place, g->qf + place, nullptr, nullptr,
          g->h);
  ++g->free;
  ++g->full;
  --str->nabc;
  g->joined = true;
}

// Releases the bound variable that promises most, if it adds a tenth to the predicted reduction.
static void release_one(GNSTR* g) {
  MINSTR* str = g->minstr;
  g->imax = 0;
  g->joined = false;
  const double without = zvdot11(g->full, g->qf, g->qf);
  double best = 0.0;
  for (long j = 0; j < str->nvar; ++j) {
    if (!pulls_inside(str, j)) continue;
    const double gain = gain_of_release(g, j);
    if (!(without + gain > WORTH_A_RELEASE * without && gain > best)) continue;
    best = gain;
    g->imax = j + 1;
  }
  if (g->imax == 0) return;
  const long j = g->imax - 1;
  g->ival = str->iabc[j];
  str->iabc[j] = 0;
  join_column(g, j);
  znlpinc(str, 0);
}

// b and c: at each dimension the length of the step, from the diagonal of R alone, and what it
// removes from the residuals.
static void measure_dimensions(GNSTR* g) {
  const MINSTR* str = g->minstr;
  double step = 0.0;
  double removed = 0.0;
  for (long k = 0; k < g->full; ++k) {
    step = std::hypot(step, g->qf[k] / g->diag[k] / variable_scale(str, str->ipiv[k]));
    removed = std::hypot(removed, g->qf[k]);
    g->stepb[k] = step;
    g->redc[k] = removed;
  }
}

int soliuc(GNSTR* g, long* prank, double* d1sqs, double* beta, double* gnrm) {
  MINSTR* str = g->minstr;
  if (!refresh_saved_results(str)) return -1;
  if (!load_jacobian(g) || !measure_columns(g)) return -2;
  factor_free(g);
  if (str->bounds != 0) release_one(g);
  measure_dimensions(g);
  measure_gradient(g, gnrm);
  *prank = g->full;
  gndunc(g, prank, d1sqs);
  *beta = std::sqrt(*d1sqs);
  return 0;
}

// ---- Steps --------------------------------------------------------------------------------------

void btrunc(MINSTR* str, long prank, double* vec, double* work) {
  std::copy_n(vec, prank, work);
  vzfdl(0.0, vec, str->nvar);
  for (long k = 0; k < prank; ++k) {
    vec[str->ipiv[k]] = work[k] / variable_scale(str, str->ipiv[k]);
  }
}

int gndunc(GNSTR* g, long* rank, double* d1sqs) {
  MINSTR* str = g->minstr;
  long usable = 0;
  while (usable < *rank && std::fabs(g->diag[usable]) > TINY) ++usable;
  *rank = usable;
  zqrsol(SOLVE_R, usable, 1, str->nvar, 1, 1, nullptr, g->qr, g->qf, str->sdir, g->diag, g->h);
  btrunc(str, usable, str->sdir, g->pick);
  *d1sqs = usable > 0 ? g->redc[usable - 1] * g->redc[usable - 1] : 0.0;
  g->snrm = zvenorm(str->nvar, 1, str->sdir);
  return 0;
}

}  // namespace tqnlp
