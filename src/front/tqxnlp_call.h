// The life of a call (source tqxnlp): what every entry does around its own steps. Internal to the
// calling surface.
#pragma once

#include "aasubs/record/minstr.h"
#include "front/argmts.h"

namespace tqnlp {

// What an entry found when it began, to be put back when it ends: a module may call a subroutine.
struct OuterCall {
  MINSTR* record;  // the problem record that ran
  TQLSS* current;  // the prepared call that was current
};

// Begins a call on zero-filled records: ties them together, makes the report object, sets "_ITER_"
// to 0 and makes str the running record. name: the subroutine's, padded to eight. Returns 0 or 100.
// end_call must follow in either case.
int begin_call(MINSTR* str, ARGMTS* argm, TQLARG** arg, const char* name, OuterCall* outer);

// Hands the report over. Returns 0 or 100.
int deliver_report(MINSTR* str);

// Gives back all that the call took, on every path, and returns rc.
int end_call(MINSTR* str, ARGMTS* argm, const OuterCall& outer, int rc);

// Result k of the call: a copy of count numbers as a row. Returns 0, or 1 when the host refuses.
int make_row_result(int k, const double* values, long count);

// The arrays of the run, and the matrices of a Hessian whose module gives rows (see
// aasubs/setup/run_arrays.h). nonzeros: coefficients of the linear constraints, as getncon counted
// them. Both return 0, or 1 when the host refuses memory.
int take_arrays(MINSTR* str, long nonzeros);
int take_matrices(MINSTR* str);

// Copies x0 into x, a missing element as 0.
void copy_start(MINSTR* str);

}  // namespace tqnlp
