// Differences of fourth order over five points in a row: the point in their middle, or at their end
// where it is close to a bound. Beside a bound the ordinary services move their base instead, which
// is right for a technique but tells nothing of the point itself.
//
// The interval is long, the fifth root of the rounding of the objective: so rounding and truncation
// are about equal for a function of moderate derivatives. Of the difference of second order over
// the same points a part is taken as the error.
#include "aasubs/derivatives/careful.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "host/memory.h"

namespace tqnlp {

static constexpr double INTERVAL = 1e-3;  // relative to a size of at least 1
static constexpr int MOST_RETREATS = 5;
static constexpr double RETREAT = 0.125;

namespace {

// Four points beside x, at these multiples of the interval, and the weights of all five values in
// the differences of fourth and second order; x stands first.
struct Stencil {
  double place[4];
  double fourth[5];
  double second[5];
};

// Where values of one parameter's points are kept: five columns of 1 + nnlc.
struct Points {
  MINSTR* str;
  bool objective, constraints;
  long count;      // values of a point
  double* values;  // 5 x count
};

}  // namespace

static constexpr Stencil MIDDLE = {
    {-2.0, -1.0, 1.0, 2.0},
    {0.0, 1.0 / 12.0, -2.0 / 3.0, 2.0 / 3.0, -1.0 / 12.0},
    {0.0, 0.0, -0.5, 0.5, 0.0},
};
static constexpr Stencil END = {
    {1.0, 2.0, 3.0, 4.0},
    {-25.0 / 12.0, 4.0, -3.0, 4.0 / 3.0, -0.25},
    {-1.5, 2.0, -0.5, 0.0, 0.0},
};

// The stencil for parameter j and its interval, below 0 towards the lower bound; 0: no room.
static const Stencil& choose_stencil(const MINSTR* str, long j, double* interval) {
  static constexpr double SHORTEST = 1.0 / 32.0;  // of the interval, before the end is preferred
  static constexpr double POINTS_APART = 1e-12;   // relative
  const double x = str->x[j], size = std::max(std::fabs(x), 1.0), full = INTERVAL * size;
  const bool bounded = str->bounds != 0;
  const double below = bounded && lower_exists(str->lb[j]) ? x - str->lb[j] : HUGE_VALUE;
  const double above = bounded && upper_exists(str->ub[j]) ? str->ub[j] - x : HUGE_VALUE;
  const double in_middle = std::min(full, 0.5 * std::min(below, above));
  if (in_middle >= SHORTEST * full) {
    *interval = in_middle;
    return MIDDLE;
  }
  const double at_end = std::min(full, 0.25 * std::max(below, above));
  const bool room = at_end > POINTS_APART * size;
  *interval = !room ? 0.0 : above >= below ? at_end : -at_end;
  return END;
}

static bool evaluate(Points& at, double* values) {
  MINSTR* str = at.str;
  if (at.objective) {
    if (str->usfct(str) != 0 || str->tbig != 0.0) return false;
    values[0] = str->crit;
  }
  if (!at.constraints) return true;
  if (str->usnlc(str) != 0 || str->tbig != 0.0) return false;
  std::copy_n(str->fcon, str->nnlc, values + 1);
  return true;
}

// The values beside x[j]; a shorter interval where one cannot be had.
static bool evaluate_points(Points& at, long j, const Stencil& stencil, double* interval) {
  MINSTR* str = at.str;
  const double x = str->x[j];
  bool good = false;
  for (int retreat = 0; retreat <= MOST_RETREATS && !good; ++retreat) {
    if (retreat > 0) *interval *= RETREAT;
    good = true;
    for (int k = 0; k < 4 && good; ++k) {
      double value = x + stencil.place[k] * *interval;
      if (str->bounds != 0) value = std::min(std::max(value, str->lb[j]), str->ub[j]);
      str->x[j] = value;
      good = evaluate(at, at.values + (k + 1) * at.count);
    }
  }
  str->x[j] = x;
  return good;
}

static double combine(const Points& at, const double* weights, double interval, long value) {
  double sum = 0.0;
  for (int k = 0; k < 5; ++k) sum += weights[k] * at.values[k * at.count + value];
  return sum / interval;
}

// Derivatives of what stands in the columns, by parameter j.
static void take_differences(const Points& at, long j, const Stencil& stencil, double interval,
                             double* error) {
  static constexpr double PART = 0.01;      // of the change of order
  static constexpr double ROUNDINGS = 8.0;  // of values
  MINSTR* str = at.str;
  if (at.objective) {
    str->grad[j] = combine(at, stencil.fourth, interval, 0);
    const double change = str->grad[j] - combine(at, stencil.second, interval, 0);
    const double rounding = ROUNDINGS * EPS * std::fabs(at.values[0]) / std::fabs(interval);
    if (error != nullptr) error[j] = PART * std::fabs(change) + rounding;
  }
  for (long i = 0; i < str->nnlc && at.constraints; ++i)
    str->jcon[i * str->nvar + j] = combine(at, stencil.fourth, interval, i + 1);
}

static void leave_missing(const Points& at, long j, double* error) {
  MINSTR* str = at.str;
  if (at.objective) str->grad[j] = MISSING;
  if (at.objective && error != nullptr) error[j] = MISSING;
  for (long i = 0; i < str->nnlc && at.constraints; ++i) str->jcon[i * str->nvar + j] = MISSING;
}

int careful_differences(MINSTR* str, bool objective, bool constraints, double* error) {
  Points at{str, objective, constraints, 1 + str->nnlc, nullptr};
  const auto bytes = static_cast<std::size_t>(5 * at.count) * sizeof(double);
  at.values = static_cast<double*>(vmalloc_handler(bytes, 0));
  if (at.values == nullptr) return -1;
  at.values[0] = str->crit;
  if (constraints) std::copy_n(str->fcon, str->nnlc, at.values + 1);
  const double reason = std::exchange(str->indf, GRADIENT_STEP);
  bool good = true;
  for (long j = 0; j < str->nvar && good; ++j) {
    double interval = 0.0;
    const Stencil& stencil = choose_stencil(str, j, &interval);
    if (interval == 0.0) {
      leave_missing(at, j, error);
      continue;
    }
    good = evaluate_points(at, j, stencil, &interval);
    if (good) take_differences(at, j, stencil, interval, error);
  }
  str->indf = reason;
  str->crit = at.values[0];
  if (constraints) std::copy_n(at.values + 1, str->nnlc, str->fcon);
  str->tbig = 0.0;
  vmfree_handler(at.values);
  return good ? 0 : -2;
}

}  // namespace tqnlp
