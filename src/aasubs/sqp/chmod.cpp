// chmod: the modified CHolesky factorization. Contract in chmod.h.
//
// Reference  Gill and Murray (1974), Mathematical Programming 7; Gill, Murray and Wright (1981),
//            section 4.4.2.2, without the symmetric interchanges
#include "aasubs/sqp/chmod.h"

#include <algorithm>
#include <cmath>

#include "aasubs/record/constants.h"
#include "aasubs/record/packed.h"

namespace tqnlp {

// Largest square that an element of the factor may have.
static double beta_squared(long n, const double* a) {
  double gamma = EPS;
  double ksi = 0.0;
  for (long i = 0; i < n; ++i) {
    const double* row = a + packed_size(i);
    gamma = std::max(gamma, std::fabs(row[i]));
    for (long j = 0; j < i; ++j) ksi = std::max(ksi, std::fabs(row[j]));
  }
  const double order = static_cast<double>(n);
  if (n > 1) ksi /= std::sqrt(order * order - 1.0);
  return std::max(gamma, ksi);
}

double chmod(long n, double delt, double* a) {
  if (n < 1) return 0.0;
  const double beta2 = beta_squared(n, a);
  double emax = 0.0;
  // Column j holds c_ij = l_ij d_j while it is made, l_ij sqrt(d_j) once it is done.
  for (long j = 0; j < n; ++j) {
    double* pivot_row = a + packed_size(j);
    double theta = 0.0;
    for (long i = j; i < n; ++i) {
      double* row = a + packed_size(i);
      for (long k = 0; k < j; ++k) row[j] -= row[k] * pivot_row[k];
      if (i > j) theta = std::max(theta, std::fabs(row[j]));
    }
    const double ajj = pivot_row[j];
    const double d = std::max({std::fabs(ajj), delt, theta * theta / beta2});
    emax = std::max(emax, d - ajj);
    pivot_row[j] = std::sqrt(d);
    for (long i = j + 1; i < n; ++i) a[packed_size(i) + j] /= pivot_row[j];
  }
  return emax;
}

}  // namespace tqnlp
