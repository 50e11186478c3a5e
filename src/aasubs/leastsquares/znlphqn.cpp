// znlphqn: HYbrid QUAsi-Newton method for least squares (HYQUAN), technique 12.
//
// Method     Two matrices are carried at once: A = J'J, of which the Gauss-Newton direction comes,
//            and a quasi-Newton approximation B of the whole Hessian, which also learns the part
//            that the residuals' curvature adds. Gauss-Newton is quadratic where the residuals
//            vanish, the quasi-Newton method superlinear where they do not; after each iteration a
//            rule (vers) decides which of the two goes next. The direction of the other one waits:
//            a search that fails along the first tries the second.
//              vers 1  the matrix that fits the last pair of differences better
//              vers 2  Gauss-Newton as long as an iteration gains a fifth of the objective
//              vers 3  as 2, or where the Gauss-Newton matrix fits the pair well
// Reference  Fletcher and Xu (1987), IMA J. Numer. Anal. 7; Al-Baali and Fletcher (1985), J. Oper.
//            Res. Soc. 36
// Start      With load the quasi-Newton matrix starts as the unit matrix, again at each restart,
//            and Gauss-Newton goes first. Otherwise it starts as A and outlives restarts that are
//            not its fault.
// Reads      vers, nres, salf, sigm, tupd, updat, tlin, linse, load, hfrm, sing, bounds, lincon
// Writes     x, crit, grad, gmax, pred, ridg, stub, alfa, dfes, null (0 quasi-Newton, 1
//            Gauss-Newton), hess (J'J), hpro (factor of A), half (factor of B), chac, counters;
//            usgrd and thdstr during the run
// Work       wrk2 = reduced step spro (n) | second direction (n) | J(xold)'r(x) (n); fold =
//            residuals at xold (m) | J sdir (m); xold, gold receive the differences once an
//            iteration is over
// Ends       codes of uster; -1, -2 function or derivatives failed at the start; -3, -4 later on;
//            -5 no progress, or no ridge makes A positive definite at a start; -6 feasibility lost
//
//   1  load derivatives, working set and both matrices; form both directions
//   2  limit the step by the constraints, search along the first direction, or the second
//   3  feasibility, derivatives and working set at the new point, termination test
//   4  update the matrix, choose, form the next directions; restart where there is no descent
#include "aasubs/leastsquares/znlphqn.h"

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/derivatives/znlpfid.h"
#include "aasubs/leastsquares/hybrid_matrices.h"
#include "aasubs/linesearch/znlpl12.h"
#include "aasubs/loop/loads.h"
#include "aasubs/loop/search_steps.h"
#include "aasubs/loop/secant_load.h"
#include "host/process.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr int RESIDUAL_SEARCH = 12;  // tlin of the search that models the residuals

// ---- The Jacobian of the old point --------------------------------------------------------------

static bool stores_jacobian(const MINSTR* str) { return str->lsqu != 0 && str->utjacm != nullptr; }

// Stands in usgrd. Within a search J'J is formed with the gradient, from one evaluation of J: the
// point that the search accepts needs it next. The first gradient of a search overwrites the stored
// Jacobian of xold; before it does, J(xold)'r at the trial point is kept for the structured
// differences.
static int gradient_of_run(MINSTR* str) {
  HybridRun& run = *static_cast<HybridRun*>(str->thdstr);
  if (run.gradients < 0) return run.usgrd(str);
  const bool first = run.gradients++ == 0;
  run.has_old = first && stores_jacobian(str) && str->icpj == 0;
  if (run.has_old) znlpjtv(str, str->func, old_gradient(str));
  str->ifdr = ORDER_HESSIAN;
  const int code = str->ushes(str);
  run.at_hand = code == 0 && str->tbig == 0.0;
  return code;
}

// ---- Directions ---------------------------------------------------------------------------------

// sdir, gs of the matrix that null names, and the second direction of the other one. A matrix that
// cannot be used leaves the other alone. False: neither can.
static bool make_directions(MINSTR* str, HybridRun& run) {
  run.isd2 = false;
  if (reduced_dimension(str) < 1) {
    vzfdl(0.0, str->sdir, str->nvar);
    run.gs = str->pred = 0.0;
    return true;
  }
  if (run.nohs) str->null = 0;
  const bool other = str->null == 0;
  const bool wants_other = other ? !run.nohs && !run.twins : !run.skipped && !run.twins;
  if (wants_other) {
    run.isd2 = make_direction(str, run, other, &run.gs2);
    std::copy_n(str->sdir, str->nvar, second_direction(str));
    if (other && !run.isd2) run.nohs = true;
  }
  bool good = make_direction(str, run, !other, &run.gs);
  if (!good && run.isd2) {
    run.isd2 = false;
    run.nohs = !other;
    str->null = other ? 1 : 0;
    good = make_direction(str, run, other, &run.gs);
  }
  str->pred = -run.gs;
  return good;
}

// The second direction takes the place of one along which nothing was found.
static void swap_directions(MINSTR* str, HybridRun& run) {
  std::swap_ranges(str->sdir, str->sdir + str->nvar, second_direction(str));
  std::swap(run.gs, run.gs2);
  run.isd2 = false;
  znlpvre(str, str->sdir, str->spro);
  str->pred = -run.gs;
  str->null = !run.nohs && str->null == 0 ? 1 : 0;
  if (str->null != 0 && run.icho == DIAGONAL_FORM) reset_to_unit(str);
}

// ---- Start and restart --------------------------------------------------------------------------

// The code of a start or restart that failed.
static int load_failure(const MINSTR* str, int code) {
  if (code == NO_PROGRESS || code == -6 || str->nitr == 0.0) return code;
  return code == -2 ? -4 : FUNCTION_FAILED;
}

static Next load_start(MINSTR* str, HybridRun& run) {
  str->alfa = str->salf;
  open_restart(str);
  str->null = 0;
  run.ij = NO_PROGRESS;
  run.skipped = false;
  if (!restart_makes_progress(str, run.guard)) return Next::finish;
  const int code = actcon(str, 1, run);
  if (code < 0 || str->tbig != 0.0) {
    run.ij = load_failure(str, code);
    return Next::finish;
  }
  str->cold = str->crit;
  if (str->lsqu != 0 && !(str->dfes > 0.0)) str->dfes = std::fabs(str->crit / 20.0);
  if (run.load != 0 && !run.nohs) str->null = 1;
  if (make_directions(str, run) && run.gs <= SMALLEST_TOLERANCE) return Next::go_on;
  run.stale = true;
  return secant_raise_shift(str) ? Next::restart : Next::finish;
}

// ---- Steps of one iteration ---------------------------------------------------------------------

static Next restart_afresh(HybridRun& run) {
  run.stale = true;
  return Next::restart;
}

// One search along sdir. The Jacobian in store is that of xold.
static bool search_once(MINSTR* str, HybridRun& run) {
  const bool residual_search = str->tlin == RESIDUAL_SEARCH;
  const bool modelled = residual_search && !run.nohs;
  if (modelled && stores_jacobian(str)) znlpjve(str, str->sdir, str->fold + str->mequ);
  run.has_old = run.at_hand = false;
  run.gradients = 0;
  const bool found = search_along(str, modelled ? znlpl12 : str->linse);
  run.gradients = -1;
  return found;
}

// A search that fails leaves the quantities of some trial behind; the second direction gets those
// of xold.
static Next search(MINSTR* str, HybridRun& run) {
  for (;;) {
    if (!limit_search(str) && !run.blocked) {
      run.load = 0;
      run.blocked = true;
      return restart_afresh(run);
    }
    if (search_once(str, run)) {
      run.blocked = false;
      return Next::go_on;
    }
    if (!run.isd2) break;
    // The Jacobian too: that of a trial is in store.
    if (!evaluate_objective(str) || !evaluate(str, ORDER_HESSIAN, str->ushes)) {
      return restart_afresh(run);
    }
    secant_measure(str);
    swap_directions(str, run);
  }
  if (str->itre > 0) return restart_afresh(run);
  run.ij = NO_PROGRESS;
  return Next::finish;
}

// Counts the step, loads the new point, and asks the termination test.
static Next accept_step(MINSTR* str, HybridRun& run) {
  ++str->itre;
  str->nitr += 1.0;
  const int code = actcon(str, 0, run);
  if (code < 0 || str->tbig != 0.0) {
    return_to_xold(str);
    if (str->itre > 1) return restart_afresh(run);
    run.ij = code == -6 ? code : -4;
    return Next::finish;
  }
  run.ij = str->uster(str, TEST_ITERATION);
  if (run.ij != 0) return Next::stop;
  if (static_cast<double>(str->itre) < str->nres) return Next::go_on;
  str->salf = 1.0;
  return Next::restart;
}

static Next next_directions(MINSTR* str, HybridRun& run) {
  if (str->null != 0 && run.icho == DIAGONAL_FORM && !run.skipped) {
    copy_crossproduct(str, run);
    run.twins = true;
  }
  if (!make_directions(str, run) || !leads_down(str, run.gs)) return restart_afresh(run);
  str->salf = str->nitr >= SETTLED_ITERATIONS ? 1.0 : run.salf0;
  str->ridg = 0.0;
  return Next::go_on;
}

static Next one_iteration(MINSTR* str, HybridRun& run) {
  start_iteration(str);
  std::copy_n(str->grad, str->nvar, str->gold);
  if (str->tlin == RESIDUAL_SEARCH && str->lsqu != 0) {
    std::copy_n(str->func, str->mequ, str->fold);
  }
  Next next = search(str, run);
  if (next == Next::go_on) {
    str->chac = 0;
    next = keep_feasible(str, &run.ij);
  }
  if (next == Next::go_on) next = accept_step(str, run);
  if (next == Next::go_on) next = update_and_choose(str, run);
  if (next == Next::go_on) next = next_directions(str, run);
  return next;
}

// ---- The technique ------------------------------------------------------------------------------

// Counters, and settings that were not given or make no sense.
static void open_hyquan(MINSTR* str) {
  if (str->opro == 2) xexit(EXIT_INCONSISTENT, 0);
  open_run(str);
  str->nlis = str->nhup = str->ngrd = str->nhes = 0;
  str->ridg = 0.0;
  str->spro = str->wrk2;
  if (str->vers < 1 || str->vers > 3) str->vers = 2;
  if (wzmis(str->sigm)) str->sigm = str->tupd == 2 ? 0.06 : 0.1;
  secant_settle_restarts(str);
}

static int end_stage(MINSTR* str, HybridRun& run) {
  const int code = finish_run(str, run.ij, secant_load_final);
  // A stop that is overruled again and again without progress stands.
  return code == STOP_OVERRULED && run.guard.exhausted() ? NO_PROGRESS : code;
}

int znlphqn(MINSTR* str) {
  open_hyquan(str);
  HybridRun run;
  run.load = str->load != 0 ? 1 : 0;
  run.salf0 = str->salf;
  run.usgrd = str->usgrd;
  choose_forms(str, run);
  void* const outer = str->thdstr;
  str->thdstr = &run;
  str->usgrd = gradient_of_run;
  const int code = technique_loop<HybridRun>(str, run, {load_start, one_iteration, end_stage});
  str->usgrd = run.usgrd;
  str->thdstr = outer;
  return code;
}

}  // namespace tqnlp
