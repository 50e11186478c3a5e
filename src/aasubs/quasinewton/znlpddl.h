// DBLDOG, the double dogleg technique (source znlpddl).
#pragma once

#include "aasubs/loop/trust_region.h"
#include "aasubs/record/minstr.h"

namespace tqnlp {

// Runs the technique from str->x. Returns the code of the run.
int znlpddl(MINSTR* str);

// ---- The step -----------------------------------------------------------------------------------

// The model at x, from str->grad (str->gpro with linear constraints), the factor str->hess and the
// scale: Newton step in wrk2, gradient in the scaled norm behind it; dst0, dgnm, gthg and nred of
// d; pred. Uses work. False when the factor is singular.
bool make_dogleg_model(DGWSTR* d);

// Kinds of step.
enum DoglegStep { NEWTON_STEP = 1, RELAXED_NEWTON_STEP = 2, BETWEEN_STEP = 3, CAUCHY_STEP = 4 };

// The step of length min(delt, dst0) on the double dogleg path, reduced, in wrk2 + 2 nvar; gfac and
// nfac, its coordinates; dstn, gtst, pred and lamb: 0 for the Newton step, in (0, 1) for a relaxed
// one, in [1, 2] between, above 1 for steepest descent. Returns its kind.
int dbldog(DGWSTR* d);

}  // namespace tqnlp
