// znlpdq2: Dual Quasi-Newton (QUANEW) under nonlinear constraints, technique 11 with nlicon.
//
// Model      q(d) = g'd + d'Bd/2 under the linearized constraints; B positive definite, by damped
//            BFGS updates from the differences of the gradient of the Lagrangian
// Method     Sequential quadratic programming: the step of the model, a line search on the merit
//            function psi = f + weighted violations, an update of B. Watchdog: steps may raise psi
//            as long as they lower the Lagrangian, for a few iterations; if that does not pay, the
//            run goes back to the best point.
// Reference  Powell (1978), Numerical Analysis Dundee 1977, Lecture Notes in Mathematics 630;
//            Chamberlain, Powell, Lemarechal and Pedersen (1982), Mathematical Programming Study
//            16, for the watchdog; Powell (1985), Report DAMTP NA4, for the weights
// Reads      vers, salf, nres, load, dhes, max2, bounds, lincon; nonlinear constraints
// Writes     x, crit, grad, fcon, jcon, grlf, gmlf, gmax, cmax, crlf, cpsi, pred, alfa, hess (the
//            factor L of B = LL'), working set, counters
// Work       wrk2 as open_terms lays it out; half = the subproblem's matrices; xold = start of the
//            search; gold = gradient of the Lagrangian there; sdir = d
// Ends       codes of uster; -1, -2 failed start; -3, -4 evaluations; -5 no progress
//
//   1  load values, derivatives and matrix at the start or restart point; the first step
//   2  raise the weights, search along the step
//   3  derivatives, update of B, state of the watchdog
//   4  best point, present point or back to the best one; the next step; termination test
#include "aasubs/sqp/znlpdq2.h"

#include <algorithm>
#include <cmath>

#include "aasubs/loop/loads.h"
#include "aasubs/sqp/conred.h"
#include "aasubs/sqp/steps.h"

namespace tqnlp {

static constexpr int AVERAGED_WEIGHTS = 1;     // vers
static constexpr double PATIENCE = 6.0;        // iterations without a better point
static constexpr double SHORT_PATIENCE = 2.0;  // if the last step kept little of its promise
static constexpr double SHARE_OF_PROMISE = 0.1;
static constexpr double LARGE_VIOLATION = 0.1;  // at a start: worth a first phase
static constexpr double CLEAR_VIOLATION = 0.0001;

namespace {

// What the first phase has done.
enum class Phase { none, reduced, failed };

// What the iterations of one run share.
struct ConstrainedRun : SequentialRun {
  Phase phase = Phase::none;
  bool lswd = true;     // the line search must lower the merit function
  double target = 0.0;  // merit that releases the line search
  double wdit = 0.0;    // iteration of the last return to it
};

}  // namespace

static bool averaged(const MINSTR* str) { return str->vers == AVERAGED_WEIGHTS; }

// ---- Start and restart --------------------------------------------------------------------------

static Next load_start(MINSTR* str, ConstrainedRun& run) {
  run.lswd = !averaged(str);
  if (const Next next = load_restart(str, run); next != Next::go_on) return next;
  if (run.phase == Phase::none || run.moved) keep_best(str, run);
  run.moved = false;
  double norm = 0.0;
  for (long i = 0; i < run.v.terms; ++i)
    norm = std::hypot(norm, violation(run.v, i, run.v.vcon[i]));
  if (run.phase == Phase::none && str->max2 > 0.0 && norm > LARGE_VIOLATION) {
    run.moved = conred(str, run.v);
    run.phase = run.moved ? Phase::reduced : Phase::failed;
    return Next::restart;
  }
  measure_start(str, run);
  return Next::go_on;
}

// The matrix and the first step, once the termination test has seen the start.
static Next first_step(MINSTR* str, ConstrainedRun& run) {
  run.fresh = false;
  str->nabc = str->nalc = str->nldc = 0;
  run.ij = load_matrix(str, run);
  if (run.ij != 0) return Next::leave;
  if (!make_step(str, run)) return restore(str, run);
  if (run.phase == Phase::reduced) keep_best(str, run);
  run.wdit = run.iopt - PATIENCE;
  return Next::go_on;
}

// ---- Weights ------------------------------------------------------------------------------------

static void revise_weights(MINSTR* str, ConstrainedRun& run) {
  if (averaged(str)) {
    average_weights(run.v);
  } else if (!raise_weights(run.v, run.gs)) {
    return;
  }
  str->cpsi = str->crit + penalty(run.v, run.v.vcon);
  run.psiopt = run.fopt + penalty(run.v, run.v.vopt);
  if (run.iopt < str->nitr && str->cpsi <= run.psiopt) keep_best(str, run);
}

// ---- Line search --------------------------------------------------------------------------------

namespace {

// One line search.
struct Search {
  double psi0;  // merit, Lagrangian and objective at its start
  double crlf0;
  double crit0;
  double psip;  // merit that the linear model promises
  double rrho;  // kept share of the promise
  int counted = 0;

  double flat() const { return psi0 - std::fabs(psi0) * HUNDRED_EPS; }
};

enum class Verdict { accept, shorten, uphill };

}  // namespace

// Share of the promise that the merit function kept.
static double kept_share(const Search& s, double psi) {
  const double promised = std::fabs(s.psi0 - s.psip);
  const double got = std::fabs(s.psi0 - psi);
  if (promised <= SMALLEST_TOLERANCE) return 1.0;
  if (got <= promised * EPS || got <= SMALLEST_TOLERANCE) return 0.0;
  return (s.psi0 - psi) / (s.psi0 - s.psip);
}

// Wanted share: more of the first steps from a fresh matrix, whose length says nothing yet.
static double wanted_share(const MINSTR* str, const Search& s) {
  static constexpr int DEMANDING_TRIALS = 6;
  if (s.counted >= DEMANDING_TRIALS || str->itre > 1) return SHARE_OF_PROMISE;
  return str->itre == 0 ? 0.5 : 0.2;
}

static Verdict judge_trial(const MINSTR* str, Search& s, bool lswd) {
  if (!lswd && (str->cpsi <= s.psi0 || str->crlf <= s.crlf0)) return Verdict::accept;
  if (s.flat() < s.psip) {
    if (!lswd || str->cpsi > s.psi0) return Verdict::uphill;
    s.rrho = 0.0;
    s.psip = s.flat();
    return Verdict::accept;
  }
  ++s.counted;
  s.rrho = kept_share(s, str->cpsi);
  return s.rrho >= wanted_share(str, s) ? Verdict::accept : Verdict::shorten;
}

static void shorten(MINSTR* str, const Search& s) {
  static constexpr double CUT = 0.1;
  const bool hopeless = str->itre == 0 && s.rrho < 0.01;
  str->alfa *= hopeless ? CUT : std::max(CUT, 0.5 / (1.0 - s.rrho));
}

// Searches along sdir from x. Returns 0, -3 or -5.
static int lines(MINSTR* str, ConstrainedRun& run, Search& s) {
  static constexpr int MOST_TRIALS = 26;
  static constexpr double LEAST_STEP = 2.225073858507202e-303;
  static constexpr double CUT = 0.1;
  VMCSTR& v = run.v;
  str->alfa = str->nitr < 5.0 || str->itre == 0 ? str->salf : 1.0;
  std::copy_n(v.vcon, v.terms, v.cbeg);
  for (int trial = 0; trial < MOST_TRIALS; ++trial) {
    const bool moved = move_along(str);
    str->tbig = 0.0;
    if (!evaluate_values(str, v)) {
      if (str->alfa <= LEAST_STEP) return FUNCTION_FAILED;
      ++s.counted;
      str->alfa *= CUT;
      continue;
    }
    measure_merit(str, run);
    str->crlf = lagrangian(str, v);
    if (moved) {
      s.psip = model_merit(v, s.crit0, run.gs, str->alfa);
    } else if (trial > 0 && str->cpsi >= s.psi0) {
      s.psip = s.flat();
    }
    switch (judge_trial(str, s, run.lswd)) {
      case Verdict::accept:
        return 0;
      case Verdict::shorten:
        shorten(str, s);
        break;
      case Verdict::uphill:
        s.rrho = 0.0;
        if (run.gs > 0.0 || str->alfa <= LEAST_STEP) return NO_PROGRESS;
        ++s.counted;
        str->alfa *= CUT;
        break;
    }
  }
  return NO_PROGRESS;
}

static Next search(MINSTR* str, ConstrainedRun& run, Search& s) {
  run.ij = lines(str, run, s);
  if (run.ij == 0) return Next::go_on;
  return_to_start(str, run, s.psi0);
  str->crlf = s.crlf0;
  run.ij = NO_PROGRESS;
  return Next::finish;
}

// ---- After a step -------------------------------------------------------------------------------

// The search is free of the merit function after a step that kept a tenth of its promise against
// the best point, but for some iterations after a return to it.
static void set_watchdog(MINSTR* str, ConstrainedRun& run, const Search& s) {
  if (str->nitr <= run.iopt) {
    run.target = run.psiopt - SHARE_OF_PROMISE * (run.psiopt - s.psip);
  }
  run.lswd = str->cpsi > run.target || str->nitr < run.wdit + PATIENCE;
  if (averaged(str)) run.lswd = false;
}

static bool is_better(const MINSTR* str, const ConstrainedRun& run) {
  return (str->crit <= run.fopt && str->cmax <= run.cmxopt) || str->cmax < 0.5 * run.cmxopt ||
         str->cpsi <= run.psiopt;
}

static bool watchdog_fires(const MINSTR* str, const ConstrainedRun& run, const Search& s) {
  const bool poor = s.rrho > 0.0 && s.rrho < SHARE_OF_PROMISE;
  return run.iopt + PATIENCE <= str->nitr || (run.iopt + SHORT_PATIENCE < str->nitr && poor);
}

// Back to the best point. Returns 0, -3 or -4.
static int return_to_best(MINSTR* str, ConstrainedRun& run) {
  std::copy_n(run.v.xopt, str->nvar, str->x);
  const int code = load_point(str, run, FUNCTION_FAILED, -4);
  run.wdit = str->nitr;
  return code;
}

static Next settle_point(MINSTR* str, ConstrainedRun& run, const Search& s) {
  static constexpr long SETTLED = 3;
  if (is_better(str, run)) {
    keep_best(str, run);
    if (str->itre > SETTLED) run.phase = Phase::none;
  } else if (watchdog_fires(str, run, s)) {
    run.ij = return_to_best(str, run);
    if (run.ij != 0) return Next::finish;
  }
  if (make_step(str, run) && !matrix_hides_descent(str)) {
    return run.struggle < MOST_STRUGGLE ? Next::go_on : restore(str, run);
  }
  run.load = 0;
  return Next::restart;
}

static Next one_iteration(MINSTR* str, ConstrainedRun& run) {
  if (run.fresh) {
    const Next next = first_step(str, run);
    if (next != Next::go_on) return next;
  }
  revise_weights(str, run);
  start_iteration(str);
  std::copy_n(str->grlf, str->nvar, str->gold);
  Search s{str->cpsi, str->crlf, str->crit, str->cpsi, -4.0};
  Next next = search(str, run, s);
  if (next != Next::go_on) return next;
  if (!evaluate_derivatives(str, run.v)) return derivatives_failed(str, run);
  update_matrix(str, run);
  set_watchdog(str, run, s);
  str->nitr += 1.0;
  ++str->itre;
  next = settle_point(str, run, s);
  if (next != Next::go_on) return next;
  run.ij = str->uster(str, TEST_ITERATION);
  if (run.ij == STOP_OVERRULED) run.load = 0;
  if (run.ij != 0) return Next::stop;
  return static_cast<double>(str->itre) >= str->nres ? Next::restart : Next::go_on;
}

// ---- The technique ------------------------------------------------------------------------------

static int end_stage(MINSTR* str, ConstrainedRun& run) {
  if (run.psiopt < str->cpsi) std::copy_n(run.v.xopt, str->nvar, str->x);
  const int failed = load_point(str, run, FUNCTION_FAILED, FUNCTION_FAILED);
  if (failed != 0) return str->uster(str, failed);
  reset(str, run);
  const int code = str->uster(str, run.ij);
  const bool hopeful = run.phase == Phase::none && code == NO_PROGRESS && str->max2 > 0.0 &&
                       str->cmax > CLEAR_VIOLATION;
  if (hopeful && conred(str, run.v)) {
    run.phase = Phase::reduced;
    run.moved = true;
    return STOP_OVERRULED;
  }
  return code == 0 ? run.ij : code;
}

int znlpdq2(MINSTR* str) {
  ConstrainedRun run;
  open_sequential_run(str, run);
  const int code = technique_loop<ConstrainedRun>(str, run, {load_start, one_iteration, end_stage});
  forget_active(str);
  return code;
}

}  // namespace tqnlp
