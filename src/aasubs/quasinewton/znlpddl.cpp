// znlpddl: DouBLe DOGleg (DBLDOG), technique 9, a trust-region method on a quasi-Newton factor.
//
// Model      m(s) = f + g's + s'R'R s / 2 in the free subspace of the active constraints, minimized
//            along the path x - Cauchy point - relaxed Newton point - Newton point, whose scaled
//            length |D s| grows while m falls; the steps are judged by assess, as in TRUREG
// Reference  Dennis and Mei (1979), J. Optim. Theory Appl. 28; Dennis, Gay and Welsch (1981), ACM
//            Trans. Math. Software 7; Gay (1983), same journal 9
// Reads      tupd (updat), hesc, load, nres, salf, fsav, ipre, bounds, lincon
// Writes     x, crit, grad, gmax, pred, delt, lamb, ridg, alfa, stub, dfes, dsca, hess (the
// factor),
//            chac, null, counters
// Work       wrk2 = Newton step (n) | D^-2 g (n) | reduced step (n) | predicted gradient (n) |
//            saved point (n) | its step (n); the first three also serve the update, and all but the
//            last three the gradient tests. xold, gold receive the (reduced) differences of x and
//            g once an iteration is over
// Ends       codes of uster; -3, -4 an evaluation failed; -5 no progress; -6 feasibility lost
//
//   1  load derivatives, the working set and the factor at the start or restart point
//   2  the step of the model within the radius, cut at linear constraints
//   3  judge the trial: another radius, the saved step, or accept
//   4  accept: feasibility, gradient and working set at the new point, termination test
//   5  gradient tests of the radius, update of the factor, the scale
#include "aasubs/quasinewton/znlpddl.h"

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpba1.h"
#include "aasubs/loop/loads.h"
#include "aasubs/loop/secant_load.h"
#include "aasubs/loop/technique_loop.h"
#include "kernels/dense.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr int FACTOR = 2;  // LL', L = R'
static constexpr int UPDATE_FACTOR = 3;
static constexpr int REVISE_FACTOR = 1;

static constexpr double FIRST_RADIUS = 1.0;
static constexpr double AFTER_FAILURE = 0.1;     // what the radius of a trial that failed is left
static constexpr double SMALLEST_SHARE = 1e-10;  // of the radius at the head of the iteration
// Retries end by themselves; the bound is for values that are no numbers.
static constexpr int MOST_TRIALS = 1000;

struct DoglegRun {
  DGWSTR d{};
  RestartGuard guard;
  int load = 0;        // nonzero: the user's Hessian starts the factor
  int ij = 0;          // code in hand
  double first = 0.0;  // t0: first radius of this iteration
};

static double* newton_step(const MINSTR* str) { return str->wrk2; }
static double* scaled_gradient(const MINSTR* str) { return str->wrk2 + str->nvar; }
static double* reduced_step(const MINSTR* str) { return str->wrk2 + 2 * str->nvar; }
static double* predicted_gradient(const MINSTR* str) { return str->wrk2 + 3 * str->nvar; }

// ---- The model and its step ---------------------------------------------------------------------

static void reduced_gradient(MINSTR* str, double* g) {
  if (str->lincon != 0) {
    std::copy_n(str->gpro, reduced_dimension(str), g);
  } else {
    znlpvre(str, str->grad, g);
  }
}

// Length of the reduced gradient in the scaled space.
static double gradient_length(MINSTR* str) {
  const long order = reduced_dimension(str);
  reduced_gradient(str, newton_step(str));
  for (long k = 0; k < order; ++k) newton_step(str)[k] /= component_scale(str, k);
  return zvenorm(order, 1, newton_step(str));
}

bool make_dogleg_model(DGWSTR* d) {
  MINSTR* str = d->minstr;
  const long order = reduced_dimension(str);
  double* newton = newton_step(str);
  double* gradient = scaled_gradient(str);
  d->dgnm = gradient_length(str);
  for (long k = 0; k < order; ++k) gradient[k] = newton[k] / component_scale(str, k);
  std::copy_n(gradient, order, str->work);
  znlpumu(str, FACTOR, order, str->hess, str->work);
  d->gthg = zvenorm(order, 1, str->work);

  reduced_gradient(str, newton);
  if (znlpilm(str, FACTOR, order, str->hess, newton) != 0) return false;
  str->pred = d->ghinvg = dotprd(order, newton, newton);
  d->nred = d->ghinvg / 2.0;
  if (znlpium(str, FACTOR, order, str->hess, newton) != 0) return false;
  for (long k = 0; k < order; ++k) str->work[k] = component_scale(str, k) * newton[k];
  d->dst0 = zvenorm(order, 1, str->work);
  return true;
}

// The step from the Cauchy point (t = 0) towards the relaxed Newton point (t = 1) that ends on the
// boundary. All products are divided by the gradient's length, which keeps them in range.
static void step_between(DGWSTR* d, double cfact, double cnorm, double relax) {
  MINSTR* str = d->minstr;
  const double slope = d->ghinvg;
  const double cross = cfact * relax * slope / d->dgnm;
  const double beyond_cauchy = (str->delt / d->dgnm) * str->delt - cnorm * cfact;
  const double c = cross - cnorm * cfact;
  const double relaxed = d->dst0 * relax;
  const double u = relaxed * (relaxed / d->dgnm) - (cross + c);
  const double divisor = c + std::sqrt(std::max(0.0, u * beyond_cauchy + c * c));
  // Rounding leaves nothing to divide by where both points are the same.
  const double t = divisor > 0.0 ? std::clamp(beyond_cauchy / divisor, 0.0, 1.0) : 0.0;
  str->lamb = 2.0 - t;
  d->gfac = cfact * (t - 1.0);
  d->nfac = -relax * t;
  d->gtst = d->gfac * d->dgnm * d->dgnm + d->nfac * slope;
  str->pred =
      -(slope * d->nfac * (d->nfac / 2.0 + 1.0) + d->gfac * d->dgnm * (d->nfac + 1.0) * d->dgnm +
        d->gthg * d->gfac * d->gthg * d->gfac / 2.0);
}

// Coordinates of the step, and what the model says of it.
static int choose_step(DGWSTR* d) {
  static constexpr double BIAS =
      0.8;  // how far the Newton step is relaxed towards the Cauchy point
  static constexpr double NEGLIGIBLE = 1000.0 * TINY;
  MINSTR* str = d->minstr;
  const double slope = d->ghinvg;
  d->gfac = d->nfac = 0.0;
  const double r = d->dst0 > 0.0 ? str->delt / d->dst0 : 1.0;
  if (r >= 1.0) {
    str->lamb = 0.0;
    d->nfac = -1.0;
    d->dstn = d->dst0;
    d->gtst = -slope;
    str->pred = slope / 2.0;
    return NEWTON_STEP;
  }
  d->dstn = str->delt;
  const double cfact = (d->dgnm / d->gthg) * (d->dgnm / d->gthg);
  const double cnorm = d->dgnm * cfact;
  const double relax = 1.0 - BIAS * (1.0 - d->dgnm * (cnorm / slope));
  if (r >= relax) {
    str->lamb = 1.0 - (r - relax) / (1.0 - relax);
    d->nfac = -r;
    d->gtst = -r * slope;
    str->pred = r * slope * (1.0 - r / 2.0);
    return RELAXED_NEWTON_STEP;
  }
  if (cnorm >= str->delt && str->delt > NEGLIGIBLE * cnorm) {
    const double bend = d->gthg / d->dgnm;
    str->lamb = cnorm / str->delt + 1.0;
    d->gfac = -str->delt / d->dgnm;
    d->gtst = -str->delt * d->dgnm;
    str->pred = str->delt * (d->dgnm - bend * bend * str->delt / 2.0);
    return CAUCHY_STEP;
  }
  step_between(d, cfact, cnorm, relax);
  return BETWEEN_STEP;
}

int dbldog(DGWSTR* d) {
  const MINSTR* str = d->minstr;
  const int kind = choose_step(d);
  double* step = reduced_step(str);
  for (long k = 0; k < reduced_dimension(str); ++k) {
    step[k] = d->nfac * newton_step(str)[k];
    if (d->gfac != 0.0) step[k] += d->gfac * scaled_gradient(str)[k];
  }
  return kind;
}

// ---- Derivatives --------------------------------------------------------------------------------

// Derivatives, working set and factor at x. job 1: at a start or restart, everything afresh; job 0:
// after a step. Returns 0, -1 function, -2 derivatives, -5 factor, -6 no feasible point.
static int actcon(MINSTR* str, int job, DoglegRun& run) {
  if (job == 1) {
    if (const int code = secant_load(str, run.load); code != 0) return code;
    vzfdl(1.0, str->dsca, str->nvar);
    if (!secant_start_matrix(str, FACTOR, str->hesc, &run.load)) return NO_PROGRESS;
    str->delt = FIRST_RADIUS;
  } else {
    if (!refresh_saved_results(str)) return -1;
    if (!evaluate_gradient(str)) return -2;
    revise_working_set(str, REVISE_FACTOR, false, str->hess);
  }
  secant_measure(str);
  run.d.dgnm = reduced_dimension(str) > 0 ? gradient_length(str) : 0.0;
  return 0;
}

// The scale follows the diagonal of the factor by the rule hesc; afresh after a change of the
// working set. Deliberately the roots are of the factor's diagonal, which is itself a root of the
// curvature: the trust region evens out the sizes of the parameters by half.
static void update_scale(MINSTR* str) {
  static constexpr double SMALLEST = 0.001;
  static constexpr double MEMORY = 0.6;
  const bool by_parameter = str->lincon == 0 && str->bounds != 0;
  const bool fresh = str->chac != 0 || static_cast<double>(str->itre) == str->nres;
  for (long k = 0; k < reduced_dimension(str); ++k) {
    const double t = std::max(std::sqrt(std::fabs(str->hess[zisub(k, k)])), SMALLEST);
    double& scale = str->dsca[by_parameter ? str->ifxr[k] : k];
    if (str->hesc == 0) {
      scale = 1.0;
    } else if (fresh || str->hesc == 3) {
      scale = t;
    } else {
      scale = std::max(t, str->hesc == 2 ? MEMORY * scale : scale);
    }
  }
}

// ---- Steps of one iteration ---------------------------------------------------------------------

// Another start at x with a fresh factor, if a step was made since the last one; otherwise nothing
// would be other than it was, and the run ends with code.
static Next start_over(MINSTR* str, DoglegRun& run, int code) {
  if (str->itre > 0) return Next::restart;
  run.ij = code;
  return Next::finish;
}

static Next start_over_without_hessian(MINSTR* str, DoglegRun& run) {
  if (str->itre > 0) run.load = 0;
  return start_over(str, run, NO_PROGRESS);
}

// A smaller radius, false when it is next to nothing: x is xold again.
static bool shrink_radius(MINSTR* str, DoglegRun& run) {
  return_to_xold(str);
  str->delt *= AFTER_FAILURE;
  return str->delt >= SMALLEST_SHARE * run.first;
}

static Next retry_failed_trial(MINSTR* str, DoglegRun& run) {
  if (shrink_radius(str, run)) return Next::solve_again;
  return start_over(str, run, FUNCTION_FAILED);
}

// Cuts the step at the first linear constraint or bound that blocks it.
static Next limit_step(MINSTR* str, DoglegRun& run) {
  static constexpr double BLOCKED = 1e-06;
  long blocking = -1;
  znlpstl(str, 0, 0, 0, str->xold, str->sdir, &blocking, nullptr);
  if (str->stub > BLOCKED) {
    cut_step(&run.d);
    return Next::go_on;
  }
  if (shrink_radius(str, run)) return Next::solve_again;
  return start_over_without_hessian(str, run);
}

// Retries without end: the steps are rounding, or what wants to grow is held by a constraint.
static bool retries_are_idle(const DGWSTR& d) {
  static constexpr long MOST_DECREASES = 20;
  static constexpr double SHORT_CUT = 0.001;
  if (d.rldx <= EPS && d.rinc < -MOST_DECREASES) return true;
  return d.irc == RETRY && d.minstr->stub <= SHORT_CUT && d.minstr->itre > 0;
}

static Next judge(MINSTR* str, DoglegRun& run) {
  const Next next = judge_trial(&run.d, HUGE_VALUE, retries_are_idle, &run.ij);
  return next == Next::restart ? start_over_without_hessian(str, run) : next;
}

// Makes the step of the present radius and the trial point, and judges it.
static Next try_radius(MINSTR* str, DoglegRun& run) {
  DGWSTR& d = run.d;
  dbldog(&d);
  // The singular test asks for the model's value alone.
  if (d.irc == SINGULAR_STEP) return judge(str, run);
  znlpsp2(str, 0, reduced_step(str), str->sdir);
  str->stub = 1.0;
  if (str->lincon != 0) {
    if (const Next next = limit_step(str, run); next != Next::go_on) return next;
  }
  if (!std::isfinite(largest_or_nan(str->nvar, str->sdir))) return retry_failed_trial(str, run);
  if (!step_moves(str, str->sdir)) {
    d.irc = STEP_CONVERGED;
    return end_of_model(&run.d, &run.ij);
  }
  if (trial_is_wanted(&d)) {
    zvaxpy(str->x, str->sdir, str->xold, str->nvar, str->stub);
    if (!evaluate_objective(str)) return retry_failed_trial(str, run);
  }
  return judge(str, run);
}

// ---- Acceptance ---------------------------------------------------------------------------------

// The gradient that the model predicts at x, over all parameters.
static void predict_gradient(MINSTR* str) {
  const long order = reduced_dimension(str);
  double* change = newton_step(str);
  double* predicted = reduced_step(str);
  zvaxpy(change, str->xold, str->x, str->nvar, -1.0);
  znlpvre(str, change, predicted);
  znlpmmu(str, FACTOR, order, str->hess, predicted);
  reduced_gradient(str, change);
  for (long k = 0; k < order; ++k) predicted[k] += change[k];
  znlpvex(str, predicted, predicted_gradient(str));
}

// The gradient tests at the new point, where the working set may be another one.
static void test_gradient(MINSTR* str, DGWSTR& d) {
  const long order = reduced_dimension(str);
  double* difference = newton_step(str);
  double* mismatch = reduced_step(str);
  zvaxpy(difference, predicted_gradient(str), str->grad, str->nvar, -1.0);
  znlpvre(str, difference, mismatch);
  for (long k = 0; k < order; ++k) mismatch[k] /= component_scale(str, k);
  zvaxpy(difference, str->xold, str->x, str->nvar, -1.0);  // the step, as a constraint left it
  const double slope = dotprd(str->nvar, str->grad, difference);
  apply_gradient_tests(&d, zvenorm(order, 1, mismatch), d.dgnm, slope);
}

// Update and scale of the factor. A pair that is refused leaves the factor as it is, and null = 1
// for the report; after a change of the working set the differences would be in another basis.
static Next update_factor(MINSTR* str) {
  static constexpr int NO_SCALING = 0;
  str->null = 0;
  if (str->chac == 0) {
    secant_differences(str);
    const int code = str->updat(str, UPDATE_FACTOR, NO_SCALING, str->xold, str->gold, str->hess,
                                newton_step(str), scaled_gradient(str), reduced_step(str));
    if (code < 0) return Next::restart;
    str->null = code > 0 ? 1 : 0;
  }
  update_scale(str);
  str->ridg = 0.0;
  if (static_cast<double>(str->itre) <= str->nres) return Next::go_on;
  str->salf = 1.0;
  return Next::restart;
}

// Takes the step: feasibility, derivatives, termination test, radius and factor of the next
// iteration.
static Next accept_step(MINSTR* str, DoglegRun& run) {
  DGWSTR& d = run.d;
  const bool by_gradient = d.irc == ACCEPT_TEST;
  restore_promise(&d);
  str->chac = 0;
  if (const Next next = keep_feasible(str, &run.ij); next != Next::go_on) return next;
  // What the user's code saved must belong to x.
  if (str->nfct != d.nfgc && !evaluate_objective(str)) {
    forget_verdict(&d);
    return retry_failed_trial(str, run);
  }
  d.nfgc = str->nfct;
  if (by_gradient) predict_gradient(str);
  str->nitr += 1.0;
  ++str->itre;
  const int loaded = actcon(str, 0, run);
  if (loaded < 0 || str->tbig != 0.0) {
    return_to_xold(str);
    run.ij = loaded == -6 ? -6 : -4;
    return Next::finish;
  }
  run.ij = str->uster(str, TEST_ITERATION);
  if (run.ij == 0 && d.cnvcod != 0) run.ij = str->uster(str, NO_PROGRESS);
  if (run.ij != 0) return Next::stop;
  if (by_gradient) test_gradient(str, d);
  return update_factor(str);
}

static Next one_iteration(MINSTR* str, DoglegRun& run) {
  if (str->itre > 0) str->delt = run.d.radf * run.d.dstn;
  start_iteration(str);
  std::copy_n(str->grad, str->nvar, str->gold);
  if (reduced_dimension(str) < 1) return end_at_vertex(str, &run.ij);
  open_step_search(&run.d);
  run.first = str->delt;
  if (!make_dogleg_model(&run.d)) return start_over_without_hessian(str, run);
  Next next = Next::solve_again;
  for (int trial = 0; next == Next::solve_again; ++trial) {
    if (trial == MOST_TRIALS) {
      return_to_xold(str);
      run.ij = NO_PROGRESS;
      return Next::finish;
    }
    next = try_radius(str, run);
    if (next == Next::go_on) next = accept_step(str, run);
  }
  return next;
}

// ---- The technique ------------------------------------------------------------------------------

// Start or restart at x.
static Next load_start(MINSTR* str, DoglegRun& run) {
  open_restart(str);
  run.ij = NO_PROGRESS;
  if (!restart_makes_progress(str, run.guard)) return Next::finish;
  const int loaded = actcon(str, 1, run);
  if (loaded < 0 || str->tbig != 0.0) {
    run.ij = loaded == -6 || loaded == NO_PROGRESS ? loaded : -4;
    return Next::finish;
  }
  open_assessment(&run.d);
  if (str->nitr == 0.0) str->delt *= str->salf;
  return Next::go_on;
}

static int end_stage(MINSTR* str, DoglegRun& run) {
  const int code = finish_run(str, run.ij, secant_load_final);
  // A stop that is overruled again and again without progress stands.
  return code == STOP_OVERRULED && run.guard.exhausted() ? NO_PROGRESS : code;
}

int znlpddl(MINSTR* str) {
  open_run(str);
  str->nlis = str->nhup = str->ngrd = 0;
  str->ridg = str->lamb = 0.0;
  str->pred = HUGE_VALUE;
  secant_settle_restarts(str);
  DoglegRun run;
  run.load = str->load != 0 ? 1 : 0;
  run.d.minstr = str;
  run.d.dogleg = true;
  run.d.xsav = str->wrk2 + 4 * str->nvar;
  run.d.ssav = run.d.xsav + str->nvar;
  return technique_loop<DoglegRun>(str, run, {load_start, one_iteration, end_stage});
}

}  // namespace tqnlp
