// zchol: the incremental kernels of the older Newton code. A packed Cholesky factor grows by a row
// at a time (zchol), its two triangular solves (zchol2, zbaksub) take 0 for a division by a zero
// diagonal, and zhh1, zhh2 build and apply the Householder reflection that clears a constraint row.
#include <cmath>

#include "aasubs/record/packed.h"
#include "kernels/dense.h"
#include "kernels/vector.h"

namespace tqnlp {

static double divide_or_zero(double value, double diagonal) {
  return diagonal == 0.0 ? 0.0 : value / diagonal;
}

double zchol(long k, double* base, double tol) {
  double* row = base + packed_size(k);
  const double* earlier = base;
  for (long i = 0; i < k; earlier += ++i) {
    row[i] = divide_or_zero(row[i] - zinner(i, row, earlier), earlier[i]);
  }
  const double rest = row[k] - zinner(k, row, row);
  row[k] = rest > tol ? std::sqrt(rest) : 0.0;
  return rest;
}

void zchol2(long k, const double* base, double* vec) {
  const double* row = base;
  for (long i = 0; i < k; row += ++i) {
    vec[i] = divide_or_zero(vec[i] - zinner(i, row, vec), row[i]);
  }
}

void zbaksub(long k, const double* m, double* v) {
  const double* row = m + packed_size(k);
  for (long i = k - 1; i >= 0; --i) {
    row -= i + 1;
    v[i] = divide_or_zero(v[i], row[i]);
    zvxay11(i, v, -v[i], row);
  }
}

int zhh1(double* abase, double* ubase, double* pk, long k, long inc, long nvar) {
  const long length = nvar - k;
  double* row = abase + k * inc;
  const double scale = zvamxj(length, inc, row);
  *pk = 0.0;
  if (scale == 0.0) return 1;
  for (long j = 0; j < length; ++j) {
    ubase[j] = row[j * inc] / scale;
    row[j * inc] = 0.0;
  }
  double norm = std::sqrt(zinner(length, ubase, ubase));
  if (!(ubase[0] > 0.0)) norm = -norm;
  ubase[0] += norm;
  *pk = norm * ubase[0];
  row[0] = -scale * norm;
  return 0;
}

int zhh2(double* abase, const double* ubase, long k, double pk, long inc, long nvar) {
  if (pk == 0.0) return 1;
  const long length = nvar - k;
  double* row = abase + k * inc;
  const double factor = -zvdotj1(length, inc, row, ubase) / pk;
  zvxayj1(length, inc, row, factor, ubase);
  return 0;
}

}  // namespace tqnlp
