// znlpfe2 and znlplip: the FEasible point of least distance, and the Push of one constraint Inside.
//
//   minimize |y - p|^2 / 2  subject to  a_i'y = b_i (equalities), a_i'y >= b_i (the others)
//
// by the dual method of Goldfarb and Idnani (1983), Mathematical Programming 27, with the identity
// as Hessian. p is projected onto the equalities. Then one violated constraint c after the other is
// pushed inside (znlplip): with z the part of its normal in the null space of the working set, and
// r the multipliers that express the rest,
//
//   t2 = violation / a_c'z        the step along z that satisfies c
//   t1 = min u_i / r_i, r_i > 0   the step at which the multiplier u_i of a member falls to zero
//
// the smaller is taken. At t2 constraint c enters the working set, at t1 the member that blocks
// leaves it and the push goes on. Members stay satisfied throughout. Neither t1 nor t2: there is no
// feasible point. The distance grows with every push, so that no working set comes back.
//
// The multipliers are not carried along but taken afresh from x - p = A'u + w a_c: they then fit
// whatever working set the push starts from, and rounding does not add up.
//
// Work: gold = p; grad = a_c; sdir = x - p - w a_c, then z; lagm = u; dcds = r; gpro = Z'a_c.
#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpba1.h"
#include "aasubs/constraints/znlpbas.h"
#include "aasubs/constraints/znlpfea.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr double SMALL_MULTIPLIER = 1e-13;  // against the largest of r: counts as zero
static constexpr long SPARE_PUSHES = 100;          // limit of pushes: this and
static constexpr long PUSHES_PER_CONSTRAINT = 20;  // this for each parameter and constraint

// ---- Push of one constraint -------------------------------------------------------------------

// The member of the working set whose multiplier falls to zero first.
struct Blocking {
  double step = HUGE_VALUE;
  int koc = 0;  // as in znlpdod
  long ic = -1;
};

// Takes the member with multiplier u and rate r if it blocks before the one found so far.
static void consider(Blocking& found, double least, double u, double r, int koc, long ic) {
  if (!(r > least)) return;
  const double step = std::max(u, 0.0) / r;
  if (step < found.step) found = {step, koc, ic};
}

// First member that blocks a push of weight: u in lagm and r in dcds are made for it. Fixed
// parameters and equalities never block.
static Blocking first_blocking(MINSTR* str, double weight) {
  Blocking found;
  const long n = str->nvar;
  const long members = str->nabc + str->nalc;
  if (members == 0) return found;
  for (long j = 0; j < n; ++j) str->sdir[j] = str->x[j] - str->gold[j] - weight * str->grad[j];
  znlpglm(str, 0, str->sdir, str->lagm);
  // The second call solves in dcds; its result is moved there afterwards.
  znlpglm(str, 0, str->grad, str->gpro);
  std::copy_n(str->gpro, members, str->dcds);

  const double least = SMALL_MULTIPLIER * zvamx(members, str->dcds);
  const long free = n - str->nabc;
  for (long k = 0; k < str->nabc; ++k) {
    const long j = str->ifxr[free + k];
    if (str->iabc[j] == 2) continue;
    consider(found, least, str->lagm[k], str->dcds[k], str->iabc[j], j);
  }
  for (long k = 0; k < str->nalc; ++k) {
    if (str->iact[k] < str->neqc) continue;
    const long place = str->nabc + k;
    consider(found, least, str->lagm[place], str->dcds[place], 0, str->iact[k]);
  }
  return found;
}

// Step along z that brings the residual to zero, HUGE_VALUE when the constraint depends on the
// working set. z is left in sdir.
static double step_inside(MINSTR* str, double residual, int koc, long ic) {
  const long n = str->nvar;
  if (n - str->nabc - str->nalc <= 0) return HUGE_VALUE;
  if (znlpupd(str, 1, 0, 0, koc, ic, nullptr, nullptr, nullptr) != 0) return HUGE_VALUE;
  znlpgcs(str, str->gpro);
  znlpvex(str, str->gpro, str->sdir);
  const double slope = zvdot11(n, str->grad, str->sdir);
  return slope > TINY ? -residual / slope : HUGE_VALUE;
}

int znlplip(MINSTR* str, long ic, long kcon) {
  const long n = str->nvar;
  const long place = ic < n ? ic : ic - n;  // a linear constraint i counts as n + i
  if (place >= admitted_constraints(str, kcon) || in_working_set(str, ic)) return 0;
  int koc;
  long index;
  split_code(str, ic, &koc, &index);
  double weight = 0.0;
  // Every pass but the last takes a member out of the working set.
  for (long pass = 0; pass <= n + 1; ++pass) {
    const double residual = constraint_residual(str, ic);
    if (!(residual < 0.0)) return 0;
    constraint_normal(str, ic, str->grad);
    const Blocking blocking = first_blocking(str, weight);
    const double full = step_inside(str, residual, koc, index);
    if (!(std::min(full, blocking.step) < HUGE_VALUE)) return -2;

    const double step = std::min(full, blocking.step);
    weight += step;
    if (full < HUGE_VALUE) zvaxpy(str->x, str->sdir, str->x, n, step);
    if (full <= blocking.step) {
      if (koc != 0) str->x[index] = constraint_side(str, ic);
      znlpupd(str, 0, 0, 0, koc, index, nullptr, nullptr, nullptr);
      return 0;
    }
    znlpdod(str, 0, blocking.koc, blocking.ic, nullptr, nullptr, nullptr, nullptr);
  }
  return -2;
}

// ---- Repair of all constraints ----------------------------------------------------------------

// Visits constraint c: one that is active joins the working set if it is independent, a violated
// one is pushed inside. Adds to pushes. Returns 0 or -2.
static int visit(MINSTR* str, long c, long kcon, double eps, long* pushes) {
  if (in_working_set(str, c)) return 0;
  const double tolerance = residual_tolerance(constraint_side(str, c), eps);
  const double residual = constraint_residual(str, c);
  if (residual < -tolerance) {
    ++*pushes;
    return znlplip(str, c, kcon);
  }
  if (!(residual <= tolerance)) return 0;
  int koc;
  long index;
  split_code(str, c, &koc, &index);
  if (znlpupd(str, 1, 0, 0, koc, index, nullptr, nullptr, nullptr) == 0) {
    znlpupd(str, 0, 0, 0, koc, index, nullptr, nullptr, nullptr);
  }
  return 0;
}

// One pass over the admitted bounds and inequalities.
static int repair_pass(MINSTR* str, long kcon, double eps, long* pushes) {
  const long n = str->nvar;
  const long admitted = admitted_constraints(str, kcon);
  for (long j = 0; str->bounds != 0 && j < std::min(n, admitted); ++j) {
    for (const long c : {j, n + j}) {
      if (visit(str, c, kcon, eps, pushes) != 0) return -2;
    }
  }
  for (long i = str->neqc; i < admitted - n; ++i) {
    if (visit(str, 2 * n + i, kcon, eps, pushes) != 0) return -2;
  }
  return 0;
}

int znlpfe2(MINSTR* str, int job, long kcon) {
  std::copy_n(str->x, str->nvar, str->gold);
  if (reach_equalities(str, job) != 0) return -3;
  if (znlpfch(str, 0, 0, str->ipre) == 0) return 0;

  const double eps = feasibility_tolerance(str, str->ipre);
  const long limit = SPARE_PUSHES + PUSHES_PER_CONSTRAINT * (str->nvar + str->ncon);
  long all_pushes = 0;
  // A pass without a push ends the repair: nothing is violated. Every other pass makes at least
  // one, and their number is limited.
  for (;;) {
    long pushes = 0;
    if (repair_pass(str, kcon, eps, &pushes) != 0) return -2;
    if (pushes == 0) break;
    all_pushes += pushes;
    if (all_pushes > limit) return -2;
    if (settle_on_working_set(str) != 0) return -2;
  }
  if (admitted_constraints(str, kcon) < str->nvar + str->ncon) return 0;
  return znlpfch(str, 0, 0, str->ipre) == 0 ? 0 : -2;
}

}  // namespace tqnlp
