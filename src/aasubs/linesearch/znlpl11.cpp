// znlpl11: Line search of residual vectors, for GAUNEW.
//
// Model      the residuals themselves are quadratic in the step, F + x J d + x^2 v2, with v2 from
//            the residuals at one trial; their squared length, a quartic, is far closer to the
//            objective than a parabola through values of it
// Reference  Lindstrom and Wedin (1984), Mathematical Programming 29: A new linesearch algorithm
//            for nonlinear least squares problems
// Reads      xold, cold, grad, sdir, stub, fold = F (m) | J sdir (m), those of znlpalf
// Writes     x, crit, func, alfa, nlis, salf; v2 behind J sdir (m)
//
//   1  first step from znlpalf, shortened while it cannot be evaluated
//   2  minimum of the quartic near it
//   3  a first step that is good enough is improved while that pays; otherwise the minimum of the
//      quartic is tried, then either improved or shortened
//   4  back to the best point met
#include "aasubs/linesearch/znlpl11.h"

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba0.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr double ROOT_EPS = 1.053671212772351e-08;  // root of the rounding unit
static constexpr double QUARTER = 0.25;                    // what a shortened step keeps
static constexpr double ARMIJO = 0.25;      // share of the slope that a good step must deliver
static constexpr double GOOD_VALUE = 0.4;   // of f0: good whatever the slope says
static constexpr double WORTH = 0.3;        // of the decrease: worth another evaluation
static constexpr double GREAT_VALUE = 0.2;  // of the last value: worth one in any case
static constexpr int MOST_FAILURES = 10;
static constexpr int MOST_REDUCTIONS = 10;  // values of noise could go on falling
static constexpr int MOST_QUARTERS = 600;   // from the largest to the smallest double

namespace {

struct Sample {
  double alfa;
  double f;
};

}  // namespace

// ---- Trials -------------------------------------------------------------------------------------

// Evaluates at xold + alfa sdir, which rounding must not carry past a bound. False: x could not be
// evaluated.
static bool try_step(MINSTR* str, double alfa, double* f) {
  zvaxpy(str->x, str->sdir, str->xold, str->nvar, alfa);
  for (long j = 0; j < str->nvar && str->bounds != 0; ++j) {
    str->x[j] = std::min(std::max(str->x[j], str->lb[j]), str->ub[j]);
  }
  str->ifdr = ORDER_FUNCTION;
  const int code = str->usfct(str);
  *f = str->crit;
  return code == 0 && str->tbig == 0.0 && std::isfinite(str->crit);
}

static double smallest_step(const MINSTR* str) { return std::min(EPS, EPS * str->stub); }

static bool good_enough(double f0, double gs0, const Sample& s) {
  return s.f - f0 <= ARMIJO * gs0 * s.alfa || s.f < GOOD_VALUE * f0;
}

// Is the change of the value rounding?
static bool is_rounding(double f0, double f) { return std::fabs(f0 - f) <= HUNDRED_EPS * f0; }

// First trial; what cannot be evaluated is shortened.
static int first_trial(MINSTR* str, double gs0, Sample* trial) {
  trial->alfa = std::max(std::min(znlpalf(str, gs0), str->stub), smallest_step(str));
  for (int failures = 1; !try_step(str, trial->alfa, &trial->f); ++failures) {
    if (failures == MOST_FAILURES) return -3;
    trial->alfa *= QUARTER;
    if (trial->alfa < SMALLEST_TOLERANCE) return -2;
  }
  return 0;
}

// v2 := ((F(a) - F(0)) / a - J d) / a.
static void second_order_vector(MINSTR* str, double alfa) {
  const long m = str->mequ;
  const double* f0 = str->fold;
  const double* jd = f0 + m;
  double* v2 = str->fold + 2 * m;
  for (long i = 0; i < m; ++i) v2[i] = ((str->func[i] - f0[i]) / alfa - jd[i]) / alfa;
}

// ---- Improving and shortening -------------------------------------------------------------------

int gastep(MINSTR* str, double pmax, double alfl, double gs0, double f0, double* alfi,
           double* falfi) {
  for (int count = 0; count < MOST_QUARTERS; ++count) {
    // Steps of next to no length are within Armijo's test by rounding alone.
    const bool noise = is_rounding(f0, *falfi);
    if (!noise && *falfi - f0 <= ARMIJO * gs0 * *alfi) return 0;
    if (pmax * *alfi < ROOT_EPS || !(*alfi > alfl)) return -2;
    if (noise) return -1;
    *alfi *= QUARTER;
    if (!try_step(str, *alfi, falfi)) *falfi = HUGE_VALUE;
  }
  return -2;
}

// Does the model promise enough to pay for an evaluation? The quartic is trusted with a fair
// decrease; a parabola through values, later, only with a great one, beyond the noise of m
// residuals, and not where it falls below zero, which no sum of squares does.
static bool promises_enough(const MINSTR* str, double f, double predicted, double cdif,
                            bool first) {
  if (first) return f - predicted >= cdif && predicted >= 0.0;
  const double noise = static_cast<double>(str->mequ) * ROOT_EPS;
  return predicted + noise < GREAT_VALUE * f && predicted >= 0.0;
}

int reduc(MINSTR* str, double* alfa, double* falf, double alfi, double fanew, double cdif,
          double* falfi) {
  const double pmax = zvenorm(str->nvar, 1, str->sdir);
  Sample oldest{0.0, str->cold};
  double here = *alfa;
  *falfi = *falf;
  for (int count = 0; count < MOST_REDUCTIONS; ++count) {
    if (alfi == *alfa || !promises_enough(str, *falf, fanew, cdif, count == 0)) break;
    here = alfi;
    // A trial that cannot be evaluated is no reason to give up the best point.
    if (!try_step(str, alfi, falfi)) break;
    const bool great = *falf - *falfi >= cdif || *falfi < GREAT_VALUE * *falf;
    const Sample last{*alfa, *falf};
    if (*falfi < *falf) {
      *alfa = alfi;
      *falf = *falfi;
    }
    if (!great) break;
    minrn(str, pmax, smallest_step(str), str->stub, *alfa, *falf, last.alfa, last.f, oldest.alfa,
          oldest.f, &alfi, &fanew);
    oldest = last;
  }
  if (here == *alfa) return 0;
  // func must be that of the result, and so must what the user's code keeps.
  return try_step(str, *alfa, falf) ? 0 : -11;
}

// ---- The search ---------------------------------------------------------------------------------

static int end_search(MINSTR* str, const Sample& best, int code) {
  str->alfa = best.alfa;
  str->crit = best.f;
  str->salf = 1.0;
  return code;
}

static int back_to_start(MINSTR* str, int code) {
  std::copy_n(str->xold, str->nvar, str->x);
  str->tbig = 0.0;
  return end_search(str, {0.0, str->cold}, code);
}

// The end of a search without an acceptable step: a decrease that was met is kept.
static int keep_decrease(MINSTR* str, Sample best, double here, int code) {
  if (!(best.f < str->cold) || is_rounding(str->cold, best.f)) return back_to_start(str, code);
  if (here != best.alfa && !try_step(str, best.alfa, &best.f)) return back_to_start(str, -11);
  return end_search(str, best, code);
}

static const Sample& lower(const Sample& a, const Sample& b) { return b.f < a.f ? b : a; }

// Shortens the shorter of two trials that were not good enough (HUGE_VALUE: not evaluated).
static int shorten(MINSTR* str, double gs0, const Sample& a, const Sample& b) {
  const double p = zvenorm(str->nvar, 1, str->sdir);
  Sample trial{QUARTER * std::min(a.alfa, b.alfa), HUGE_VALUE};
  if (!try_step(str, trial.alfa, &trial.f)) trial.f = HUGE_VALUE;
  const int code = gastep(str, p, smallest_step(str), gs0, str->cold, &trial.alfa, &trial.f);
  if (code == 0) return end_search(str, trial, 0);
  const bool unknown = trial.f == HUGE_VALUE;
  return keep_decrease(str, lower(lower(a, b), trial), trial.alfa, unknown ? -1 : code);
}

// Improves the step best, where x stands, as far as the models pay.
static int improve(MINSTR* str, Sample best, double alfi, double predicted) {
  double last = 0.0;
  const double worth = WORTH * (str->cold - best.f);
  const int code = reduc(str, &best.alfa, &best.f, alfi, predicted, worth, &last);
  return code != 0 ? back_to_start(str, code) : end_search(str, best, 0);
}

// Two trials of which the second is good enough: on from the better of them, with a parabola.
static int improve_second(MINSTR* str, const Sample& first, const Sample& second) {
  Sample best = lower(second, first);
  const Sample& rest = best.alfa == first.alfa ? second : first;
  if (best.alfa == first.alfa && !try_step(str, best.alfa, &best.f)) {
    return back_to_start(str, -11);
  }
  double alfi = 0.0;
  double predicted = 0.0;
  minrn(str, zvenorm(str->nvar, 1, str->sdir), smallest_step(str), str->stub, best.alfa, best.f,
        rest.alfa, rest.f, 0.0, str->cold, &alfi, &predicted);
  return improve(str, best, alfi, predicted);
}

int znlpl11(MINSTR* str) {
  ++str->nlis;
  const double f0 = str->cold;
  const double gs0 = znlpgs(str, str->spro, str->gpro, str->sdir, str->grad);
  if (!(gs0 <= SMALLEST_TOLERANCE) || !std::isfinite(f0)) return back_to_start(str, -1);
  if (gs0 > -SMALLEST_TOLERANCE || !(str->stub > SMALLEST_TOLERANCE)) {
    return back_to_start(str, 0);
  }
  Sample a{};
  const int failed = first_trial(str, gs0, &a);
  if (failed != 0) return back_to_start(str, failed);

  second_order_vector(str, a.alfa);
  Sample next{};
  Sample other{};
  minrm(str, smallest_step(str), str->stub, a.alfa, &next.alfa, &next.f, &other.alfa, &other.f,
        str->fold);
  if (good_enough(f0, gs0, a)) return improve(str, a, next.alfa, next.f);
  if (next.alfa != a.alfa && !try_step(str, next.alfa, &next.f)) next.f = HUGE_VALUE;
  if (next.alfa == a.alfa || is_rounding(f0, next.f) || !good_enough(f0, gs0, next)) {
    return shorten(str, gs0, a, next);
  }
  return improve_second(str, a, next);
}

}  // namespace tqnlp
