// QUADratic Active Set, technique 16 (source znlpqas).
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Minimizes a quadratic with a constant Hessian, in any of its three forms and of any inertia,
// under bounds and linear constraints, from str->x. hess is read only. Returns the code of the run.
// With isqp set the working set is the caller's, as it stands.
int znlpqas(MINSTR* str);

}  // namespace tqnlp
