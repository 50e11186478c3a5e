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
static constexpr double SMALLEST_STEP = 0.01;  // of the first step, or of one without errors
static constexpr double MOST_BY_ERROR = 1e3;   // the first step, of one without errors
static constexpr double STEPS_OF_X = 64.0;     // EPS |x|: a step that still changes x
static constexpr double NARROW = 1e-6;         // of the distance: before what cannot be passed
static constexpr int MOST_OPTIMIZATIONS = 60;  // for one limit
static constexpr int CONSTRAINTS_UNMET = -6;   // there are points that satisfy them
static constexpr int NO_FEASIBLE_POINT = -10;

namespace {

enum class Trial { solved, failed, lower, ended, no_room };

// What the search for one level looks for, and its steps.
struct Search {
  double goal;      // rise
  double t;         // its root
  double first;     // distance of the first trial
  double smallest;  // distance below which failures are not approached
};

}  // namespace

// ---- Points of the profile ----------------------------------------------------------------------

static double* parameters_of(const MINSTR* str, const PLCS* s, long i) {
  return s->xpnt + i * str->nvar;
}

// Where the parameter is held at a distance.
static double value_at(const PLCS* s, double distance) {
  if (distance >= s->edge) return s->gole < 0 ? s->lb[s->ipar] : s->ub[s->ipar];
  return s->xopt[s->ipar] + s->gole * distance;
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

// Is the optimum in hand below f* by more than errors of f* can be?
static Trial judge(MINSTR* str, PLCS* s) {
  const double rise = str->crit - s->yopt;
  if (!(rise < -std::max(LOWER_BY * s->goal[s->ialf[0]], s->noise))) return Trial::solved;
  note_lower(str, s);
  return Trial::lower;
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
  const bool evaluated = s->high > 0.0 || s->ierr == NO_PROGRESS || s->ierr == COUNT_LIMIT ||
                         s->ierr == CONSTRAINTS_UNMET;
  if (s->wall == INFINITE || !evaluated || s->resets >= MOST_RESETS) return;
  ++s->resets;
  s->wall = INFINITE;
  s->high = 0.0;
}

// Optimizes the others at a distance, for the root t. A rise far beyond the target says little
// about where it is met, and more often than not that the start led into another valley: such a
// point is not kept.
static Trial solve_at(MINSTR* str, PLCS* s, double distance, double t) {
  if (s->npnt >= s->mpnt) {
    xpslog("PCL: Bad jpnt=%li mpnt=%li", s->npnt, s->mpnt);
    return Trial::no_room;
  }
  const double value = value_at(s, distance);
  predict(str, s, distance);
  int code = doopt(value, str, 1, s->ipar);
  if (code < 0 && !ends_analysis(str, code)) {
    start_at_nearest(str, s, distance);
    code = doopt(value, str, 1, s->ipar);
  }
  if (code < 0 && ends_analysis(str, code)) {
    s->ended = code;
    return Trial::ended;
  }
  if (code < 0) return fail_at(s, distance, 0.0, code);
  write_point(str, s, value);
  const double root = std::sqrt(std::max(str->crit - s->yopt, 0.0));
  if (root > TOO_HIGH * t) return fail_at(s, distance, root, 0);
  insert_point(str, s, distance, root);
  if (root < t) try_further(s);
  return judge(str, s);
}

// Optimizes the others at point i once more, from those of the point before it. A far point that
// was started from the estimate may have ended in another valley than that of the estimate. Solved
// when it came lower, failed when it did not.
static Trial solve_again(MINSTR* str, PLCS* s, long i) {
  std::copy_n(parameters_of(str, s, i - 1), str->nvar, str->x);
  const double value = value_at(s, s->xval[i]);
  const int code = doopt(value, str, 1, s->ipar);
  if (code < 0 && ends_analysis(str, code)) {
    s->ended = code;
    return Trial::ended;
  }
  const double rise = str->crit - s->yopt;
  if (code < 0 || !(rise < s->yval[i] * s->yval[i] - s->noise)) return Trial::failed;
  write_point(str, s, value);
  s->yval[i] = std::sqrt(std::max(rise, 0.0));
  std::copy_n(str->x, str->nvar, parameters_of(str, s, i));
  return judge(str, s);
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

// The first point at or beyond the target; npnt: none.
static long first_beyond(const PLCS* s, double t) {
  return std::find_if(s->yval, s->yval + s->npnt, [=](double r) { return r >= t; }) - s->yval;
}

// Is the target met on either side of place i? The estimate itself is no limit.
static bool met(const PLCS* s, const Search& search, long i, double* distance) {
  const double precision = std::max(RELATIVE_PRECISION * search.goal, s->noise);
  for (long k = std::max(i - 1, 1L); k <= i && k < s->npnt; ++k) {
    *distance = s->xval[k];
    if (std::fabs(s->yval[k] * s->yval[k] - search.goal) <= precision) return true;
  }
  return false;
}

// Is the search before a failure at its end? One that was only too high is approached as long as
// steps change x.
static bool at_wall(const PLCS* s, const Search& search, long i) {
  if (s->wall == INFINITE || (i < s->npnt && s->wall > s->xval[i])) return false;
  if (s->wall - s->xval[i - 1] <= NARROW * s->wall) return true;
  const double unchanged = STEPS_OF_X * EPS * std::fabs(s->xopt[s->ipar]);
  return i == 1 && s->wall <= (s->high > 0.0 ? unchanged : search.smallest);
}

// Why a search that cannot pass a failure ends: constraints may end the profile like a bound, or
// the objective may be gone altogether.
static int status_at_wall(MINSTR* str, PLCS* s, long i) {
  if (s->ierr == NO_FEASIBLE_POINT) return LIMIT_AT_BOUND;
  if (!objective_at(str, s->xopt)) {
    s->ended = FUNCTION_FAILED;
    return LIMIT_STOPPED;
  }
  if (s->npnt == 1 && s->high == 0.0) {
    s->failed = 1;
    xpmlog(OPTIMIZATION, 271, {SMALLEST_STEP});
  } else {
    xpslog(i < s->npnt ? "Bad inside point bisection" : "Bad outside point bisection");
  }
  return LIMIT_SEARCH_FAILED;
}

// Ends a search outwards that need not or cannot go on: a status, or LIMIT_NOT_SOUGHT to go on.
static int status_outside(const PLCS* s, double first) {
  const double d = s->xval[s->npnt - 1];
  if (d >= s->edge) return LIMIT_AT_BOUND;
  return d >= FARTHEST * first ? LIMIT_NOT_REACHED : LIMIT_NOT_SOUGHT;
}

// Ends a search between points i - 1 and i that lie next to each other: the profile jumps.
static int status_inside(const PLCS* s, long i) {
  const double x = s->xopt[s->ipar];
  const double in = s->xval[i - 1], out = s->xval[i];
  if (out - in > 8.0 * EPS * std::max(out, std::fabs(x))) return LIMIT_NOT_SOUGHT;
  xpslog(" Bad: gole=%i xl=%g xu=%g", s->gole, x + std::min(s->gole * in, s->gole * out),
         x + std::max(s->gole * in, s->gole * out));
  return LIMIT_SEARCH_FAILED;
}

// The status after a trial that ends the search, or LIMIT_NOT_SOUGHT to go on.
static int status_after(Trial trial) {
  switch (trial) {
    case Trial::lower:
      return LIMIT_LOWER_POINT;
    case Trial::ended:
      return LIMIT_STOPPED;
    case Trial::no_room:
      return LIMIT_SEARCH_FAILED;
    default:
      return LIMIT_NOT_SOUGHT;
  }
}

// The status before the next trial, i the place of the target among the points.
static int status_before(MINSTR* str, PLCS* s, const Search& search, long i, double* distance) {
  if (met(s, search, i, distance)) return LIMIT_FOUND;
  if (at_wall(s, search, i)) return status_at_wall(str, s, i);
  return i == s->npnt ? status_outside(s, search.first) : status_inside(s, i);
}

// znlppcl: the limit of one level. Returns its status and, if it was found, its distance.
static int znlppcl(MINSTR* str, const Search& search, double* distance) {
  PLCS* s = working_record(str);
  const double t = search.t;
  double best = INFINITE;  // least |r - t| between the two points
  bool bisect = false;
  bool outside = true;
  double again = 0.0;  // the outer point that was optimized twice
  for (int trials = 0; trials < MOST_OPTIMIZATIONS; ++trials) {
    const long i = first_beyond(s, t);
    int status = status_before(str, s, search, i, distance);
    if (status != LIMIT_NOT_SOUGHT) return status;
    outside = i == s->npnt;
    const bool repeat = bisect && !outside && s->xval[i] != again;
    if (repeat) again = s->xval[i];
    const double next = outside ? step_out(s, t, search.first) : step_in(s, i, t, bisect);
    const Trial trial = repeat ? solve_again(str, s, i) : solve_at(str, s, next, t);
    status = status_after(trial);
    if (status != LIMIT_NOT_SOUGHT) return status;
    if (trial == Trial::failed || outside) continue;
    const long k = std::lower_bound(s->xval, s->xval + s->npnt, next) - s->xval;
    const double miss = repeat ? INFINITE : std::fabs(s->yval[k] - t);
    bisect = !repeat && !bisect && miss > 0.25 * best;
    best = repeat ? INFINITE : std::min(best, miss);
  }
  xpslog(outside ? "Bad outside point bisection" : "Bad inside point bisection");
  return LIMIT_SEARCH_FAILED;
}

// ---- One side -----------------------------------------------------------------------------------

// gtinit: start values of the search for a level. The first trial is at the Wald limit where there
// is a standard error, but not absurdly far: such an error says that there is none. A failure that
// a point below the target was solved beyond is forgotten.
static Search gtinit(const MINSTR* str, PLCS* s, int level) {
  const PLCSTR* options = str->covstr->plcstr;
  const double x = s->xopt[s->ipar];
  const double error = s->ster[s->ipar];
  const double ratio = !wzmis(options->frat) && options->frat > 0.0 ? options->frat : 1.0;
  const double usual = std::max(0.01, 0.1 * std::fabs(x));
  const bool known = !wzmis(error) && error > 0.0;
  const double step =
      known ? std::min(std::sqrt(s->quan[level]) * error, MOST_BY_ERROR * usual) : usual;
  Search search{};
  search.goal = s->goal[level];
  search.t = std::sqrt(search.goal);
  search.first = std::max(ratio * step, STEPS_OF_X * EPS * std::fabs(x));
  search.smallest = SMALLEST_STEP * std::min(search.first, usual);
  s->resets = 0;
  if (s->wall <= s->xval[first_beyond(s, search.t) - 1]) {
    s->wall = INFINITE;
    s->high = 0.0;
  }
  return search;
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
  s->ierr = 0;
  s->npnt = 0;
  std::copy_n(s->xopt, str->nvar, str->x);
  insert_point(str, s, 0.0, 0.0);
}

// One level, the place of whose limit is known.
static void seek_level(MINSTR* str, PLCS* s, int level, PLLIM* limit) {
  const double goal = s->goal[level];
  // A rise within the rounding of f* is met everywhere.
  if (wzmis(goal) || goal <= s->noise) {
    limit->status = LIMIT_NO_TARGET;
  } else if (s->ended != 0) {
    limit->status = LIMIT_STOPPED;
  } else {
    const Search search = gtinit(str, s, level);
    double distance = 0.0;
    limit->status = znlppcl(str, search, &distance);
    if (limit->status == LIMIT_FOUND) limit->value = value_at(s, distance);
  }
}

// znlpplc: all levels of one side, kk the place of the parameter among those that are asked for.
void znlpplc(MINSTR* str, long kk) {
  PLCS* s = working_record(str);
  const int levels = str->covstr->plcstr->nalf;
  const bool stopped = s->ended != 0;
  bool lower_met = false;
  open_side(str, s);
  for (int k = 0; k < levels; ++k) {
    const int level = s->ialf[k];
    PLLIM& limit = s->limits[2 * (kk * levels + level) + (s->gole < 0 ? 0 : 1)];
    // Beyond a lower point nothing is the nearest crossing any more.
    if (lower_met && !wzmis(s->goal[level])) {
      limit.status = LIMIT_LOWER_POINT;
      continue;
    }
    seek_level(str, s, level, &limit);
    lower_met = limit.status == LIMIT_LOWER_POINT;
    if (limit.status == LIMIT_SEARCH_FAILED) {
      xpslog(s->gole < 0 ? " Bad lower: ii=%i k=%li kk=%li ierr=%i"
                         : " Bad upper: ii=%i k=%li kk=%li ierr=%i",
             level, s->ipar, kk, s->ierr);
    }
  }
  if (!stopped && s->ended != 0) xpslog(" Bad k=%li kk=%li ierr=%i", s->ipar, kk, s->ended);
}

}  // namespace tqnlp
