// Which derivatives of a run come from the user and which from differences: the digits of fidi, and
// the difference service behind each digit.
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Digits of fidi.
inline constexpr int DIGIT_GRADIENT = 0;
inline constexpr int DIGIT_JACOBIAN = 1;
inline constexpr int DIGIT_CROSSPRODUCT = 2;
inline constexpr int DIGIT_HESSIAN = 3;
inline constexpr int DIGIT_CONSTRAINT_JACOBIAN = 4;

// What the caller supplies.
struct Supplied {
  bool gradient = false;  // or the Jacobian of least squares
  bool hessian = false;
  bool constraints = false;
  bool constraint_jacobian = false;
};

// fidi of a run; choice 0: forward differences, otherwise central ones.
//   first order    gradient and constraint Jacobian; a Hessian when the run starts from one (load)
//   second order   without a gradient both derivatives come from function values, with one the
//                  Hessian comes from gradients
//   least squares  one digit for all three: gradient, Jacobian and crossproduct come from one
//                  evaluation
int first_order_digits(const Supplied& supplied, int choice, bool load);
int second_order_digits(const Supplied& supplied, int choice);
int least_squares_digits(const Supplied& supplied, int choice);

// The service that a digit of fidi selects. For the Hessian, whether gradients are supplied decides
// between the forms.
Callback difference_service(int fidi, int digit, bool gradient_supplied);

}  // namespace tqnlp
