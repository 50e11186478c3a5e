// The older Newton code (source znewdrv): Newton's method with a line search under bounds or
// general linear constraints, independent of the problem record. It reaches the problem through
// three callbacks and two records, which the caller fills.
//
// Two forms of the constraints
//   bound 1  lowb <= xnew <= upb alone; constraint j is the active bound of variable j
//   bound 0  rows: constr(i)'x = values[i] for i < neq, constr(i)'x >= values[i] for the nneq rows
//            behind them; constraint i is row i
#pragma once

namespace tqnlp {

// Sizes, options and the state of the active set.
struct SIZE_S {
  long nvar;     // n, variables
  long nact;     // active constraints; set by the solver
  long neq;      // rows that are equalities; they come first
  long nneq;     // rows that are inequalities
  int bound;     // 1: bounds alone; 0: rows
  int debug;     // not used
  int deflt;     // 1: the solver takes its own values for the fields that follow
  int maxiter;   // [iterations] limit, 50
  int scratch;   // 1: hess holds scratch at the end and is loaded again for the final test, 0
  int step;      // 1: a search never lengthens its step, 1
  double tol;    // [relative to the largest diagonal] smallest pivot, 1e-6
  double rmax;   // largest ridge, 1024
  double rmin;   // first ridge, 0.3125
  double rfact;  // growth of the ridge, 4
};

// Arrays, and the objective. half, proj, hhold, pi and index stand in work, where the solver lays
// them out; the others are the caller's.
struct NRPTRS {
  double* work;    // newton_work_length doubles
  double* hess;    // packed; Hessian at xnew, written by ghentry
  double* grad;    // n; gradient at xnew, written by ghentry
  double* pgrad;   // n; projected gradient, as long as the free dimension
  double* xold;    // n; point before the last step
  double* xnew;    // n; start, present point, result; fentry and ghentry evaluate here
  double* constr;  // rows of n doubles; bound 0
  double* values;  // right sides; bound 0
  double* half;    // factor of the projected Hessian; with rows, that of the active rows behind it
  double* proj;    // bound 1: n marks, 1 free, 0 active; bound 0: n x n, orthogonal Q by rows
  double* lowb;    // n; bound 1
  double* upb;     // n; bound 1
  double* hhold;   // packed; projected Hessian, kept for another ridge; bound 0
  double* pi;      // multiplier estimates at xnew, that of constraint index[r] at r; below zero for
                   // an inequality that keeps the objective from falling. Made before tentry
  double fnew;     // objective at xnew
  double fold;     // objective at xold
  int* index;      // the nact active constraints first; bound 1: n, bound 0: all rows
};

// Objective at xnew. A point that cannot be evaluated has a huge value.
using FEntry = double (*)(void* qq);
// Gradient and Hessian at xnew, into grad and hess.
using GHEntry = void (*)(void* qq);
// The end of an iteration: 1 go on, 0 stop, -1-c drop the active constraint c and go on.
using TEntry = int (*)(void* qq);

// Results of znewrap besides 0, stopped by tentry.
inline constexpr int SEARCHES_FAILED = 1;     // steps of length zero, more than variables
inline constexpr int RIDGE_TOO_LARGE = 3;     // the ridge exceeded rmax
inline constexpr int INDEFINITE_AT_STOP = 4;  // the projected Hessian is not positive definite
inline constexpr int START_INFEASIBLE = 5;

// Length of work in doubles, by nvar, neq, nneq, bound.
long newton_work_length(const SIZE_S* s);

// Runs the solver from xnew, which must satisfy the constraints to 1e-12. qq is handed to the
// callbacks. *ridgptr holds the ridge of the present iteration. Returns a result above; at the
// limit of iterations 1, or the last answer of tentry.
int znewrap(void* qq, NRPTRS* p, SIZE_S* s, double* ridgptr, FEntry fentry, GHEntry ghentry,
            TEntry tentry);

// A constraint enters or leaves the active set (source znewcad), for a tentry that changes more
// than one. Both return 1, and change nothing, when it cannot: the row depends on the active ones;
// the constraint is not active.
int zconadd(SIZE_S* s, NRPTRS* p, long constraint);
int zcondrp(SIZE_S* s, NRPTRS* p, long constraint);

}  // namespace tqnlp
