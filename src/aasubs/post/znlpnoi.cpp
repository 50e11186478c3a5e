// znlpnoi: NOIse probe, a search for a better point around a claimed solution.
//
// Method     Direct search in the sense of Hooke and Jeeves (1961) without its pattern moves: a
//            sweep over the parameters, then over a basis of the null space of the active
//            constraints, then random points in the box of twice the radius. What differences and
//            rounding hide from a technique is seen at the distance of the noise.
// Reference  Hooke and Jeeves (1961), Journal of the ACM 8, 212-229;
//            Gill, Murray and Wright (1981), section 8.1.5, for points near a claimed solution
// Reads      rtop, aftl, ftol, fsiz, ider, constraints, factor Q
// Writes     x, crit, cold, tbig, the working set at x
// Work       xold = base point | sdir = direction | work = best point | awrk = constraint row
//            gold = coefficients of a null-space direction
//
//   1  a feasible base, its value and its largest violation
//   2  parameters one by one, both ways
//   3  null-space columns, both ways          (only while nothing better is known)
//   4  random points                          (only while nothing better is known)
//   5  a small decrease is left to a line search
#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpba1.h"
#include "aasubs/constraints/znlpbas.h"
#include "aasubs/linesearch/znlplis.h"
#include "aasubs/post/stop_analysis.h"
#include "kernels/vector.h"
#include "kernels/zranuni.h"

namespace tqnlp {

static constexpr double DEFAULT_RADIUS = 0.1;
static constexpr double CLOSER = 0.1;  // share of the radius in the course of a run
static constexpr int RANDOM_PASSES = 20;
static constexpr int FEWER_PASSES = 10;
static constexpr long SEED = 3;                // in every call: the probe is reproducible
static constexpr double WIDE_BOX = 10.0;       // a random point is moved back by a unit, not halved
static constexpr double BACK = 0.1;            // share of a large bound that it is moved back
static constexpr double LEAST_SLOPE = -1e-08;  // a slope above it is none: no line search
static constexpr double SLOPE_SHARE = 0.25;    // of the slope: a decrease that needs no proof

namespace {

struct Probe {
  double radius = 0.0;     // del
  double length = 0.0;     // del2, the norm of a null-space direction
  double base = 0.0;       // value at xold; the largest double when there is none
  double limit = 0.0;      // largest violation that a trial may have
  double best = 0.0;       // value of the best trial, or base
  double violation = 0.0;  // of the best trial
  bool found = false;
};

// What a probe that finds nothing leaves as it was.
struct Entry {
  double crit;
  double tbig;
  double cmax;
  long chac;
  long idac;
};

}  // namespace

static bool has_general_constraints(const MINSTR* str) {
  return str->lincon != 0 || str->nlicon != 0;
}

static bool has_constraints(const MINSTR* str) {
  return str->bounds != 0 || has_general_constraints(str);
}

// Calls the objective at x; false when it failed or is no number.
static bool evaluate(MINSTR* str) {
  str->ifdr = ORDER_FUNCTION;
  return str->usfct(str) == 0 && str->tbig == 0.0 && !std::isnan(str->crit);
}

// ---- The working set at x ----------------------------------------------------------------------

// Statuses and lists at x, from nothing but x: a status from before may belong to a bound that x
// has left. Nonlinear constraints stay outside: their Jacobian is not known at trial points.
static bool collect_active(MINSTR* str) {
  // Fixed parameters stay fixed.
  if (str->bounds != 0) {
    for (long j = 0; j < str->nvar; ++j) {
      if (str->iabc[j] != 2) str->iabc[j] = 0;
    }
  }
  return znlpfch(str, 1, 0, str->ipre) == 0;
}

// The frame that belongs to the statuses. A run that keeps none (direct search with general
// constraints) or another one (range space) goes without.
static void rebuild_frame(MINSTR* str, int release) {
  if (has_general_constraints(str) ? str->opro == 1 : str->bounds != 0) {
    znlpfta(str, release, 0, 0, nullptr, nullptr, nullptr);
  }
}

// Are there null-space columns to follow? Q is read directly here, so that it counts as soon as it
// is in use, be it for linear or for nonlinear constraints.
static bool has_null_space(const MINSTR* str) {
  return str->opro == 1 && has_general_constraints(str) &&
         (uses_full_frame(str->tech) || str->nalc > 0) && reduced_dimension(str) > 0;
}

// ---- Base --------------------------------------------------------------------------------------

static double bound_violation(const MINSTR* str) {
  double largest = 0.0;
  for (long j = 0; str->bounds != 0 && j < str->nvar; ++j) {
    largest = std::max({largest, str->lb[j] - str->x[j], str->x[j] - str->ub[j]});
  }
  return largest;
}

// Makes x feasible for bounds and linear constraints. Constraints may leave the working set where
// the gradient belongs to x. False: there is no feasible base.
static bool make_base_feasible(MINSTR* str, bool* moved) {
  *moved = false;
  if (!has_constraints(str)) return true;
  if (!collect_active(str)) {
    if (str->opro == 2 || znlpfea(str, -1) < 0) return false;
    *moved = true;  // the gradient is that of another point now: nothing may leave by it
    collect_active(str);
  }
  rebuild_frame(str, has_general_constraints(str) && str->ider != 0 && !*moved ? 1 : 0);
  return true;
}

// What rounding makes of the residual of a row: on an equality, two points never have the same.
static double residual_rounding(MINSTR* str) {
  double largest = 0.0;
  for (long i = 0; str->lincon != 0 && i < str->ncon; ++i) {
    str->acget(str, i, str->awrk);
    double sum = std::fabs(str->blcn[i]);
    for (long j = 0; j < str->nvar; ++j) sum += std::fabs(str->awrk[j] * str->x[j]);
    largest = std::max(largest, sum);
  }
  return static_cast<double>(str->nvar + 1) * EPS * largest;
}

// Value and violation at the base, and the copy of it in xold. A technique may stop at a good point
// while tbig still tells of a failed trial: the value is then asked for again. To take the base for
// the largest double would be simpler, and would make any point in reach a better one: a run that
// failed near its solution would be led away uphill.
static void measure_base(MINSTR* str, Probe& probe, bool moved) {
  const bool stale = moved || str->tbig != 0.0 || std::isnan(str->crit) || str->nlicon != 0;
  const bool known = !stale || evaluate(str);
  probe.base = known ? str->crit : HUGE_VALUE;
  probe.limit = std::max(known ? gtcmx(str) : 0.0, bound_violation(str)) + residual_rounding(str);
  probe.best = probe.base;
  std::copy_n(str->x, str->nvar, str->xold);
}

// ---- Trials ------------------------------------------------------------------------------------

// Judges the trial in x, and keeps it in work if it is the best so far. An infeasible point is not
// evaluated where that can be known before: the objective may be undefined there.
static bool try_point(MINSTR* str, Probe& probe) {
  double violation = 0.0;
  if (str->nlicon == 0) {
    violation = gtcmx(str);
    if (!(violation <= probe.limit) || !evaluate(str)) return false;
  } else {
    if (!evaluate(str)) return false;
    // The module of the constraints must not disturb the value.
    const double value = str->crit;
    violation = gtcmx(str);
    str->crit = value;
  }
  if (!(violation <= probe.limit && str->crit < probe.best)) return false;
  std::copy_n(str->x, str->nvar, str->work);
  probe.best = str->crit;
  probe.violation = violation;
  probe.found = true;
  return true;
}

static double clip(const MINSTR* str, long j, double value) {
  if (str->bounds == 0) return value;
  return std::max(std::min(value, str->ub[j]), str->lb[j]);
}

static void return_to_base(MINSTR* str) { std::copy_n(str->xold, str->nvar, str->x); }

static void sweep_parameters(MINSTR* str, Probe& probe) {
  for (long j = 0; j < str->nvar; ++j) {
    // A parameter on an active bound takes part: the way inside may be the better one.
    if (str->bounds != 0 && str->iabc[j] == 2) continue;
    const double xj = str->xold[j];
    const double d = std::max(probe.radius, probe.radius * std::fabs(xj));
    for (const double sign : {1.0, -1.0}) {
      str->x[j] = clip(str, j, xj + sign * d);
      if (str->x[j] != xj) try_point(str, probe);
    }
    str->x[j] = xj;
  }
}

// sdir := combination of the null-space columns with random coefficients, or column alone, of norm
// length.
static void set_direction(MINSTR* str, const Probe& probe, long column, long* seed) {
  const long order = reduced_dimension(str);
  double* coefficients = str->gold;
  for (long k = 0; k < order; ++k) {
    coefficients[k] = 2.0 * probe.radius * (column < 0 ? zranuni(seed) - 0.5 : k == column);
  }
  vzfdl(0.0, str->sdir, str->nvar);
  for (long l = 0; l < free_count(str); ++l) {
    str->sdir[str->ifxr[l]] = zvdot11(order, str->qlcn + l * str->nvar, coefficients);
  }
  const double norm = zvenorm(str->nvar, 1, str->sdir);
  if (norm > TINY) zvscl11(str->nvar, str->sdir, probe.length / norm);
}

// Goes along sdir as far as the constraints allow, at most its length. False: not at all.
static bool go_along(MINSTR* str) {
  long blocking = -1;
  const int blocked = znlpstl(str, 1, 0, 0, str->xold, str->sdir, &blocking, nullptr);
  if (blocked != 0 || !(str->stub > DIAGONAL_PIVOT_FLOOR)) return false;
  for (long j = 0; j < str->nvar; ++j) {
    str->x[j] = clip(str, j, str->xold[j] + str->stub * str->sdir[j]);
  }
  return true;
}

static void sweep_null_space(MINSTR* str, Probe& probe) {
  for (long k = 0; k < reduced_dimension(str); ++k) {
    set_direction(str, probe, k, nullptr);
    if (go_along(str)) try_point(str, probe);
    zvscl11(str->nvar, str->sdir, -1.0);
    if (go_along(str)) try_point(str, probe);
  }
}

// A random value outside its box goes back inside by a unit (a tenth of a large bound), or to the
// middle of a narrow box.
static double reflect(const MINSTR* str, long j, double value) {
  if (str->bounds == 0) return value;
  const double lb = str->lb[j];
  const double ub = str->ub[j];
  if ((value > ub || value < lb) && lower_exists(lb) && upper_exists(ub)) {
    const bool wide = ub - lb >= WIDE_BOX;
    const double middle = 0.5 * lb + 0.5 * ub;
    const double below_upper = wide ? ub - std::max(1.0, BACK * std::fabs(ub)) : middle;
    const double above_lower = wide ? lb + std::max(1.0, BACK * std::fabs(lb)) : middle;
    if (value > ub) {
      value = below_upper < lb ? above_lower : below_upper;
    } else {
      value = above_lower > ub ? below_upper : above_lower;
    }
  }
  return clip(str, j, value);
}

static void random_point(MINSTR* str, const Probe& probe, long* seed) {
  for (long j = 0; j < str->nvar; ++j) {
    const double xj = str->xold[j];
    double d = 2.0 * probe.radius * (zranuni(seed) - 0.5);
    if (std::fabs(d) < std::fabs(xj * d)) d *= xj;
    str->x[j] = reflect(str, j, xj + d);
  }
}

static void random_trials(MINSTR* str, Probe& probe, int passes) {
  long seed = SEED;
  for (int pass = 0; pass < passes; ++pass) {
    random_point(str, probe, &seed);
    if (try_point(str, probe)) return;
    // With equalities a random point is hardly ever feasible: the second one is, by construction.
    if (!has_null_space(str)) continue;
    set_direction(str, probe, -1, &seed);
    if (!go_along(str) || znlpfch(str, 0, 0, str->ipre) != 0) continue;
    if (try_point(str, probe)) return;
  }
}

// ---- Verdict -----------------------------------------------------------------------------------

static int nothing_found(MINSTR* str, const Probe& probe, const Entry& entry) {
  return_to_base(str);
  if (str->nlicon != 0) {
    gtcmx(str);  // the constraints' values belong to x again
    str->cmax = entry.cmax;
  }
  str->crit = probe.base < HUGE_VALUE ? probe.base : entry.crit;
  str->tbig = entry.tbig;
  str->chac = entry.chac;
  str->idac = entry.idac;
  return 0;
}

static int better_point(MINSTR* str, const Probe& probe) {
  str->tbig = 0.0;
  if (has_constraints(str)) {
    collect_active(str);
    rebuild_frame(str, 0);
    if (str->nlicon != 0) str->cmax = probe.violation;
  }
  return 1;
}

// Is the decrease to the best point, along sdir from xold, too small to be trusted beside what the
// slope promises?
static bool needs_proof(const MINSTR* str, const Probe& probe) {
  if (str->ider == 0 || str->nlicon != 0 || !(probe.base < HUGE_VALUE)) return false;
  const double slope = zvdot11(str->nvar, str->sdir, str->grad);
  const double t = std::max(std::fabs(probe.base), str->fsiz) * str->ftol;
  double threshold = str->aftl;
  if (threshold <= t) {
    threshold = t;
    if (t <= -SLOPE_SHARE * slope) threshold = -SLOPE_SHARE * slope;
  }
  return slope < LEAST_SLOPE && !(probe.base - probe.best > threshold);
}

// Line search by values alone from the base along sdir. True: x and crit are strictly better.
static bool search_confirms(MINSTR* str, const Probe& probe) {
  str->crit = probe.base;
  str->stub = HUGE_VALUE;
  if (has_constraints(str)) {
    long blocking = -1;
    znlpstl(str, 1, 0, 0, str->xold, str->sdir, &blocking, nullptr);
  }
  if (!(str->stub > DIAGONAL_PIVOT_FLOOR)) return false;
  // damp 2 with alfa 1: the first trial is the best point itself.
  const int ider = str->ider;
  const double damp = str->damp;
  const double alfa = str->alfa;
  const double salf = str->salf;
  str->ider = 0;
  str->damp = 2.0;
  str->alfa = str->salf = 1.0;
  const bool good = znlpls6(str) == 0 && str->alfa > TINY && str->crit < probe.base;
  str->ider = ider;
  str->damp = damp;
  str->alfa = alfa;
  str->salf = salf;
  return good;
}

int znlpnoi(MINSTR* str, int job) {
  Entry entry{str->crit, str->tbig, str->cmax, str->chac, str->idac};
  Probe probe;
  // A rtop that is no number of any kind is taken as a missing one.
  probe.radius = str->rtop > TINY ? str->rtop : DEFAULT_RADIUS;
  if (job != 0) probe.radius *= CLOSER;
  probe.length = std::sqrt(probe.radius);

  bool moved = false;
  if (!make_base_feasible(str, &moved)) {
    if (str->nlicon != 0) str->cmax = entry.cmax;
    return 0;
  }
  measure_base(str, probe, moved);
  if (moved) entry.crit = MISSING;  // what stands for the value if the repaired point has none

  sweep_parameters(str, probe);
  if (!probe.found && has_null_space(str)) sweep_null_space(str, probe);
  if (!probe.found) random_trials(str, probe, job != 0 ? FEWER_PASSES : RANDOM_PASSES);
  if (!probe.found) return nothing_found(str, probe, entry);

  str->cold = probe.base;
  for (long j = 0; j < str->nvar; ++j) {
    str->x[j] = str->work[j];
    str->sdir[j] = str->x[j] - str->xold[j];
  }
  if (needs_proof(str, probe)) {
    if (!search_confirms(str, probe)) return nothing_found(str, probe, entry);
  } else {
    str->crit = probe.best;
  }
  return better_point(str, probe);
}

}  // namespace tqnlp
