// Dense factorizations, triangular solves and products, rotations, projections.
//
// Storage
//   packed   lower triangle by rows, S(i,j) with j <= i at sym[i(i+1)/2 + j]:
//              i=0 | s0
//              i=1 | s1 s2
//              i=2 | s3 s4 s5
//            A packed factor L stands in the same layout; read as its transpose it is the upper
//            factor U = L' packed by columns.
//   dense    element (i,j) at u[i*incu + j], incu at least the number of columns
//   sparse   the row-indexed form of minstr.h; diagonal form: a vector of n
//
// No kernel allocates or writes a message. Orders may be 0 or below: nothing is then done and the
// result is 0. A job number that no branch knows ends the run through xexit(9999). A NaN in a
// matrix never hangs a kernel: it fails as a pivot, or reaches the result.
#pragma once

#include "aasubs/record/minstr.h"
#include "host/files.h"

namespace tqnlp {

// ---- Factorization family ----------------------------------------------------------------------
//
//   job  form of the factor
//   0    choose: 2 (hfrm 2: 3) with neither bounds nor lincon, else 4 (hfrm 2: 5)
//   1    L D L', unit lower L; D stands in the diagonal
//   2    L L'
//   3    diagonal: roots of the values
//   4    L L' with diagonal pivoting, in place in c; str->ipiv[i] is the row that became row i
//   5    diagonal, values in descending order; order in str->ipiv
//   6    sparse, patterns jasp, jusp, perm of str->shes
//   7    sparse, patterns jasl, jusl too; no half solves and no products

// Factors the matrix c of order n into cc (job 4: into c). cc may be c in jobs 1 to 5; otherwise c
// stays, but for job 4. sing: limit of a pivot; below TINY it is raised to the smallest tolerance.
// Jobs 1 and 2 test each pivot against max(sing, 1000 rounding units of the larger of the diagonal
// and what was subtracted from it), job 4 against sing alone, jobs 3 and 5 let sing itself pass.
// Returns 0, or the position from 1 of the first pivot that failed (jobs 6, 7: the code of the
// sparse routine). A failed pivot leaves min(pivot, -2 sing) in its diagonal position, and the rows
// before it hold their factor; the rows after it are undefined in jobs 1 and 2, and in job 4 they
// hold the factor's finished columns and the reduced matrix, in pivot order.
// logdet (may be null): log of the determinant, LOG_TINY on failure; not written in jobs 3 and 5.
// Jobs 6 and 7 sum the logarithms of the diagonal as it stands in the sparse factor, which is minus
// half of that; 0 on failure. Job 7 works on the reduced matrix of zslltiu and takes its order from
// the second pattern, whatever n is.
// w is not read. str->ipiv may be null in jobs 4 and 5 when the order is of no interest.
long znlpcde(MINSTR* str, int job, long n, double sing, double* logdet, double* c, double* cc,
             double* w);

// b := A^-1 b with the factor c. Returns 1 on a zero pivot (magnitude below TINY; in jobs 6 and 7 a
// row that failed) and leaves b partly changed, else 0. Job 7: order as above, b by position.
int znlpcso(MINSTR* str, int job, long n, double* c, double* b);

// b := U^-1 b and b := L^-1 b, A = L U. In job 1 the half factors are L D^(1/2) and D^(1/2) L'; in
// jobs 4 and 5 b is permuted into pivot order before and back after. Returns as znlpcso.
int znlpium(MINSTR* str, int job, long n, double* c, double* b);
int znlpilm(MINSTR* str, int job, long n, double* c, double* b);

// b := A b as L (U b), b := U b, b := L b from the factor; the same forms and permutations. In job
// 1 the half pivot of a D that is not positive counts as 0.
void znlpmmu(MINSTR* str, int job, long n, double* c, double* b);
void znlpumu(MINSTR* str, int job, long n, double* c, double* b);
void znlplmu(MINSTR* str, int job, long n, double* c, double* b);

// The inverse of c in cc (may be c), packed or diagonal. Jobs 1, 2 and 3 alone; any other job, also
// one that job 0 chose, ends the run. Returns the position of the first failed pivot, or 0.
int znlpcin(MINSTR* str, int job, long n, double sing, double* c, double* cc, double* w);

// ---- QR and triangular systems -----------------------------------------------------------------

// Householder QR of the dense m x n matrix u, in place: A P = Q R.
//
//   after:   row 0 | v r r r        diagonal of R in alfa; reflection l is I - v v'/v_l with v in
//            row 1 | v v r r        column l from row l down; u(l,l) = 0 where column l is null
//            row 2 | v v v r
//
//   ipiv  null: no pivoting, and sum is not read. In: marks; l > 0 holds the column at place l of
//         the front, l < 0 at place -l, among the last places, 0 leaves it free. Out: ipiv[j] is
//         the column that stands at place j.
//   sing  a column whose remaining norm is not above it is moved behind the free ones (kept in
//         place without pivoting) and counts as null
//   b     p columns at b[i*incb + k], overwritten by Q'b; null: none
//   alfa, sum  n each; of columns that no step reached (n > m) they hold the remaining norms
// Returns the nullity found in min(m, n) steps, or -l when no column carries the mark of place l.
// Among columns of equal norm the last is taken.
long zqrdec(long m, long n, long p, long incu, long incb, long* ipiv, double sing, double* u,
            double* b, double* alfa, double* sum);

// Q of the first n columns of a matrix that zqrdec factored (u, m rows of stride incu), times p
// columns y(i,k) at y[i*incy + k]; b, rs and ab have the same layout.
//   job 3   b := Q'y. rs (null: not wanted): the residual of y on those columns, Q(0; b from n on);
//           ab (null: not wanted): its fit, Q(b to row n; 0). With null columns they are those of
//           the reflections made.
//   job 4   b := Q y
// b may be y. h: p doubles of work. Any other job ends the run.
void zqrform(int job, long m, long n, long p, long incu, long incy, const double* u,
             const double* y, double* b, double* rs, double* ab, double* h);

// Triangular systems (jobs 1 to 8) and products (jobs 11 to 18, the same table) for p right sides.
//
//   job   matrix     operation     right side element (i,k)    result element (i,k)
//   1     dense u    R P'x = b     b[i*incb + k]               x[k*incx + i]
//   2     dense u    P R'x = b     b[i*incb + k]               x[k*incx + i]
//   3, 4  dense u    as 1, 2       b[k*incb + i]               x[k*incx + i]
//   5     packed u   L'x = b       b[i*incb + k]               x[k*incx + i]
//   6     packed u   L x = b       b[i*incb + k]               x[k*incx + i]
//   7, 8  packed u   as 5, 6       b[k*incb + i]               x[k*incx + i]
//
// P is the order ipiv (null: none) in all jobs; solves of R and products with R' write x[ipiv[i]],
// the others read b at ipiv[i], so that job 1x undoes job x. The diagonal comes from alfa, or from
// the matrix when alfa is null. h: n doubles of work, read with ipiv alone; solves of R and
// products with R' need it then. x may be b when no order is given and both have the same layout.
// A zero diagonal (magnitude below TINY) gives 0 in its place of the result. Returns the number of
// zero diagonals met, over p; 0 for products.
long zqrsol(int job, long n, long p, long incu, long incb, long incx, const long* ipiv,
            const double* u, const double* b, double* x, const double* alfa, double* h);

// Job 1: x := L^-1 b, packed L; x may be b. Returns 1 when a diagonal is not above sing.
// Any other job: the triangle that the null-space code stores, each packed row beginning with its
// pivot: sum over j >= q of L(j, j-q) x[j] = b[n-1-q]. The right side is read in ascending order
// while x fills from its end, so x must not be b. Returns q+1 when pivot q is not above sing.
int znlpqts(int job, long n, double sing, const double* c, const double* b, double* x);

// ---- Rotations ---------------------------------------------------------------------------------

// Makes the rotation that takes (*pa, *pb) to (r, 0): c a + s b = r, stored in *pa, *pb := 0. r has
// the sign of the larger of the two (of b if equal). b = 0 leaves *pa as it is. Returns the number
// from which the rotation can be rebuilt: 0 for c = 1, 1 for c = 0, s if |a| > |b|, else 1/c.
double zgivcon(double* pa, double* pb, double* pc, double* ps);

// (x, y) := (c x + s y, c y - s x) over n elements. A negative stride starts at the far end.
void zgivapl(long n, long incx, long incy, double c, double s, double* x, double* y);

// ---- Incremental kernels of the older Newton code ----------------------------------------------

// Factors row k (from 0) of a packed Cholesky factor whose rows before it are done. Returns what is
// left of the diagonal before its root; the root is 0 unless that exceeds tol.
double zchol(long k, double* base, double tol);
// vec := L^-1 vec and v := L'^-1 v of order k; a division by a zero diagonal gives 0.
void zchol2(long k, const double* base, double* vec);
void zbaksub(long k, const double* m, double* v);
// The reflection that takes elements k..nvar-1 of a row (element j at abase[j*inc]) to a multiple
// of the first: I - u u'/pk, u in ubase[0..nvar-k-1]. The row becomes its image. Returns 1, *pk =
// 0, when these elements are all zero; else 0.
int zhh1(double* abase, double* ubase, double* pk, long k, long inc, long nvar);
// Applies it to another row. Returns 1 when pk is 0.
int zhh2(double* abase, const double* ubase, long k, double pk, long inc, long nvar);

// ---- Modified Cholesky, tridiagonal forms, permutations ----------------------------------------

// P(A+E)P' = LL' in place in amat (packed) with a diagonal E >= 0, zero when A is safely positive
// definite. tau1, tau2: relative tolerances of the two phases, cube root of EPS when not positive.
// ipiv[i]: the row that became row i. emat (may be null): E in pivot order. gvec: n doubles of
// work. Returns the largest amount added to a diagonal element. A zero matrix is replaced by a tiny
// multiple of the identity.
double zmchol(long n, long* ipiv, double tau1, double tau2, double* amat, double* emat,
              double* gvec);

// Cholesky factor of the tridiagonal matrix with diagonal d and sub-diagonal e[1..n-1] (e[j]
// couples j-1 and j): dl, el in the same places, el[0] = 0. A pivot must exceed sing times the
// largest element, that limited to 1. Returns 0 or the position from 1 of the pivot that failed. dl
// may be d, el may be e.
long znlpcd3(long n, double sing, const double* d, const double* e, double* dl, double* el);
// x := solution for the right side b (x may be b). Returns 1 on a zero pivot.
int znlpcs3(long n, const double* dl, const double* el, const double* b, double* x);

// Householder reduction of packed a to tridiagonal T = P'A P. wrk: 2n doubles, the diagonal of T in
// wrk[0..n-1], the sub-diagonal in wrk[n..2n-1] (wrk[n] = 0, wrk[n+i] couples i-1 and i). The
// transformation stays in a: row i > 0 holds the vector v of its reflection I - v v'/h^2 and h in
// the place of the diagonal, 0 for none.
void ztred3(long n, double* a, double* wrk);
// b := P'b (job 0), into the tridiagonal basis, or b := P b (any other job), back.
void ztrapp3(int job, long n, const double* a, double* b);

// Job 0: x into pivot order, new x[i] = x[piv[i]]; any other job: back. In place by cycles; piv is
// marked on the way and unchanged on return.
void znlpprm(int job, long n, long* piv, double* x);

// The vector of a factorization that failed at pivot nr (from 1): x of nt elements, x[nr-1] = 1;
// with job 0 x[i] = (sum of c(j,i) x[j], i < j < nr)/c(i,i) above it. Then put in variable order
// through ipiv (null: none), which is marked on the way and unchanged on return.
void znlpsbs(MINSTR* str, int job, long nt, long nr, long* ipiv, const double* c, double* x);

// ---- Projection and subspaces ------------------------------------------------------------------

// The columns that znlpgso works against: in memory (job 0), column j contiguous at q + j*incq, or
// in a utility file (any other job), one column of m doubles after the other from position 0.
struct GsoBasis {
  const double* q = nullptr;
  WorkFile* file = nullptr;
};

// Orthogonalizes v (m elements, stride incv) against the n orthonormal columns of Q, in place, to
// unit length. r (n, stride incr): the coefficients Q'v; *rho: the length left. u: m doubles of
// work; w: m doubles, used with a file alone. A vector in the span of Q gives another direction
// orthogonal to it and *rho = 0; v is then not scaled to unit length. m = n gives v = 0 and *rho =
// 0.
// Returns 0; -1 when m < n (*rho = 0), -2 when v is zero (*rho its norm), -3 when 10 passes were
// not enough. A file that cannot be read ends the run.
int znlpgso(int job, long m, long n, long incq, long incv, long incr, const GsoBasis& utq,
            double* v, double* r, double* rho, double* u, double* w);

// x := H b by hfrm 0 packed, 1 sparse (pattern str->shes.jasp), 2 diagonal. x must not overlap b.
// ind (n; null: none) marks by nonzero the rows and columns that take no part: x is 0 there.
void znlpmul(MINSTR* str, int hfrm, long n, const long* ind, const double* c, const double* b,
             double* x);
// The same for packed sym; one pass over sym.
void znlpsmv(long n, const long* ind, const double* sym, const double* b, double* x);

// Edits packed c of order n in place; c has room for what is inserted (order n + 1).
//   1  remove row and column k
//   2  remove row and column k, and every i with ind[i] nonzero
//   3  remove every i with ind[i] nonzero
//   4  keep i with ind[i] zero (ind null: all), then insert at place k of the result a row and
//      column of zeros with diagonal *d
//   5  as 4 with diagonal 0
//   6  insert at place k a row and column with the values d[0..n], d[k] on the diagonal
void znlpsym(int job, long n, long k, const long* ind, const double* d, double* c);

// res := Q'H Q, packed of order p. Q has m rows (the free parameters ipiv[0..m-1]) of stride incq;
// H of order n by hfrm: 2 diagonal, any other packed. res must not overlap sym or q; w, w2: max(m,
// p) doubles each.
void znlpred(int hfrm, long n, long m, long p, long incq, const long* ipiv, const double* sym,
             const double* q, double* res, double* w, double* w2);
// res := rows and columns ipiv[0..p-1] of H of order n, by hfrm: 2 diagonal to diagonal, any other
// packed to packed. res may be sym: the result is then the leading part of sym. What follows it is
// undefined when ipiv ascends; in any other order rows and columns are exchanged, and sym as a
// whole is the matrix in an order that begins with ipiv. w, w2: n doubles each, used in place
// alone.
void znlpre2(int hfrm, long n, long p, const long* ipiv, double* sym, double* res, double* w,
             double* w2);
// sym := Q' diag(H) Q, packed of order p, in place of packed H; Q has n rows of stride incq, row r
// for the parameter ipiv[r]. w: n doubles.
void znlpre3(long n, long p, long incq, const long* ipiv, double* sym, const double* q, double* w);
// res(ipiv i, ipiv j) := (Q sym Q')(i,j) for the n rows of Q, sym packed of order p, res packed.
// The other elements of res stay. w: p doubles.
void znlpexp(long n, long p, long incq, const long* ipiv, const double* sym, const double* q,
             double* res, double* w);

// res := X'A X, packed of order p (p = 1: one value), A packed of order n, element (i,k) of X at
// x[i*incx + k]; mod nonzero adds to res. e: n doubles of work.
void znlpquf(int mod, long n, long p, long incx, const double* sym, const double* x, double* res,
             double* e);
// *res := sum over all (i,j) of A(i,j) B(i,j), two packed matrices of order n; mod nonzero adds.
void znlpqf3(int mod, long n, const double* syma, const double* symb, double* res);

}  // namespace tqnlp
