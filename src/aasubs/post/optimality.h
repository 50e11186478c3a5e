// First-order optimality of a point, looked at apart from the technique that found it.
#pragma once

namespace tqnlp {

// A point with its gradient and constraints, and what the check finds. The objective is one that is
// minimized. Sides that are absent stand at -+HUGE_VALUE.
struct FirstOrder {
  // In.
  long n = 0;
  long rows = 0;                     // general constraints, linear and nonlinear alike
  const double* x = nullptr;         // n
  double crit = 0.0;                 // objective there
  const double* gradient = nullptr;  // n
  const double* lower = nullptr;     // n; bounds
  const double* upper = nullptr;
  const double* normals = nullptr;  // rows x n; gradients of the constraints
  const double* values = nullptr;   // rows
  const double* row_lower = nullptr;
  const double* row_upper = nullptr;
  double size = 1.0;              // of the objective where that is near 0
  const double* noise = nullptr;  // n, or null: how far elements of the gradient may be off
  double activity = 1e-6;  // a side counts as active within this distance, relative to 1 + |side|
  // Out.
  double* bound_multipliers = nullptr;  // n; above 0 at a lower side, below 0 at an upper one
  double* row_multipliers = nullptr;    // rows
  double* rest = nullptr;     // n; gradient less multipliers times normals, as far as it counts and
                              // is no noise
  double violation = 0.0;     // largest, relative to 1 + |side|
  double stationarity = 0.0;  // largest element of gradient less multipliers times normals,
                              // noise or not
  double relative = 0.0;      // the rest as a change that it promises, relative to the objective:
                              // |rest_j| max(|x_j|, 1) / max(|crit|, size)
  double complementarity = 0.0;  // largest |multiplier| times distance of its side
};

// Finds the multipliers of the right signs on the active sides that explain the gradient best, by
// nonnegative least squares, and measures what they leave. Returns 0, or -1 when memory is refused.
int check_first_order(FirstOrder* point);

}  // namespace tqnlp
