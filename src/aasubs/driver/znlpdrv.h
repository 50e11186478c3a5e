// Driver of a run and math-error trap (source znlpdrv).
#pragma once

#include "aasubs/record/minstr.h"
#include "host/process.h"

namespace tqnlp {

// Runs job 1 (prepare) or 2 (run) on a filled record; returns the run's code, also in str->rcod.
// pfun: low bit start report, the rest its detail; dtst: gradient test 0, 1, 2; ctst: test the
// constraint Jacobian.
int znlpdrv(MINSTR* str, int job, int pfun, int dtst, int ctst);

// Handles a trapped math error: one line in the log, then resumes at the running record's mpin.
int znlpmer(const WTMTHERR* x);

}  // namespace tqnlp
