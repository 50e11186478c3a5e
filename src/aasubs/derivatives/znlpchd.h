// Tests of derivatives that the user supplies (source znlpchd and its siblings).
//
// A test warns and never changes the solution: every routine puts x back and evaluates there once
// more. All of them use xold, work and gold as scratch.
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Results of znlpchd and znlpchc. Above 0 the run goes on, below 0 it cannot.
enum DerivativeTest : int {
  DERIVATIVES_AGREE = 0,
  TEST_POINT_UNUSABLE = 1,      // a parameter is near zero and cannot be moved away from it
  TEST_NO_ROOM = 2,             // no room for the second point inside the bounds
  DERIVATIVES_DISAGREE = 3,     // logged as 549/47, once
  TEST_POINT_FAILED = -2,       // the functions could not be evaluated at the second point
  TEST_DERIVATIVE_FAILED = -3,  // the functions or their derivatives failed at the first point
  TEST_RETURN_FAILED = -4,      // the evaluation that ends the test at x failed
};

// Tests the first derivatives along one direction against one difference: job 0 the gradient
// (usgrd), job 1 the Jacobian of the m functions (usjac, or usgrd without it), which the callback
// leaves in utjacm; func2 holds m doubles for the functions at the second point. A function that
// gives another value when x is evaluated again is logged as 549/49.
int znlpchd(MINSTR* str, int job, double* func2);

// The same for the Jacobian of the nonlinear constraints (usjnc); fcon1, fcon2 hold nnlc doubles
// each. jcon is that of x afterwards.
int znlpchc(MINSTR* str, double* fcon1, double* fcon2);

// Tests in full whether grad is the gradient of the objective: which parameters influence it at all
// (549/262 names those that do not), and with job nonzero a matrix of second differences, reported
// at print level dbug above 0. hess: room for nnva doubles, or null to take it here. Returns 0, or
// -1, -2 when the function or the gradient failed.
int znlpchg(MINSTR* str, int job, double* hess);

// ---- What znlpchg is made of --------------------------------------------------------------------

// Data of the report of a full test.
struct HDOUT {
  static constexpr int MOST_BINS = 52;
  const MINSTR* pminst;
  int irow, icol;        // the entry that a row of a table shows, from 1
  long freq[MOST_BINS];  // differences in each bin of the histogram
  double tres;           // smallest relative difference that is listed
  double* rval;          // relative differences in rising order
  double* hwrk;          // packed comparison matrix: zero for a gradient of the objective
  double* hess;          // packed Hessian by differences of the gradient
};

// Counts in iwk[k] how often element k of the gradient showed to be nonzero or to change. job
// nonzero: steps in every parameter; gold[j] becomes the second derivative from the gradient less
// that from the function, and with hess and compare (packed, or null) the whole Hessian by gradient
// differences and its comparison matrix. job 0: two random points, without a matrix; x stays there.
// work: n doubles. Returns the number of elements that never moved, or -1 when an evaluation
// failed.
int grdchk(MINSTR* str, int job, long* iwk, double* hess, double* compare, double* work);

// Smallest power of two e with (1 + e) r > r, times 2; 2 when there is none.
double maceps(double r);

// Sorts n values in rising order.
void rsort(long n, double* values);

// The report, in the order in which it is written: the test vector gold, the size of the matrix,
// the histogram of the relative differences, the largest of them.
void ptstvec(MINSTR* str);
void hdimout(const HDOUT* out);
void dishdif(MINSTR* str, HDOUT* out);
void maxhdif(MINSTR* str, HDOUT* out);

}  // namespace tqnlp
