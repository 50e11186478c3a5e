// znlppli: Profile-LIkelihood limits (sources znlppli*), confidence limits of single parameters
// after a run.
//
// The profile of parameter p is the minimum of the objective f over all other parameters, under all
// bounds and constraints, with p held at a. It is f* at the estimate and rises to both sides. A
// limit is the nearest a on its side where it has risen by
//
//   rise = s2 q / ffac
//
//   q     quantile at 1 - alfa: chi-square with 1 degree of freedom (forchi 1), or F with 1 and
//         the degrees of freedom of the residuals (otherwise; chi-square where they are not known)
//         These are nobs (its first element; else the functions of least squares) less df (else n)
//         and one more for each active constraint
//   ffac  2 for f = -log L (minimized, or log L maximized) and for half a sum of squares; 1 for
//         f = -2 log L
//   s2    1; for least squares (lsqu) the variance of a residual: sigs squared where COVSTR gives
//         it, else 2 f* / divisor. The divisor is COVSTR's vardiv, or zvardiv
//
// so that for least squares with forchi 2 the limits are those of the F ratio (S(a) - S*)/s2, which
// are exact for a linear model with normal errors. Wald limits are x -+ sqrt(q) times the standard
// error: what the profile would give if f were quadratic. Standard errors are those of the run
// (missing ones allowed), or where it has none those of a Hessian by differences.
//
// The nearest crossing is found where the root of the rise grows with the distance, up to steps of
// the search. A hump of the profile that is narrower than a step may be passed over.
//
// How a caller asks:
//
//   PLCSTR limits{};                 // options; see record/covstr.h
//   limits.job = 1, limits.ffac = MISSING, limits.nalf = 1, limits.alfa = &level;
//   std::vector<PLLIM> out(2 * n);   // parameter, level, lower before upper
//   limits.limits = out.data();
//   COVSTR post{};
//   post.plcstr = &limits;
//   post.df = MISSING;
//   str->covstr = &post;             // before the run; the driver does the rest
//
// Where bounds is 0 the record's arrays may be those of a run without bounds, except with nonlinear
// constraints or a sparse Hessian: there they must be laid out for bounds (which may all be
// absent).
#pragma once

#include "aasubs/record/covstr.h"

namespace tqnlp {

// Computes the limits that str->covstr->plcstr asks for, at x of a run that ended well. Its pointer
// optimize must be set. The optimizations ask no module of the caller for termination or output. On
// return the record is as it was; of PLCSTR the results are set, and the options are as given.
// usfout of COVSTR is called when x, crit and the record are as they were, with the options in
// force and their limits.
//
// Returns 0, also when there is nothing to do: no technique or none with derivatives (message
// 549/280), or nobody who takes the limits. 1: plal 2 without standard errors (549/282). -1: ffac
// is not above 0 (549/284), lists of parameters or levels that cannot be (said in the log), memory
// was refused, or the arrays have no room for bounds. -2: beside the estimate of a parameter not
// even steps of a hundredth of the first could be optimized (549/271); the other limits are
// computed. rcod of PLCSTR holds the same.
//
// A limit that does not exist or was not found has a status of its own. When a point below the
// result is met, message 549/286 names the parameter, and flow and xlow hold the lowest. When the
// time limit (which counts from here) or a module that has no values any more ends the analysis,
// the remaining limits say so.
int znlppli(MINSTR* str);

// Divisor of a sum of squares: nobs - df, or nobs where vardef begins with N.
double zvardiv(const char* vardef, double nobs, double df);

}  // namespace tqnlp
