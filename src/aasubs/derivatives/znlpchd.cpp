// znlpchd: CHeck of Derivatives, and znlpchc for nonlinear Constraints.
//
// Method     the derivative along one direction, w'g with w = |x|, against one forward difference
//            of the functions; the error is measured on a logarithmic scale between the rounding
//            level (0) and the interval of the difference (1). Only where they disagree, one more
//            difference a parameter finds the one that is to blame.
// Reference  Gill, Murray and Wright (1981), section 8.1.4; Dennis and Schnabel (1983), section 7.2
// Reads      fdig, lb, ub, iabc, lincon
// Work       xold = the user's x (n) | work = first test point (n) | gold = weights of the
//            direction (n) | sdir = gradient at the user's x (n) | fold = derivatives of the
//            functions (m)
#include "aasubs/derivatives/znlpchd.h"

#include <algorithm>
#include <cmath>

#include "aasubs/derivatives/differences.h"
#include "aasubs/derivatives/znlpfid.h"
#include "aasubs/reports/report_tables.h"
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

// Weight of a parameter in the direction.
static double weight(double xj) { return xj != 0.0 ? std::fabs(xj) : 1.0; }

// x, copied to xold, becomes the first point, kept in work; gold the weights of the direction.
static int choose_points(MINSTR* str, double eps) {
  std::copy_n(str->x, str->nvar, str->xold);
  int code = leave_zero(str);
  if (code == DERIVATIVES_AGREE) code = leave_upper_bounds(str, eps);
  std::copy_n(str->x, str->nvar, str->work);
  for (long j = 0; j < str->nvar; ++j) {
    str->gold[j] = weight(str->x[j]);
  }
  return code;
}

// Distance from xj to the second point.
static double test_step(double xj, double eps) {
  const double step = std::fabs(xj) * eps;
  return step != 0.0 ? step : eps;
}

static void step_to_second_point(MINSTR* str, double eps) {
  for (long j = 0; j < str->nvar; ++j) str->x[j] += test_step(str->x[j], eps);
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

// First of the functions f1, f2 with directional derivatives gd that is doubtful; -1 for none.
static long first_doubtful(long count, const double* f1, const double* f2, const double* gd,
                           double eps) {
  for (long i = 0; i < count; ++i) {
    if (error_of(f1[i], f2[i], gd[i], eps) >= DOUBTFUL) return i;
  }
  return -1;
}

static bool same_value(double before, double now) {
  const double size = 0.5 * (std::fabs(before) + std::fabs(now)) + 1.0;
  return std::fabs(now - before) / size <= SAME_VALUE;
}

static bool usable(MINSTR* str, bool called) { return called && str->tbig == 0.0; }

// ---- The parameter to blame --------------------------------------------------------------------

namespace {

// Functions under test, and how their values and supplied derivatives are reached.
struct Tested {
  bool (*evaluate)(MINSTR* str);
  const double* values;                               // where evaluate leaves them
  double (*derivative)(MINSTR* str, long i, long j);  // of function i to parameter j
  bool objective;  // of the sign that the record gives it, which may not be the user's
};

}  // namespace

// Reports the parameter with the largest share in the disagreement of function i, at the first
// point. A parameter whose difference cannot be taken is passed over.
static int report_disagreement(MINSTR* str, const Tested& tested, long i, double eps) {
  const double base = tested.values[i];
  const double indf = str->indf;
  str->indf = GRADIENT_STEP;  // these evaluations are no function calls
  long worst = 0;
  double largest = -1.0, supplied = MISSING, difference = MISSING;
  for (long j = 0; j < str->nvar; ++j) {
    const double xj = str->x[j];
    const double h = step_made(xj, test_step(xj, eps));
    str->x[j] = xj + h;
    const bool good = tested.evaluate(str);
    str->x[j] = xj;
    if (!good) continue;
    const double slope = (tested.values[i] - base) / h;
    const double given = tested.derivative(str, i, j);
    const double share = weight(xj) * std::fabs(given - slope);
    if (!(share > largest)) continue;
    worst = j;
    largest = share;
    supplied = given;
    difference = slope;
  }
  str->indf = indf;
  const RvxText parameter = parameter_name(str, worst);
  if (tested.objective) {
    supplied = users_value(str, supplied);
    difference = users_value(str, difference);
  }
  const MsgArgs arguments = {i + 1, parameter.text, supplied, difference};
  xpmlog(OPTIMIZATION, 47, arguments);
  if (str->dbug != 0.0) xpmout(OPTIMIZATION, 47, arguments);
  return DERIVATIVES_DISAGREE;
}

// ---- Objective and residuals -------------------------------------------------------------------

static bool call_usable_function(MINSTR* str) { return usable(str, call_function(str)); }

static bool call_first_derivatives(MINSTR* str, int job) {
  if (job == 0 || str->usjac == nullptr) return usable(str, call_gradient_there(str));
  const int code = str->usjac(str);
  str->ifdr = ORDER_GRADIENT;
  return usable(str, code == 0);
}

static double gradient_element(MINSTR* str, long, long j) { return str->grad[j]; }

// Element of the Jacobian in its file. The weights of the direction are no longer needed.
static double jacobian_element(MINSTR* str, long i, long j) {
  vzfdl(0.0, str->gold, str->nvar);
  str->gold[j] = 1.0;
  znlpjve(str, str->gold, str->fold);
  return str->fold[i];
}

static int compare_at_points(MINSTR* str, int job, double* func2, double eps) {
  step_to_second_point(str, eps);
  if (!call_usable_function(str)) return TEST_POINT_FAILED;
  const double value2 = str->crit;
  if (job != 0) std::copy_n(str->func, str->mequ, func2);

  std::copy_n(str->work, str->nvar, str->x);
  if (!call_usable_function(str) || !call_first_derivatives(str, job)) {
    return TEST_DERIVATIVE_FAILED;
  }
  Tested tested{call_usable_function, &str->crit, gradient_element, true};
  long doubtful = -1;
  if (job == 0) {
    const double slope = zvdot11(str->nvar, str->gold, str->grad);
    doubtful = first_doubtful(1, &str->crit, &value2, &slope, eps);
  } else {
    znlpjve(str, str->gold, str->fold);
    doubtful = first_doubtful(str->mequ, str->func, func2, str->fold, eps);
    tested = {call_usable_function, str->func, jacobian_element, false};
  }
  return doubtful < 0 ? DERIVATIVES_AGREE : report_disagreement(str, tested, doubtful, eps);
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

static double constraint_derivative(MINSTR* str, long i, long j) {
  return str->jcon[i * str->nvar + j];
}

static int compare_constraints(MINSTR* str, double* fcon2) {
  step_to_second_point(str, ROOT_EPS);
  if (!call_constraints(str)) return TEST_POINT_FAILED;
  std::copy_n(str->fcon, str->nnlc, fcon2);
  std::copy_n(str->work, str->nvar, str->x);
  if (!call_constraints(str) || !call_constraint_jacobian(str)) return TEST_DERIVATIVE_FAILED;
  for (long i = 0; i < str->nnlc; ++i) {
    const double slope = zvdot11(str->nvar, str->gold, str->jcon + i * str->nvar);
    if (first_doubtful(1, &str->fcon[i], &fcon2[i], &slope, ROOT_EPS) < 0) continue;
    return report_disagreement(str, {call_constraints, str->fcon, constraint_derivative, false}, i,
                               ROOT_EPS);
  }
  return DERIVATIVES_AGREE;
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
