// znlpfg3: Finite-difference Gradient, third form: one interval a component, from curvature
// estimates. A component is differenced forward where that is accurate enough, centrally elsewhere.
//
// Reference  Stewart (1967), JACM 14; Gill, Murray, Saunders and Wright (1983), SIAM J. Sci. Stat.
//            Comput. 4
// Reads      crit, x, grad (previous gradient; missing counts as zero)
// Writes     grad, ngrd; wfid keeps func (m)
//
// With slope s, curvature a and noise e (all as moduli), a forward difference over h has a relative
// truncation error of a h/(2 s), and a relative cancellation error of 2 e over the change of the
// function, s h + a h^2/2. Where the two are equal,
//
//   (a^2/2) h^3 + a s h^2 - 4 s e = 0                                      (balanced_step)
//
// Is the truncation error at this h above 1/1000, a central difference is taken, whose truncation
// error is of second order; its h makes the change of the function a thousand times the noise:
//
//   (a/2) h^2 + s h - 1000 e = 0                                           (choose_step)
//
// A curvature estimate may be wrong by orders of magnitude: steps out of proportion to the
// parameter are given up for the usual root or cube root of the rounding unit.
#include <algorithm>
#include <cmath>

#include "aasubs/derivatives/differences.h"
#include "aasubs/derivatives/znlpfid.h"

namespace tqnlp {

static constexpr double LEAST_ERROR = 1.110223024625157e-15;  // relative error of the objective
static constexpr double ROOT_EPS = 1.053671212772351e-08;     // square root of the rounding unit
static constexpr double LEAST_STEP = 5.551115123125785e-15;   // against the parameter's size
static constexpr double LARGE_STEP = 0.02;                    // against the parameter's size
static constexpr double FORWARD_IS_ACCURATE = 0.002;          // curvature term against the slope
static constexpr double CENTRAL_ERROR = 2000.0;               // twice the change over the noise

namespace {

struct Component {
  double slope;      // previous derivative
  double curvature;  // estimate of the second derivative
  double size;       // of the parameter, at least 1
  double noise;      // absolute error of the objective
};

struct Step {
  double h;
  bool central;
};

}  // namespace

// Forward step that balances truncation and cancellation: the root of the cubic equation in the
// case that either of its first two terms is the larger, and one Newton step from there.
static double balanced_step(const Component& c) {
  const double a = std::fabs(c.curvature);
  const double slope = std::fabs(c.slope);
  if (slope * slope <= c.noise * a) {
    const double t = 2.0 * std::cbrt(c.noise * slope / (a * a));
    return t * (1.0 - 2.0 * slope / (3.0 * a * t + 4.0 * slope));
  }
  const double t = 2.0 * std::sqrt(c.noise / a);
  return t * (1.0 - a * t / (3.0 * a * t + 4.0 * slope));
}

// Without curvature a step has no truncation error and is as long as the parameter's size; without
// a slope or a value there is nothing to balance. A forward step goes to the side where slope and
// curvature pull alike, since on the other one the change of the function may cancel.
static Step choose_step(const Component& c, double afx) {
  if (c.curvature == 0.0) return {c.size, false};
  if (c.slope == 0.0 || afx <= EPS) return {ROOT_EPS * c.size, false};
  const double a = std::fabs(c.curvature);
  const double slope = std::fabs(c.slope);
  const double least = LEAST_STEP * c.size;
  double h = std::max(balanced_step(c), least);
  if (a * h <= FORWARD_IS_ACCURATE * slope) {
    if (h >= LARGE_STEP * c.size) h = ROOT_EPS * c.size;
    return {c.slope * c.curvature < 0.0 ? -h : h, false};
  }
  h = CENTRAL_ERROR * c.noise / (std::sqrt(CENTRAL_ERROR * a * c.noise + slope * slope) + slope);
  h = std::max(h, least);
  if (h >= LARGE_STEP * c.size) h = c.size * std::pow(ROOT_EPS, 2.0 / 3.0);
  return {h, true};
}

// A point outside the bounds counts as one that has no value.
static bool evaluate_at(MINSTR* str, long i, double value) {
  str->x[i] = value;
  return is_inside(str, i, value) && call_function(str) && str->tbig == 0.0;
}

// One-sided derivative, on either side; false when both fail at the rounding unit. A negative step
// stands below it from the start and is not halved, deliberately, as in the plain forward gradient.
static bool one_sided(MINSTR* str, long i, double xi, double h, double base, double* derivative) {
  for (;;) {
    for (const double step : {h, -h}) {
      if (evaluate_at(str, i, xi + step)) {
        *derivative = (str->crit - base) / step;
        return true;
      }
    }
    if (!(h > EPS)) return false;
    h *= 0.5;
  }
}

// Two-sided derivative. At the smallest step a failing plus side leaves the minus side; 0, -1, -2.
static int two_sided(MINSTR* str, long i, double xi, double h, double base, double* derivative) {
  for (;;) {
    const bool plus_good = evaluate_at(str, i, xi + h);
    const double plus = str->crit;
    const bool minus_good = plus_good && evaluate_at(str, i, xi - h);
    if (minus_good) {
      *derivative = (plus - str->crit) / (2.0 * h);
      return 0;
    }
    if (!(h > EPS)) {
      if (plus_good) return -2;
      if (!evaluate_at(str, i, xi - h)) return -1;
      *derivative = (base - str->crit) / h;
      return 0;
    }
    h *= 0.5;
  }
}

// What is known of parameter i before its difference. The noise is that of the function, or what
// the rounding of the parameter itself makes of it if that is more; without alfa the curvature
// is 1.
static Component describe(const MINSTR* str, long i, double eta, const double* alfa,
                          const double* dscl, double afx) {
  const double xi = str->x[i];
  Component c{};
  c.slope = wzmis(str->grad[i]) ? 0.0 : str->grad[i];
  c.curvature = alfa != nullptr ? alfa[i] : 1.0;
  c.size = std::max(std::fabs(xi), dscl != nullptr ? 1.0 / dscl[i] : 0.0);
  c.size = std::max(c.size, 1.0);
  double error = std::fabs(eta);
  if (afx > TINY) error = std::max(error, EPS * std::fabs(xi) * std::fabs(c.slope) / afx);
  c.noise = error * afx;
  return c;
}

int znlpfg3(MINSTR* str, double eta, const double* alfa, const double* dscl) {
  if (str->nvar < 1) return 0;
  ++str->ngrd;
  const int indf = static_cast<int>(str->indf);
  const double crit = str->crit;
  const double afx = std::fabs(crit);
  str->indf = GRADIENT_STEP;
  if (!(eta > TINY)) eta = LEAST_ERROR;
  save_functions(str);

  int code = 0;
  for (long i = 0; code == 0 && i < str->nvar; ++i) {
    const double xi = str->x[i];
    const Step step = choose_step(describe(str, i, eta, alfa, dscl, afx), afx);
    double derivative = 0.0;
    if (step.central && is_inside(str, i, xi - step.h) && is_inside(str, i, xi + step.h)) {
      code = two_sided(str, i, xi, step.h, crit, &derivative);
    } else if (!one_sided(str, i, xi, step.h, crit, &derivative)) {
      code = -1;
    }
    str->x[i] = xi;
    if (code == 0) str->grad[i] = derivative;
  }
  restore_functions(str);
  str->crit = crit;
  str->indf = indf;
  return code;
}

}  // namespace tqnlp
