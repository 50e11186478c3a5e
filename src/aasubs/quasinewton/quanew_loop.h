// What the two forms of QUANEW share: the loop of the technique.
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// What a form of QUANEW is: the matrix that it keeps in hess, and how it uses it.
struct QuanewForm {
  // Job of str->updat that fits the matrix.
  int (*update_job)(const MINSTR* str);

  // Derivatives, working set and matrix at x. job 1: at a start or restart, everything afresh; job
  // 0: after a step, whose gradient is known. load tells whether the user's Hessian starts the
  // matrix, and falls to 0 when that cannot be. Returns 0, -1 function, -2 derivatives or matrix,
  // -5 matrix, -6 no feasible point.
  int (*actcon)(MINSTR* str, int job, int* load);

  // Reduced step in str->spro, expanded in str->sdir. Nonzero: the matrix could not be used.
  int (*direction)(MINSTR* str);

  // Is there descent left in a direction with slope gs, by the tolerance tol? Asked only of runs
  // that are long since the restart.
  bool (*still_descends)(const MINSTR* str, double tol, double gs);

  // A failure to load after a step that is not the first since the restart: restart from the point
  // before the step (true), or end the run (false).
  bool outlives_failed_load;
};

// Runs the technique from str->x. Returns the code of the termination test.
int quanew_loop(MINSTR* str, const QuanewForm& form);

// Form of a factored matrix, as znlphin and znlpcso count: 1 LDL' with neither bounds nor linear
// constraints, else 2 LL', which the working set can revise.
int quanew_factor(const MINSTR* str);

}  // namespace tqnlp
