// VMCWD, technique 21 (source znlpvmc).
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Runs the technique from str->x, which need not be feasible; without nonlinear constraints too.
// Returns 3 or 6 converged, -1 failed start, -3 values, -4 derivatives, -5 no progress, -8, -9
// limits, or what a termination module of the user answers. x is the best point.
int znlpvmc(MINSTR* str);

}  // namespace tqnlp
