// Dense symmetric indefinite factorization with diagonal pivoting, packed, and its companions.
//
// zududec: P A P' = U D U' after Bunch and Kaufman, U unit upper triangular, D with blocks of order
// 1 and 2. The matrix is packed (lower triangle by rows), in place; elimination runs from the last
// row to the first, so that every pivot column is a contiguous row of the packed form:
//
//   i=0 | d0                      U(i,k), i < k, at a[k(k+1)/2 + i]
//   i=1 | u01 d1                  D(k,k) at the diagonal; the off-diagonal element of a block on
//   i=2 | u02 u12 d2              (k-1, k) at a[k(k+1)/2 + k-1], where U is 0
//
// h[k] is the variable v at place k if k is a block of order 1, -1 - v if it belongs to one of
// order 2. A column that is zero to within the limit gets D(k,k) = 0 and a zero column of U.
#pragma once

namespace tqnlp {

// Factors a (order n) with pivot array h (n longs).
//   sing          largest element of a column that counts as zero; at least TINY
//   dtin    out   null or 5 doubles: [0], [1] determinant as mantissa (modulus in [1, 10), or 0)
//                 and exponent of ten; [2], [3], [4] the numbers of positive, negative and zero
//                 eigenvalues
// Returns the nullity, that is the number of zero pivots. Never fails; NaN reaches the factor.
long zududec(long n, double sing, double* dtin, double* a, long* h);

// The same with a limit for each variable, vsin[0..n-1].
long zudude2(long n, const double* vsin, double* dtin, double* a, long* h);

// Multiplies the determinant det[0] 10^det[1] by value and brings the mantissa into [1, 10).
void multiply_determinant(double* det, double value);

// Solve for p right sides, column k at b + k*incb, in place. A zero pivot gives a zero in its place
// of the solution in pivot order. Return the number of zero pivots. zuduso2: pivots with modulus
// not above sing count as zero (a block of order 2 by its largest element).
long zudusol(long n, long p, long incb, const double* a, double* b, const long* h);
long zuduso2(long n, long p, long incb, double sing, const double* a, double* b, const long* h);

// Inverse in place, packed; w has n doubles. With zero pivots a generalized inverse G: A G A = A
// and G A G = G.
void zuduinv(long n, double* a, const long* h, double* w);

// ztriprm: TRIangular factor PeRMuted. r is packed, read as an upper triangle R by columns: R(i,j)
// at r[j(j+1)/2 + i]. job 1: column k1 moves to k2 and those between move down by one; another job:
// column k2 moves to k1 and those between move up. Givens rotations make R triangular again, so
// that R'R is permuted alike; they act on the rows of z too (nz columns of n doubles, column j at
// z + j*incz). The diagonal of R may change sign.
//   dcds    out   2(k2-k1) doubles: cosine and sine of each rotation in the order of use;
//                 rotation i acts on rows k1+i and k1+i+1 with job 1, else on k2-1-i and k2-i
// k2 not above k1 ends the run through xexit(9999).
void ztriprm(int job, long n, long nz, long incz, long k1, long k2, double* r, double* z,
             double* dcds);

}  // namespace tqnlp
