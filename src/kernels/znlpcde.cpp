// znlpcde: Cholesky DEcomposition, the factorizations of a positive definite matrix in each of the
// storage forms, and znlpcin, its inverse.
//
// Job 1 runs by rows (Golub and Van Loan, Matrix Computations, sec. 4.1): row j of the factor is
// the solution of a triangular system with the rows before it. Job 2, and job 4 with diagonal
// pivoting for semidefinite matrices (Higham, Accuracy and Stability, sec. 10.3), stand in
// znlpcde_llt.cpp. In jobs 1 and 2 a pivot must stay above the rounding of what was subtracted from
// it; job 4 has an absolute test alone.
//
// No work arrays: w of both entries is not read.
#include <cmath>
#include <utility>

#include "aasubs/record/constants.h"
#include "aasubs/record/packed.h"
#include "host/process.h"
#include "kernels/dense.h"
#include "kernels/factor.h"
#include "kernels/panel.h"
#include "kernels/sparse.h"
#include "kernels/vector.h"

namespace tqnlp {

int choose_factor_job(const MINSTR* str, int job) {
  if (job != 0) return job;
  const bool reduced = str->lincon != 0 || str->bounds != 0;
  if (str->hfrm == 2) return reduced ? 5 : 3;
  return reduced ? 4 : 2;
}

// Job 1: A = L D L', unit lower L and D in the diagonal positions.
static long ldudec(long n, double sing, double* logdet, const double* c, double* cc) {
  double* row = cc;
  for (long j = 0; j < n; row += ++j) {
    const double* from = c + (row - cc);
    // First w = D l_j in place of the row: w_k = a_jk - sum of w_i L_ki.
    const double* earlier = cc;
    for (long k = 0; k < j; earlier += ++k) row[k] = from[k] - zvdot11(k, row, earlier);
    double subtracted = 0.0;
    const double* diagonal = cc;
    for (long k = 0; k < j; ++k) {
      const double d = diagonal[k];
      const double element = d > TINY ? row[k] / d : 0.0;
      subtracted += element * row[k];
      row[k] = element;
      diagonal += k + 1;
    }
    const double pivot = from[j] - subtracted;
    if (!(pivot > pivot_limit(sing, from[j], subtracted))) {
      row[j] = failed_pivot(pivot, sing);
      *logdet = LOG_TINY;
      return j + 1;
    }
    *logdet += std::log(pivot);
    row[j] = pivot;
  }
  return 0;
}

// Jobs 3 and 5: roots of a diagonal; with sort the values are brought into descending order (the
// first of equals first) and piv follows. c stays as it is unless cc is c. The log-determinant is
// not written, deliberately: no caller of a diagonal form uses it.
static long diagonal_roots(bool sort, long n, double sing, long* piv, const double* c, double* cc) {
  if (cc != c) {
    for (long i = 0; i < n; ++i) cc[i] = c[i];
  }
  if (sort && piv != nullptr) {
    for (long i = 0; i < n; ++i) piv[i] = i;
  }
  for (long j = 0; j < n; ++j) {
    if (sort) {
      long p = j;
      for (long i = j + 1; i < n; ++i) p = cc[i] > cc[p] ? i : p;
      std::swap(cc[j], cc[p]);
      if (piv != nullptr) std::swap(piv[j], piv[p]);
    }
    if (!(cc[j] >= sing)) {
      cc[j] = failed_pivot(cc[j], sing);
      return j + 1;
    }
    cc[j] = std::sqrt(cc[j]);
  }
  return 0;
}

// Log-determinant from the diagonal of a sparse factor, as it stands there.
static void sparse_logdet(long n, const double* cc, double* logdet) {
  *logdet = 0.0;
  double total = 0.0;
  for (long i = 0; i < n; ++i) {
    if (!(cc[i] > TINY)) return;
    total += std::log(cc[i]);
  }
  *logdet = total;
}

static void copy_matrix(long length, const double* c, double* cc) {
  if (cc == c) return;
  for (long i = 0; i < length; ++i) cc[i] = c[i];
}

static double floored(double sing, double floor) { return sing >= TINY ? sing : floor; }

long znlpcde(MINSTR* str, int job, long n, double sing, double* logdet, double* c, double* cc,
             double* /*w*/) {
  double unused = 0.0;
  if (logdet == nullptr) logdet = &unused;
  job = choose_factor_job(str, job);
  if (job != 3 && job != 5) *logdet = 0.0;
  const SPAR& s = str->shes;
  long failed = 0;
  switch (job) {
    case 1:
      return ldudec(n, floored(sing, SMALLEST_TOLERANCE), logdet, c, cc);
    case 2:
      copy_matrix(packed_size(n), c, cc);
      return lltdec(n, floored(sing, SMALLEST_TOLERANCE), logdet, cc);
    case 3:
    case 5:
      return diagonal_roots(job == 5, n, floored(sing, DIAGONAL_PIVOT_FLOOR), str->ipiv, c, cc);
    case 4:
      return lltde2(n, floored(sing, SMALLEST_TOLERANCE), logdet, str->ipiv, c);
    case 6:
      failed = zslltnf(1, 0, n, sing, s.jasp, s.jusp, s.perm, c, cc);
      break;
    case 7:
      n = second_order(s, n);
      failed = zslltf2(1, s.jasl, s.jusl, 0, n, sing, s.jasp, s.jusp, s.perm, c, cc);
      break;
    default:
      xexit(EXIT_INCONSISTENT, 0);
  }
  if (failed == 0) sparse_logdet(n, cc, logdet);
  return failed;
}

// ---- Inverse -----------------------------------------------------------------------------------

// The inverse from the factor L, in place: first W = L^-1 by rows, then W'W by rows. Both walk
// whole packed rows, and a row is read for the last time before it is written.
static void lltinv(long n, double* c) {
  double* row = c;
  for (long i = 0; i < n; row += ++i) {
    const double reciprocal = 1.0 / row[i];
    const double* earlier = c;
    for (long k = 0; k < i; earlier += ++k) {
      const double factor = -row[k] * reciprocal;
      zvxay11(k, row, factor, earlier);
      row[k] = factor * earlier[k];
    }
    row[i] = reciprocal;
  }
  row = c;
  for (long i = 0; i < n; row += ++i) {
    zvscl11(i + 1, row, row[i]);
    const double* later = row + i + 1;
    for (long k = i + 1; k < n; later += ++k) zvxay11(i + 1, row, later[i], later);
  }
}

// Reciprocals of a diagonal; a value below the limit fails as in the factorization.
static int lltiv2(long n, double sing, const double* c, double* cc) {
  for (long i = 0; i < n; ++i) {
    if (!(c[i] >= sing)) {
      cc[i] = failed_pivot(c[i], sing);
      return static_cast<int>(i + 1);
    }
    cc[i] = 1.0 / c[i];
  }
  return 0;
}

int znlpcin(MINSTR* str, int job, long n, double sing, double* c, double* cc, double* /*w*/) {
  job = choose_factor_job(str, job);
  if (job == 3) return lltiv2(n, floored(sing, DIAGONAL_PIVOT_FLOOR), c, cc);
  if (job != 1 && job != 2) xexit(EXIT_INCONSISTENT, 0);
  double logdet = 0.0;
  copy_matrix(packed_size(n), c, cc);
  const long failed = lltdec(n, floored(sing, SMALLEST_TOLERANCE), &logdet, cc);
  if (failed == 0) lltinv(n, cc);
  return static_cast<int>(failed);
}

}  // namespace tqnlp
