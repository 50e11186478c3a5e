// znlpsym: edits of a packed SYMmetric matrix in place (rows and columns leave or enter), and
// znlpsbs, the vector that belongs to a failed factorization.
//
// Removing walks forward: an element never moves to a later place. Inserting walks backward, for
// the same reason.
#include <cmath>

#include "aasubs/record/constants.h"
#include "aasubs/record/missing.h"
#include "aasubs/record/packed.h"
#include "host/process.h"
#include "kernels/dense.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr long NONE = -1;

// Drops row and column k and those with ind[i] nonzero; ind may be null. Returns the new order.
static long remove_rows(long n, long k, const long* ind, double* c) {
  double* to = c;
  const double* row = c;
  long kept = 0;
  for (long i = 0; i < n; row += ++i) {
    if (i == k || (ind != nullptr && ind[i] != 0)) continue;
    ++kept;
    for (long j = 0; j <= i; ++j) {
      if (j != k && (ind == nullptr || ind[j] == 0)) *to++ = row[j];
    }
  }
  return kept;
}

// Makes room for row and column k in a matrix of order n and fills it from values (element j for
// row and column j of the result), or with zeros and one diagonal value.
static void insert_row(long n, long k, const double* values, double diagonal, double* c) {
  const double* from = c + packed_size(n);
  double* to = c + packed_size(n + 1);
  for (long i = n; i > k; --i) {
    for (long j = i; j >= 0; --j) {
      if (j == k) {
        *--to = values != nullptr ? values[i] : 0.0;
      } else {
        *--to = *--from;
      }
    }
  }
  double* row = c + packed_size(k);
  for (long j = 0; j < k; ++j) row[j] = values != nullptr ? values[j] : 0.0;
  row[k] = values != nullptr ? values[k] : diagonal;
}

void znlpsym(int job, long n, long k, const long* ind, const double* d, double* c) {
  long order = n;
  switch (job) {
    case 1:
      remove_rows(n, k, nullptr, c);
      break;
    case 2:
      remove_rows(n, k, ind, c);
      break;
    case 3:
      remove_rows(n, NONE, ind, c);
      break;
    case 4:
    case 5:
      if (ind != nullptr) order = remove_rows(n, NONE, ind, c);
      insert_row(order, k, nullptr, job == 4 ? *d : 0.0, c);
      break;
    case 6:
      insert_row(n, k, d, 0.0, c);
      break;
    default:
      xexit(EXIT_INCONSISTENT, 0);
  }
}

void znlpsbs(MINSTR* /*str*/, int job, long nt, long nr, long* ipiv, const double* c, double* x) {
  vzfdl(0.0, x, nt);
  if (nr < 1) return;
  x[nr - 1] = 1.0;
  if (job == 0) {
    for (long i = nr - 2; i >= 0; --i) {
      // Column i of the rows below it; the sum keeps its sign, on purpose.
      double sum = 0.0;
      const double* row = c + packed_size(i + 1);
      for (long j = i + 1; j < nr; row += ++j) sum += row[i] * x[j];
      const double pivot = c[packed_size(i) + i];
      x[i] = std::fabs(pivot) < TINY ? 0.0 : sum / pivot;
    }
  }
  if (ipiv != nullptr) znlpprm(1, nt, ipiv, x);
}

}  // namespace tqnlp
