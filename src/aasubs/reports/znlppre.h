// Reports of a run (source znlppre and its siblings): problem, start, end, stop summary, status.
//
// All of them write tables into the delivery object str->rvx and do nothing at print level 0 (dbug)
// or without that object. A failing service of the host is logged and ends the one report; no
// report changes x, the working set or a code. Values are shown in the user's sense: objective,
// gradients and multipliers are negated back when maximizing.
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Tables "InputOpts" and "ProblemDescription", at the start of a run.
void pritech(MINSTR* str);

// Message of group 549 that names the method which the record asks for, in words.
int technique_word(const MINSTR* str);

// The tables of a point. job: -1, -2, -3 at the start, -10 at a start where nothing could be made
// feasible, 1, 2, 3 at the end; |job| >= 2 adds the constraints, |job| >= 3 multipliers and the
// projected gradient. pfun nonzero: the function values of least squares as well. Needs the working
// set, multipliers and gradients of the point; values that are missing leave their cells empty.
void znlppre(MINSTR* str, int job, int pfun);

// Table "FiniteDiff": difference intervals hfwd, hcnt.
void prifdh(MINSTR* str);

// Table "LinConDel": the linear constraints whose entry of liwk is negative. job 2: they depend on
// other equalities; other jobs: they repeat another row. Writes awrk.
void pricon(MINSTR* str, int job);

// Table "LinCon": all linear constraints, with their residuals at x when job is below 0. Writes
// awrk.
void pricon1(MINSTR* str, int job);

// Table "LinConSol": all linear constraints, each as the equation of its residual at x. Writes
// awrk.
void pricon2(MINSTR* str);

// Tables "DepBoundCons", "LinDepLinCon", "DepNonlinCon", "LinDepGradNonLin": active constraints
// that were left out of the working set as dependent. Writes awrk.
void pricon3(MINSTR* str);

// Table "NonLinCons"; job below 0 start, above 0 end.
void prinlc(MINSTR* str, int job);

// End of a run with code fail: closes the history, writes the tables "IterStop" (job 0 alone, for
// which the objective must have a value) and
// "ConvergenceStatus", and logs the messages of the code. The messages are logged at every print
// level.
void znlpptm(MINSTR* str, int fail, int job);

// Table onam: a matrix with a named parameter in each of its rows, column "Parms".
//   nr >= 0  nr x nc by rows in pd, a data column for each column: onam alone when nc is 1, else
//            named by the parameters
//   nr -3    nc values: a column "Estimate"
//   nr -2    nc values, and nc elements of the gradient behind them: columns "Estimate", "Grad"
//   pnam     names of the rows (and columns), or null: X1, X2 ...
//   titl     nonzero: the message label is the title
void znlppmt(RvxObject* rvx, const char* onam, long nr, long nc, const double* pd,
             const char* const* pnam, int titl, int label);

}  // namespace tqnlp
