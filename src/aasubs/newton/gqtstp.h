// gqtstp: Goldfeld-Quandt-Trotter STeP, the step of a quadratic model within a trust region.
#pragma once

#include "aasubs/loop/trust_region.h"

namespace tqnlp {

// Minimizes g's + s'H s/2 over |s| <= delt in the scaled reduced space, whatever the signs of the
// eigenvalues of H: the length ends within a tenth of delt, or the step is Newton's and shorter,
// and the model's value is within a tenth of the least there is.
//   in   gold = -g, dgnm = |g|, delt, sing; H by trust_region_matrix below; d->kagqt below 0 in the
//   first
//        call of an iteration; later calls, from the same H with another delt, go on from what the
//        last one found
//   out  sdir = the step, unscaled; pred, lamb (0 the Newton step, negative in the hard case); in d
//        dstn, gtst, dst0, nred and what is kept between the calls; null = 1 when H is not positive
//        definite (first call)
// Uses wrk2 (diagonal of H, step, one vector) and half (factor); H is as before on return.
// A matrix that cannot be made positive definite, because it holds no numbers, gives an empty step.
void gqtstp(DGWSTR* d);

// The scaled reduced Hessian as it stands after the load, and its form: 3 diagonal, 2 packed.
double* trust_region_matrix(const MINSTR* str);
int trust_region_form(const MINSTR* str);

// Estimate of the smallest singular value of the packed triangular factor c of order n, and the
// unit vector z for it: |L'z| = svmin. Never below the smallest singular value, seldom above twice
// that. A zero on the diagonal gives 0 and the unit vector of its place.
void ssves2(long n, const double* c, double* svmin, double* z);
// The same for a diagonal factor; here the value is exact.
void ssves3(long n, const double* c, double* svmin, double* z);

}  // namespace tqnlp
