// znlpl12: the line search of HYQUAN (tlin 12).
//
// Method     A step is good when the function has lost between the shares t and 1 - t of what the
//            slope at the start promises (Goldstein); once a longer step has been seen, it also has
//            to be no worse than the best one before. New steps come from the minimum of the cubic
//            through the last two values and slopes, or by fixed factors where a slope is not
//            known. Where residuals and J sdir are at hand, a step that is too long is corrected by
//            a model of the residuals instead, r + a J sdir + a^2 v, with v such that the model is
//            exact at the trial. Its norm is a quartic in a; the trial's slope, which would cost a
//            Jacobian, is then not asked for.
// Reference  Fletcher (1987), Practical Methods of Optimization, chapter 2; for the model of the
//            residuals Lindstrom and Wedin (1984), Math. Programming 29
// Work       none: x, grad, gpro and func hold the trial
//
//   1  first trial: the natural length of the direction where it has one, else the usual estimate
//   2  too short: lengthen by the fit, at most ninefold
//   3  too long, or not to be evaluated: shorten into the bracket
//   4  at the end of the precision: the best point seen
#include "aasubs/linesearch/znlpl12.h"

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/linesearch/znlplis_internal.h"
#include "kernels/vector.h"

namespace tqnlp {

using namespace lis;

// Results of a search that failed.
static constexpr int NOT_DOWNHILL = -1;
static constexpr int NO_STEP = -2;
static constexpr int EVALUATIONS_FAILED = -3;
static constexpr int BEST_POINT_FAILED = -11;

static constexpr int MOST_FAILURES = 10;  // failed evaluations in a row

// Extrapolation: factors of a step without a fit, one after another; the last limits a fit too.
static constexpr double GROWTH[] = {3.0, 4.0, 9.0};

// Interpolation: shares of the bracket that a step may keep.
static constexpr double LARGEST_CORRECTION = 0.8;
static constexpr double HALVING = 0.5;  // where no fit can be made
static constexpr double SMALLEST_CORRECTION = 0.1;
static constexpr double SMALLEST_MODELLED = 0.01;  // the same for the model of the residuals

namespace {

// What is known of the trial of a bracket's upper end.
enum class Known { nothing, value, slope };

struct State {
  Search search;
  double share = 0.0;  // t
  Sample low{};        // best step so far, which has lost enough; the start at first
  Sample high{};       // a step that is too long, once closed is set
  bool closed = false;
  Known known = Known::nothing;  // of high
  int extensions = 0;
  int failures = 0;         // evaluations that failed in a row
  double last_f = MISSING;  // value of the trial before
};

}  // namespace

// ---- First trial --------------------------------------------------------------------------------

// DFP, which hardly ever lowers a curvature that is too large, lives on steps that are lengthened.
static bool has_natural_length(const MINSTR* str) {
  static constexpr int DFP = 2;
  static constexpr long GAUSS_NEWTON = 1;
  return str->tech == HYQUAN && (str->tupd != DFP || str->null == GAUSS_NEWTON);
}

// The directions of HYQUAN come from a model of the Hessian, which has its minimum at length 1;
// with this decrease expected that is the estimate, within the limits. Others are left to the
// decrease of the last iteration.
static double first_trial(MINSTR* str, double gs0) {
  static constexpr double EXPECTED_OF_UNIT_STEP = 0.4;  // of the slope
  if (!has_natural_length(str)) return znlpalf(str, gs0);
  const double dfes = str->dfes;
  str->dfes = EXPECTED_OF_UNIT_STEP * std::fabs(gs0);
  const double alfa = znlpalf(str, gs0);
  str->dfes = dfes;
  return alfa;
}

// ---- Model of the residuals ---------------------------------------------------------------------

// Are the residuals at xold, and behind them J sdir, in fold?
static bool has_residual_model(const MINSTR* str) {
  static constexpr int RESIDUAL_SEARCH = 12;
  return str->tech == HYQUAN && str->tlin == RESIDUAL_SEARCH && str->lsqu != 0 &&
         str->utjacm != nullptr;
}

namespace {

// Derivative of the quartic |r + a J sdir + a^2 v|^2 / 2 by powers of a.
struct Quartic {
  double c[4];
  double operator()(double a) const { return c[0] + a * (c[1] + a * (c[2] + a * c[3])); }
};

}  // namespace

// func holds the residuals at the step alfa.
static Quartic fit_residuals(const MINSTR* str, double alfa) {
  const double* r = str->fold;
  const double* jd = str->fold + str->mequ;
  Quartic q{};
  for (long i = 0; i < str->mequ; ++i) {
    const double v = ((str->func[i] - r[i]) / alfa - jd[i]) / alfa;
    q.c[0] += r[i] * jd[i];
    q.c[1] += jd[i] * jd[i] + 2.0 * r[i] * v;
    q.c[2] += 3.0 * jd[i] * v;
    q.c[3] += 2.0 * v * v;
  }
  return q;
}

// A minimum of the model between two steps, at the first of which it falls; none: 0.
static double minimum_between(const Quartic& slope, double low, double high) {
  static constexpr int HALVINGS = 30;
  if (!(slope(low) < 0.0 && slope(high) > 0.0)) return 0.0;
  for (int k = 0; k < HALVINGS; ++k) {
    const double mid = 0.5 * (low + high);
    (slope(mid) > 0.0 ? high : low) = mid;
  }
  return low;
}

// ---- New steps ----------------------------------------------------------------------------------

// Distance from b to the minimum of the cubic through a and b, which lies behind b; none: 0.
static double cubic_extension(const Sample& a, const Sample& b) {
  const double d = b.alfa - a.alfa;
  const double z = a.gs + b.gs + 3.0 * (a.f - b.f) / d;
  const double radicand = z * z - a.gs * b.gs;
  if (!(radicand >= 0.0)) return 0.0;
  const double w = std::sqrt(radicand);
  const double extension = d * (z - w - b.gs) / (b.gs - a.gs + 2.0 * w);
  return std::isfinite(extension) && extension > 0.0 ? extension : 0.0;
}

// Longer than trial.
static double extend(State& state, const Sample& trial) {
  const double growth = GROWTH[std::min(state.extensions++, 2)];
  double longer = cubic_extension(state.low, trial);
  if (longer == 0.0) longer = (growth - 1.0) * trial.alfa;
  const double least = HALVING * (trial.alfa - state.low.alfa);
  return trial.alfa + kept_within(least, longer, (GROWTH[2] - 1.0) * trial.alfa);
}

// Into the bracket, of which the trial at alfa, whose residuals are in func, is an end.
static double interpolate(const MINSTR* str, const State& state, double alfa) {
  const double distance = state.high.alfa - state.low.alfa;
  double share = state.low.alfa > 0.0 ? HALVING : SMALLEST_CORRECTION;
  double minimum = 0.0;
  if (state.known != Known::nothing && has_residual_model(str)) {
    minimum = minimum_between(fit_residuals(str, alfa), state.low.alfa, state.high.alfa);
  }
  if (minimum > 0.0) {
    share = std::max((minimum - state.low.alfa) / distance, SMALLEST_MODELLED);
  } else if (state.known == Known::slope) {
    share = cubic_fraction(state.low, state.high, SMALLEST_CORRECTION);
  }
  return state.low.alfa + std::min(share, LARGEST_CORRECTION) * distance;
}

// ---- End ----------------------------------------------------------------------------------------

static int end_with_failure(MINSTR* str, State& state, int code) {
  state.search.failure = code;
  return fail(str, state.search);
}

static int accept(MINSTR* str, double alfa) {
  release_first_step(str);
  str->alfa = alfa;
  return 0;
}

// The best point seen becomes the result.
static int end_at_best(MINSTR* str, State& state, int code) {
  if (!(state.low.alfa > 0.0)) return end_with_failure(str, state, code);
  Sample best = state.low;
  if (!try_sample(str, &best) || best.f > state.search.f0) {
    return end_with_failure(str, state, BEST_POINT_FAILED);
  }
  return accept(str, best.alfa);
}

// ---- Judgement ----------------------------------------------------------------------------------

enum class Verdict { good, too_short, too_long };

// Is what the slope promises for a step of this length rounding beside the value?
static bool promise_is_rounding(const Search& search, double alfa) {
  return -alfa * search.gs0 <= HUNDRED_EPS * std::fabs(search.f0);
}

// By the value alone: has the step lost too little?
static bool loses_too_little(const State& state, const Sample& trial) {
  const Search& search = state.search;
  if (promise_is_rounding(search, trial.alfa)) return trial.f > search.f0;
  const double least = -state.share * trial.alfa * search.gs0;
  return !(search.f0 - trial.f >= least && trial.f < search.f0 && trial.f <= state.low.f);
}

// A step that has lost enough, by its slope.
static Verdict judge(const MINSTR* str, const State& state, const Sample& trial) {
  const Search& search = state.search;
  // No rise and a flatter slope is all to be had here.
  if (promise_is_rounding(search, trial.alfa)) {
    const bool flatter = std::fabs(trial.gs) <= std::fabs(search.gs0);
    return flatter ? Verdict::good : Verdict::too_long;
  }
  const double most = -(1.0 - state.share) * trial.alfa * search.gs0;
  const bool falls_on = search.f0 - trial.f > most && trial.gs < 0.0;
  // Up to a point that cannot be evaluated there is nothing to look for.
  const bool walled = state.closed && state.known == Known::nothing;
  const bool may_grow = !walled && !at_limit(search, trial.alfa) && str->ssin > trial.alfa;
  return falls_on && may_grow ? Verdict::too_short : Verdict::good;
}

// Evaluates the trial and judges it. Where the residuals tell where to go from a step that is too
// long, its slope is not evaluated.
static Verdict try_step(MINSTR* str, State& state, Sample& trial) {
  Known known = Known::nothing;
  Verdict verdict = Verdict::too_long;
  if (try_function(str, trial.alfa)) {
    trial.f = str->crit;
    const bool too_long = loses_too_little(state, trial);
    if (too_long && has_residual_model(str)) {
      known = Known::value;
    } else if (try_slope(str, &trial.gs)) {
      known = Known::slope;
      if (!too_long) verdict = judge(str, state, trial);
    }
  }
  state.failures = known == Known::nothing ? state.failures + 1 : 0;
  if (verdict == Verdict::too_long) {
    state.high = trial;
    state.closed = true;
    state.known = known;
  }
  return verdict;
}

// Is another trial no longer worth while? The bracket is closed to precision, the step moves
// nothing, or the last two values were those of the start. (On a plateau above it a shorter step
// may still help.)
static bool exhausted(const MINSTR* str, const State& state, double alfa, bool same_value) {
  if (same_value || !moves_something(str, alfa)) return true;
  return state.closed && state.high.alfa - state.low.alfa <= HUNDRED_EPS * state.high.alfa;
}

// The slope at the start, the share t and the lower end of the bracket. Returns 0, or the code of a
// search that cannot begin.
static int begin(MINSTR* str, State& state) {
  state.search = begin_search(str);
  Search& search = state.search;
  search.gs0 = znlpgs(str, str->spro, str->gpro, str->sdir, str->gold);
  state.share = promised_share(str);
  state.low = {0.0, search.f0, search.gs0};
  if (!(search.gs0 < -SMALLEST_TOLERANCE) || !std::isfinite(search.f0)) return NOT_DOWNHILL;
  return search.limit > SMALLEST_TOLERANCE ? 0 : NO_STEP;
}

int znlpl12(MINSTR* str) {
  State state;
  if (const int code = begin(str, state); code != 0) return end_with_failure(str, state, code);
  const Search& search = state.search;
  Sample trial;
  trial.alfa = std::min(first_trial(str, search.gs0), search.limit);
  for (int count = 0; count < MOST_TRIALS; ++count) {
    const Verdict verdict = try_step(str, state, trial);
    if (verdict == Verdict::good) return accept(str, trial.alfa);
    if (state.failures == MOST_FAILURES) return end_at_best(str, state, EVALUATIONS_FAILED);
    const bool seen = state.failures == 0;
    const double change = std::fabs(trial.f - search.f0) + std::fabs(trial.f - state.last_f);
    const bool same_value = seen && change <= EPS * std::fabs(search.f0);
    state.last_f = seen ? trial.f : MISSING;
    const double alfa = trial.alfa;
    double next = 0.0;
    if (verdict == Verdict::too_short) {
      next = state.closed ? 0.0 : std::min(extend(state, trial), search.limit);
      state.low = trial;
    }
    trial.alfa = state.closed ? interpolate(str, state, alfa) : next;
    if (exhausted(str, state, trial.alfa, same_value)) break;
  }
  return end_at_best(str, state, NO_STEP);
}

}  // namespace tqnlp
