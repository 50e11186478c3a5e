// QUADratic Active set in the Range space, technique 16 with vers 1 (source znlpqar).
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Minimizes a strictly convex quadratic under bounds and linear constraints, from str->x. The
// matrix stands in hess in the form hfrm, or packed in utquad; qvec and qcon are its linear term
// and its constant. Sets usclo. Returns the code of the run: 1 to 9 by a criterion, 10 when every
// parameter is fixed by an active constraint, -1 and -2 for failed loads (-2 also for a matrix that
// is not positive definite, which the log tells), -5, -6, or what the termination test answers.
int znlpqar(MINSTR* str);

}  // namespace tqnlp
