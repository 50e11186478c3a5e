// What is true at a point: values, multipliers, active sides, optimality; apart from the technique.
#pragma once

#include "face/run.h"

namespace tqnlp::face {

// Evaluates the point of the result afresh and fills gradient, residuals, values of the
// constraints, multipliers, active set and optimality. curvature: also whether there is negative
// curvature, where that can be afforded; *better then receives the lower point that shows it.
void check_point(Shared& shared, bool curvature, Result* result, std::vector<double>* better);

}  // namespace tqnlp::face
