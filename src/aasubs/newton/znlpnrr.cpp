// znlpnrr: Newton-Raphson with RidGing (NRRIDG), technique 4.
//
// Model      m(s) = f + g's + s'(H + ridg I)s / 2 in the free subspace of the active constraints;
//            the step is always taken in full, or as far as the constraints allow. A step that
//            fails is not shortened: the ridge is raised and the step is solved again.
// Reference  Levenberg (1944), Marquardt (1963); Goldfeld, Quandt and Trotter (1966) for the ridge;
//            one Householder tridiagonalization (Wilkinson 1965) per iteration makes a further
//            ridge cost O(n) for its factor and O(n^2) for carrying the step back.
// Reads      hfrm (2 diagonal, else packed), hesc, sing, fsav, lsqu, ulm2, ipre, bounds, lincon
// Writes     x, crit, grad, gmax, gcri, pred, rhor, ridg, stub, dfes, chac, null, counters
// Work       wrk2, 6n in all: q diagonal of the tridiagonal form (n), e its sub-diagonal (n),
//            ql = q + ridge (2n), factor (2n)
//            gold = negative reduced gradient in the tridiagonal basis; work = reduced step;
//            hess (hpro with linear constraints) = the orthogonal transformation
// Ends       codes of uster; -3 no evaluable step, -4 derivatives failed, -5 no usable ridge,
//            -6 feasibility lost
//
//   1  load derivatives and the working set at the start or restart point, reduce the Hessian
//   2  solve for the step with the present ridge; not positive definite: raise the ridge
//   3  judge the trial: failed or uphill raises the ridge; equal values let the slope decide
//   4  accept: feasibility, derivatives at the new point, termination test
//   5  adapt the ridge to the ratio of actual and predicted reduction
#include "aasubs/newton/znlpnrr.h"

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpba1.h"
#include "aasubs/loop/loads.h"
#include "aasubs/loop/newton_load.h"
#include "host/process.h"
#include "kernels/dense.h"
#include "kernels/vector.h"

namespace tqnlp {

// Ridge rule.
static constexpr double FIRST_HELD_RIDGE = 0.03125;  // rmin at the start of a run
static constexpr double RIDGE_TO_CURVATURE = 1e-8;   // first ridge against the smallest |q|
static constexpr double RAISE = 4.0;
static constexpr double RAISE_BLOCKED = 10.0;  // a constraint all but forbids the step
static constexpr double BRACKET_CLOSED = 0.999999;
static constexpr double LEAST_RMIN = 2.225073858507202e-306;
// A bracket of finite ridges closes within about two thousand trials; the bound is for values that
// are no numbers.
static constexpr int MOST_TRIALS = 5000;
static constexpr long LARGEST_ORDER = 2147483646;

// What the trials of one iteration, and the iterations of one run, share.
struct RidgeRun {
  bool started = false;      // the first load is over
  bool moved = false;        // a step was taken since the last start: a restart begins elsewhere
  bool user_hessian = true;  // load: false takes the identity for one restart
  double rmin = FIRST_HELD_RIDGE;  // smallest ridge worth holding; only ever falls
  double low = 0.0;                // rid1: largest ridge of this iteration known too small
  double high = MISSING;           // rid2: a ridge known too large
  int ij = 0;                      // code in hand
  double cdif = 0.0;               // actual reduction of the trial
};

static bool diagonal_route(const MINSTR* str) { return str->hfrm == 2 && str->lincon == 0; }

// ---- Derivatives and the reduced problem --------------------------------------------------------

// The smallest ridge that is worth a first trial: 1e-8 of the smallest curvature, at least rmin.
static double getnewr(long n, const double* q, double rmin) {
  double smallest = HUGE_VALUE;
  for (long i = 0; i < n; ++i) smallest = std::min(smallest, std::fabs(q[i]));
  return std::max(RIDGE_TO_CURVATURE * smallest, rmin);
}

static bool scale_is_unit(const MINSTR* str) {
  return std::all_of(str->dsca, str->dsca + str->nvar, [](double scale) { return scale == 1.0; });
}

// Brings the projected and scaled matrix to tridiagonal form: q, e in wrk2, the right side -g in
// gold. Returns the number of diagonal elements that are not positive, also in str->null; 0 where
// nothing is free. Only cells of the tridiagonal diagonal are counted, deliberately: no eigenvalues
// are computed here. Without rescale dsca stays as it is.
static int reduce_problem(MINSTR* str, bool rescale = true) {
  double norm = 0.0;
  const long order =
      newton_project(str, str->hfrm == 2 ? 2 : 0, rescale ? Scale::renewed : Scale::kept, &norm);
  if (order == 0) return 0;
  double* q = str->wrk2;
  if (diagonal_route(str)) {
    std::copy_n(str->hess, str->nvar, q);
  } else {
    double* matrix = str->lincon != 0 ? str->hpro : str->hess;
    if (order > LARGEST_ORDER) xexit(EXIT_INCONSISTENT, 0);
    ztred3(order, matrix, q);
    std::copy_backward(q + order, q + 2 * order, q + str->nvar + order);
    ztrapp3(0, order, matrix, str->gold);
  }
  str->null = std::count_if(q, q + order, [](double cell) { return cell <= EPS; });
  return static_cast<int>(str->null);
}

// Loads derivatives at x and reduces the problem; job as for newton_load. Returns -1, -2, -6, else
// the count of reduce_problem.
static int gethes(MINSTR* str, int job, bool user_hessian) {
  const int code = newton_load(str, job, user_hessian);
  return code != 0 ? code : reduce_problem(str);
}

// ---- Steps of one iteration ---------------------------------------------------------------------

static bool ridge_usable(const MINSTR* str) { return str->ridg < RIDGE_CEILING; }

// Raises the ridge; false when it has left its range.
static bool increase_ridge(MINSTR* str, const RidgeRun& run, double factor) {
  if (str->ridg == 0.0) {
    str->ridg = getnewr(reduced_dimension(str), str->wrk2, run.rmin);
  } else {
    str->ridg *= factor;
  }
  return ridge_usable(str);
}

static bool raise_ridge(MINSTR* str, RidgeRun& run, double factor = RAISE) {
  run.low = str->ridg;
  return increase_ridge(str, run, factor);
}

// No ridge helps: back to xold, and either a restart or the end with code.
static Next give_up_ridge(MINSTR* str, RidgeRun& run, int code) {
  return_to_xold(str);
  if (str->itre > 0 && run.moved) return Next::restart;
  run.ij = code;
  return Next::finish;
}

// Step that solves (T + ridge I) s = -g, in the reduced basis, in sdir. False: not positive
// definite.
static bool solve_with_ridge(MINSTR* str) {
  const long order = reduced_dimension(str);
  const long n = str->nvar;
  const double* q = str->wrk2;
  const double* e = str->wrk2 + n;
  double* shifted = str->wrk2 + 2 * n;
  double* factor = str->wrk2 + 4 * n;
  for (long i = 0; i < order; ++i) shifted[i] = q[i] + str->ridg;

  if (diagonal_route(str)) {
    double logdet = 0.0;
    std::copy_n(shifted, order, factor);
    if (znlpcde(str, 3, order, str->sing, &logdet, factor, factor, nullptr) != 0) return false;
    std::copy_n(str->gold, order, str->sdir);
    return znlpcso(str, 3, order, factor, str->sdir) == 0;
  }
  if (znlpcd3(order, str->sing, shifted, e, factor, factor + n) != 0) return false;
  if (znlpcs3(order, factor, factor + n, str->gold, str->sdir) != 0) return false;
  ztrapp3(1, order, str->lincon != 0 ? str->hpro : str->hess, str->sdir);
  return true;
}

// Unscales and expands the step, with the reduction that it predicts in pred.
static void expand_step(MINSTR* str) {
  const long order = reduced_dimension(str);
  if (str->hesc != 0) znlpscd(str, str->sdir);
  std::copy_n(str->sdir, order, str->work);
  if (order == 0) vzfdl(0.0, str->sdir, str->nvar);
  str->pred = znlpsp2(str, 2, str->work, str->sdir);
  str->stub = 1.0;
}

// Restart with the identity Hessian: the Newton step is blocked by a constraint at once.
static Next restart_with_identity(MINSTR* str, RidgeRun& run) {
  return_to_xold(str);
  run.user_hessian = false;
  return Next::restart;
}

// Cuts the step at the first linear constraint or bound that blocks it.
static Next limit_step(MINSTR* str, RidgeRun& run) {
  zero_negligible_components(str, str->sdir);
  long blocking = -1;
  znlpstl(str, 0, 0, 0, str->xold, str->sdir, &blocking, nullptr);
  if (run.user_hessian && str->stub <= HUNDRED_EPS && newton_readmit(str)) {
    reduce_problem(str, false);
    return Next::solve_again;
  }
  if (run.user_hessian && str->stub <= ROOT_TINY) return restart_with_identity(str, run);
  if (run.user_hessian && str->stub <= HUNDRED_EPS) {
    if (raise_ridge(str, run, RAISE_BLOCKED)) return Next::solve_again;
    return restart_with_identity(str, run);
  }
  if (str->stub <= TINY) {
    return_to_xold(str);  // x may stand at a rejected trial of this iteration
    run.ij = -5;
    return Next::finish;
  }
  // Deliberately an enlarged prediction, not one scaled by the length of the step.
  str->pred *= 2.0 - str->stub;
  return Next::go_on;
}

// Solves for the step and forms the trial point x with its function value.
static Next try_ridge(MINSTR* str, RidgeRun& run) {
  if (!solve_with_ridge(str)) {
    if (raise_ridge(str, run)) return Next::solve_again;
    return give_up_ridge(str, run, -5);
  }
  expand_step(str);
  if (str->lincon != 0) {
    if (const Next next = limit_step(str, run); next != Next::go_on) return next;
  }
  zvaxpy(str->x, str->sdir, str->xold, str->nvar, str->stub);
  if (!evaluate_objective(str)) {
    if (raise_ridge(str, run)) return Next::solve_again;
    return give_up_ridge(str, run, -3);
  }
  run.cdif = str->dfes = str->cold - str->crit;
  return Next::go_on;
}

// The objective rose: a larger ridge. When none is left in the first iteration after a restart, the
// iteration deliberately goes on with the restored point and the reduction in hand.
static Next judge_uphill(MINSTR* str, RidgeRun& run) {
  run.low = std::max(run.low, str->ridg);
  if (increase_ridge(str, run, RAISE)) return Next::solve_again;
  return_to_xold(str);
  return str->itre > 0 && run.moved ? Next::restart : Next::go_on;
}

// Ridge between the ends of the bracket; the end of the run when the bracket has closed.
static Next bisect_ridge(MINSTR* str, RidgeRun& run, double share) {
  if (BRACKET_CLOSED * run.high <= run.low) {
    run.ij = -5;
    return Next::finish;
  }
  str->ridg = run.low + (run.high - run.low) * share;
  return Next::solve_again;
}

// The slope at the trial says that the step is too long: a larger ridge.
static Next raise_by_slope(MINSTR* str, RidgeRun& run) {
  run.low = str->ridg;
  if (!wzmis(run.high)) return bisect_ridge(str, run, 0.5);
  str->ridg =
      run.low == 0.0 ? getnewr(reduced_dimension(str), str->wrk2, run.rmin) : RAISE * run.low;
  if (ridge_usable(str)) return Next::solve_again;
  run.ij = -5;
  return Next::finish;
}

// Function values at xold and x are equal to rounding: the slope at x decides.
static Next judge_by_slope(MINSTR* str, RidgeRun& run) {
  if (!evaluate_gradient(str)) {
    run.ij = -4;
    return Next::finish;
  }
  const double slope = zvdot11(str->nvar, str->sdir, str->grad);
  if (slope < -0.5 * str->pred) {  // the step is too short: a smaller ridge
    run.high = str->ridg;
    return bisect_ridge(str, run, run.low == 0.0 ? 0.1 : 0.5);
  }
  if (slope > 0.5 * str->pred) return raise_by_slope(str, run);
  // What the user's code saved must belong to x again.
  if (!evaluate_objective(str)) {
    run.ij = -3;
    return Next::finish;
  }
  return Next::go_on;
}

static bool values_are_equal(const MINSTR* str, const RidgeRun& run) {
  const double magnitude = std::fabs(str->crit);
  const double tie = HUNDRED_EPS * (magnitude > HUNDRED_EPS ? magnitude : 1.0);
  return !(std::fabs(run.cdif) > tie);
}

// Adapts the ridge to the quality of the model. A change of the active set forgets it, and so does
// the switch between unit and other scales: the ridge is measured in the scale, and what was
// moderate in one is enormous in the other, with steps so short that they pass for convergence.
static void update_ridge(MINSTR* str, RidgeRun& run, bool scale_switched) {
  if (str->chac != 0 || scale_switched) {
    str->ridg = 0.0;
  } else if (str->ridg > 0.0) {
    if (str->rhor >= 2.0) {
      str->ridg *= 0.125;
    } else if (str->rhor >= 1.0) {
      str->ridg *= 0.25;
    } else if (str->rhor >= 0.1) {
      str->ridg *= 0.5;
    } else {
      str->ridg *= 2.0;
    }
  }
  if (str->ridg < run.rmin) {
    str->ridg = 0.0;
    if (run.rmin > LEAST_RMIN) run.rmin *= 0.1;
  }
}

// Brings the reduced problem of xold back, after a load at another point that failed half-way has
// left parts of its own in gradient and matrix. The working set is still that of xold.
static bool reload_at_xold(MINSTR* str, const RidgeRun& run) {
  return_to_xold(str);
  // Differences start from the function values, too.
  if (!evaluate_objective(str) || newton_derivatives(str, run.user_hessian) != 0) return false;
  reduce_problem(str, false);  // the scale, in which the ridge is measured, still is that of xold
  return true;
}

// Derivatives at the accepted point failed: the step from xold is solved again with a larger ridge.
static Next retreat_from_bad_derivatives(MINSTR* str, RidgeRun& run) {
  const bool usable = raise_ridge(str, run);
  // A start from the identity keeps it here: the Hessian would be blocked again at once.
  if (usable && reload_at_xold(str, run)) return Next::solve_again;
  run.user_hessian = true;
  if (usable) {
    run.ij = -4;
    return Next::finish;
  }
  return_to_xold(str);
  if (str->itre >= 2 && run.moved) return Next::restart;
  run.ij = -4;
  return Next::finish;
}

// Takes the trial as the next point: feasibility, derivatives, termination test, new ridge.
static Next accept_trial(MINSTR* str, RidgeRun& run) {
  str->rhor = run.cdif < HUNDRED_EPS || str->pred <= TINY ? 1.0 : run.cdif / str->pred;
  if (const Next next = keep_feasible(str, &run.ij); next != Next::go_on) return next;
  str->nitr += 1.0;
  ++str->itre;
  const bool unit_before = str->hesc != 0 && scale_is_unit(str);
  const int loaded = gethes(str, 0, true);
  if (loaded == -6) {
    run.user_hessian = true;
    run.ij = -6;
    return Next::finish;
  }
  if (loaded < 0 || str->tbig != 0.0) return retreat_from_bad_derivatives(str, run);

  run.moved = true;
  run.ij = str->uster(str, 1);
  update_ridge(str, run, str->hesc != 0 && scale_is_unit(str) != unit_before);
  run.user_hessian = true;
  return run.ij == 0 ? Next::go_on : Next::stop;
}

// One trial of the present ridge, from the solve to the verdict.
static Next one_trial(MINSTR* str, RidgeRun& run) {
  Next next = try_ridge(str, run);
  if (next == Next::go_on && run.cdif < -TINY) next = judge_uphill(str, run);
  if (next == Next::go_on && values_are_equal(str, run)) next = judge_by_slope(str, run);
  if (next == Next::go_on) next = accept_trial(str, run);
  return next;
}

static Next one_iteration(MINSTR* str, RidgeRun& run) {
  start_iteration(str);
  run.low = 0.0;
  run.high = MISSING;
  Next next = Next::solve_again;
  for (int trial = 0; next == Next::solve_again; ++trial) {
    if (trial == MOST_TRIALS) return give_up_ridge(str, run, -5);
    next = one_trial(str, run);
  }
  return next;
}

// ---- The technique ------------------------------------------------------------------------------

// Start or restart at x.
static Next load_start(MINSTR* str, RidgeRun& run) {
  const bool first = !run.started;
  open_restart(str);
  str->ridg = 0.0;
  run.moved = false;
  run.started = true;
  const int loaded = gethes(str, 1, run.user_hessian);
  if (loaded >= 0 && str->tbig == 0.0) return Next::go_on;
  // What the run ended with before a restart is no code of its end: it may be the 0 of a test that
  // said go on. Only 100, by which the test itself asked for the restart, stands deliberately.
  if (first) {
    run.ij = loaded < 0 ? loaded : -1;
  } else if (run.ij != STOP_OVERRULED) {
    run.ij = loaded == -6 ? -6 : (loaded == -2 ? -4 : -3);
  }
  return Next::leave;
}

static int end_stage(MINSTR* str, RidgeRun& run) {
  return finish_run(str, run.ij, [](MINSTR* s) { return gethes(s, 1, true); });
}

int znlpnrr(MINSTR* str) {
  open_run(str);
  str->nhes = 0;
  RidgeRun run;
  return technique_loop<RidgeRun>(str, run, {load_start, one_iteration, end_stage});
}

}  // namespace tqnlp
