// Covariance of estimates in the null space of the active constraints.
#pragma once

namespace tqnlp {

// What a covariance says of a parameter.
enum CovarianceState : int {
  COVARIANCE_KNOWN = 1,
  COVARIANCE_HELD = 0,             // the active constraints leave it no freedom
  COVARIANCE_NOT_DETERMINED = -1,  // it can be moved without an effect: its variance has no limit
};

// The covariance Z (Z'HZ)^-1 Z', Z a basis of the null space of the normals, of a Hessian H or of
// H = J'J. Parameters are scaled by the diagonal of H, so that units do not count.
struct NullSpaceCovariance {
  // In.
  long n = 0;
  long rows = 0;
  const double* normals = nullptr;   // rows x n; gradients of the active constraints
  const double* hess = nullptr;      // packed H; or null, and
  const double* jacobian = nullptr;  // m x n; J by rows
  long m = 0;
  double noise = 0.0;  // relative error of H or J: what is no larger counts as zero
  // Out.
  double* covariance = nullptr;  // n x n; where not all is determined, by a generalized inverse,
                                 // which is right for the parameters that are
  int* state = nullptr;          // n; CovarianceState
  long dimension = 0;            // of the null space
  long rank = 0;                 // of H there
  long negative = 0;             // eigenvalues of H below zero there; then it is no covariance
};

// Returns 0, or -1 when memory is refused.
int null_space_covariance(NullSpaceCovariance* it);

}  // namespace tqnlp
