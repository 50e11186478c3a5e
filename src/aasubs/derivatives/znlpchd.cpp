// znlpchd: CHeck of Derivatives, and znlpchc for nonlinear Constraints.
//
// Method     the derivative along one direction, w'g with w = |x|, against one forward difference
// of
//            the functions; the error is measured on a logarithmic scale between the rounding level
//            (0) and the interval of the difference (1)
// Reference  Gill, Murray and Wright (1981), section 8.1.4; Dennis and Schnabel (1983), section 7.2
// Reads      fdig, lb, ub, iabc, lincon
// Work       xold = the user's x (n) | work = first test point (n) | gold = weights of the
// direction
//            (n) | sdir = gradient at the user's x (n) | fold = derivatives of the functions (m)
#include "aasubs/derivatives/znlpchd.h"

#include <algorithm>
#include <cmath>

#include "aasubs/derivatives/differences.h"
#include "aasubs/derivatives/znlpfid.h"
#include "host/log.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr double ROOT_EPS = 1.053671212772351e-08;  // interval for the constraints
static constexpr double NEAR_ZERO = 0.001;  // a parameter this small says nothing about its slope
static constexpr double MOVE_FREE = 1.0;
static constexpr double MOVE_BOUNDED = 0.5;
static constexpr double ROOM_TO_MOVE = 0.8;
static constexpr double STEPS_FROM_BOUND = 10.0;
static constexpr double DOUBTFUL = 0.75;  // error from which a derivative is reported
static constexpr double SAME_VALUE = 1.110223024625157e-12;  // relative, between two evaluations

// ---- The two points ----------------------------------------------------------------------------

// Moves parameters away from zero. 0, or 1 where one cannot be moved.
static int leave_zero(MINSTR* str) {
  for (long j = 0; j < str->nvar; ++j) {
    double& xj = str->x[j];
    if (std::fabs(xj) > NEAR_ZERO) continue;
    if (str->lincon != 0) return TEST_POINT_UNUSABLE;
    if (str->bounds == 0) {
      xj += MOVE_FREE;
      continue;
    }
    if (str->iabc[j] == 2) return TEST_POINT_UNUSABLE;
    if (xj + ROOM_TO_MOVE > str->ub[j]) {
      if (xj - ROOM_TO_MOVE < str->lb[j]) return TEST_POINT_UNUSABLE;
      xj -= MOVE_BOUNDED;
    } else {
      xj += MOVE_BOUNDED;
    }
  }
  return DERIVATIVES_AGREE;
}

// Makes room for the second point below the upper bounds. 0 or 2.
static int leave_upper_bounds(MINSTR* str, double eps) {
  if (str->bounds == 0) return DERIVATIVES_AGREE;
  for (long j = 0; j < str->nvar; ++j) {
    if (str->iabc[j] == 2) continue;
    double& xj = str->x[j];
    const double d = std::max(eps, eps * std::fabs(xj));
    if (!(str->ub[j] < xj + d)) continue;
    xj = str->ub[j] - STEPS_FROM_BOUND * d;
    if (xj <= str->lb[j]) return TEST_NO_ROOM;
  }
  return DERIVATIVES_AGREE;
}

// x, copied to xold, becomes the first point, kept in work; gold the weights of the direction.
static int choose_points(MINSTR* str, double eps) {
  std::copy_n(str->x, str->nvar, str->xold);
  int code = leave_zero(str);
  if (code == DERIVATIVES_AGREE) code = leave_upper_bounds(str, eps);
  std::copy_n(str->x, str->nvar, str->work);
  for (long j = 0; j < str->nvar; ++j) {
    str->gold[j] = str->x[j] != 0.0 ? std::fabs(str->x[j]) : 1.0;
  }
  return code;
}

static void step_to_second_point(MINSTR* str, double eps) {
  for (long j = 0; j < str->nvar; ++j) {
    const double step = std::fabs(str->x[j]) * eps;
    str->x[j] += step != 0.0 ? step : eps;
  }
}

// ---- The error ---------------------------------------------------------------------------------

// 0 where derivative gd and difference agree to rounding, 1 where they do not agree at all.
static double error_of(double f1, double f2, double gd, double eps) {
  if (std::fabs(f1) <= TINY || std::fabs(f2) <= TINY) return 0.0;
  const double df = f2 - f1;
  if (!(std::fabs(df) >= HUNDRED_EPS * std::fabs(f1))) return 0.0;
  const double t = eps * std::fabs(df / eps - gd) / (std::fabs(f1) + std::fabs(f2));
  if (t >= eps) return 1.0;
  if (!(t > EPS)) return 0.0;
  return 1.0 - (std::log10(t) - std::log10(eps)) / std::log10(eps);
}

// Judges functions f1, f2 with directional derivatives gd; the first doubtful one is reported.
static int judge(const MINSTR* str, long count, const double* f1, const double* f2,
                 const double* gd, double eps) {
  for (long i = 0; i < count; ++i) {
    if (error_of(f1[i], f2[i], gd[i], eps) < DOUBTFUL) continue;
    xpmlog(OPTIMIZATION, 47);
    if (str->dbug != 0.0) xpmout(OPTIMIZATION, 47);
    return DERIVATIVES_DISAGREE;
  }
  return DERIVATIVES_AGREE;
}

static bool same_value(double before, double now) {
  const double size = 0.5 * (std::fabs(before) + std::fabs(now)) + 1.0;
  return std::fabs(now - before) / size <= SAME_VALUE;
}

static bool usable(MINSTR* str, bool called) { return called && str->tbig == 0.0; }

// ---- Objective and residuals -------------------------------------------------------------------

static bool call_first_derivatives(MINSTR* str, int job) {
  if (job == 0 || str->usjac == nullptr) return usable(str, call_gradient_there(str));
  const int code = str->usjac(str);
  str->ifdr = ORDER_GRADIENT;
  return usable(str, code == 0);
}

static int compare_at_points(MINSTR* str, int job, double* func2, double eps) {
  step_to_second_point(str, eps);
  if (!usable(str, call_function(str))) return TEST_POINT_FAILED;
  const double value2 = str->crit;
  if (job != 0) std::copy_n(str->func, str->mequ, func2);

  std::copy_n(str->work, str->nvar, str->x);
  if (!usable(str, call_function(str)) || !call_first_derivatives(str, job)) {
    return TEST_DERIVATIVE_FAILED;
  }
  if (job == 0) {
    const double slope = zvdot11(str->nvar, str->gold, str->grad);
    return judge(str, 1, &str->crit, &value2, &slope, eps);
  }
  znlpjve(str, str->gold, str->fold);
  return judge(str, str->mequ, str->func, func2, str->fold, eps);
}

int znlpchd(MINSTR* str, int job, double* func2) {
  const double eps = forward_interval(str->fdig);
  const double crit = str->crit;
  std::copy_n(str->grad, str->nvar, str->sdir);
  int code = choose_points(str, eps);
  if (code == DERIVATIVES_AGREE) code = compare_at_points(str, job, func2, eps);

  std::copy_n(str->xold, str->nvar, str->x);
  std::copy_n(str->sdir, str->nvar, str->grad);
  if (code != TEST_POINT_FAILED) {
    if (!usable(str, call_function(str))) {
      code = TEST_RETURN_FAILED;
    } else if (!same_value(crit, str->crit)) {
      xpmlog(OPTIMIZATION, 49);
    }
  }
  str->crit = crit;
  return code;
}

// ---- Nonlinear constraints ---------------------------------------------------------------------

static bool call_constraints(MINSTR* str) {
  const int code = (str->usnlc != nullptr ? str->usnlc : str->usfct)(str);
  str->ifdr = ORDER_FUNCTION;
  return usable(str, code == 0);
}

static bool call_constraint_jacobian(MINSTR* str) {
  const int code = str->usjnc(str);
  str->ifdr = ORDER_GRADIENT;
  return usable(str, code == 0);
}

static int compare_constraints(MINSTR* str, double* fcon2) {
  step_to_second_point(str, ROOT_EPS);
  if (!call_constraints(str)) return TEST_POINT_FAILED;
  std::copy_n(str->fcon, str->nnlc, fcon2);
  std::copy_n(str->work, str->nvar, str->x);
  if (!call_constraints(str) || !call_constraint_jacobian(str)) return TEST_DERIVATIVE_FAILED;
  int code = DERIVATIVES_AGREE;
  for (long i = 0; code == DERIVATIVES_AGREE && i < str->nnlc; ++i) {
    const double slope = zvdot11(str->nvar, str->gold, str->jcon + i * str->nvar);
    code = judge(str, 1, &str->fcon[i], &fcon2[i], &slope, ROOT_EPS);
  }
  return code;
}

// Back at the user's x: constraints, and their Jacobian if it was formed elsewhere. fcon1 holds the
// constraints that were known there.
static bool return_to_start(MINSTR* str, const double* fcon1) {
  std::copy_n(str->xold, str->nvar, str->x);
  const bool moved = !std::equal(str->x, str->x + str->nvar, str->work);
  if (!call_constraints(str)) return false;
  if (!std::equal(fcon1, fcon1 + str->nnlc, str->fcon, same_value)) xpmlog(OPTIMIZATION, 49);
  return !moved || call_constraint_jacobian(str);
}

int znlpchc(MINSTR* str, double* fcon1, double* fcon2) {
  const double crit = str->crit;
  std::copy_n(str->fcon, str->nnlc, fcon1);
  int code = choose_points(str, ROOT_EPS);
  if (code == DERIVATIVES_AGREE) code = compare_constraints(str, fcon2);
  if (code == TEST_POINT_FAILED) {
    std::copy_n(str->xold, str->nvar, str->x);
  } else if (!return_to_start(str, fcon1)) {
    code = TEST_RETURN_FAILED;
  }
  str->crit = crit;
  return code;
}

}  // namespace tqnlp
