// znlptre: TRust REgion (TRUREG), technique 2.
//
// Model      m(s) = f + g's + s'H s / 2 over |D s| <= delt in the free subspace of the active
//            constraints, minimized almost exactly whatever the signs of the curvatures (gqtstp);
//            the steps are judged by assess, which lengthens and shortens them from one point
//            until they are about right, and sees when the model has nothing more to give
// Reference  More and Sorensen (1983), SIAM J. Sci. Stat. Comput. 4; Gay (1981), same journal 2;
//            Dennis, Gay and Welsch (1981), ACM Trans. Math. Software 7
// Reads      hfrm (2 diagonal, else packed), hesc, fidi, fdig, sing, salf, ssin, fsav, lsqu, ulm2,
//            ipre, bounds, lincon
// Writes     x, crit, grad, gmax, gcri, pred, delt, lamb, alfa, stub, dfes, dsca, chac, null,
//            counters
// Work       wrk2 = diagonal of H (n) | scaled step (n) | vector (n) | predicted gradient (n)
//            | saved point (n) | its step (n); half = factor
//            gold = negative scaled reduced gradient; work = reduced step;
//            hess (hpro with linear constraints) = scaled reduced Hessian
// Ends       codes of uster; -1 no evaluable step, -4 derivatives failed, -5 no progress, -6
//            feasibility lost
//
//   1  load derivatives and the working set at the start or restart point
//   2  the step of the model within the radius, cut at linear constraints
//   3  judge the trial: another radius, the saved step, or accept
//   4  accept: feasibility, derivatives at the new point, termination test
//   5  the radius of the next iteration
#include "aasubs/newton/znlptre.h"

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpba1.h"
#include "aasubs/loop/loads.h"
#include "aasubs/loop/newton_load.h"
#include "aasubs/loop/trust_region.h"
#include "aasubs/newton/gqtstp.h"
#include "kernels/dense.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr double FIRST_RADIUS = 1.0;
static constexpr double AFTER_FAILURE = 10.0;  // what a failed evaluation divides the radius by
// Retries shrink a radius to nothing within a few hundred trials; the bound is for values that are
// no numbers.
static constexpr int MOST_TRIALS = 1000;

struct TruregRun {
  DGWSTR d{};
  RestartGuard guard;
  bool started = false;      // the first load is over
  bool moved = false;        // a step was taken since the last start
  bool user_hessian = true;  // load: false takes the identity for one restart
  int ij = 0;                // code in hand
  double limit = 0.0;        // smax: largest radius of this iteration
  double first = 0.0;        // t0: its first radius
};

static double* predicted_gradient(const MINSTR* str) { return str->wrk2 + 3 * str->nvar; }

// ---- Derivatives --------------------------------------------------------------------------------

// The reduced problem from gradient and Hessian at x; *norm: length of the scaled reduced gradient.
static void reduce_problem(MINSTR* str, bool user_hessian, bool rescale, double* norm) {
  newton_project_clean(str, str->hfrm == 2 ? 2 : 0, user_hessian, rescale, norm);
}

// Loads derivatives at x and reduces the problem; job and result as for newton_load.
static int gethes(MINSTR* str, int job, bool user_hessian, double* norm) {
  const int code = newton_load(str, job, user_hessian);
  if (code == 0) reduce_problem(str, user_hessian, true, norm);
  return code;
}

// Length of a step over all parameters, reduced and scaled. Uses work.
static double scaled_length(MINSTR* str, const double* step) {
  znlpvre(str, step, str->work);
  const long order = reduced_dimension(str);
  for (long k = 0; k < order && str->hesc != 0; ++k) str->work[k] *= component_scale(str, k);
  return zvenorm(order, 1, str->work);
}

static double first_radius(MINSTR* str) {
  return str->lsqu != 0 ? std::max(FIRST_RADIUS, scaled_length(str, str->x)) : FIRST_RADIUS;
}

// ---- Steps of one iteration ---------------------------------------------------------------------

// A smaller radius after a failure at another point. What then fails at every radius ends the run
// with code, or starts over from the last point.
static Next shrink_radius(MINSTR* str, TruregRun& run, int code) {
  return_to_xold(str);
  run.limit = str->delt = str->delt / AFTER_FAILURE;
  if (str->delt > EPS * run.first) return Next::solve_again;
  if (run.moved) return Next::restart;
  run.ij = code;
  return Next::finish;
}

// Cuts the step at the first linear constraint or bound that blocks it. The trial is judged by what
// the model promises for the cut step.
static Next limit_step(MINSTR* str, TruregRun& run) {
  zero_negligible_components(str, str->sdir);
  long blocking = -1;
  znlpstl(str, 0, 0, 0, str->xold, str->sdir, &blocking, nullptr);
  if (str->stub > HUNDRED_EPS || !run.user_hessian) {
    if (str->stub <= TINY) {
      return_to_xold(str);
      run.ij = NO_PROGRESS;
      return Next::leave;
    }
    cut_step(&run.d);
    return Next::go_on;
  }
  if (run.d.irc == ACCEPT && newton_readmit(str)) {
    reduce_problem(str, run.user_hessian, false, &run.d.dgnm);
    open_step_search(&run.d);
    return Next::solve_again;
  }
  str->delt /= AFTER_FAILURE;
  if (str->delt > EPS * run.first) return Next::solve_again;
  return_to_xold(str);
  run.user_hessian = false;
  return Next::restart;
}

// Makes the step of the present radius and the trial point, and judges it.
static Next try_radius(MINSTR* str, TruregRun& run) {
  DGWSTR& d = run.d;
  gqtstp(&d);
  // The singular test asks for the model's value alone.
  if (d.irc == SINGULAR_STEP) return judge_trial(&d, run.limit, nullptr, &run.ij);
  std::copy_n(str->sdir, reduced_dimension(str), str->work);
  d.dpnm = znlpsp2(str, 1, str->work, str->sdir);
  str->stub = 1.0;
  if (str->lincon != 0) {
    if (const Next next = limit_step(str, run); next != Next::go_on) return next;
  }
  if (!step_moves(str, str->sdir)) {
    d.irc = STEP_CONVERGED;
    return end_of_model(&run.d, &run.ij);
  }
  if (trial_is_wanted(&d)) {
    zvaxpy(str->x, str->sdir, str->xold, str->nvar, str->stub);
    if (!evaluate_objective(str)) return shrink_radius(str, run, -1);
  }
  return judge_trial(&d, run.limit, nullptr, &run.ij);
}

// ---- Acceptance ---------------------------------------------------------------------------------

// The gradient that the model predicts at x, over all parameters.
static void predict_gradient(MINSTR* str, DGWSTR& d) {
  const long order = reduced_dimension(str);
  double* step = str->wrk2 + 2 * str->nvar;
  double* change = d.ssav;  // the saved step has served
  const double* matrix = trust_region_matrix(str);
  zvaxpy(change, str->xold, str->x, str->nvar, -1.0);
  znlpvre(str, change, step);
  for (long k = 0; k < order && str->hesc != 0; ++k) step[k] *= component_scale(str, k);
  if (trust_region_form(str) == 3) {
    for (long k = 0; k < order; ++k) change[k] = matrix[k] * step[k];
  } else {
    znlpsmv(order, nullptr, matrix, step, change);
  }
  for (long k = 0; k < order; ++k) {
    change[k] -= str->gold[k];
    if (str->hesc != 0) change[k] *= component_scale(str, k);
  }
  znlpvex(str, change, predicted_gradient(str));
}

// The gradient tests at the new point, where the working set may be another one.
static void test_gradient(MINSTR* str, DGWSTR& d, double length_at_xold) {
  const long order = reduced_dimension(str);
  double* mismatch = str->work;
  znlpvre(str, predicted_gradient(str), mismatch);
  for (long k = 0; k < order; ++k) {
    if (str->hesc != 0) mismatch[k] /= component_scale(str, k);
    mismatch[k] += str->gold[k];
  }
  double* step = str->wrk2 + 2 * str->nvar;
  zvaxpy(step, str->xold, str->x, str->nvar, -1.0);
  const double slope = dotprd(str->nvar, str->grad, step);
  apply_gradient_tests(&d, zvenorm(order, 1, mismatch), length_at_xold, slope);
}

// Derivatives at the accepted point failed: from xold with a smaller radius. The failed load has
// left parts of its own in gradient and matrix; the working set and the scale are still those of
// xold.
static Next retreat_from_bad_derivatives(MINSTR* str, TruregRun& run) {
  DGWSTR& d = run.d;
  forget_verdict(&d);
  const Next next = shrink_radius(str, run, -4);
  const bool user_hessian = run.user_hessian;
  if (next != Next::solve_again) {
    run.user_hessian = true;
    return next;
  }
  if (evaluate_objective(str) && newton_derivatives(str, user_hessian ? 1 : 0) == 0) {
    reduce_problem(str, user_hessian, false, &d.dgnm);
    return Next::solve_again;
  }
  run.user_hessian = true;
  run.ij = -4;
  return Next::finish;
}

// Takes the step: feasibility, derivatives, termination test, radius of the next iteration.
static Next accept_step(MINSTR* str, TruregRun& run) {
  DGWSTR& d = run.d;
  const bool by_gradient = d.irc == ACCEPT_TEST;
  if (by_gradient) predict_gradient(str, d);
  restore_promise(&d);
  str->chac = 0;
  if (const Next next = keep_feasible(str, &run.ij); next != Next::go_on) return next;
  // What the user's code saved must belong to x.
  if (str->nfct != d.nfgc && !evaluate_objective(str)) {
    forget_verdict(&d);
    return shrink_radius(str, run, -1);
  }
  d.nfgc = str->nfct;
  str->nitr += 1.0;
  ++str->itre;
  const double length_at_xold = d.dgnm;
  const int loaded = gethes(str, 0, true, &d.dgnm);
  if (loaded == -6) {
    run.ij = -6;
    return Next::finish;
  }
  if (loaded < 0 || str->tbig != 0.0) return retreat_from_bad_derivatives(str, run);

  run.moved = run.user_hessian = true;
  run.ij = str->uster(str, TEST_ITERATION);
  if (run.ij == 0 && d.cnvcod != 0) run.ij = str->uster(str, NO_PROGRESS);
  if (run.ij != 0) return Next::stop;
  if (by_gradient) test_gradient(str, d, length_at_xold);
  str->delt = next_radius(&d, d.dpnm, run.limit);
  return Next::go_on;
}

static Next one_iteration(MINSTR* str, TruregRun& run) {
  start_iteration(str);
  if (reduced_dimension(str) < 1) return end_at_vertex(str, &run.ij);
  open_step_search(&run.d);
  run.limit = HUGE_VALUE;
  run.first = str->delt;
  Next next = Next::solve_again;
  for (int trial = 0; next == Next::solve_again; ++trial) {
    if (str->delt < ROOT_TINY || trial == MOST_TRIALS) {
      return_to_xold(str);
      run.ij = NO_PROGRESS;
      return Next::leave;
    }
    next = try_radius(str, run);
    if (next == Next::go_on) next = accept_step(str, run);
  }
  return next;
}

// ---- The technique ------------------------------------------------------------------------------

// Start or restart at x.
static Next load_start(MINSTR* str, TruregRun& run) {
  const bool first = !run.started;
  open_restart(str);
  run.moved = false;
  run.started = true;
  const int loaded = gethes(str, 1, run.user_hessian, &run.d.dgnm);
  if (loaded < 0 || str->tbig != 0.0) {
    // What the run ended with before a restart is no code of its end: it may be the 0 of a test
    // that said go on. Only 100, by which the test itself asked for the restart, stands
    // deliberately.
    if (first) {
      run.ij = loaded < 0 ? loaded : -1;
    } else if (run.ij != STOP_OVERRULED) {
      run.ij = loaded == -6 ? -6 : (loaded == -2 ? -4 : FUNCTION_FAILED);
    }
    return Next::leave;
  }
  open_assessment(&run.d);
  if (reduced_dimension(str) > 0) str->delt = first_radius(str);
  if (str->nitr == 0.0) str->delt *= str->salf;
  if (restart_makes_progress(str, run.guard)) return Next::go_on;
  run.ij = NO_PROGRESS;
  return Next::leave;
}

static int end_stage(MINSTR* str, TruregRun& run) {
  return finish_run(str, run.ij, [](MINSTR* s) {
    double norm = 0.0;
    return gethes(s, 1, true, &norm);
  });
}

int znlptre(MINSTR* str) {
  open_run(str);
  str->nhes = 0;
  str->lamb = 0.0;
  TruregRun run;
  run.d.minstr = str;
  run.d.dogleg = false;
  run.d.xsav = str->wrk2 + 4 * str->nvar;
  run.d.ssav = run.d.xsav + str->nvar;
  return technique_loop<TruregRun>(str, run, {load_start, one_iteration, end_stage});
}

}  // namespace tqnlp
