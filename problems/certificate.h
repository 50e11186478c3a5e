// Certificate: does a point satisfy the first-order optimality conditions of a problem? Computed
// from the problem alone, so that no solver's word for its own success need be taken.
//
// At x, with f the objective, g its gradient, c_i the constraints (bounds, rows and nonlinear ones
// alike) as c_i(x) >= 0 or = 0, and a_i their gradients, the conditions are
//
//   feasibility      no c_i < 0, no equality other than 0
//   stationarity     g = sum of u_i a_i over the active constraints, u_i >= 0 but for equalities
//   complementarity  u_i c_i = 0
//
// The multipliers u come from nonnegative least squares. A step of a parameter counts in units of
// s_j = max(1, |x_j|), so that parameters of sizes 1e-3 and 1e8 can stand side by side. An
// inequality is active when it is at most `active` away to first order:
// |c_i| <= active * max(1, |S a_i|).
//
// First order only: a saddle point passes. A minimum at which the active gradients are dependent
// may have no multipliers, and fails.
#pragma once

#include <vector>

#include "problems/problem.h"

namespace tqnlp::problems {

struct CertificateTolerances {
  double feasible = 1e-6;
  double active = 1e-6;
  double stationary = 1e-4;  // of complementarity too
};

struct Certificate {
  double violation = 0.0;        // largest; of bounds and rows relative to max(1, |bound or b|)
  double stationarity = 0.0;     // largest s_j |g - A'u|_j over max(1, |f|, largest s_j |g_j|)
  double complementarity = 0.0;  // largest u_i |c_i| over max(1, |f|), of inequalities
  bool holds = false;            // all three within the tolerances; false at values that are NaN
  // Multipliers in the units of the problem: nonlinear constraints, rows as they stand (of a row
  // "at most" u <= 0), then lower bounds less upper bounds, one a parameter.
  std::vector<double> nonlinear, rows, bounds;
  std::vector<double> rest;  // g - A'u in the same units
};

Certificate certify(const Problem& problem, const double* x,
                    const CertificateTolerances& tolerances = {});

// Unit normals of the constraints that are active at x, equalities first.
std::vector<std::vector<double>> active_normals(const Problem& problem, const double* x,
                                                double active);

// The violation alone.
double largest_violation(const Problem& problem, const double* x);

// Nonnegative least squares (Lawson and Hanson, Solving Least Squares Problems, 1974, chapter 23):
// u of least |sum of u_i columns_i - b|, u_i >= 0 from `free` on, the first `free` of any sign.
// Columns have unit length or are 0; one that depends on others may get 0.
std::vector<double> nonnegative_least_squares(const std::vector<std::vector<double>>& columns,
                                              std::size_t free, const std::vector<double>& b);

}  // namespace tqnlp::problems
