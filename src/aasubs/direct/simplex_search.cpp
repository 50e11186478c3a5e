// The Nelder-Mead search: operations on a simplex, five to an iteration, and rebuilds of the
// simplex at the best point, which the heads of znlpnms and znlpnm2 describe.
#include "aasubs/direct/simplex_search.h"

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/direct/simplex.h"
#include "aasubs/loop/loads.h"
#include "aasubs/loop/technique_loop.h"
#include "host/log.h"
#include "host/process.h"

namespace tqnlp {

static constexpr double REFLECTION = 1.0;   // rc
static constexpr double EXPANSION = 2.0;    // ec
static constexpr double CONTRACTION = 0.5;  // cc
static constexpr int OPERATIONS = 5;        // of an iteration

static constexpr double AFTER_FAILURE = 0.1;    // factors of the size: an evaluation failed
static constexpr double AFTER_OVERRULE = 0.25;  // a stop was overruled
static constexpr double AFTER_COLLAPSE = 0.5;   // the simplex lay flat against the bounds
static constexpr double WHERE_FLAT = 0.001;     // nothing to be seen at this size
static constexpr double GROWTH = 10.0;
static constexpr double LARGEST_SIZE = 1.0;

static constexpr double LEAST_LIMIT = 1e-20;  // a move no longer than it is none, whatever axtl
static constexpr double LEAST_SIZE = 1.053671212772351e-08;  // of a flat simplex: the root of EPS
static constexpr double DRAWN_TOGETHER = 0.75;  // what a strict shrink may leave of the distances
static constexpr double FLAT_ANGLE = 5.0;       // degrees
static constexpr double CORNER_STEP = 1e-6;     // relative; how far from a corner it is probed

// Rebuilds between two iterations end by their sizes; the bound is for values that fall for ever by
// less than can be told from rounding.
static constexpr int MOST_REBUILDS = 100;

namespace {

struct SearchRun {
  const SimplexForm* form = nullptr;
  Simplex s;
  RestartGuard guard;
  bool started = false;           // the first load is over
  bool rebuild = true;            // the simplex is to be built at the best point
  bool may_grow = true;           // no evaluation failed while the simplex grew on a flat start
  bool bent = false;              // a bound stopped a trial since the simplex was built
  double confirmed = HUGE_VALUE;  // what a doubted point must be below to be doubted once more
  int rebuilds = 0;               // since the last iteration
  int nbi = OPERATIONS;           // countdown to the next iteration
  double limit = 0.0;             // moves up to it are none
  double last_size = 1.0;         // gmax of the last iteration
  int ij = 0;                     // code in hand
};

}  // namespace

// ---- Ends and sizes -----------------------------------------------------------------------------

static Next finish_with(SearchRun& run, int code) {
  run.ij = code;
  return Next::finish;
}

// The best point, whatever the last trial left.
static void go_to_best(MINSTR* str, const Simplex& s) {
  put_point(str, s, s.best);
  str->crit = s.ybest;
  str->tbig = 0.0;
}

// The termination test, whose analysis of a stop may leave a lower point in x.
static int ask_test(MINSTR* str, SearchRun& run, int job) {
  run.ij = str->uster(str, job);
  if (str->crit < run.s.ybest) {
    get_point(str, run.s, run.s.best);
    run.s.ybest = str->crit;
  }
  return run.ij;
}

// The search cannot go on with this simplex: the termination test gets the code, and may overrule
// it.
static Next give_up(MINSTR* str, SearchRun& run, int code) {
  if (ask_test(str, run, code) != STOP_OVERRULED) return Next::finish;
  str->nitr += 1.0;  // so that the limit of iterations counts these too
  return Next::restart;
}

static Next stop_without_progress(MINSTR* str, SearchRun& run) {
  go_to_best(str, run.s);
  return give_up(str, run, NO_PROGRESS);
}

static Next rebuild_with(SearchRun& run, double factor) {
  run.s.siz *= factor;
  run.rebuild = true;
  return Next::go_on;
}

// An evaluation failed: a smaller simplex around the best point, as long as its edges move it.
static Next shrink_after_failure(MINSTR* str, SearchRun& run) {
  const Simplex& s = run.s;
  run.may_grow = false;
  rebuild_with(run, AFTER_FAILURE);
  if (xdis(s.nmask, s.siz, s.best, s.step) > run.limit) return Next::go_on;
  put_point(str, s, s.best);
  str->crit = MISSING;
  return give_up(str, run, FUNCTION_FAILED);
}

// ---- End of an iteration ------------------------------------------------------------------------

// The bounds on which x stands, and the change of their number. The form that counts trials has
// none but the fixed parameters; the analysis of a stop may have left others.
static void refresh_active(MINSTR* str, const SearchRun& run) {
  if (run.form->counts_trials) {
    str->nabc = str->nvar - run.s.nmask;
    return;
  }
  const long before = str->nabc;
  str->nabc = nactbc(str, str->x);
  str->chac = str->nabc - before;
}

// The best point stands on a bound in every parameter. That is no solution yet: the simplex may
// have come there by long steps. Looks a little inside along each parameter for a lower point.
static bool leaves_corner(MINSTR* str, Simplex& s) {
  const double corner = s.ybest;
  for (long k = 0; k < s.nmask && s.ybest == corner; ++k) {
    const long j = s.free[k];
    const double inside = s.best[k] - str->lb[j] > str->ub[j] - s.best[k] ? -1.0 : 1.0;
    std::copy_n(s.best, s.nmask, s.p1);
    s.p1[k] += inside * CORNER_STEP * std::max(s.step[k], std::fabs(s.best[k]));
    double y = 0.0;
    try_point(str, s, s.p1, &y);
  }
  go_to_best(str, s);
  return s.ybest < corner;
}

// Has a vertex that a bound stopped come to lie in the direction of another one? Where chac is the
// change of nabc, a search that stays on its bounds is not asked again: the question belongs to the
// iteration in which the best point met or left one.
static bool lies_flat(MINSTR* str, const Simplex& s) {
  if (str->chac == 0) return false;
  form_center(s, str->work);
  for (long k = 0; k <= s.nmask; ++k) {
    if (s.iwk[k] > 0 && tstangl(str, k, s.nmask, FLAT_ANGLE, s.poly) != 0) return true;
  }
  return false;
}

// The simplex as the termination test sees it: the lowest vertex is the new point, the highest the
// old one.
static void present_simplex(MINSTR* str, SearchRun& run) {
  Simplex& s = run.s;
  rank_vertices(s);
  put_point(str, s, s.vertex(s.khi));
  std::copy_n(str->x, str->nvar, str->xold);
  go_to_best(str, s);
  str->cold = s.yhi;
  str->pred = value_deviation(s);
  str->gmax = run.last_size = mean_size(s);
  str->alfa = s.siz;
  refresh_active(str, run);
}

static Next after_rebuilding(SearchRun& run, double factor) {
  run.nbi = OPERATIONS;
  return rebuild_with(run, factor);
}

// A simplex that bounds have bent may have lost a direction: it then shrinks to a point that is no
// minimum, and meets a criterion there. A new simplex must confirm such a point, and lower it by no
// more than the spread of the old one. What a module of the user says is not doubted.
static bool is_doubtful(const MINSTR* str, SearchRun& run, int answer) {
  const bool criterion = answer > FIRST_CRITERION && answer <= LAST_CRITERION;
  if (!criterion || answer == str->tcod) return false;
  if (!run.bent || !(run.s.ybest < run.confirmed)) return false;
  run.confirmed = run.s.ybest - str->pred;
  run.last_size = LARGEST_SIZE;  // its size is as doubtful
  return true;
}

// The search goes on beside a corner, which is no iteration; limits and a module of the user are
// asked all the same.
static Next go_on_inside(MINSTR* str, SearchRun& run) {
  refresh_active(str, run);
  const int answer = ask_test(str, run, TEST_LIMITS_ONLY);
  if (answer != 0 && answer != STOP_OVERRULED) return Next::finish;
  return after_rebuilding(run, AFTER_COLLAPSE);
}

static Next end_iteration(MINSTR* str, SearchRun& run) {
  Simplex& s = run.s;
  present_simplex(str, run);
  if (str->nabc == str->nvar && leaves_corner(str, s)) return go_on_inside(str, run);
  ++str->itre;
  str->nitr += 1.0;
  run.rebuilds = 0;
  const int answer = ask_test(str, run, TEST_ITERATION);
  if (answer == STOP_OVERRULED || is_doubtful(str, run, answer)) {
    return after_rebuilding(run, AFTER_OVERRULE);
  }
  if (answer != 0) return Next::finish;
  if (lies_flat(str, s)) return after_rebuilding(run, AFTER_COLLAPSE);
  if (run.form->counts_trials) str->chac = 0;
  s.siz = std::min(GROWTH * s.siz, LARGEST_SIZE);
  run.nbi = OPERATIONS;
  return Next::go_on;
}

// The simplex has shrunk to nothing. A criterion that it meets is the reason of the end; only a
// stop that does not stand, or a lower point beside a corner, lets the search go on.
static Next end_search(MINSTR* str, SearchRun& run) {
  const double before = run.s.ybest;
  const Next next = end_iteration(str, run);
  if (next != Next::go_on || run.ij != 0 || run.s.ybest < before) return next;
  return stop_without_progress(str, run);
}

// ---- Building a simplex -------------------------------------------------------------------------

// Vertex k is one step along free parameter k - 1 away from vertex 0, the best point so far.
// Where the step would leave a bound it goes the other way, unless there is even less room.
static bool place_vertices(MINSTR* str, Simplex& s) {
  replace_vertex(s, 0, s.best, s.ybest, 0);
  const double* base = s.vertex(0);
  for (long k = 1; k <= s.nmask; ++k) {
    const long i = k - 1;
    double step = s.siz * s.step[i];
    if (str->bounds != 0) {
      const double below = base[i] - str->lb[s.free[i]];
      const double above = str->ub[s.free[i]] - base[i];
      if (step > above && below > above) step = -step;
    }
    // A vertex that rounding leaves at the base would hide its parameter from the search.
    if (base[i] + step == base[i]) {
      step = std::copysign(2.0 * MACHINE_PRECISION * std::fabs(base[i]), step);
    }
    std::copy_n(base, s.nmask, s.p1);
    s.p1[i] += step;
    double y = 0.0;
    const long moved = try_point(str, s, s.p1, &y);
    if (moved < 0) return false;
    replace_vertex(s, k, s.p1, y, moved);
  }
  return true;
}

// Can the values of the new simplex be told from one another? base: that of the point where it was
// built. The limits belong to what is flat, so that a value of 0 around which nothing changes is.
static bool is_flat(const SimplexForm& form, const Simplex& s, double base) {
  const double center = form.one_sided ? s.ylo : base;
  const double above = center + HUNDRED_EPS * std::fabs(center);
  const double below = center - HUNDRED_EPS * std::fabs(center);
  return s.yhi <= above && s.ylo >= below;
}

// One more look at a flat simplex, on the side of the best point away from the others. True: a
// lower point was found there.
static bool probe_flat_simplex(MINSTR* str, Simplex& s) {
  const double before = s.ybest;
  form_center(s, s.p1);
  for (long j = 0; j < s.nmask; ++j) s.p1[j] = s.best[j] - (s.p1[j] - s.best[j]);
  double y = 0.0;
  try_point(str, s, s.p1, &y);
  return s.ybest < before - EPS * std::fabs(before);
}

// At the start a flat simplex grows until something is seen. Later on the search has come to where
// rounding hides the rest: it ends, at once or after a last try at smaller sizes.
static Next answer_flat_simplex(MINSTR* str, SearchRun& run) {
  Simplex& s = run.s;
  const bool start = str->nitr == 0.0;
  if (start && !run.form->own_scale) {
    if (s.siz < str->ssin && run.may_grow) return rebuild_with(run, GROWTH);
    return stop_without_progress(str, run);
  }
  bool spent = mean_size(s) <= LEAST_SIZE;
  if (!spent) {
    const bool lower = probe_flat_simplex(str, s);
    if (!lower || run.form->one_sided) s.siz *= WHERE_FLAT;
    spent = !(s.siz > run.limit);
  }
  if (!spent) return Next::go_on;
  // A start where nothing was ever seen to change meets no criterion, though its simplex would.
  return start ? stop_without_progress(str, run) : end_search(str, run);
}

static Next build_simplex(MINSTR* str, SearchRun& run) {
  Simplex& s = run.s;
  open_restart(str);
  if (run.form->own_scale) s.siz = std::min(s.siz, run.last_size);
  go_to_best(str, s);
  if (!(s.siz > str->sing)) {
    str->uster(str, MODULE_FAILED);  // told, and not asked: the code stands
    return finish_with(run, NO_PROGRESS);
  }
  if (++run.rebuilds > MOST_REBUILDS) return stop_without_progress(str, run);
  refresh_active(str, run);
  str->chac = 0;
  const double base = s.ybest;
  if (!place_vertices(str, s)) return shrink_after_failure(str, run);
  rank_vertices(s);
  if (is_flat(*run.form, s, base)) return answer_flat_simplex(str, run);
  run.rebuild = run.bent = false;
  return Next::go_on;
}

// ---- Operations ---------------------------------------------------------------------------------

// to := from + length (towards - from)
static void point_along(const Simplex& s, double* to, const double* from, const double* towards,
                        double length) {
  for (long j = 0; j < s.nmask; ++j) to[j] = from[j] + length * (towards[j] - from[j]);
}

// A trial point, with its count of moved parameters.
static long try_counted(MINSTR* str, SearchRun& run, double* p, double* y) {
  const long moved = try_point(str, run.s, p, y);
  if (moved > 0) run.bent = true;
  if (moved > 0 && run.form->counts_trials) str->chac += moved;
  return moved;
}

// All vertices go half the way to the lowest one. One that cannot be evaluated there stays.
static Next shrink(MINSTR* str, SearchRun& run) {
  Simplex& s = run.s;
  const double* lowest = s.vertex(s.klo);
  double largest = 0.0, before = 0.0, after = 0.0;
  long taken = 0;
  for (long k = 0; k <= s.nmask; ++k) {
    if (k == s.klo) continue;
    const double* from = s.vertex(k);
    for (long j = 0; j < s.nmask; ++j) {
      s.p1[j] = (from[j] + lowest[j]) / 2.0;
      before += std::fabs(from[j] - lowest[j]);
    }
    double y = 0.0;
    const long moved = try_counted(str, run, s.p1, &y);
    if (moved >= 0) {
      for (long j = 0; j < s.nmask; ++j) largest = std::max(largest, std::fabs(s.p1[j] - from[j]));
      replace_vertex(s, k, s.p1, y, moved);
      ++taken;
    }
    for (long j = 0; j < s.nmask; ++j) after += std::fabs(from[j] - lowest[j]);
  }
  // Vertices that could not be moved may be far away though the others hardly moved.
  const bool nothing_moved = largest <= run.limit;
  if (nothing_moved && taken < s.nmask) return shrink_after_failure(str, run);
  if (nothing_moved) return end_search(str, run);
  if (run.form->strict && after > DRAWN_TOGETHER * before) {
    rank_vertices(s);
    go_to_best(str, s);
    str->uster(str, MODULE_FAILED);
    return finish_with(run, NO_PROGRESS);
  }
  return Next::go_on;
}

// The reflected point, with value y1, is no better than the second highest vertex: half the way
// back from it, or from the highest vertex where that is the lower of the two.
static Next contract(MINSTR* str, SearchRun& run, double y1) {
  Simplex& s = run.s;
  const bool outside = y1 < s.yhi;
  point_along(s, s.p2, s.cent, outside ? s.p1 : s.vertex(s.khi), CONTRACTION);
  double y2 = 0.0;
  const long moved = try_counted(str, run, s.p2, &y2);
  if (moved < 0 && run.form->strict) return shrink_after_failure(str, run);
  if (moved < 0 || !(y2 < std::min(y1, s.yhi))) return shrink(str, run);
  replace_vertex(s, s.khi, s.p2, y2, moved);
  return Next::go_on;
}

// The reflected point is the lowest so far: twice as far may be lower still.
static void expand(MINSTR* str, SearchRun& run, double y1, long moved) {
  Simplex& s = run.s;
  point_along(s, s.p2, s.cent, s.p1, EXPANSION);
  double y2 = 0.0;
  const long moved_further = try_counted(str, run, s.p2, &y2);
  if (moved_further >= 0 && y2 < y1) {
    replace_vertex(s, s.khi, s.p2, y2, moved_further);
  } else {
    replace_vertex(s, s.khi, s.p1, y1, moved);
  }
}

static Next one_operation(MINSTR* str, SearchRun& run) {
  Simplex& s = run.s;
  rank_vertices(s);
  form_centroid(s);
  point_along(s, s.p1, s.cent, s.vertex(s.khi), -REFLECTION);
  double y1 = 0.0;
  const long moved = try_counted(str, run, s.p1, &y1);
  if (moved < 0) return shrink_after_failure(str, run);
  if (y1 < s.ylo) {
    expand(str, run, y1, moved);
  } else if (y1 < s.ysecond) {
    replace_vertex(s, s.khi, s.p1, y1, moved);
  } else {
    return contract(str, run, y1);
  }
  return Next::go_on;
}

static Next one_step(MINSTR* str, SearchRun& run) {
  if (run.rebuild) return build_simplex(str, run);
  const Next next = one_operation(str, run);
  if (next != Next::go_on || run.rebuild) return next;
  return --run.nbi < 1 ? end_iteration(str, run) : Next::go_on;
}

// ---- The technique ------------------------------------------------------------------------------

// Sizes that steer the search. The least move is a limit of the search alone: axtl stays what the
// user asked for where the termination test compares with it.
static void settle_parameters(MINSTR* str, SearchRun& run) {
  if (!(str->axtl > 0.0)) str->axtl = ROOT_TINY;
  run.limit = std::max(str->axtl, LEAST_LIMIT);
  if (!(str->salf > 0.0)) str->salf = 1.0;  // a simplex without edges is none
  Simplex& s = run.s;
  // The second term only counts for enormous parameters.
  for (long k = 0; k < s.nmask; ++k) s.step[k] = std::max(str->salf, TINY * str->x[s.free[k]]);
}

// The objective at the start. A start on a bound is also tried a little inside, where a simplex has
// room; the lower of the two is taken.
static bool load_first_point(MINSTR* str, Simplex& s) {
  bool known = bcfun(str) >= 0;
  get_point(str, s, s.best);
  s.ybest = str->crit;
  if (std::equal(str->x, str->x + str->nvar, str->xold)) return known;
  std::copy_n(str->xold, str->nvar, str->x);
  if (bcfun(str) >= 0 && (!known || str->crit < s.ybest)) {
    known = true;
    get_point(str, s, s.best);
    s.ybest = str->crit;
  }
  return known;
}

// First start: parameters, free ones, objective.
static Next open_search(MINSTR* str, SearchRun& run) {
  run.started = true;
  if (str->bounds != 0) str->nabc = znlpfbc(str, 2);
  if (open_simplex(str, run.s) == 0) {
    run.ij = ALL_PARAMETERS_ACTIVE;
    return Next::leave;
  }
  settle_parameters(str, run);
  if (load_first_point(str, run.s)) return Next::go_on;
  str->crit = MISSING;
  run.ij = -1;
  return Next::leave;
}

// Start, or a new one at x after a stop that was overruled.
static Next load_start(MINSTR* str, SearchRun& run) {
  Simplex& s = run.s;
  if (!run.started) {
    if (const Next next = open_search(str, run); next != Next::go_on) return next;
  } else if (bcfun(str) >= 0 && str->crit < s.ybest) {
    get_point(str, s, s.best);
    s.ybest = str->crit;
  }
  go_to_best(str, s);
  str->cold = str->crit;
  std::copy_n(str->x, str->nvar, str->xold);
  // What reports and a failure before the first iteration find.
  str->alfa = str->gmax = s.siz = run.last_size = 1.0;
  str->pred = 0.0;
  refresh_active(str, run);
  str->chac = 0;
  run.nbi = OPERATIONS;
  run.rebuilds = 0;
  run.rebuild = run.may_grow = true;
  return restart_makes_progress(str, run.guard) ? Next::go_on : finish_with(run, NO_PROGRESS);
}

// The best point becomes the result; a run that did not fail evaluates it once more.
static int end_stage(MINSTR* str, SearchRun& run) {
  go_to_best(str, run.s);
  refresh_active(str, run);
  if (run.ij < 0) return run.ij;
  if (bcfun(str) >= 0) return run.ij;
  str->crit = MISSING;
  return -1;
}

int simplex_search(MINSTR* str, const SimplexForm& form) {
  if (str->lincon != 0 || str->nlicon != 0) {
    xpslog("%s takes no constraints but bounds.", technique_name(str->tech));
    xexit(EXIT_INCONSISTENT, 0);
  }
  open_run(str);
  SearchRun run;
  run.form = &form;
  return technique_loop<SearchRun>(str, run, {load_start, one_step, end_stage});
}

}  // namespace tqnlp
