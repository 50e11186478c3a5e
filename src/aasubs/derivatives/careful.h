// Differences of fourth order, for a look at one point that has to be right: derivatives at the
// point itself also where it lies on a bound, and how wrong they may be.
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// First derivatives at x of the objective (usfct, into grad) and of the nonlinear constraints
// (usnlc, into jcon), each if asked for. crit and fcon hold the values there, and do so again at
// the end; no point outside the bounds is evaluated, and the elements of a parameter whose bounds
// leave no room are missing. Parameters should be of sizes of about 1, or above.
//   error  n, or null: how far an element of grad may be off
// Four calls of each a parameter. Returns 0; -1 when memory is refused; -2 when no points near x
// could be evaluated.
int careful_differences(MINSTR* str, bool objective, bool constraints, double* error);

}  // namespace tqnlp
