// Bounds and linear rows of a record, made ready for a run.
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Completes constraints that stand in lb, ub (absent ones at -+HUGE_VALUE) and in alcn, blcn, naco,
// jalc (equalities first, neqc of ncon, each a'x >= b): statuses iabc, the counts nbec, nbic, ntec,
// ntco, and without the rows that depend on others. Bounds that cross, or differ by no more than
// the feasibility tolerance, fix their parameter at the upper one.
//   simplex   every equality counts as two inequalities, as COBYLA takes them
void complete_constraints(MINSTR* str, bool simplex);

// The default acget: row i of the active matrix as n doubles at w; linear rows first, then rows of
// jcon. Returns 0.
int nlpaget(MINSTR* str, long i, double* w);

}  // namespace tqnlp
