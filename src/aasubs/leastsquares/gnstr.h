// Working record of GAUNEW (Gauss-Newton STRucture): one run of znlpgan, reached from the record
// through thdstr.
//
// Norms of residuals and predicted reductions are those of the sum of squares |F|^2 = 2 crit, as in
// the published method. Dimensions (ranks) count from 1; places in the pivot order from 0.
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Kinds of a step (kod).
inline constexpr long GN_FULL = 1;       // Gauss-Newton at the full pseudo rank
inline constexpr long GN_SUBSPACE = -1;  // Gauss-Newton at a dimension chosen for the step
inline constexpr long GN_NEWTON = 2;     // Newton, the matrix positive definite as it is
inline constexpr long GN_RIDGED = -2;    // Newton, with a ridge

constexpr bool is_newton(long kod) { return kod == GN_NEWTON || kod == GN_RIDGED; }

struct GNSTR {
  MINSTR* minstr;  // the run
  int ival;        // iabc of the variable imax before its release
  long sec;        // nonzero: a Newton step is allowed
  long rest;       // 1: the present step is a retry from the same point
  long kod;        // kind of the present step; at the head of an iteration that of the last one
  long prank;      // pseudo rank of the step
  long icount;     // retries from the present point
  long itotal;     // steps tried in the run
  long lattry;     // rank of the latest trial; 0: the best one is being repeated, and is the last
  long imax;       // variable that leaves its bound at this point, counted from 1; 0 none
  long irank;      // rank of the best trial so far
  double xnrm, gnrm, snrm;  // norms of x, of the gradient of the free variables, of the step
  double beta;              // norm of the part of the residuals that Gauss-Newton can remove: |J d|
                            // of its full step
  double d1sqs;             // predicted reduction of |F|^2 by the step
  double phi, fsum;         // crit after the step; 2 crit before it
  double
      pre1;  // norm of what one dimension less than the last step's can remove from the residuals
  double xdif;    // length of the previous step
  double betnew;  // beta at the new point
  double philat;  // crit of the latest trial
  double bestpg;  // largest decrease of crit among the trials
  double alfnoi;  // noise in the search: the root of the rounding unit over the length of the step
  long kod1, kod2, rng1, rng2;  // kinds and ranks of the last two steps
  double bet1, bet2;            // their beta
  double alf1, alf2;            // step lengths
  double d1m1, d1m2;            // d1sqs
  double fsq1, fsq2;            // fsum
  double dxn1, dxn2;            // snrm
  double aup1, aup2;            // step limits

  // ---- The factors at x: J D^-1 P = Q R over the free variables, D = diag(dsca) or 1. The pivot
  // order P is ipiv: ipiv[k] is the variable at place k.
  long free;       // free variables
  long full;       // pseudo rank
  bool joined;     // the column of imax stands at place full - 1
  double alfa;     // length of the step before the present one
  double reach;    // largest step along sdir, after derivatives that failed beyond it
  double rs;       // first ridge of a Newton matrix that is not positive definite
  double* jac;     // m x n; Jacobian at x
  double* qr;      // m x n; factors, as zqrdec leaves them
  double* qf;      // m; -Q'F
  double* diag;    // n; diagonal of R
  double* sums;    // n; norms of zqrdec; then column norms
  double* stepb;   // n; b: length of the step at each dimension, from the diagonal of R
  double* redc;    // n; c: norm of the residuals that each dimension removes
  double* h;       // n; work of the kernels
  double* pick;    // n; solution in pivot order
  double* norms;   // n; norms of the columns of J
  double* column;  // m; a column under Q'
  double* factor;  // nnva; Cholesky factor of the Newton matrix
  int* held;       // n; iabc at the head of the iteration
};

// Is variable j free? Without bounds the record may have no iabc.
inline bool is_free(const MINSTR* str, long j) { return str->bounds == 0 || str->iabc[j] == 0; }

// Scale of variable j in the factors.
inline double variable_scale(const MINSTR* str, long j) {
  return str->hesc != 0 ? str->dsca[j] : 1.0;
}

}  // namespace tqnlp
