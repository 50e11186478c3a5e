// chmod: the modified CHolesky factorization. Contract in chmod.h.
//
// Reference  Gill and Murray (1974), Mathematical Programming 7; Gill, Murray and Wright (1981),
//            section 4.4.2.2, without the symmetric interchanges
#include "kernels/chmod.h"

#include <algorithm>
#include <cmath>

#include "aasubs/record/constants.h"
#include "aasubs/record/packed.h"
#include "kernels/vector.h"

namespace tqnlp {

// The bound beta^2 of Gill and Murray on the squares of the factor's elements: with it the matrix
// stays as it is when it is safely positive definite. Largest diagonal and off-diagonal elements
// decide how large an element of the factor may become.
static double factor_bound(long n, const double* a) {
  double diagonal = 0.0;
  double beside = 0.0;
  for (long i = 0; i < n; ++i) {
    const double* row = a + packed_size(i);
    diagonal = std::max(diagonal, std::fabs(row[i]));
    for (long j = 0; j < i; ++j) beside = std::max(beside, std::fabs(row[j]));
  }
  const double order = static_cast<double>(n);
  const double share = n > 1 ? beside / std::sqrt(order * order - 1.0) : 0.0;
  return std::max({diagonal, share, EPS});
}

double chmod(long n, double delt, double* a) {
  if (n < 1) return 0.0;
  const double beta2 = factor_bound(n, a);
  double largest = 0.0;
  for (long j = 0; j < n; ++j) {
    double* row = a + packed_size(j);
    const double pivot = row[j] - zvdot11(j, row, row);
    double theta = 0.0;
    for (long i = j + 1; i < n; ++i) {
      double* below = a + packed_size(i);
      below[j] -= zvdot11(j, below, row);
      theta = std::max(theta, std::fabs(below[j]));
    }
    double lifted = std::fabs(pivot);
    if (!(lifted > delt)) lifted = delt;
    lifted = std::max(lifted, theta * theta / beta2);
    largest = std::max(largest, lifted - pivot);
    row[j] = std::sqrt(lifted);
    for (long i = j + 1; i < n; ++i) a[packed_size(i) + j] /= row[j];
  }
  return largest;
}

}  // namespace tqnlp
