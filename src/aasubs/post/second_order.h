// What second derivatives say of a point: how much lower their model leads, and whether it bends
// down.
#pragma once

namespace tqnlp {

// A point with its Hessian and what multipliers leave of its gradient. Parameters should be of
// sizes of about 1.
struct SecondOrder {
  // In.
  long n = 0;
  const double* hessian = nullptr;  // packed, lower triangle by rows
  const double* rest = nullptr;     // n; the gradient less multipliers times normals
  const long* fixed = nullptr;      // n; nonzero: at an active bound
  long rows = 0;                    // active general constraints
  const double* normals = nullptr;  // rows x n
  // Out.
  double decrease = 0.0;    // of the quadratic model, over the directions that bend up clearly, in
                            // steps of moderate length; and along those that do not bend, one of 1
  double step = 0.0;        // largest element of the step to the minimum of the model; HUGE_VALUE
                            // where it does not bend up clearly in all directions
  bool bends_down = false;  // clearly, along direction, of length 1
  double* direction = nullptr;  // n
};

// Returns 0, or -1 when memory is refused.
int look_at_second_order(SecondOrder* point);

}  // namespace tqnlp
