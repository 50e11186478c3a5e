// znlplma: LEVenberg-MARquardt (LEVMAR), technique 8.
//
// Model      |r + J s|^2 over |D s| <= delt in the free subspace of the active constraints, by its
//            normal equations (J'J + lamb D^2) s = -J'r. One Householder tridiagonalization an
//            iteration makes a further trial of the radius cost O(n) a ridge and O(n^2) for
//            carrying the step back.
// Reference  Levenberg (1944), Marquardt (1963); More (1978), The Levenberg-Marquardt algorithm, in
//            Lecture Notes in Mathematics 630, for the ridge and the judgement of a step; Dennis
//            and Schnabel (1983), section 6.4, for the trial with the double radius and the slope
//            test; Hebden (1973)
// Reads      hfrm (2 diagonal, else packed), hesc, salf, nres, gtol, fsav, lsqu, ulm2, ipre,
//            bounds, lincon
// Writes     x, crit, grad, gmax, gcri, gihg, pred, rhor, delt, lamb, ridg, stub, dfes, dsca, chac,
//            null, counters
// Work       wrk2 (7n), see znlplma_step.h
//            gold = negative scaled reduced gradient in the tridiagonal basis; work = reduced step;
//            hess (hpro with linear constraints) = the orthogonal transformation
// Ends       codes of uster; -3 no evaluable step, -4 derivatives failed, -5 no step, -6
//            feasibility lost
//
//   1  load J'J, gradient and the working set at the start or restart point, reduce J'J
//   2  the step of the model within the radius, cut at linear constraints
//   3  judge the trial: a smaller radius, a trial with the double one, or accept
//   4  accept: feasibility, derivatives at the new point, the radius of the next iteration
//   5  termination test
#include "aasubs/leastsquares/znlplma.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpba1.h"
#include "aasubs/leastsquares/znlplma_step.h"
#include "aasubs/loop/loads.h"
#include "aasubs/loop/newton_load.h"
#include "kernels/dense.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr double LEAST_RADIUS = DIAGONAL_PIVOT_FLOOR;
static constexpr double AFTER_FAILURE = 0.1;    // of the radius, a failed or blocked trial
static constexpr double AFTER_NO_STEP = 0.001;  // of the radius, a model without a step
static constexpr double STEEPEST_FALL = 1e-10;  // of the radius in one iteration
static constexpr double BLOCKED = 1.053671212772351e-08;  // share of a step, root of EPS
// Iterations that take no step, one after the other, at which nothing is left to try.
static constexpr int MOST_IDLE = 60;
// Trials shrink a radius to nothing within two thousand; the bound is for values that are no
// numbers.
static constexpr int MOST_TRIALS = 5000;

// Kind of the next trial (irep).
enum class Trial { first, longer, shorter };

// What the verdict on a trial needs, and the record does not hold.
struct LevmarTrial {
  LevmarStep step;
  double dpnm = 0.0;  // scaled length of the step, cut by constraints
  double gp = 0.0;    // slope along it
  double sq = 0.0;    // sq2: norm of the residuals at the trial
  // Of the record, for a trial that may be taken back.
  double delt = 0.0, lamb = 0.0, stub = 1.0;
  long null = 0;
};

struct LevmarRun {
  RestartGuard guard;
  bool started = false;
  bool user_hessian = true;  // load: false starts from the identity
  int hesc = 0;              // as it was asked for
  int ij = 0;                // code in hand
  double floor = 0.0;        // fnr: relative reductions below it are rounding
  double norm = 0.0;         // dgnm: length of the reduced gradient
  double sq1 = 0.0;          // norm of the residuals at xold
  double first = 0.0;        // t: radius at the head of the iteration
  double cap = HUGE_VALUE;   // of the radius at a restart whose last radius led to a failed load
  Trial kind = Trial::first;
  int ties = 0;      // steps of this iteration, so far, that only the gradient could judge
  bool tie = false;  // the values at xold and the trial are equal to rounding
  long good = 0;     // itgd: good steps in a row
  int idle = 0;      // iterations without a step in a row
  LevmarTrial now;
  LevmarTrial saved;  // the trial that the longer one competes with; its point in wrk2
};

// ---- Derivatives --------------------------------------------------------------------------------

// A radius that has grown: finite, so that it can shrink again.
static double finite_radius(double radius) { return radius < HUGE_VALUE ? radius : HUGE_VALUE; }

// The first radius: long enough for the full step of all but the worst scaled problems.
static double first_radius(MINSTR* str, const LevmarRun& run) {
  const long order = reduced_dimension(str);
  const bool scaled = str->hesc != 0;
  const double* matrix = str->lincon != 0 ? str->hpro : str->hess;
  for (long k = 0; k < order; ++k) {
    const double scale = scaled ? component_scale(str, k) : 1.0;
    const double curvature = matrix[diagonal_route(str) ? k : zisub(k, k)];
    str->work[k] = std::sqrt(std::fabs(curvature)) * str->gold[k] * scale * scale;
  }
  const double length = std::max(zvenorm(order, 1, str->work), 1.0);
  const double radius =
      str->nitr < str->nres ? length * str->salf : std::max(length, 10.0 * str->delt);
  return std::min(finite_radius(radius), run.cap);
}

// The projected and scaled matrix in tridiagonal form in wrk2, the gradient in its basis in gold.
// Returns the number of diagonal elements that are not positive.
static int reduce_problem(MINSTR* str, long order) {
  const LevmarWork at = levmar_work(str);
  if (diagonal_route(str)) {
    std::copy_n(str->hess, order, at.d);
    vzfdl(0.0, at.e, order);
  } else {
    double* matrix = str->lincon != 0 ? str->hpro : str->hess;
    ztred3(order, matrix, at.d);
    std::memmove(at.e, at.d + order, static_cast<std::size_t>(order) * sizeof(double));
    ztrapp3(0, order, matrix, str->gold);
  }
  return static_cast<int>(std::count_if(at.d, at.d + order, [](double d) { return !(d > EPS); }));
}

// Projects, scales and reduces; a start makes the first radius on the way. Returns as
// reduce_problem.
static int project_problem(MINSTR* str, Scale scale, LevmarRun& run, bool start = false) {
  const long order = newton_project(str, str->hfrm == 2 ? 2 : 0, scale, &run.norm);
  if (order == 0) return 0;
  if (start) str->delt = first_radius(str, run);
  return reduce_problem(str, order);
}

// Loads derivatives at x and reduces the problem; job 1 at a start or restart, with the first
// radius. Returns -1, -2, -6, else the count of reduce_problem.
static int gethes(MINSTR* str, int job, LevmarRun& run) {
  const int code = newton_load(str, job, run.user_hessian);
  if (code != 0) return code;
  return project_problem(str, Scale::as_counted, run, job == 1);
}

// ---- The trial ----------------------------------------------------------------------------------

static double residual_norm(const MINSTR* str) { return std::sqrt(2.0 * str->crit); }

// Another trial from xold with the radius times share; with a radius of nothing a restart, or after
// the first step since one the end with code.
static Next cut_radius(MINSTR* str, LevmarRun& run, double share, int code) {
  return_to_xold(str);
  run.kind = Trial::shorter;
  str->delt *= share;
  if (str->delt > LEAST_RADIUS) return Next::solve_again;
  run.user_hessian = true;
  if (str->itre > 0) return Next::restart;
  run.ij = code;
  return Next::finish;
}

// A constraint that is not in the working set blocks at once. Where no radius helps, the scale is
// given up, and the next start goes along the gradient.
static Next retreat_from_constraint(MINSTR* str, LevmarRun& run) {
  if (newton_readmit(str)) {
    project_problem(str, Scale::kept, run);
    return Next::solve_again;
  }
  run.kind = Trial::shorter;
  str->delt *= AFTER_FAILURE;
  if (!(str->delt < STEEPEST_FALL * run.first)) return Next::solve_again;
  return_to_xold(str);
  if (str->hesc == 0) {
    run.ij = NO_PROGRESS;
    return Next::finish;
  }
  str->hesc = 0;
  run.user_hessian = false;
  return Next::restart;
}

// The step of the present radius, as far as the constraints allow, in sdir and stub.
static Next make_step(MINSTR* str, LevmarRun& run) {
  LevmarTrial& now = run.now;
  if (getstep(str, run.norm, &now.step) != 0) {
    return cut_radius(str, run, AFTER_NO_STEP, NO_PROGRESS);
  }
  const long order = reduced_dimension(str);
  std::copy_n(str->sdir, order, str->work);
  now.dpnm = znlpsp2(str, 1, str->work, str->sdir);
  now.gp = str->lincon != 0 ? dotprd(order, str->gpro, str->work)
                            : dotprd(str->nvar, str->grad, str->sdir);
  str->stub = 1.0;
  if (str->lincon == 0) return Next::go_on;
  long blocking = -1;
  znlpstl(str, 0, 0, 0, str->xold, str->sdir, &blocking, nullptr);
  if (!(str->stub > BLOCKED)) return retreat_from_constraint(str, run);
  now.dpnm *= str->stub;
  return Next::go_on;
}

static Next evaluate_trial(MINSTR* str, LevmarRun& run) {
  if (!evaluate_objective(str)) return cut_radius(str, run, AFTER_FAILURE, FUNCTION_FAILED);
  run.now.sq = residual_norm(str);
  return Next::go_on;
}

static void save_trial(MINSTR* str, LevmarRun& run) {
  run.saved = run.now;
  run.saved.delt = str->delt;
  run.saved.lamb = str->lamb;
  run.saved.stub = str->stub;
  run.saved.null = str->null;
  std::copy_n(str->x, str->nvar, levmar_work(str).point);
}

// The longer trial lost: the one before it is judged in its place.
static Next take_saved_trial(MINSTR* str, LevmarRun& run) {
  run.now = run.saved;
  str->delt = run.saved.delt;
  str->lamb = run.saved.lamb;
  str->stub = run.saved.stub;
  str->null = run.saved.null;
  std::copy_n(levmar_work(str).point, str->nvar, str->x);
  const Next next = evaluate_trial(str, run);
  run.kind = Trial::shorter;
  return next;
}

// ---- The verdict --------------------------------------------------------------------------------

// A shorter trial. When the steps have shrunk to nothing the iteration ends at xold (go_on).
static Next shrink(MINSTR* str, LevmarRun& run, double share) {
  do {
    str->delt *= share;
    if (!(str->delt > TINY) || !(run.now.dpnm > TINY)) {
      return_to_xold(str);
      return Next::go_on;
    }
  } while (str->delt >= run.now.dpnm);
  run.kind = Trial::shorter;
  return Next::solve_again;
}

// Is the step, which went well, worth a trial with the double radius?
static bool wants_longer_step(const MINSTR* str, const LevmarRun& run) {
  static constexpr double LARGE_DECREASE = 0.1;  // of the objective
  static constexpr double GOOD_SLOPE = 0.75;
  static constexpr double LEAST_RIDGE = 1e-6;
  return run.kind != Trial::shorter && str->rhor > 0.25 &&
         str->dfes >= LARGE_DECREASE * str->cold &&
         run.now.sq - run.sq1 <= GOOD_SLOPE * run.now.gp &&
         str->lamb > std::max(LEAST_RIDGE, 1.1 * str->ridg) && str->stub >= 1.0;
}

// Factor of the radius after a step that is taken.
static double radius_factor(const MINSTR* str, LevmarRun& run) {
  const bool newton_step = str->rhor > 0.25 && str->lamb == 0.0;
  const bool run_of_good_steps = str->rhor > 0.5 && run.good > 2;
  if (!run_of_good_steps && !newton_step && !(str->rhor > 0.75))
    return str->rhor <= 0.1 ? 0.5 : 1.0;
  double factor = 2.0;
  // The first radius is a guess, which the first step may show to be much too small. Deliberately
  // an unscaled length against a scaled one: the factor is cut to what is harmless.
  if (str->nitr == 0.0 && str->salf >= 1.0 && str->rhor > 1.5 &&
      run.now.step.lnwt * ROOT_TINY <= run.now.dpnm) {
    factor = std::clamp(run.now.step.lnwt / run.now.dpnm, 2.0, 10.0);
  }
  if (run_of_good_steps && factor < 3.0) {
    run.good = 0;
    factor = 3.0;
  }
  return factor;
}

// Trials have shrunk to rounding, though the residuals are far from orthogonal to the columns of J:
// the gradient is not that of the objective. (The promise of the Newton step would be no measure:
// it is large, too, where J loses rank at the solution.)
static bool shrunk_in_vain(const MINSTR* str, const LevmarRun& run) {
  static constexpr double FAR = 0.01;  // cosine of an angle
  return run.kind == Trial::shorter && str->lamb > str->ridg && str->gcri > FAR;
}

// The model promises nothing but rounding: the better of trial and xold is the next point.
static Next settle(MINSTR* str, LevmarRun& run) {
  str->rhor = 1.0;
  const bool failed_loads = run.cap < HUGE_VALUE;
  if (failed_loads || shrunk_in_vain(str, run)) {
    return_to_xold(str);
    run.ij = failed_loads ? -4 : NO_PROGRESS;
    return Next::finish;
  }
  if (!(str->crit > str->cold)) return Next::go_on;
  return_to_xold(str);
  str->dfes = 0.0;
  return evaluate_trial(str, run);
}

// Is the change of the objective rounding? So it is for certain at 100 rounding units; and where
// the residuals are small differences of large numbers, so it is as soon as a change that even for
// the Newton step should be tiny does not resemble the promise. Then the gradient has to judge;
// deliberately no shorter trial is made.
static bool change_is_rounding(const MINSTR* str, double actual) {
  static constexpr double TINY_PROMISE = 1e-11;
  if (str->pred <= HUNDRED_EPS && std::fabs(actual) <= HUNDRED_EPS) return true;
  const bool resembles = actual > 0.25 * str->pred && actual < 2.0 * str->pred;
  return !resembles && str->gihg <= TINY_PROMISE * str->cold;
}

// Judges the trial: solve_again with another radius, or go_on with the factor of the radius; 0 when
// the iteration ended without a step.
static Next judge(MINSTR* str, LevmarRun& run, double* factor) {
  static constexpr double FAR_WORSE = 10.0;
  static constexpr double LEAST_RATIO = 1e-4;
  // Deliberately compared with xold, not with the trial before it.
  if (run.kind == Trial::longer && run.now.sq > run.sq1) {
    if (const Next next = take_saved_trial(str, run); next != Next::go_on) return next;
  }
  const LevmarTrial& now = run.now;
  *factor = 0.0;
  str->dfes = str->cold - str->crit;
  if (now.sq >= ROOT_HUGE || now.sq >= FAR_WORSE * run.sq1) return shrink(str, run, 0.1);

  const double q = 1.0 / run.sq1;
  const double a = now.step.yttz * q * (now.step.yttz * q);
  str->pred = str->lamb * (now.dpnm * q) * (now.dpnm * q) + a;
  if (!(str->pred > run.floor)) {
    *factor = 2.0;
    return settle(str, run);
  }
  const double actual = (q * now.sq + 1.0) * (1.0 - q * now.sq);
  if (change_is_rounding(str, actual)) {
    if (shrunk_in_vain(str, run)) return settle(str, run);
    str->rhor = 1.0;
    *factor = 2.0;
    run.tie = true;
    return Next::go_on;
  }
  if (!(now.sq < run.sq1)) {
    return shrink(str, run, std::clamp(-a / (actual - 2.0 * a), 0.1, 0.5));
  }
  str->rhor = actual / str->pred;
  if (!(str->rhor > LEAST_RATIO)) return shrink(str, run, 0.5);
  if (wants_longer_step(str, run)) {
    save_trial(str, run);
    run.kind = Trial::longer;
    str->delt = finite_radius(2.0 * str->delt);
    return Next::solve_again;
  }
  *factor = radius_factor(str, run);
  return Next::go_on;
}

// ---- Acceptance ---------------------------------------------------------------------------------

// Slope at x along the step from xold.
static double slope_along_step(const MINSTR* str) {
  double slope = 0.0;
  for (long j = 0; j < str->nvar; ++j) slope += str->grad[j] * (str->x[j] - str->xold[j]);
  return slope;
}

// Loads a point whose value is that of xold to rounding. Where the gradient is longer, xold was
// better. An increase that is rounding counts as none.
static int load_tie(MINSTR* str, LevmarRun& run) {
  const double norm_at_xold = run.norm;
  int loaded = gethes(str, 0, run);
  if (loaded < 0 || str->tbig != 0.0) return loaded;
  if (run.norm > norm_at_xold && str->chac == 0) {
    return_to_xold(str);
    loaded = evaluate_objective(str) ? gethes(str, 0, run) : -1;
    run.now.sq = run.sq1;
  }
  str->cold = std::max(str->cold, str->crit);
  return loaded;
}

// Derivatives at the accepted point failed: a restart at xold, which keeps its steps shorter.
static Next retreat_from_bad_derivatives(MINSTR* str, LevmarRun& run) {
  return_to_xold(str);
  str->delt *= AFTER_FAILURE;
  run.cap = str->delt;
  run.user_hessian = true;
  if (str->delt > LEAST_RADIUS || str->itre >= 2) return Next::restart;
  run.ij = -4;
  return Next::finish;
}

// Takes the trial as the next point: feasibility, derivatives, and the radius of the next
// iteration.
static Next accept_step(MINSTR* str, LevmarRun& run, double factor) {
  static constexpr double STILL_STEEP = 0.75;
  run.good = run.kind != Trial::first || str->rhor <= 0.4 ? 0 : run.good + 1;
  str->delt = finite_radius(factor * (factor > 1.0 && str->lamb <= 0.0 ? run.now.dpnm : str->delt));
  str->chac = 0;
  if (const Next next = keep_feasible(str, &run.ij); next != Next::go_on) {
    run.user_hessian = true;
    return next;
  }
  if (run.ties == 0) {
    str->nitr += 1.0;
    ++str->itre;
  }
  const bool slope_test = str->rhor > 0.25 && factor < 2.0 && run.kind == Trial::first &&
                          str->lamb > 1.1 * str->ridg && str->stub >= 1.0;
  const double slope = slope_along_step(str);
  run.user_hessian = true;
  const int loaded = run.tie ? load_tie(str, run) : gethes(str, 0, run);
  if (loaded == -6) {
    run.ij = -6;
    return Next::finish;
  }
  if (loaded < 0 || str->tbig != 0.0) return retreat_from_bad_derivatives(str, run);
  run.cap = HUGE_VALUE;
  run.sq1 = run.now.sq;
  // The model was cautious: the objective still falls along the step nearly as at its start.
  if (slope_test && slope_along_step(str) < STILL_STEEP * slope) str->delt = 2.0 * run.now.dpnm;
  return Next::go_on;
}

// ---- Iteration ----------------------------------------------------------------------------------

// Trials from xold until one is taken (factor above 0) or the iteration ends without (0).
static Next search_step(MINSTR* str, LevmarRun& run, double* factor) {
  for (int trial = 0; trial < MOST_TRIALS; ++trial) {
    str->rhor = 0.0;
    if (run.kind == Trial::shorter) run.good = 0;
    Next next = make_step(str, run);
    if (next == Next::go_on) {
      zvaxpy(str->x, str->sdir, str->xold, str->nvar, str->stub);
      next = evaluate_trial(str, run);
    }
    if (next == Next::go_on) next = judge(str, run, factor);
    if (next != Next::solve_again) return next;
  }
  return_to_xold(str);
  run.ij = NO_PROGRESS;
  return Next::finish;
}

// The termination test, and what it leaves for the next iteration.
static Next end_iteration(MINSTR* str, LevmarRun& run) {
  const bool scale_was_given_up = str->hesc != run.hesc;
  str->hesc = run.hesc;
  run.user_hessian = true;
  run.ij = str->uster(str, TEST_ITERATION);
  str->delt = std::max(str->delt, STEEPEST_FALL * run.first);
  // A stop counts even where a restart is due.
  if (run.ij != 0) return Next::stop;
  if (run.idle > MOST_IDLE) {
    run.ij = NO_PROGRESS;
    return Next::finish;
  }
  const bool period_is_over = static_cast<double>(str->itre) >= str->nres;
  return scale_was_given_up || period_is_over ? Next::restart : Next::go_on;
}

// A step from x: go_on when it was taken, or when none was left to take (run.idle counts).
static Next take_step(MINSTR* str, LevmarRun& run) {
  start_iteration(str);
  run.kind = Trial::first;
  run.tie = false;
  double factor = 0.0;
  ++run.idle;
  if (str->delt != 0.0) {
    if (const Next next = search_step(str, run, &factor); next != Next::go_on) return next;
  }
  if (factor == 0.0) return Next::go_on;
  run.idle = 0;
  return accept_step(str, run, factor);
}

// Steps that the objective cannot judge any more are taken in a row, as one iteration, while each
// brings the gradient down: the last digits of the parameters.
static Next one_iteration(MINSTR* str, LevmarRun& run) {
  static constexpr int MOST_TIES = 20;
  static constexpr double CLEAR_FALL = 0.75;
  if (str->itre == 0) run.good = 0;
  str->ridg = 0.0;
  run.first = str->delt;
  for (run.ties = 0; run.ties < MOST_TIES; ++run.ties) {
    const double norm = run.norm;
    if (const Next next = take_step(str, run); next != Next::go_on) return next;
    if (!run.tie || !(run.norm < CLEAR_FALL * norm)) break;
  }
  return end_iteration(str, run);
}

// ---- The technique ------------------------------------------------------------------------------

// Start or restart at x.
static Next load_start(MINSTR* str, LevmarRun& run) {
  const bool first = !run.started;
  run.started = true;
  open_restart(str);
  run.ij = NO_PROGRESS;
  if (!restart_makes_progress(str, run.guard)) return Next::finish;
  const int loaded = gethes(str, 1, run);
  if (loaded >= 0 && str->tbig == 0.0) {
    run.sq1 = residual_norm(str);
    return Next::go_on;
  }
  if (first) {
    run.ij = std::min(loaded, -1);
  } else {
    run.ij = loaded == -6 ? -6 : (loaded == -2 ? -4 : FUNCTION_FAILED);
  }
  return Next::finish;
}

static int load_final(MINSTR* str) {
  LevmarRun end;
  return gethes(str, 1, end);
}

static int end_stage(MINSTR* str, LevmarRun& run) {
  run.user_hessian = true;
  str->hesc = run.hesc;
  const int code = finish_run(str, run.ij, load_final);
  // A stop that is overruled again and again without progress stands.
  return code == STOP_OVERRULED && run.guard.exhausted() ? NO_PROGRESS : code;
}

int znlplma(MINSTR* str) {
  open_run(str);
  str->nhes = 0;
  str->gihg = str->lamb = 0.0;
  LevmarRun run;
  run.hesc = str->hesc;
  run.floor = std::max(2.2250738585072018e-307, EPS * str->gtol);
  return technique_loop<LevmarRun>(str, run, {load_start, one_iteration, end_stage});
}

}  // namespace tqnlp
