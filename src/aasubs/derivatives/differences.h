// What the sources of znlpfid share: intervals, shifts away from bounds, guarded sums.
#pragma once

#include <cmath>

#include "aasubs/record/minstr.h"

namespace tqnlp {

enum class Side { forward = 0, central = 1 };

// Relative intervals for a number of accurate digits d: 10^(-d/2) and its power 2/3. Without digits
// (d not above 0) the root of 2^-51 takes the place of the first.
double forward_interval(double digits);
double central_interval(double digits);

// Do per-parameter intervals (hfwd, hcnt) hold for the objective, for the constraints?
bool objective_has_intervals(const MINSTR* str);
bool constraints_have_intervals(const MINSTR* str);

// Smallest step of a retreat at a parameter value.
double step_floor(double xj);
// Step from xj with an increment added: the distance that the floating-point numbers really make,
// at least ten rounding units of xj.
double step_made(double xj, double increment);

// Calls the objective (gradient) and notes it in ifdr; true on success.
bool call_function(MINSTR* str);
bool call_gradient_there(MINSTR* str);

// ---- Inside the bounds -------------------------------------------------------------------------
//
// No difference evaluates a point outside the bounds: movx moves the base away from them,
// step_inside shortens a step for which the box is too narrow, and perturb takes care of the last
// rounding. A parameter without an inside (fixed, or between bounds that are neighbouring numbers)
// stays where it is and is perturbed across its bounds, since it could not be differenced at all.

// Must parameter j stay between its bounds?
bool is_confined(const MINSTR* str, long j);
// May parameter j take this value?
bool is_inside(const MINSTR* str, long j, double value);

// Moves x away from the bounds, so that points reach steps away stay inside; work keeps the
// caller's x. cfdh nonzero: per-parameter intervals. job nonzero: evaluates the moved point.
// Returns 0 not moved, 1 moved, -1 the moved point could not be evaluated.
int movx(MINSTR* str, int job, int cfdh, Side forc, double eps, int reach = 1);

// The step h > 0 from the base x[j], or as much of it as lets reach of them stay inside.
double step_inside(const MINSTR* str, long j, double h, Side forc, int reach = 1);

// The same for a forward step from a base that is not moved: h, or a step to the side with more
// room.
double one_sided_step(const MINSTR* str, long j, double h);

// x[j] := value, which rounding may have carried past a bound.
void perturb(MINSTR* str, long j, double value);

// grad by differences from base value crit, residuals in wfid. 0, -2 retreat ran out, -3 overflow.
int dograd(MINSTR* str, Side forc, double eps, double crit);

// Adds to grad[j] the derivatives of the summands (column, m of them), each with its weight in the
// objective; false on overflow.
bool add_to_gradient(MINSTR* str, long j, const double* column);

// *a += b, kept inside the range of doubles: 1 or -1 when the sum would overflow. Defined here
// because it stands in the innermost loops.
inline int tstsum(double* a, double b) {
  if (b > 0.0 && *a >= 0.0 && (b >= SUM_CEILING || b >= SUM_CEILING - *a)) {
    *a = HUGE_VALUE;
    return 1;
  }
  if (b < 0.0 && *a <= 0.0 && (-b >= SUM_CEILING || -b >= *a + SUM_CEILING)) {
    *a = -HUGE_VALUE;
    return -1;
  }
  if (b != 0.0) *a += b;
  return 0;
}

// *a += b c in the same manner: also 1 where the product itself would overflow (*a stays), and 2
// for a positive sum.
inline int tstsum2(double* a, double b, double c) {
  if (!(std::fabs(b) <= 1.0 || std::fabs(c) <= 1.0 || std::fabs(b) < SUM_CEILING / std::fabs(c))) {
    return 1;
  }
  const int code = tstsum(a, b * c);
  return code > 0 ? 2 : code;
}

// One term of a crossproduct entry for column entries a, b and residual f. hupd negates f when
// maximizing; the form without the negation serves znlpjdt, deliberately. -1 on overflow.
int add_crossproduct_term(const MINSTR* str, double* sum, double f, double a, double b);
int hupd(const MINSTR* str, double* sum, double f, double a, double b);

// func to the first m of wfid and back; without a vector func (nfuv) nothing.
void save_functions(MINSTR* str);
void restore_functions(MINSTR* str);

// Tells the log, once in a run, that a matrix ends before column j because no point near x could be
// evaluated for it.
void tell_incomplete(MINSTR* str, const char* matrix, long j);

// Moves work back to x and restores the user's state there: 0, or -10.
int return_from_shift(MINSTR* str);
// The same at the end of a gradient or Jacobian from a shifted base. The status of the difference
// is dropped: what counts is that the user's state is restored. But a gradient that could not be
// computed is left missing, so that no old values pass for it.
int return_from_moved_base(MINSTR* str, bool failed);

}  // namespace tqnlp
