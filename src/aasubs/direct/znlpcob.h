// COBYLA: constrained optimization by linear approximations (source znlpcob).
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Runs the technique from str->x; returns a code of the termination test, or -1, -3 (evaluations
// failed at the smallest radius), -5 (the simplex collapsed, or the radius cannot fall to axtl), -8
// (too many calls). Expects wrk2 and jcon of the two lengths below, ntco doubles in fcon, and ntco
// + 1 or more long in iact and liwk together; ntco counts every equality twice.
int znlpcob(MINSTR* str);

// Lengths of wrk2 and of jcon for n parameters and m constraints.
long cobyla_work(long n, long m);
long cobyla_values(long n, long m);

}  // namespace tqnlp
