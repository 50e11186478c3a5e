// znlppli, the search for the limits of one parameter on one side.
//
// Method     With r(d) the root of the rise at distance d from the estimate, a limit is the first
//            solution of r(d) = t. For a quadratic objective r is a straight line, so that secants
//            and inverse quadratic interpolation in r meet t after a few optimizations. Outwards
//            the steps follow the secant, at most tenfold; between a point below t and one beyond
//            it, interpolation is replaced by bisection as soon as it stops paying. Levels are
//            taken in the order of their targets; every optimization starts from the others' values
//            interpolated along the points that are there.
// Reference  Venzon and Moolgavkar (1988), Applied Statistics 37 (limits as the solution of an
//            equation on the profile); Bates and Watts (1988), section 6.1 (the root of the rise);
//            Brent (1973), chapter 4
#include <algorithm>
#include <cmath>
#include <limits>

#include "aasubs/post/znlppli_internal.h"
#include "aasubs/record/stop_codes.h"
#include "aasubs/reports/report_tables.h"
#include "host/files.h"
#include "host/log.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr double INFINITE = std::numeric_limits<double>::infinity();
static constexpr double RELATIVE_PRECISION = 1e-8;  // of the rise at a limit
static constexpr double LOWER_BY = 1e-6;            // of the target: below f*, no error of f*
static constexpr double LONGEST_STEP = 10.0;        // outwards, of the distance
static constexpr double LEAST_GROWTH = 1.2;
static constexpr double FALLING_GROWTH = 1.5;  // where the profile falls
static constexpr double CAREFUL_GROWTH = 2.0;  // after a failure
static constexpr double TOO_HIGH = 3.0;        // of the target: not to be followed there
static constexpr int MOST_RESETS = 12;
static constexpr double FARTHEST = 1e8;        // of the first step
static constexpr double SMALLEST_STEP = 0.01;  // of the first step
static constexpr double NARROW = 1e-6;         // of the distance: before what cannot be passed
static constexpr int MOST_OPTIMIZATIONS = 60;  // for one limit
static constexpr int NO_FEASIBLE_POINT = -10;

namespace {

enum class Trial { solved, failed, lower, no_room };

}  // namespace

// ---- Points of the profile ----------------------------------------------------------------------

static double* parameters_of(const MINSTR* str, const PLCS* s, long i) {
  return s->xpnt + i * str->nvar;
}

static void insert_point(const MINSTR* str, PLCS* s, double distance, double root) {
  const long n = str->nvar;
  long i = s->npnt;
  for (; i > 0 && s->xval[i - 1] > distance; --i) {
    s->xval[i] = s->xval[i - 1];
    s->yval[i] = s->yval[i - 1];
    std::copy_n(parameters_of(str, s, i - 1), n, parameters_of(str, s, i));
  }
  s->xval[i] = distance;
  s->yval[i] = root;
  std::copy_n(str->x, n, parameters_of(str, s, i));
  ++s->npnt;
}

static void write_point(MINSTR* str, PLCS* s, double value) {
  PLCSTR* options = str->covstr->plcstr;
  if (options->utprof == nullptr) return;
  const PLPNT point{static_cast<double>(s->ipar), value, users_value(str, str->crit)};
  const int rc = xcwrite(options->utprof, &point, sizeof point);
  if (rc == 0) {
    ++options->npnt;
  } else {
    xprrlog(0, rc);
  }
}

// The other parameters where they are expected: on the line through the two points between or
// before which the distance lies. With one point there is no line.
static void predict(MINSTR* str, const PLCS* s, double distance) {
  long k = std::upper_bound(s->xval, s->xval + s->npnt, distance) - s->xval;
  k = std::clamp(k, 1L, std::max(s->npnt - 1, 1L));
  const double* from = parameters_of(str, s, k - 1);
  std::copy_n(from, str->nvar, str->x);
  if (s->npnt < 2) return;
  const double* to = parameters_of(str, s, k);
  static constexpr double MOST_EXTRAPOLATION = 3.0;
  const double share = (distance - s->xval[k - 1]) / (s->xval[k] - s->xval[k - 1]);
  for (long j = 0; j < str->nvar; ++j) {
    str->x[j] = std::clamp(from[j] + std::min(share, MOST_EXTRAPOLATION) * (to[j] - from[j]),
                           s->lb[j], s->ub[j]);
  }
}

static void start_at_nearest(MINSTR* str, const PLCS* s, double distance) {
  const auto nearer = [=](double a, double b) {
    return std::fabs(a - distance) < std::fabs(b - distance);
  };
  const long k = std::min_element(s->xval, s->xval + s->npnt, nearer) - s->xval;
  std::copy_n(parameters_of(str, s, k), str->nvar, str->x);
}

// A point below f*: the lowest is kept for the caller.
static void note_lower(MINSTR* str, PLCS* s) {
  PLCSTR* options = str->covstr->plcstr;
  if (s->lower == 0) xpmlog(OPTIMIZATION, 286, {parameter_name(str, s->ipar).text});
  s->lower = 1;
  const double lowest = wzmis(options->flow) ? HUGE_VALUE : users_value(str, options->flow);
  if (!(str->crit < lowest)) return;
  options->flow = users_value(str, str->crit);
  if (options->xlow != nullptr) std::copy_n(str->x, str->nvar, options->xlow);
}

// A trial from which nothing is to be had: the next ones come nearer, and go on in small steps.
static Trial fail_at(PLCS* s, double distance, double root, int code) {
  if (code == NO_FEASIBLE_POINT && s->ierr != code) xpslog(" Error computing feasible point");
  if (distance < s->wall) {
    s->wall = distance;
    s->high = root;
    s->ierr = code;
  }
  s->growth = CAREFUL_GROWTH;
  return Trial::failed;
}

// After a point below the target, another try may be made further out: optimizations that ended in
// another valley, or not at all, may find their way from here.
static void try_further(PLCS* s) {
  const bool evaluated = s->high > 0.0 || s->ierr == NO_PROGRESS || s->ierr == COUNT_LIMIT;
  if (s->wall == INFINITE || !evaluated || s->resets >= MOST_RESETS) return;
  ++s->resets;
  s->wall = INFINITE;
  s->high = 0.0;
}

// Optimizes the others at a distance, for the root t; goal: the least target of all levels. A rise
// far beyond the target says little about where it is met, and more often than not that the start
// led into another valley: such a point is not kept.
static Trial solve_at(MINSTR* str, PLCS* s, double distance, double t, double goal) {
  if (s->npnt >= s->mpnt) {
    xpslog("PLC: Bad jpnt=%li mpnt=%li", s->npnt, s->mpnt);
    return Trial::no_room;
  }
  const long p = s->ipar;
  double value = s->xopt[p] + s->gole * distance;
  if (distance >= s->edge) value = s->gole < 0 ? s->lb[p] : s->ub[p];
  predict(str, s, distance);
  int code = doopt(value, str, 1, p);
  if (code < 0) {
    start_at_nearest(str, s, distance);
    code = doopt(value, str, 1, p);
  }
  if (code < 0) return fail_at(s, distance, 0.0, code);
  write_point(str, s, value);
  const double rise = str->crit - s->yopt;
  const double root = std::sqrt(std::max(rise, 0.0));
  if (root > TOO_HIGH * t) return fail_at(s, distance, root, 0);
  insert_point(str, s, distance, root);
  if (root < t) try_further(s);
  if (!(rise < -std::max(LOWER_BY * goal, s->noise))) return Trial::solved;
  note_lower(str, s);
  return Trial::lower;
}

// Optimizes the others at point i once more, from those of the point before it. A far point that
// was started from the estimate may have ended in another valley than that of the estimate. Returns
// whether it came lower.
static bool solve_again(MINSTR* str, PLCS* s, long i) {
  std::copy_n(parameters_of(str, s, i - 1), str->nvar, str->x);
  const double value = s->xopt[s->ipar] + s->gole * s->xval[i];
  if (doopt(value, str, 1, s->ipar) < 0) return false;
  const double rise = str->crit - s->yopt;
  if (!(rise < s->yval[i] * s->yval[i] - s->noise)) return false;
  s->yval[i] = std::sqrt(std::max(rise, 0.0));
  std::copy_n(str->x, str->nvar, parameters_of(str, s, i));
  return true;
}

// ---- One limit ----------------------------------------------------------------------------------

// The next distance beyond all points, first the given one. What failed is not passed.
static double step_out(const PLCS* s, double t, double first) {
  const long last = s->npnt - 1;
  double next = first;
  if (last > 0) {
    const double d = s->xval[last];
    const double slope = (s->yval[last] - s->yval[last - 1]) / (d - s->xval[last - 1]);
    // A little beyond the target: a point on either side is worth more than two below it. Where the
    // profile falls, a better valley may be near, which a long step would miss.
    next = slope > 0.0 ? d + 1.05 * (t - s->yval[last]) / slope : FALLING_GROWTH * d;
    next = std::clamp(next, LEAST_GROWTH * d, s->growth * d);
  }
  if (next >= s->wall) {
    const double inside = s->yval[last];
    const double share = s->high > 0.0 ? 1.5 * (t - inside) / (s->high - inside) : 0.5;
    next = s->xval[last] + std::min(share, 0.5) * (s->wall - s->xval[last]);
  }
  return std::min(next, s->edge);
}

// Distance where the parabola through three points, as a function of r, has the value t; NaN when
// two roots are equal.
static double inverse_parabola(const PLCS* s, long a, long b, long c, double t) {
  const double ra = s->yval[a], rb = s->yval[b], rc = s->yval[c];
  if (ra == rb || rb == rc || ra == rc) return std::numeric_limits<double>::quiet_NaN();
  return s->xval[a] * (t - rb) * (t - rc) / ((ra - rb) * (ra - rc)) +
         s->xval[b] * (t - ra) * (t - rc) / ((rb - ra) * (rb - rc)) +
         s->xval[c] * (t - ra) * (t - rb) / ((rc - ra) * (rc - rb));
}

// The next distance between point i - 1 below t and point i at or beyond it.
static double step_in(const PLCS* s, long i, double t, bool bisect) {
  const double in = s->xval[i - 1];
  const double out = s->xval[i];
  if (s->wall < out) return 0.5 * (in + s->wall);
  if (bisect) return 0.5 * (in + out);
  double next = std::numeric_limits<double>::quiet_NaN();
  if (i >= 2) {
    next = inverse_parabola(s, i - 2, i - 1, i, t);
  } else if (i + 1 < s->npnt) {
    next = inverse_parabola(s, i - 1, i, i + 1, t);
  }
  if (next > in && next < out) return next;
  return in + (out - in) * (t - s->yval[i - 1]) / (s->yval[i] - s->yval[i - 1]);
}

// Why a search that cannot pass a failure ends: constraints may end the profile like a bound.
static int status_at_wall(PLCS* s, double first, long i) {
  if (s->ierr == NO_FEASIBLE_POINT) return LIMIT_AT_BOUND;
  if (s->npnt == 1 && s->wall <= SMALLEST_STEP * first) {
    s->failed = 1;
    xpmlog(OPTIMIZATION, 271, {SMALLEST_STEP});
  } else {
    xpslog(i < s->npnt ? "Bad inside point bisection" : "Bad outside point bisection");
  }
  return LIMIT_SEARCH_FAILED;
}

// Is the search before a failure at its end?
static bool at_wall(const PLCS* s, double first, long i) {
  if (s->wall == INFINITE || (i < s->npnt && s->wall > s->xval[i])) return false;
  const double inside = s->xval[i - 1];
  return s->wall - inside <= NARROW * s->wall || (i == 1 && s->wall <= SMALLEST_STEP * first);
}

// Ends a search outwards that need not or cannot go on: a status, or LIMIT_NOT_SOUGHT to go on.
static int status_outside(const PLCS* s, double first) {
  const double d = s->xval[s->npnt - 1];
  if (d >= s->edge) return LIMIT_AT_BOUND;
  return d >= FARTHEST * first ? LIMIT_NOT_REACHED : LIMIT_NOT_SOUGHT;
}

// znlppcl: the limit of one level, first the distance of the first step. Returns its status and, if
// it was found, its distance.
static int znlppcl(MINSTR* str, double goal, double least_goal, double first, double* distance) {
  PLCS* s = working_record(str);
  const double t = std::sqrt(goal);
  const double precision = std::max(RELATIVE_PRECISION * goal, s->noise);
  double best = INFINITE;  // least |r - t| between the two points
  bool bisect = false;
  double again = 0.0;  // the outer point that was optimized twice
  for (int trials = 0; trials < MOST_OPTIMIZATIONS; ++trials) {
    const long i =
        std::find_if(s->yval, s->yval + s->npnt, [=](double r) { return r >= t; }) - s->yval;
    for (long k = i - 1; k <= i && k < s->npnt; ++k) {
      *distance = s->xval[k];
      if (std::fabs(s->yval[k] * s->yval[k] - goal) <= precision) return LIMIT_FOUND;
    }
    if (at_wall(s, first, i)) return status_at_wall(s, first, i);
    const bool outside = i == s->npnt;
    if (outside) {
      const int status = status_outside(s, first);
      if (status != LIMIT_NOT_SOUGHT) return status;
    } else if (s->xval[i] - s->xval[i - 1] <=
               8.0 * EPS * std::max(s->xval[i], std::fabs(s->xopt[s->ipar]))) {
      const double x = s->xopt[s->ipar];
      xpslog(" Bad: gole=%i xl=%g xu=%g", s->gole, x + s->gole * s->xval[i - 1],
             x + s->gole * s->xval[i]);
      return LIMIT_SEARCH_FAILED;
    }
    if (bisect && !outside && s->xval[i] != again) {
      again = s->xval[i];
      bisect = !solve_again(str, s, i);
      best = bisect ? best : INFINITE;
      continue;
    }
    const double next = outside ? step_out(s, t, first) : step_in(s, i, t, bisect);
    const Trial trial = solve_at(str, s, next, t, least_goal);
    if (trial == Trial::lower) return LIMIT_LOWER_POINT;
    if (trial == Trial::no_room) return LIMIT_SEARCH_FAILED;
    if (trial == Trial::failed || outside) continue;
    const long k = std::lower_bound(s->xval, s->xval + s->npnt, next) - s->xval;
    const double miss = std::fabs(s->yval[k] - t);
    bisect = !bisect && miss > 0.25 * best;
    best = std::min(best, miss);
  }
  xpslog("Bad outside point bisection");
  return LIMIT_SEARCH_FAILED;
}

// ---- One side -----------------------------------------------------------------------------------

// Distance of the first trial: that of the Wald limit where there is a standard error.
static double first_step(const MINSTR* str, const PLCS* s, double goal) {
  const PLCSTR* options = str->covstr->plcstr;
  const double ratio = !wzmis(options->frat) && options->frat > 0.0 ? options->frat : 1.0;
  const double error = s->ster[s->ipar];
  const double q = goal * options->ffac / s->sigm;
  const double x = s->xopt[s->ipar];
  const double step =
      !wzmis(error) && error > 0.0 ? std::sqrt(q) * error : std::max(0.01, 0.1 * std::fabs(x));
  // Far from zero a step must still change x.
  return std::max(ratio * step, 64.0 * EPS * std::fabs(x));
}

static void open_side(MINSTR* str, PLCS* s) {
  const long p = s->ipar;
  const double bound = s->gole < 0 ? s->lb[p] : s->ub[p];
  const bool exists = s->gole < 0 ? lower_exists(bound) : upper_exists(bound);
  s->edge = exists ? std::max(s->gole * (bound - s->xopt[p]), 0.0) : INFINITE;
  if (exists && s->edge <= s->base.ceps * (std::fabs(bound) + 1.0)) s->edge = 0.0;
  s->wall = INFINITE;
  s->high = 0.0;
  s->growth = LONGEST_STEP;
  s->resets = 0;
  s->ierr = 0;
  s->npnt = 0;
  std::copy_n(s->xopt, str->nvar, str->x);
  insert_point(str, s, 0.0, 0.0);
}

// znlpplc: all levels of one side, kk the place of the parameter among those that are asked for.
void znlpplc(MINSTR* str, long kk) {
  PLCS* s = working_record(str);
  const int levels = str->covstr->plcstr->nalf;
  bool lower_met = false;
  open_side(str, s);
  for (int k = 0; k < levels; ++k) {
    const int level = s->ialf[k];
    const double goal = s->goal[level];
    PLLIM& limit = s->limits[2 * (kk * levels + level) + (s->gole < 0 ? 0 : 1)];
    if (wzmis(goal)) {
      limit.status = LIMIT_NO_TARGET;
      continue;
    }
    // Beyond a lower point nothing is the nearest crossing any more.
    if (lower_met) {
      limit.status = LIMIT_LOWER_POINT;
      continue;
    }
    const double first = first_step(str, s, goal);
    double distance = 0.0;
    limit.status = znlppcl(str, goal, s->goal[s->ialf[0]], first, &distance);
    lower_met = limit.status == LIMIT_LOWER_POINT;
    if (limit.status == LIMIT_FOUND) {
      limit.value = s->xopt[s->ipar] + s->gole * distance;
    } else if (limit.status == LIMIT_SEARCH_FAILED) {
      xpslog(s->gole < 0 ? " Bad lower: ii=%i k=%li kk=%li ierr=%i"
                         : " Bad upper: ii=%i k=%li kk=%li ierr=%i",
             level, s->ipar, kk, s->ierr);
    }
  }
}

}  // namespace tqnlp
