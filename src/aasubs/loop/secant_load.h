// Load of the techniques that learn a Hessian approximation from gradients: derivatives at a start
// or restart, the matrix that the updates begin with, the differences that they take.
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Function and derivatives at x (gradient; with load above 0 the user's Hessian too), a repair of
// feasibility if needed, the working set afresh. Returns 0, -1 function, -2 derivatives, -6 no
// feasible point.
int secant_load(MINSTR* str, int load);

// Start matrix in hess, factored by the form factor (1 LDL', 2 LL', technique 10 the inverse for
// either): the user's Hessian for load 1, a multiple of the identity otherwise or when it is not
// positive definite in the reduced space (load is then 0). hesc: the rule that sets dsca from its
// diagonal, 0 none. ridg is the shift of the diagonal, raised while the matrix cannot be factored.
// False when ridg reaches its limit.
bool secant_start_matrix(MINSTR* str, int factor, int hesc, int* load);

// Raises the shift of the next start matrix; false when ridg reaches its limit.
bool secant_raise_shift(MINSTR* str);

// gmax and gpro at x.
void secant_measure(MINSTR* str);

// xold and gold become the differences of x and the gradient since them, in the reduced space. Uses
// work.
void secant_differences(MINSTR* str);

// Gradient and its measure at the end of a run. Returns 0 or -2.
int secant_load_final(MINSTR* str);

// Settings of a restart that were not given or make no sense: first step length and period.
void secant_settle_restarts(MINSTR* str);

}  // namespace tqnlp
