// zslumd: the sparse kernels of zslltmd for indefinite matrices, P A P' = L D L' with D of signs.
//
// L carries the roots of the pivots' moduli, the signs stand apart in negp: so the half factors are
// those of a Cholesky factor, and a matrix that is positive definite has the same factor here and
// there. There is no pivoting. For quasi-definite matrices every order of elimination has such a
// factor (Vanderbei 1995, SIAM J. Optimization 5); for others zslusn3 and zslusn4 move pivots away
// from zero, the factor then being that of A plus a diagonal matrix.
//
// Ordering, pattern and panels are those of zslltmd; the rule of the pivots that goes down to
// sparse_factor makes all the difference. By Sylvester's law the ones in negp count the negative
// eigenvalues of what was factored (if no row failed), which is how a caller learns the inertia of
// a Hessian.
#include "kernels/sparse.h"
#include "kernels/sparse_core.h"

namespace tqnlp {

// ---- Patterns -----------------------------------------------------------------------------------

// The pattern does not depend on signs: the same routine under the name of this family.
int zslussf(long n, long maxju, const long* iprm, const long* perm, long* cnt, long* graph,
            long* node, long* next, long* ju) {
  return zslltsf(n, maxju, iprm, perm, cnt, graph, node, next, ju);
}

int zslusfp(long n, long maxju, const long* ja, const long* iprm, const long* perm, long* cnt,
            long* graph, long* node, long* next, long* ju) {
  if (n <= 0) return 0;
  if (maxju < ja[n]) {
    if (maxju > n) ju[n] = ja[n];
    return 1;
  }
  sparse_graph(n, ja, perm, cnt, graph, node, next);
  return zslltsf(n, maxju, iprm, perm, cnt, graph, node, next, ju);
}

// ---- Factorizations -----------------------------------------------------------------------------
//
// Four entries: full or second pattern, failing or moved pivots.
void zsluinu(long in, long n, const long* ja, const long* ju, const long* perm, const double* a,
             double* u) {
  sparse_load(in, n, ju, u, n, ja, a, perm, nullptr);
}

int zslusnf(int job, long in, long n, double sing, const long* ja, const long* ju, const long* perm,
            const double* a, double* u, long* negp) {
  if (job != 0) zsluinu(in, n, ja, ju, perm, a, u);
  return sparse_factor(in, n, {sing, negp, false}, ju, u);
}

int zslusn2(int job, const long* jasl, const long* jusl, long in, long n, double sing,
            const long* ja, const long*, const long* perm, const double* a, double* u, long* negp) {
  if (in >= n) return 0;
  sparse_load_second(job, jasl, jusl, in, n, ja, perm, a, u);
  return sparse_factor(in, n, {sing, negp, false}, jusl, u);
}

int zslusn3(int job, long in, long n, double sing, const long* ja, const long* ju, const long* perm,
            const double* a, double* u, long* negp) {
  if (job != 0) zsluinu(in, n, ja, ju, perm, a, u);
  return sparse_factor(in, n, {sing, negp, true}, ju, u);
}

int zslusn4(int job, const long* jasl, const long* jusl, long in, long n, double sing,
            const long* ja, const long*, const long* perm, const double* a, double* u, long* negp) {
  if (in >= n) return 0;
  sparse_load_second(job, jasl, jusl, in, n, ja, perm, a, u);
  return sparse_factor(in, n, {sing, negp, true}, jusl, u);
}

// ---- Solves -------------------------------------------------------------------------------------

// Solves U'S U y = b with the pattern ju in the given order; without negp S is the identity, and
// the matrix that is solved with is the positive definite U'U.
static void solve_signed(long n, const long* order, const long* ju, const double* u,
                         const long* negp, double* b) {
  if (n <= 0) return;
  sparse_permute(n, order, b);
  sparse_forward(n, ju, u, b);
  for (long r = 0; r < n; ++r)
    if (negp && negp[r]) b[r] = -b[r];
  sparse_backward(n, ju, u, b);
  sparse_unpermute(n, order, b);
}

void zslusos(long n, const long* perm, const long* ju, const double* u, const long* negp,
             double* b) {
  solve_signed(n, perm, ju, u, negp, b);
}

void zsluso2(long n, const long*, const long* jusl, const long*, const double* u, const long* negp,
             double* b) {
  if (n > 0) solve_signed(n, second_places(n, jusl), jusl, u, negp, b);
}

void zsluso3(long n, const long* perm, const long* ju, const double* u, double* b) {
  solve_signed(n, perm, ju, u, nullptr, b);
}

void zsluso4(long n, const long*, const long* jusl, const long*, const double* u, double* b) {
  if (n > 0) solve_signed(n, second_places(n, jusl), jusl, u, nullptr, b);
}

void zslumli(int job, long n, const long* perm, const long* ju, const double* u, double* b) {
  zslltli(job, n, perm, ju, u, b);
}

// S stands between the half factors and goes with the upper one. It is applied in the order that b
// has on entry, where the sign of variable v is that of its place.
void zslumui(int job, long n, const long* perm, const long* ju, const double* u, const long* negp,
             double* b) {
  if (n <= 0) return;
  const long* order = job == 0 ? perm : job == 1 ? second_places(n, ju) : nullptr;
  if (negp)
    for (long v = 0; v < n; ++v)
      if (negp[order ? order[v] : v]) b[v] = -b[v];
  zslltui(job, n, perm, ju, u, b);
}

}  // namespace tqnlp
