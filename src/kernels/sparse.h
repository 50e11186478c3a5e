// Sparse symmetric factorizations: minimum degree ordering, symbolic and numeric Cholesky, solves,
// products and updates (zslltmd), and the same for indefinite matrices (zslumd).
//
// Matrix, row-indexed form (ja, a), order n:
//
//   ja    | ja[0] .. ja[n] | columns of row 0 | columns of row 1 | ...     ja[0] = n + 1
//   a     | a[0] .. a[n-1] - | values of row 0 | values of row 1 | ...     a[n] is not used
//
// ja[i] to ja[i+1]-1 are the positions of row i's off-diagonal elements in both arrays: position k
// holds column ja[k] and value a[k]; the diagonal stands in a[0..n-1]. An off-diagonal element is
// stored once, in either triangle (the record keeps column < row), and counts for (i,j) and (j,i);
// a position stored twice counts twice. Both arrays have ja[n] places.
//
// Factor, the same form (ju, u): A = P' U'U P with U upper triangular by rows in the order of the
// places. Row r holds columns c > r in ascending order, u[0..n-1] the RECIPROCALS of the diagonal
// (0 where the pivot failed; the rest of that row is then 0 too, and solves give 0 there). L below
// is U'. The pattern is closed as elimination makes it: columns i < j in one row imply column j in
// row i. perm[v] is the place of variable v, iprm[r] the variable at place r.
//
// Second pattern (jasl, jusl): the same two forms for the principal submatrix of some variables
// (the free ones), numbered by position among them. jusl is followed, from jusl[jusl[n]] on, by n
// longs: the place in the reduced factor of each position. It is made from the full patterns by
// zslltiu, without a new ordering, and fits whenever the full factor has room for n more.
//
// Nothing here allocates memory; work arrays come from the caller, with the lengths given below. A
// pattern that has no place for a value ends the run through xexit(9999). Right sides are changed
// in place. n <= 0 does nothing and succeeds.
#pragma once

namespace tqnlp {

// ---- Ordering and patterns ---------------------------------------------------------------------

// zslumdg: Symmetric Minimum DeGree ordering.
//   ja            in   pattern of the matrix
//   iprm, perm    out  n longs each: the ordering and its inverse, rows of an elimination tree in
//                      postorder
//   cnt, node, next    work, 3n + 3 longs each; graph: work, maxju longs
//   keep          not 0: the four work arrays are left as zslltsf needs them; 0: ordering only
// Returns 0, or 1 when maxju is below 2 (ja[n] - n - 1) + n + 1; then nothing is ordered.
int zslumdg(long n, long maxju, const long* ja, long* iprm, long* perm, long* cnt, long* graph,
            long* node, long* next, int keep);

// zslltsf: Symbolic Factorization: the pattern of the factor from what zslumdg with keep left.
//   ju            out  maxju longs
// Returns 0, or 1 when maxju is too small; ju[n] then holds the length that is needed (if maxju
// exceeds n). Work arrays are left as they were: the call may be repeated with more room for ju.
int zslltsf(long n, long maxju, const long* iprm, const long* perm, long* cnt, long* graph,
            long* node, long* next, long* ju);

// zslltiu: Index sets of the second pattern.
//   jasl          out  pattern of the reduced matrix, ja[n] longs; column < row, ascending
//   jusl          out  pattern of the reduced factor, maxju longs
//   in            in   n longs: in[v] is the position of variable v among the free ones, from 0
//                      without gaps, or negative when it is not free
//   n, ja, ju, perm, iprm  in   the full order and patterns
//   a, al         values: a in the form of ja, al (ja[n] doubles) receives the reduced matrix
//                 in the form of jasl; both may be null for the pattern alone
// Returns the order m of the reduced matrix, or -1 when maxju is too small: (length of the reduced
// factor) + m, never more than ju[n] + n.
long zslltiu(long* jasl, long* jusl, const long* in, long n, const long* ja, const long* ju,
             const long* perm, const long* iprm, long maxju, const double* a, double* al);

// zslltco: from COordinate form, nz triples (ir, ic, s) with indices from 0 and in either triangle,
// to the row-indexed form with column < row, ascending. Triples of one position add up. job 0: the
// pattern alone (s, a may be null); otherwise values too. ja and a have n + 1 + nz places. Returns
// 0 or 1 + the first triple with an index out of range; then ja and a are not usable.
long zslltco(int job, long n, long nz, const long* ir, const long* ic, const double* s, long* ja,
             double* a);

// Sort key[0..n-1] ascending; lsort2 moves val along. In place, n log n, not stable.
void lsort(long n, long* key);
void lsort2(long n, long* key, double* val);

// ---- Cholesky ----------------------------------------------------------------------------------

// zslltnf: Numeric Factorization, rows in..n-1; the rows before in are kept and must be factored.
//   job           0: u holds the values of the matrix in the rows from in on; otherwise they are
//                 loaded from a
//   sing          a pivot must exceed it; below 0 or missing counts as 0
//   u       out   ju[n] doubles; u[n] is not used
// Returns 0, or for failed pivots r + 1 of the last one that was zero, but -(r + 1) of the first
// one that was below -sing if there is any. A failed row is cleared and the factorization goes on.
int zslltnf(int job, long in, long n, double sing, const long* ja, const long* ju, const long* perm,
            const double* a, double* u);

// zslltf2: the same through the second pattern, of order n. job 0 as above; 1: a is the reduced
// matrix, in the form of jasl; 2: a is the full matrix in the form of ja, and perm is the array in
// of zslltiu. Only job 2 reads ja and perm; ju is not read. u has jusl[n] doubles.
int zslltf2(int job, const long* jasl, const long* jusl, long in, long n, double sing,
            const long* ja, const long* ju, const long* perm, const double* a, double* u);

// Solves A x = b. zsllts2: through the second pattern (n its order, b in the order of positions;
// perm and ju are not read).
void zslltso(long n, const long* perm, const long* ju, const double* u, double* b);
void zsllts2(long n, const long* perm, const long* jusl, const long* ju, const double* u,
             double* b);

// Half solves and products with A = L U, in the order of variables (that is, with P'LP and P'UP):
// zslltli b := L^-1 b, zslltui b := U^-1 b, zslltml b := L b, zslltmu b := U b.
// job 0: ordering by perm. job 1: ju is a second pattern, which brings its own ordering; perm is
// not read. Another job: no permutation, b is in the order of the places.
void zslltli(int job, long n, const long* perm, const long* ju, const double* u, double* b);
void zslltui(int job, long n, const long* perm, const long* ju, const double* u, double* b);
void zslltml(int job, long n, const long* perm, const long* ju, const double* u, double* b);
void zslltmu(int job, long n, const long* perm, const long* ju, const double* u, double* b);

// x := A b; x must not overlap b. zslltqf: b'A b. zslltre: r := b - A x, and its largest modulus.
void zslltma(long n, const long* ja, const double* a, const double* b, double* x);
double zslltqf(long n, const long* ja, const double* a, const double* b);
double zslltre(long n, const long* ja, const double* a, const double* x, const double* b,
               double* r);

// ---- Changes of a Cholesky factor --------------------------------------------------------------
// w: n doubles in the order of the places, lost. A removed place has a zero diagonal and zeros in
// its row and column of U; solves give 0 there.

// zslltf5: the factor of A + sigma w w'. The product must not fill: with r the first place where w
// is not zero (removed places aside), row r of the pattern must hold all others. Returns 0, or r +
// 1 if the pivot at r would fall to sing or below (sigma < 0 only); the factor is then spoiled.
int zslltf5(long n, double sigma, double sing, const long* ju, double* u, double* w);

// zslltra: Row Added. Brings in the removed place k; w is its new row of the matrix, w[k] the
// diagonal, removed places 0. Returns 0, or k + 1 if its pivot is not above sing (the factor is as
// before), or j + 1 if a later pivot fails (the factor is then spoiled).
int zslltra(long n, long k, double sing, const long* ju, double* u, double* w);

// zslltrd: Row Deleted. Takes place k out of the factor.
void zslltrd(long n, long k, const long* ju, double* u, double* w);

// ---- Indefinite matrices: signed factor without pivoting ---------------------------------------
// A = P' U'S U P with S diagonal of signs: u as above, negp[r] 1 where the pivot was negative, else
// 0 (n longs). The ordering is fixed beforehand: this serves matrices whose pivots stay away from 0
// (quasi-definite ones, shifted Hessians), and tells the inertia.

// Pattern as zslltsf.
int zslussf(long n, long maxju, const long* iprm, const long* perm, long* cnt, long* graph,
            long* node, long* next, long* ju);
// Pattern for a Permutation that is given: makes the graph itself. maxju as zslumdg and zslltsf,
// the same result and lengths.
int zslusfp(long n, long maxju, const long* ja, const long* iprm, const long* perm, long* cnt,
            long* graph, long* node, long* next, long* ju);
// INitial U: clears the rows from in on and loads the values of a, for job 0 of the next four.
void zsluinu(long in, long n, const long* ja, const long* ju, const long* perm, const double* a,
             double* u);
// Numeric factorization; job and in as zslltnf and zslltf2. zslusnf, zslusn2 (second pattern): a
// pivot with modulus not above sing fails as in zslltnf; result 0 or r + 1 of the last one.
// zslusn3, zslusn4 (second pattern): such a pivot is moved away from 0, to sing with its sign (+
// for 0), so that no row is lost; result is the number of pivots moved. sing must then be positive.
int zslusnf(int job, long in, long n, double sing, const long* ja, const long* ju, const long* perm,
            const double* a, double* u, long* negp);
int zslusn2(int job, const long* jasl, const long* jusl, long in, long n, double sing,
            const long* ja, const long* ju, const long* perm, const double* a, double* u,
            long* negp);
int zslusn3(int job, long in, long n, double sing, const long* ja, const long* ju, const long* perm,
            const double* a, double* u, long* negp);
int zslusn4(int job, const long* jasl, const long* jusl, long in, long n, double sing,
            const long* ja, const long* ju, const long* perm, const double* a, double* u,
            long* negp);
// Solve A x = b: zslusos, zsluso2 (second pattern). zsluso3, zsluso4 (second pattern) take every
// pivot as positive: x is then a descent direction for the right side -gradient.
void zslusos(long n, const long* perm, const long* ju, const double* u, const long* negp,
             double* b);
void zsluso2(long n, const long* perm, const long* jusl, const long* ju, const double* u,
             const long* negp, double* b);
void zsluso3(long n, const long* perm, const long* ju, const double* u, double* b);
void zsluso4(long n, const long* perm, const long* jusl, const long* ju, const double* u,
             double* b);
// Half solves, job as zslltli: zslumli b := L^-1 b; zslumui b := U^-1 S b, or U^-1 b with negp
// null.
void zslumli(int job, long n, const long* perm, const long* ju, const double* u, double* b);
void zslumui(int job, long n, const long* perm, const long* ju, const double* u, const long* negp,
             double* b);

}  // namespace tqnlp
