// znlplis, extrapolation: line searches 4 and 5.
//
// Method     The step grows until the slope turns or the function rises above its start; then a
//            cubic through xold and the end gives a point inside. Decrease alone is promised.
// Reference  Davidon (1959), Variable Metric Method for Minimization; Fletcher and Powell (1963),
//            Computer Journal 6
// Work       none: x, grad and gpro hold the trial
//
//   1  first trial, shortened while it cannot be evaluated
//   2  lengthen while the function falls: by a cubic, at least fivefold (method 4), or by a
//      parabola, at most fivefold (method 5)
//   3  interpolate between xold and the end until the value is below both

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/linesearch/znlplis_internal.h"

namespace tqnlp {

using namespace lis;

static constexpr double CLIP = 0.1;       // interpolated steps keep this fraction from both ends
static constexpr double GROWTH = 4.0;     // added multiple of the step: smallest of method 4,
                                          // largest of method 5
static constexpr int MOST_RETREATS = 10;  // shortened first trials
static constexpr int FEW_PASSES = 11;     // interpolations before a tiny step ends the search

using Increment = double (*)(const Search& search, const Sample& at);

// Method 4: the step at which the cubic through both ends has its minimum is added to the present
// one, deliberately: the extrapolation is meant to pass the minimum.
static double increment_by_cubic(const Search& search, const Sample& at) {
  const double gs0 = search.gs0;
  const double least = GROWTH * at.alfa;
  const double z = gs0 + at.gs + 3.0 * (search.f0 - at.f) / at.alfa;
  const double radicand = z * z - gs0 * at.gs;
  if (!(radicand >= 0.0)) return least;
  const double w = std::sqrt(radicand);
  double numerator = gs0;
  double denominator = gs0 + z - w;
  if (-z <= gs0) {
    denominator += at.gs + z + w;
    numerator = gs0 + z + w;
  }
  return kept_within(least, numerator * at.alfa / denominator, HUGE_VALUE);
}

static double increment_by_parabola(const Search& search, const Sample& at) {
  return quadratic_extension(search, at, GROWTH * at.alfa);
}

// A trial after the first could not be evaluated. Below the smallest step a rescue finds nothing.
static int end_at_failed_trial(MINSTR* str, const Search& search, double alfa) {
  if (alfa < HUNDRED_EPS) return fail(str, search);
  return rescue(str, search, rescue_step(search, alfa));
}

// at is behind the minimum. Interpolates until the value is below that of both ends.
static int interpolate_to_start(MINSTR* str, const Search& search, Sample at) {
  const double fmin = std::min(at.f, search.f0);
  for (int nit = 1; nit <= MOST_TRIALS; ++nit) {
    Sample inner;
    inner.alfa = cubic_fraction({0.0, search.f0, search.gs0}, at, CLIP) * at.alfa;
    if (!try_sample(str, &inner)) return end_at_failed_trial(str, search, inner.alfa);
    if (inner.f < fmin) return accept_step(str, search, inner.alfa);
    if (at.f < search.f0) {
      if (!try_sample(str, &at)) return fail(str, search);
      return accept_step(str, search, at.alfa);
    }
    at = inner;
    if (at.gs < 0.0 && nit >= FEW_PASSES && at.alfa < HUNDRED_EPS) break;
  }
  return rescue(str, search, rescue_step(search, at.alfa));
}

static int search_by_extrapolation(MINSTR* str, Increment increment) {
  Search search = begin_search(str);
  int code = 0;
  if (!begin_descent(str, &search, &code)) return code;

  Sample at;
  at.alfa = znlpalf(str, search.gs0);
  for (int nit = 0; !try_sample(str, &at); ++nit) {
    if (at.alfa < HUNDRED_EPS) return fail(str, search);
    if (nit == MOST_RETREATS) return rescue(str, search, rescue_step(search, at.alfa));
    at.alfa *= RETREAT;
  }

  for (int trial = 0; at.gs < 0.0 && at.f <= search.f0; ++trial) {
    if (at_limit(search, at.alfa) || str->ssin <= at.alfa || trial == MOST_TRIALS) {
      return accept_step(str, search, at.alfa);
    }
    at.alfa = std::min(at.alfa + increment(search, at), search.limit);
    if (!try_sample(str, &at)) return end_at_failed_trial(str, search, at.alfa);
  }
  return interpolate_to_start(str, search, at);
}

int znlpls4(MINSTR* str) { return search_by_extrapolation(str, increment_by_cubic); }

int znlpls5(MINSTR* str) { return search_by_extrapolation(str, increment_by_parabola); }

}  // namespace tqnlp
