// quanew_loop: the loop of QUANEW, line-search QUAsi-NEWton, which its two forms share: znlpqun
// keeps the inverse of the Hessian approximation, znlpdqn a factor of the approximation itself.
//
// Method     s = -B^-1 g in the free subspace of the active constraints, a line search along s, and
//            an update of B by the differences of x and g, which keeps it positive definite. A
//            direction that lost its descent, a search that failed and a matrix that lost rank
//            start afresh with a new B at the present point.
// Reference  Dennis and More (1977), SIAM Review 19; Gill and Murray (1972) for the factored form;
//            Gill, Murray and Wright (1981), chapters 4 and 5, for the working set
// Reads      nres, salf, sigm, load, tupd, updat, linse, bounds, lincon, lsqu, ipre
// Writes     x, crit, grad, gmax, pred, ridg, stub, alfa, dfes, hess, chac, null, counters
// Work       wrk2 (n) = reduced step spro; xold, gold receive the (reduced) differences of x and g
//            once an iteration is over; sdir, wrk2, work serve the update
// Ends       codes of uster; -3, -4 final evaluation failed, or derivatives; -5 no progress; -6
//            feasibility lost
//
//   1  load derivatives, working set and matrix at the start or restart point; form the direction
//   2  limit the step by the constraints, search along the direction
//   3  feasibility, working set at the new point, termination test
//   4  update the matrix, form the next direction; restart where it has no descent
#include "aasubs/quasinewton/quanew_loop.h"

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpba1.h"
#include "aasubs/loop/loads.h"
#include "aasubs/loop/search_steps.h"
#include "aasubs/loop/secant_load.h"
#include "kernels/vector.h"

namespace tqnlp {

// Problems up to this size start well enough without scaling.
static constexpr long LARGEST_UNSCALED = 10;

// What the iterations of one run share.
struct QuanewRun {
  const QuanewForm& form;
  int load = 0;        // nonzero: the user's Hessian starts the matrix
  int ij = 0;          // code in hand
  double gs = 0.0;     // slope of the present direction
  double salf0 = 1.0;  // first step length asked for, kept until the run has settled
  RestartGuard guard{};
};

int quanew_factor(const MINSTR* str) { return has_constraints(str) ? 2 : 1; }

// ---- Direction ----------------------------------------------------------------------------------

// False when the direction is uphill, or the matrix could not be used.
static bool make_direction(MINSTR* str, QuanewRun& run) {
  if (reduced_dimension(str) < 1) {
    vzfdl(0.0, str->sdir, str->nvar);
    run.gs = str->pred = 0.0;
    return true;
  }
  const int code = run.form.direction(str);
  run.gs = znlpgs(str, str->spro, str->gpro, str->sdir, str->grad);
  str->pred = -run.gs;
  return code == 0 && run.gs <= SMALLEST_TOLERANCE;
}

// Does the direction after an update still lead down? Far from a restart it must also promise
// something against the present gradient.
static bool direction_is_good(const MINSTR* str, const QuanewRun& run) {
  static constexpr long TRUSTED_ITERATIONS = 51;
  if (!leads_down(str, run.gs)) return false;
  return str->itre < TRUSTED_ITERATIONS ||
         run.form.still_descends(str, descent_tolerance(str), run.gs);
}

// ---- Start and restart --------------------------------------------------------------------------

// The code of a load that failed.
static int load_failure(const QuanewRun& run, int code) {
  const bool keep = code == -6 || (code == NO_PROGRESS && run.form.outlives_failed_load);
  return keep ? code : -4;
}

// Start or restart at x. An uphill direction, which only the user's Hessian or rounding can make,
// comes back here with a larger shift of the matrix.
static Next load_start(MINSTR* str, QuanewRun& run) {
  run.salf0 = str->alfa = str->salf;
  open_restart(str);
  run.ij = NO_PROGRESS;
  if (!restart_makes_progress(str, run.guard)) return Next::finish;
  const int code = run.form.actcon(str, 1, &run.load);
  if (code < 0 || str->tbig != 0.0) {
    run.ij = load_failure(run, code);
    return Next::finish;
  }
  if (make_direction(str, run)) {
    str->ridg = 0.0;
    return Next::go_on;
  }
  return secant_raise_shift(str) ? Next::restart : Next::finish;
}

// ---- Steps of one iteration ---------------------------------------------------------------------

// A constraint that blocks at once, though it is not in the working set, is worth a restart, where
// the working set is made afresh; the user's Hessian, which led there, is not used again.
static Next limit_step(MINSTR* str, QuanewRun& run) {
  if (limit_search(str) || str->itre == 0) return Next::go_on;
  run.load = 0;
  return Next::restart;
}

// A search that fails at the first step from a fresh matrix ends the run: that matrix will not do
// better the next time.
static Next search(MINSTR* str, QuanewRun& run) {
  if (search_along(str, str->linse)) return Next::go_on;
  if (str->itre > 0) return Next::restart;
  run.ij = NO_PROGRESS;
  return Next::finish;
}

// Counts the step, revises working set and matrix, and asks the termination test.
static Next accept_step(MINSTR* str, QuanewRun& run) {
  ++str->itre;
  str->nitr += 1.0;
  const int code = run.form.actcon(str, 0, &run.load);
  if (code < 0 || str->tbig != 0.0) {
    return_to_xold(str);
    if (run.form.outlives_failed_load && str->itre >= 2) return Next::restart;
    run.ij = load_failure(run, code);
    return Next::finish;
  }
  run.ij = str->uster(str, TEST_ITERATION);
  return run.ij == 0 ? Next::go_on : Next::stop;
}

// A matrix that began as a multiple of the identity takes the scale of the problem from the first
// pair of differences, and from the second if that step was long.
static int wants_scaling(const MINSTR* str, const QuanewRun& run) {
  if (run.load != 0 || str->nvar <= LARGEST_UNSCALED) return 0;
  return str->itre == 1 || (str->itre == 2 && str->alfa > 1.0) ? 1 : 0;
}

// The restart period, then the update. A pair that is refused leaves the matrix as it is, and
// null = 1 for the report.
static Next update_matrix(MINSTR* str, const QuanewRun& run) {
  if (static_cast<double>(str->itre) >= str->nres) {
    str->salf = 1.0;
    return Next::restart;
  }
  // With linear constraints a change of the working set has turned the basis of the differences.
  if (str->chac != 0 && str->lincon != 0) return Next::go_on;
  secant_differences(str);
  const int code = str->updat(str, run.form.update_job(str), wants_scaling(str, run), str->xold,
                              str->gold, str->hess, str->sdir, str->wrk2, str->work);
  if (code < 0) return Next::restart;
  str->null = code > 0 ? 1 : 0;
  return Next::go_on;
}

static Next next_direction(MINSTR* str, QuanewRun& run) {
  if (!make_direction(str, run) || !direction_is_good(str, run)) return Next::restart;
  str->salf = str->nitr >= SETTLED_ITERATIONS ? 1.0 : run.salf0;
  str->ridg = 0.0;
  return Next::go_on;
}

static Next one_iteration(MINSTR* str, QuanewRun& run) {
  start_iteration(str);
  std::copy_n(str->grad, str->nvar, str->gold);
  Next next = limit_step(str, run);
  if (next == Next::go_on) next = search(str, run);
  if (next == Next::go_on) {
    str->chac = 0;
    next = keep_feasible(str, &run.ij);
  }
  if (next == Next::go_on) next = accept_step(str, run);
  if (next == Next::go_on) next = update_matrix(str, run);
  if (next == Next::go_on) next = next_direction(str, run);
  return next;
}

// ---- The technique ------------------------------------------------------------------------------

// Counters, and settings that were not given or make no sense.
static void open_quanew(MINSTR* str) {
  open_run(str);
  str->nlis = str->nhup = str->ngrd = 0;
  str->ridg = 0.0;
  str->spro = str->wrk2;
  if (wzmis(str->sigm)) str->sigm = str->tupd == 2 ? 0.06 : 0.4;
  secant_settle_restarts(str);
}

static int end_stage(MINSTR* str, QuanewRun& run) {
  const int code = finish_run(str, run.ij, secant_load_final);
  // A stop that is overruled again and again without progress stands.
  return code == STOP_OVERRULED && run.guard.exhausted() ? NO_PROGRESS : code;
}

int quanew_loop(MINSTR* str, const QuanewForm& form) {
  open_quanew(str);
  QuanewRun run{form};
  run.load = str->load != 0 ? 1 : 0;
  return technique_loop<QuanewRun>(str, run, {load_start, one_iteration, end_stage});
}

}  // namespace tqnlp
