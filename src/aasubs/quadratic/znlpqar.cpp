// znlpqar: QUADratic Active set in the Range space (QUADAS, barrier form), technique 16 with
// vers 1.
//
// Model      q(x) = c + g'x + x'Hx / 2 with H positive definite. On a working set the step d to the
//            minimizer comes from the frame of znlpftr.h: d = -L^-T w, g'd = -w'w, d'Hd = w'w, so
//            that the slope, the value after a step and the vectors themselves follow by formula.
//            A constraint that cuts the step enters; at a minimizer the inequality with the most
//            negative multiplier leaves.
// Reference  Goldfarb and Idnani (1983), Mathematical Programming 27; Harris (1973), Mathematical
//            Programming 5, for the ratio test; Bertsekas (1982), SIAM J. Control 20, for the step
//            that is bent along the bounds
// Reads      hess in the form hfrm or utquad, qvec, qcon, bounds, lincon, deat; termination group
// Writes     x, crit, grad, gmax, pred, dfes, alfa, stub, chac, mini, counters; half, the frame
// Work       wrk2 = product with H (n) | step along the bounds (n) | scale (n) | sizes of the
// gradient
//            (n); what the frame uses
//            ldco = for bounds (n) and rows (ncon) the number of a working set that cannot take
//            them
// Ends       codes of uster; -1, -2, -6 failed loads; -2 H not positive definite (said in the log);
//            -5 no step
//
//   1  load function, gradient, factor and frame at the start or restart point
//   2  direction; at a minimizer of the working set a constraint leaves
//   3  ratio test; a step of length zero only changes the working set, and is no iteration
//   4  step, bent along the bounds where it gains; gradient and value by formula
//   5  the true value: where the formula has lost it, a restart from the last point
//   6  change of the working set, termination test
//
// The termination test sees chac nonzero, and tests no criterion, until x is a minimizer on its
// working set and no constraint wants to leave it.
#include "aasubs/quadratic/znlpqar.h"

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/members.h"
#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpba1.h"
#include "aasubs/constraints/znlpbas.h"
#include "aasubs/constraints/znlpftr.h"
#include "aasubs/loop/loads.h"
#include "aasubs/quadratic/quadas_run.h"
#include "host/log.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr double MULTIPLIER_ZERO = 1e-10;       // of the gradient's size
static constexpr double ROUNDING_SLOPE = HUNDRED_EPS;  // of the terms that a slope is the sum of
static constexpr double RATIO_TOLERANCE = 1e-4;        // of the feasibility tolerance, for rows
static constexpr double BOUND_ROUNDING = 10.0 * EPS;
static constexpr double RELAXATION = 0.1;              // the same, of rows at a degenerate point
static constexpr long FIRST_RELAXED = 20;              // change of the working set in place
static constexpr double ROUNDING_LENGTH = 10.0 * EPS;  // of w, against u
static constexpr double LOST_VALUE = 1e-6;             // rise of the true value, of its size
static constexpr int MOST_BENDS = 4;                   // lengths tried along the bounds

// What the iterations of one run share.
struct BarrierRun : QuadasRun {
  double* scale = nullptr;  // of each parameter: |H(i,j)| <= scale[i] scale[j]
  double* sizes = nullptr;  // of what each element of the gradient is the sum of
  double deat = 0.0;        // the user's
  bool fresh = false;       // do grad and u, v, w come from x itself?
  bool blocks = true;       // may several bounds leave at once?
  bool relaxed = false;     // do rows give way?
  bool broken = false;      // the factor of the free parameters failed
  long set_number = 1;      // of the working set; the mark of a constraint that it cannot take
};

static double* product_room(const MINSTR* str) { return str->wrk2; }
static double* bent_room(const MINSTR* str) { return str->wrk2 + str->nvar; }

// Changes in place that come to no end. Rows then give way by random parts of the tolerance of
// feasibility: no more than as many constraints as parameters meet in a point now, so that steps
// have a length and the objective falls. Bounds, which are independent, stay. The rows that hold at
// the solution are satisfied exactly there.
static double relaxation(const MINSTR* str, const BarrierRun& run, long i) {
  if (!run.relaxed) return 0.0;
  const unsigned hash = (static_cast<unsigned>(i) + 1U) * 2654435761U;
  const double share = 0.1 + 0.9 * static_cast<double>(hash >> 8U) / 16777216.0;
  return share * RELAXATION * feasibility_tolerance(str, str->ipre);
}

// ---- The quadratic ------------------------------------------------------------------------------

// Product of H with x on the free parameters, plus g: the gradient at x.
static void product_on_free(MINSTR* str, double* gradient) {
  double* free_part = bent_room(str);
  vzfdl(0.0, free_part, str->nvar);
  if (has_constraints(str)) {
    for (long l = 0; l < free_count(str); ++l) free_part[str->ifxr[l]] = str->x[str->ifxr[l]];
  } else {
    std::copy_n(str->x, str->nvar, free_part);
  }
  quadratic_product(str, free_part, gradient);
  zvxay11(str->nvar, gradient, 1.0, frame_g(str));
}

// The true value at x, into crit: c + (q + gradient)'x / 2. job nonzero: the gradient at x stands
// in product_room. False when it is no number.
static bool fqad(MINSTR* str, int job) {
  const long n = str->nvar;
  double* gradient = product_room(str);
  if (job == 0) product_on_free(str, gradient);
  const double linear = zvdot11(n, str->qvec, str->x);
  str->crit = str->qcon + 0.5 * (linear + zvdot11(n, gradient, str->x));
  str->func[0] = str->crit;
  return std::isfinite(str->crit);
}

// The true gradient; job as above.
static void gqad(MINSTR* str, int job) {
  if (job == 0) product_on_free(str, product_room(str));
  std::copy_n(product_room(str), str->nvar, str->grad);
}

// The gradient after the step alfa sdir.
static void znlpggn(MINSTR* str, double alfa) {
  quadratic_product(str, str->sdir, product_room(str));
  zvxay11(str->nvar, str->grad, alfa, product_room(str));
}

// Sizes against which rounding is judged. A diagonal matrix keeps the parameters apart.
static void measure_point(MINSTR* str, BarrierRun& run) {
  static constexpr int DIAGONAL = 2;
  double largest = 0.0;
  for (long j = 0; j < str->nvar; ++j) {
    largest = std::max(largest, run.scale[j] * std::fabs(str->x[j]));
  }
  run.value_size = std::fabs(str->crit);
  for (long j = 0; j < str->nvar; ++j) {
    const double x = std::fabs(str->x[j]);
    const double product = str->hfrm == DIAGONAL ? run.scale[j] * x : largest;
    run.sizes[j] = std::max({run.scale[j] * product, std::fabs(str->qvec[j]), TINY});
    run.value_size += x * run.sizes[j];
  }
}

// ---- The working set ----------------------------------------------------------------------------

static void set_changed(MINSTR* str, BarrierRun& run, int status) {
  run.full_steps = 0;
  ++run.set_number;
  run.restored = false;
  if (status < 0) run.broken = true;
  if (has_constraints(str)) forget_deferred(str);
}

// Gradient, u, v, w from x itself.
static void refresh(MINSTR* str, BarrierRun& run) {
  if (run.fresh) return;
  gqad(str, 0);
  inuvwg(str, str->half);
  run.fresh = true;
}

// Number of the last working set that could not take m: it depends on the members, by rounding.
static long& skip_mark(const MINSTR* str, const Member& m) {
  return str->ldco[m.koc != 0 ? m.ic : str->nvar + m.ic];
}

static bool is_skipped(const MINSTR* str, const BarrierRun& run, const Member& m) {
  return skip_mark(str, m) == run.set_number;
}

// The parameter of a bound goes onto it. Value and gradient follow: a later step would otherwise
// seem to lead uphill.
static void put_on_bound(MINSTR* str, const Member& m) {
  const double bound = bound_value(str, m.ic, m.koc);
  const bool moved = str->x[m.ic] != bound;
  str->x[m.ic] = bound;
  if (moved) {
    fqad(str, 0);
    str->cold = std::max(str->cold, str->crit);
  }
  gqad(str, moved ? 1 : 0);
}

// A constraint that cut the step enters. One that depends on the members, which its slope says it
// does by rounding alone, is left out until the set changes.
static void enter(MINSTR* str, BarrierRun& run, const Member& m, double alfa) {
  if (m.koc != 0) put_on_bound(str, m);
  const int status = znlpupr(str, 0, m.koc, m.ic, alfa, str->half);
  if (status == 1) {
    forget_deferred(str);
    if (m.koc == 0) {
      frame_advance(str, alfa);
    } else {
      inuvwg(str, str->half);  // x and the gradient have moved onto the bound
    }
    run.fresh = m.koc != 0;
    skip_mark(str, m) = run.set_number;
    return;
  }
  ++str->chac;
  run.fresh = m.koc != 0;
  set_changed(str, run, status);
}

// All free parameters that stand on the bound to which the direction leads them. False: none.
static bool enter_bounds(MINSTR* str, BarrierRun& run) {
  long entered = 0;
  for (long j = 0; str->bounds != 0 && j < str->nvar; ++j) {
    if (str->iabc[j] != 0 || str->sdir[j] == 0.0) continue;
    const int koc = str->sdir[j] < 0.0 ? 1 : -1;
    if (str->x[j] != bound_value(str, j, koc)) continue;
    str->iabc[j] = koc;
    ++entered;
  }
  if (entered == 0) return false;
  str->nabc += entered;
  str->chac += entered;
  run.fresh = true;
  set_changed(str, run, renew_frame(str, str->half));
  return true;
}

static bool chosen_by_user(const BarrierRun& run) { return !wzmis(run.deat) && run.deat > 0.0; }

// The multiplier that counts as zero, for a gradient of unit length: what the gradient's elements
// leave uncertain where the constraint has coefficients. Rows bring what they take off the gradient
// into the multiplier of a bound.
static double multiplier_tolerance(MINSTR* str, const BarrierRun& run, const Member& m) {
  if (chosen_by_user(run)) return run.deat;
  if (m.koc != 0) {
    const double of_rows = str->nalc > 0 ? std::fabs(str->grad[m.ic] - str->gpro[m.ic]) : 0.0;
    return MULTIPLIER_ZERO * std::max(run.sizes[m.ic], of_rows);
  }
  const double* row = gradient_of(str, m);
  double size = 0.0;
  for (long j = 0; j < str->nvar; ++j) {
    if (row[j] != 0.0) size = std::max(size, run.sizes[j]);
  }
  return MULTIPLIER_ZERO * size;
}

// The one threshold of the frame's own choice, which all multipliers above it pass.
static void set_frame_threshold(MINSTR* str, const BarrierRun& run) {
  if (!chosen_by_user(run)) str->deat = MULTIPLIER_ZERO * zvamx(str->nvar, run.sizes);
}

// Bounds with the wrong sign leave together, as long as that does not lead to a step that is
// blocked at once.
static bool release_bounds(MINSTR* str, BarrierRun& run) {
  long left = 0;
  for (long i = 0; i < str->nabc; ++i) {
    const long j = str->ifxr[free_count(str) + i];
    if (str->iabc[j] == 2 || !(str->lagm[i] < 0.0)) continue;
    if (!(str->lagm[i] < -multiplier_tolerance(str, run, {str->iabc[j], j}))) continue;
    str->iabc[j] = 0;
    ++left;
  }
  if (left == 0) return false;
  str->nabc -= left;
  int status = renew_frame(str, str->half);
  if (status == 0 && str->nldc > 0) status = std::min(znlpldr(str, str->half), 0);
  set_changed(str, run, status);
  return true;
}

// The member whose multiplier, for a gradient of unit length, is the most negative; of a cycle any.
static bool release_scaled(MINSTR* str, BarrierRun& run) {
  double highest = 0.0;
  Member worst;
  for (long i = 0; i < str->nabc + str->nalc; ++i) {
    const Member m = member(str, i);
    if (!may_leave(str, m) || !(str->lagm[i] < 0.0)) continue;
    const double length = m.koc != 0 ? 1.0 : zvenorm(str->nvar, 1, gradient_of(str, m));
    const double lambda = length * str->lagm[i];
    if (!(lambda < -multiplier_tolerance(str, run, m))) continue;
    const double worth = cycling(str, run) ? lot(run) : -lambda;
    if (worth <= highest) continue;
    worst = m;
    highest = worth;
  }
  if (worst.ic < 0) return false;
  int status = znlpdor(str, worst.koc, worst.ic, 0.0, str->half);
  if (status == 0 && str->nldc > 0) status = std::min(znlpldr(str, str->half), 0);
  set_changed(str, run, status);
  return true;
}

static bool release_one(MINSTR* str, BarrierRun& run) {
  if (!cycling(str, run)) {
    const int status = znlpdar(str, 0.0, str->half);
    if (status != 0) {
      set_changed(str, run, status);
      return true;
    }
  }
  return release_scaled(str, run);
}

// At a minimizer of the working set: what wants to leave it, leaves. False: nothing does.
static bool release(MINSTR* str, BarrierRun& run) {
  refresh(str, run);
  frame_projection(str);
  const long before = str->nabc + str->nalc;
  if (before == 0) return false;
  str->mini = static_cast<long>(str->nitr);
  set_frame_threshold(str, run);
  const bool block = run.blocks && run.idle == 0;
  if (!(block && release_bounds(str, run)) && !release_one(str, run)) return false;
  str->chac = -1;
  str->idac = str->nabc + str->nalc - before;
  frame_projection(str);
  return true;
}

// ---- Direction and ratio test -------------------------------------------------------------------

// Does a step of this length move a parameter by more than this share of its size? One near zero
// has the size that the sizes of the gradient stand for, at most 1.
static bool moves(const MINSTR* str, const BarrierRun& run, double length, double least) {
  double largest = 0.0;
  for (long j = 0; j < str->nvar; ++j) largest = std::max(largest, run.sizes[j] / run.scale[j]);
  for (long j = 0; j < str->nvar; ++j) {
    const double size = std::max(std::min(1.0, largest / run.scale[j]), std::fabs(str->x[j]));
    if (std::fabs(length * str->sdir[j]) > least * size) return true;
  }
  return false;
}

// False: x is a minimizer on the working set.
static bool choose_direction(MINSTR* str, BarrierRun& run) {
  if (free_count(str) <= str->nalc || run.full_steps >= MOST_REFINEMENTS) return false;
  const double length = zvenorm(str->nvar, 1, frame_w(str));
  str->pred = length < ROOT_HUGE ? 0.5 * length * length : HUGE_VALUE;
  if (length <= ROUNDING_LENGTH * zvenorm(str->nvar, 1, frame_u(str))) return false;
  frame_direction(str, str->half);
  return str->pred > SMALLEST_TOLERANCE && moves(str, run, 1.0, NEGLIGIBLE_STEP);
}

// Is the slope of row i, which stands in awrk, more than the rounding of its terms? The length of
// the step says nothing of that where parameters differ in size.
static bool slope_is_clear(const MINSTR* str, double slope) {
  double terms = 0.0;
  for (long j = 0; j < str->nvar; ++j) terms += std::fabs(str->awrk[j] * str->sdir[j]);
  return slope < -ROUNDING_SLOPE * terms;
}

template <class Visit>
static void visit_bounds(const MINSTR* str, const BarrierRun& run, Visit visit) {
  for (long l = 0; str->bounds != 0 && l < free_count(str); ++l) {
    const long j = str->ifxr[l];
    const double d = str->sdir[j];
    if (d == 0.0) continue;
    const Member m{d < 0.0 ? 1 : -1, j};
    const double bound = bound_value(str, j, m.koc);
    if (!lower_exists(bound) || !upper_exists(bound) || is_skipped(str, run, m)) continue;
    visit(Approach{m, -std::fabs(d), std::fabs(d), m.koc * (str->x[j] - bound),
                   (std::fabs(bound) + 1.0) * BOUND_ROUNDING});
  }
}

// Calls visit for every constraint outside the working set that the direction approaches.
template <class Visit>
static void visit_approached(MINSTR* str, const BarrierRun& run, Visit visit) {
  const double eps = RATIO_TOLERANCE * feasibility_tolerance(str, str->ipre);
  visit_bounds(str, run, visit);
  if (str->lincon == 0) return;
  long* is_member = str->liwk;
  std::fill_n(is_member, str->ncon, 0L);
  for (long k = 0; k < str->nalc; ++k) is_member[str->iact[k]] = 1;
  for (long i = str->neqc; i < str->ncon; ++i) {
    if (is_member[i] != 0 || is_skipped(str, run, {0, i})) continue;
    const double slope = row_product(str, i, str->sdir);
    if (!(slope < 0.0)) continue;
    str->acget(str, i, str->awrk);
    if (!slope_is_clear(str, slope)) continue;
    const double norm = zvenorm(str->nvar, 1, str->awrk);
    const double scale = std::fabs(str->blcn[i]) + 1.0;
    const double residual = row_product(str, i, str->x) - str->blcn[i];
    const double room = residual + scale * relaxation(str, run, i);
    visit(Approach{{0, i}, slope, -slope / norm, room, scale * eps});
  }
}

static Member stepl(MINSTR* str, BarrierRun& run) {
  return ratio_test(str, run, 1.0, [&](auto visit) { visit_approached(str, run, visit); });
}

// ---- The step -----------------------------------------------------------------------------------

static void clamp_free(MINSTR* str) {
  for (long l = 0; str->bounds != 0 && l < free_count(str); ++l) {
    const long j = str->ifxr[l];
    str->x[j] = std::clamp(str->x[j], str->lb[j], str->ub[j]);
  }
}

static void count_evaluations(MINSTR* str) {
  ++str->nfct;
  ++str->ngrd;
}

// x, gradient and value after the step alfa sdir, by formula: the value falls by the slope, and
// rises by the curvature w'w.
static void fgupd(MINSTR* str, double alfa) {
  str->alfa = alfa;
  zvaxpy(str->x, str->sdir, str->xold, str->nvar, alfa);
  clamp_free(str);
  znlpggn(str, alfa);
  count_evaluations(str);
  const double length = alfa * zvenorm(str->nvar, 1, frame_w(str));
  const double square = length < ROOT_HUGE ? 0.5 * length * length : HUGE_VALUE;
  str->crit = str->crit - 2.0 * alfa * str->pred;
  str->crit += square;
}

// Does x satisfy all rows? Without a tolerance: this is for steps that could be others.
static bool rows_hold(MINSTR* str) {
  for (long i = 0; str->lincon != 0 && i < str->ncon; ++i) {
    if (row_product(str, i, str->x) < str->blcn[i]) return false;
  }
  return true;
}

// x along the bent step of the given length; false when it leaves a row, or the quadratic does not
// fall enough.
static bool bend(MINSTR* str, double length) {
  const long n = str->nvar;
  double* step = bent_room(str);
  zvaxpy(str->x, str->sdir, str->xold, n, length);
  clamp_free(str);
  if (!rows_hold(str)) return false;
  for (long j = 0; j < n; ++j) step[j] = str->x[j] - str->xold[j];
  const double slope = zvdot11(n, str->grad, step);
  if (!(slope < 0.0)) return false;
  quadratic_product(str, step, product_room(str));
  const double change = slope + 0.5 * zvdot11(n, step, product_room(str));
  if (!(change < ENOUGH_DECREASE * slope)) return false;
  zvxay11(n, str->grad, 1.0, product_room(str));
  str->crit += change;
  str->alfa = length;
  count_evaluations(str);
  return true;
}

// The step bent along the bounds: true when it was taken. Otherwise all is as before.
static bool take_bent_step(MINSTR* str, const BarrierRun& run) {
  const bool rows = str->neqc > 0 || str->nalc > 0;  // a bent step would leave them
  if (str->bounds == 0 || rows || !(str->stub < 1.0) || cycling(str, run)) return false;
  double length = 1.0;
  for (int k = 0; k < MOST_BENDS && length > str->stub; ++k, length *= 0.5) {
    if (bend(str, length)) return true;
  }
  std::copy_n(str->xold, str->nvar, str->x);
  return false;
}

// ---- Solutions ----------------------------------------------------------------------------------

// Rows entered where they were met within tolerance. At a solution they are satisfied exactly, as
// far as that keeps x feasible. True when x moved.
static bool restore_members(MINSTR* str, BarrierRun& run) {
  if (run.restored || str->nalc == 0) return false;
  run.restored = true;
  frame_correction(str, str->half);
  if (!moves(str, run, 1.0, NEGLIGIBLE_STEP)) return false;
  double* before = bent_room(str);
  std::copy_n(str->x, str->nvar, before);
  for (long j = 0; j < str->nvar; ++j) str->x[j] += str->sdir[j];
  clamp_free(str);
  if (znlpfch(str, 0, 0, str->ipre) != 0) {
    std::copy_n(before, str->nvar, str->x);
    return false;
  }
  fqad(str, 0);
  gqad(str, 1);
  inuvwg(str, str->half);
  frame_projection(str);
  str->cold = str->crit;
  run.full_steps = 0;
  return true;
}

// Ends a run that cannot go on, or may not. At a vertex the termination test would take x for the
// solution, though a multiplier may have the wrong sign: it is not asked there.
static Next give_up(MINSTR* str, BarrierRun& run, int code) {
  run.ij = code;
  if (str->nabc + str->nalc < str->nvar) return Next::finish;
  if (!evaluate_objective(str)) {
    run.ij = FUNCTION_FAILED;
  } else if (!evaluate_gradient(str)) {
    run.ij = -4;
  }
  return Next::leave;
}

// ---- One iteration ------------------------------------------------------------------------------

// Changes the working set at x until a direction is found that the members allow, or x is a
// solution. go_on: direction, stub and, if one blocks, the constraint met.
static Next settle(MINSTR* str, BarrierRun& run, Member* met) {
  for (; !(run.broken || exhausted(str, run)); ++run.idle) {
    if (const int limit = limit_reached(str); limit != 0) return give_up(str, run, limit);
    if (run.idle >= FIRST_RELAXED) run.relaxed = true;
    if (choose_direction(str, run)) {
      *met = stepl(str, run);
      if (met->ic < 0 || moves(str, run, str->stub, 10.0 * NEGLIGIBLE_STEP)) return Next::go_on;
      // a step of length zero: of several bounds that left together one should have stayed
      run.untested = true;
      run.blocks = false;
      if (!enter_bounds(str, run)) enter(str, run, *met, 0.0);
    } else if (release(str, run)) {
      run.untested = true;
    } else if (!restore_members(str, run)) {
      return at_solution(str, run);
    }
  }
  return give_up(str, run, NO_PROGRESS);
}

// The true value against the one by formula: 0; -2 the formula has lost it, -1 it is no number, and
// x is the last point again. A rise that is rounding counts as no change, by way of cold.
static int check_value(MINSTR* str, const BarrierRun& run) {
  const bool finite = fqad(str, 0);
  str->dfes = str->cold - str->crit;
  if (!finite || str->dfes < -LOST_VALUE * std::max(1.0, std::fabs(str->cold))) {
    return_to_xold(str);
    return finite ? -2 : -1;
  }
  if (str->dfes < 0.0 && str->dfes >= -value_rounding(str, run)) {
    str->cold = str->crit;
    str->dfes = 0.0;
  }
  gqad(str, 1);
  return 0;
}

// The frame at the new point, and chac, which tells the termination test whether x is the minimizer
// on the working set.
static void revise_set(MINSTR* str, BarrierRun& run, const Member& met, bool bent) {
  bool minimizer = false;
  if (bent) {
    run.fresh = true;
    if (!enter_bounds(str, run)) inuvwg(str, str->half);
  } else if (met.ic >= 0) {
    run.fresh = false;
    enter(str, run, met, str->alfa);
  } else {
    inuvwg(str, str->half);
    run.fresh = true;
    minimizer = true;
    ++run.full_steps;
  }
  frame_projection(str);
  if (!minimizer && free_count(str) > str->nalc) {
    if (str->chac == 0) str->chac = 1;
  } else if (!release(str, run)) {
    str->chac = restore_members(str, run) ? 1 : 0;
  }
}

static Next one_iteration(MINSTR* str, BarrierRun& run) {
  Member met;
  Next next = settle(str, run, &met);
  if (next != Next::go_on) return next == Next::solve_again ? Next::go_on : next;
  start_iteration(str);
  str->chac = str->idac = 0;
  const bool bent = take_bent_step(str, run);
  if (!bent) fgupd(str, str->stub);
  str->nitr += 1.0;
  if (const int code = check_value(str, run); code != 0) {
    if (str->itre > 0) return Next::restart;
    run.ij = code;
    return Next::leave;
  }
  run.idle = 0;
  measure_point(str, run);
  revise_set(str, run, met, bent);
  next = keep_feasible(str, &run.ij);
  if (next != Next::go_on) return next;
  ++str->itre;
  run.untested = str->chac != 0;
  // A vertex that is to be left, though a constraint that waited has entered for the one that left:
  // the termination test would take it for the end. The limits are looked at before the next step.
  if (str->chac != 0 && free_count(str) <= str->nalc) return Next::go_on;
  run.ij = str->uster(str, TEST_ITERATION);
  return run.ij == 0 ? Next::go_on : Next::stop;
}

// ---- The technique ------------------------------------------------------------------------------

static Next refuse_matrix(MINSTR* str, BarrierRun& run) {
  static constexpr int NOT_DEFINITE = 145;
  xpmlog(OPTIMIZATION, NOT_DEFINITE);
  if (str->dbug != 0.0) xpmout(OPTIMIZATION, NOT_DEFINITE);
  run.ij = -2;
  return Next::leave;
}

// Notes what is active at x. An inequality at some distance, though within the tolerance of
// feasibility, does not count: with a large right side that may be a long way. False: x is not
// feasible.
static bool note_active(MINSTR* str) {
  for (long j = 0; str->bounds != 0 && j < str->nvar; ++j) {
    if (str->iabc[j] != 2) str->iabc[j] = 0;
  }
  str->nalc = str->nabc = str->nldc = str->nlbc = 0;
  if (znlpfch(str, 1, 0, str->ipre) != 0) return false;
  const double eps = RATIO_TOLERANCE * feasibility_tolerance(str, str->ipre);
  const auto stands_off = [str, eps](long i) {
    const double side = str->blcn[i];
    return i >= str->neqc && row_product(str, i, str->x) - side > (std::fabs(side) + 1.0) * eps;
  };
  str->nalc = std::remove_if(str->iact, str->iact + str->nalc, stands_off) - str->iact;
  return true;
}

// Is H positive definite on all parameters that are not fixed? Whatever the working set is, its
// factor then exists.
static bool matrix_is_definite(MINSTR* str) {
  if (str->bounds == 0) return true;  // the frame itself tells
  str->nabc = 0;
  for (long j = 0; j < str->nvar; ++j) {
    if (str->iabc[j] != 2) str->iabc[j] = 0;
    if (str->iabc[j] == 2) ++str->nabc;
  }
  const bool definite = znlpinc(str, 1) == 0;
  note_active(str);
  return definite;
}

// Parameters that stand on their bounds within tolerance stand there exactly from here on, unless
// that breaks a row.
static void settle_on_bounds(MINSTR* str) {
  double* before = bent_room(str);
  std::copy_n(str->x, str->nvar, before);
  for (long j = 0; str->bounds != 0 && j < str->nvar; ++j) {
    if (str->iabc[j] != 0) str->x[j] = bound_value(str, j, str->iabc[j]);
  }
  if (str->lincon != 0 && znlpfch(str, 0, 0, str->ipre) != 0) {
    std::copy_n(before, str->nvar, str->x);
  }
}

// A feasible point, what is active there, function and gradient.
static int load_point(MINSTR* str) {
  if (has_constraints(str)) {
    if (!note_active(str) && (make_feasible(str, -1) < 0 || !note_active(str))) return -6;
    settle_on_bounds(str);
  }
  if (const int code = load_function(str); code != 0) return code;
  return evaluate_gradient(str) ? 0 : -2;
}

static Next load_start(MINSTR* str, BarrierRun& run) {
  const bool first = str->ires == 0 && str->nitr == 0.0;
  open_restart(str);
  run.ij = load_point(str);
  if (run.ij != 0) return Next::leave;
  if (!restart_makes_progress(str, run.guard)) return give_up(str, run, NO_PROGRESS);
  if (first && !matrix_is_definite(str)) return refuse_matrix(str, run);
  measure_point(str, run);
  set_frame_threshold(str, run);
  if (znlpftr(str, 1, 1, str->half) != 0) return refuse_matrix(str, run);
  set_changed(str, run, 0);
  run.fresh = true;
  // A gradient of zero makes no solution: a multiplier may have the wrong sign.
  const bool minimizer = !choose_direction(str, run) && !release(str, run);
  run.untested = !minimizer;
  if (!minimizer && str->chac == 0) str->chac = 1;
  return Next::go_on;
}

static int end_stage(MINSTR* str, BarrierRun& run) {
  return finish_run(str, run.ij, [](MINSTR* s) { return evaluate_gradient(s) ? 0 : -1; });
}

int znlpqar(MINSTR* str) {
  open_run(str);
  str->ngrd = 0;
  str->idac = 0;
  str->stub = HUGE_VALUE;
  str->usclo = znlpclo;
  BarrierRun run;
  run.deat = str->deat;
  run.scale = str->wrk2 + 2 * str->nvar;
  run.sizes = str->wrk2 + 3 * str->nvar;
  quadratic_scale(str, run.scale);
  std::fill_n(str->ldco, str->nvar + str->ncon, 0L);
  const double sing = str->sing;
  // Definite is what rounding does not call into question, on whatever scale.
  str->sing = 0.0;
  const int code = technique_loop<BarrierRun>(str, run, {load_start, one_iteration, end_stage});
  str->sing = sing;
  str->deat = run.deat;
  return code;
}

}  // namespace tqnlp
