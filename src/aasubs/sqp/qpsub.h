// The quadratic subproblem of the sequential quadratic techniques.
#pragma once

#include "aasubs/sqp/vmcstr.h"

namespace tqnlp {

enum class Subproblem { solved, inconsistent, failed };

// Fills the record of the subproblem: once in a run, when the arrays of v stand.
void open_subproblem(MINSTR* str, VMCSTR& v);

// The step sdir from x that minimizes g'd + d'Bd/2, B = LL' with the factor L in hess, under the
// linearized constraints c_i + a_i'd (=, >=) 0 and the bounds, with the multipliers in vlam, slopes
// and predictions along it in slop and prdc, d'Bd in curvature. The working set of the problem
// record becomes that of the step.
//
// Where the linearized constraints contradict each other, the violated ones are asked for a share
// of their violation alone, the largest possible one but for a tenth; it stands in slack. A share
// of nothing is inconsistent: no step takes something from all violations, and sdir leaves them as
// they are. After a failure sdir and multipliers have no meaning.
Subproblem qpsub(MINSTR* str, VMCSTR& v);

}  // namespace tqnlp
