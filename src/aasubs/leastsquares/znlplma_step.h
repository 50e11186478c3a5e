// Step of LEVMAR: the Levenberg-Marquardt parameter whose step has about the length of the trust
// radius, searched in the tridiagonal basis, where a trial costs O(n).
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Layout of wrk2 (7n): the reduced problem that the step is made from, and its work. All n each.
struct LevmarWork {
  double* d;      // diagonal of the tridiagonal Hessian
  double* e;      // its sub-diagonal, e[j] couples j-1 and j
  double* dl;     // Cholesky factor of the shifted matrix
  double* el;     //
  double* p;      // step in the tridiagonal basis
  double* w;      // shifted diagonal, and right side of the correction
  double* point;  // point that a longer trial may go back to
};
LevmarWork levmar_work(const MINSTR* str);

// Is the Hessian diagonal in the reduced space too, so that there is nothing to transform? It is
// then factored and solved as a tridiagonal one without a sub-diagonal.
inline bool diagonal_route(const MINSTR* str) { return str->hfrm == 2 && str->lincon == 0; }

// Factors the tridiagonal matrix d, e of order n with sing added to its diagonal, in dl, el. What
// is not positive definite to within rounding gets the tolerance as a ridge, then four times as
// much, until it is. w: n doubles of work. Returns the ridge that was added, sing not counted.
double chdec3(long n, double sing, const double* d, const double* e, double* dl, double* el,
              double* w);

// What the length of the step is measured by, and what judges it.
struct LevmarStep {
  double yttz;  // root of p'(H + lamb)p
  double lnwt;  // length of the Newton step
};

// The step of length about delt, within a tenth: reduced and unscaled in sdir, its ridge in lamb.
// ridg becomes the ridge that the Newton step needed (null 1 if any), gihg the slope along that
// step, g'H^-1 g. dgnm: length of the reduced gradient, which gold holds in the tridiagonal basis
// with the sign of descent. Returns 0; -1: the Newton step underflows and yet is too long; -2: more
// than 100 trials, or a matrix that is no number.
int getstep(MINSTR* str, double dgnm, LevmarStep* step);

}  // namespace tqnlp
