// The one place where differences are chosen, and their services named.
#include "aasubs/setup/derivative_choice.h"

#include "aasubs/derivatives/znlpfid.h"

namespace tqnlp {

// Place values of the digits of fidi.
static constexpr int GRADIENT = 1;
static constexpr int LEAST_SQUARES = 111;
static constexpr int HESSIAN = 1000;
static constexpr int CONSTRAINT_JACOBIAN = 10000;
static constexpr int FROM_GRADIENTS = 2;  // on top of the digit of a Hessian from function values

// Digit of a derivative: 0 supplied, 1 or 2 forward or central differences.
static int difference_digit(bool supplied, int choice) {
  if (supplied) return 0;
  return choice == 0 ? 1 : 2;
}

int first_order_digits(const Supplied& supplied, int choice, bool load) {
  int fidi = GRADIENT * difference_digit(supplied.gradient, choice);
  if (supplied.constraints) {
    fidi += CONSTRAINT_JACOBIAN * difference_digit(supplied.constraint_jacobian, choice);
  }
  if (load && !supplied.hessian) {
    const int from = supplied.gradient ? FROM_GRADIENTS : 0;
    fidi += HESSIAN * (difference_digit(false, choice) + from);
  }
  return fidi;
}

int second_order_digits(const Supplied& supplied, int choice) {
  const int digit = difference_digit(false, choice);
  if (supplied.gradient) return supplied.hessian ? 0 : HESSIAN * (digit + FROM_GRADIENTS);
  return supplied.hessian ? digit : HESSIAN * digit + digit;
}

int least_squares_digits(const Supplied& supplied, int choice) {
  return LEAST_SQUARES * difference_digit(supplied.gradient, choice);
}

// ---- Services -----------------------------------------------------------------------------------

// Forward, central.
static constexpr Callback GRADIENTS[] = {znlpfig, znlpfg2};
static constexpr Callback JACOBIANS[] = {znlpfij, znlpfj2};
static constexpr Callback CROSSPRODUCTS[] = {znlpfic, znlpfc2};
static constexpr Callback CONSTRAINT_JACOBIANS[] = {znlpfcj, znlpfcc};
// Forward and central from functions, then from gradients.
static constexpr Callback HESSIANS[] = {znlpfih, znlpfh2, znlpfh3, znlpfh4};

Callback difference_service(int fidi, int digit, bool gradient_supplied) {
  const int value = fidi_digit(fidi, digit);
  const int central = value == 1 ? 0 : 1;  // any other value means central differences
  switch (digit) {
    case DIGIT_GRADIENT:
      return GRADIENTS[central];
    case DIGIT_JACOBIAN:
      return JACOBIANS[central];
    case DIGIT_CROSSPRODUCT:
      return CROSSPRODUCTS[central];
    case DIGIT_HESSIAN:
      return gradient_supplied ? HESSIANS[value == 3 ? 2 : 3] : HESSIANS[central];
    default:
      return CONSTRAINT_JACOBIANS[central];
  }
}

}  // namespace tqnlp
