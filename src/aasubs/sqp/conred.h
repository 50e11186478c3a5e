// A first phase of the sequential quadratic technique: CONstraint REDuction.
#pragma once

#include "aasubs/sqp/vmcstr.h"

namespace tqnlp {

// Minimizes the sum of squared violations of all constraints from x, by QUANEW without constraints
// and max2 iterations at most. True: x has a lower sum than before. The record is as before but for
// x and the counts of constraint evaluations; grad, hess and the work of steps are lost.
bool conred(MINSTR* str, VMCSTR& v);

}  // namespace tqnlp
