// znlpqas: QUADratic Active Set (QUADAS), technique 16.
//
// Model      q(x) = c + g'x + x'Hx / 2 is the objective itself: H is constant, and the step to the
//            minimizer on the working set is exact. A constraint that cuts it enters the set; at a
//            minimizer the constraint with the most negative multiplier leaves. Where the reduced
//            Hessian has no minimizer, the step follows a direction of zero or negative curvature
//            to the next constraint, and without one the objective is unbounded.
// Reference  Gill and Murray (1978), Mathematical Programming 14; Gill, Murray and Wright (1981),
//            section 5.3; Harris (1973), Mathematical Programming 5, for the ratio test; Bertsekas
//            (1982), SIAM J. Control 20, for the step that is bent along the bounds
// Reads      hess in the form hfrm, bounds, lincon, isqp, deat, ssin; termination group
// Writes     x, crit, grad, gmax, pred, dfes, alfa, stub, null, chac, mini, counters
// Work       wrk2 = reduced step spro (n) | work of znlpqas_factor (5n) | scale (n) | units (n) |
//            sizes of the gradient (n) | reduced gradient (n)
//            half = factor of Z'HZ; hpro = its sparse matrix; ipiv, iwk, work; lagm, awrk, dcds
// Ends       codes of uster; -1, -2, -6 failed loads; -5 unbounded (said in the log), or no step
//
//   1  load derivatives, the working set and the factor at the start or restart point
//   2  direction; at a minimizer of the working set a constraint leaves
//   3  ratio test; a step of length zero only changes the working set, and is no iteration
//   4  step, bent along the bounds where it gains; the objective must fall
//   5  gradient, change of the working set, termination test
//
// The termination test sees chac nonzero, and tests no criterion, until x is a minimizer on its
// working set, no constraint wants to leave it and no curvature in it is negative.
#include "aasubs/quadratic/znlpqas.h"

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/members.h"
#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpba1.h"
#include "aasubs/constraints/znlpbas.h"
#include "aasubs/loop/loads.h"
#include "aasubs/quadratic/quadas_run.h"
#include "aasubs/quadratic/znlpqas_factor.h"
#include "host/log.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr double MULTIPLIER_ZERO = 1e-12;     // of the gradient's size
static constexpr double LARGEST_CORRECTION = 1e-6;   // of the same, to satisfy the members
static constexpr double ROUNDING_SLOPE = 1e-11;      // of the lengths of row and step
static constexpr double RATIO_TOLERANCE = 0.01;      // of the feasibility tolerance
static constexpr double ROW_ROUNDING = 16 * EPS;     // of the lengths of row and point
static constexpr double ROUNDING_CURVATURE = 1e-13;  // of the matrix and the squared step
static constexpr double CUT = 0.1;                   // a step that failed
static constexpr double CLEAR_UPDATE = 1e-8;  // a smaller new pivot is made anew, to be sure of it
static constexpr int MOST_UPDATES = 100;      // changes of one factor before it is made anew
static constexpr long MANY = 50;              // bounds that leave at once
static constexpr int MOST_HALVINGS = 10;      // of a bent step
static constexpr double LEAST_CURVATURE = 1e-8;  // of the scaled matrix, for a sweep
static constexpr int SWEEPS = 40;                // each costs a product, far less than a factor

// What the iterations of one run share.
struct QuadraticRun : QuadasRun {
  ReducedHessian reduced;
  double* rg = nullptr;     // reduced gradient
  double* sizes = nullptr;  // of what each element of the gradient is the sum of
  double gs = 0.0;          // slope of the direction
  Course course = Course::none;
  double natural = 1.0;     // length at which the model is lowest along the direction
  int updates = 0;          // changes since the factor was made
  long single = 0;          // moves of x until several bounds may leave at once again
  long longest_single = 1;  // the next such number
  bool sweeps_due = false;  // did so many leave that more of their neighbours should?
  bool sweeps = true;       // do sweeps lower the objective?
};

static bool bounds_alone(const MINSTR* str) { return str->lincon == 0 && str->bounds != 0; }

// ---- Values at a point --------------------------------------------------------------------------

// Reduced gradient, gmax, and the sizes against which rounding is judged.
static void measure_point(MINSTR* str, QuadraticRun& run) {
  const long n = str->nvar;
  znlpgmx(str, 1, run.rg);
  double* product = str->wrk2 + n;
  multiply_hessian(str, str->x, product);
  const double* scale = run.reduced.scale;
  double largest = 0.0;
  for (long j = 0; j < n; ++j) largest = std::max(largest, scale[j] * std::fabs(str->x[j]));
  run.value_size = std::fabs(str->crit);
  for (long j = 0; j < n; ++j) {
    run.sizes[j] = std::max(scale[j] * largest, std::fabs(str->grad[j] - product[j]));
    run.value_size += std::fabs(str->x[j]) * run.sizes[j];
  }
}

// Rounding of the product of a row of unit length with x.
static double row_rounding(const MINSTR* str) {
  return ROW_ROUNDING * zvenorm(str->nvar, 1, str->x);
}

// Is no row violated by more than the rounding of its product with x?
static bool rows_hold_to_rounding(MINSTR* str) {
  const double rounding = row_rounding(str);
  for (long i = 0; str->lincon != 0 && i < str->ncon; ++i) {
    const double* row = gradient_of(str, {0, i});
    double residual = residual_of(str, {0, i}, row);
    if (i < str->neqc) residual = -std::fabs(residual);
    if (!(residual >= -rounding * zvenorm(str->nvar, 1, row))) return false;
  }
  return true;
}

// Is x feasible, as far as numbers can tell?
static bool is_feasible(MINSTR* str) {
  return znlpfch(str, 0, 0, str->ipre) == 0 || rows_hold_to_rounding(str);
}

// ---- The working set ----------------------------------------------------------------------------

static void set_changed(QuadraticRun& run) {
  run.full_steps = 0;
  run.restored = false;
}

// The factor follows one change, unless it cannot or has followed too many.
static double* factor_to_update(MINSTR* str, QuadraticRun& run) {
  const ReducedHessian& reduced = run.reduced;
  const bool follows =
      reduced.current && reduced.updatable && reduced.order > 0 && ++run.updates <= MOST_UPDATES;
  return follows ? str->half : nullptr;
}

static void after_change(MINSTR* str, QuadraticRun& run, bool followed) {
  ReducedHessian& reduced = run.reduced;
  reduced.current = followed;
  reduced.order = reduced.nosi = reduced_dimension(str);
  if (!followed) run.updates = 0;
  set_changed(run);
}

static constexpr int FACTOR = 1;  // form of ches

// The parameter of a bound that was met within its tolerance goes onto it. Values and gradient
// follow where that is more than rounding: a later step would otherwise seem to lead uphill.
static void put_on_bound(MINSTR* str, const QuadraticRun& run, const Member& m) {
  const double before = str->x[m.ic];
  str->x[m.ic] = bound_value(str, m.ic, m.koc);
  const double change = std::fabs((str->x[m.ic] - before) * str->grad[m.ic]);
  if (!(change > value_rounding(str, run)) || !evaluate_objective(str)) return;
  str->cold = std::max(str->cold, str->crit);
  evaluate_gradient(str);
}

// A constraint that cut a step depends on the members by no more than a rounding tolerance, if at
// all: its slope was clearly negative. It enters without the test then.
static void enter_row(MINSTR* str, QuadraticRun& run, const Member& m) {
  if (m.koc != 0) put_on_bound(str, run, m);
  double* ches = factor_to_update(str, run);
  const int trust = is_dependent(str, m) ? 1 : 0;
  znlpupd(str, 0, FACTOR, trust, m.koc, m.ic, nullptr, nullptr, ches);
  after_change(str, run, ches != nullptr);
  ++str->chac;
}

static void index_bounds(MINSTR* str, QuadraticRun& run) {
  znlpinc(str, 0);
  after_change(str, run, false);
}

// All free parameters that stand on the bound that the step leads to.
static long enter_bounds(MINSTR* str, QuadraticRun& run) {
  long entered = 0;
  for (long j = 0; j < str->nvar; ++j) {
    if (str->iabc[j] != 0 || str->sdir[j] == 0.0) continue;
    const int koc = str->sdir[j] < 0.0 ? 1 : -1;
    if (str->x[j] != bound_value(str, j, koc)) continue;
    str->iabc[j] = koc;
    ++entered;
  }
  str->nabc += entered;
  str->chac += entered;
  if (entered > 0) index_bounds(str, run);
  return entered;
}

static double multiplier_tolerance(const MINSTR* str, double gradient_size) {
  if (!wzmis(str->deat) && str->deat > 0.0) return str->deat;
  return MULTIPLIER_ZERO * std::max(gradient_size, TINY);
}

// Bounds alone: those with the wrong sign leave together, as long as that does not lead to a step
// that is blocked at once.
static bool release_bounds(MINSTR* str, QuadraticRun& run) {
  long worst = -1;
  double highest = 0.0;
  long left = 0;
  long last = -1;
  for (long j = 0; j < str->nvar; ++j) {
    if (str->iabc[j] == 0 || str->iabc[j] == 2) continue;
    const double lambda = str->iabc[j] * str->grad[j];
    if (!(lambda < -multiplier_tolerance(str, run.sizes[j]))) continue;
    if (run.single == 0 && run.idle == 0) {
      str->iabc[j] = 0;
      last = j;
      ++left;
    } else if (const double worth = cycling(str, run) ? lot(run) : -lambda; worth > highest) {
      worst = j;
      highest = worth;
    }
  }
  if (worst >= 0) {
    str->iabc[worst] = 0;
    last = worst;
    left = 1;
  }
  if (left == 0) return false;
  run.sweeps_due = run.sweeps && run.course == Course::newton && left >= MANY;
  str->nabc -= left;
  str->idac = left == 1 ? last + 1 : -left;
  index_bounds(str, run);
  return true;
}

// The member with the most negative multiplier, each for a gradient of unit length.
static bool release_member(MINSTR* str, QuadraticRun& run) {
  const long count = str->nabc + str->nalc;
  if (count == 0) return false;
  multipliers(str, str->grad, str->lagm);
  const double tolerance = multiplier_tolerance(str, zvamx(str->nvar, run.sizes));
  long worst = -1;
  double highest = 0.0;
  for (long i = 0; i < count; ++i) {
    const Member m = member(str, i);
    if (!may_leave(str, m) || !(str->lagm[i] < 0.0)) continue;
    const double length = m.koc != 0 ? 1.0 : zvenorm(str->nvar, 1, gradient_of(str, m));
    const double lambda = length * str->lagm[i];
    if (!(lambda < -tolerance)) continue;
    const double worth = cycling(str, run) ? lot(run) : -lambda;
    if (worth <= highest) continue;
    worst = i;
    highest = worth;
  }
  if (worst < 0) return false;
  const Member m = member(str, worst);
  double* ches = factor_to_update(str, run);
  const int status = znlpdod(str, FACTOR, m.koc, m.ic, nullptr, nullptr, ches, str->hess);
  const bool followed = ches != nullptr && status == 0 &&
                        pivot_is_clear(ches, reduced_dimension(str) - 1, CLEAR_UPDATE);
  after_change(str, run, followed);
  str->idac = (m.koc != 0 ? 0 : str->nvar) + m.ic + 1;
  return true;
}

// At a minimizer of the working set: what wants to leave it, leaves. False: nothing does.
static bool release(MINSTR* str, QuadraticRun& run) {
  str->mini = static_cast<long>(str->nitr);
  if (!has_constraints(str)) return false;
  const bool released = bounds_alone(str) ? release_bounds(str, run) : release_member(str, run);
  if (!released) return false;
  str->chac = -1;
  measure_point(str, run);
  return true;
}

// ---- Direction ----------------------------------------------------------------------------------

// Does a step of this length move a parameter by more than this share of its size?
static bool moves(const MINSTR* str, double length, double share) {
  for (long j = 0; j < str->nvar; ++j) {
    const double size = std::max(1.0, std::fabs(str->x[j]));
    if (std::fabs(length * str->sdir[j]) > share * size) return true;
  }
  return false;
}

// Is the step rounding of none?
static bool step_is_negligible(const MINSTR* str) { return !moves(str, 1.0, NEGLIGIBLE_STEP); }

// Along a Newton step the slope is minus the curvature. Where that is rounding, a nearly singular
// matrix passed for definite, and the step is a direction of zero curvature. A diagonal matrix has
// no rounding.
static bool newton_step_is_flat(const MINSTR* str, const QuadraticRun& run) {
  if (run.reduced.form == ReducedHessian::Form::diagonal) return false;
  if (step_is_negligible(str)) return false;
  const double length = scaled_length(str->nvar, run.reduced.scale, str->sdir);
  return -run.gs <= ROUNDING_CURVATURE * length * length &&
         run.gs < -ROUNDING_SLOPE * scaled_length(str->nvar, run.sizes, str->sdir);
}

// False: x is a minimizer on the working set.
static bool choose_direction(MINSTR* str, QuadraticRun& run) {
  run.course = find_course(str, run.reduced, run.rg, run.sizes);
  if (run.course == Course::none) return false;
  run.gs = zvdot11(str->nvar, str->grad, str->sdir);
  run.natural = 1.0;
  if (run.course == Course::newton && !newton_step_is_flat(str, run)) {
    const bool refined = run.full_steps >= MOST_REFINEMENTS;
    return !refined && run.gs < -SMALLEST_TOLERANCE && !step_is_negligible(str);
  }
  run.natural = HUGE_VALUE;
  if (run.course == Course::newton) {
    run.course = Course::straight;
  } else if (run.course == Course::straight) {
    double* product = str->wrk2 + str->nvar;
    multiply_hessian(str, str->sdir, product);
    const double curvature = zvdot11(str->nvar, str->sdir, product);
    const double length = scaled_length(str->nvar, run.reduced.scale, str->sdir);
    if (curvature > ROUNDING_CURVATURE * length * length) {
      run.natural = -run.gs / curvature;
    }
  }
  return true;
}

// ---- Ratio test ---------------------------------------------------------------------------------

// Calls visit for every constraint outside the working set that the direction approaches.
template <class Visit>
static void visit_approached(MINSTR* str, Visit visit) {
  const double eps = RATIO_TOLERANCE * feasibility_tolerance(str, 0);
  const double length = zvenorm(str->nvar, 1, str->sdir);
  const double rounding = row_rounding(str);
  for (long k = 0; str->bounds != 0 && k < free_count(str); ++k) {
    const long j = str->ifxr[k];
    const double d = str->sdir[j];
    if (str->iabc[j] == 2 || !(std::fabs(d) > ROUNDING_SLOPE * length)) continue;
    const int koc = d < 0.0 ? 1 : -1;
    const double bound = bound_value(str, j, koc);
    if (!lower_exists(bound) || !upper_exists(bound)) continue;
    visit(Approach{{koc, j},
                   -std::fabs(d),
                   std::fabs(d),
                   koc * (str->x[j] - bound),
                   (std::fabs(bound) + 1.0) * eps});
  }
  for (long i = str->neqc; str->lincon != 0 && i < str->ncon; ++i) {
    if (std::find(str->iact, str->iact + str->nalc, i) != str->iact + str->nalc) continue;
    const Member m{0, i};
    const double* row = gradient_of(str, m);
    const double slope = zvdot11(str->nvar, row, str->sdir);
    if (!(slope < 0.0)) continue;
    const double norm = zvenorm(str->nvar, 1, row);
    if (!(slope < -ROUNDING_SLOPE * norm * length)) continue;
    visit(Approach{m, slope, -slope / norm, residual_of(str, m, row),
                   std::max((std::fabs(str->blcn[i]) + 1.0) * eps, norm * rounding)});
  }
}

// stub is the largest double where nothing blocks.
static Member limit_step(MINSTR* str, QuadraticRun& run) {
  return ratio_test(str, run, HUGE_VALUE, [str](auto visit) { visit_approached(str, visit); });
}

// ---- The step -----------------------------------------------------------------------------------

// x := xold + alfa sdir, kept inside the bounds as far as xold is.
static void move_to(MINSTR* str, double alfa) {
  str->alfa = alfa;
  zvaxpy(str->x, str->sdir, str->xold, str->nvar, alfa);
  for (long j = 0; str->bounds != 0 && j < str->nvar; ++j) {
    if (str->iabc[j] != 0) continue;
    const double lowest = std::min(str->lb[j], str->xold[j]);
    str->x[j] = std::clamp(str->x[j], lowest, std::max(str->ub[j], str->xold[j]));
  }
}

// The objective at the trial point. A rise that is rounding counts as no change, by way of cold.
static bool value_falls(MINSTR* str, const QuadraticRun& run, double least) {
  if (!evaluate_objective(str)) return false;
  str->dfes = str->cold - str->crit;
  if (str->dfes >= least) return true;
  if (str->dfes < -value_rounding(str, run)) return false;
  if (str->dfes < 0.0) {
    str->cold = str->crit;
    str->dfes = 0.0;
  }
  return least <= 0.0;
}

// Change of the objective along sdir; the slope in gs.
static double model_change(MINSTR* str, double* gs) {
  double* product = str->wrk2 + str->nvar;
  multiply_hessian(str, str->sdir, product);
  *gs = zvdot11(str->nvar, str->grad, str->sdir);
  return *gs + 0.5 * zvdot11(str->nvar, str->sdir, product);
}

// sdir := the step of length alfa along the reduced direction, its components ended on the bounds.
static void bend_step(MINSTR* str, double alfa) {
  znlpvex(str, str->spro, str->sdir);
  for (long j = 0; j < str->nvar; ++j) {
    if (str->iabc[j] != 0) continue;
    const double target = std::clamp(str->xold[j] + alfa * str->sdir[j], str->lb[j], str->ub[j]);
    str->sdir[j] = target - str->xold[j];
  }
}

// Takes the step in sdir if it lowers the objective enough.
static bool take_if_lower(MINSTR* str, QuadraticRun& run, double alfa, double gs) {
  move_to(str, alfa);
  const double least = std::max(-ENOUGH_DECREASE * str->alfa * gs, 0.0);
  if (step_moves(str, str->sdir) && value_falls(str, run, least) && str->crit < str->cold &&
      evaluate_gradient(str)) {
    run.gs = gs;
    return true;
  }
  return_to_xold(str);
  str->tbig = 0.0;
  return false;
}

// The step bent along the bounds: true when it was taken. Otherwise all is as before. The service
// tries a few lengths by their slope; where that is no way down, the model tells which one is.
static bool take_bent_step(MINSTR* str, QuadraticRun& run) {
  if (!bounds_alone(str) || run.course != Course::newton || cycling(str, run)) return false;
  const double limit = str->stub;
  double gs = run.gs;
  bool taken = znlppro(str, 0, &gs) == 1 && take_if_lower(str, run, std::min(str->stub, 1.0), gs);
  int halvings = 0;
  for (double alfa = 1.0; !taken && alfa > 2.0 * limit && halvings < MOST_HALVINGS; ++halvings) {
    bend_step(str, alfa);
    alfa *= 0.5;
    if (model_change(str, &gs) > ENOUGH_DECREASE * gs || !(gs < 0.0)) continue;
    taken = take_if_lower(str, run, 1.0, gs);
    break;
  }
  if (!taken) znlpvex(str, str->spro, str->sdir);
  str->stub = limit;
  return taken;
}

// The step to the limit, or to the minimizer along the direction. The quadratic falls along it; a
// callback that says otherwise, or fails, gets shorter steps until they are rounding.
static bool take_step(MINSTR* str, QuadraticRun& run) {
  for (double alfa = std::min(run.natural, str->stub);; alfa *= CUT) {
    move_to(str, alfa);
    const bool lower = value_falls(str, run, 0.0) && evaluate_gradient(str);
    // What was cut to rounding only seems to be lower.
    const bool cut = alfa < std::min(run.natural, str->stub);
    if (lower) return !cut || moves(str, alfa, 10.0 * NEGLIGIBLE_STEP);
    if (!(alfa > TINY && reldx(str->nvar, 1.0, str->x, str->xold) > EPS)) return false;
  }
}

// ---- Sweeps -------------------------------------------------------------------------------------

// One projected gradient step of length t from x, in units of the scale; g follows. Returns the
// change of the objective; t becomes the length for the next one (Barzilai and Borwein), 0 where
// there is none.
static double sweep_once(MINSTR* str, const QuadraticRun& run, double* g, double* t) {
  const double* scale = run.reduced.scale;
  double* product = str->wrk2 + str->nvar;
  double slope = 0.0;
  double length = 0.0;
  for (long j = 0; j < str->nvar; ++j) {
    const double unit = scale[j] * scale[j];
    const double target = std::clamp(str->x[j] - *t * g[j] / unit, str->lb[j], str->ub[j]);
    const double step = target - str->x[j];
    str->x[j] = target;
    str->sdir[j] = step;
    slope += g[j] * step;
    length += unit * step * step;
  }
  multiply_hessian(str, str->sdir, product);
  const double curvature = zvdot11(str->nvar, str->sdir, product);
  zvxay11(str->nvar, g, 1.0, product);
  *t = curvature > LEAST_CURVATURE * length ? length / curvature : 0.0;
  return slope + 0.5 * curvature;
}

// The bounds on which x stands and that the gradient does not want to leave.
static void set_of_point(MINSTR* str, QuadraticRun& run) {
  str->nabc = 0;
  for (long j = 0; j < str->nvar; ++j) {
    int& status = str->iabc[j];
    if (status != 2) {
      const double tolerance = multiplier_tolerance(str, run.sizes[j]);
      const bool lower = str->x[j] <= str->lb[j] && !(str->grad[j] < -tolerance);
      const bool upper = str->x[j] >= str->ub[j] && !(str->grad[j] > tolerance);
      status = lower ? 1 : upper ? -1 : 0;
    }
    if (status != 0) ++str->nabc;
  }
  index_bounds(str, run);
}

// Where many bounds leave, as along the edge of a region of contact, their neighbours often should
// too, but show it only when those have moved: a factorization for each layer. Projected gradient
// steps carry the news further at the cost of a product each. False: nothing was gained.
static bool sweep(MINSTR* str, QuadraticRun& run) {
  run.sweeps_due = false;
  start_iteration(str);
  double* g = run.rg;
  double* best = str->work;
  std::copy_n(str->grad, str->nvar, g);
  double t = 1.0;
  double change = 0.0;
  double lowest = 0.0;
  for (int k = 0; k < SWEEPS && t > 0.0; ++k) {
    change += sweep_once(str, run, g, &t);
    if (!(change < lowest)) continue;
    lowest = change;
    std::copy_n(str->x, str->nvar, best);
  }
  if (lowest < 0.0) std::copy_n(best, str->nvar, str->x);
  run.sweeps = lowest < 0.0 && value_falls(str, run, 0.0) && evaluate_gradient(str);
  if (!run.sweeps) {
    return_to_xold(str);
    str->tbig = 0.0;
    measure_point(str, run);
    return false;
  }
  measure_point(str, run);
  set_of_point(str, run);
  measure_point(str, run);
  str->alfa = 1.0;
  str->pred = -lowest;
  str->chac = 1;
  return true;
}

// ---- Solutions ----------------------------------------------------------------------------------

// Rows entered where they were met within tolerance. At a solution the members are satisfied
// exactly, as far as that keeps x feasible. True when x moved.
static bool restore_members(MINSTR* str, QuadraticRun& run) {
  if (run.restored || str->nalc == 0) return false;
  run.restored = true;
  if (satisfy_members(str) != 0 || step_is_negligible(str)) return false;
  // Nearly dependent members may meet far from here: x is good enough then.
  if (moves(str, 1.0, LARGEST_CORRECTION)) return false;
  std::copy_n(str->x, str->nvar, str->work);
  for (long j = 0; j < str->nvar; ++j) {
    const int koc = str->bounds != 0 ? str->iabc[j] : 0;
    str->x[j] = koc != 0 ? bound_value(str, j, koc) : str->x[j] + str->sdir[j];
  }
  const bool good = is_feasible(str) && evaluate_objective(str);
  if (!good) std::copy_n(str->work, str->nvar, str->x);
  if (!good && !evaluate_objective(str)) return false;
  str->cold = str->crit;
  run.full_steps = 0;
  if (!evaluate_gradient(str)) return false;
  measure_point(str, run);
  return good;
}

static Next report_unbounded(MINSTR* str, QuadraticRun& run) {
  static constexpr int UNBOUNDED_BELOW = 40;
  static constexpr int UNBOUNDED_ABOVE = 41;
  str->alfa = str->ssin;
  if (str->unbd == 0) xpmlog(OPTIMIZATION, str->imax != 0 ? UNBOUNDED_ABOVE : UNBOUNDED_BELOW);
  str->unbd = 1;
  run.ij = NO_PROGRESS;
  return Next::finish;
}

// ---- One iteration ------------------------------------------------------------------------------

// Changes the working set at x until a direction is found that the members allow, or x is a
// solution. go_on: direction, stub and, if one blocks, the constraint met.
static Next settle(MINSTR* str, QuadraticRun& run, Member* met) {
  for (; !exhausted(str, run); ++run.idle) {
    if (choose_direction(str, run)) {
      *met = limit_step(str, run);
      return Next::go_on;
    }
    if (release(str, run)) {
      run.untested = true;
    } else if (!restore_members(str, run)) {
      return at_solution(str, run);
    }
  }
  run.ij = NO_PROGRESS;
  return Next::finish;
}

// A step of length zero: what blocks it enters the working set. Of several bounds that left
// together one should have stayed then.
static void enter_at_once(MINSTR* str, QuadraticRun& run, const Member& met) {
  ++run.idle;
  run.untested = true;
  if (bounds_alone(str)) {
    run.single = run.longest_single;
    run.longest_single = std::min(2 * run.longest_single, str->nvar);
    put_on_bound(str, run, met);
    if (cycling(str, run)) {
      str->iabc[met.ic] = met.koc;
      ++str->nabc;
      index_bounds(str, run);
    } else {
      enter_bounds(str, run);
    }
  } else {
    enter_row(str, run, met);
  }
  measure_point(str, run);
}

// The working set at the new point, and chac, which tells the termination test whether x is the
// minimizer on it.
static void revise_set(MINSTR* str, QuadraticRun& run, const Member& met, bool bent) {
  const bool blocked = met.ic >= 0 && !bent && str->alfa >= str->stub;
  if (blocked && bounds_alone(str)) put_on_bound(str, run, met);
  if (blocked && !bounds_alone(str)) enter_row(str, run, met);
  if ((blocked || bent) && bounds_alone(str)) enter_bounds(str, run);
  if (blocked && bounds_alone(str)) {
    run.sweeps_due = run.sweeps && run.course == Course::newton && str->nvar > MANY;
  }
  measure_point(str, run);
  const bool minimizer = run.course == Course::newton && !bent && !blocked && str->alfa >= 1.0;
  if (minimizer) ++run.full_steps;
  if (!minimizer && reduced_dimension(str) > 0) {
    if (str->chac == 0) str->chac = 1;
  } else if (!release(str, run) && restore_members(str, run)) {
    str->chac = 1;
  }
}

// Moves x. go_on: x has moved to a lower value, bent or by alfa sdir.
static Next move_on(MINSTR* str, QuadraticRun& run, Member* met, bool* bent) {
  for (;;) {
    if (const Next next = settle(str, run, met); next != Next::go_on) return next;
    const double length = std::min(run.natural, str->stub);
    if (!(length < HUGE_VALUE)) return report_unbounded(str, run);
    const bool blocked = str->stub < run.natural && !moves(str, length, 10.0 * NEGLIGIBLE_STEP);
    if (!blocked || bounds_alone(str)) start_iteration(str);
    *bent = take_bent_step(str, run);
    if (*bent) return Next::go_on;
    if (blocked) {
      enter_at_once(str, run, *met);
      continue;
    }
    if (take_step(str, run)) return Next::go_on;
    return_to_xold(str);
    str->tbig = 0.0;
    if (run.course == Course::newton && -run.gs <= 100.0 * value_rounding(str, run)) {
      run.full_steps = MOST_REFINEMENTS;  // x is the minimizer, as far as values tell
      continue;
    }
    if (met->ic >= 0 && !moves(str, length, LARGEST_CORRECTION)) {  // too short for values to tell
      enter_at_once(str, run, *met);
      continue;
    }
    run.ij = NO_PROGRESS;
    return Next::finish;
  }
}

// Where rounding alone exceeds the tolerance, far from the origin or for rows of large
// coefficients, the members are satisfied anew and the tolerance is widened, before feasibility
// counts as lost; and it is not lost to rounding.
static Next stay_feasible(MINSTR* str, QuadraticRun& run) {
  static constexpr int WIDEST = 3;
  if (!has_constraints(str)) return Next::go_on;
  if (znlpfch(str, 0, 0, str->ipre) != 0) restore_members(str, run);
  while (str->ipre < WIDEST && znlpfch(str, 0, 0, str->ipre) != 0) ++str->ipre;
  return is_feasible(str) ? Next::go_on : keep_feasible(str, &run.ij);
}

// The iteration as sweeps, or as a step on the working set.
static Next make_progress(MINSTR* str, QuadraticRun& run) {
  if (run.sweeps_due && sweep(str, run)) return Next::go_on;
  Member met;
  bool bent = false;
  const Next next = move_on(str, run, &met, &bent);
  if (next != Next::go_on) return next;
  run.idle = 0;
  if (run.single > 0) --run.single;
  str->chac = 0;
  str->pred = -run.gs;
  revise_set(str, run, met, bent);
  return Next::go_on;
}

static Next one_iteration(MINSTR* str, QuadraticRun& run) {
  Next next = make_progress(str, run);
  if (next != Next::go_on) return next == Next::solve_again ? Next::go_on : next;
  next = stay_feasible(str, run);
  str->nitr += 1.0;
  if (next != Next::go_on) return next;
  ++str->itre;
  run.untested = str->chac != 0;
  run.ij = str->uster(str, TEST_ITERATION);
  return run.ij == 0 ? Next::go_on : Next::stop;
}

// ---- The technique ------------------------------------------------------------------------------

// Gradient and Hessian at x.
static int gethes(MINSTR* str, int) { return evaluate(str, ORDER_HESSIAN, str->ushes) ? 0 : -2; }

static int load_point(MINSTR* str) {
  static constexpr int REPAIR = -1;
  if (str->isqp == 0) return load_feasible_point(str, REPAIR, gethes, 0);
  const int code = load_function(str);
  return code != 0 ? code : gethes(str, 0);
}

static Next load_start(MINSTR* str, QuadraticRun& run) {
  open_restart(str);
  str->ridg = 0.0;
  run.ij = load_point(str);
  if (run.ij != 0) return Next::leave;
  if (!restart_makes_progress(str, run.guard)) {
    run.ij = NO_PROGRESS;
    return Next::finish;
  }
  if (has_constraints(str)) forget_deferred(str);
  if (bounds_alone(str)) znlpinc(str, 0);
  double* room = str->wrk2 + (QUADAS_WORK - 4) * str->nvar;
  run.reduced.scale = room;
  run.reduced.unit = room + str->nvar;
  run.sizes = room + 2 * str->nvar;
  run.rg = str->lincon != 0 ? str->gpro : room + 3 * str->nvar;
  measure_hessian(str, run.reduced);
  run.reduced.current = false;
  set_changed(run);
  measure_point(str, run);
  // A gradient of zero makes no solution: x may be a saddle point, or leave its constraints.
  const bool minimizer = !choose_direction(str, run) && !release(str, run);
  run.untested = !minimizer;
  if (!minimizer && str->chac == 0) str->chac = 1;
  return Next::go_on;
}

static int end_stage(MINSTR* str, QuadraticRun& run) {
  return finish_run(str, run.ij, [](MINSTR* s) { return gethes(s, 0); });
}

int znlpqas(MINSTR* str) {
  open_run(str);
  str->ngrd = 0;
  str->stub = HUGE_VALUE;
  str->spro = str->wrk2;
  QuadraticRun run;
  return technique_loop<QuadraticRun>(str, run, {load_start, one_iteration, end_stage});
}

}  // namespace tqnlp
