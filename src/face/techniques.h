// The techniques of the face: what each is in the record, what it takes, and the automatic choice.
#pragma once

#include "face/constraints.h"

namespace tqnlp::face {

struct TechniqueRow {
  Technique technique;
  int tech;      // number in the record
  int ider;      // order of derivatives
  int job;       // kind of settings, setup/defaults.h
  bool squares;  // works on residuals
  bool general;  // takes linear constraints
  bool nonlinear;
  bool quadratic;  // takes the matrix of a quadratic, and nothing else
};
const TechniqueRow& row_of(Technique technique);

// The technique that runs: the one asked for, or the automatic choice. Throws std::invalid_argument
// when it does not take the problem, and names those that do.
//
//   least squares, no nonlinear constraints    levenberg_marquardt
//   quadratic, no nonlinear constraints        quadratic_active_set
//   no gradient, few digits in the objective   nelder_mead, or cobyla with general constraints
//   nonlinear constraints                      quasi_newton
//   Hessian: sparse / n at most 500            newton_line_search / trust_region
//   n above 300                                conjugate_gradient
//   linear rows                                quasi_newton
//   otherwise                                  quasi_newton_inverse
const TechniqueRow& choose_technique(const ProblemData& problem, const Constraints& constraints,
                                     const Options& options);

}  // namespace tqnlp::face
