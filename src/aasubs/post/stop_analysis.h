// Services that look at a point where a technique stops.
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Noise analysis: nonzero when a better point was found nearby.
int znlpnoi(MINSTR* str, int job);
// Second-order test: 0 when a better point was found along negative curvature.
int znlpdnc(MINSTR* str, int job);
// Repair of nonlinear feasibility: 0 feasible, 3 less infeasible, negative no gain.
int znlpfnc(MINSTR* str, int job);

}  // namespace tqnlp
