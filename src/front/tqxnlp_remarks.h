// Remarks on a call (source tqxnlp): what is right by the rules and may not be what was meant, or
// is wrong in a way that can be told. None of them changes a run; each is a message of the log that
// names the element and what came of it.
#pragma once

#include "aasubs/record/minstr.h"
#include "host/language.h"

namespace tqnlp {

// Elements of opt (job as of setoptn) and of par (job as of setparm) that were replaced because
// they are out of range. To be asked right after the vector is decoded.
void remark_options(const MINSTR* str, int job);
void remark_parameters(const MINSTR* str, int job);

// A feasibility tolerance (the element of par that holds it) so large that no constraint means
// much; for a call with constraints.
void remark_feasibility_tolerance(const MINSTR* str, long element);

// Rows 1 and 2 of blc filled like rows of constraints: the bounds were most likely forgotten.
void remark_forgotten_bound_rows(const ARGMTS* argm);

// A result of the wrong shape that has the right one when it is turned.
void remark_transposed(const ARGMTS* argm, const char* module, const TQLSYM& result, long rows,
                       long cols);

// Fewer functions than parameters: the least squares leave parameters undetermined.
void remark_few_functions(const MINSTR* str);

// Which subroutine runs, which objective, minimized or maximized; a line of the report.
void announce_run(const MINSTR* str);

}  // namespace tqnlp
