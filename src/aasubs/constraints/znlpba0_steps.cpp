// znlpba0, steps: the first trial length of a line search, the reduced Newton and quasi-Newton
// steps, the step bent along the bounds, and the clipping of a point to its bounds.
//
// Bending a step follows the projected search of Bertsekas (1982), SIAM J. Control and Optimization
// 20, for bounds: the components that a trial length carries past a bound end on it.

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpba1.h"
#include "kernels/dense.h"

namespace tqnlp {

// First trial step: bounds of the estimate from the expected decrease, and its factor.
static constexpr double SHORTEST_ESTIMATE = 0.1;
static constexpr double LONGEST_ESTIMATE = 10.0;
static constexpr double DECREASE_TO_STEP = 2.5;
// Searches after which the initial limit salf no longer holds back a search without damping.
static constexpr long SEARCHES_HELD_BACK = 5;
// A step that moves no parameter by this relative amount is too small.
static constexpr double SMALLEST_MOVE = 1e-8;

// ---- Initial step length ------------------------------------------------------------------------

// Smallest length with which some parameter moves noticeably; 0 when alpha does that already, or
// when the direction is zero, which no length helps.
static double least_noticeable(const MINSTR* str, double alpha) {
  double least = HUGE_VALUE;
  bool moves = false;
  for (long j = 0; j < str->nvar; ++j) {
    const double size = std::max(1.0, std::fabs(str->xold[j]));
    const double move = std::fabs(str->sdir[j]);
    if (move > TINY * size && SMALLEST_MOVE * size <= alpha * move) return 0.0;
    if (!(move > 0.0)) continue;
    least = std::min(least, SMALLEST_MOVE * size / move);
    moves = true;
  }
  return moves ? least : 0.0;
}

// A damped search starts from the last length. Any other starts from the length at which a parabola
// with slope gs0 would lose the expected decrease, in limits; salf holds it back, except for such
// an estimate once the run has settled.
double znlpalf(MINSTR* str, double gs0) {
  double alpha = 1.0;
  bool held_back = true;
  if (!wzmis(str->damp)) {
    if (str->itre != 0) alpha = std::min(str->damp * str->alfa, 1.0);
  } else {
    const double decrease = wzmis(str->dfes) ? 0.0 : std::fabs(str->dfes);
    const double slope = std::fabs(gs0);
    if (std::max(100.0 * decrease, 1.0) * EPS <= slope) {
      alpha = DECREASE_TO_STEP * decrease / slope;
    }
    alpha = std::clamp(alpha, SHORTEST_ESTIMATE, LONGEST_ESTIMATE);
    held_back = !(str->itre > 1 && str->nlis > SEARCHES_HELD_BACK);
  }
  if (held_back) alpha = std::min(alpha, str->salf);
  if (str->smax > 0.0 && str->nlis <= str->smit) alpha = std::min(alpha, str->smax);
  // Only the limit of the constraints may shorten a step below the smallest noticeable one.
  alpha = std::max(alpha, least_noticeable(str, alpha));
  return std::min(alpha, str->stub);
}

// ---- Reduced Newton steps -----------------------------------------------------------------------

// Solves with the leading nosi rows of the factor, in place. False when the factor is singular.
// Forms 4 and 5 permute for themselves; jpiv is for a pivoted factor that is solved as form 2.
static bool solve_reduced(MINSTR* str, int jpiv, int icho, long nosi, double* spro, double* half) {
  const long order = reduced_dimension(str);
  if (icho == 6 || icho == 7) return znlpcso(str, icho, str->nvar, half, spro) == 0;
  if (jpiv != 0) znlpprm(0, order, str->ipiv, spro);
  if (znlpcso(str, icho, nosi, half, spro) != 0) return false;
  if (nosi < order) vzfdl(0.0, spro + nosi, order - nosi);
  if (jpiv != 0) znlpprm(1, order, str->ipiv, spro);
  return true;
}

int znlpsdi(MINSTR* str, int job, int jpiv, int icho, long nosi, double* spro, const double* gold,
            double* half) {
  // The sparse kernels work on all n places of the right side.
  const long length = icho == 6 || icho == 7 ? str->nvar : reduced_dimension(str);
  std::copy_n(gold, std::max(length, 0L), spro);
  if (job == 0 || nosi == 0) return 0;
  if (solve_reduced(str, jpiv, icho, nosi, spro, half)) return 0;
  std::copy_n(gold, length, spro);
  return -5;
}

// Right side of a Newton step, from the gradient that each frame keeps current.
static void negative_reduced_gradient(const MINSTR* str, double* spro) {
  const long order = reduced_dimension(str);
  for (long k = 0; k < order; ++k) {
    spro[k] = str->lincon != 0   ? -str->gpro[k]
              : str->bounds != 0 ? -str->grad[str->ifxr[k]]
                                 : -str->grad[k];
  }
}

int znlpsd2(MINSTR* str, int job, int jpiv, int icho, long nosi, double* spro, double* sdir,
            double* half) {
  const long order = reduced_dimension(str);
  int code = 0;
  if (order < 1) return 0;
  if (job < 0) {
    // The product needs source and target apart: sdir is free until the expansion.
    negative_reduced_gradient(str, sdir);
    znlpsmv(order, nullptr, half, sdir, spro);
  } else {
    negative_reduced_gradient(str, spro);
    if ((icho == 6 || icho == 7) && order < str->nvar) {
      vzfdl(0.0, spro + order, str->nvar - order);
    }
    if (job != 0 && nosi != 0 && !solve_reduced(str, jpiv, icho, nosi, spro, half)) {
      code = -5;
      negative_reduced_gradient(str, spro);
    }
  }
  znlpvex(str, spro, sdir);
  return code;
}

// ---- A step bent along the bounds ---------------------------------------------------------------

static constexpr double LEAST_SPACING = 0.001;  // trial lengths closer than this are not tried
static constexpr double SLOPE_KEPT = 1e-8;      // share of the slope that a bent step must keep

// Component j of the trial step alpha sdir, ended on a bound that it reaches or passes.
static double bent_component(const MINSTR* str, long j, double alpha, double eps) {
  if (str->iabc[j] != 0) return 0.0;
  const double lb = str->lb[j];
  const double ub = str->ub[j];
  double step = alpha * str->sdir[j];
  if (lower_exists(lb) && str->xold[j] + step <= lb + (std::fabs(lb) + 1.0) * eps) {
    step = lb - str->xold[j];
  }
  if (upper_exists(ub) && str->xold[j] + step >= ub - (std::fabs(ub) + 1.0) * eps) {
    step = ub - str->xold[j];
  }
  return step;
}

// Slope of the bent step: its components are formed anew for each length, so that no second vector
// is needed.
static double bent_slope(const MINSTR* str, double alpha, double eps) {
  double slope = 0.0;
  for (long j = 0; j < str->nvar; ++j) slope += str->grad[j] * bent_component(str, j, alpha, eps);
  return slope;
}

int znlppro(MINSTR* str, int job, double* dgs) {
  long blocking = -1;
  str->stub = HUGE_VALUE;
  if (str->bounds == 0 && str->lincon == 0) return 0;
  znlpstl(str, job, 0, 0, str->xold, str->sdir, &blocking, nullptr);
  if (blocking < 0 || str->lincon != 0 || str->bounds == 0) return 0;

  const double limit = str->stub;
  const double spacing = (1.0 - limit) / 4.0;
  if (spacing <= LEAST_SPACING) return 0;
  const double eps = feasibility_tolerance(str, str->ipre);
  // From the full length down to the limit, evenly; the limit itself is the step that stands.
  const double lengths[] = {1.0, 3.0 * spacing + limit, 2.0 * spacing + limit, spacing + limit};
  for (const double alpha : lengths) {
    const double slope = bent_slope(str, alpha, eps);
    if (!(slope < SLOPE_KEPT * *dgs)) continue;
    *dgs = slope;
    for (long j = 0; j < str->nvar; ++j) str->sdir[j] = bent_component(str, j, alpha, eps);
    znlpstl(str, job, 0, 0, str->xold, str->sdir, &blocking, nullptr);
    return 1;
  }
  return 0;
}

// ---- Clipping to the bounds ---------------------------------------------------------------------

static constexpr double NARROW_BOX = 4.0;  // pushed to the middle of a box below this width

// The point that a parameter at bound gets; inward is +1 at a lower and -1 at an upper bound.
static double inside_of(int job, double bound, double other, bool other_exists, double inward) {
  if (job == 0) return bound;
  const double factor = job == 1 ? 0.001 : 0.1;
  if (!other_exists) return bound + inward * std::max(1.0, factor * std::fabs(bound));
  const double width = std::fabs(other - bound);
  return bound + inward * (width < NARROW_BOX ? 0.5 : factor) * width;
}

int znlpfbc(MINSTR* str, int job) {
  const double eps = feasibility_tolerance(str, str->ipre);
  int count = 0;
  for (long j = 0; j < str->nvar; ++j) {
    const double lb = str->lb[j];
    const double ub = str->ub[j];
    const bool has_lower = lower_exists(lb);
    const bool has_upper = upper_exists(ub);
    const double lower_reach = lb + (std::fabs(lb) + 1.0) * eps;
    const double upper_reach = ub - (std::fabs(ub) + 1.0) * eps;
    if (has_lower && has_upper && lower_reach >= ub) {
      // No room between the bounds: the parameter is fixed for the run.
      str->iabc[j] = 2;
      str->ub[j] = str->x[j] = lb;
      ++count;
      continue;
    }
    str->iabc[j] = 0;
    if (has_lower && str->x[j] <= lower_reach) {
      str->x[j] = inside_of(job, lb, ub, has_upper, 1.0);
      if (str->x[j] <= lower_reach) str->iabc[j] = 1;
    }
    // Tested last, so that the upper bound has a point within reach of both.
    if (has_upper && str->x[j] >= upper_reach) {
      str->x[j] = inside_of(job, ub, lb, has_lower, -1.0);
      if (str->x[j] >= upper_reach) str->iabc[j] = -1;
    }
    if (str->iabc[j] != 0) ++count;
  }
  return count;
}

}  // namespace tqnlp
