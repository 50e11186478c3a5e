// znlpnra: Newton-RAphson with line search (NEWRAP), technique 3.
//
// Model      m(s) = f + g's + s'(H + E)s / 2 in the free subspace of the active constraints; E is 0
//            where H is safely positive definite, else a ridge, or the diagonal that the modified
//            Cholesky factorization adds. The step is searched along.
// Reference  Bunch and Kaufman (1977), Mathematics of Computation 31, for the inertia of a dense H;
//            Schnabel and Eskow (1990), SIAM J. Sci. Stat. Comput. 11, for the modified factor;
//            Goldfeld, Quandt and Trotter (1966) for the ridge; Gill, Murray and Wright (1981),
//            chapters 4 and 5
// Reads      hfrm (1 sparse, 2 diagonal, both without linear constraints; else packed), hesc, sing,
//            linse, sigm, fidi, bounds, lincon
// Writes     x, crit, grad, gmax, gcri, pred, rhor, ridg, null, stub, alfa, dfes, chac, counters
// Work       wrk2 = reduced step spro (n) | diagonal with ridge, or diagonal of the sparse H (n)
//            half = factor; gold = negative scaled reduced gradient, during the search the gradient
//            at xold; iwk, ipiv pivots; work
// Ends       codes of uster; -1, -2, -6 failed loads; -5 no direction, no step or no usable ridge
//
//   1  load derivatives and the working set at the start or restart point
//   2  factor with the present ridge; not positive definite: raise it
//   3  direction; no descent: raise the ridge, in the end steepest descent
//   4  limit the step, turn it where a constraint all but forbids it; line search
//   5  feasibility, derivatives at the new point, termination test
//   6  adapt the ridge to the ratio of actual and predicted reduction
#include "aasubs/newton/znlpnra.h"

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpba1.h"
#include "aasubs/linesearch/znlplis.h"
#include "aasubs/loop/loads.h"
#include "aasubs/loop/newton_load.h"
#include "aasubs/loop/search_steps.h"
#include "aasubs/newton/znlpnra_vertex.h"
#include "kernels/dense.h"
#include "kernels/indefinite.h"
#include "kernels/vector.h"

namespace tqnlp {

// Ridge rule.
static constexpr double FIRST_RIDGE = 0.0001;  // rmin at the start, for a sparse H times its norm
static constexpr double LEAST_RMIN = DIAGONAL_PIVOT_FLOOR;  // a ridge of 0 could never be raised
static constexpr double RAISE = 4.0;
static constexpr double NO_GRADIENT = 2.2250738585072018e-307;

// Factorization jobs.
static constexpr int CHOLESKY = 2;
static constexpr int SPARSE = 6;
static constexpr int SPARSE_FREE = 7;  // of the free parameters, with bounds

enum class Form { packed = 0, sparse = 1, diagonal = 2 };

// How the direction is solved for.
enum class Solver {
  steepest_descent,
  diagonal,
  indefinite_factor,
  cholesky_factor,
  pivoted_factor
};

// What the iterations of one run share.
struct NewtonRun {
  int ij = 0;                    // code in hand
  bool newton_direction = true;  // load: false takes steepest descent for one iteration
  double rmin = FIRST_RIDGE;     // smallest ridge worth holding
  long order = 0;                // free dimension
  double norm = 0.0;             // dgnm: length of the scaled reduced gradient
  double gs = 0.0;               // slope of the direction
  int flat_searches = 0;         // kitr: searches with a flat slope under differences
  Solver solver = Solver::steepest_descent;
};

static Form form_of(const MINSTR* str) {
  return str->lincon != 0 ? Form::packed : static_cast<Form>(str->hfrm);
}

static double* diagonal_room(const MINSTR* str) { return str->wrk2 + str->nvar; }

// ---- Derivatives --------------------------------------------------------------------------------

// job 1: at a start or restart; job 0: after a step. Steepest descent takes only the scale from the
// Hessian, and takes it as it is. Returns 0, -1, -2 or -6.
static int gethes(MINSTR* str, NewtonRun& run, int job) {
  const int code = newton_load(str, job, true);
  if (code != 0) return code;
  run.order = newton_project_clean(str, str->hfrm, run.newton_direction, true, &run.norm);
  return 0;
}

// ---- Ridge --------------------------------------------------------------------------------------

// False when the ridge has left its range.
static bool add_to_ridge(MINSTR* str, double shift) {
  str->ridg += shift;
  return str->ridg < RIDGE_CEILING;
}

static bool raise_ridge(MINSTR* str, const NewtonRun& run) {
  str->ridg = str->ridg == 0.0 ? run.rmin : RAISE * str->ridg;
  return str->ridg < RIDGE_CEILING;
}

// A matrix that could not be factored gets the shift that it needs; from the second failure of an
// iteration on at least several times the ridge, because a shift that is lost in the rounding of a
// large matrix would be added for ever. The shift of a sparse matrix grows like that by itself.
static bool shift_after_failure(MINSTR* str, const NewtonRun& run, double shift, int failures) {
  str->null = 1;
  if (form_of(str) == Form::sparse) return add_to_ridge(str, shift);
  const double least = failures == 0 ? run.rmin : std::max(run.rmin, RAISE * str->ridg);
  return add_to_ridge(str, std::max(shift, least));
}

// ---- Factorization ------------------------------------------------------------------------------

// cc := roots of the diagonal c. A value that is not above the limit makes *ridg the shift that
// lifts it to the given one. Returns 0, or -1 when there was such a value.
static int chdecd(long n, double sing, double* ridg, const double* c, double* cc) {
  double limit = zvamx(n, c) * sing;
  if (limit < TINY) limit = DIAGONAL_PIVOT_FLOOR;
  const double rmin = *ridg;
  int result = 0;
  for (long j = 0; j < n; ++j) {
    if (c[j] > limit) continue;
    *ridg = std::max(*ridg, rmin - c[j]);
    result = -1;
  }
  for (long j = 0; result == 0 && j < n; ++j) cc[j] = std::sqrt(c[j]);
  return result;
}

// b := b / c^2, 0 where that cannot be.
static void chsold(long n, const double* c, double* b) {
  for (long j = 0; j < n; ++j) {
    const double t = c[j] * c[j];
    b[j] = t <= std::max(1.0, std::fabs(b[j])) * SMALLEST_TOLERANCE ? 0.0 : b[j] / t;
  }
}

// Each of the three returns true with a factor in half; false: *shift is what the diagonal needs.
static bool factor_diagonal(MINSTR* str, NewtonRun& run, double* shift) {
  double* shifted = diagonal_room(str);
  for (long k = 0; k < run.order; ++k) shifted[k] = str->hess[k] + str->ridg;
  run.solver = Solver::diagonal;
  *shift = run.rmin;
  return chdecd(run.order, str->sing, shift, shifted, str->half) == 0;
}

static bool factor_sparse(MINSTR* str, NewtonRun& run, double* shift) {
  double* kept = diagonal_room(str);
  std::copy_n(str->hess, run.order, kept);
  for (long k = 0; str->ridg > 0.0 && k < run.order; ++k) str->hess[k] += str->ridg;
  const int job = str->bounds != 0 ? SPARSE_FREE : SPARSE;
  double logdet = 0.0;
  const long failed =
      znlpcde(str, job, run.order, str->sing, &logdet, str->hess, str->half, nullptr);
  std::copy_n(kept, run.order, str->hess);
  run.solver = Solver::cholesky_factor;
  *shift = str->ridg == 0.0 ? run.rmin : RAISE * str->ridg;
  return failed == 0;
}

static void copy_with_ridge(MINSTR* str, const NewtonRun& run) {
  std::copy_n(str->lincon != 0 ? str->hpro : str->hess, packed_size(run.order), str->half);
  for (long k = 0; k < run.order; ++k) str->half[zisub(k, k)] += str->ridg;
}

// The inertia decides: positive definite, the factor solves; negative eigenvalues alone, the
// modified Cholesky factor does, and tells how far off the matrix is; a singular one gets a ridge.
static bool factor_packed(MINSTR* str, NewtonRun& run, double* shift) {
  copy_with_ridge(str, run);
  zududec(run.order, str->sing, str->det, str->half, str->iwk);
  const double negative = str->det[3], zero = str->det[4];
  run.solver = Solver::indefinite_factor;
  if (negative == 0.0 && zero == 0.0) return true;
  *shift = run.rmin;
  if (zero != 0.0) return false;
  str->null = 1;
  const double tolerance = std::cbrt(EPS);
  copy_with_ridge(str, run);
  const double added =
      zmchol(run.order, str->ipiv, tolerance, tolerance, str->half, nullptr, str->work);
  run.solver = Solver::pivoted_factor;
  return add_to_ridge(str, std::max(added, run.rmin));
}

// False when no ridge in range makes the matrix positive definite.
static bool factor(MINSTR* str, NewtonRun& run) {
  static constexpr auto BY_FORM = [](Form form) {
    return form == Form::diagonal ? factor_diagonal
           : form == Form::sparse ? factor_sparse
                                  : factor_packed;
  };
  str->null = 0;
  run.solver = Solver::steepest_descent;
  if (!run.newton_direction) return true;
  const auto factor_once = BY_FORM(form_of(str));
  for (int failures = 0;; ++failures) {
    double shift = 0.0;
    if (factor_once(str, run, &shift)) return str->ridg < RIDGE_CEILING;
    if (!shift_after_failure(str, run, shift, failures)) return false;
  }
}

// ---- Direction ----------------------------------------------------------------------------------

// Reduced step in spro, step in sdir, slope in gs and pred.
static void make_direction(MINSTR* str, NewtonRun& run) {
  const long order = run.order;
  std::copy_n(str->gold, order, str->spro);
  switch (run.solver) {
    case Solver::steepest_descent:
      break;
    case Solver::diagonal:
      chsold(order, str->half, str->spro);
      break;
    case Solver::indefinite_factor:
      zuduso2(order, 1, order, str->sing, str->half, str->spro, str->iwk);
      break;
    case Solver::cholesky_factor:
      znlpsdi(str, 1, 0, str->bounds != 0 ? SPARSE_FREE : SPARSE, order, str->spro, str->gold,
              str->half);
      break;
    case Solver::pivoted_factor:
      znlpsdi(str, 1, 1, CHOLESKY, order, str->spro, str->gold, str->half);
      break;
  }
  if (str->hesc != 0) znlpscd(str, str->spro);
  if (order == 0) vzfdl(0.0, str->sdir, str->nvar);
  znlpvex(str, str->spro, str->sdir);
  run.gs = znlpgs(str, str->spro, str->gpro, str->sdir, str->grad);
  str->pred = -run.gs;
}

// Factors, and raises the ridge until the step leads down; when it is out of range, steepest
// descent. False: not even that is a direction.
static bool find_direction(MINSTR* str, NewtonRun& run) {
  if (!factor(str, run)) return false;
  for (;;) {
    make_direction(str, run);
    const bool empty = !(zvenorm(str->nvar, 1, str->sdir) > TINY);
    if (!empty && run.gs < -TINY) return true;
    if (!run.newton_direction || (empty && run.norm <= SMALLEST_TOLERANCE)) return false;
    if (raise_ridge(str, run)) {
      if (!factor(str, run)) return false;
    } else {
      run.newton_direction = false;
      run.solver = Solver::steepest_descent;
    }
  }
}

// A trial never starts more than ten times the size of x away.
static void shorten_long_step(MINSTR* str, const NewtonRun& run) {
  static constexpr double LONG = 10.0;
  const double size = std::max(zvenorm(str->nvar, 1, str->x), 1.0);
  const double length = zvenorm(str->nvar, 1, str->sdir);
  if (!(size < length / LONG)) return;
  zvscl11(str->nvar, str->sdir, LONG * size / length);
  zvscl11(run.order, str->spro, LONG * size / length);
}

// ---- Steps of one iteration ---------------------------------------------------------------------

// A constraint that all but forbids the Newton step: the step is turned away from it; where that
// does not help either, a restart takes steepest descent.
static Next limit_step(MINSTR* str, NewtonRun& run) {
  static constexpr double CUT_TO_NOTHING = 0.001;
  static constexpr int TO_STEEPEST_DESCENT = 1;
  limit_search(str);
  if (!has_constraints(str) || !run.newton_direction || str->stub > CUT_TO_NOTHING) {
    return Next::go_on;
  }
  const int turned = znlpprj(str);
  if (turned != TO_STEEPEST_DESCENT && str->stub <= DIAGONAL_PIVOT_FLOOR) {
    return_to_xold(str);
    run.newton_direction = false;
    return Next::restart;
  }
  if (turned != 0) {
    run.gs = znlpgs(str, str->spro, str->gpro, str->sdir, str->grad);
    str->pred = -run.gs;
  }
  return Next::go_on;
}

// The line search of the run. Under differences slopes that stay flat say little: every sixth such
// search compares values alone.
static Next search(MINSTR* str, NewtonRun& run) {
  static constexpr double FLAT_SLOPE = -1e-6;
  static constexpr int MOST_FLAT = 6;
  Callback method = str->linse;
  if (str->fidi != 0 && run.gs > FLAT_SLOPE && ++run.flat_searches == MOST_FLAT) {
    run.flat_searches = 0;
    method = znlpls8;
  }
  std::copy_n(str->grad, str->nvar, str->gold);
  // A Newton step has a natural length: the first trial is the full step, unless the user damps it.
  // The estimate from the last decrease, which serves directions without a length, would begin at
  // up to ten Newton steps near a solution and cost the quadratic convergence.
  const double damp = str->damp;
  if (wzmis(damp) && run.newton_direction) str->damp = HUGE_VALUE;
  const bool found = search_along(str, method);
  str->damp = damp;
  if (found) return Next::go_on;
  run.ij = NO_PROGRESS;
  return Next::finish;
}

static Next accept_step(MINSTR* str, NewtonRun& run) {
  str->rhor = str->dfes < EPS || str->pred <= TINY ? 1.0 : str->dfes / str->pred;
  if (const Next next = keep_feasible(str, &run.ij); next != Next::go_on) return next;
  if (!run.newton_direction) str->ridg = 0.0;
  run.newton_direction = true;
  str->nitr += 1.0;
  ++str->itre;
  if (gethes(str, run, 0) != 0 || str->tbig != 0.0) {
    return_to_xold(str);
    run.ij = NO_PROGRESS;
    return Next::finish;
  }
  run.ij = str->uster(str, TEST_ITERATION);
  // Deliberately no restart from here: an overruled stop is handed back as it is.
  return run.ij == 0 ? Next::go_on : Next::leave;
}

// A good model lowers the ridge, a bad one raises it; a change of the working set forgets it. Small
// ridges are dropped at once, and the next first one may then be smaller.
static Next update_ridge(MINSTR* str, NewtonRun& run, double norm_before) {
  if (str->chac != 0) {
    str->ridg = 0.0;
  } else if (str->rhor < 0.1) {
    str->ridg = str->ridg == 0.0 ? run.rmin : 2.0 * str->ridg;
    if (str->rhor < 0.001) str->ridg *= 2.0;
    if (!(str->ridg < RIDGE_CEILING)) {
      run.ij = NO_PROGRESS;
      return Next::leave;
    }
  } else if (str->rhor > 0.5 && str->ridg > 0.0) {
    static constexpr double SHARE_OF_GRADIENT = 1e-5;
    str->ridg *= 0.5;
    if (str->rhor > 0.7) str->ridg *= 0.5;
    if (str->rhor > 0.9) str->ridg *= 0.2;
    if (str->ridg < std::min(run.rmin, SHARE_OF_GRADIENT * norm_before)) {
      str->ridg = 0.0;
      if (run.rmin > LEAST_RMIN) run.rmin *= 0.1;
    }
  }
  return Next::go_on;
}

static Next one_iteration(MINSTR* str, NewtonRun& run) {
  start_iteration(str);
  const double norm = run.norm;
  // Without a gradient only a ridge makes the direction of a singular Hessian a definite one.
  if (run.norm <= NO_GRADIENT && str->ridg == 0.0) str->ridg = run.rmin;
  if (!find_direction(str, run)) {
    run.ij = NO_PROGRESS;
    return Next::finish;
  }
  shorten_long_step(str, run);
  Next next = limit_step(str, run);
  if (next == Next::go_on) next = search(str, run);
  if (next == Next::go_on) next = accept_step(str, run);
  if (next == Next::go_on) next = update_ridge(str, run, norm);
  return next;
}

// ---- The technique ------------------------------------------------------------------------------

static Next load_start(MINSTR* str, NewtonRun& run) {
  open_restart(str);
  str->ridg = 0.0;
  const int loaded = gethes(str, run, 1);
  if (loaded != 0 || str->tbig != 0.0) {
    run.ij = loaded != 0 ? loaded : -1;
    return Next::leave;
  }
  if (form_of(str) == Form::sparse) {
    run.rmin = FIRST_RIDGE * std::max(EPS, zvenorm(str->shes.mxja, 1, str->hess));
  }
  return Next::go_on;
}

static int end_stage(MINSTR* str, NewtonRun& run) {
  return finish_run(str, run.ij, [](MINSTR* s) {
    NewtonRun last;
    return gethes(s, last, 1);
  });
}

int znlpnra(MINSTR* str) {
  open_run(str);
  str->stub = HUGE_VALUE;
  str->nhes = str->nlis = 0;
  str->spro = str->wrk2;
  NewtonRun run;
  return technique_loop<NewtonRun>(str, run, {load_start, one_iteration, end_stage});
}

}  // namespace tqnlp
