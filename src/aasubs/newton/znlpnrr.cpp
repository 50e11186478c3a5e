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
#include "aasubs/constraints/znlpbas.h"
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

// The stages that follow a trial.
enum class Next {
  solve_again,  // same iteration, another ridge
  judge,        // the trial point stands, go on in the same iteration
  restart,      // load derivatives afresh at x
  finish,       // end stage with the code in hand
  converged     // the termination test has spoken
};

// What the trials of one iteration, and the iterations of one run, share.
struct RidgeRun {
  bool moved = false;        // a step was taken since the last start: a restart begins elsewhere
  bool user_hessian = true;  // load: false takes the identity for one restart
  double rmin = FIRST_HELD_RIDGE;  // smallest ridge worth holding; only ever falls
  double low = 0.0;                // rid1: largest ridge of this iteration known too small
  double high = MISSING;           // rid2: a ridge known too large
  int ij = 0;                      // code in hand
  double cdif = 0.0;               // actual reduction of the trial
};

static bool has_constraints(const MINSTR* str) { return str->bounds != 0 || str->lincon != 0; }

static long free_dimension(const MINSTR* str) { return str->nvar - str->nabc - str->nalc; }

static bool diagonal_route(const MINSTR* str) { return str->hfrm == 2 && str->lincon == 0; }

// Calls the objective at x; false when it failed. A value that is no number counts as a failure.
static bool evaluate(MINSTR* str, int* code) {
  str->ifdr = ORDER_FUNCTION;
  *code = str->usfct(str);
  if (*code == 0 && std::isnan(str->crit)) str->tbig = 1.0;
  return *code == 0 && str->tbig == 0.0;
}

static void return_to_xold(MINSTR* str) {
  str->crit = str->cold;
  std::copy_n(str->xold, str->nvar, str->x);
}

// ---- Derivatives and the reduced problem --------------------------------------------------------

static void set_identity_hessian(MINSTR* str) {
  if (str->hfrm == 2) {
    vzfdl(1.0, str->hess, str->nvar);
    return;
  }
  vzfdl(0.0, str->hess, str->nnva);
  for (long i = 0; i < str->nvar; ++i) str->hess[zisub(i, i)] = 1.0;
}

// Gradient and Hessian at x. Returns 0, -1 (function) or -2 (derivatives).
static int call_derivatives(MINSTR* str, bool user_hessian) {
  int code = 0;
  // Results that the user's code saved must belong to the point where derivatives are wanted.
  if (str->fsav != 0 && str->ifdr > ORDER_FUNCTION && !evaluate(str, &code)) return -1;
  if (user_hessian) {
    str->ifdr = ORDER_HESSIAN;
    code = str->ushes(str);
  } else {
    set_identity_hessian(str);
    str->ifdr = ORDER_GRADIENT;
    code = str->usgrd(str);
  }
  return code != 0 || str->tbig != 0.0 ? -2 : 0;
}

// Function value at a start or restart point.
static int call_function_first(MINSTR* str) {
  int code = 0;
  if (!evaluate(str, &code)) return -1;
  str->cold = str->crit;
  if (str->lsqu != 0 && wzmis(str->dfes)) str->dfes = std::fabs(str->crit / 20.0);
  return 0;
}

// The smallest ridge that is worth a first trial: 1e-8 of the smallest curvature, at least rmin.
static double getnewr(long n, const double* q, double rmin) {
  double smallest = HUGE_VALUE;
  for (long i = 0; i < n; ++i) smallest = std::min(smallest, std::fabs(q[i]));
  return std::max(RIDGE_TO_CURVATURE * smallest, rmin);
}

// Updates dsca from a matrix of the given order; null, the count of the last reduction, forces the
// scale to 1 while the matrix is not positive definite. At a start or restart point nothing has
// been reduced yet, and the diagonal is counted instead: the root of a curvature of zero would make
// a scale of 1e-8, in which no ridge is of use.
static void update_scale(MINSTR* str, int form, long order, double* matrix) {
  const long counted = str->null;
  if (str->itre == 0) {
    str->null = 0;
    for (long i = 0; i < order; ++i) str->null += matrix[form == 2 ? i : zisub(i, i)] <= EPS;
  }
  znlphsc(str, form, order, matrix);
  str->null = counted;
}

static bool scale_is_unit(const MINSTR* str) {
  return std::all_of(str->dsca, str->dsca + str->nvar, [](double scale) { return scale == 1.0; });
}

// Projects gradient and Hessian into the free subspace, scales them and brings the matrix to
// tridiagonal form: q, e in wrk2, the right side -g in gold. Returns the number of diagonal
// elements that are not positive, also in str->null. Only cells of the tridiagonal diagonal are
// counted, deliberately: no eigenvalues are computed here. Without rescale dsca stays as it is.
static int reduce_problem(MINSTR* str, bool rescale = true) {
  const int form = str->hfrm == 2 ? 2 : 0;
  const bool linear = str->lincon != 0;
  double* matrix = linear ? str->hpro : str->hess;
  const long order = free_dimension(str);

  if (!linear && rescale && str->hesc != 0) update_scale(str, form, str->nvar, str->hess);
  if (str->nabc == str->nvar) {
    str->gmax = str->gcri = 0.0;
    return 0;
  }
  znlphgp(str, 1, form, linear ? str->gpro : str->gold, str->hess, matrix);
  if (order == 0) return 0;
  if (linear && rescale && str->hesc != 0) update_scale(str, 0, order, matrix);
  znlphs2(str, linear ? 0 : form, str->gold);

  double* q = str->wrk2;
  if (diagonal_route(str)) {
    std::copy_n(str->hess, str->nvar, q);
  } else {
    if (order > LARGEST_ORDER) xexit(EXIT_INCONSISTENT, 0);
    ztred3(order, matrix, q);
    std::copy_backward(q + order, q + 2 * order, q + str->nvar + order);
    ztrapp3(0, order, matrix, str->gold);
  }
  str->null = std::count_if(q, q + order, [](double cell) { return cell <= EPS; });
  return static_cast<int>(str->null);
}

// Loads derivatives at x. job 1: function and feasibility first, the working set afresh; job 0:
// derivatives only, the working set is revised. Returns -1 function, -2 derivatives, -6 no feasible
// point, else the count of reduce_problem.
static int gethes(MINSTR* str, int job, bool user_hessian) {
  str->chac = 0;
  if (job == 1) {
    if (const int code = call_function_first(str); code != 0) return code;
  }
  int code = call_derivatives(str, user_hessian);
  if (code != 0) return code;

  if (job == 0) {
    if (has_constraints(str)) {
      znlpact(str, 1, 0, nullptr, nullptr, nullptr);
      if (str->nabc + str->nalc != 0) {
        znlpdac(str, 1, str->ulm2 != 0 ? 1 : 0, nullptr, nullptr, nullptr);
      }
    }
  } else if (has_constraints(str)) {
    if (znlpfch(str, 1, 0, 0) != 0) {
      // One repair: the point it leaves is judged by the tolerance it had to widen.
      if (znlpfea(str, 0) < 0) return -6;
      code = call_function_first(str);
      if (code == 0) code = call_derivatives(str, user_hessian);
      if (code != 0) return code;
      if (znlpfch(str, 1, 0, str->ipre) != 0) return -6;
    }
    znlpfta(str, 1, 0, 0, nullptr, nullptr, nullptr);
  }
  return reduce_problem(str);
}

// ---- Steps of one iteration ---------------------------------------------------------------------

static bool ridge_usable(const MINSTR* str) { return str->ridg < RIDGE_CEILING; }

// Raises the ridge; false when it has left its range.
static bool increase_ridge(MINSTR* str, const RidgeRun& run, double factor) {
  if (str->ridg == 0.0) {
    str->ridg = getnewr(free_dimension(str), str->wrk2, run.rmin);
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
  const long order = free_dimension(str);
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
  const long order = free_dimension(str);
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
  const double negligible = HUNDRED_EPS * zvamx(str->nvar, str->sdir);
  for (long j = 0; j < str->nvar; ++j) {
    if (std::fabs(str->sdir[j]) <= negligible) str->sdir[j] = 0.0;
  }
  long blocking = -1;
  znlpstl(str, 0, 0, 0, str->xold, str->sdir, &blocking, nullptr);
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
  return Next::judge;
}

// Solves for the step and forms the trial point x with its function value.
static Next try_ridge(MINSTR* str, RidgeRun& run) {
  if (!solve_with_ridge(str)) {
    if (raise_ridge(str, run)) return Next::solve_again;
    return give_up_ridge(str, run, -5);
  }
  expand_step(str);
  if (str->lincon != 0) {
    if (const Next next = limit_step(str, run); next != Next::judge) return next;
  }
  zvaxpy(str->x, str->sdir, str->xold, str->nvar, str->stub);
  if (!evaluate(str, &run.ij)) {
    if (raise_ridge(str, run)) return Next::solve_again;
    return give_up_ridge(str, run, -3);
  }
  run.cdif = str->dfes = str->cold - str->crit;
  return Next::judge;
}

// The objective rose: a larger ridge. When none is left in the first iteration after a restart, the
// iteration deliberately goes on with the restored point and the reduction in hand.
static Next judge_uphill(MINSTR* str, RidgeRun& run) {
  run.low = std::max(run.low, str->ridg);
  if (increase_ridge(str, run, RAISE)) return Next::solve_again;
  return_to_xold(str);
  return str->itre > 0 && run.moved ? Next::restart : Next::judge;
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
  str->ridg = run.low == 0.0 ? getnewr(free_dimension(str), str->wrk2, run.rmin) : RAISE * run.low;
  if (ridge_usable(str)) return Next::solve_again;
  run.ij = -5;
  return Next::finish;
}

// Function values at xold and x are equal to rounding: the slope at x decides.
static Next judge_by_slope(MINSTR* str, RidgeRun& run) {
  str->ifdr = ORDER_GRADIENT;
  if (str->usgrd(str) != 0 || str->tbig != 0.0) {
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
  if (!evaluate(str, &run.ij)) {
    run.ij = -3;
    return Next::finish;
  }
  return Next::judge;
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
  int code = 0;  // differences start from the function values, too
  if (!evaluate(str, &code) || call_derivatives(str, run.user_hessian) != 0) return false;
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
  if (has_constraints(str) && znlpfch(str, 0, 0, str->ipre) != 0) {
    if (znlpfea(str, -1) < 0) {
      run.ij = -6;
      return Next::finish;
    }
    if (str->itre > 0) return Next::restart;
    run.ij = -5;
    return Next::finish;
  }
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
  return Next::converged;
}

// One trial of the present ridge, from the solve to the verdict.
static Next one_trial(MINSTR* str, RidgeRun& run) {
  Next next = try_ridge(str, run);
  if (next == Next::judge && run.cdif < -TINY) next = judge_uphill(str, run);
  if (next == Next::judge && values_are_equal(str, run)) next = judge_by_slope(str, run);
  if (next == Next::judge) next = accept_trial(str, run);
  return next;
}

// Iterations from a loaded point until a restart or an end. On Next::converged ij is the nonzero
// answer of the termination test.
static Next iterate(MINSTR* str, RidgeRun& run) {
  for (;;) {
    str->cold = str->crit;
    std::copy_n(str->x, str->nvar, str->xold);
    run.low = 0.0;
    run.high = MISSING;
    Next next = Next::solve_again;
    for (int trial = 0; next == Next::solve_again; ++trial) {
      if (trial == MOST_TRIALS) return give_up_ridge(str, run, -5);
      next = one_trial(str, run);
    }
    if (next != Next::converged || run.ij != 0) return next;
  }
}

// The code in hand becomes final. Quantities of a failed run are evaluated once more, so that they
// belong to the point returned; the termination test has the last word.
static int end_stage(MINSTR* str, RidgeRun& run) {
  if (str->nitr != 0.0) {
    int code = 0;
    if (!evaluate(str, &code)) {
      run.ij = -3;  // derivatives would need the value that has just failed
    } else if (gethes(str, 1, true) < 0 || str->tbig != 0.0) {
      run.ij = -4;
    }
  }
  return str->uster(str, run.ij < 0 ? run.ij : 1);
}

// Start or restart at x: false when derivatives cannot be loaded.
static bool load_start(MINSTR* str, RidgeRun& run, bool* first) {
  str->chac = 0;
  str->ridg = 0.0;
  str->itre = 0;
  run.moved = false;
  if (str->nitr != 0.0) ++str->ires;
  const int loaded = gethes(str, 1, run.user_hessian);
  if (loaded >= 0 && str->tbig == 0.0) return true;
  // After a restart the code in hand stands deliberately, 100 when the termination test asked for
  // it.
  if (*first) run.ij = loaded < 0 ? loaded : -1;
  return false;
}

int znlpnrr(MINSTR* str) {
  str->null = str->ires = str->nhes = str->nfct = 0;
  str->nitr = str->pred = 0.0;
  std::copy_n(str->x, str->nvar, str->xold);

  RidgeRun run;
  bool first = true;
  for (;;) {
    if (!load_start(str, run, &first)) return run.ij;
    if (first) {
      first = false;
      run.ij = str->uster(str, 10);
      if (run.ij == 100) continue;
      if (run.ij != 0) return run.ij;
    }
    const Next next = iterate(str, run);
    if (next == Next::finish) run.ij = end_stage(str, run);
    if (next != Next::restart && run.ij != 100) return run.ij;
  }
}

}  // namespace tqnlp
