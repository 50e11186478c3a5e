// The line search of residual vectors (source znlpl11), made for Gauss-Newton directions.
//
// The technique gives xold with its value in cold and its gradient in grad, the direction sdir, the
// largest step stub, and behind fold, the residuals F at xold (m), the product J sdir (m); the m
// places behind that are work. func, and with it fold, is 4m doubles long.
//
// x never leaves its bounds. A failed evaluation (nonzero return, tbig, no finite value) shortens
// the step, and every search ends after a bounded number of evaluations.
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Result 0   x, crit, func and alfa hold the accepted point; or alfa = 0 and x = xold, when slope
// or
//            room is zero
//        -1  no step: the direction leads uphill, or values no longer change, or the search ended
//            on points that could not be evaluated
//        -2  no acceptable step. A decrease that was met and is too small to be accepted is kept,
//            alfa > 0 then
//        -3  ten evaluations failed in a row from the first step on
//       -11  the best point could not be evaluated a second time
// Without a kept decrease x and crit are those of xold, alfa is 0, tbig is 0, and func is that of
// some trial.
int znlpl11(MINSTR* str);

// Armijo backtrack from the step *alfi, whose value is *falfi (HUGE_VALUE: not evaluated), by
// quarters; f0 and gs0: value and slope at xold; pmax: length of sdir; alfl: smallest step. The
// last trial is in *alfi, *falfi. Returns 0 when it is acceptable; -1 the change in value is
// rounding; -2 the step is too small.
int gastep(MINSTR* str, double pmax, double alfl, double gs0, double f0, double* alfi,
           double* falfi);

// Reductions beyond the step *alfa with value *falf, while the model promises enough of them: alfi
// and fanew are the next step and its predicted value, cdif the decrease that is worth an
// evaluation. At the end *alfa and *falf are the best point, where x stands and func was evaluated;
// *falfi is the value of the last trial. Returns 0; -11 when the best point could not be evaluated
// again after a trial beyond it.
int reduc(MINSTR* str, double* alfa, double* falf, double alfi, double fanew, double cdif,
          double* falfi);

// ---- Models (znlpl11_models.cpp) ----------------------------------------------------------------

// Minimum *anew, kept in [alfl, alfu], of the parabola through (a0, f0), (a1, f1), (a2, f2), and
// its predicted value *panew. Steps are told apart when they differ by the root of the rounding
// unit over pmax, the length of the direction; otherwise, and for points on a line, a0 and f0
// stand.
void minrn(MINSTR* str, double pmax, double alfl, double alfu, double a0, double f0, double a1,
           double f1, double a2, double f2, double* anew, double* panew);

// Minimum of |v0 + x v1 + x^2 v2|^2 / 2 over [alfl, alfu]; v holds v0, v1, v2, m = mequ elements
// each. *anew: the local minimum nearest to xmin, *panew its value; *beta, *pbeta: the other one
// (the same where there is one only). The second takes the place of the first when it is lower and
// not beyond xmin.
void minrm(MINSTR* str, double alfl, double alfu, double xmin, double* anew, double* panew,
           double* beta, double* pbeta, const double* v);

// Value at x of that model, a quartic, and of its derivative, a cubic: c[k] is the coefficient of
// x^k in the quartic.
double pol4(const double* c, double x);
double pol3(const double* c, double x);

}  // namespace tqnlp
