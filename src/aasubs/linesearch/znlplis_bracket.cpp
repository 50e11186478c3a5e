// znlplis, the bracket: line searches 1, 2 and 3.
//
// Method     Inexact minimization along a direction of descent. A trial has decreased enough when
//              f(alfa) - f(0) <= tau alfa f'(0)         (Armijo), tau = 0.1 or sigm/2
//            and its slope is flat enough when
//              f'(alfa) >= sigm f'(0)                   (Wolfe), or in methods 2 and 3 with sigm
//              |f'(alfa)| <= sigm |f'(0)|               below 0.1 (strong Wolfe)
//            Too short a step opens the bracket by extrapolation, too long a one closes it by
//            interpolation, with a safeguard that keeps the trial away from both ends.
// Reference  Wolfe (1969), SIAM Review 11; Fletcher (1987), Practical Methods of Optimization,
//            section 2.6; More and Thuente (1994), ACM TOMS 20
// Bracket    low (alf1, f1, gs1) is the longest step known to be too short; high (alf2, f2, gs2),
//            when its step is above that of low, a step known to be too long. Method 1 keeps the
//            interval as a length counted from low: dalf that of the trial, dalo that of the last
//            step known to be too long. amin is the best step met, leaving out those whose gradient
//            failed: such a step can only be shortened.
// Work       none: x, grad and gpro hold the trial
//
// Methods 1 and 3 call the gradient at every trial; method 2 only after sufficient decrease.

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/linesearch/znlplis_internal.h"

namespace tqnlp {

using namespace lis;

static constexpr double USUAL_TAU = 0.1;
static constexpr double SMALL_SIGMA = 0.2;      // at or below it, half of sigm serves as tau
static constexpr double TWO_SIDED_SIGMA = 0.1;  // below it, methods 2 and 3 test both sides
static constexpr double ROUGH_INTERVAL = 1e-6;  // smallest useful one under differenced gradients
static constexpr double EXTENSION = 9.0;        // of the present step: at most tenfold
static constexpr double RESCUE_GATE_2 = 1e-3;   // gmax above which method 2 is rescued

// Interpolation without a slope at the far end.
static constexpr double FLAT_FRACTION = 0.25;    // the trial's value is that of xold but for noise
static constexpr double LEAST_FRACTION = 0.2;    // between a steep step and one too long ...
static constexpr double LARGEST_FRACTION = 0.8;  // ... and its upper end,
static constexpr double CLOSED_FRACTION = 0.6;   // and when the two are all but the same

// Steps of a fifth towards a failed evaluation leave a tenth of the way to it. A function that
// still falls there is left to the next search: it may fall up to the edge of its domain.
static constexpr int MOST_APPROACHES = 10;

namespace {

// What a method decides after a trial.
enum class Verdict {
  again,    // the next trial is chosen
  accept,   // the trial in hand
  best,     // the best step met
  rescue,   // nothing to accept, but the rescue may find something
  give_up,  // nothing to accept, and the rescue would not help
};

struct Bracket {
  Search search;
  double tau = USUAL_TAU;    // sufficient decrease, and margin of interpolation
  double ltol = 0.0;         // smallest useful interval
  long jlow = -1;            // parameter that a small step moves first, relative to its size,
  double talf = HUGE_VALUE;  // and the step that moves it by a hundred rounding units
  Sample at;                 // present trial
  bool has_value = false;    // at.f, and x with crit, are those of the trial
  bool has_slope = false;    // at.gs too
  Sample low;
  Sample high;         // f missing or gs 0 where not known
  double dalf = 0.0;   // method 1
  double dalo = 0.0;   // method 1
  double amin = 0.0;   // best step met, 0 none
  double minf = 0.0;   // value there
  int nit = 0;         // flat trials: the value did not change at all
  int approaches = 0;  // trials towards an end that could not be evaluated
};

using Step = Verdict (*)(MINSTR* str, Bracket& b);

}  // namespace

// ---- Questions ----------------------------------------------------------------------------------

static bool has_useful_best(const Bracket& b) {
  return b.amin > SMALLEST_TOLERANCE && b.minf < b.search.f0;
}

// Shortest interval at alfa whose ends differ by more than rounding.
static double precision_at(const MINSTR* str, const Bracket& b) {
  const double move = std::fabs(str->sdir[b.jlow]);
  return (b.at.alfa * move + std::fabs(str->xold[b.jlow])) * HUNDRED_EPS / move;
}

static bool is_flat(const Bracket& b) { return std::fabs(b.at.f - b.search.f0) <= TINY; }

// No further trial can tell anything. Parameters that are zero at xold are moved by any step, so
// that a search in which every evaluation fails is left to the limit of trials.
static bool is_exhausted(const MINSTR* str, const Bracket& b, double interval) {
  return b.at.alfa <= b.talf || interval <= precision_at(str, b) ||
         (b.has_value && b.nit > 1 && is_flat(b));
}

static bool decreased_enough(const Bracket& b) {
  return b.at.f - b.search.f0 <= b.tau * b.search.gs0 * b.at.alfa;
}

static Verdict best_or(const Bracket& b, Verdict otherwise) {
  return has_useful_best(b) ? Verdict::best : otherwise;
}

// Of equal values the later step counts.
static void note_best(Bracket& b) {
  if (b.at.f <= b.minf) {
    b.amin = b.at.alfa;
    b.minf = b.at.f;
  }
}

static void call_value(MINSTR* str, Bracket& b) {
  b.has_slope = false;
  b.has_value = try_function(str, b.at.alfa);
  if (b.has_value) b.at.f = str->crit;
}

static void call_slope(MINSTR* str, Bracket& b) {
  b.has_slope = b.has_value && try_slope(str, &b.at.gs);
}

// ---- Start and end ------------------------------------------------------------------------------

// talf and jlow. False: no component of the direction is large enough to move anything.
static bool find_smallest_step(const MINSTR* str, Bracket& b) {
  for (long j = 0; j < str->nvar; ++j) {
    const double unit = HUNDRED_EPS * std::fabs(str->xold[j]);
    const double move = std::fabs(str->sdir[j]);
    if (!(move > std::max(ROOT_TINY, ROOT_TINY * unit))) continue;
    if (unit / move < b.talf) {
      b.talf = unit / move;
      b.jlow = j;
    }
  }
  return b.jlow >= 0;
}

// Head of the methods. start is the lower end of the first interval: 0 in method 1. False: the
// search is over, and *code is its result.
static bool open_bracket(MINSTR* str, double start, Bracket& b, int* code) {
  if (!begin_descent(str, &b.search, code)) return false;
  if (!find_smallest_step(str, b)) {
    *code = fail(str, b.search);
    return false;
  }
  if (str->sigm <= SMALL_SIGMA) b.tau = str->sigm / 2.0;
  // The slope test of a search that is content with little has no use for intervals in which the
  // error of the differences decides.
  if (str->sigm >= TWO_SIDED_SIGMA && str->fidi != 0 && str->fdig < -std::log10(HUNDRED_EPS)) {
    b.ltol = ROUGH_INTERVAL;
  }
  b.low = {start, b.search.f0, b.search.gs0};
  b.high.f = MISSING;
  b.minf = b.search.f0;
  b.at.alfa = b.dalf = znlpalf(str, b.search.gs0);
  return true;
}

// Returns to the best step. Only what is not known there is called for.
static int take_best(MINSTR* str, Bracket& b) {
  const bool here = b.has_value && b.at.alfa == b.amin;
  if (!here && !try_function(str, b.amin)) return fail(str, b.search);
  if (!(here && b.has_slope) && !try_slope(str, &b.at.gs)) return fail(str, b.search);
  return accept_step(str, b.search, b.amin);
}

static int search_in_bracket(MINSTR* str, Step step, Bracket& b) {
  Verdict verdict = Verdict::again;
  for (int trial = 0; trial < MOST_TRIALS && verdict == Verdict::again; ++trial) {
    verdict = step(str, b);
  }
  switch (verdict) {
    case Verdict::accept:
      return accept_step(str, b.search, b.at.alfa);
    case Verdict::rescue:
      return rescue(str, b.search, rescue_step(b.search, b.at.alfa));
    case Verdict::give_up:
      return fail(str, b.search);
    case Verdict::again:
      b.has_value = false;  // at is already the trial that is not made
      if (!has_useful_best(b)) return fail(str, b.search);
      break;
    case Verdict::best:
      break;
  }
  return take_best(str, b);
}

// ---- Method 1 -----------------------------------------------------------------------------------

// The trial may be longer. With a step known to be too long, half of what is left up to it is the
// most that is tried.
static Verdict extend_from_trial(Bracket& b) {
  if (at_limit(b.search, b.at.alfa)) return best_or(b, Verdict::rescue);
  b.dalo -= b.dalf;
  const double most = b.dalo > 0.0 ? b.dalo / 2.0 : EXTENSION * b.at.alfa;
  b.dalf = std::min(quadratic_extension(b.search, b.at, most), b.search.limit - b.at.alfa);
  b.low = b.at;
  b.nit = 0;
  return Verdict::again;
}

static Verdict step_by_length(MINSTR* str, Bracket& b) {
  b.at.alfa = b.low.alfa + b.dalf;
  call_value(str, b);
  call_slope(str, b);
  if (!b.has_slope) {
    if (has_useful_best(b)) return Verdict::best;
    if (is_exhausted(str, b, b.dalf)) return Verdict::give_up;
    b.dalo = b.dalf;
    b.dalf *= RETREAT;
    return Verdict::again;
  }
  note_best(b);
  if (is_exhausted(str, b, b.dalf)) return best_or(b, Verdict::give_up);
  if (decreased_enough(b)) {
    if (b.at.gs >= str->sigm * b.search.gs0 || str->ssin <= b.at.alfa) return Verdict::accept;
    return extend_from_trial(b);
  }
  if (b.dalf <= b.ltol && b.minf < b.search.f0) return Verdict::best;
  if (is_flat(b)) ++b.nit;
  b.dalo = b.dalf;
  b.dalf *= cubic_fraction(b.low, b.at, b.tau);
  return Verdict::again;
}

int znlpls1(MINSTR* str) {
  Bracket b;
  b.search = begin_search(str);
  int code = 0;
  if (!open_bracket(str, 0.0, b, &code)) return code;
  return search_in_bracket(str, step_by_length, b);
}

// ---- Methods 2 and 3 ----------------------------------------------------------------------------

static double interval_of(const Bracket& b) {
  const double end = b.high.alfa > b.low.alfa ? b.high.alfa : b.at.alfa;
  return end - b.low.alfa;
}

// The trial could not be evaluated: it becomes the upper end, with value f2.
static Verdict retreat(MINSTR* str, Bracket& b, double f2) {
  if (has_useful_best(b)) return Verdict::best;
  if (is_exhausted(str, b, interval_of(b))) return Verdict::give_up;
  b.high = {b.at.alfa, f2, 0.0};
  const double interval = interval_of(b);
  if (!(interval > precision_at(str, b))) return Verdict::rescue;
  b.at.alfa = b.low.alfa + RETREAT * interval;
  return Verdict::again;
}

// Minimum of the parabola through the value and slope of the trial and the value of high, between
// the two, as a fraction of their distance d. Beyond a failed evaluation, whose value is missing,
// the least fraction is the one to trust.
static double fraction_to_high(const Bracket& b, double d) {
  const double q = 0.5 / ((b.at.f - b.high.f) / (b.at.gs * d) + 1.0);
  if (q > LARGEST_FRACTION) return LARGEST_FRACTION;
  if (d <= EPS) return CLOSED_FRACTION;
  return kept_within(LEAST_FRACTION, q, LARGEST_FRACTION);
}

// The trial has decreased enough but is still steep: it becomes the lower end.
static Verdict extend_bracket(MINSTR* str, Bracket& b, bool always_cubic) {
  if (str->ssin <= b.at.alfa) return Verdict::accept;
  if (at_limit(b.search, b.at.alfa)) return best_or(b, Verdict::rescue);
  const double d = b.high.alfa - b.at.alfa;
  if (d > 0.0 && wzmis(b.high.f) && ++b.approaches > MOST_APPROACHES) return Verdict::accept;
  double increment = 0.0;
  if (!(d > 0.0)) {
    increment = quadratic_extension(b.search, b.at, EXTENSION * b.at.alfa);
  } else if (always_cubic || b.high.gs > 0.0) {
    if (d <= b.ltol && b.minf < b.search.f0) return Verdict::best;
    increment = cubic_fraction(b.at, b.high, b.tau) * d;
  } else {
    increment = fraction_to_high(b, d) * d;
  }
  b.low = b.at;
  b.nit = 0;
  b.at.alfa = std::min(b.at.alfa + increment, b.search.limit);
  return Verdict::again;
}

// The trial has decreased enough and its slope is known.
static Verdict judge_slope(MINSTR* str, Bracket& b, bool always_cubic) {
  const double wanted = str->sigm * b.search.gs0;
  if (!(b.at.gs >= wanted)) return extend_bracket(str, b, always_cubic);
  if (str->sigm >= TWO_SIDED_SIGMA || b.at.gs <= -wanted) return Verdict::accept;
  // Behind the minimum, and still steep there.
  const double d = b.at.alfa - b.low.alfa;
  if (!(b.at.alfa * HUNDRED_EPS <= d || b.search.f0 <= b.minf)) return Verdict::best;
  b.high = b.at;
  b.at.alfa = b.low.alfa + cubic_fraction(b.low, b.high, b.tau) * d;
  b.nit = 0;
  return Verdict::again;
}

static void count_flat_trial(const MINSTR* str, Bracket& b) {
  if (is_flat(b) && str->gmax > str->gtol) ++b.nit;
}

// Interpolates between low and the trial by values and the slope at low.
static Verdict shorten_by_value(MINSTR* str, Bracket& b) {
  const double d = b.at.alfa - b.low.alfa;
  if (d <= b.ltol && b.minf < b.search.f0) return Verdict::best;
  const double promised = b.low.gs * d;
  // A promise below the tolerance of the run cannot be told from noise.
  if (!(str->ftol * HUNDRED_EPS < std::fabs(promised))) return best_or(b, Verdict::rescue);
  double fraction = FLAT_FRACTION;
  if (std::fabs(b.at.f - b.search.f0) > HUNDRED_EPS * std::fabs(b.search.f0)) {
    fraction = kept_within(b.tau, 0.5 / ((b.low.f - b.at.f) / promised + 1.0), 1.0 - b.tau);
  }
  count_flat_trial(str, b);
  b.high = {b.at.alfa, b.at.f, 0.0};
  b.at.alfa = b.low.alfa + fraction * d;
  return Verdict::again;
}

// Interpolates between low and the trial by values and slopes.
static Verdict shorten_by_slope(MINSTR* str, Bracket& b) {
  const double d = b.at.alfa - b.low.alfa;
  if (d <= b.ltol && b.minf < b.search.f0) return Verdict::best;
  // The first interval starts at the smallest tolerance, which stands for 0.
  const bool untouched = b.low.alfa <= SMALLEST_TOLERANCE && b.low.f == b.at.f;
  const double fraction = untouched ? b.tau : cubic_fraction(b.low, b.at, b.tau);
  count_flat_trial(str, b);
  b.high = b.at;
  b.at.alfa = b.low.alfa + fraction * d;
  return Verdict::again;
}

static Verdict step_with_values(MINSTR* str, Bracket& b) {
  call_value(str, b);
  if (!b.has_value) return retreat(str, b, MISSING);
  if (is_exhausted(str, b, interval_of(b))) {
    note_best(b);
    return best_or(b, Verdict::give_up);
  }
  if (!decreased_enough(b)) {
    note_best(b);
    return shorten_by_value(str, b);
  }
  call_slope(str, b);
  if (!b.has_slope) {
    b.nit = 0;
    return retreat(str, b, b.at.f);
  }
  note_best(b);
  return judge_slope(str, b, false);
}

static Verdict step_with_slopes(MINSTR* str, Bracket& b) {
  call_value(str, b);
  call_slope(str, b);
  if (!b.has_slope) return retreat(str, b, MISSING);
  note_best(b);
  if (is_exhausted(str, b, interval_of(b))) return best_or(b, Verdict::give_up);
  return decreased_enough(b) ? judge_slope(str, b, true) : shorten_by_slope(str, b);
}

int znlpls2(MINSTR* str) {
  Bracket b;
  b.search = begin_search(str);
  b.search.failure = -1;
  b.search.gate = RESCUE_GATE_2;
  int code = 0;
  if (!open_bracket(str, SMALLEST_TOLERANCE, b, &code)) return code;
  return search_in_bracket(str, step_with_values, b);
}

int znlpls3(MINSTR* str) {
  Bracket b;
  b.search = begin_search(str);
  int code = 0;
  if (!open_bracket(str, SMALLEST_TOLERANCE, b, &code)) return code;
  return search_in_bracket(str, step_with_slopes, b);
}

}  // namespace tqnlp
