// znlpgan, the choice of the step: full Gauss-Newton, a lower dimension, or Newton.
//
// A full Gauss-Newton step is right while it converges fast: while the last step delivered what
// the linear model promised, or beta, the part of the residuals that Gauss-Newton can remove, falls
// quickly. Otherwise the Jacobian is taken for nearly rank deficient, and the step is the minimum
// in the subspace of the leading variables of the pivot order; the dimension is chosen so that the
// step becomes much shorter while it still removes most of what can be removed. Where beta is
// small beside the residuals the trouble is their curvature, and second derivatives are called for.
//
// A Newton step that succeeded is followed by another: to go back would lose its fast convergence.
// The method leaves Newton steps when one fails, or when a variable is released.
#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba1.h"
#include "aasubs/leastsquares/znlpgan.h"
#include "kernels/dense.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr long NEWTON_WANTED = -2;
static constexpr int NEWTON_FORBIDDEN = -4;
static constexpr int NO_RIDGE = -3;
static constexpr double LARGEST_RIDGE = 1073741824.0;
static constexpr double RIDGE_GROWTH = 4.0;
static constexpr int LLT = 2;  // form of the Newton matrix's factor

// ---- Kind of the step ---------------------------------------------------------------------------

// The kind of the step before the last one that was tried.
static long kind_before(const GNSTR* g) { return g->rest != 0 ? g->kod1 : g->kod2; }

static constexpr double SHORT_STEP = 0.016;  // of the step limit

// Was the last full step good enough to be followed by another? A short one was not, however well
// it kept its small promise: near a singular Jacobian such steps would go on for ever.
static bool converges_fast(const GNSTR* g) {
  static constexpr double FAST = 0.5;          // beta against that of the last point
  static constexpr double FAIR_SHARE = 0.1;    // of what the linear model promised
  static constexpr double NEAR_MINIMUM = 4.0;  // |F| against beta
  if (g->beta < FAST * g->bet1) return true;
  const double t = std::min(g->alf1, 1.0);
  const bool delivered = g->fsq1 - g->fsum > FAIR_SHARE * t * (2.0 - t) * g->d1m1;
  return delivered && std::sqrt(g->fsum) < NEAR_MINIMUM * g->beta &&
         g->alf1 >= SHORT_STEP * g->aup1;
}

// GN_FULL, GN_SUBSPACE or NEWTON_WANTED, for a step that does not follow a Newton step.
static long choose_kind(const GNSTR* g) {
  static constexpr double EXHAUSTED = 0.1;  // of beta
  static constexpr double LARGE_RESIDUALS = 10.0;
  const bool newton_before = is_newton(kind_before(g));
  const bool exhausted = g->pre1 < EXHAUSTED * g->beta;
  if (g->rest != 0) return !newton_before && exhausted ? NEWTON_WANTED : GN_SUBSPACE;
  if (g->minstr->nitr == 0.0 || g->imax != 0) return GN_FULL;
  if (g->kod == GN_SUBSPACE) {
    if (newton_before || g->alf1 >= SHORT_STEP * g->aup1) return GN_SUBSPACE;
    return exhausted ? NEWTON_WANTED : GN_SUBSPACE;
  }
  if (converges_fast(g)) return GN_FULL;
  const bool large = g->beta * LARGE_RESIDUALS < std::sqrt(g->fsum);
  return large && !newton_before ? NEWTON_WANTED : GN_SUBSPACE;
}

// What the dimension below that of the last step can remove at this point; one lower still when a
// bound took a variable from it. Before the first step: all.
static void predict_below_last_dimension(GNSTR* g) {
  g->pre1 = g->beta;
  if (g->minstr->nitr == 0.0 || g->full == 0) return;
  const long dimension = std::min(g->alf1 == g->aup1 ? g->rng1 - 2 : g->rng1 - 1, g->full);
  g->pre1 = dimension > 0 ? g->redc[dimension - 1] : 0.0;
}

// ---- Dimension ----------------------------------------------------------------------------------

// b and c at a dimension.
static double step_at(const GNSTR* g, long dimension) { return g->stepb[dimension - 1]; }
static double removed_at(const GNSTR* g, long dimension) { return g->redc[dimension - 1]; }

static constexpr double LEAST_REMOVED = 0.1;  // of the full dimension's

// The lowest dimension that still removes something worth having.
static long lowest_dimension(const GNSTR* g) {
  long k = 1;
  while (k < g->full && removed_at(g, k) <= LEAST_REMOVED * g->beta) ++k;
  return k;
}

// After a step at the full dimension: the largest lower one whose step is much shorter and removes
// most; failing that one less than full.
static long dimension_after_full(const GNSTR* g) {
  static constexpr double MUCH_SHORTER = 0.2;
  static constexpr double MOST_REMOVED = 0.5;
  const long lowest = lowest_dimension(g);
  const long below = std::max(g->full - 1, 1L);
  long k = below;
  const auto cuts = [g](long dimension) {
    return step_at(g, dimension) < MUCH_SHORTER * step_at(g, g->full) &&
           removed_at(g, dimension) > MOST_REMOVED * g->beta;
  };
  while (k > lowest && !cuts(k)) --k;
  return k > lowest || cuts(k) ? std::max(k, lowest) : std::max(lowest, below);
}

// After a step at a lower dimension: lower still when that step was a bad one; the same while it
// removes enough; otherwise raised until it does.
static long dimension_after_subspace(const GNSTR* g) {
  static constexpr double BAD_STEP = 0.2;
  static constexpr double BAD_PROGRESS = 0.3;  // against what the step promised
  static constexpr double BAD_SHARE = 0.1;     // against beta
  static constexpr double ENOUGH_REMOVED = 0.7;
  const double progress = std::sqrt(std::max(g->fsq1 - g->fsum, 0.0));
  const long last = std::min(g->rng1, g->full);
  const bool bad = g->alf1 < BAD_STEP && progress <= BAD_PROGRESS * std::sqrt(g->d1m1) &&
                   progress <= BAD_SHARE * g->bet1;
  if (bad && last > 1 && removed_at(g, last - 1) > LEAST_REMOVED * g->beta) return last - 1;
  const double enough = ENOUGH_REMOVED * g->beta;
  if (last < 1 || last == g->full) return g->full;
  long k = last;
  while (k < g->full && removed_at(g, k) <= enough) ++k;
  return k;
}

// A retry: one dimension less than the latest trial, until a trial does worse than the best one;
// that is then repeated. Trials that gained nothing at all are no reason to stop before
// dimension 1.
static long dimension_of_retry(GNSTR* g) {
  const double progress = g->fsum / 2.0 - g->philat;
  if (g->icount < 2 || progress > g->bestpg) {
    g->bestpg = progress;
    g->irank = g->lattry;
  } else if (g->bestpg > 0.0) {
    g->lattry = 0;
    return g->irank;
  }
  if (g->lattry > 1) return g->lattry - 1;
  g->lattry = 0;
  return g->irank;
}

static long choose_dimension(GNSTR* g) {
  if (g->rest != 0 && g->icount > 0) return dimension_of_retry(g);
  return g->kod == GN_SUBSPACE ? dimension_after_subspace(g) : dimension_after_full(g);
}

// The variable that was released for a step that failed returns to its bound.
static void take_back_release(GNSTR* g) {
  MINSTR* str = g->minstr;
  if (g->imax == 0 || !g->joined) return;
  str->iabc[g->imax - 1] = g->held[g->imax - 1] = g->ival;
  ++str->nabc;
  g->imax = 0;
  g->joined = false;
  --g->full;
  --g->free;
  g->beta = g->full > 0 ? g->redc[g->full - 1] : 0.0;
  g->lattry = std::min(g->lattry, g->full + 1);
  znlpinc(str, 0);
}

// ---- Newton -------------------------------------------------------------------------------------

// The scaled Newton matrix over the free variables, J'J and the second-order part, into the leading
// part of hess, which holds the latter.
static void form_newton_matrix(GNSTR* g) {
  MINSTR* str = g->minstr;
  const long n = str->nvar;
  long order = 0;
  for (long j = 0; j < n; ++j) {
    if (!is_free(str, j)) continue;
    double* row = str->hess + packed_size(order);
    long column = 0;
    for (long k = 0; k <= j; ++k) {
      if (!is_free(str, k)) continue;
      const double product = zvdotjj(str->mequ, n, g->jac + j, n, g->jac + k);
      const double scale = variable_scale(str, j) * variable_scale(str, k);
      row[column++] = (str->hess[zisub(j, k)] + product) / scale;
    }
    ++order;
  }
}

// Factors the matrix in hess with the smallest ridge from the present one on that makes it positive
// definite. Returns 0 or -3.
static int factor_with_ridge(GNSTR* g) {
  MINSTR* str = g->minstr;
  for (;;) {
    std::copy_n(str->hess, packed_size(g->free), g->factor);
    for (long k = 0; k < g->free; ++k) g->factor[zisub(k, k)] += str->ridg;
    if (znlpcde(str, LLT, g->free, str->sing, nullptr, g->factor, g->factor, nullptr) == 0) {
      return 0;
    }
    str->ridg = str->ridg > 0.0 ? RIDGE_GROWTH * str->ridg : g->rs;
    if (!(str->ridg < LARGEST_RIDGE)) return NO_RIDGE;
  }
}

// The step from the factor, into sdir.
static void solve_newton(GNSTR* g) {
  MINSTR* str = g->minstr;
  long order = 0;
  for (long j = 0; j < str->nvar; ++j) {
    if (is_free(str, j)) g->pick[order++] = -str->grad[j] / variable_scale(str, j);
  }
  znlpcso(str, LLT, g->free, g->factor, g->pick);
  order = 0;
  double slope = 0.0;
  for (long j = 0; j < str->nvar; ++j) {
    str->sdir[j] = is_free(str, j) ? g->pick[order++] / variable_scale(str, j) : 0.0;
    slope += str->sdir[j] * str->grad[j];
  }
  g->d1sqs = -slope;
  g->snrm = zvenorm(str->nvar, 1, str->sdir);
}

// Returns 0; NEWTON_FORBIDDEN, NO_RIDGE; 1: second derivatives could not be had.
static int newton_step(GNSTR* g) {
  MINSTR* str = g->minstr;
  if (g->sec == 0) return NEWTON_FORBIDDEN;
  const int failed = hesse(str, str->fold);
  std::copy_n(str->fold, str->mequ, str->func);
  str->tbig = 0.0;
  if (failed != 0) return 1;
  form_newton_matrix(g);
  const int code = factor_with_ridge(g);
  if (code != 0) return code;
  solve_newton(g);
  g->kod = str->ridg > 0.0 ? GN_RIDGED : GN_NEWTON;
  g->prank = g->lattry = g->full;
  g->rest = 0;
  return 0;
}

// ---- The decision -------------------------------------------------------------------------------

// Gauss-Newton at this dimension. A retry that repeats its best trial keeps the mark of the last.
static int gauss_newton_step(GNSTR* g, long kind, long rank) {
  const bool last_trial = g->rest != 0 && g->lattry == 0;
  rank = std::min(rank, g->full);  // the best trial may have had a variable that was taken back
  gndunc(g, &rank, &g->d1sqs);
  g->kod = kind;
  g->prank = rank;
  if (!last_trial) g->lattry = rank;
  g->rest = 0;
  return 0;
}

// Does the step follow a Newton step? go_back: after one that failed, or at the start, or with a
// released variable, Gauss-Newton is tried first.
static bool follows_newton(GNSTR* g, bool* go_back) {
  *go_back = false;
  if (!is_newton(g->kod)) return false;
  if (g->rest != 0) g->kod1 = g->kod;
  *go_back = g->rest != 0 || g->minstr->nitr == 0.0 || g->imax != 0;
  return true;
}

int analuc(GNSTR* g) {
  predict_below_last_dimension(g);
  bool go_back = false;
  long kind = NEWTON_WANTED;
  if (follows_newton(g, &go_back)) {
    if (go_back) {
      g->rest = 0;
      return gauss_newton_step(g, GN_FULL, g->full);
    }
  } else {
    kind = choose_kind(g);
    if (g->rest != 0 && g->icount == 1) take_back_release(g);
  }
  if (kind == NEWTON_WANTED) {
    const int code = newton_step(g);
    if (code <= 0) return code;
  }
  if (kind == GN_FULL || g->full == 0) return gauss_newton_step(g, GN_FULL, g->full);
  return gauss_newton_step(g, GN_SUBSPACE, choose_dimension(g));
}

}  // namespace tqnlp
