// znlpfe1: FEasible point by phase one, descent on the sum of infeasibilities
//
//   v(x) = sum of the residuals, without sign, of all constraints that x violates beyond tolerance
//
// v is piecewise linear. A pass takes the steepest descent direction in the null space of the
// working set, scales it to the next kink (where a violated constraint becomes satisfied, or a
// satisfied one is met), and searches along 1, 2, 4, 8 times that length. Constraints that are met
// join the working set; at a stationary point of the set the member with the most negative
// multiplier leaves it, and without one v is minimal: no point is feasible if it is not zero. Gill,
// Murray and Wright, Practical Optimization (1981), section 5.2.
//
// Work: gold = point at the begin of the pass; grad = gradient of v; gpro = Z'grad; sdir = step;
// lagm = multipliers; awrk one row.
#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpba1.h"
#include "aasubs/constraints/znlpbas.h"
#include "aasubs/constraints/znlpfea.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr int MOST_PASSES = 100;
static constexpr int MOST_DOUBLINGS = 100;
static constexpr long SPARE_REVISIONS = 20;             // of the working set at one point
static constexpr double LARGEST_LENGTH = 10.0;          // of the search, in units of the kink
static constexpr double FIRST_CUT = 0.5;                // first length below the kink
static constexpr double CUT = 0.1;                      // of a length that does not improve
static constexpr double IMPROVED = 0.9999999999999889;  // an improvement brings v below this share
static constexpr double LEAST_MOVEMENT = 1.110223024625157e-14;     // squared, of an effective step
static constexpr double LEAST_COMPONENT = 1.4916681469999999e-154;  // of a step, in quotients
static constexpr double DROP_RATIO = 1.110223024625157e-13;    // against the largest multiplier
static constexpr double SLOPE_RATIO = 1e-8;                    // slopes below this share of max |s|
static constexpr double LEAST_SLOPE = 2.225073858507202e-305;  // or below this count as none

// How a pass ended.
enum class Pass { moved, feasible, stuck };

// ---- The infeasibility function ---------------------------------------------------------------

// v into crit, and with job nonzero its gradient into grad. Returns the number of violated
// constraints among the first kcon.
static long lfgrad(MINSTR* str, int job, long kcon, double* crit, double* grad) {
  const long n = str->nvar;
  const long admitted = admitted_constraints(str, kcon);
  const double eps = feasibility_tolerance(str, str->ipre);
  long violated = 0;
  *crit = 0.0;
  if (job != 0) vzfdl(0.0, grad, n);

  for (long j = 0; str->bounds != 0 && j < std::min(n, admitted); ++j) {
    for (const long c : {j, n + j}) {
      const double r = constraint_residual(str, c);
      if (!(r < -residual_tolerance(constraint_side(str, c), eps))) continue;
      ++violated;
      *crit -= r;
      if (job != 0) grad[j] -= c < n ? 1.0 : -1.0;
    }
  }
  for (long i = 0; i < admitted - n; ++i) {
    const double r = constraint_residual(str, 2 * n + i);
    const double size = i < str->neqc ? -std::fabs(r) : r;
    if (!(size < -residual_tolerance(str->blcn[i], eps))) continue;
    ++violated;
    *crit -= size;
    if (job != 0) zvxay11(n, grad, r < 0.0 ? -1.0 : 1.0, str->awrk);
  }
  return violated;
}

// ---- Release ----------------------------------------------------------------------------------

// Drops a member of the working set with a negative multiplier in grad, and lets deferred
// constraints in: the most negative, or with first_one the first in the order of parameters and
// rows, which cannot circle at a point where many constraints meet (Bland 1977). Members beyond
// kcon stay. gpro follows. Returns whether one left.
static bool releas(MINSTR* str, long kcon, bool first_one, double* gpro) {
  const long n = str->nvar;
  const long members = str->nabc + str->nalc;
  const long admitted = admitted_constraints(str, kcon);
  if (members == 0) return false;
  znlpglm(str, 0, str->grad, str->lagm);

  const double threshold = -DROP_RATIO * zvamx(members, str->lagm);
  double least = threshold;
  long leaving = admitted;  // parameters first, rows behind them
  const auto consider = [&](long place, double lambda) {
    if (place >= admitted || !(lambda < threshold)) return;
    if (first_one ? place >= leaving : !(lambda < least)) return;
    least = lambda;
    leaving = place;
  };
  for (long k = 0; k < str->nabc; ++k) {
    const long j = str->ifxr[n - str->nabc + k];
    if (str->iabc[j] != 2) consider(j, str->lagm[k]);
  }
  for (long k = 0; k < str->nalc; ++k) {
    if (str->iact[k] >= str->neqc) consider(n + str->iact[k], str->lagm[str->nabc + k]);
  }
  if (leaving == admitted) return false;
  const int koc = leaving < n ? str->iabc[leaving] : 0;
  znlpdod(str, 0, koc, leaving < n ? leaving : leaving - n, nullptr, gpro, nullptr, nullptr);
  if (str->nldc + str->nlbc > 0) znlpcld(str, 0, nullptr, gpro, nullptr);
  return true;
}

// ---- Step -------------------------------------------------------------------------------------

// Doubles sdir until x really moves by it.
static void make_effective(MINSTR* str) {
  const long n = str->nvar;
  double scale = 1.0;
  for (int k = 0; k < MOST_DOUBLINGS; ++k) {
    double square = 0.0;
    for (long j = 0; j < n; ++j) {
      const double moved = (str->x[j] + scale * str->sdir[j]) - str->x[j];
      square += moved * moved;
    }
    if (square >= LEAST_MOVEMENT) break;
    scale *= 2.0;
  }
  zvscl11(n, str->sdir, scale);
}

// Takes down the step to the kink of a constraint with residual r and slope, if it is the nearest:
// a violated one is approached, or a satisfied one that is not at its limit is met.
static void note_kink(double r, double slope, double tolerance, double* nearest) {
  double t = HUGE_VALUE;
  if (r < -tolerance && slope > 0.0) t = -r / slope;
  if (r > tolerance && slope < 0.0) t = r / -slope;
  *nearest = std::min(*nearest, t);
}

// Scales sdir to the next kink of v. Returns 0, or -2 if there is none.
static int stepl(MINSTR* str, long kcon, double* sdir) {
  const long n = str->nvar;
  const long admitted = admitted_constraints(str, kcon);
  const double eps = feasibility_tolerance(str, str->ipre);
  const double least = std::max(SLOPE_RATIO * zvamx(n, sdir), LEAST_SLOPE);
  double nearest = HUGE_VALUE;
  for (long j = 0; str->bounds != 0 && j < std::min(n, admitted); ++j) {
    for (const long c : {j, n + j}) {
      const double r = constraint_residual(str, c);
      if (!(std::fabs(sdir[j]) > EPS * std::max(std::fabs(r), 1.0))) continue;
      note_kink(r, c < n ? sdir[j] : -sdir[j], residual_tolerance(constraint_side(str, c), eps),
                &nearest);
    }
  }
  for (long i = str->neqc; i < admitted - n; ++i) {
    const double r = constraint_residual(str, 2 * n + i);
    const double slope = zvdot11(n, str->awrk, sdir);
    if (!(std::fabs(slope) > least)) continue;
    note_kink(r, slope, residual_tolerance(str->blcn[i], eps), &nearest);
  }
  if (!(nearest < HUGE_VALUE)) return -2;
  zvscl11(n, sdir, nearest);
  return 0;
}

// ---- Line search ------------------------------------------------------------------------------

// v at gold + alfa sdir; the number of violated constraints there.
static long try_length(MINSTR* str, long kcon, double alfa, double* crit) {
  zvaxpy(str->x, str->sdir, str->gold, str->nvar, alfa);
  return lfgrad(str, 0, kcon, crit, nullptr);
}

// Smallest length that still changes a component of the point.
static double least_length(const MINSTR* str) {
  double least = HUGE_VALUE;
  for (long j = 0; j < str->nvar; ++j) {
    const double s = std::max(std::fabs(str->sdir[j]), LEAST_COMPONENT);
    least = std::min(least, HUNDRED_EPS * std::fabs(str->gold[j]) / s);
  }
  return std::max(least, TINY);
}

// Shortens alfa until v falls below cold. Otherwise the point of the begin is put back.
static Pass armijo(MINSTR* str, long kcon, double alfa, double cold) {
  const double least = least_length(str);
  for (; alfa > least; alfa *= CUT) {
    double crit;
    if (try_length(str, kcon, alfa, &crit) == 0) return Pass::feasible;
    if (crit < IMPROVED * cold) return Pass::moved;
  }
  std::copy_n(str->gold, str->nvar, str->x);
  return Pass::stuck;
}

// Searches along sdir from x, where v is cold: doubles the length while v falls.
static Pass lengthen(MINSTR* str, long kcon, double cold) {
  std::copy_n(str->x, str->nvar, str->gold);
  double best = 0.0;
  double best_value = cold;
  for (double alfa = 1.0; alfa < LARGEST_LENGTH; alfa *= 2.0) {
    double crit;
    if (try_length(str, kcon, alfa, &crit) == 0) return Pass::feasible;
    if (!(crit < IMPROVED * best_value)) break;
    best = alfa;
    best_value = crit;
  }
  if (best == 0.0) {
    std::copy_n(str->gold, str->nvar, str->x);
    return Pass::stuck;
  }
  zvaxpy(str->x, str->sdir, str->gold, str->nvar, best);
  return Pass::moved;
}

// Line search from x, where v is cold. After a search that moved, the next kinks of the same
// direction are tried while v still falls: the point then ends on the kink where v turns up, and
// the constraint of that kink can join the working set.
static Pass search(MINSTR* str, long kcon, double cold) {
  Pass result = lengthen(str, kcon, cold);
  if (result == Pass::stuck) return armijo(str, kcon, FIRST_CUT, cold);
  for (long k = 0; result == Pass::moved && k < str->nvar + str->ncon; ++k) {
    double crit;
    lfgrad(str, 1, kcon, &crit, str->grad);
    if (!(zvdot11(str->nvar, str->grad, str->sdir) < 0.0)) break;
    if (stepl(str, kcon, str->sdir) != 0) break;
    result = lengthen(str, kcon, crit);
  }
  return result == Pass::feasible ? result : Pass::moved;
}

// ---- The method -------------------------------------------------------------------------------

// gpro := Z'grad. Returns whether the point is stationary for the working set.
static bool is_stationary(MINSTR* str, double eps) {
  const long free = str->nvar - str->nabc;
  const long order = free - str->nalc;
  if (order <= 0) return true;
  znlpgcs(str, str->gpro);
  const double length = zvenorm(order, 1, str->gpro);
  return !(length > std::max(static_cast<double>(free) * eps, ROOT_TINY));
}

// Drops members of the working set at x until it has a direction of descent, in sdir. Returns
// whether there is one; if not, v is minimal, or the drops did not settle within their limit: each
// may let in deferred constraints.
static bool find_direction(MINSTR* str, long kcon) {
  const double eps = feasibility_tolerance(str, str->ipre);
  const long limit = SPARE_REVISIONS + 2 * (str->nvar + str->ncon);
  // A vertex is a stationary point of its working set.
  for (long k = 0; is_stationary(str, eps); ++k) {
    if (k == limit || !releas(str, kcon, k > str->nvar, str->gpro)) return false;
  }
  const long order = str->nvar - str->nabc - str->nalc;
  for (long i = 0; i < order; ++i) str->gpro[i] = -str->gpro[i];
  znlpvex(str, str->gpro, str->sdir);
  return true;
}

// One pass from a point with violated constraints.
static Pass make_pass(MINSTR* str, long kcon) {
  double crit;
  if (lfgrad(str, 1, kcon, &crit, str->grad) == 0) return Pass::feasible;
  if (!find_direction(str, kcon)) return Pass::stuck;
  make_effective(str);
  if (stepl(str, kcon, str->sdir) != 0) return Pass::stuck;
  const Pass result = search(str, kcon, crit);
  if (result == Pass::moved) znlpact(str, 0, 0, nullptr, nullptr, nullptr);
  return result;
}

// Feasible as far as the admitted constraints go?
static int verdict(MINSTR* str, long kcon) {
  if (admitted_constraints(str, kcon) == str->nvar + str->ncon) {
    return znlpfch(str, 0, 0, str->ipre) == 0 ? 0 : -2;
  }
  double crit;
  return lfgrad(str, 0, kcon, &crit, nullptr) == 0 ? 0 : -2;
}

int znlpfe1(MINSTR* str, int job, long kcon) {
  if (reach_equalities(str, job) != 0) return -3;
  if (znlpfch(str, 0, 0, str->ipre) == 0) return 0;
  znlpact(str, 0, 0, nullptr, nullptr, nullptr);
  // Members of the working set stand within tolerance of their limits, and what a violated
  // constraint lacks at a stationary point may be no more than that: before the point is given up,
  // it is moved onto the members exactly.
  bool settled = false;
  for (int pass = 0; pass < MOST_PASSES; ++pass) {
    const Pass result = make_pass(str, kcon);
    if (result == Pass::feasible || (result == Pass::stuck && settled)) return verdict(str, kcon);
    settled = result == Pass::stuck;
    if (settled && settle_on_working_set(str) != 0) return verdict(str, kcon);
  }
  return verdict(str, kcon) == 0 ? 0 : -10;
}

}  // namespace tqnlp
