// Difference intervals from the noise of the functions (source znlpfdh).
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Estimates a forward and a central interval for each parameter: job 1 of the objective, 2 of the
// nonlinear constraints, 3 of both, 0 nothing. Fills hfwd, hcnt (relative to |x| + 1; missing where
// not reached) and ofco (1: the objective looks constant in this parameter), with grad or jcon as
// by-products. Returns 0, or the negative status of an evaluation that failed; values at x are then
// those from before.
int znlpfdh(MINSTR* str, int job);

}  // namespace tqnlp
