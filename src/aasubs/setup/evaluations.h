// What every caller of the library makes of the values that a user's code gives.
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Answers of half_sum_of_squares beside 0.
inline constexpr int RESIDUAL_TOO_LARGE = 2;  // an element of func at or beyond ROOT_HUGE
inline constexpr int NORM_TOO_LARGE = 3;      // the norm of func, or an element of J'J

// Takes m residuals into func (which may be where they stand), and half the sum of their squares
// into crit. Returns 0, or 2 or 3, and crit as it was, when squares would overflow.
int half_sum_of_squares(long m, const double* values, double* func, double* crit);

// The quadratic qcon + qvec'x + x'Hx / 2 of a record with fqad, whose symmetric matrix stands in
// hess in the form hfrm: value at x (qvec + n is work), gradient at x into grad.
double quadratic_value(MINSTR* str);
void quadratic_gradient(MINSTR* str);

}  // namespace tqnlp
