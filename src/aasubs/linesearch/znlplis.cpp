// znlplis: LIne Search. What all methods share: the start of a search, trials, interpolation, and
// the ways in which a search ends. The methods stand beside it:
//
//   znlplis_bracket.cpp      methods 1, 2, 3: bracket, sufficient decrease and slope test
//   znlplis_extrapolate.cpp  methods 4, 5: extrapolation until the function turns
//   znlpls6.cpp              methods 6, 8, 9: golden section
//   znlpls6_goldstein.cpp    method 7: Goldstein test
//   znlplis_bisect.cpp       the rescue of methods 1 to 5
//
// Reference  Fletcher (1987), Practical Methods of Optimization, chapter 2; for the cubic through
//            two values and slopes Davidon (1959), Variable Metric Method for Minimization

#include "aasubs/linesearch/znlplis.h"

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/linesearch/znlplis_internal.h"
#include "kernels/vector.h"

namespace tqnlp {

using namespace lis;

// ---- What all methods share ---------------------------------------------------------------------

namespace lis {

// Number of the search after which the first step is free.
static constexpr long SEARCH_THAT_RELEASES = 5;

static constexpr double SMALL_SIGMA = 0.2;  // below it, half of sigm is the share of the decrease
static constexpr double USUAL_SHARE = 0.1;

Search begin_search(MINSTR* str) {
  Search search;
  str->nlis += 1;
  search.limit = str->stub;
  // smax 0 stands for no such limit.
  if (str->smax > 0.0 && str->nlis <= str->smit) search.limit = std::min(str->stub, str->smax);
  search.f0 = str->crit;
  search.gmx0 = str->gmax;
  return search;
}

// An uphill direction is the caller's mistake, which no rescue mends. Without slope or room nothing
// is tried either; the rescue, given a step of 0, then ends at once.
bool begin_descent(MINSTR* str, Search* search, int* code) {
  search->gs0 = znlpgs(str, str->spro, str->gpro, str->sdir, str->gold);
  // Written so that numbers that are none end the search as an uphill direction does.
  if (!(search->gs0 <= SMALLEST_TOLERANCE) || !std::isfinite(search->f0)) {
    *code = fail(str, *search);
    return false;
  }
  if (search->gs0 > -SMALLEST_TOLERANCE || !(search->limit > SMALLEST_TOLERANCE)) {
    *code = rescue(str, *search, 0.0);
    return false;
  }
  return true;
}

// Only an answer of 0 with alfa 0 tells the caller that there was nothing to search.
bool begin_comparison(MINSTR* str, bool with_slope, Search* search, int* code) {
  if (with_slope) {
    znlpgmx(str, 0, nullptr);
    search->gmx0 = str->gmax;
    search->gs0 = znlpgs(str, str->spro, str->gpro, str->sdir, str->grad);
  }
  const bool nothing_to_do = search->limit <= SMALLEST_TOLERANCE ||
                             (with_slope && std::fabs(search->gs0) <= SMALLEST_TOLERANCE);
  if (nothing_to_do) {
    str->alfa = 0.0;
    *code = 0;
    return false;
  }
  if (search->gs0 <= SMALLEST_TOLERANCE && std::isfinite(search->f0)) return true;
  *code = fail(str, *search);
  return false;
}

double promised_share(const MINSTR* str) {
  return str->sigm < SMALL_SIGMA ? str->sigm / 2.0 : USUAL_SHARE;
}

void move_to(MINSTR* str, double alfa) { zvaxpy(str->x, str->sdir, str->xold, str->nvar, alfa); }

// The value is checked here, and not only tbig: comparisons with a number that is none would take
// any branch.
bool try_function(MINSTR* str, double alfa) {
  move_to(str, alfa);
  str->ifdr = ORDER_FUNCTION;
  const int code = str->usfct(str);
  return code == 0 && str->tbig == 0.0 && std::isfinite(str->crit);
}

// gpro and gmax follow the trial; the working set stays that of xold.
bool try_slope(MINSTR* str, double* slope) {
  str->ifdr = ORDER_GRADIENT;
  const int code = str->usgrd(str);
  if (code != 0 || str->tbig != 0.0) return false;
  znlpgmx(str, 0, nullptr);
  *slope = znlpgs(str, str->spro, str->gpro, str->sdir, str->grad);
  return std::isfinite(*slope) && std::isfinite(str->gmax);
}

bool try_sample(MINSTR* str, Sample* trial) {
  if (!try_function(str, trial->alfa)) return false;
  trial->f = str->crit;
  return try_slope(str, &trial->gs);
}

bool moves_something(const MINSTR* str, double alfa) {
  double largest = 0.0;
  long moved = 0;
  for (long j = 0; j < str->nvar; ++j) {
    const double move = std::fabs(alfa * str->sdir[j] + str->xold[j] - str->xold[j]);
    largest = std::max(largest, move);
    if (move >= TEN_EPS * std::fabs(str->xold[j])) ++moved;
  }
  return moved > 0 && largest > SMALLEST_TOLERANCE;
}

double kept_within(double low, double value, double high) {
  if (!(value >= low)) return low;
  return std::min(value, high);
}

// Of the two forms of the root, the one without cancellation in the sum ga + z.
double cubic_fraction(const Sample& low, const Sample& high, double margin) {
  const double ga = low.gs;
  const double gb = high.gs;
  const double z = ga + gb + 3.0 * (low.f - high.f) / (high.alfa - low.alfa);
  const double radicand = z * z - ga * gb;
  const double w = radicand > 0.0 ? std::sqrt(radicand) : 0.0;
  double numerator = ga;
  double denominator = ga + z - w;
  if (-z <= ga) {
    denominator += gb + w + z;
    numerator = ga + w + z;
  }
  return kept_within(margin, numerator / denominator, 1.0 - margin);
}

// On a parabola e is the change of the slope from 0 to at.alfa, and -gs / e times the step leads to
// the minimum. Without curvature the longest step is the best guess.
double quadratic_extension(const Search& search, const Sample& at, double most) {
  const double e = 3.0 * at.gs + search.gs0 - 4.0 * (at.f - search.f0) / at.alfa;
  if (!(e > 0.0)) return most;
  return std::min(most, std::max(-at.gs / e, 1.0) * at.alfa);
}

// A step that the test of a method passed may still be no descent, when the function answers
// differently at a second call.
int accept_step(MINSTR* str, const Search& search, double alfa) {
  if (!(alfa > SMALLEST_TOLERANCE && str->crit <= search.f0)) {
    return rescue(str, search, rescue_step(search, alfa));
  }
  release_first_step(str);
  str->alfa = alfa;
  return 0;
}

int accept_comparison(MINSTR* str, const Search& search, double alfa, bool with_slope) {
  double slope = 0.0;
  if (with_slope && !try_slope(str, &slope)) return fail(str, search);
  release_first_step(str);
  str->alfa = alfa;
  return 0;
}

int rescue(MINSTR* str, const Search& search, double step) {
  if (search.gmx0 > search.gate && bisect(str, search.f0, search.gs0, search.gmx0, step) == 0) {
    release_first_step(str);
    return 0;
  }
  return fail(str, search);
}

int fail(MINSTR* str, const Search& search) {
  str->crit = search.f0;
  str->alfa = 0.0;
  str->gmax = search.gmx0;
  std::copy_n(str->xold, str->nvar, str->x);
  // xold was evaluated before: a failure at some trial is none of the point that stands now.
  str->tbig = 0.0;
  return search.failure;
}

void release_first_step(MINSTR* str) {
  if (str->nlis == SEARCH_THAT_RELEASES) str->salf = 1.0;
}

}  // namespace lis

// Values that name no method, or one with other needs, get the default.
Callback select_line_search(int tlin) {
  switch (tlin) {
    case 1:
      return znlpls1;
    case 3:
      return znlpls3;
    case 4:
      return znlpls4;
    case 5:
      return znlpls5;
    case 6:
      return znlpls6;
    case 7:
      return znlpls7;
    case 8:
      return znlpls8;
    default:
      return znlpls2;
  }
}

}  // namespace tqnlp
