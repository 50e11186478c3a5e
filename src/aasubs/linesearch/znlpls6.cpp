// znlpls6: line searches 6, 8 and 9, by comparisons.
//
// Method     Doubling brackets a minimum along the direction, golden section narrows the bracket, a
//            parabola through the start and the two inner points gives the last trial. Slopes are
//            not needed; a dozen evaluations are usual.
// Reference  Kiefer (1953), Proc. AMS 4, for golden section; Brent (1973), Algorithms for
//            Minimization without Derivatives, chapter 5
// Merit      methods 6 and 8: the objective. Method 9: the largest constraint violation, and where
//            two points have the same one, in the feasible region above all, the objective.
// Work       none: x holds the trial; awrk in method 9
//
//   1  first trial, shortened while it cannot be evaluated
//   2  lengthen while the merit falls
//   3  golden section
//   4  parabola
//   5  return to the best point met, gradient
//
// The best point met at any stage is what the search returns: on a function that falls up to the
// step limit that is the end of the interval, which golden section never reaches.

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/linesearch/znlplis_internal.h"
#include "kernels/vector.h"

namespace tqnlp {

using namespace lis;

static constexpr double SHORT_SECTION = 0.3819660112501051;  // golden section
static constexpr double LONG_SECTION = 0.6180339887498949;
static constexpr int USUAL_PASSES = 8;  // golden sections that suffice
static constexpr int MOST_LENGTHENINGS = 8;
static constexpr double NEAR_LIMIT = 0.9;  // no lengthening from this share of the limit on

namespace {

struct Merit {
  double violation = HUGE_VALUE;
  double value = HUGE_VALUE;
};

struct Probe {
  double alfa = 0.0;
  Merit merit;
  bool good = false;  // could be evaluated
};

// In what the three methods differ.
struct Rules {
  double interval;     // smallest useful interval, as a share of the first trial
  double growth;       // factor of lengthening
  bool halves_failed;  // a lengthened step that fails is tried with half the increment
  bool on_violation;
};

struct Comparison {
  Search search;
  Rules rules;
  Merit base;          // merit of xold
  double ltol = 0.0;   // smallest useful interval
  Probe best;          // best point met
  double here = 0.0;   // step at which x stands, 0 if it cannot be evaluated there
  double start = 0.0;  // interval of golden section
  double length = 0.0;
};

}  // namespace

// A failed evaluation has a merit above all others, so that no comparison asks for it.
static bool is_lower(const Merit& a, const Merit& b) {
  return a.violation != b.violation ? a.violation < b.violation : a.value < b.value;
}

static Probe probe(MINSTR* str, Comparison& c, double alfa) {
  Probe p;
  p.alfa = alfa;
  c.here = 0.0;
  if (!try_function(str, alfa)) return p;
  const double violation = c.rules.on_violation ? gtcmx(str) : 0.0;
  if (violation >= HUGE_VALUE) return p;
  p.merit = {violation, str->crit};
  p.good = true;
  c.here = alfa;
  if (!c.best.good || is_lower(p.merit, c.best.merit)) c.best = p;
  return p;
}

// Has the first trial decreased enough to try a longer one? Without a slope: has it decreased?
static bool may_lengthen(const MINSTR* str, const Comparison& c, const Probe& p) {
  if (!is_lower(p.merit, c.base) || p.alfa >= NEAR_LIMIT * c.search.limit) return false;
  return c.rules.on_violation ||
         p.merit.value < c.search.f0 + promised_share(str) * c.search.gs0 * p.alfa;
}

// ---- Stages -------------------------------------------------------------------------------------

// Lengthens from `at`. True: the best point met is the result. False: a minimum is in the interval.
static bool lengthen(MINSTR* str, Comparison& c, Probe at) {
  double low = 0.0;
  double share = 1.0;
  for (int count = 0; count < MOST_LENGTHENINGS; ++count) {
    if (at_limit(c.search, at.alfa) || str->ssin <= at.alfa) return true;
    const double increment = share * (c.rules.growth - 1.0) * at.alfa;
    const Probe next = probe(str, c, std::min(at.alfa + increment, c.search.limit));
    if (!next.good) {
      if (!c.rules.halves_failed) return true;
      share *= 0.5;
      continue;
    }
    if (!is_lower(next.merit, at.merit)) {
      c.start = low;
      c.length = next.alfa - low;
      return false;
    }
    low = at.alfa;
    at = next;
  }
  return true;
}

// Narrows the interval and ends with its two inner points. The side of the higher inner point is
// dropped; but while both are worse than xold, the far side: only near xold does the descent
// promise a better point, and a valley behind a ridge may hold none. Of equal points the shorter
// step stays. False: no point as good as xold was found.
static bool golden_section(MINSTR* str, Comparison& c, Probe* left, Probe* right) {
  *left = probe(str, c, c.start + SHORT_SECTION * c.length);
  *right = probe(str, c, c.start + LONG_SECTION * c.length);
  for (int pass = 0; pass < MOST_TRIALS; ++pass) {
    const bool narrow = pass > USUAL_PASSES || c.length <= c.ltol;
    if (narrow && c.best.good && !is_lower(c.base, c.best.merit)) return true;
    if (!moves_something(str, right->alfa)) return false;
    const bool same_violation = left->merit.violation == c.base.violation;
    if (narrow && same_violation && rise_is_rounding(c.search, left->merit.value)) return false;
    c.length *= LONG_SECTION;
    if (is_lower(right->merit, left->merit) && !is_lower(c.base, right->merit)) {
      c.start = left->alfa;
      *left = *right;
      *right = probe(str, c, c.start + LONG_SECTION * c.length);
    } else {
      *right = *left;
      *left = probe(str, c, c.start + SHORT_SECTION * c.length);
    }
  }
  return false;
}

// One trial at the minimum of the parabola through xold and the two inner points.
static void try_parabola(MINSTR* str, Comparison& c, const Probe& left, const Probe& right) {
  const bool same_violation =
      c.base.violation == left.merit.violation && c.base.violation == right.merit.violation;
  const auto height = [&](const Merit& m) { return same_violation ? m.value : m.violation; };
  const double alfa =
      xqmin(0.0, left.alfa, right.alfa, height(c.base), height(left.merit), height(right.merit));
  const Probe p = probe(str, c, alfa);
  if (p.good && !is_lower(c.best.merit, p.merit)) c.best = p;
}

static int search_by_comparison(MINSTR* str, const Rules& rules) {
  Comparison c;
  c.rules = rules;
  c.search = begin_search(str);
  const bool with_slope = str->ider != 0;
  int code = 0;
  if (!begin_comparison(str, with_slope, &c.search, &code)) return code;
  c.base = {rules.on_violation ? str->cmax : 0.0, c.search.f0};

  const double first_step = znlpalf(str, c.search.gs0);
  c.ltol = rules.interval * first_step;
  Probe first = probe(str, c, first_step);
  for (int trial = 0; !first.good; ++trial) {
    const double shorter = RETREAT * first.alfa;
    if (trial == MOST_TRIALS || !moves_something(str, shorter)) return fail(str, c.search);
    first = probe(str, c, shorter);
  }

  c.length = first.alfa;
  if (!may_lengthen(str, c, first) || !lengthen(str, c, first)) {
    Probe left;
    Probe right;
    if (!golden_section(str, c, &left, &right)) return fail(str, c.search);
    try_parabola(str, c, left, right);
  }
  Merit end = c.best.merit;
  // crit, func and fcon must be those of the result.
  if (c.here != c.best.alfa) {
    const Probe again = probe(str, c, c.best.alfa);
    if (!again.good) return fail(str, c.search);
    end = again.merit;
  }
  // A point that is merely as good counts where values decide, as in every search, but not as a
  // gain in feasibility.
  const bool good_enough = rules.on_violation ? is_lower(end, c.base) : !is_lower(c.base, end);
  if (!good_enough) return fail(str, c.search);
  return accept_comparison(str, c.search, c.best.alfa, with_slope);
}

int znlpls6(MINSTR* str) { return search_by_comparison(str, {1e-3, 2.0, false, false}); }

int znlpls8(MINSTR* str) { return search_by_comparison(str, {1e-8, 2.0, true, false}); }

int znlpls9(MINSTR* str) { return search_by_comparison(str, {1e-8, 4.0, true, true}); }

// ---- Services -----------------------------------------------------------------------------------

static double row_violation(double residual, bool equality) {
  if (std::isnan(residual)) return HUGE_VALUE;
  return equality ? std::fabs(residual) : std::max(-residual, 0.0);
}

double gtcmx(MINSTR* str) {
  double largest = 0.0;
  if (str->lincon != 0) {
    for (long i = 0; i < str->ncon; ++i) {
      str->acget(str, i, str->awrk);
      const double residual = zvdot11(str->nvar, str->awrk, str->x) - str->blcn[i];
      largest = std::max(largest, row_violation(residual, i < str->neqc));
    }
  }
  if (str->nlicon != 0) {
    // Without a call of their own the last evaluation of the objective has left the values in fcon.
    if (str->usnlc != nullptr && (str->usnlc(str) != 0 || str->tbig != 0.0)) return HUGE_VALUE;
    for (long i = 0; i < str->nnlc; ++i) {
      largest = std::max(largest, row_violation(str->fcon[i], i < str->nlec));
    }
  }
  return std::min(largest, HUGE_VALUE);
}

double xqmin(double x1, double x2, double x3, double f1, double f2, double f3) {
  const double mean = (x1 + x2 + x3) / 3.0;
  if (x1 >= x2 || x2 >= x3) return mean;
  const double denominator = (x2 - x3) * f1 + (x3 - x1) * f2 + (x1 - x2) * f3;
  if (std::fabs(denominator) <= TINY) return mean;
  const double numerator = (f1 - f2) * x3 * x3 + x1 * x1 * (f2 - f3) + (f3 - f1) * x2 * x2;
  const double q = -0.5 * numerator / denominator;
  return q >= x1 && q <= x3 ? q : mean;
}

}  // namespace tqnlp
