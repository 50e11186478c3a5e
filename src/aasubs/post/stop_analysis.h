// Services that look at a point where a technique stops, and may lead the run on from there. The
// termination test calls them in this order, each only when those before it found nothing:
//
//   znlpfnc   (constraints/znlpfnc.cpp)  is the point clearly infeasible, and can it be repaired?
//   znlpnoi   (post/znlpnoi.cpp)  is there a better point at the distance of the noise?
//   znlpdnc   (post/znlpdnc.cpp)         is there a direction of negative curvature?
//
// A technique that is told to go on (code 100) loads everything afresh at x. znlpnoi and znlpdnc
// answer "better" only when the objective, or with nonlinear constraints the largest violation, has
// become strictly smaller than it was at the stop, so that a run cannot circle between two points.
// All three are bounded in their evaluations. In the range-space frame (opro 2) none of them needs
// a frame it cannot have: they then find nothing.
#pragma once

#include "aasubs/constraints/znlpfnc.h"
#include "aasubs/record/minstr.h"

namespace tqnlp {

// znlpnoi: NOIse probe. Looks for a clearly better point around x: along each parameter, along each
// null-space column of the working set, then at random (the same points at every call). A point
// counts when it can be evaluated, is lower, and violates no constraint by more than x does, but
// for the rounding of a row. A decrease that is small against the slope must be confirmed by a line
// search without derivatives.
//
//   job    0: radius rtop, 20 random passes; nonzero: a tenth of it, 10 passes
//   rtop   radius, relative to parameters above 1; missing or not above TINY: 0.1
//   reads  x, crit, tbig, grad (of x, when ider is not 0), tolerances aftl, ftol, fsiz, constraints
//
// Returns 1: x and crit hold a better point, cold the value before, tbig is 0; statuses and working
// set are those of x. Returns 0: x and crit are as given, but that an infeasible x may have been
// repaired by znlpfea. At most 2n + 2nz + 42 evaluations and those of one line search, all counted.
// Uses xold, sdir, gold, work, awrk; rebuilds the working set at x. damp, alfa, salf, ider stay.
int znlpnoi(MINSTR* str, int job);

// znlpdnc: Direction of Negative Curvature. Factors the projected Hessian at x; where it is not
// positive semidefinite, searches along a direction of negative curvature without derivatives, the
// first trial being as long as x.
//
//   job    1: the working set is made afresh at x first; 0: it is taken as it stands
//   reads  ider, fidi, hfrm (0 packed, 2 diagonal), ushes or what differences need, constraints
//
// Returns  0  better: x and crit hold the point
//          1  positive semidefinite with a zero pivot: no negative curvature
//          2  positive definite, or nothing is free
//          3  negative curvature, but no step along it lowers the objective: x and crit as given.
//             One exception: with nonlinear constraints a step that raised the largest violation
//             stands
//         -1  ider is 0, or nonlinear constraints without a frame to be made (job 0 or opro 0), or
//             a form of the Hessian that it does not take, or an evaluation failed
//         -2  memory was refused
// One Hessian, one function evaluation, and those of one line search. Uses hess, hpro, half where
// the run has them, xold, sdir, work, gold, iwk; leaves the gradient of the given x in grad, and
// its largest general violation in cmax. damp, alfa, salf, ider stay.
int znlpdnc(MINSTR* str, int job);

}  // namespace tqnlp
