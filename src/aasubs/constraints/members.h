// Members of the working set, one by one: what an active-set method asks about a constraint that is
// in the set, or may enter it.
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// A constraint: koc 0 general constraint ic (linear i as i, nonlinear k as ncon + k), otherwise the
// bound of parameter ic with status koc (1, -1 or 2). ic -1: none.
struct Member {
  int koc = 0;
  long ic = -1;
};

// The bound of parameter j that status koc stands for.
double bound_value(const MINSTR* str, long j, int koc);

// False for equalities and fixed parameters.
bool may_leave(const MINSTR* str, const Member& m);

// Member number i in the order of the multipliers: bounds first, then general constraints.
Member member(const MINSTR* str, long i);

// Gradient of a constraint; stands in awrk until the next call.
const double* gradient_of(MINSTR* str, const Member& m);

// Residual n'x - b, given the gradient; a nonlinear member counts as satisfied where it stands.
double residual_of(const MINSTR* str, const Member& m, const double* row);

// The constraint that znlpstl names by a code.
inline Member blocking_member(const MINSTR* str, long code) {
  const long n = str->nvar;
  if (code < n) return {1, code};
  if (code < 2 * n) return {-1, code - n};
  return {0, code - 2 * n};
}

// Makes the constraints that were set aside as dependent ordinary outsiders, but for equalities.
void forget_deferred(MINSTR* str);

// Does the gradient of m depend on those of the members, to within ldct?
bool is_dependent(MINSTR* str, const Member& m);

// Multipliers of the members that fit v best, nabc + nalc of them, also where only bounds exist.
void multipliers(MINSTR* str, const double* v, double* lambda);

// sdir := least change of x that satisfies the members. Returns 0, or -1 for a zero pivot of their
// factor. Uses awrk and dcds.
int satisfy_members(MINSTR* str);

}  // namespace tqnlp
