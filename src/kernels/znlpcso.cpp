// znlpcso: Cholesky SOlve, with the half solves and the products of the same factors: znlpium and
// znlpilm (Inverse of the Upper, Lower factor times a vector), znlpmmu (Matrix times a vector),
// znlpumu and znlplmu (Upper, Lower factor times a vector), and znlpprm, the permutation of a
// pivoted factor.
//
// Every entry works in place on one vector. The pivoted jobs 4 and 5 do the work of jobs 2 and 3
// between a permutation into pivot order and back. In job 1 the half factors are L D^(1/2) and
// D^(1/2) L', so that a step through half factors agrees with that of an LL' factor.
//
//   job    A        solve       upper half     lower half     stored
//   1      L D L'   L, D, L'    D^(1/2) L'     L D^(1/2)      packed, D on the diagonal
//   2, 4   L L'     L, L'       L'             L              packed (4: in pivot order)
//   3, 5   C C      C, C        C              C              n roots (5: in pivot order)
//   6, 7   U'U      U', U       U              U'             sparse, own permutation
//
// The norm of a lower half solve is the root of b'A^-1 b, that of an upper product the root of b'A
// b, in all forms alike; the elements are not.
#include <cmath>
#include <utility>

#include "aasubs/record/constants.h"
#include "aasubs/record/packed.h"
#include "host/process.h"
#include "kernels/dense.h"
#include "kernels/factor.h"
#include "kernels/sparse.h"

namespace tqnlp {

// Jobs of zqrsol and of unit_triangular.
static constexpr int SOLVE_UPPER = 7;
static constexpr int SOLVE_LOWER = 8;
static constexpr int TIMES_UPPER = 17;
static constexpr int TIMES_LOWER = 18;

// ---- The LDL' form -----------------------------------------------------------------------------

// Root of a pivot; a pivot that is not positive counts as zero.
static double half_pivot(double d) { return d > 0.0 ? std::sqrt(d) : 0.0; }

// b := D^-1 b, or D^(-1/2) b for the half. c steps along the packed diagonal. Returns 1 on a zero
// pivot; a negative one has the half pivot 0 and stops a half solve too.
static int divide_by_pivots(long n, const double* c, double* b, bool half) {
  for (long i = 0; i < n; ++i, c += i + 1) {
    const double d = half ? half_pivot(*c) : *c;
    if (std::fabs(d) < TINY) return 1;
    b[i] /= d;
  }
  return 0;
}

static int ldusol(long n, const double* c, double* b) {
  unit_triangular(SOLVE_LOWER, n, c, b);
  if (divide_by_pivots(n, c, b, false) != 0) return 1;
  unit_triangular(SOLVE_UPPER, n, c, b);
  return 0;
}

static int lduilm(long n, const double* c, double* b) {
  unit_triangular(SOLVE_LOWER, n, c, b);
  return divide_by_pivots(n, c, b, true);
}

static int lduium(long n, const double* c, double* b) {
  if (divide_by_pivots(n, c, b, true) != 0) return 1;
  unit_triangular(SOLVE_UPPER, n, c, b);
  return 0;
}

static void multiply_by_half_pivots(long n, const double* c, double* b) {
  for (long i = 0; i < n; ++i, c += i + 1) b[i] *= half_pivot(*c);
}

static void lduumu(long n, const double* c, double* b) {
  unit_triangular(TIMES_UPPER, n, c, b);
  multiply_by_half_pivots(n, c, b);
}

static void ldulmu(long n, const double* c, double* b) {
  multiply_by_half_pivots(n, c, b);
  unit_triangular(TIMES_LOWER, n, c, b);
}

// ---- The diagonal form -------------------------------------------------------------------------

// The factor holds the roots of the values: twice for the matrix, once for a half.

// b := diagonal^-times b. Returns 1 on a zero pivot.
static int divide_by_diagonal(long n, const double* c, double* b, int times) {
  for (long i = 0; i < n; ++i) {
    if (std::fabs(c[i]) < TINY) return 1;
    b[i] /= c[i];
    if (times == 2) b[i] /= c[i];
  }
  return 0;
}

static int lltcs2(long n, const double* c, double* b) { return divide_by_diagonal(n, c, b, 2); }
static int lltil2(long n, const double* c, double* b) { return divide_by_diagonal(n, c, b, 1); }

static void lltlm2(long n, const double* c, double* b, int times) {
  for (long i = 0; i < n; ++i) b[i] *= times == 2 ? c[i] * c[i] : c[i];
}

// ---- The LL' form ------------------------------------------------------------------------------

// One packed triangular solve or product of zqrsol in place.
static int triangular(int job, long n, const double* c, double* b) {
  return zqrsol(job, n, 1, 0, n, n, nullptr, c, b, b, nullptr, nullptr) != 0 ? 1 : 0;
}

// ---- The sparse form ---------------------------------------------------------------------------

// 1 when a row of the factor failed: the reciprocal of its pivot is then 0.
static int sparse_zero(long n, const double* c) {
  for (long i = 0; i < n; ++i) {
    if (c[i] == 0.0) return 1;
  }
  return 0;
}

// ---- Permutation -------------------------------------------------------------------------------

// Not yet moved: the entry stands complemented, so that any index, also 0, can carry the mark. The
// permutation is its own list of visited places, and is whole again when all cycles are done.
static long marked(long index) { return -1 - index; }

void znlpprm(int job, long n, long* piv, double* x) {
  for (long i = 0; i < n; ++i) piv[i] = marked(piv[i]);
  for (long start = 0; start < n; ++start) {
    if (piv[start] >= 0) continue;
    long i = start;
    const double first = x[start];
    double carried = first;
    for (;;) {
      const long next = piv[i] = marked(piv[i]);
      // Into pivot order values are fetched, backwards they are carried along: either way a cycle
      // is followed in the direction in which piv can be read.
      if (job == 0) {
        x[i] = next == start ? first : x[next];
      } else {
        std::swap(carried, x[next]);
      }
      if (next == start) break;
      i = next;
    }
  }
}

// ---- Entries -----------------------------------------------------------------------------------

int znlpcso(MINSTR* str, int job, long n, double* c, double* b) {
  const SPAR& s = str->shes;
  int zero = 0;
  switch (choose_factor_job(str, job)) {
    case 1:
      return ldusol(n, c, b);
    case 2:
      return triangular(SOLVE_LOWER, n, c, b) != 0 || triangular(SOLVE_UPPER, n, c, b) != 0 ? 1 : 0;
    case 3:
      return lltcs2(n, c, b);
    case 4:
      znlpprm(0, n, str->ipiv, b);
      zero = triangular(SOLVE_LOWER, n, c, b);
      if (zero == 0) zero = triangular(SOLVE_UPPER, n, c, b);
      znlpprm(1, n, str->ipiv, b);
      return zero;
    case 5:
      znlpprm(0, n, str->ipiv, b);
      zero = lltcs2(n, c, b);
      znlpprm(1, n, str->ipiv, b);
      return zero;
    case 6:
      zslltso(n, s.perm, s.jusp, c, b);
      return sparse_zero(n, c);
    case 7:
      n = second_order(s, n);
      zsllts2(n, s.perm, s.jusl, s.jusp, c, b);
      return sparse_zero(n, c);
    default:
      xexit(EXIT_INCONSISTENT, 0);
  }
}

// The half solve with the upper (or lower) factor in any job but 6; job 7 has none. Of the diagonal
// forms both halves are the same.
static int half_solve(MINSTR* str, bool upper, int job, long n, double* c, double* b) {
  const int zqrsol_job = upper ? SOLVE_UPPER : SOLVE_LOWER;
  int zero = 0;
  switch (job) {
    case 1:
      return upper ? lduium(n, c, b) : lduilm(n, c, b);
    case 2:
      return triangular(zqrsol_job, n, c, b);
    case 3:
      return lltil2(n, c, b);
    case 4:
    case 5:
      znlpprm(0, n, str->ipiv, b);
      zero = job == 4 ? triangular(zqrsol_job, n, c, b) : lltil2(n, c, b);
      znlpprm(1, n, str->ipiv, b);
      return zero;
    default:
      xexit(EXIT_INCONSISTENT, 0);
  }
}

int znlpium(MINSTR* str, int job, long n, double* c, double* b) {
  job = choose_factor_job(str, job);
  if (job != 6) return half_solve(str, true, job, n, c, b);
  zslltui(0, n, str->shes.perm, str->shes.jusp, c, b);
  return sparse_zero(n, c);
}

int znlpilm(MINSTR* str, int job, long n, double* c, double* b) {
  job = choose_factor_job(str, job);
  if (job != 6) return half_solve(str, false, job, n, c, b);
  zslltli(0, n, str->shes.perm, str->shes.jusp, c, b);
  return sparse_zero(n, c);
}

// The product with the upper factor, the lower factor, or both in this order. It has no status: a
// product is defined for every factor.
static void product(MINSTR* str, bool upper, bool lower, int job, long n, double* c, double* b) {
  const SPAR& s = str->shes;
  job = choose_factor_job(str, job);
  const bool pivoted = job == 4 || job == 5;
  if (pivoted) znlpprm(0, n, str->ipiv, b);
  switch (job) {
    case 1:
      if (upper) lduumu(n, c, b);
      if (lower) ldulmu(n, c, b);
      break;
    case 2:
    case 4:
      if (upper) triangular(TIMES_UPPER, n, c, b);
      if (lower) triangular(TIMES_LOWER, n, c, b);
      break;
    case 3:
    case 5:
      lltlm2(n, c, b, upper && lower ? 2 : 1);
      break;
    case 6:
      if (upper) zslltmu(0, n, s.perm, s.jusp, c, b);
      if (lower) zslltml(0, n, s.perm, s.jusp, c, b);
      break;
    default:
      xexit(EXIT_INCONSISTENT, 0);
  }
  if (pivoted) znlpprm(1, n, str->ipiv, b);
}

void znlpmmu(MINSTR* str, int job, long n, double* c, double* b) {
  product(str, true, true, job, n, c, b);
}

void znlpumu(MINSTR* str, int job, long n, double* c, double* b) {
  product(str, true, false, job, n, c, b);
}

void znlplmu(MINSTR* str, int job, long n, double* c, double* b) {
  product(str, false, true, job, n, c, b);
}

}  // namespace tqnlp
