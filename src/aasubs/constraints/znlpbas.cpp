// znlpbas: BASis of the working set. This source holds the test of feasibility and the rebuilding
// of the whole frame; znlpbas_add.cpp adds constraints, znlpbas_drop.cpp drops one,
// znlpbas_select.cpp decides which, znlpbas_matrix.cpp carries a projected matrix along.
//
// Method     Active-set method in null-space form. Parameters on active bounds are split off by
//            the permutation ifxr; the active general constraints on the nfre free parameters are
//            factored as A Q = (0 T), Q orthogonal, T triangular with reversed columns. Every
//            change is an update by plane rotations, O(n^2).
// Reference  Gill and Murray (1974), Numerical Methods for Constrained Optimization, chapter 2;
//            Gill, Murray, Saunders and Wright (1984), ACM TOMS 10 (reverse triangular T).
// Layout     qlcn  Q(l,k) at qlcn[l*n + k]; row l belongs to parameter ifxr[l]; only the leading
//                  nfre x nfre part is in use
//            llcn  T packed by rows. Row r belongs to constraint iact[r]; its pivot comes first
//                  and stands in column nfre-1-r of A Q, its other r elements in the columns to
//                  the right, the pivots of the constraints r-1 down to 0. For nfre = 5, nalc = 3,
//                  with llcn counted 0 to 5:
//                      column    0  1  2  3  4
//                      row 0     .  .  .  .  0
//                      row 1     .  .  .  1  2
//                      row 2     .  .  3  4  5
//            work  one vector in the order of Q     awrk  one constraint row or direction over n
//            dcds  cosines at 0, sines at n, by the left one of the two places they act on
//
// Techniques that keep a projected factor use Q even when no general constraint is active (the
// full frame); for the others Q is then the identity and is not consulted.
#include "aasubs/constraints/znlpbas.h"

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpbas_internal.h"
#include "host/process.h"
#include "kernels/vector.h"

namespace tqnlp {

namespace bas {

void inconsistent() { xexit(EXIT_INCONSISTENT, 0); }

void refuse_range_frame(const MINSTR* str) {
  if (str->opro == 2) inconsistent();
}

long place_of(const MINSTR* str, long from, long to, long ic) {
  const long place = std::find(str->ifxr + from, str->ifxr + to, ic) - str->ifxr;
  if (place == to) inconsistent();
  return place;
}

void set_q_identity(MINSTR* str, long nfre) {
  for (long l = 0; l < nfre; ++l) {
    vzfdl(0.0, str->qlcn + l * str->nvar, nfre);
    str->qlcn[l * str->nvar + l] = 1.0;
  }
}

// One row's chain of rotations is serial; four rows side by side keep the machine busy.
static constexpr long ROWS_AT_ONCE = 4;

void sweep_up(long count, long stride, double* rows, long k0, long k1, const double* c,
              const double* s) {
  if (k0 >= k1) return;
  for (; count >= ROWS_AT_ONCE; count -= ROWS_AT_ONCE, rows += ROWS_AT_ONCE * stride) {
    double carry[ROWS_AT_ONCE];
    for (long i = 0; i < ROWS_AT_ONCE; ++i) carry[i] = rows[i * stride + k0];
    for (long k = k0; k < k1; ++k) {
      for (long i = 0; i < ROWS_AT_ONCE; ++i) {
        const double right = rows[i * stride + k + 1];
        rows[i * stride + k] = c[k] * carry[i] - s[k] * right;
        carry[i] = c[k] * right + s[k] * carry[i];
      }
    }
    for (long i = 0; i < ROWS_AT_ONCE; ++i) rows[i * stride + k1] = carry[i];
  }
  for (; count > 0; --count, rows += stride) {
    double carry = rows[k0];
    for (long k = k0; k < k1; ++k) {
      const double right = rows[k + 1];
      rows[k] = c[k] * carry - s[k] * right;
      carry = c[k] * right + s[k] * carry;
    }
    rows[k1] = carry;
  }
}

void sweep_down(long count, long stride, double* rows, long k0, long k1, const double* c,
                const double* s) {
  if (k0 >= k1) return;
  for (; count >= ROWS_AT_ONCE; count -= ROWS_AT_ONCE, rows += ROWS_AT_ONCE * stride) {
    double carry[ROWS_AT_ONCE];
    for (long i = 0; i < ROWS_AT_ONCE; ++i) carry[i] = rows[i * stride + k1];
    for (long k = k1 - 1; k >= k0; --k) {
      for (long i = 0; i < ROWS_AT_ONCE; ++i) {
        const double left = rows[i * stride + k];
        rows[i * stride + k + 1] = c[k] * carry[i] + s[k] * left;
        carry[i] = c[k] * left - s[k] * carry[i];
      }
    }
    for (long i = 0; i < ROWS_AT_ONCE; ++i) rows[i * stride + k0] = carry[i];
  }
  for (; count > 0; --count, rows += stride) {
    double carry = rows[k1];
    for (long k = k1 - 1; k >= k0; --k) {
      const double left = rows[k];
      rows[k + 1] = c[k] * carry + s[k] * left;
      carry = c[k] * left - s[k] * carry;
    }
    rows[k0] = carry;
  }
}

}  // namespace bas

using namespace bas;

// ---- Feasibility ------------------------------------------------------------------------------

// What one feasibility test collects.
struct FeasibilityTest {
  bool collect = false;  // fill iabc, iact, cmax
  double eps = 0.0;
  long violated = 0;
};

static void raise_violation(MINSTR* str, const FeasibilityTest& test, double amount) {
  if (test.collect) str->cmax = std::max(str->cmax, amount);
}

// Comparisons are written so that a value that is no number counts as violated.
static void test_equality(MINSTR* str, FeasibilityTest& test, double residual, double tolerance) {
  raise_violation(str, test, std::fabs(residual));
  if (!(std::fabs(residual) <= tolerance)) ++test.violated;
}

// Returns whether an inequality with this distance to its limit is active or violated.
static bool test_inequality(MINSTR* str, FeasibilityTest& test, double distance, double tolerance) {
  raise_violation(str, test, -distance);
  if (!(distance >= -tolerance)) ++test.violated;
  return distance <= tolerance;
}

// Bounds that lie within the plain tolerance of each other fix their parameter; from then on it is
// tested against the lower one alone.
static void test_bounds(MINSTR* str, FeasibilityTest& test) {
  for (long j = 0; j < str->nvar; ++j) {
    const double lb = str->lb[j];
    const double ub = str->ub[j];
    const bool has_lower = lower_exists(lb);
    const bool has_upper = upper_exists(ub);
    if (test.collect && has_lower && has_upper && lb + (std::fabs(lb) + 1.0) * str->ceps >= ub) {
      str->iabc[j] = 2;
    }
    if (str->iabc[j] == 2) {
      test_equality(str, test, str->x[j] - lb, (std::fabs(lb) + 1.0) * test.eps);
      continue;
    }
    const bool at_lower =
        has_lower && test_inequality(str, test, str->x[j] - lb, (std::fabs(lb) + 1.0) * test.eps);
    const bool at_upper =
        has_upper && test_inequality(str, test, ub - str->x[j], (std::fabs(ub) + 1.0) * test.eps);
    if (!test.collect) continue;
    if (at_lower) str->iabc[j] = 1;
    if (at_upper) str->iabc[j] = -1;  // a parameter within tolerance of both ends here
  }
}

static void collect_constraint(MINSTR* str, const FeasibilityTest& test, long entry) {
  if (!test.collect) return;
  str->iact[str->nalc++] = entry;
  if (entry >= str->ncon) ++str->nanc;
}

static void test_linear(MINSTR* str, FeasibilityTest& test, long from, long to) {
  for (long i = from; i < to; ++i) {
    str->acget(str, i, str->awrk);
    const double residual = zvdot11(str->nvar, str->awrk, str->x) - str->blcn[i];
    const double tolerance = std::max((std::fabs(str->blcn[i]) + 1.0) * test.eps, test.eps);
    if (i < str->neqc) {
      test_equality(str, test, residual, tolerance);
      collect_constraint(str, test, i);
    } else if (test_inequality(str, test, residual, tolerance)) {
      collect_constraint(str, test, i);
    }
  }
}

static void test_nonlinear(MINSTR* str, FeasibilityTest& test, long from, long to) {
  for (long i = from; i < to; ++i) {
    if (i < str->nlec) {
      test_equality(str, test, str->fcon[i], test.eps);
      collect_constraint(str, test, str->ncon + i);
    } else if (test_inequality(str, test, str->fcon[i], test.eps)) {
      collect_constraint(str, test, str->ncon + i);
    }
  }
}

// The range-space frame uses this test too: it looks at no factor.
int znlpfch(MINSTR* str, int job, int job2, int jeps) {
  if (str->bounds == 0 && !has_general_constraints(str)) return 0;
  FeasibilityTest test;
  test.collect = job != 0;
  test.eps = feasibility_tolerance(str, jeps);
  if (test.collect) {
    str->nabc = str->nalc = str->nanc = 0;
    str->cmax = 0.0;
  }
  const bool nonlinear = job2 != 0 && str->nlicon != 0;
  if (str->bounds != 0) test_bounds(str, test);
  if (test.collect && str->bounds != 0) {
    // All that have a status count, also those that kept it from before: the rebuilding of the
    // frame goes by iabc.
    str->nabc = str->nvar - std::count(str->iabc, str->iabc + str->nvar, 0);
  }
  // Equalities of both kinds stand before all inequalities in iact.
  if (str->lincon != 0) test_linear(str, test, 0, str->neqc);
  if (nonlinear) test_nonlinear(str, test, 0, str->nlec);
  if (str->lincon != 0) test_linear(str, test, str->neqc, str->ncon);
  if (nonlinear) test_nonlinear(str, test, str->nlec, str->nnlc);
  return test.violated == 0 ? 0 : -1;
}

// ---- Rebuilding the frame ---------------------------------------------------------------------

static void set_permutation_identity(MINSTR* str) {
  for (long k = 0; k < str->nvar; ++k) str->ifxr[k] = k;
}

// Frame of a problem without general constraints: the permutation alone.
static void rebuild_permutation(MINSTR* str, int job2, long* nhlf, double* ches) {
  set_permutation_identity(str);
  str->nabc = 0;
  str->nalc = 0;
  if (str->bounds == 0) return;
  if (ches == nullptr) {
    // Two-way partition; with a matrix each variable leaves on its own, and the tail fills from the
    // back.
    long front = 0;
    long back = std::count(str->iabc, str->iabc + str->nvar, 0);
    str->nabc = str->nvar - back;
    for (long j = 0; j < str->nvar; ++j) str->ifxr[str->iabc[j] == 0 ? front++ : back++] = j;
    return;
  }
  for (long j = 0; j < str->nvar; ++j) {
    if (str->iabc[j] == 0) continue;
    const long nfre = free_count(str);
    const long place = place_of(str, 0, nfre, j);
    remove_variable(str, job2, nfre, place, nhlf, ches);
    std::copy(str->ifxr + place + 1, str->ifxr + nfre, str->ifxr + place);
    str->ifxr[nfre - 1] = j;
    ++str->nabc;
  }
}

// Adds the fixed bounds, or the others, in the order of the parameters.
static void add_bounds(MINSTR* str, bool fixed, int job2, long* nhlf, double* gpro, double* ches) {
  if (str->bounds == 0) return;
  for (long j = 0; j < str->nvar; ++j) {
    if (str->iabc[j] == 0 || (str->iabc[j] == 2) != fixed) continue;
    znlpupd(str, 0, job2, 0, str->iabc[j], j, nhlf, gpro, ches);
  }
}

// Frame with general constraints, one constraint after the other. What never leaves enters first:
// equalities always stand first in T, and what is dependent on them is deferred, not they.
static void rebuild_factors(MINSTR* str, int job2, long* nhlf, double* gpro, double* ches) {
  const long listed = str->nalc;
  std::copy_n(str->iact, listed, str->liwk);
  set_permutation_identity(str);
  set_q_identity(str, str->nvar);
  vzfdl(0.0, str->llcn, str->nnva);
  str->nabc = str->nalc = 0;

  add_bounds(str, true, job2, nhlf, gpro, ches);
  for (long i = 0; i < listed; ++i) {
    if (!is_equality(str, str->liwk[i])) continue;
    znlpupd(str, 0, job2, 0, 0, str->liwk[i], nhlf, gpro, ches);
  }
  add_bounds(str, false, job2, nhlf, gpro, ches);
  for (long i = 0; i < listed; ++i) {
    if (is_equality(str, str->liwk[i])) continue;
    znlpupd(str, 0, job2, 0, 0, str->liwk[i], nhlf, gpro, ches);
  }
}

// The first form is wanted in lagm in every case; the second form stands beside it in lag2.
static void load_multipliers(MINSTR* str, int job1) {
  if (str->nabc + str->nalc == 0) return;
  if (job1 == 2) znlplm2(str);
  znlpglm(str, 0, str->grad, str->lagm);
}

// Would the multipliers in lagm let a constraint go?
static bool drop_is_possible(const MINSTR* str) {
  const double tres = gtres(str);
  for (long k = 0; k < str->nabc; ++k) {
    if (str->iabc[str->ifxr[free_count(str) + k]] != 2 && str->lagm[k] < -tres) return true;
  }
  for (long k = 0; k < str->nalc; ++k) {
    if (!is_equality(str, str->iact[k]) && str->lagm[str->nabc + k] < -tres) return true;
  }
  return false;
}

int znlpfta(MINSTR* str, int job, int job1, int job2, double* gpro, double* ches, double* hess) {
  refuse_range_frame(str);
  str->nlbc = str->nldc = str->nanc = str->chac = 0;
  long nhlf = str->nvar;
  if (!has_general_constraints(str)) {
    rebuild_permutation(str, job2, &nhlf, ches);
    if (job != 0 && str->nabc != 0) znlpdac(str, job2, 0, &nhlf, ches, hess);
  } else {
    rebuild_factors(str, job2, &nhlf, gpro, ches);
    if (job == 0 && job1 != 0) {
      load_multipliers(str, job1);
      str->idac = str->nabc + str->nalc > 0 && drop_is_possible(str) ? -1 : 0;
    }
    if (job != 0) {
      if (str->nabc + str->nalc > 0) {
        znlpdac(str, job2, job1 == 2 ? 1 : 0, &nhlf, ches, hess);
      }
      if (job1 != 0) load_multipliers(str, job1);
    }
  }
  znlpgmx(str, 0, gpro);
  if (str->nlicon != 0) znlplfg(str, 1);
  return 0;
}

}  // namespace tqnlp
