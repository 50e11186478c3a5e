// Distribution functions and quantiles for tests and limits. Arguments out of range give a NaN.
#pragma once

namespace tqnlp {

// Regularized incomplete beta function I_x(a,b) and gamma functions P(a,x), Q(a,x) = 1 - P(a,x); a
// and b above 0. Each to about 1e-14 relative, losing digits as the parameters grow past 1e3.
double zbetai(double a, double b, double x);
double zgammap(double a, double x);
double zgammaq(double a, double x);

// Quantiles: the x with P(X <= x) = p, 0 < p < 1, of the normal distribution, of chi-square and of
// Student's t with df > 0 degrees of freedom (any positive number). The square of the t quantile at
// (1 + p)/2 is the quantile of F with 1 and df degrees of freedom at p. The ends 0 and 1 give the
// ends of the range, infinite ones included.
double zprobit(double p);
double zqc(double p, double df);
double zqt(double p, double df);

}  // namespace tqnlp
