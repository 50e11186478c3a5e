// znlplis, bisect: the rescue of a search that failed though the gradient is still large.
//
// Method     Very short steps until the value falls, then doubling, and one parabola through the
//            last three points. Where the value stays exactly the same, rounding hides the descent,
//            and the slope is bisected instead: the point with the smallest gradient is taken.
// Reference  Dennis and Schnabel (1983), Numerical Methods for Unconstrained Optimization,
//            chapter 6
// Work       none: x, grad and gpro hold the trial
//
//   1  shorten until the value falls below c0: by 10, faster after a large rise
//   2  double while it falls
//   3  one parabola, then the gradient at the better point
//   4  the value stays the same: bisect the slope

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/linesearch/znlplis_internal.h"

namespace tqnlp {

using namespace lis;

static constexpr double SHORTEN = 0.1;
static constexpr double LARGE_RISE = 0.01;  // c0 below this share of the value: once more by 0.1,
static constexpr double HUGE_RISE = 0.001;  // below this: once more by 0.01
static constexpr double ROOT_EPS = 1.053671212772351e-08;  // relative width of a closed bracket

namespace {

struct Rescue {
  double c0 = 0.0;
  double gs0 = 0.0;
  double gmx0 = 0.0;
  double amin = 0.0;     // step in hand
  double longest = 0.0;  // largest step to try
};

// Best step by its gradient; 0 none.
struct Flattest {
  double step = 0.0;
  double gmax = 0.0;
};

}  // namespace

// ---- The value falls ----------------------------------------------------------------------------

// Tries the minimum of the parabola through xold (c0), amin (c1) and 2 amin (c2). True: it is
// better than c1, x and crit stand there, and amin is its step.
static bool try_parabola(MINSTR* str, Rescue& r, double c1, double c2) {
  const double denominator = (r.c0 - c2) + 2.0 * (c1 - r.c0);
  const double xmin = -0.5 * r.amin * (4.0 * (r.c0 - c1) + (c2 - r.c0)) / denominator;
  if (!(std::fabs(denominator) > SMALLEST_TOLERANCE)) return false;
  if (!(xmin > SMALLEST_TOLERANCE && xmin < 2.0 * r.amin)) return false;
  if (!moves_something(str, xmin)) return false;
  if (!try_function(str, xmin) || !(str->crit < c1)) return false;
  r.amin = xmin;
  return true;
}

// Doubles from amin, whose value c1 is below c0, and leaves the best point met in x and crit. A
// doubled step that cannot be evaluated, or would pass the constraints or ssin, ends the doubling
// with the point in hand: to shorten again from there would lead back to the same point for ever.
// Returns 0, or the result of the rescue.
static int double_while_falling(MINSTR* str, Rescue& r) {
  bool here = true;
  double c1 = str->crit;
  while (2.0 * r.amin <= r.longest) {
    if (!(2.0 * r.amin > r.amin)) return -2;
    here = false;
    if (!try_function(str, 2.0 * r.amin)) {
      if (r.amin <= TEN_EPS) return -3;
      break;
    }
    const double c2 = str->crit;
    if (!(c2 < c1)) {
      if (try_parabola(str, r, c1, c2)) return 0;
      break;
    }
    r.amin *= 2.0;
    c1 = c2;
    here = true;
  }
  return here || try_function(str, r.amin) ? 0 : -1;
}

// ---- The value stays the same -------------------------------------------------------------------

static void note_gradient(const MINSTR* str, double step, Flattest& best) {
  if (str->gmax < best.gmax) best = {step, str->gmax};
}

// Takes the step with the smallest gradient, if it is smaller than that of xold.
static int take_flattest(MINSTR* str, const Rescue& r, const Flattest& best) {
  if (r.gmx0 <= best.gmax) return -2;
  Sample end;
  end.alfa = best.step;
  if (!try_sample(str, &end)) return -2;
  str->alfa = best.step;
  return str->crit < r.c0 ? 0 : 1;
}

static int bisect_slope(MINSTR* str, Rescue& r) {
  Sample high;
  high.alfa = r.amin;
  for (int trial = 0; !try_sample(str, &high); ++trial) {
    high.alfa *= 0.5;
    if (high.alfa <= SMALLEST_TOLERANCE || trial == MOST_TRIALS) return -2;
  }
  if (!(high.gs > r.gs0)) return -2;
  Flattest best = {0.0, r.gmx0};
  note_gradient(str, high.alfa, best);
  if (str->gmax <= str->agtl || high.gs < 0.0) return take_flattest(str, r, best);

  Sample low = {0.0, r.c0, r.gs0};
  for (int trial = 0; trial < MOST_TRIALS; ++trial) {
    Sample mid;
    mid.alfa = (high.alfa + low.alfa) / 2.0;
    if (!(high.alfa - low.alfa > ROOT_EPS * mid.alfa)) break;
    if (!try_sample(str, &mid) || mid.f > r.c0) return -2;
    note_gradient(str, mid.alfa, best);
    // A slope outside those of the ends is rounding.
    if (str->gmax <= str->agtl || mid.gs < low.gs || mid.gs > high.gs) break;
    (mid.gs < 0.0 ? low : high) = mid;
  }
  return take_flattest(str, r, best);
}

// ---- The rescue ---------------------------------------------------------------------------------

int bisect(MINSTR* str, double c0, double gs0, double gmx0, double salf) {
  Rescue r = {c0, gs0, gmx0, std::min(salf, 1.0), std::min(str->stub, str->ssin)};
  for (int trial = 0; trial < MOST_TRIALS; ++trial) {
    r.amin *= SHORTEN;
    if (!(r.amin > SMALLEST_TOLERANCE) || !moves_something(str, r.amin)) return -1;
    if (!try_function(str, r.amin)) {
      if (r.amin <= TEN_EPS) return -3;
      continue;
    }
    if (str->crit == c0) return bisect_slope(str, r);
    if (str->crit > c0) {
      if (HUGE_RISE * str->crit > c0) {
        r.amin *= 0.01;
      } else if (c0 < LARGE_RISE * str->crit) {
        r.amin *= 0.1;
      }
      continue;
    }
    const int code = double_while_falling(str, r);
    if (code != 0) return code;
    double slope = 0.0;
    if (try_slope(str, &slope)) {
      str->alfa = r.amin;
      return 0;
    }
    if (r.amin <= TEN_EPS) return -3;
    // The next trial is not doubled, which would lead back to where the gradient fails.
    r.longest = SHORTEN * r.amin;
  }
  return -3;
}

}  // namespace tqnlp
