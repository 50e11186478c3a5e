// The convergence criteria of a technique in reports.
#pragma once

#include "aasubs/record/minstr.h"
#include "host/tables.h"

namespace tqnlp {

// Does the technique look at the criterion of this code?
bool criterion_applies(const MINSTR* str, int code);

// Rows of an open table of labels and values: each criterion beside its tolerance with a verdict,
// as it stood at the last termination test; one row for those that are switched off. fail is the
// code of the run, 0 while it goes on. Reads what the termination test has kept (tval).
void write_criteria(MINSTR* str, RvxObject** table, int fail);

// How ABSGCONV and GCONV stand, in one text: off, or measure against tolerance.
RvxText gradient_criteria(const MINSTR* str);

}  // namespace tqnlp
