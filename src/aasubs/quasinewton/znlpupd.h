// Quasi-Newton updates (source znlpupd).
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Updates the matrix in half by the pair xdif (step s) and gdif (change of the gradient y), in the
// reduced space of order nzmm = nvar - nabc - nalc.
//   job 1  inverse Hessian, packed symmetric
//   job 2  Hessian as L D L', packed, D on the diagonal
//   job 3  (and any other) Hessian as R'R, R upper triangular packed by columns
//   iscl 1 rescales the matrix first; the scaling stays also when the update is then refused
//   uvec, vvec, wvec  work, nzmm doubles each; job 2 destroys xdif and gdif, job 3 gdif
// Returns 0 updated; 1, 2, 3 skipped (angle of s and y too wide, curvature negligible, curvature
// not positive); -1 the factor lost rank and must be restarted.
int znlpdfp(MINSTR* str, int job, int iscl, double* xdif, double* gdif, double* half, double* uvec,
            double* vvec, double* wvec);
int znlpbfg(MINSTR* str, int job, int iscl, double* xdif, double* gdif, double* half, double* uvec,
            double* vvec, double* wvec);

// Rank-one correction c + sig y y' of a packed L D L' factor of order n; y is destroyed, p (n) is
// work and, with mk above 0, the solution of L p = y on entry. ir above 0: the rank is to be kept;
// else the matrix of rank |ir| is known to be singular. Returns the new rank.
long ldlupd(long n, int mk, long ir, double eps, double sig, double* c, double* y, double* p);

// Two corrections of a factor of full rank n in one pass: taken from from' with taken < 0, which is
// known to make the matrix singular, and given to to' with given > 0, which may restore it. p holds
// the solution of L p = from; all three vectors are destroyed. The same as two calls of ldlupd, the
// first with mk 1 and ir -n, the second with the rank that it returns, negated; to the last bit.
long ldlup2(long n, double taken, double given, double* c, double* from, double* to, double* p);

// Brings R + u v' back to triangular form: R packed by columns, of order n. All vectors are
// destroyed: gdif and wvec (n each) are work, and u and v make room for rotations.
void llupdat(long n, double* gdif, double* half, double* uvec, double* vvec, double* wvec);

}  // namespace tqnlp
