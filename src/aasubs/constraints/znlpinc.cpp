// znlpinc: INdex of the quadratic and its Companions znlphlo (Hessian LOad) and znlpclo (Cholesky
// LOad): the loading routines of the quadratic techniques, whose matrix lives in hess, or in utquad
// in the layout told in znlpba1.h.
//
// Factors: packed LL', packed LDL' for the free parameters, sparse Cholesky in one of the patterns
// of shes, or the roots of a diagonal. Golub and Van Loan, Matrix Computations (1996), section 4.2.
//
// Work: znlpclo reads one row, or the diagonal, into work; iwk holds the position of each parameter
// among the free ones, negative numbers for the others.
#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpba1.h"
#include "host/files.h"
#include "host/log.h"
#include "host/process.h"
#include "kernels/dense.h"
#include "kernels/sparse.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr int PACKED = 0;  // hfrm
static constexpr int SPARSE = 1;
static constexpr int DIAGONAL = 2;

// ---- Index ------------------------------------------------------------------------------------

// Brings free parameters into the front of the identity by exchanges, which moves as few indices as
// possible: each bound one in the front changes places with the next free one behind it.
static void exchange_to_front(const MINSTR* str, long* order) {
  const long n = str->nvar;
  const long free = n - str->nabc;
  long behind = free;
  for (long l = 0; l < free; ++l) {
    if (str->iabc[order[l]] == 0) continue;
    while (behind < n && str->iabc[order[behind]] != 0) ++behind;
    if (behind == n) xexit(EXIT_INCONSISTENT, 0);
    std::swap(order[l], order[behind]);
  }
}

int znlpinc(MINSTR* str, int dofac) {
  const long n = str->nvar;
  const bool some_bound = str->bounds != 0 && str->nabc > 0;
  for (long j = 0; j < n; ++j) str->ifxr[j] = j;
  if (some_bound && str->hfrm == SPARSE) {
    exchange_to_front(str, str->ifxr);
  } else if (some_bound) {
    std::stable_partition(str->ifxr, str->ifxr + n, [&](long j) { return str->iabc[j] == 0; });
  }
  return dofac != 0 && str->usclo != nullptr ? str->usclo(str) : 0;
}

// ---- Reading ----------------------------------------------------------------------------------

static void check_file(int status) {
  if (status == 0) return;
  xprrlog(0, status);
  xexit(EXIT_WORK_FILE, 0);
}

static void read_doubles(MINSTR* str, double* to, long count) {
  check_file(xcread(str->utquad, to, count * static_cast<long>(sizeof(double))));
}

static void read_longs(MINSTR* str, long* to, long count) {
  check_file(xcread(str->utquad, to, count * static_cast<long>(sizeof(long))));
}

// Rewinds the file and reads what stands before the matrix.
static void read_head(MINSTR* str) {
  check_file(xcpoint(str->utquad, 0));
  if (str->fqad != 0) read_doubles(str, str->qvec, str->nvar);
}

static void read_sparse(MINSTR* str) {
  const SPAR& s = str->shes;
  read_doubles(str, str->hess, s.mxja);
  read_longs(str, s.jasp, s.mxja);
  read_longs(str, s.jusp, s.mxju);
  read_longs(str, s.perm, str->nvar);
  read_longs(str, s.iprm, str->nvar);
}

int znlphlo(MINSTR* str) {
  const long n = str->nvar;
  read_head(str);
  switch (str->hfrm) {
    case SPARSE:
      read_sparse(str);
      break;
    case DIAGONAL:
      read_doubles(str, str->hess, n);
      break;
    case PACKED:
      for (long i = 0; i < n; ++i) read_doubles(str, str->hess + packed_size(i), i + 1);
      break;
    default:
      xexit(EXIT_INCONSISTENT, 0);
  }
  return 0;
}

// ---- Loading of the factor --------------------------------------------------------------------

// iwk := position of each parameter among the free ones, or -1, -2, ... for the others.
static void mark_positions(MINSTR* str) {
  const long n = str->nvar;
  const long free = n - str->nabc;
  for (long l = 0; l < n; ++l) str->iwk[str->ifxr[l]] = l < free ? l : free - l - 1;
}

// Row i of the packed matrix; rows must be asked for in ascending order after read_head.
static const double* packed_row(MINSTR* str, long i) {
  if (str->utquad == nullptr) return str->hess + packed_size(i);
  read_doubles(str, str->work, i + 1);
  return str->work;
}

static long load_packed(MINSTR* str) {
  static constexpr int UNIT_LOWER = 1;  // LDL'
  static constexpr int LOWER = 2;       // LL'
  const long n = str->nvar;
  double logdet = 0.0;
  if (str->bounds == 0) {
    for (long i = 0; i < n; ++i) {
      std::copy_n(packed_row(str, i), i + 1, str->half + packed_size(i));
    }
    return znlpcde(str, LOWER, n, str->sing, &logdet, str->half, str->half, nullptr);
  }
  mark_positions(str);
  for (long i = 0; i < n; ++i) {
    const double* from = packed_row(str, i);
    const long row = str->iwk[i];
    if (row < 0) continue;
    for (long j = 0; j <= i; ++j) {
      const long column = str->iwk[j];
      if (column >= 0) str->half[zisub(row, column)] = from[j];
    }
  }
  return znlpcde(str, UNIT_LOWER, n - str->nabc, str->sing, &logdet, str->half, str->half, nullptr);
}

// Is a pivot, of which the factor keeps the reciprocal root, no more than rounding of its diagonal?
// The sparse kernel has no limit of that kind, as the packed one has: a singular matrix would pass
// for definite where rounding falls that way.
static bool pivot_is_rounding(double diagonal, double reciprocal) {
  static constexpr double PIVOT_ROUNDING = 1e-13;
  return PIVOT_ROUNDING * diagonal * reciprocal * reciprocal >= 1.0;
}

// Pivots of the sparse factor that are rounding. free: through the second pattern.
static long rounding_pivots(const MINSTR* str, bool free) {
  const SPAR& s = str->shes;
  const long order = free ? free_count(str) : str->nvar;
  const long* place = free ? s.jusl + s.jusl[order] : s.perm;
  long count = 0;
  for (long l = 0; l < order; ++l) {
    const double diagonal = str->hess[free ? str->ifxr[l] : l];
    count += pivot_is_rounding(diagonal, str->half[place[l]]) ? 1 : 0;
  }
  return count;
}

// With bounds the pattern of the free parameters is made first: it follows the working set.
static long load_sparse(MINSTR* str) {
  const long n = str->nvar;
  const SPAR& s = str->shes;
  if (str->utquad != nullptr) read_sparse(str);
  if (str->bounds == 0) {
    const int failed = zslltnf(1, 0, n, str->sing, s.jasp, s.jusp, s.perm, str->hess, str->half);
    return failed != 0 ? failed : rounding_pivots(str, false);
  }
  mark_positions(str);
  const long order = zslltiu(s.jasl, s.jusl, str->iwk, n, s.jasp, s.jusp, s.perm, s.iprm, s.mxju,
                             nullptr, nullptr);
  if (order < 0) xexit(EXIT_INCONSISTENT, 0);
  if (order < 1) return 0;
  const int failed = zslltf2(2, s.jasl, s.jusl, 0, order, str->sing, s.jasp, s.jusp, str->iwk,
                             str->hess, str->half);
  return failed != 0 ? failed : rounding_pivots(str, true);
}

// A value that is not above sing counts only where its parameter is free.
static long load_diagonal(MINSTR* str) {
  const long n = str->nvar;
  long zeros = 0;
  const double* d = str->hess;
  if (str->utquad != nullptr) {
    read_doubles(str, str->work, n);
    d = str->work;
  }
  for (long j = 0; j < n; ++j) {
    const bool good = d[j] > str->sing;
    str->half[j] = good ? std::sqrt(d[j]) : 0.0;
    if (!good && (str->bounds == 0 || str->iabc[j] == 0)) ++zeros;
  }
  return zeros;
}

int znlpclo(MINSTR* str) {
  if (str->clod != 0) xexit(EXIT_INCONSISTENT, 0);
  if (str->utquad != nullptr) read_head(str);
  long failed = 0;
  switch (str->hfrm) {
    case PACKED:
      failed = load_packed(str);
      break;
    case SPARSE:
      failed = load_sparse(str);
      break;
    case DIAGONAL:
      failed = load_diagonal(str);
      break;
    default:
      xexit(EXIT_INCONSISTENT, 0);
  }
  return failed == 0 ? 0 : -1;
}

// ---- Products and sizes
// --------------------------------------------------------------------------

// Row by row, in the one order of sums for memory and file.
static void multiply_packed(MINSTR* str, const double* v, double* product) {
  vzfdl(0.0, product, str->nvar);
  if (str->utquad != nullptr) read_head(str);
  for (long i = 0; i < str->nvar; ++i) {
    const double* row = packed_row(str, i);
    zvxay11(i, product, v[i], row);
    product[i] += zvdot11(i + 1, row, v);
  }
}

void quadratic_product(MINSTR* str, const double* v, double* product) {
  if (str->hfrm == PACKED && (str->utquad != nullptr || is_barrier(str))) {
    multiply_packed(str, v, product);
  } else {
    znlpmul(str, str->hfrm, str->nvar, nullptr, str->hess, v, product);
  }
}

void quadratic_scale(MINSTR* str, double* scale) {
  if (str->hfrm == PACKED && str->utquad != nullptr) read_head(str);
  for (long j = 0; j < str->nvar; ++j) {
    const double diagonal = str->hfrm == PACKED ? packed_row(str, j)[j] : str->hess[j];
    scale[j] = std::sqrt(std::fabs(diagonal));
  }
}

}  // namespace tqnlp
