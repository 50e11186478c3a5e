// znlpvmc: Variable Metric method for Constrained optimization with WatchDog (VMCWD), technique 21.
//
// Model      q(d) = g'd + d'Bd/2 under the linearized constraints; B positive definite, by damped
//            BFGS updates from the differences of the gradient of the Lagrangian
// Method     Sequential quadratic programming with a line search on the merit function w = f +
//            weighted violations. Watchdog: after a step that kept a tenth of its promise, the next
//            ones may raise w as long as they lower the Lagrangian; if two pass without a new best
//            point, the run goes back to the best one.
// Reference  Chamberlain, Powell, Lemarechal and Pedersen (1982), Mathematical Programming Study
// 16;
//            Powell (1985), Report DAMTP NA4
// Reads      gtol, agtl, salf, load, bounds, lincon; limits; nonlinear constraints
// Writes     x, crit, grad, fcon, jcon, grlf, gmlf, gmax, cmax, crlf, cpsi (w), pred, alfa, hess
//            (the factor L of B = LL'), working set, counters
// Work       as znlpdq2
// Ends       3, 6 converged; -1 failed start; -3, -4 evaluations; -5 no progress; codes of limits
//
//   1  subproblem: step and multipliers
//   2  convergence tests, which are the technique's own; weights; best point
//   3  line search
//   4  derivatives, update of B, state of the watchdog, limits; or back to the best point
#include "aasubs/sqp/znlpvmc.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "aasubs/loop/loads.h"
#include "aasubs/sqp/steps.h"
#include "host/log.h"

namespace tqnlp {

static constexpr int BY_GRADIENT = 3;
static constexpr int BY_PROMISE = 6;
static constexpr double FREE_ITERATIONS =
    10.0;                                // of the target test after a return to the best point
static constexpr double PATIENCE = 2.0;  // iterations without a better point
static constexpr double SHARE_OF_PROMISE = 0.1;
static constexpr int UPHILL = -50;  // of a search

namespace {

// What the iterations of one run share.
struct WatchdogRun : SequentialRun {
  bool lswd = true;                // the line search must lower the merit function
  double target = 0.0;             // merit that releases it
  double wdit = -FREE_ITERATIONS;  // iteration of the last return to the best point
};

}  // namespace

// ---- Start --------------------------------------------------------------------------------------

static Next load_start(MINSTR* str, WatchdogRun& run) {
  run.lswd = true;
  str->alfa = str->salf;
  if (const Next next = load_restart(str, run); next != Next::go_on) return next;
  keep_best(str, run);
  measure_start(str, run);
  return Next::go_on;
}

static Next first_step(MINSTR* str, WatchdogRun& run) {
  run.fresh = false;
  str->nabc = str->nalc = str->nldc = 0;
  str->dhes = 1.0;
  run.ij = load_matrix(str, run);
  if (run.ij != 0) return Next::leave;
  if (make_step(str, run)) return Next::go_on;
  const Next next = restore(str, run);
  if (next == Next::finish) xpslog(" ***ERROR: NLPQAS not successful: rc= %i.", run.ij);
  return next;
}

// ---- Tests at the head of an iteration ----------------------------------------------------------

// Not above: the merit function may not have risen since the best point.
static bool is_solved(MINSTR* str, WatchdogRun& run) {
  if (str->cpsi > run.psiopt) return false;
  // On the scale of the objective: large weights make the merit function of an infeasible point
  // large.
  if (str->pred <= str->gtol * std::max(1.0, std::fabs(str->crit))) run.ij = BY_PROMISE;
  const bool feasible = str->cmax <= feasibility_tolerance(str, str->ipre);
  if (run.ij == 0 && feasible && str->gmlf <= str->agtl) run.ij = BY_GRADIENT;
  return run.ij != 0;
}

static void revise_weights(MINSTR* str, WatchdogRun& run) {
  if (raise_weights(run.v, run.gs)) {
    str->cpsi = str->crit + penalty(run.v, run.v.vcon);
    run.psiopt = run.fopt + penalty(run.v, run.v.vopt);
  }
  if (str->nitr > run.iopt && str->cpsi <= run.psiopt) keep_best(str, run);
}

// ---- Line search --------------------------------------------------------------------------------

// A fresh matrix knows nothing of the length of a step: its first search may take more cuts than
// the five that are a sign of trouble later. Returns 0, -3, -5 or UPHILL; *promised is the merit of
// the linear model at the step taken.
static int search(MINSTR* str, WatchdogRun& run, double* promised) {
  const int most_cuts = str->itre == 0 ? 20 : 5;
  static constexpr double LEAST_FALL = 0.9999999999999999;
  static constexpr double CUT = 0.1;
  VMCSTR& v = run.v;
  const double begin = str->cpsi;
  const double lagrangian_begin = str->crlf;
  const double objective = str->crit;
  std::copy_n(v.vcon, v.terms, v.cbeg);
  str->alfa = 1.0;
  bool failed = false;
  for (int itls = 0; itls <= most_cuts; ++itls) {
    move_along(str);
    str->tbig = 0.0;
    failed = !evaluate_values(str, v);
    if (failed) {
      str->alfa *= CUT;
      continue;
    }
    measure_merit(str, run);
    str->crlf = lagrangian(str, v);
    *promised = model_merit(v, objective, run.gs, str->alfa);
    const double fall = begin - *promised;
    if (!(fall > (1.0 - LEAST_FALL) * std::fabs(begin))) {
      return UPHILL;
    }
    const double ratio = (begin - str->cpsi) / fall;
    if (ratio >= SHARE_OF_PROMISE) return 0;
    if (!run.lswd && str->crlf <= lagrangian_begin) return 0;
    str->alfa *= std::max(CUT, 0.5 / (1.0 - ratio));
  }
  return failed ? FUNCTION_FAILED : NO_PROGRESS;
}

// ---- After a step -------------------------------------------------------------------------------

static void set_watchdog(MINSTR* str, WatchdogRun& run, double begin, double promised) {
  if (str->nitr <= run.iopt) run.target = begin - SHARE_OF_PROMISE * (begin - promised);
  str->nitr += 1.0;
  ++str->itre;
  run.lswd = str->nitr < run.wdit + FREE_ITERATIONS || run.target < str->cpsi;
}

// The best point again. Returns 0, -3 or -4.
static int return_to_best(MINSTR* str, WatchdogRun& run) {
  std::copy_n(run.v.xopt, str->nvar, str->x);
  run.wdit = str->nitr;
  return load_point(str, run, FUNCTION_FAILED, -4);
}

// Limits, the history and the user's termination module; the criteria are the technique's own, an
// objective that rises is no failure, and no level of the objective stops a run whose points may be
// infeasible.
static Next ask_limits(MINSTR* str, WatchdogRun& run) {
  const long mini = str->mini;
  const double atol = str->atol;
  const double cold = str->cold;
  str->mini = std::numeric_limits<long>::max();
  str->atol = str->imax != 0 ? HUGE_VALUE : -HUGE_VALUE;
  if (str->nlicon == 0) str->cold = std::max(str->cold, str->crit);
  run.ij = str->uster(str, TEST_ITERATION);
  str->mini = mini;
  str->atol = atol;
  str->cold = cold;
  if (run.ij == 0) return Next::go_on;
  if (run.ij == COUNT_LIMIT && str->nitr >= str->maxi) {
    xpslog(" ***ERROR: Too many iterations: %g", str->nitr);
  } else if (run.ij == COUNT_LIMIT) {
    xpslog(" ***ERROR: Too many calls of CALCFG: %li", str->nfct);
  }
  return run.ij == STOP_OVERRULED ? Next::stop : Next::finish;
}

// A restart goes on from the better of the present and the best point.
static Next restart_at_best(MINSTR* str, const WatchdogRun& run) {
  if (str->cpsi > run.psiopt) std::copy_n(run.v.xopt, str->nvar, str->x);
  return Next::restart;
}

// From an updated matrix a failed search says little: it starts afresh.
static Next search_failed(MINSTR* str, WatchdogRun& run, double begin) {
  return_to_start(str, run, begin);
  if (str->itre > 0) return restart_at_best(str, run);
  if (run.ij == UPHILL) {
    xpslog(" ***ERROR: Uphill search direction.");
    run.ij = NO_PROGRESS;
  } else if (run.ij == NO_PROGRESS) {
    xpslog(" ***ERROR: Too many function calls in line search.");
  }
  return Next::finish;
}

static Next one_iteration(MINSTR* str, WatchdogRun& run) {
  if (run.fresh) {
    const Next next = first_step(str, run);
    if (next != Next::go_on) return next;
  }
  if (is_solved(str, run)) return Next::finish;
  revise_weights(str, run);
  start_iteration(str);
  std::copy_n(str->grlf, str->nvar, str->gold);
  const double begin = str->cpsi;
  double promised = begin;
  run.ij = search(str, run, &promised);
  if (run.ij != 0) return search_failed(str, run, begin);
  if (!evaluate_derivatives(str, run.v)) return derivatives_failed(str, run);
  update_matrix(str, run);
  set_watchdog(str, run, begin, promised);
  if (str->cpsi > run.psiopt && run.iopt + PATIENCE < str->nitr) {
    run.ij = return_to_best(str, run);
    if (run.ij != 0) return Next::finish;
  }
  if (!make_step(str, run) || matrix_hides_descent(str)) return restart_at_best(str, run);
  if (run.struggle >= MOST_STRUGGLE) return restore(str, run);
  return ask_limits(str, run);
}

// ---- The technique ------------------------------------------------------------------------------

// Where values or derivatives failed, those of x are not known.
static int end_stage(MINSTR* str, WatchdogRun& run) {
  const bool unknown = run.ij == FUNCTION_FAILED || run.ij == -4;
  if (unknown || str->cpsi > run.psiopt) std::copy_n(run.v.xopt, str->nvar, str->x);
  return run.ij;
}

int znlpvmc(MINSTR* str) {
  WatchdogRun run;
  open_sequential_run(str, run);
  const int code = technique_loop<WatchdogRun>(str, run, {load_start, one_iteration, end_stage});
  forget_active(str);
  return code;
}

}  // namespace tqnlp
