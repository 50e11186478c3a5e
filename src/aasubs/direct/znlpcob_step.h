// The subproblem of COBYLA (source znlpcob_step).
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// trstlp: TRust region Step by Linear Programming, for n = nvar, m = ntco.
//
//   rho    radius
//   ader   m + 1 rows of n: gradients of the constraints c(x) >= 0, and the negative gradient of
//          the objective
//   zwrk   trust_step_work(n, m) doubles
//   reads  the values of the constraints at the base, the last row of jcon (m + 2 doubles)
//   writes sdir, the step d with |d| <= rho that makes the largest violation of the linear models
//          least and among such steps the model of the objective; iact (m + 1 long), lost
//
// Returns 1 when the radius cut the step, which then has length rho; 0 when d ends inside the ball.
int trstlp(MINSTR* str, double rho, const double* ader, double* zwrk);

long trust_step_work(long n, long m);

}  // namespace tqnlp
