// What is true at a point: values, multipliers, active sides, optimality; apart from the technique.
#pragma once

#include "face/run.h"

namespace tqnlp::face {

// How far a look goes: second derivatives never, where the gradient leaves doubt, or always; they
// are taken where they can be afforded.
enum class Look { first_order, if_in_doubt, second_order };

// What a run that is started again may use.
struct Advice {
  std::vector<double> better;  // the lower point that negative curvature leads to; empty: none
  std::vector<double> sizes;   // of the parameters, by the curvature; 0: not known; empty: none
  std::vector<double> least;   // sizes that parameters have at least: they were taken too small
};

// Evaluates the point of the result afresh and fills gradient, residuals, values of the
// constraints, multipliers, active set and optimality.
void check_point(Shared& shared, Look look, Result* result, Advice* advice);

}  // namespace tqnlp::face
