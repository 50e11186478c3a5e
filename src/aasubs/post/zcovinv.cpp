// zcovinv: COVariance by INVersion, of a matrix that need be neither definite nor regular.
//
// The matrix is scaled from both sides by the roots of its row norms, rounded to powers of two so
// that scaling costs no accuracy, factored with diagonal pivoting (Bunch and Kaufman 1977) with a
// limit for each variable, inverted from the factor, and scaled back. The limits are those of
// covariance estimation: absolute, relative to the variable's own diagonal element, and relative to
// the largest one.
#include "aasubs/post/zcovinv.h"

#include <algorithm>
#include <cmath>

#include "aasubs/record/constants.h"
#include "aasubs/record/missing.h"
#include "aasubs/record/packed.h"
#include "kernels/indefinite.h"
#include "kernels/vector.h"

namespace tqnlp {

// Norms below this are no scale.
static constexpr double LEAST_NORM = 2.2250738585072018e-307;

// A criterion that is missing or negative is not in force.
static double in_force(double criterion) {
  return wzmis(criterion) || !(criterion > 0.0) ? 0.0 : criterion;
}

// A determinant that vanishes has no exponent.
static void settle_determinant(double* det) {
  if (det[0] == 0.0) det[1] = 0.0;
}

// ---- Diagonal -----------------------------------------------------------------------------------

int dodiag(int job, long n, double asin, double msin, double* cov, double* det) {
  if (n < 1) return 0;
  if (!all_finite(n, cov)) return -1;
  double largest = 0.0;
  for (long j = 0; j < n; ++j) largest = std::max(largest, std::fabs(cov[j]));
  const double limit = std::max({in_force(asin), in_force(msin) * largest, TINY});
  std::fill_n(det, 5, 0.0);
  det[0] = 1.0;
  for (long j = 0; j < n; ++j) {
    double& d = cov[j];
    if (!(std::fabs(d) > limit)) {
      if (job != 0) return -1;
      det[4] += 1.0;
      det[0] = d = 0.0;
      continue;
    }
    det[d > 0.0 ? 2 : 3] += 1.0;
    multiply_determinant(det, d);
    d = 1.0 / d;
  }
  settle_determinant(det);
  return 0;
}

// ---- Packed -------------------------------------------------------------------------------------

// A power of two near the root of x, off by less than a factor of two.
static double root_to_power_of_two(double x) { return std::ldexp(1.0, std::ilogb(x) / 2); }

// Scales from the row norms; all are 1 when a row vanishes, since nothing is known of its size.
static void find_scales(long n, const double* cov, double* row, double* cdia) {
  double smallest = HUGE_VALUE;
  for (long j = 0; j < n; ++j) {
    for (long i = 0; i < n; ++i) row[i] = cov[zisub(i, j)];
    const double norm = zvenorm(n, 1, row);
    smallest = std::min(smallest, norm);
    cdia[j] = norm > LEAST_NORM ? root_to_power_of_two(norm) : 1.0;
  }
  if (!(smallest > ROOT_TINY_GUARD)) std::fill_n(cdia, n, 1.0);
}

// cov(i,j) := cov(i,j) / (cdia[i] cdia[j]), one division at a time: the product may overflow.
static void scale_both_sides(long n, const double* cdia, double* cov) {
  for (long i = 0; i < n; ++i) {
    for (long j = 0; j <= i; ++j, ++cov) *cov = *cov / cdia[i] / cdia[j];
  }
}

// Limits of the pivots of the scaled matrix.
static void find_limits(long n, double asin, double msin, double vsin, const double* cov,
                        const double* cdia, double* limits) {
  double largest = 0.0;
  for (long j = 0; j < n; ++j) largest = std::max(largest, std::fabs(cov[zisub(j, j)]));
  const double common = std::max(in_force(asin), in_force(msin) * largest);
  for (long j = 0; j < n; ++j) {
    const double own = in_force(vsin) * std::fabs(cov[zisub(j, j)]);
    limits[j] = std::max(common, own) / cdia[j] / cdia[j];
  }
}

int zcovinv(int job, int cfrm, long n, double asin, double msin, double vsin, double* cov,
            double* det, double* cdia, double* work, long* iwk) {
  if (n < 1) return 0;
  if (cfrm == 2) return dodiag(job, n, asin, msin, cov, det);
  if (!all_finite(packed_size(n), cov)) return -1;
  find_scales(n, cov, work, cdia);
  find_limits(n, asin, msin, vsin, cov, cdia, work);
  scale_both_sides(n, cdia, cov);
  if (zudude2(n, work, det, cov, iwk) != 0 && job != 0) return -1;
  for (long j = 0; j < n; ++j) {
    multiply_determinant(det, cdia[j]);
    multiply_determinant(det, cdia[j]);
  }
  settle_determinant(det);
  zuduinv(n, cov, iwk, work);
  scale_both_sides(n, cdia, cov);
  return 0;
}

}  // namespace tqnlp
