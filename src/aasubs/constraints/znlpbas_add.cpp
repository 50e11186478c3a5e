// znlpbas, part of what enters: adds one constraint to the factors, finds new ones at a point, and
// tries deferred ones again.
//
// Method     A general constraint a gives w = Q'a; rotations of neighbouring null-space columns
//            gather w[0..nz-1] in its last element, which becomes the pivot of a new row of T, and
//            the column it stands in leaves the null space. A bound takes a row out of Q: rotations
//            of all neighbouring columns turn that row into a unit vector, and move every pivot of
//            T one column to the left. In both cases the null space loses its last column after the
//            same kind of sweep, and a projected gradient or matrix follows in the same way.
// Reference  Gill, Golub, Murray and Saunders (1974), Mathematics of Computation 28.
//
// With a pivoted factor (job 2) the sweep runs over the null-space columns in the order of the
// factor's rows, ipiv[0], ipiv[1], ..., so that it rotates neighbouring rows of the factor and the
// triangle is restored in O(n^2). The column that is left over, the last pivot, is then brought to
// the end and the columns behind it move up by one.
#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpbas.h"
#include "aasubs/constraints/znlpbas_internal.h"
#include "kernels/dense.h"
#include "kernels/vector.h"

namespace tqnlp {

using namespace bas;

// Order in which a sweep visits the null-space columns: as they stand, or by a pivot list.
struct SweepOrder {
  long nz = 0;
  const long* ipiv = nullptr;  // null: as they stand
};

static SweepOrder sweep_order(const MINSTR* str, int job2, const double* ches) {
  return {reduced_dimension(str), ches != nullptr && job2 == 2 ? str->ipiv : nullptr};
}

// Brings the element of the last pivot behind the others.
static void last_pivot_to_end(const SweepOrder& order, double* row) {
  const long gone = order.ipiv[order.nz - 1];
  std::rotate(row + gone, row + gone + 1, row + order.nz);
}

// Rotations that gather w[0..nz-1] in w[nz-1]; cosines and sines in dcds by place.
static void gather(MINSTR* str, const SweepOrder& order, double* w) {
  for (long k = 0; k + 1 < order.nz; ++k) {
    const long left = order.ipiv != nullptr ? order.ipiv[k] : k;
    const long right = order.ipiv != nullptr ? order.ipiv[k + 1] : k + 1;
    zgivcon(&w[right], &w[left], &str->dcds[k], &str->dcds[str->nvar + k]);
  }
  if (order.ipiv != nullptr) last_pivot_to_end(order, w);
}

// The same rotations on rows in the order of the null-space columns.
static void apply_gathered(const MINSTR* str, const SweepOrder& order, long count, double* rows) {
  const double* c = str->dcds;
  const double* s = str->dcds + str->nvar;
  if (order.ipiv == nullptr) {
    sweep_up(count, str->nvar, rows, 0, order.nz - 1, c, s);
    return;
  }
  for (; count > 0; --count, rows += str->nvar) {
    for (long k = 0; k + 1 < order.nz; ++k) {
      double& left = rows[order.ipiv[k]];
      double& right = rows[order.ipiv[k + 1]];
      const double moved = left;
      left = c[k] * moved - s[k] * right;
      right = c[k] * right + s[k] * moved;
    }
    last_pivot_to_end(order, rows);
  }
}

// ---- One general constraint -------------------------------------------------------------------

static void defer_row(MINSTR* str, long ic) { str->iact[str->nalc + str->nldc++] = ic; }

// w := Q'a on the free parameters.
static void project_row(MINSTR* str, const double* a, double* w) {
  const long nfre = free_count(str);
  if (!q_in_use(str)) {
    for (long l = 0; l < nfre; ++l) w[l] = a[str->ifxr[l]];
    return;
  }
  vzfdl(0.0, w, nfre);
  for (long l = 0; l < nfre; ++l) {
    const double coefficient = a[str->ifxr[l]];
    if (coefficient != 0.0) zvxay11(nfre, w, coefficient, str->qlcn + l * str->nvar);
  }
}

// A pivot at or below the threshold is dependent, and so is one that is no number. Re-adding a
// dropped constraint only refuses a pivot of exactly zero.
static bool pivot_too_small(double pivot, double threshold, bool readd) {
  return readd ? pivot == 0.0 : !(std::fabs(pivot) > threshold);
}

// Adds row ic, or tests it (job). Until the pivot is known to be good nothing but scratch is
// written.
static int add_row(MINSTR* str, int job, int job2, int job3, long ic, long* nhlf, double* gpro,
                   double* ches) {
  const SweepOrder order = sweep_order(str, job2, ches);
  const long nfre = free_count(str);
  double* w = str->work;
  str->acget(str, ic, str->awrk);
  project_row(str, str->awrk, w);
  gather(str, order, w);
  const double threshold = str->ldct * zvenorm(str->nvar, 1, str->awrk);
  const bool dependent = pivot_too_small(w[order.nz - 1], threshold, job3 != 0);
  if (job != 0) return dependent ? 1 : 0;
  if (dependent) {
    defer_row(str, ic);
    return 1;
  }

  // The first row of a technique without the full frame: Q comes into use as the identity. It is
  // set again, so that nothing depends on what stood there before the run.
  if (!q_in_use(str)) set_q_identity(str, nfre);
  apply_gathered(str, order, nfre, str->qlcn);
  if (gpro != nullptr) apply_gathered(str, order, 1, gpro);
  std::copy_n(w + order.nz - 1, str->nalc + 1, str->llcn + packed_size(str->nalc));
  remove_swept(str, job2, order.nz, nhlf, ches);

  // Active entries stand before the deferred ones.
  long* place = str->iact + str->nalc;
  std::copy_backward(place, place + str->nldc, place + str->nldc + 1);
  *place = ic;
  ++str->nalc;
  if (ic >= str->ncon) ++str->nanc;
  return 0;
}

// ---- One bound --------------------------------------------------------------------------------

static int defer_bound(MINSTR* str, int koc, long ic) {
  str->iabc[ic] = koc;
  ++str->nlbc;
  return 1;
}

// The parameter leaves the free part of ifxr; those behind it move up, so that the tail fills from
// the back.
static void move_to_tail(MINSTR* str, int koc, long place) {
  const long nfre = free_count(str);
  const long ic = str->ifxr[place];
  std::copy(str->ifxr + place + 1, str->ifxr + nfre, str->ifxr + place);
  str->ifxr[nfre - 1] = ic;
  str->iabc[ic] = koc;
  ++str->nabc;
}

// Bound in the permuted frame: no factor changes, one variable goes.
static void add_bound_permuted(MINSTR* str, int job2, int koc, long place, long* nhlf, double* gpro,
                               double* ches) {
  const long nfre = free_count(str);
  remove_variable(str, job2, nfre, place, nhlf, ches);
  if (gpro != nullptr) std::copy(gpro + place + 1, gpro + nfre, gpro + place);
  move_to_tail(str, koc, place);
}

// Pivots that T would get, in the free row behind T. Returns whether one of them is too small. The
// test is absolute on purpose: it is not scaled by the norms of the rows.
static bool new_pivots_too_small(MINSTR* str, bool readd) {
  const long nfre = free_count(str);
  const double* s = str->dcds + str->nvar;
  double* pivots = str->llcn + packed_size(str->nalc);
  bool too_small = false;
  for (long r = 0; r < str->nalc; ++r) {
    pivots[r] = -s[nfre - 2 - r] * str->llcn[packed_size(r)];
    if (!readd && !(std::fabs(pivots[r]) > str->ldct)) too_small = true;
  }
  return too_small;
}

// The rotations on the columns of T: each pivot moves one column to the left, and the column of the
// parameter that becomes fixed drops out at the right end.
static void shift_triangle_left(MINSTR* str) {
  const long nfre = free_count(str);
  const double* c = str->dcds;
  const double* s = str->dcds + str->nvar;
  const double* pivots = str->llcn + packed_size(str->nalc);
  for (long r = 0; r < str->nalc; ++r) {
    double* row = str->llcn + packed_size(r);
    const long left = nfre - 2 - r;
    double carry = c[left] * row[0];
    row[0] = pivots[r];
    for (long j = 1; j <= r; ++j) {
      const double right = row[j];
      row[j] = c[left + j] * carry - s[left + j] * right;
      carry = c[left + j] * right + s[left + j] * carry;
    }
  }
}

// Takes row place and the last column out of Q; the last row and column become those of the
// identity.
static void remove_from_q(MINSTR* str, long place) {
  const long n = str->nvar;
  const long last = free_count(str) - 1;
  for (long l = place; l < last; ++l) {
    std::copy_n(str->qlcn + (l + 1) * n, last, str->qlcn + l * n);
  }
  for (long l = 0; l < last; ++l) str->qlcn[l * n + last] = 0.0;
  vzfdl(0.0, str->qlcn + last * n, last);
  str->qlcn[last * n + last] = 1.0;
}

// Sweep that turns row place of Q into the last unit vector, the null-space part first.
static void gather_q_row(MINSTR* str, const SweepOrder& order, long place) {
  const long nfre = free_count(str);
  double* q = str->work;
  std::copy_n(str->qlcn + place * str->nvar, nfre, q);
  gather(str, order, q);
  for (long k = order.nz - 1; k + 1 < nfre; ++k) {
    zgivcon(&q[k + 1], &q[k], &str->dcds[k], &str->dcds[str->nvar + k]);
  }
}

// Adds the bound of parameter ic, or tests it (job); as add_row. Without Q any bound fits.
static int add_bound(MINSTR* str, int job, int job2, int job3, int koc, long ic, long* nhlf,
                     double* gpro, double* ches) {
  const long nfre = free_count(str);
  const long place = place_of(str, 0, nfre, ic);
  if (!q_in_use(str)) {
    if (job == 0) add_bound_permuted(str, job2, koc, place, nhlf, gpro, ches);
    return 0;
  }
  const SweepOrder order = sweep_order(str, job2, ches);
  gather_q_row(str, order, place);
  const bool dependent = new_pivots_too_small(str, job3 != 0);
  if (job != 0) return dependent ? 1 : 0;
  if (dependent) return defer_bound(str, koc, ic);

  apply_gathered(str, order, nfre, str->qlcn);
  sweep_up(nfre, str->nvar, str->qlcn, order.nz - 1, nfre - 1, str->dcds, str->dcds + str->nvar);
  if (gpro != nullptr) apply_gathered(str, order, 1, gpro);
  shift_triangle_left(str);
  remove_from_q(str, place);
  remove_swept(str, job2, order.nz, nhlf, ches);
  move_to_tail(str, koc, place);
  return 0;
}

int znlpupd(MINSTR* str, int job, int job2, int job3, int koc, long ic, long* nhlf, double* gpro,
            double* ches) {
  refuse_range_frame(str);
  if (reduced_dimension(str) <= 0) {
    if (job != 0) return 1;
    if (koc != 0) return defer_bound(str, koc, ic);
    defer_row(str, ic);
    return 1;
  }
  if (koc == 0) return add_row(str, job, job2, job3, ic, nhlf, gpro, ches);
  return add_bound(str, job, job2, job3, koc, ic, nhlf, gpro, ches);
}

// ---- What is active at a point ----------------------------------------------------------------

// Status of parameter j at x, the upper bound winning; counts a violated bound.
static int bound_status(const MINSTR* str, long j, double eps, int* violated) {
  int status = 0;
  if (lower_exists(str->lb[j])) {
    const double distance = str->x[j] - str->lb[j];
    const double tolerance = (std::fabs(str->lb[j]) + 1.0) * eps;
    if (std::fabs(distance) <= tolerance) status = 1;
    if (distance < -tolerance) ++*violated;
  }
  if (upper_exists(str->ub[j])) {
    const double distance = str->ub[j] - str->x[j];
    const double tolerance = (std::fabs(str->ub[j]) + 1.0) * eps;
    if (std::fabs(distance) <= tolerance) status = -1;
    if (distance < -tolerance) ++*violated;
  }
  return status;
}

static int detect_bounds(MINSTR* str, int job, double eps, long* nhlf, double* gpro, double* ches) {
  int violated = 0;
  for (long j = 0; j < str->nvar; ++j) {
    if (str->iabc[j] != 0) continue;
    const int status = bound_status(str, j, eps, &violated);
    if (status == 0) continue;
    if (has_general_constraints(str)) {
      znlpupd(str, 0, job, 0, status, j, nhlf, gpro, ches);
    } else {
      add_bound_permuted(str, job, status, place_of(str, 0, free_count(str), j), nhlf, gpro, ches);
    }
  }
  return violated;
}

static int detect_rows(MINSTR* str, int job, double eps, long* nhlf, double* gpro, double* ches) {
  int violated = 0;
  for (long i = 0; i < str->ncon; ++i) {
    const long* end = str->iact + str->nalc + str->nldc;
    if (std::find(static_cast<const long*>(str->iact), end, i) != end) continue;
    str->acget(str, i, str->awrk);
    const double residual = zvdot11(str->nvar, str->awrk, str->x) - str->blcn[i];
    const double tolerance = std::max((std::fabs(str->blcn[i]) + 1.0) * eps, eps);
    // A row that is violated by more than the tolerance is reported and stays out.
    if (residual < -tolerance) ++violated;
    if (std::fabs(residual) <= tolerance) znlpupd(str, 0, job, 0, 0, i, nhlf, gpro, ches);
  }
  return violated;
}

int znlpact(MINSTR* str, int job, int job2, long* nhlf, double* gpro, double* ches) {
  refuse_range_frame(str);
  const double eps = feasibility_tolerance(str, str->ipre);
  const long bounds_before = str->nabc;
  const long rows_before = str->nalc;
  int violated = 0;
  if (str->bounds != 0) violated += detect_bounds(str, job, eps, nhlf, gpro, ches);
  if (str->lincon != 0) violated += detect_rows(str, job, eps, nhlf, gpro, ches);
  str->chac = std::max(str->nabc - bounds_before, 0L) + std::max(str->nalc - rows_before, 0L);
  return job2 != 0 ? -violated : 0;
}

// ---- Deferred constraints ---------------------------------------------------------------------

// Each is tested before it is touched: one that stays dependent keeps its place in the tail.
int znlpcld(MINSTR* str, int job, long* nhlf, double* gpro, double* ches) {
  refuse_range_frame(str);
  int entered = 0;
  for (long place = 0; str->nlbc > 0 && place < free_count(str);) {
    const long j = str->ifxr[place];
    if (str->iabc[j] == 0 || znlpupd(str, 1, job, 0, str->iabc[j], j, nhlf, gpro, ches) != 0) {
      ++place;
      continue;
    }
    znlpupd(str, 0, job, 0, str->iabc[j], j, nhlf, gpro, ches);
    --str->nlbc;
    entered = 1;
  }
  for (long place = 0; place < str->nldc;) {
    long* entry = str->iact + str->nalc + place;
    const long ic = *entry;
    if (znlpupd(str, 1, job, 0, 0, ic, nhlf, gpro, ches) != 0) {
      ++place;
      continue;
    }
    std::copy(entry + 1, str->iact + str->nalc + str->nldc, entry);
    --str->nldc;
    znlpupd(str, 0, job, 0, 0, ic, nhlf, gpro, ches);
    entered = 1;
  }
  return entered;
}

}  // namespace tqnlp
