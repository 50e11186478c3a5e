// zmchol: Modified CHOLesky factorization in two phases (Schnabel and Eskow 1990, SIAM Journal on
// Scientific and Statistical Computing 11): P(A+E)P' = LL' with a non-negative diagonal E that is
// zero when A is safely positive definite.
//
// Phase one is the plain factorization with the largest diagonal element as pivot, for as long as
// the next reduced matrix keeps its diagonal clear of zero. Phase two pivots on the largest lower
// Gerschgorin bound and adds to the diagonal so that the bounds do not fall; the last two rows are
// treated together by their eigenvalues.
//
// gvec holds n doubles: the Gerschgorin bounds with reversed sign.
#include <cmath>
#include <utility>

#include "aasubs/record/constants.h"
#include "aasubs/record/missing.h"
#include "aasubs/record/packed.h"
#include "kernels/dense.h"
#include "kernels/factor.h"
#include "kernels/panel.h"
#include "kernels/vector.h"

namespace tqnlp {

// exp(log(EPS)/3), the tolerance of both phases where the caller gives none.
static constexpr double CUBE_ROOT_EPS = 4.806217383937356e-06;

// What the steps share.
struct ModifiedCholesky {
  long n;
  double* a;
  long* ipiv;
  double* emat;  // or null
  double* gvec;
  double tau2;
  double gamma;  // largest absolute diagonal element
  double taug;   // smallest acceptable diagonal of a reduced matrix
  double delta;  // largest amount added so far
};

static double& diagonal(const ModifiedCholesky& m, long i) { return m.a[packed_size(i) + i]; }

static void swap_pivot(const ModifiedCholesky& m, long j, long p) {
  swap_packed(m.n, j, p, m.a);
  std::swap(m.ipiv[j], m.ipiv[p]);
}

// Takes the root of pivot j, scales its column and updates the rows that follow.
static void eliminate(const ModifiedCholesky& m, long j) {
  const double root = diagonal(m, j) = std::sqrt(diagonal(m, j));
  double* row = m.a + packed_size(j + 1);
  for (long i = j + 1; i < m.n; row += ++i) row[j] /= root;
  eliminate_column(m.n, j, m.a);
}

// gers[i] := sum of |a(i,k)|, k from first on and not i, minus a(i,i).
static void gersch(long n, long first, const double* a, double* gers) {
  for (long i = first; i < n; ++i) gers[i] = 0.0;
  const double* row = a + packed_size(first);
  for (long i = first; i < n; row += ++i) {
    double sum = 0.0;
    for (long k = first; k < i; ++k) {
      const double size = std::fabs(row[k]);
      sum += size;
      gers[k] += size;
    }
    gers[i] += sum - row[i];
  }
}

// Is no element above TINY? A NaN is no zero: it has to reach the factor.
static bool is_zero(long length, const double* a) {
  for (long k = 0; k < length; ++k) {
    if (!(std::fabs(a[k]) <= TINY)) return false;
  }
  return true;
}

// A matrix of nothing but zeros is replaced by a tiny multiple of the identity.
static void replace_zero_matrix(const ModifiedCholesky& m) {
  vzfdl(0.0, m.a, packed_size(m.n));
  for (long i = 0; i < m.n; ++i) diagonal(m, i) = ROOT_TINY;
  if (m.emat != nullptr) vzfdl(TINY, m.emat, m.n);
}

static double factor_order_one(ModifiedCholesky& m) {
  const double a = m.a[0];
  const double wanted = std::fabs(a) * m.tau2 - a;
  m.delta = a == 0.0 ? m.tau2 : (wanted > 0.0 ? wanted : 0.0);
  m.a[0] = std::sqrt(a + m.delta);
  if (m.emat != nullptr) m.emat[0] = m.delta;
  return m.delta;
}

// Smallest diagonal element that eliminating pivot j would leave.
static double smallest_reduced_diagonal(const ModifiedCholesky& m, long j) {
  const double pivot = diagonal(m, j);
  double smallest = diagonal(m, j + 1);
  const double* row = m.a + packed_size(j + 1);
  for (long i = j + 1; i < m.n; row += ++i) {
    const double reduced = row[i] - row[j] * row[j] / pivot;
    smallest = reduced < smallest ? reduced : smallest;
  }
  return smallest;
}

// Phase one. Returns the step at which phase two begins, n when the factorization is complete.
static long plain_phase(const ModifiedCholesky& m) {
  for (long j = 0; j < m.n - 1; ++j) {
    long p = j;
    for (long i = j + 1; i < m.n; ++i) p = diagonal(m, i) > diagonal(m, p) ? i : p;
    swap_pivot(m, j, p);
    if (!(diagonal(m, j) > 0.0) || !(smallest_reduced_diagonal(m, j) >= m.taug)) {
      gersch(m.n, j, m.a, m.gvec);
      return j;
    }
    eliminate(m, j);
  }
  diagonal(m, m.n - 1) = std::sqrt(diagonal(m, m.n - 1));
  return m.n;
}

// One step of phase two. The amount added is the largest of all steps so far, not the bare need of
// this one, so that the diagonal of E never falls.
static void shifted_step(ModifiedCholesky& m, long j) {
  long p = j;
  for (long i = j + 1; i < m.n; ++i) p = m.gvec[i] < m.gvec[p] ? i : p;
  swap_pivot(m, j, p);
  std::swap(m.gvec[j], m.gvec[p]);

  double column_sum = 0.0;
  const double* row = m.a + packed_size(j + 1);
  for (long i = j + 1; i < m.n; row += ++i) column_sum += std::fabs(row[j]);
  double& pivot = diagonal(m, j);
  const double need = (m.taug > column_sum ? m.taug : column_sum) - pivot;
  if (!(need <= m.delta)) m.delta = need;  // also a NaN, which has to be seen
  if (m.emat != nullptr) m.emat[j] = m.delta;
  pivot += m.delta;
  if (pivot != column_sum) {
    const double change = column_sum / pivot - 1.0;
    row = m.a + packed_size(j + 1);
    for (long i = j + 1; i < m.n; row += ++i) m.gvec[i] += std::fabs(row[j]) * change;
  }
  eliminate(m, j);
}

// The last two rows: both diagonals are raised until the smaller eigenvalue is clear of zero.
static void last_block(ModifiedCholesky& m) {
  double& a = diagonal(m, m.n - 2);
  double& c = diagonal(m, m.n - 1);
  double& b = m.a[packed_size(m.n - 1) + m.n - 2];
  const double spread = std::hypot(2.0 * b, a - c);
  const double low = 0.5 * ((a + c) - spread);
  const double high = 0.5 * ((a + c) + spread);
  const double relative = (high - low) / (1.0 - m.tau2);
  const double raise = (relative > m.gamma ? relative : m.gamma) * m.tau2 - low;
  if (!(raise <= m.delta)) m.delta = raise;
  if (m.delta != 0.0) {
    a += m.delta;
    c += m.delta;
    if (m.emat != nullptr) m.emat[m.n - 2] = m.emat[m.n - 1] = m.delta;
  }
  a = std::sqrt(a);
  b = a > TINY ? b / a : 0.0;
  c = std::sqrt(c - b * b);
}

double zmchol(long n, long* ipiv, double tau1, double tau2, double* amat, double* emat,
              double* gvec) {
  if (!(tau1 > 0.0)) tau1 = CUBE_ROOT_EPS;
  if (!(tau2 > 0.0)) tau2 = CUBE_ROOT_EPS;
  ModifiedCholesky m{n, amat, ipiv, emat, gvec, tau2, 0.0, 0.0, 0.0};
  if (n < 1) return 0.0;
  if (emat != nullptr) vzfdl(0.0, emat, n);
  bool plain = true;
  for (long i = 0; i < n; ++i) {
    ipiv[i] = i;
    const double value = diagonal(m, i);
    if (value < 0.0) plain = false;
    if (std::fabs(value) > m.gamma) m.gamma = std::fabs(value);
  }
  m.taug = m.gamma * tau1 > TINY ? m.gamma * tau1 : TINY;
  // A zero diagonal alone is no zero matrix: off-diagonal elements send it through phase two.
  if (!(m.gamma > TINY) && is_zero(packed_size(n), amat)) replace_zero_matrix(m);
  if (n == 1) return factor_order_one(m);
  if (!plain) gersch(n, 0, amat, gvec);

  long j = plain ? plain_phase(m) : 0;
  if (j == n) return m.delta;
  for (; j < n - 2; ++j) shifted_step(m, j);
  last_block(m);
  return m.delta;
}

}  // namespace tqnlp
