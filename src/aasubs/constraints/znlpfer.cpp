// znlpfer: FEasible start in the Range space. The start is disturbed as little as possible: as
// given; clipped to the bounds; moved to the nearest feasible point; or accepted with a wider
// tolerance (ipre), as in znlpfea, but without a matrix of order n.
//
// The nearest point minimizes |x - x0|^2 / 2, a quadratic whose factor is the identity, so that the
// frame of znlpftr.h with half null serves it. Goldfarb and Idnani (1983): x begins as the nearest
// point of the equalities. A violated constraint p is pushed into the set (znlplir): along z, the
// part of its normal that is orthogonal to the members, x - x0 = A'lambda + t p stays true while
// lambda falls by r for a unit of t; a member whose multiplier reaches 0 leaves, and at residual 0
// p enters. Each entry brings the distance up, so that no working set comes twice. When p depends
// on members that all may stay, no point is feasible.
//
// Work: xold the point of entry, gold x0, dcds the normal, work r, sdir z, lagm lambda; grad, gpro.
#include <algorithm>
#include <cmath>

#include "aasubs/constraints/members.h"
#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpba1.h"
#include "aasubs/constraints/znlpbas.h"
#include "aasubs/constraints/znlpfea.h"
#include "aasubs/constraints/znlpftr.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr int MOST_WIDTHS = 2;          // powers of ten by which the tolerance may widen
static constexpr long MOST_FOR_MATRIX = 1000;  // parameters of a null-space frame for a second try
static constexpr int CORRECTIONS = 2;          // steps onto the equalities
static constexpr double VIOLATION_SHARE = 0.01;    // of the tolerance, from which a row is repaired
static constexpr double NO_LENGTH = 1e-20;         // of z, squared, against the normal
static constexpr double MULTIPLIER_SHARE = 1e-12;  // of the largest r, from which one can block

// ---- The nearest point --------------------------------------------------------------------------

// lagm := multipliers that explain a vector by the members; z = vector less that in w.
static void explain(MINSTR* str) {
  inuvwg(str, nullptr);
  frame_projection(str);
}

// r into work and z into sdir for the normal; returns z'z.
static double project_normal(MINSTR* str, const double* normal) {
  std::copy_n(normal, str->nvar, str->grad);
  explain(str);
  std::copy_n(str->lagm, str->nabc + str->nalc, str->work);
  frame_direction(str, nullptr);
  zvscl11(str->nvar, str->sdir, -1.0);
  return zvdot11(str->nvar, str->sdir, str->sdir);
}

// The largest push until a multiplier reaches 0, and whose (-1: none).
static double limit_push(MINSTR* str, const double* normal, double push, long* leaving) {
  for (long j = 0; j < str->nvar; ++j) {
    str->grad[j] = str->x[j] - str->gold[j] - push * normal[j];
  }
  explain(str);
  const long count = str->nabc + str->nalc;
  const double least = MULTIPLIER_SHARE * zvamx(count, str->work);
  double limit = HUGE_VALUE;
  *leaving = -1;
  for (long i = 0; i < count; ++i) {
    if (!may_leave(str, member(str, i)) || !(str->work[i] > least)) continue;
    const double step = std::max(str->lagm[i], 0.0) / str->work[i];
    if (step >= limit) continue;
    limit = step;
    *leaving = i;
  }
  return limit;
}

int znlplir(MINSTR* str, long ic) {
  const long n = str->nvar;
  const Member p = blocking_member(str, ic);
  double* normal = str->dcds;
  constraint_normal(str, ic, normal);
  const double size = zvdot11(n, normal, normal);
  double push = 0.0;
  for (long pass = n + str->ncon; pass >= 0; --pass) {
    const double slope = project_normal(str, normal);
    long leaving = -1;
    const double limit = limit_push(str, normal, push, &leaving);
    const double residual = constraint_residual(str, ic);
    const double full = slope > NO_LENGTH * size ? -residual / slope : HUGE_VALUE;
    const double step = std::min(limit, full);
    if (!(step < HUGE_VALUE)) return -2;
    if (full < HUGE_VALUE) zvxay11(n, str->x, step, str->sdir);
    push += step;
    if (full <= limit) {
      if (p.koc != 0) str->x[p.ic] = bound_value(str, p.ic, p.koc);
      znlpupr(str, 0, p.koc, p.ic, 0.0, nullptr);
      return 0;
    }
    const Member m = member(str, leaving);
    znlpdor(str, m.koc, m.ic, 0.0, nullptr);
  }
  return -2;
}

// The constraint outside the working set that is violated most, by its distance; -1 none.
static long most_violated(MINSTR* str) {
  const long n = str->nvar;
  const double eps = VIOLATION_SHARE * feasibility_tolerance(str, str->ipre);
  long worst = -1;
  double farthest = 0.0;
  const auto consider = [&](long c, double residual, double length) {
    const double tolerance = (std::fabs(constraint_side(str, c)) + 1.0) * eps;
    if (!(residual < -tolerance) || !(-residual / length > farthest)) return;
    farthest = -residual / length;
    worst = c;
  };
  for (long j = 0; str->bounds != 0 && j < n; ++j) {
    if (str->iabc[j] != 0) continue;
    if (lower_exists(str->lb[j])) consider(j, str->x[j] - str->lb[j], 1.0);
    if (upper_exists(str->ub[j])) consider(n + j, str->ub[j] - str->x[j], 1.0);
  }
  for (long i = str->neqc; i < str->ncon; ++i) {
    if (in_working_set(str, 2 * n + i)) continue;
    const double residual = row_product(str, i, str->x) - str->blcn[i];
    if (!(residual < 0.0)) continue;
    str->acget(str, i, str->awrk);
    consider(2 * n + i, residual, zvenorm(n, 1, str->awrk));
  }
  return worst;
}

// Fixed parameters and equalities as working set, and x onto them by the shortest step.
static int doequc_range(MINSTR* str) {
  keep_fixed_bounds(str);
  for (long j = 0; str->bounds != 0 && j < str->nvar; ++j) {
    if (str->iabc[j] == 2) str->x[j] = str->lb[j];
  }
  for (long i = 0; i < str->neqc; ++i) str->iact[i] = i;
  str->nalc = str->neqc;
  std::copy_n(str->x, str->nvar, str->gold);
  vzfdl(0.0, str->grad, str->nvar);
  if (const int failed = znlpftr(str, 0, 0, nullptr); failed != 0) return failed;
  for (int k = 0; k < CORRECTIONS; ++k) {
    frame_correction(str, nullptr);
    zvxay11(str->nvar, str->x, 1.0, str->sdir);
  }
  return 0;
}

static int lpfeas(MINSTR* str) {
  for (long pass = 10 * (str->nvar + str->ncon); pass >= 0; --pass) {
    const long c = most_violated(str);
    if (c < 0) return 0;
    if (znlplir(str, c) != 0) return -2;
  }
  return -2;
}

// ---- The road -----------------------------------------------------------------------------------

static int note_active(MINSTR* str) {
  keep_fixed_bounds(str);
  str->nalc = str->nldc = str->nlbc = 0;
  return znlpfch(str, 1, 0, str->ipre);
}

// The last resort: one power of ten.
static int relax(MINSTR* str) {
  ++str->ipre;
  if (note_active(str) == 0) return 3;
  std::copy_n(str->xold, str->nvar, str->x);
  return -3;
}

int znlpfer(MINSTR* str) {
  if (str->bounds == 0 && str->lincon == 0) return 0;
  str->nabc = str->nalc = 0;
  if (note_active(str) == 0) return 0;
  std::copy_n(str->x, str->nvar, str->xold);
  if (str->bounds != 0) {
    znlpfbc(str, 0);
    if (note_active(str) == 0) return 1;
  }
  if (str->lincon == 0) return relax(str);
  for (;;) {
    const bool reached = doequc_range(str) == 0 && tsteqc(str, 0) == 0;
    if (reached &&
        (znlpfch(str, 0, 0, str->ipre) == 0 || lpfeas(str) == 0 || note_active(str) == 0)) {
      return note_active(str) == 0 ? 2 : relax(str);
    }
    if (str->ipre > MOST_WIDTHS) break;
    ++str->ipre;
    std::copy_n(str->xold, str->nvar, str->x);
    if (str->bounds != 0) znlpfbc(str, 0);
  }
  std::copy_n(str->xold, str->nvar, str->x);
  return -2;
}

int make_feasible(MINSTR* str, int job) {
  if (!in_range_space(str)) return znlpfea(str, job);
  const int width = str->ipre;
  const int result = znlpfer(str);
  if (result >= 0 || str->nvar > MOST_FOR_MATRIX) return result;
  str->ipre = width;
  return znlpfea(str, job);
}

}  // namespace tqnlp
