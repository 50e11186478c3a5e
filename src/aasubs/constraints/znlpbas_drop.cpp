// znlpbas, part of what leaves: drops one constraint from the factors.
//
// Method     Dropping a row of T leaves the rows below it with one element too many on the left;
//            rotations of neighbouring columns take it away, and the column that T no longer
//            touches joins the null space as its last. A bound that is freed gives Q a unit row and
//            column and T a column on the right; the same rotations, over all rows of T, bring it
//            to form. The earlier null-space columns do not change, so that a projected gradient
//            gains one element and a projected factor one row.
// Reference  Gill, Golub, Murray and Saunders (1974), Mathematics of Computation 28.
#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpbas.h"
#include "aasubs/constraints/znlpbas_internal.h"
#include "kernels/dense.h"
#include "kernels/sparse.h"
#include "kernels/vector.h"

namespace tqnlp {

using namespace bas;

// x := H z in the three forms of the Hessian.
static void multiply_hessian(const MINSTR* str, const double* hess, const double* z, double* x) {
  if (str->hfrm == 2) {
    for (long j = 0; j < str->nvar; ++j) x[j] = hess[j] * z[j];
  } else if (str->hfrm == 1) {
    zslltma(str->nvar, str->shes.jasp, hess, z, x);
  } else {
    znlpsmv(str->nvar, nullptr, hess, z, x);
  }
}

// Column nz of Q has become a null-space direction z: gpro gains z'g, ches the row Z'Hz, z'Hz.
// nz is the dimension before.
static int append_null_column(MINSTR* str, int job, long nz, long* nhlf, double* gpro, double* ches,
                              const double* hess) {
  const long n = str->nvar;
  const long nfre = free_count(str);
  double* z = str->awrk;
  vzfdl(0.0, z, n);
  for (long l = 0; l < nfre; ++l) z[str->ifxr[l]] = str->qlcn[l * n + nz];
  if (gpro != nullptr) gpro[nz] = zvdot11(n, z, str->grad);
  if (ches == nullptr) return 0;
  double* cross = str->dcds;
  double* spare = str->dcds + n;
  if (job == 0 || hess == nullptr) {
    return append_variable(str, job, nz, nullptr, 1.0, spare, nhlf, ches);
  }
  double* product = str->work;
  multiply_hessian(str, hess, z, product);
  vzfdl(0.0, cross, nz);
  for (long l = 0; l < nfre; ++l) {
    zvxay11(nz, cross, product[str->ifxr[l]], str->qlcn + l * n);
  }
  return append_variable(str, job, nz, cross, zvdot11(n, z, product), spare, nhlf, ches);
}

// ---- One general constraint -------------------------------------------------------------------

// Removes row gone of T. Rotation r, by the left one of its columns, clears the first element of
// the row that stood at r.
static void remove_row(MINSTR* str, long gone) {
  const long nfre = free_count(str);
  double* c = str->dcds;
  double* s = str->dcds + str->nvar;
  for (long r = gone + 1; r < str->nalc; ++r) {
    double* row = str->llcn + packed_size(r);
    const long left = nfre - 1 - r;
    sweep_down(1, 0, row, 1, r - gone, c + left, s + left);
    zgivcon(&row[1], &row[0], &c[left], &s[left]);
    std::copy(row + 1, row + r + 1, str->llcn + packed_size(r - 1));
  }
  // Columns of the rows before the one removed keep their place, and so do those of the null space.
  sweep_down(nfre, str->nvar, str->qlcn, nfre - str->nalc, nfre - 1 - gone, c, s);
}

// Takes the entry out of iact; active and deferred ones behind it move up.
static void forget_row(MINSTR* str, long gone) {
  const long ic = str->iact[gone];
  std::copy(str->iact + gone + 1, str->iact + str->nalc + str->nldc, str->iact + gone);
  --str->nalc;
  if (ic >= str->ncon) --str->nanc;
}

// The last general constraint has gone from a frame that then does without Q: everything goes back
// to the order of the permutation.
static void leave_q(MINSTR* str, int job, long* nhlf, double* gpro, double* ches) {
  const long nfre = free_count(str);
  turn_to_permutation(str, job, nfre, nhlf, ches);
  set_q_identity(str, nfre);
  vzfdl(0.0, str->llcn, str->nnva);
  if (gpro == nullptr) return;
  for (long l = 0; l < nfre; ++l) gpro[l] = str->grad[str->ifxr[l]];
}

// Drops general constraint ic. The new direction is looked at while Q still holds it.
static int drop_row(MINSTR* str, int job, long ic, long* nhlf, double* gpro, double* ches,
                    const double* hess) {
  const long gone = std::find(str->iact, str->iact + str->nalc, ic) - str->iact;
  if (gone == str->nalc) return 1;  // also when the constraint only waits among the deferred
  const long nz = reduced_dimension(str);
  remove_row(str, gone);
  const int status = append_null_column(str, job, nz, nhlf, gpro, ches, hess);
  forget_row(str, gone);
  if (!q_in_use(str)) leave_q(str, job, nhlf, gpro, ches);
  return status;
}

// ---- One bound --------------------------------------------------------------------------------

// Parameter ic leaves the tail of ifxr for the end of the free part.
static void move_to_free(MINSTR* str, long ic) {
  const long nfre = free_count(str);
  std::swap(str->ifxr[place_of(str, nfre, str->nvar, ic)], str->ifxr[nfre]);
  str->iabc[ic] = 0;
  --str->nabc;
}

// Frees a bound in the permuted frame, where the new direction is the parameter itself.
static int drop_bound_permuted(MINSTR* str, int job, long ic, long* nhlf, double* gpro,
                               double* ches, const double* hess) {
  if (gpro != nullptr) gpro[free_count(str)] = str->grad[ic];
  const int status = bcupd(str, job, ic, nhlf, ches, hess);
  move_to_free(str, ic);
  const bool unit_row = ches != nullptr && (job == 0 || hess == nullptr);
  return unit_row ? 1 : status;
}

// T gains the coefficients of the freed parameter as its last column; every pivot moves one column
// to the right. nfre is the number of free parameters before.
static void shift_triangle_right(MINSTR* str, long nfre, long ic) {
  double* c = str->dcds;
  double* s = str->dcds + str->nvar;
  for (long r = 0; r < str->nalc; ++r) {
    str->acget(str, str->iact[r], str->awrk);
    double* row = str->llcn + packed_size(r);
    const long left = nfre - 1 - r;
    double carry = str->awrk[ic];
    for (long j = r; j >= 1; --j) {
      const double moved = row[j];
      row[j] = c[left + j] * carry + s[left + j] * moved;
      carry = c[left + j] * moved - s[left + j] * carry;
    }
    // The earlier rows are in form; this rotation does it for row r and is kept for the later ones.
    zgivcon(&carry, &row[0], &c[left], &s[left]);
    row[0] = carry;
  }
}

// Frees the bound of parameter ic: Q gains a unit row and column, T a column, then both come back
// to form by the same rotations.
static int drop_bound(MINSTR* str, int job, long ic, long* nhlf, double* gpro, double* ches,
                      const double* hess) {
  if (!q_in_use(str)) return drop_bound_permuted(str, job, ic, nhlf, gpro, ches, hess);
  const long n = str->nvar;
  const long nfre = free_count(str);
  const long nz = reduced_dimension(str);
  move_to_free(str, ic);
  for (long l = 0; l < nfre; ++l) str->qlcn[l * n + nfre] = 0.0;
  vzfdl(0.0, str->qlcn + nfre * n, nfre);
  str->qlcn[nfre * n + nfre] = 1.0;
  shift_triangle_right(str, nfre, ic);
  sweep_down(nfre + 1, n, str->qlcn, nz, nfre, str->dcds, str->dcds + n);
  return append_null_column(str, job, nz, nhlf, gpro, ches, hess);
}

int znlpdod(MINSTR* str, int job, int koc, long ic, long* nhlf, double* gpro, double* ches,
            double* hess) {
  refuse_range_frame(str);
  if (koc == 0) return drop_row(str, job, ic, nhlf, gpro, ches, hess);
  return drop_bound(str, job, ic, nhlf, gpro, ches, hess);
}

int znlpcsr(MINSTR* str, int job, long nglm, long* nhlf, double* gpro, double* ches, double* hess) {
  int result = 0;
  for (long k = 0; k < nglm; ++k) {
    const long c = str->liwk[k];
    const bool is_bound = c < str->nvar;
    const int koc = is_bound ? str->iabc[c] : 0;
    const int status = znlpdod(str, job, koc, is_bound ? c : c - str->nvar, nhlf, gpro, ches, hess);
    if (status != 0) result = status;
  }
  return result;
}

}  // namespace tqnlp
