// znlpgan: GAUss-Newton (GAUNEW), technique 7, for bound-constrained nonlinear least squares. The
// steps of the method, in the order in which an iteration takes them; the method is described at
// the head of znlpgan.cpp.
#pragma once

#include "aasubs/leastsquares/gnstr.h"

namespace tqnlp {

// Runs the technique from str->x. Returns the code of the run: the answer of the termination test;
// 10 when all variables are at bounds at the start (nothing is evaluated then); -1 the start could
// not be evaluated or its memory was refused, -2 its Jacobian could not.
int znlpgan(MINSTR* str);

// ---- Direction (znlpgan_solve.cpp) --------------------------------------------------------------

// Solve at x: Jacobian and gradient, the factors over the free variables, the bound variable
// whose release promises most (imax), and the full Gauss-Newton step in sdir. *prank: its pseudo
// rank, *d1sqs its predicted reduction of |F|^2, *beta the root of that, *gnrm the norm of the
// gradient of the free variables. Also sets gmax, gcri, nabc, ifxr, ipiv, snrm. Returns 0; -1 the
// residuals, -2 the Jacobian could not be evaluated.
int soliuc(GNSTR* gnstr, long* prank, double* d1sqs, double* beta, double* gnrm);

// Direction of dimension *rank from the factors, into sdir; snrm. A zero on the diagonal lowers
// *rank. Returns 0.
int gndunc(GNSTR* gnstr, long* rank, double* d1sqs);

// vec: prank elements in pivot order become n elements by variable, zero elsewhere, unscaled by
// dsca. work: n doubles.
void btrunc(MINSTR* str, long prank, double* vec, double* work);

// ---- Choice of the step (znlpgan_analyse.cpp) ---------------------------------------------------

// Chooses kind and dimension of the step and forms it. Returns 0; -4 a Newton step is wanted and
// not allowed; -3 no ridge makes its matrix positive definite.
int analuc(GNSTR* gnstr);

// ---- The step and its judgement (znlpgan_step.cpp) ----------------------------------------------

// Takes the step from xold; then the working set at its end. Returns the code of znlpl11; -11 a
// Newton step could not be evaluated, -12 nor the best point of a search again.
int stepuc(GNSTR* gnstr);

// Judges the step that ended with error: 0 accept, 1 retry from xold, -5 no progress.
int evreuc(GNSTR* gnstr, int error);

// ---- Derivatives by differences (znlpgan_second.cpp) --------------------------------------------

// hess (packed) := sum of fcur[i] times the Hessian of residual i, over the free variables, the
// rest zero; fcur: the residuals at x. 2 evaluations a variable and 2 a pair, each counted as
// difference; func is left as that of some trial. Returns 0, or -1 when a point could not be
// evaluated. Uses work and wrk2 (2n).
int hesse(MINSTR* str, const double* fcur);

// jac (m x n) := Jacobian by forward differences, zero for fixed variables. func is put back, from
// the m places behind fold. Returns 0, or -1 when a point could not be evaluated.
int jacdif(MINSTR* str, double* jac);

// ---- Ends (znlpgan.cpp) -------------------------------------------------------------------------

// The technique's own convergence tests after a step that ended with error: 0 go on; positive, by
// digits: 10000 the predicted reduction is rounding, 2000 |F|^2 is at aftl, 300 the last step was
// rounding, 40 the steps are within the noise of the residuals, units the state of the method;
// negative: -2 limits, -6 the search failed, others as they came.
int termuc(GNSTR* gnstr, int error);

// Fills the record for the termination test that is called with this job.
void outuc(GNSTR* gnstr, int job);

}  // namespace tqnlp
