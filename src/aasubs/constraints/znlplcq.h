// Linearly constrained quadratic subproblem (source znlplcq).
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Minimizes q(y) = c'y + y'Hy/2 over the bounds and linear constraints of the record, from the
// point in x, without calls of the objective. The least-distance problem min |y - p|^2 is c = -2p,
// hess null, lamb 2.
//
//   nolm  0: leave the multipliers of the solution in lagm (bounds first, in the order
//         of the tail of ifxr, then iact); nonzero: lagm holds no result
//   load  0: the working set is made here from x (znlpfch, znlpfta); nonzero: iabc, ifxr, iact, the
//         counts and the factors Q, T hold a working set already, whose members x may violate
//   lamb  multiple of the identity that is added to the Hessian: H = hess + lamb I, or lamb I alone
//         when hess is null (lamb must then be positive)
//   grad  in: c, n doubles; out: the gradient c + Hx at the returned x. May be str->grad or another
//         array; str->grad receives the gradient in either case
//   hess  packed, order n, or null
//   hpro  packed work for the reduced matrix, nnva doubles; may be null when hess is null
//
// The point may violate anything, equalities too. A point that satisfies all constraints is led to
// the solution through feasible points; from any other, and where nearly dependent constraints
// leave no such way, the solution is approached from outside, and is the same.
//
// Uses x, grad, sdir, gpro, lagm, dcds, work, awrk, liwk, qlcn, llcn, ipiv (ipiv with hess only)
// and changes iabc, ifxr, iact, nabc, nalc, nldc, nlbc, gmax, stub; sets ridg to 0; load 0 rebuilds
// the frame and with it resets chac. xold, gold, crit and idac stay. Needs the arrays of the block
// gpro. opro 2 ends the run with exit code 9999.
//
// Returns 0: x solves the problem within ceps*10^ipre, and the working set is the one of the
// solution; -1: no further step can be formed (a zero pivot in T, no point satisfies all
// constraints, or the limit of passes): x is the last point, and satisfies at least the working set
// that it was found on unless T failed; -2: the reduced Hessian is not positive definite, x is the
// last point.
int znlplcq(MINSTR* str, int nolm, int load, double lamb, double* grad, double* hess, double* hpro);

}  // namespace tqnlp
