// Load of the Newton techniques: gradient and Hessian at a point, the working set, and their
// projection into the free subspace, scaled.
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Gradient and Hessian at x: the user's, or the gradient and the identity in the Hessian's form.
// Returns 0, -1 (function, where it is asked for again) or -2 (derivatives).
int newton_derivatives(MINSTR* str, int user_hessian);

// Loads derivatives at x. job 1: function and feasibility first, the working set afresh; job 0:
// derivatives only, the working set is revised. Returns 0, -1 function, -2 derivatives, -6 no
// feasible point.
int newton_load(MINSTR* str, int job, bool user_hessian);

// A step is blocked at once. The constraint that left the working set at xold, where its multiplier
// was that of an unfinished descent in the subspace, comes back when it is the only one that holds
// with equality there and is free: the descent goes on in the subspace, whose problem the caller
// projects anew. x is xold then. False: there is none, or it would leave no freedom.
bool newton_readmit(MINSTR* str);

// What becomes of the scale dsca while it is wanted (hesc).
enum class Scale {
  kept,        // as it is
  renewed,     // from the diagonal, at a start or restart only from one that is positive
  as_counted,  // from the diagonal, which only null, the count of the last reduction, can forbid
};

// Projects gradient and Hessian into the free subspace (into hpro and gpro with linear constraints,
// in hess otherwise) and scales them with dsca. gold receives the negative scaled reduced gradient,
// *norm its length. form 0 packed, 1 sparse, 2 diagonal (with linear constraints the reduced matrix
// is packed whatever form says). Returns the order of the reduced problem; with 0 nothing but gmax
// and gcri is set, and *norm is 0.
long newton_project(MINSTR* str, int form, Scale scale, double* norm);

// The same for a Hessian that differences may have made. They leave noise where its elements are
// zero, which the scaling (hesc) would blow up: elements below the noise of second differences
// become 0, on the diagonal at most 1e-6, and where a curvature is lost so the scale is 1, as it is
// for a singular Hessian. A Hessian of the user's, and the identity, are projected as they are.
long newton_project_clean(MINSTR* str, int form, bool user_hessian, bool rescale, double* norm);

}  // namespace tqnlp
