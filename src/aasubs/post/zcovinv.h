// Inverse of a symmetric matrix for covariances (source zcovinv).
#pragma once

namespace tqnlp {

// zcovinv: COVariance by INVersion. Inverts a symmetric matrix, which need not be definite, with a
// decision about its rank: a pivot that is not above max(asin, vsin |d|, msin m) counts as zero,
// d being the diagonal element of its variable and m the largest of them in modulus.
//   job    0: zero pivots are allowed, and cov becomes a generalized inverse G of the matrix A with
//          A G A = A, G A G = G; otherwise they make the matrix unusable
//   cfrm   2 diagonal, n values; otherwise packed
//   asin, msin, vsin  absolute limit, relative to the matrix, relative to the variable; missing or
//          negative: not in force
//   cov    matrix in, inverse out
//   det    out, 5 doubles: [0], [1] determinant as mantissa (modulus in [1, 10), or 0) and exponent
//          of ten; [2], [3], [4] the numbers of positive, negative and zero eigenvalues
//   cdia   out, n doubles: the scales that brought the matrix to elements of order 1
//   work, iwk  n doubles, n longs
// Returns 0, or -1 when the matrix is not usable: an element is not finite, or a pivot is zero and
// job does not allow it. cov is then lost. n < 1: returns 0 and touches nothing.
int zcovinv(int job, int cfrm, long n, double asin, double msin, double vsin, double* cov,
            double* det, double* cdia, double* work, long* iwk);

// The same for a diagonal; a value is zero when it is not above max(asin, msin m).
int dodiag(int job, long n, double asin, double msin, double* cov, double* det);

}  // namespace tqnlp
