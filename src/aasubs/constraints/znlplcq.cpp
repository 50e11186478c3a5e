// znlplcq: Linearly Constrained Quadratic subproblem, min c'y + y'Hy/2 under bounds and linear
// constraints, H = hess + lamb I positive definite in the null space of every working set met.
//
// From a feasible point: the primal active-set method. The minimizer on the working set is taken as
// far as the first constraint outside it, which enters; at a minimizer the constraint with the most
// negative multiplier leaves. See Gill, Murray and Wright, Practical Optimization (1981), section
// 5.3, and Nocedal and Wright, Numerical Optimization (2006), section 16.5.
//
// From a point that violates constraints: the dual method of Goldfarb and Idnani (1983),
// Mathematical Programming 27. Every point of it is the minimizer on its working set with
// multipliers of the right sign; a violated constraint n'y >= b enters along z = Z (Z'HZ)^-1 Z'n
// while the members' multipliers change by -t r, where r solves N r = n - Hz in the least-squares
// sense. A member whose multiplier would turn negative leaves first. The problem is infeasible when
// neither z nor such a member exists. The least-distance point is thus found from any start, with
// no phase that first looks for some feasible point.
//
// Both use one solve, lsolv: the step from x to the minimizer on the working set, made of a range
// part that satisfies the members (forward substitution in T) and a null-space part (Cholesky of
// Z'HZ with diagonal pivoting, order in ipiv).
//
// Work: grad the gradient at x; sdir the step; gpro reduced vectors, and r; lagm multipliers; work
// H times a vector; dcds the range part; awrk one row.

#include "aasubs/constraints/znlplcq.h"

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/members.h"
#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpba1.h"
#include "aasubs/constraints/znlpbas.h"
#include "host/process.h"
#include "kernels/dense.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr double PIVOT_TOLERANCE = 4.806217383937356e-06;  // cube root of EPS
static constexpr double SIGN_TOLERANCE = 1e-10;  // relative: smaller multipliers count as zero
static constexpr double STEP_TOLERANCE = 1e-14;  // relative: smaller steps count as none
static constexpr int NO_STEP = -1;
static constexpr int NOT_CONVEX = -2;
static constexpr double NO_LIMIT = HUGE_VALUE;

struct Quadratic {
  MINSTR* str;
  double lamb;
  double* hess;                 // null: H is lamb I
  double* hpro;                 // factor of Z'HZ
  bool factored = false;        // does hpro belong to the present working set?
  bool bland = false;           // many steps of length zero: take the first candidate, not the best
  bool keep_residuals = false;  // leave members where they are within tolerance
  long passes = 0;
};

// ---- The quadratic ------------------------------------------------------------------------------

static void multiply(const Quadratic& q, const double* d, double* hd) {
  const long n = q.str->nvar;
  if (q.hess != nullptr) {
    znlpsmv(n, nullptr, q.hess, d, hd);
    zvxay11(n, hd, q.lamb, d);
  } else {
    zvz111(n, hd, q.lamb, d);
  }
}

// Factors Z'HZ for the present working set. gpro is overwritten.
static int factor_reduced(Quadratic& q) {
  MINSTR* str = q.str;
  const long order = reduced_dimension(str);
  if (q.factored || order < 1) return 0;
  if (q.hess == nullptr) {
    if (!(q.lamb > TINY)) return NOT_CONVEX;
  } else {
    znlphpr(str, 1, 0, 0, str->gpro, q.hess, q.hpro);
    double largest = 0.0;
    for (long k = 0; k < order; ++k) {
      double& cell = q.hpro[zisub(k, k)];
      cell += q.lamb;
      largest = std::max(largest, cell);
    }
    // The tolerance is absolute for matrices of ordinary size, and relative for those in small
    // units, which would otherwise be refused.
    const double limit = PIVOT_TOLERANCE * std::min(1.0, largest);
    double logdet = 0.0;
    if (znlpcde(str, 4, order, limit, &logdet, q.hpro, q.hpro, str->work) != 0) return NOT_CONVEX;
  }
  q.factored = true;
  return 0;
}

// b := (Z'HZ)^-1 b with the factor in hand.
static int solve_reduced(const Quadratic& q, double* b) {
  MINSTR* str = q.str;
  const long order = reduced_dimension(str);
  if (q.hess == nullptr) {
    for (long k = 0; k < order; ++k) b[k] /= q.lamb;
    return 0;
  }
  znlpprm(0, order, str->ipiv, b);
  const int code = znlpcso(str, 2, order, q.hpro, b);
  znlpprm(1, order, str->ipiv, b);
  return code == 0 ? 0 : NOT_CONVEX;
}

// ---- The working set ----------------------------------------------------------------------------

// Enters m; false, with nothing changed, when it depends on the members.
// Its bound is taken exactly, so that members do not carry the tolerance of the step limit along.
static bool enter(Quadratic& q, const Member& m) {
  MINSTR* str = q.str;
  if (is_dependent(str, m)) return false;
  if (m.koc != 0) str->x[m.ic] = bound_value(str, m.ic, m.koc);
  znlpupd(str, 0, 0, 0, m.koc, m.ic, nullptr, nullptr, nullptr);
  q.factored = q.keep_residuals = false;
  return true;
}

static void leave(Quadratic& q, const Member& m) {
  znlpdod(q.str, 0, m.koc, m.ic, nullptr, nullptr, nullptr, nullptr);
  q.factored = q.keep_residuals = false;
}

// The member that leaves a minimizer: most negative multiplier, or the first one under Bland's
// rule, which ends cycles at a degenerate vertex. -1 when all signs are right.
static long worst_member(const Quadratic& q) {
  MINSTR* str = q.str;
  const long count = str->nabc + str->nalc;
  if (count == 0) return -1;
  multipliers(str, str->grad, str->lagm);
  const double size = std::max(zvamx(count, str->lagm), zvamx(str->nvar, str->grad));
  long worst = -1;
  double lowest = -SIGN_TOLERANCE * size;
  for (long i = 0; i < count; ++i) {
    if (!(str->lagm[i] < lowest) || !may_leave(str, member(str, i))) continue;
    worst = i;
    lowest = str->lagm[i];
    if (q.bland) break;
  }
  return worst;
}

// ---- One solve with the present working set -----------------------------------------------------

// The step sdir from x to the minimizer on the working set.
static int lsolv(Quadratic& q) {
  MINSTR* str = q.str;
  const long n = str->nvar;
  const long order = reduced_dimension(str);
  if (q.keep_residuals) {
    vzfdl(0.0, str->sdir, n);
  } else if (const int code = satisfy_members(str); code != 0) {
    return code;
  }
  if (order > 0) {
    if (const int code = factor_reduced(q); code != 0) return code;
    multiply(q, str->sdir, str->work);
    for (long j = 0; j < n; ++j) str->work[j] = -(str->work[j] + str->grad[j]);
    znlpvre(str, str->work, str->gpro);
    if (const int code = solve_reduced(q, str->gpro); code != 0) return code;
    znlpvex(str, str->gpro, str->work);
    zvaxpy(str->sdir, str->work, str->sdir, n, 1.0);
  }
  const bool finite =
      std::all_of(str->sdir, str->sdir + n, [](double step) { return std::isfinite(step); });
  return finite ? 0 : NO_STEP;
}

// Moves by t sdir. The gradient follows by the product with the Hessian, and is never formed anew.
static void move(const Quadratic& q, double t) {
  MINSTR* str = q.str;
  multiply(q, str->sdir, str->work);
  zvxay11(str->nvar, str->x, t, str->sdir);
  zvxay11(str->nvar, str->grad, t, str->work);
}

static bool step_is_tiny(const MINSTR* str) {
  for (long j = 0; j < str->nvar; ++j) {
    const double size = std::max(1.0, std::fabs(str->x[j]));
    if (std::fabs(str->sdir[j]) > STEP_TOLERANCE * size) return false;
  }
  return true;
}

// Both methods end by themselves in exact arithmetic; rounding at degenerate points is why a limit
// stands here all the same.
static bool out_of_passes(Quadratic& q) {
  return ++q.passes > 100 + 10 * (q.str->nvar + q.str->ncon);
}

// ---- Primal method, from a feasible point -------------------------------------------------------

// Enters the constraint that limits the step along sdir to stub: the one with this code, or at a
// step of zero the first one listed that is independent of the members. There the single code may
// name a constraint met further on, when the one on which x stands has a slope so small that a full
// step would still leave it within tolerance. False: what limits the step depends on the members.
static bool enter_blocking(Quadratic& q, long code) {
  MINSTR* str = q.str;
  // Bounds alone have no list: of them the first that blocks is named.
  if (str->stub > 0.0 || (str->lincon == 0 && str->nlicon == 0)) {
    return enter(q, blocking_member(str, code));
  }
  long listed = 0;
  znlpstl(str, 0, 0, 0, str->x, str->sdir, &listed, str->liwk);
  for (long k = 0; k < listed; ++k) {
    if (enter(q, blocking_member(str, str->liwk[k]))) return true;
  }
  return false;
}

static int primal_method(Quadratic& q) {
  MINSTR* str = q.str;
  long idle = 0;  // steps of length zero in a row
  while (!out_of_passes(q)) {
    if (const int code = lsolv(q); code != 0) return code;
    bool minimizer = step_is_tiny(str);
    if (!minimizer) {
      long blocking = -1;
      znlpstl(str, 0, 0, 0, str->x, str->sdir, &blocking, nullptr);
      const double t = std::min(str->stub, 1.0);
      idle = t > 0.0 ? 0 : idle + 1;
      q.bland = idle > str->nvar;
      if (t > 0.0) move(q, t);
      if (blocking >= 0 && enter_blocking(q, blocking)) continue;
      minimizer = blocking < 0 && t >= 1.0;
      // What depends on the members can only block the correction of their rounding: do without.
      if (!minimizer && !q.keep_residuals) {
        q.keep_residuals = true;
        continue;
      }
    }
    // A minimizer, or a step that the members themselves block: one of them has to go.
    const long worst = worst_member(q);
    if (worst < 0) return minimizer ? 0 : NO_STEP;
    leave(q, member(str, worst));
  }
  return NO_STEP;
}

// ---- Dual method, from any point ----------------------------------------------------------------

// Minimizer on a part of the working set whose multipliers have the right signs.
static int dual_start(Quadratic& q) {
  while (!out_of_passes(q)) {
    if (const int code = lsolv(q); code != 0) return code;
    move(q, 1.0);
    const long worst = worst_member(q);
    if (worst < 0) return 0;
    leave(q, member(q.str, worst));
  }
  return NO_STEP;
}

// Is m, at the residual and norm given, the most violated so far?
static void note_violation(double residual, double tolerance, double norm, const Member& m,
                           Member& worst, double& largest) {
  if (!(residual < -tolerance) || !(-residual > largest * norm)) return;
  worst = m;
  largest = -residual / norm;
}

static bool is_active(const MINSTR* str, long i) {
  return std::find(str->iact, str->iact + str->nalc, i) != str->iact + str->nalc;
}

// The most violated constraint outside the working set, by distance; ic -1 when there is none.
static Member most_violated(MINSTR* str) {
  const double eps = feasibility_tolerance(str, str->ipre);
  Member worst;
  double largest = 0.0;
  for (long k = 0; str->bounds != 0 && k < free_count(str); ++k) {
    const long j = str->ifxr[k];
    if (lower_exists(str->lb[j])) {
      const double tolerance = (std::fabs(str->lb[j]) + 1.0) * eps;
      note_violation(str->x[j] - str->lb[j], tolerance, 1.0, {1, j}, worst, largest);
    }
    if (upper_exists(str->ub[j])) {
      const double tolerance = (std::fabs(str->ub[j]) + 1.0) * eps;
      note_violation(str->ub[j] - str->x[j], tolerance, 1.0, {-1, j}, worst, largest);
    }
  }
  for (long i = str->neqc; str->lincon != 0 && i < str->ncon; ++i) {
    if (is_active(str, i)) continue;
    const Member m{0, i};
    const double* row = gradient_of(str, m);
    const double norm = std::max(zvenorm(str->nvar, 1, row), TINY);
    const double tolerance = (std::fabs(str->blcn[i]) + 1.0) * eps;
    note_violation(residual_of(str, m, row), tolerance, norm, m, worst, largest);
  }
  return worst;
}

// Step sdir = z that raises n'y for the entering constraint and keeps the members, work = Hz, and
// gain = n'z. For a constraint that depends on the members all are zero. Returns 0 or NOT_CONVEX.
static int entering_step(Quadratic& q, const Member& m, double* gain) {
  MINSTR* str = q.str;
  *gain = 0.0;
  const bool dependent = is_dependent(str, m);
  if (!dependent) {
    if (const int code = factor_reduced(q); code != 0) return code;
    znlpvre(str, gradient_of(str, m), str->gpro);
    if (const int code = solve_reduced(q, str->gpro); code != 0) return code;
    znlpvex(str, str->gpro, str->sdir);
    *gain = zvdot11(str->nvar, gradient_of(str, m), str->sdir);
  }
  if (!(*gain > TINY)) {
    *gain = 0.0;
    vzfdl(0.0, str->sdir, str->nvar);
  }
  multiply(q, str->sdir, str->work);
  return 0;
}

// Largest dual step: the first member whose multiplier reaches zero along -r. entered is the
// multiplier that the entering constraint has by now.
static double dual_limit(MINSTR* str, const Member& m, double entered, long* first) {
  const long n = str->nvar;
  const long count = str->nabc + str->nalc;
  *first = -1;
  if (count == 0) return NO_LIMIT;
  // r from n - Hz, then the multipliers from g - entered n. work is Hz on entry.
  const double* row = gradient_of(str, m);
  for (long j = 0; j < n; ++j) str->work[j] = row[j] - str->work[j];
  multipliers(str, str->work, str->gpro);
  row = gradient_of(str, m);
  for (long j = 0; j < n; ++j) str->work[j] = str->grad[j] - entered * row[j];
  multipliers(str, str->work, str->lagm);

  const double size = zvamx(count, str->gpro);
  double limit = NO_LIMIT;
  for (long i = 0; i < count; ++i) {
    if (!may_leave(str, member(str, i)) || !(str->gpro[i] > SIGN_TOLERANCE * size)) continue;
    const double t = std::max(str->lagm[i], 0.0) / str->gpro[i];
    if (t >= limit) continue;
    limit = t;
    *first = i;
  }
  return limit;
}

// Brings the violated constraint m into the working set, with partial steps for members that leave.
static int satisfy_violated(Quadratic& q, const Member& m) {
  MINSTR* str = q.str;
  double entered = 0.0;
  while (!out_of_passes(q)) {
    double gain = 0.0;
    if (const int code = entering_step(q, m, &gain); code != 0) return code;
    long first = -1;
    const double dual = dual_limit(str, m, entered, &first);
    const double residual = residual_of(str, m, gradient_of(str, m));
    const double primal = gain > 0.0 ? -residual / gain : NO_LIMIT;
    const double t = std::min(primal, dual);
    if (!(t < NO_LIMIT)) return NO_STEP;  // no point satisfies m and the members
    if (gain > 0.0) move(q, t);
    entered += t;
    // A full step satisfies m; a partial one ends where the sign of a member's multiplier turns.
    if (primal <= dual) return enter(q, m) ? 0 : NO_STEP;
    leave(q, member(str, first));
  }
  return NO_STEP;
}

static int dual_method(Quadratic& q) {
  MINSTR* str = q.str;
  if (const int code = dual_start(q); code != 0) return code;
  while (!out_of_passes(q)) {
    const Member violated = most_violated(str);
    if (violated.ic < 0) {
      // One more solve takes the rounding of the steps out of the point.
      if (const int code = lsolv(q); code != 0) return code;
      move(q, 1.0);
      return znlpfch(str, 0, 0, str->ipre) == 0 ? 0 : NO_STEP;
    }
    if (const int code = satisfy_violated(q, violated); code != 0) return code;
  }
  return NO_STEP;
}

// ---- Entry --------------------------------------------------------------------------------------

// Makes or takes over the working set. Is x feasible?
static bool prepare_set(MINSTR* str, int load) {
  int feasible = 0;
  if (load == 0) {
    for (long j = 0; str->bounds != 0 && j < str->nvar; ++j) {
      if (str->iabc[j] != 2) str->iabc[j] = 0;
    }
    feasible = znlpfch(str, 1, 0, 0);
    znlpfta(str, 0, 0, 0, nullptr, nullptr, nullptr);
  } else {
    feasible = znlpfch(str, 0, 0, str->ipre);
  }
  forget_deferred(str);
  return feasible == 0;
}

int znlplcq(MINSTR* str, int nolm, int load, double lamb, double* grad, double* hess,
            double* hpro) {
  const long n = str->nvar;
  if (str->opro == 2) xexit(EXIT_INCONSISTENT, 0);
  Quadratic q{str, lamb, hess, hpro};
  str->ridg = 0.0;
  if (grad != str->grad) std::copy_n(grad, n, str->grad);
  multiply(q, str->x, str->work);
  zvxay11(n, str->grad, 1.0, str->work);

  const bool feasible = prepare_set(str, load);
  int code = feasible ? primal_method(q) : dual_method(q);
  const bool lost = feasible && code == 0 && znlpfch(str, 0, 0, str->ipre) != 0;
  if (lost || (feasible && code == NO_STEP)) {
    // Between constraints that are dependent but for the tolerance the primal method may find
    // neither one that may enter nor one that should leave, or drift off one that it took for
    // dependent. The dual method settles both.
    q.passes = 0;
    q.keep_residuals = false;
    code = dual_method(q);
  }

  if (grad != str->grad) std::copy_n(str->grad, n, grad);
  if (nolm == 0 && code == 0) multipliers(str, str->grad, str->lagm);
  return code;
}

}  // namespace tqnlp
