// zchol: the incremental kernels of the older Newton code. A packed Cholesky factor grows by a row
// at a time (zchol), its two triangular solves (zchol2, zbaksub) take 0 for a division by a zero
// diagonal, and zhh1, zhh2 build and apply the Householder reflection that clears a constraint row
// (Golub and Van Loan, Matrix Computations, sec. 5.1 for reflections, sec. 4.2 for the factor).
//
// Who adds a row judges by what zchol returns whether it is independent of the earlier ones. A
// dependent row may stay in the factor: its diagonal is 0, so that later rows, and solutions, get 0
// in its place instead of an infinity.
#include <cmath>

#include "aasubs/record/packed.h"
#include "kernels/dense.h"
#include "kernels/vector.h"

namespace tqnlp {

// The rule of all three kernels. Only an exact zero is meant: zchol has already set to zero what is
// not above its tolerance.
static double divide_or_zero(double value, double diagonal) {
  return diagonal == 0.0 ? 0.0 : value / diagonal;
}

double zchol(long k, double* base, double tol) {
  double* row = base + packed_size(k);
  const double* earlier = base;
  for (long i = 0; i < k; earlier += ++i) {
    row[i] = divide_or_zero(row[i] - zinner(i, row, earlier), earlier[i]);
  }
  // What stands under the root goes back, not the root: beside the diagonal that was there, a small
  // rest tells cancellation, and a negative one a matrix that is not positive definite.
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
    // Row i of L is column i of L': once v[i] is known, its part leaves the elements before it.
    row -= i + 1;
    v[i] = divide_or_zero(v[i], row[i]);
    zvxay11(i, v, -v[i], row);
  }
}

int zhh1(double* abase, double* ubase, double* pk, long k, long inc, long nvar) {
  const long length = nvar - k;
  double* row = abase + k * inc;
  // By the largest element, so that the squares of the norm neither overflow nor vanish.
  const double scale = zvamxj(length, inc, row);
  *pk = 0.0;
  if (scale == 0.0) return 1;
  for (long j = 0; j < length; ++j) {
    ubase[j] = row[j * inc] / scale;
    row[j * inc] = 0.0;
  }
  // u = x + sign(x0) |x| e0: with the sign of x0 the first element grows and nothing cancels. u'u
  // is then 2 |x| |u0|, which makes I - u u'/pk with pk = |x| |u0| a reflection, and x becomes
  // -sign(x0) |x| e0.
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
