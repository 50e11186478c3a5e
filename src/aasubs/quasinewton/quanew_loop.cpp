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
#include "aasubs/constraints/znlpbas.h"
#include "aasubs/termination/znlptrm.h"
#include "kernels/vector.h"

namespace tqnlp {

// Shift of a start matrix.
static constexpr double FIRST_SHIFT = 0.0001;
static constexpr double RAISE_SHIFT = 4.0;
static constexpr double SHIFT_LIMIT = 1073741824.0;
// Restarts in a row that did not lower the objective. The shift alone may take two dozen of them
// from its first value to its limit; what goes on beyond this would go on for ever.
static constexpr int MOST_IDLE_RESTARTS = 60;
// From this iteration on the first trial of a search is no longer held back.
static constexpr double SETTLED_ITERATIONS = 5.0;
// Problems up to this size start well enough without scaling.
static constexpr long LARGEST_UNSCALED = 10;

enum class Next {
  go_on,
  restart,   // load afresh at x
  finish,    // end stage with the code in hand
  converged  // the termination test has spoken
};

// What the iterations of one run share.
struct QuanewRun {
  const QuanewForm& form;
  int load = 0;                       // nonzero: the user's Hessian starts the matrix
  int ij = 0;                         // code in hand
  double gs = 0.0;                    // slope of the present direction
  double salf0 = 1.0;                 // first step length asked for, kept until the run has settled
  double crit_at_start = HUGE_VALUE;  // objective at the last start or restart
  int idle = 0;                       // restarts since the objective last fell between two
};

// Are there constraints that the working set knows? Without them frame and reduced space are those
// of x itself.
static bool has_constraints(const MINSTR* str) { return str->bounds != 0 || str->lincon != 0; }

// One evaluation; a callback that reports success may still have left the mark of a value that is
// no number.
static bool failed(MINSTR* str, int order, Callback callback) {
  str->ifdr = order;
  return callback(str) != 0 || str->tbig != 0.0;
}

// Gives up a trial or a step. Only before the update: it turns xold into a difference.
static void return_to_xold(MINSTR* str) {
  str->crit = str->cold;
  std::copy_n(str->xold, str->nvar, str->x);
}

// ---- Pieces of the loaders ----------------------------------------------------------------------

int quanew_factor(const MINSTR* str) { return has_constraints(str) ? 2 : 1; }

// Values at a start or restart point. A sum of squares expects to lose a twentieth at first.
static int call_function_and_derivatives(MINSTR* str, int load) {
  if (failed(str, ORDER_FUNCTION, str->usfct)) return -1;
  str->cold = str->crit;
  if (str->lsqu != 0 && wzmis(str->dfes)) str->dfes = std::fabs(str->crit / 20.0);
  const bool hessian = load > 0;
  return failed(str, hessian ? ORDER_HESSIAN : ORDER_GRADIENT, hessian ? str->ushes : str->usgrd)
             ? -2
             : 0;
}

int quanew_load(MINSTR* str, int load) {
  int code = call_function_and_derivatives(str, load);
  if (code != 0 || !has_constraints(str)) return code;
  if (znlpfch(str, 1, 0, 0) != 0) {
    // One repair: the point it leaves is judged by the tolerance it had to widen.
    if (znlpfea(str, -1) < 0) return -6;
    code = call_function_and_derivatives(str, load);
    if (code != 0) return code;
    if (znlpfch(str, 1, 0, str->ipre) != 0) return -6;
  }
  znlpfta(str, 1, 0, 0, nullptr, nullptr, nullptr);
  return 0;
}

static bool raise_shift(MINSTR* str) {
  str->ridg = str->ridg == 0.0 ? FIRST_SHIFT : RAISE_SHIFT * str->ridg;
  return str->ridg < SHIFT_LIMIT;
}

// A Hessian that was given as its diagonal, in packed form.
static void spread_diagonal(MINSTR* str) {
  const long n = str->nvar;
  std::copy_n(str->hess, n, str->work);
  vzfdl(0.0, str->hess, packed_size(n));
  for (long i = 0; i < n; ++i) str->hess[zisub(i, i)] = str->work[i];
}

bool quanew_start_matrix(MINSTR* str, int* load) {
  const int factor = quanew_factor(str);
  if (*load > 0 && str->hfrm == 2) spread_diagonal(str);
  for (;;) {
    znlphin(str, 1, *load, 0, factor, str->hess);
    if (znlphin(str, 2, *load, 0, factor, str->hess) == 0) return true;
    *load = 0;  // the user's Hessian is used up
    if (!raise_shift(str)) return false;
  }
}

void quanew_revise(MINSTR* str, int job) {
  if (!has_constraints(str)) return;
  znlpact(str, job, 0, nullptr, nullptr, str->hess);
  // Without a Hessian over all parameters a parameter or direction that becomes free gets a unit
  // row: the updates teach it its curvature.
  if (str->nabc + str->nalc != 0) znlpdac(str, job, 0, nullptr, str->hess, nullptr);
}

void quanew_measure(MINSTR* str) {
  if (str->nabc == str->nvar) {
    str->gmax = 0.0;
  } else {
    znlpgmx(str, 0, nullptr);
  }
}

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
  static constexpr double STALLED_DECREASE = 1e-6;  // of the objective, in the last iteration
  static constexpr double STALLED_TOLERANCE = 1e-4;
  static constexpr double USUAL_TOLERANCE = 1e-8;
  static constexpr long TRUSTED_ITERATIONS = 51;
  if (!(run.gs <= -TINY) || zvenorm(str->nvar, 1, str->sdir) == 0.0) return false;
  const bool stalled = str->dfes <= STALLED_DECREASE * str->cold;
  const double tol = stalled ? STALLED_TOLERANCE : USUAL_TOLERANCE;
  return str->itre < TRUSTED_ITERATIONS || run.form.still_descends(str, tol, run.gs);
}

// ---- Start and restart --------------------------------------------------------------------------

// The code of a load that failed.
static int load_failure(const QuanewRun& run, int code) {
  const bool keep = code == -6 || (code == NO_PROGRESS && run.form.outlives_failed_load);
  return keep ? code : -4;
}

// False when too many restarts in a row have not lowered the objective.
static bool progress_between_restarts(const MINSTR* str, QuanewRun& run) {
  run.idle = str->crit < run.crit_at_start ? 0 : run.idle + 1;
  run.crit_at_start = str->crit;
  return run.idle <= MOST_IDLE_RESTARTS;
}

// Start or restart at x. An uphill direction, which only the user's Hessian or rounding can make,
// comes back here with a larger shift of the matrix.
static Next load_start(MINSTR* str, QuanewRun& run) {
  run.salf0 = str->alfa = str->salf;
  str->itre = 0;
  if (str->nitr != 0.0) ++str->ires;
  str->chac = 0;
  run.ij = NO_PROGRESS;
  if (!progress_between_restarts(str, run)) return Next::finish;
  const int code = run.form.actcon(str, 1, &run.load);
  if (code < 0 || str->tbig != 0.0) {
    run.ij = load_failure(run, code);
    return Next::finish;
  }
  if (make_direction(str, run)) {
    str->ridg = 0.0;
    return Next::go_on;
  }
  return raise_shift(str) ? Next::restart : Next::finish;
}

// ---- Steps of one iteration ---------------------------------------------------------------------

// Longest step that the constraints allow. A constraint that blocks at once, though it is not in
// the working set, is worth a restart, where the working set is made afresh; the user's Hessian,
// which led there, is not used again.
static Next limit_step(MINSTR* str, QuanewRun& run) {
  static constexpr double BLOCKED = DIAGONAL_PIVOT_FLOOR;
  str->stub = HUGE_VALUE;
  if (!has_constraints(str)) return Next::go_on;
  long blocking = -1;
  znlpstl(str, 0, 1, 0, str->xold, str->sdir, &blocking, nullptr);
  if (blocking == -1) {
    str->stub = HUGE_VALUE;
  } else if (str->stub <= BLOCKED && str->itre > 0) {
    run.load = 0;
    return Next::restart;
  }
  return Next::go_on;
}

// A search that fails at the first step from a fresh matrix ends the run: that matrix will not do
// better the next time.
static Next search(MINSTR* str, QuanewRun& run) {
  const int code = str->linse(str);
  str->dfes = str->cold - str->crit;
  if (code == 0 && str->alfa > TINY) return Next::go_on;
  return_to_xold(str);
  if (str->itre > 0) return Next::restart;
  run.ij = NO_PROGRESS;
  return Next::finish;
}

// Rounding may carry a long step past a constraint. The repaired point is no longer that of the
// search, so that the matrix learns nothing from it.
static Next keep_feasible(MINSTR* str, QuanewRun& run) {
  str->chac = 0;
  if (!has_constraints(str) || znlpfch(str, 0, 0, str->ipre) == 0) return Next::go_on;
  if (znlpfea(str, -1) < 0) {
    run.ij = -6;
    return Next::finish;
  }
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
  if (run.ij == STOP_OVERRULED) return Next::restart;
  return run.ij == 0 ? Next::go_on : Next::converged;
}

// xold and gold become the differences of x and g, in the reduced space.
static void form_differences(MINSTR* str) {
  const long n = str->nvar;
  if (!has_constraints(str)) {
    zvaxpy(str->xold, str->xold, str->x, n, -1.0);
    zvaxpy(str->gold, str->gold, str->grad, n, -1.0);
    return;
  }
  zvaxpy(str->work, str->xold, str->x, n, -1.0);
  znlpvre(str, str->work, str->xold);
  zvaxpy(str->work, str->gold, str->grad, n, -1.0);
  znlpvre(str, str->work, str->gold);
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
  form_differences(str);
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
  str->cold = str->crit;
  std::copy_n(str->x, str->nvar, str->xold);
  std::copy_n(str->grad, str->nvar, str->gold);
  Next next = limit_step(str, run);
  if (next == Next::go_on) next = search(str, run);
  if (next == Next::go_on) next = keep_feasible(str, run);
  if (next == Next::go_on) next = accept_step(str, run);
  if (next == Next::go_on) next = update_matrix(str, run);
  if (next == Next::go_on) next = next_direction(str, run);
  return next;
}

// ---- The technique ------------------------------------------------------------------------------

// Counters, and settings that were not given or make no sense.
static void open_run(MINSTR* str) {
  str->ires = str->nlis = str->nhup = str->ngrd = str->nfct = str->null = 0;
  str->nitr = str->pred = str->ridg = 0.0;
  str->spro = str->wrk2;
  if (wzmis(str->sigm)) str->sigm = str->tupd == 2 ? 0.06 : 0.4;
  if (!(str->salf > 0.0 && str->salf <= 1.0)) str->salf = 1.0;
  if (!(str->nres > 0.0)) str->nres = NEVER;
  std::copy_n(str->x, str->nvar, str->xold);
}

// The code in hand becomes final. Function and gradient of a failed run are evaluated once more, so
// that they belong to the point returned; the termination test has the last word.
static int end_stage(MINSTR* str, QuanewRun& run) {
  if (str->nitr != 0.0) {
    if (failed(str, ORDER_FUNCTION, str->usfct)) {
      run.ij = FUNCTION_FAILED;
    } else if (failed(str, ORDER_GRADIENT, str->usgrd)) {
      run.ij = -4;
    } else {
      quanew_measure(str);
    }
  }
  const int code = str->uster(str, run.ij);
  // A stop that is overruled again and again without progress stands.
  return code == STOP_OVERRULED && run.idle > MOST_IDLE_RESTARTS ? NO_PROGRESS : code;
}

int quanew_loop(MINSTR* str, const QuanewForm& form) {
  open_run(str);
  QuanewRun run{form};
  run.load = str->load != 0 ? 1 : 0;
  bool first = true;
  for (;;) {
    Next next = load_start(str, run);
    if (next == Next::go_on && first) {
      first = false;
      run.ij = str->uster(str, TEST_START);
      if (run.ij == STOP_OVERRULED) continue;
      if (run.ij != 0) return run.ij;
    }
    while (next == Next::go_on) next = one_iteration(str, run);
    if (next == Next::finish) run.ij = end_stage(str, run);
    if (next != Next::restart && run.ij != STOP_OVERRULED) return run.ij;
  }
}

}  // namespace tqnlp
