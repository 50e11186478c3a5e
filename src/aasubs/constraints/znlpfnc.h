// Repair of nonlinear feasibility (source znlpfnc).
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// znlpfnc: Feasibility of Nonlinear Constraints. Minimizes the sum of squared violations of all
// constraints, bounds and linear ones included, from x.
//
//   job    0: a quick repair, 20 evaluations and 10 iterations; nonzero: 200 and 20
//   reads  all constraints, ceps, ipre, sing; usnlc (or usfct, when it sets fcon), usjnc
//
// Returns  0  x is feasible (statuses, working set and cmax follow)
//          3  still infeasible, but the largest violation is smaller than it was (these follow too)
//         -1  no space for the matrices, or the constraints failed at x
//         -3  the limits are used up, or the Jacobian failed, without a gain
//         -5  no descent, without a gain
// With a negative result x is as given. xold holds the given x in every case. Evaluations do not
// count in nfct beyond what usnlc and usfct count themselves. Uses hess and half (or hpro), gold,
// sdir; technique 14, whose arrays are all in use, gets memory of its own. grad is kept with a
// negative result, and is of no use otherwise.
int znlpfnc(MINSTR* str, int job);

}  // namespace tqnlp
