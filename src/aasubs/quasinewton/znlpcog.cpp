// znlpcog: COnjugate Gradient (CONGRA), technique 13.
//
// Method     d := beta d - g after each line search, beta by one of four rules (tupd):
//              1  Powell and Beale: beta = g'y / d'y with y the change of the gradient, and a third
//                 term gamma d_r with the direction d_r and change y_r of the last restart,
//                 gamma = g'y_r / d_r'y_r; restarts by themselves
//              2  Fletcher and Reeves     beta = g'g / h'h       (h the gradient before)
//              3  Polak and Ribiere       beta = g'(g - h) / h'h
//              4  conjugate descent       beta = -g'g / h'd
//            in the free subspace of the active constraints. No matrix is stored.
// Reference  Fletcher and Reeves (1964), Computer Journal 7; Polak and Ribiere (1969); Beale
// (1972);
//            Powell (1977), Mathematical Programming 12, 241-254, for the restarts; Fletcher
//            (1987), Practical Methods of Optimization, section 4.1
// Reads      tupd, nres, salf, sigm, linse, ftol, bounds, lincon, lsqu, ipre
// Writes     x, crit, grad, gmax, gcri, pred, stub, alfa, dfes, chac, counters
// Work       wrk2 = reduced direction spro (n) | rule 1: d_r (n) | y_r (n)
//            gold = gradient before, reduced once the iteration is over; work = free gradient
// Ends       codes of uster; -3, -4 final evaluation failed, or derivatives; -5 no progress; -6
//            feasibility lost
//
//   1  load the gradient and the working set at the start or restart point; steepest descent
//   2  limit the step by the constraints, search along the direction
//   3  feasibility, working set at the new point, termination test
//   4  next direction; restart where it has no descent
#include "aasubs/quasinewton/znlpcog.h"

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/loop/loads.h"
#include "aasubs/loop/search_steps.h"
#include "kernels/fused_sums.h"
#include "kernels/vector.h"

namespace tqnlp {

enum Rule : int { POWELL_BEALE = 1, FLETCHER_REEVES, POLAK_RIBIERE, CONJUGATE_DESCENT };

static constexpr int NO_DIRECTION = -1;
// Slopes at or above this share of g'g count as uphill: beta g'd - g'g is then not clearly
// negative.
static constexpr double UPHILL_SHARE = 0.9999999894632878;
// Products below it are no denominators.
static constexpr double LEAST_PRODUCT = 2.2250738585072018e-307;

namespace {

// What the iterations of one run share.
struct ConjugateRun {
  int ij = 0;            // code in hand
  double gs = 0.0;       // slope of the present direction
  double gden = 1.0;     // d_r'y_r of the restart pair
  bool settled = false;  // an iteration has been completed since the last start
  RestartGuard guard{};
};

// The vectors of the recursion, in the reduced space with linear constraints, otherwise over all
// parameters with zeros for those on bounds.
struct Recursion {
  long order;       // their length
  long free;        // free dimension
  const double* g;  // gradient
  const double* h;  // gradient before
  double* d;        // direction, replaced by the new one
  double* w1;       // d_r
  double* w2;       // y_r
};

}  // namespace

// ---- Gradient and working set -------------------------------------------------------------------

static void measure_gradient(MINSTR* str) {
  if (str->nabc == str->nvar) {
    str->gmax = 0.0;
  } else {
    znlpgmx(str, 0, nullptr);
  }
}

static int load_gradient(MINSTR* str, int) { return evaluate_gradient(str) ? 0 : -2; }

// Predicted reduction without a matrix: the change of the gradient along the step stands for the
// curvature. Nothing is predicted where that cannot be formed.
static double criterion_of_step(const MINSTR* str) {
  const StepNorms s = step_norms(str->nvar, str->x, str->xold, str->grad, str->gold);
  double ratio = 1.0;
  if (!(s.g <= s.gold)) ratio = s.g > LEAST_PRODUCT ? s.gold / s.g : 0.0;
  const double d = ratio * s.change;
  const double e = s.step * s.g * s.g;
  if (!(d > LEAST_PRODUCT) || !(d > e * LEAST_PRODUCT)) return HUGE_VALUE;
  return e / d;
}

// job 1: everything afresh at a start or restart; job 0: after a step, whose gradient is known.
static int actcon(MINSTR* str, int job) {
  static constexpr int MERE_REPAIR = -1;
  if (job == 1) {
    const int code = load_feasible_point(str, MERE_REPAIR, load_gradient, 0);
    if (code != 0) return code;
    measure_gradient(str);
    if (str->nabc != str->nvar) str->gcri = HUGE_VALUE;
    return 0;
  }
  revise_working_set(str, 0, false, nullptr);
  measure_gradient(str);
  if (str->nabc != str->nvar) str->gcri = criterion_of_step(str);
  return 0;
}

// ---- Directions ---------------------------------------------------------------------------------

// sdir := -g on the free parameters.
static void steepest_descent(MINSTR* str) {
  const long n = str->nvar;
  if (reduced_dimension(str) < 1) {
    vzfdl(0.0, str->sdir, n);
  } else if (str->lincon != 0) {
    zvz111(reduced_dimension(str), str->spro, -1.0, str->gpro);
    znlpvex(str, str->spro, str->sdir);
  } else {
    zvz111(n, str->sdir, -1.0, str->grad);
    for (long j = 0; str->bounds != 0 && j < n; ++j) {
      if (str->iabc[j] != 0) str->sdir[j] = 0.0;
    }
  }
}

static void measure_slope(MINSTR* str, ConjugateRun& run) {
  run.gs =
      reduced_dimension(str) < 1 ? 0.0 : znlpgs(str, str->spro, str->gpro, str->sdir, str->grad);
  str->pred = -run.gs;
}

// Brings direction and gradients into the space of the recursion: what lies on active constraints
// leaves it.
static Recursion enter_recursion(MINSTR* str) {
  const long n = str->nvar;
  Recursion r{n,         reduced_dimension(str), str->grad,        str->gold,
              str->sdir, str->wrk2 + n,          str->wrk2 + 2 * n};
  if (str->lincon != 0) {
    znlpvre(str, str->sdir, str->spro);
    std::copy_n(str->gold, n, str->work);
    znlpvre(str, str->work, str->gold);
    r.order = r.free;
    r.g = str->gpro;
    r.d = str->spro;
  } else if (str->bounds != 0) {
    for (long j = 0; j < n; ++j) {
      const bool active = str->iabc[j] != 0;
      str->work[j] = active ? 0.0 : str->grad[j];
      if (active) str->sdir[j] = str->gold[j] = 0.0;
    }
    r.g = str->work;
  }
  return r;
}

static void leave_recursion(MINSTR* str, const Recursion& r) {
  if (r.d == str->spro) znlpvex(str, str->spro, str->sdir);
}

// d := beta d - g, and with gamma the third term of a run along a restart pair.
static void combine(const Recursion& r, double beta, double gamma) {
  if (gamma == 0.0) {
    for (long i = 0; i < r.order; ++i) r.d[i] = beta * r.d[i] - r.g[i];
  } else {
    for (long i = 0; i < r.order; ++i) r.d[i] = beta * r.d[i] - r.g[i] + gamma * r.w1[i];
  }
}

// The pair (d, y) becomes the one that later directions are kept conjugate to.
static void take_restart_pair(const Recursion& r) {
  std::copy_n(r.d, r.order, r.w1);
  for (long i = 0; i < r.order; ++i) r.w2[i] = r.g[i] - r.h[i];
}

// ---- Powell's rule ------------------------------------------------------------------------------

// How a direction of the first rule was chosen; restarts are all but three_term.
enum class Node {
  three_term = 0,
  many_iterations,      // more than free parameters
  not_orthogonal,       // successive gradients
  no_curvature,         // d'y negligible, and no beta
  no_curvature_beta,    // d'y negligible
  no_pair,              // no restart pair yet
  uphill_no_pair,       // plain beta uphill, no pair and no other beta
  uphill_no_pair_beta,  //
  three_term_uphill,    // plain beta good
  both_uphill,          // no other beta
  both_uphill_beta,     //
  slope_off,            // outside -1.2 to -0.8 of g'g
  slope_flat,           //
  restart_uphill,       // the restart with beta leads up: steepest descent
  restart_useless       // it would gain nothing: steepest descent
};

namespace {

struct Choice {
  Node node = Node::three_term;
  double beta = 0.0;
  double gamma = 0.0;
};

}  // namespace

// beta where d'y is of no use: g'y against the gradient before, as in the rule of Polak and
// Ribiere.
static Choice without_curvature(const DirectionProducts& p, double gy, Node none, Node some) {
  if (p.hh <= SMALLEST_TOLERANCE * std::fabs(gy)) return {none, 0.0, 0.0};
  return {some, gy / p.hh, 0.0};
}

// The three-term direction, or the reason why it is not taken. uphill: the direction without the
// third term does not descend.
static Choice three_terms(const MINSTR* str, const Recursion& r, const DirectionProducts& p,
                          double beta, double gy, bool uphill, double gden) {
  const double gamma = zvdot11(r.order, r.g, r.w2) / gden;
  double slope = gamma * zvdot11(r.order, r.g, r.w1) + beta * p.gd;
  if (slope >= UPHILL_SHARE * p.gg) {
    if (uphill) return without_curvature(p, gy, Node::both_uphill, Node::both_uphill_beta);
    return {Node::three_term_uphill, beta, 0.0};
  }
  slope -= p.gg;
  // Deliberately: the first limit is a share of g'g, the second none, and both tests look only at
  // runs in which the plain direction is uphill.
  if (slope > -0.1 * p.gg) {
    if (slope < -0.01 && uphill) return {Node::slope_flat, beta, 0.0};
  } else if (str->itre >= 2 && uphill && (slope < -1.2 * p.gg || slope > -0.8 * p.gg)) {
    return {Node::slope_off, beta, 0.0};
  }
  return {Node::three_term, beta, gamma};
}

// Chooses beta, gamma and whether the recursion restarts with the present direction.
static Choice choose(const MINSTR* str, const Recursion& r, const DirectionProducts& p,
                     double gden) {
  const double gy = p.gg - p.gh;
  const double dy = p.gd - p.hd;
  Node node = Node::three_term;
  if (r.free < str->itre) {
    node = Node::many_iterations;
  } else if (str->itre >= 2 && 0.2 * p.gg <= std::fabs(p.gh)) {
    node = Node::not_orthogonal;
  }
  if (!(std::fabs(dy) > EPS * std::fabs(gy))) {
    return without_curvature(p, gy, Node::no_curvature, Node::no_curvature_beta);
  }
  const double beta = gy / dy;
  if (str->itre == 0 || node != Node::three_term) return {node, beta, 0.0};

  const bool uphill = beta * p.gd >= UPHILL_SHARE * p.gg;
  if (!(std::fabs(gden) > SMALLEST_TOLERANCE)) {
    if (!uphill) return {Node::no_pair, beta, 0.0};
    return without_curvature(p, gy, Node::uphill_no_pair, Node::uphill_no_pair_beta);
  }
  return three_terms(str, r, p, beta, gy, uphill, gden);
}

// A new restart pair. beta stays where it leads down, so that a restart is no steepest descent.
static Node restart_direction(MINSTR* str, ConjugateRun& run, const Recursion& r,
                              const DirectionProducts& p, Choice choice) {
  ++str->ires;
  run.gden = p.gd - p.hd;
  take_restart_pair(r);
  double slope = choice.beta * p.gd;
  if (slope >= UPHILL_SHARE * p.gg) {
    slope = choice.beta = 0.0;
    choice.node = Node::restart_uphill;
  }
  if (p.gg - slope <= str->ftol) {
    choice.beta = 0.0;
    choice.node = Node::restart_useless;
  }
  combine(r, choice.beta, 0.0);
  return choice.node;
}

// Powell's rule; returns the node, for whoever looks at a run.
static int powrest(MINSTR* str, ConjugateRun& run) {
  const Recursion r = enter_recursion(str);
  const DirectionProducts p = direction_products(r.order, r.g, r.h, r.d);
  str->nhup += 1;
  Choice choice = choose(str, r, p, run.gden);
  if (choice.node != Node::three_term) str->itre = 0;
  if (str->itre == 0) {
    choice.node = restart_direction(str, run, r, p, choice);
  } else {
    combine(r, choice.beta, choice.gamma);
  }
  leave_recursion(str, r);
  return static_cast<int>(choice.node);
}

// ---- Rules of one beta --------------------------------------------------------------------------

// Numerator and denominator of the rules without a third term.
static int one_beta(MINSTR* str, double (*numerator)(const DirectionProducts&),
                    double (*denominator)(const DirectionProducts&)) {
  const Recursion r = enter_recursion(str);
  const DirectionProducts p = direction_products(r.order, r.g, r.h, r.d);
  str->nhup += 1;
  const double s2 = denominator(p);
  if (!(s2 > SMALLEST_TOLERANCE)) return NO_DIRECTION;
  combine(r, numerator(p) / s2, 0.0);
  leave_recursion(str, r);
  return 0;
}

static int fleree(MINSTR* str) {
  return one_beta(
      str, [](const DirectionProducts& p) { return p.gg; },
      [](const DirectionProducts& p) { return p.hh; });
}

static int polrib(MINSTR* str) {
  return one_beta(
      str, [](const DirectionProducts& p) { return p.gg - p.gh; },
      [](const DirectionProducts& p) { return p.hh; });
}

static int condes(MINSTR* str) {
  return one_beta(
      str, [](const DirectionProducts& p) { return p.gg; },
      [](const DirectionProducts& p) { return -p.hd; });
}

// Where the search direction before is no more than a restart away: the first iteration, and a
// working set that has changed, whose old directions are conjugate in another space.
static int next_conjugate_direction(MINSTR* str, ConjugateRun& run) {
  switch (str->tupd) {
    case FLETCHER_REEVES:
      return fleree(str);
    case POLAK_RIBIERE:
      return polrib(str);
    case CONJUGATE_DESCENT:
      return condes(str);
    default:
      if (str->chac != 0 || !run.settled) str->itre = 0;
      return powrest(str, run);
  }
}

// ---- Steps of one iteration ---------------------------------------------------------------------

// Start or restart at x, with the steepest descent. The restart pair stays, and is not used before
// another one is taken.
static Next load_start(MINSTR* str, ConjugateRun& run) {
  str->alfa = str->salf;
  open_restart(str);
  run.settled = false;
  run.ij = NO_PROGRESS;
  if (!restart_makes_progress(str, run.guard)) return Next::finish;
  const int code = actcon(str, 1);
  if (code < 0 || str->tbig != 0.0) {
    run.ij = code == -6 ? code : -4;
    return Next::finish;
  }
  steepest_descent(str);
  measure_slope(str, run);
  return run.gs <= SMALLEST_TOLERANCE ? Next::go_on : Next::finish;
}

// The step along the direction. Blocked or failed at the first direction since a start, a run ends:
// the steepest descent from the same point will not do better the next time.
static Next take_step(MINSTR* str, ConjugateRun& run) {
  if (!limit_search(str) && run.settled) return Next::restart;
  run.ij = NO_PROGRESS;
  if (!search_along(str, str->linse)) return run.settled ? Next::restart : Next::finish;
  str->chac = 0;
  const Next next = keep_feasible(str, &run.ij);
  const bool ended = next == Next::finish && run.ij == NO_PROGRESS;
  return ended && run.settled ? Next::restart : next;
}

static Next accept_step(MINSTR* str, ConjugateRun& run) {
  str->nitr += 1.0;
  ++str->itre;
  if (actcon(str, 0) < 0 || str->tbig != 0.0) {
    run.ij = -4;
    return Next::finish;
  }
  run.ij = str->uster(str, TEST_ITERATION);
  return run.ij == 0 ? Next::go_on : Next::stop;
}

// Does the direction promise enough? The first iterations after a restart are trusted.
static bool direction_is_good(const MINSTR* str, const ConjugateRun& run) {
  static constexpr long TRUSTED_ITERATIONS = 21;
  if (!leads_down(str, run.gs)) return false;
  return str->itre < TRUSTED_ITERATIONS ||
         descent_tolerance(str) * str->gmax * str->gmax < str->pred;
}

// The rules of one beta start over by the period and with every change of the working set, the
// first rule decides by itself.
static Next next_direction(MINSTR* str, ConjugateRun& run) {
  const bool due = static_cast<double>(str->itre) >= str->nres || str->chac != 0;
  if (str->tupd != POWELL_BEALE && due) {
    str->itre = 0;
    ++str->ires;
    steepest_descent(str);
  } else if (reduced_dimension(str) > 0 && next_conjugate_direction(str, run) < 0) {
    return Next::restart;
  }
  measure_slope(str, run);
  if (!direction_is_good(str, run)) return Next::restart;
  if (str->nitr >= SETTLED_ITERATIONS) str->salf = 1.0;
  run.settled = true;
  return Next::go_on;
}

static Next one_iteration(MINSTR* str, ConjugateRun& run) {
  start_iteration(str);
  std::copy_n(str->grad, str->nvar, str->gold);
  Next next = take_step(str, run);
  if (next == Next::go_on) next = accept_step(str, run);
  if (next == Next::go_on) next = next_direction(str, run);
  return next;
}

// ---- The technique ------------------------------------------------------------------------------

static int load_final(MINSTR* str) {
  if (!evaluate_gradient(str)) return -2;
  measure_gradient(str);
  return 0;
}

static int end_stage(MINSTR* str, ConjugateRun& run) {
  const int code = finish_run(str, run.ij, load_final);
  // A stop that is overruled again and again without progress stands.
  return code == STOP_OVERRULED && run.guard.exhausted() ? NO_PROGRESS : code;
}

static void settle_options(MINSTR* str) {
  static constexpr double ACCURACY = 0.1;
  static constexpr long SMALL = 8;
  static constexpr double LARGE_PERIOD = 80.0;
  static constexpr double PERIOD_PER_PARAMETER = 10.0;
  if (str->tupd < POWELL_BEALE || str->tupd > CONJUGATE_DESCENT) str->tupd = POWELL_BEALE;
  if (wzmis(str->sigm)) str->sigm = ACCURACY;
  const double n = static_cast<double>(str->nvar);
  if (str->tupd == POWELL_BEALE) {
    str->nres = NEVER;
  } else if (!(str->nres > 0.0)) {
    str->nres = str->nvar < SMALL ? PERIOD_PER_PARAMETER * n : LARGE_PERIOD;
  }
}

int znlpcog(MINSTR* str) {
  open_run(str);
  str->nlis = str->nhup = str->ngrd = 0;
  str->spro = str->wrk2;
  settle_options(str);
  ConjugateRun run;
  return technique_loop<ConjugateRun>(str, run, {load_start, one_iteration, end_stage});
}

}  // namespace tqnlp
