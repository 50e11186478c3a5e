// Working record of the sequential quadratic techniques (NLPQN with nonlinear constraints, NLPVMC):
// what one run keeps besides the problem record. It stands on the technique's frame; thdstr of the
// subproblem's record points to it while a subproblem runs.
//
// The constraints are one list of terms t_i, n parameters, all read c(x) = 0 or c(x) >= 0:
//
//   0 .. nlec               nonlinear equalities              gradient: row of jcon
//   .. equalities           linear equalities                 gradient: through acget
//   .. .. + nonlinear       nonlinear inequalities
//   .. rows                 linear inequalities
//   rows .. rows + n        lower bounds x_j - lb_j           gradient: e_j
//   rows + n .. terms       upper bounds ub_j - x_j           gradient: -e_j
//
// The value of an absent bound is HUGE_VALUE. Without bounds terms is rows.
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

struct VMCSTR {
  MINSTR* minstr = nullptr;  // the problem
  MINSTR inner{};            // the quadratic subproblem, n + 1 variables: step and slack
  long equalities = 0;
  long rows = 0;   // without bounds: rows of the subproblem
  long terms = 0;  // all

  // One number a term.
  double* vcon = nullptr;  // value at x
  double* vlam = nullptr;  // multiplier of the last subproblem
  double* vmu = nullptr;   // weight in the merit function
  double* slop = nullptr;  // derivative along the step sdir
  double* prdc = nullptr;  // what the whole step takes from the violation, by the linear model
  double* cbeg = nullptr;  // value where the line search began
  double* vopt = nullptr;  // value at the best point
  double* xopt = nullptr;  // n; best point
  double* prod = nullptr;  // n + 1; product of the subproblem's matrix

  // The last subproblem.
  double slack = 1.0;      // share of the linearized violations that the step takes away
  double curvature = 0.0;  // d'Bd
  bool warm = false;       // does the problem record hold the working set of a subproblem?
};

// Doubles in wrk2 of a run with n parameters, rows constraints and, with bounds, 2n more.
long sqp_work(long n, long rows, bool bounds);

// Counts the terms and lays the arrays of v out in str->wrk2; what they hold is zero.
void open_terms(MINSTR* str, VMCSTR& v);

}  // namespace tqnlp
