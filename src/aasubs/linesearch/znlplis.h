// Line searches (sources znlplis and znlpls6): how far to go along a direction of descent.
//
// Common contract of the nine methods. The technique gives
//   xold, crit, gmax   the point where the search starts, its value and gradient measure; f finite
//   gold               gradient there (methods 1 to 5); grad, when ider is not 0 (methods 6 to 9)
//   sdir               direction, n; with linear constraints also spro and gpro, its reduced form
//                      and the reduced gradient at xold
//   stub               largest step that the constraints allow, from znlpstl
//   salf smax smit damp sigm ssin dfes alfa   step control, see the record
//   fidi fdig ftol gtol agtl                  accuracy of the objective, tolerances
// Result 0       x, crit, grad, gmax and alfa hold the accepted point: crit is not above its value
//                at xold (but see method 9), alfa is the step. Methods 6 to 9 leave grad alone when
//                ider is 0, and also answer 0 with alfa = 0, having tried nothing, when the step
//                limit or (ider not 0) the slope is zero: callers test alfa.
// Result not 0   x, crit and gmax are as at xold, alfa is 0, tbig is 0. grad, gpro, func and fcon
//                are those of some trial. The value is 1, but -1 from method 2; only its being
//                nonzero matters.
// nlis rises by one. The fifth search of a run sets salf to 1 when it succeeds.
//
// A failed evaluation (nonzero return, tbig, or a value or slope that is not finite) is no error of
// a search: it shortens the step. Every search ends after a bounded number of evaluations, whatever
// the user's functions answer. No search writes a message, allocates, or uses work.
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// ---- Searches with slopes (znlplis.cpp, znlplis_extrapolate.cpp) --------------------------------

// Bracket and cubic interpolation, with the gradient at every trial; accepts sufficient decrease
// with slope at least sigm times that at the start (one-sided).
int znlpls1(MINSTR* str);

// The same promise, but a gradient is only asked for where the value has decreased enough; the
// default. With sigm below 0.1 the slope test is two-sided: |slope| <= sigm |slope at start|.
int znlpls2(MINSTR* str);

// As method 2, with the gradient at every trial.
int znlpls3(MINSTR* str);

// Goes further until the slope turns or the function rises, then interpolates by cubics against
// xold; promises decrease alone. Method 4 extrapolates by a cubic, at least fivefold; method 5 by a
// parabola, at most fivefold.
int znlpls4(MINSTR* str);
int znlpls5(MINSTR* str);

// ---- Searches with few or no gradients (znlpls6.cpp, znlpls6_goldstein.cpp) ---------------------

// Doubling, golden section, one parabola: comparisons of values alone. About a dozen evaluations.
// ider not 0: gradient at the accepted point. Method 6 gives up lengthening at a failed evaluation,
// method 8 halves the increment.
int znlpls6(MINSTR* str);
int znlpls8(MINSTR* str);

// Goldstein test: the decrease is between the shares rho and 1 - rho of what the slope promises,
// unless the step limit, ssin or the number of trials ends the search earlier. Needs the gradient
// whatever ider is.
int znlpls7(MINSTR* str);

// As method 8 on the largest constraint violation, whose value at xold is in cmax: the accepted
// point has a smaller violation, or the same one and a lower value. crit may have risen.
int znlpls9(MINSTR* str);

// The search for field linse: tlin 1 and 3 to 8 name their own method, every other value (2, and 9
// and 12 too) gives znlpls2. Method 9 is never selected by number.
Callback select_line_search(int tlin);

// ---- Services -----------------------------------------------------------------------------------

// Rescue of a failed search while the gradient is still large: short steps until the value falls
// below c0, then doubling and one parabola. Where the function is flat, it looks for a smaller
// gradient instead. c0, gs0, gmx0: value, slope and gmax at xold; salf: ten times the first trial.
// Returns 0  crit < c0; x, crit, grad, gmax, alfa hold the point
//         1  the gradient became smaller but the value did not
//        -1  no parameter moves any more, or a point could not be evaluated a second time
//        -2  no progress;  -3  evaluations failed down to the smallest step
// With a result other than 0 the point is the caller's to restore.
int bisect(MINSTR* str, double c0, double gs0, double gmx0, double salf);

// Largest violation at x of the linear constraints (through acget and blcn) and the nonlinear ones
// (calling usnlc, which leaves them in fcon; without usnlc the last usfct has left them there):
// equalities by modulus, inequalities by their negative part, at least 0. HUGE_VALUE when the
// constraints could not be evaluated. Uses awrk.
double gtcmx(MINSTR* str);

// Abscissa of the minimum of the parabola through (x1, f1), (x2, f2), (x3, f3); the mean of the
// abscissae when they do not ascend strictly, the points lie on a line, or the extremum is not
// inside (x1, x3).
double xqmin(double x1, double x2, double x3, double f1, double f2, double f3);

}  // namespace tqnlp
