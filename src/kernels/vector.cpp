// Vector kernels: norms, dot products and sums of vectors.
//
// The contiguous forms run in the build variants of variants.h with the lanes of lanes.h. Short
// vectors are the most frequent ones: they take a scalar path without a dispatch. The strided forms
// keep four partial sums; they are bound by memory, not by arithmetic.
#include "kernels/vector.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>

#include "aasubs/record/constants.h"
#include "kernels/lanes.h"

namespace tqnlp {

// Sums of squares in this range are exact to rounding: no square that matters left the range of
// doubles.
static constexpr double SAFE_SQUARES_LOW = 1e-280;
static constexpr double SAFE_SQUARES_HIGH = 1e280;

template <int W>
TQNLP_BODY double dot_body(long n, const double* x, const double* y) {
  return dot_lanes<W>(n, x, y);
}
TQNLP_DISPATCH(double, dot, (long n, const double* x, const double* y), (n, x, y))

template <int W>
TQNLP_BODY void axpy_body(long n, double* z, const double* y, double alpha, const double* x) {
  axpy_lanes<W>(n, z, y, alpha, x);
}
TQNLP_DISPATCH(void, axpy, (long n, double* z, const double* y, double alpha, const double* x),
               (n, z, y, alpha, x))

// ---- Norms -------------------------------------------------------------------------------------

// The scaled norm with largest absolute value m: elements are divided by m, and an element that the
// rounding of a sum with the largest would swallow is left out before it is squared.
static double scaled_norm(long n, long incx, const double* x, double m) {
  const double h = m > 1.0 ? std::sqrt(m) : m;
  double total = 0.0;
  for (long i = 0; i < n; ++i) {
    const double element = x[i * incx];
    if (std::fabs(element) + h == h) continue;
    const double y = element / m;
    if (y + 1.0 != 1.0) total += y * y;
  }
  return m * std::sqrt(total);
}

double zvenorm(long n, long incx, const double* x) {
  if (n < 1) return 0.0;
  const double squares = incx == 1 ? zvdot11(n, x, x) : zvdotjj(n, incx, x, incx, x);
  if (squares > SAFE_SQUARES_LOW && squares < SAFE_SQUARES_HIGH) return std::sqrt(squares);
  const double m = zvamxj(n, incx, x);
  return m == 0.0 ? std::sqrt(squares) : scaled_norm(n, incx, x, m);
}

double zvamx(long n, const double* x) {
  if (n < 2 * LANES) return zvamxj(n, 1, x);
  // Eight candidates side by side; a maximum does not depend on the order.
  double largest[LANES] = {};
  long i = 0;
  for (; i + LANES <= n; i += LANES) {
    for (long k = 0; k < LANES; ++k) {
      const double value = std::fabs(x[i + k]);
      largest[k] = value > largest[k] ? value : largest[k];
    }
  }
  return std::max(zvamxj(LANES, 1, largest), zvamxj(n - i, 1, x + i));
}

double zvamxj(long n, long incx, const double* x) {
  double largest = 0.0;
  for (long i = 0; i < n; ++i) {
    const double value = std::fabs(x[i * incx]);
    largest = value > largest ? value : largest;
  }
  return largest;
}

// ---- Dot products ------------------------------------------------------------------------------

double zvdot11(long n, const double* x, const double* y) {
  if (n < LANES) return n > 0 ? dot_tail(n, x, y) : 0.0;
  return dot(n, x, y);
}

double zinner(long n, const double* x, const double* y) { return zvdot11(n, x, y); }

double zvdotj1(long n, long incx, const double* x, const double* y) {
  return zvdotjj(n, incx, x, 1, y);
}

double zvdotjj(long n, long incx, const double* x, long incy, const double* y) {
  if (incx == 1 && incy == 1) return zvdot11(n, x, y);
  double sum0 = 0.0, sum1 = 0.0, sum2 = 0.0, sum3 = 0.0;
  long i = 0;
  for (; i + 4 <= n; i += 4) {
    sum0 += x[0] * y[0];
    sum1 += x[incx] * y[incy];
    sum2 += x[2 * incx] * y[2 * incy];
    sum3 += x[3 * incx] * y[3 * incy];
    x += 4 * incx;
    y += 4 * incy;
  }
  for (; i < n; ++i, x += incx, y += incy) sum0 += x[0] * y[0];
  return (sum0 + sum2) + (sum1 + sum3);
}

double zvdots1(long n, const long* ind, const double* x, const double* y) {
  double sum0 = 0.0, sum1 = 0.0;
  long k = 0;
  for (; k + 2 <= n; k += 2) {
    sum0 += x[ind[k]] * y[k];
    sum1 += x[ind[k + 1]] * y[k + 1];
  }
  if (k < n) sum0 += x[ind[k]] * y[k];
  return sum0 + sum1;
}

// ---- Sums of vectors ---------------------------------------------------------------------------

void zvaxpy(double* z, const double* x, const double* y, long n, double alpha) {
  if (n < LANES) {
    for (long i = 0; i < n; ++i) z[i] = y[i] + alpha * x[i];
  } else {
    axpy(n, z, y, alpha, x);
  }
}

void zvxay11(long n, double* a, double alpha, const double* b) { zvaxpy(a, b, a, n, alpha); }

void zvxay1j(long n, double* a, double alpha, long incb, const double* b) {
  for (long i = 0; i < n; ++i) a[i] += alpha * b[i * incb];
}

void zvxayj1(long n, long inca, double* a, double alpha, const double* b) {
  for (long i = 0; i < n; ++i) a[i * inca] += alpha * b[i];
}

void zvz111(long n, double* z, double alpha, const double* x) {
  for (long i = 0; i < n; ++i) z[i] = alpha * x[i];
}

void zvscl11(long n, double* x, double alpha) { zvz111(n, x, alpha, x); }

// ---- Changes -----------------------------------------------------------------------------------

// Largest relative change in each of eight lanes. odd counts what has to be looked at one by one: a
// quotient that could overflow, a size next to nothing, a NaN. Nothing relative to nothing is a NaN
// here, which no comparison takes.
template <int W>
TQNLP_BODY void relative_body(long n, double xsiz, const double* x, const double* y,
                              double* largest, double* odd) {
  static constexpr double LARGE = 1e150, SMALL = 1e-150;
  for (long i = 0; i < n; i += LANES) {
    for (long k = 0; k < LANES; ++k) {
      const double a = std::fabs(x[i + k]), b = std::fabs(y[i + k]);
      const double change = std::fabs(x[i + k] - y[i + k]);
      double size = a > b ? a : b;
      size = size > xsiz ? size : xsiz;
      const double part = change / size;
      odd[k] += (change < LARGE) & ((size > SMALL) | (size == 0.0)) ? 0.0 : 1.0;
      largest[k] = part > largest[k] ? part : largest[k];
    }
  }
}
TQNLP_DISPATCH(void, relative,
               (long n, double xsiz, const double* x, const double* y, double* largest,
                double* odd),
               (n, xsiz, x, y, largest, odd))

static double guarded_reldx(long n, double xsiz, const double* x, const double* y) {
  static constexpr double OVERFLOW_GUARD = 0.0001 * HUGE_VALUE;
  double largest = 0.0;
  for (long i = 0; i < n; ++i) {
    const double change = std::fabs(x[i] - y[i]);
    const double size = std::max({std::fabs(x[i]), std::fabs(y[i]), xsiz});
    double part = 0.0;
    if (size > SMALLEST_TOLERANCE) {
      const bool safe = size >= 1.0 || change <= 1.0 || change <= size * OVERFLOW_GUARD;
      part = safe ? change / size : HUGE_VALUE;
    } else if (change > SMALLEST_TOLERANCE) {
      part = HUGE_VALUE;
    }
    if (std::isnan(change + part)) return change + part;
    largest = std::max(largest, part);
  }
  return largest;
}

double reldx(long n, double xsiz, const double* x, const double* y) {
  if (n < LANES) return guarded_reldx(n, xsiz, x, y);
  double largest[LANES] = {}, odd[LANES] = {};
  const long whole = n - n % LANES;
  relative(whole, xsiz, x, y, largest, odd);
  if (zvamx(LANES, odd) > 0.0) return guarded_reldx(n, xsiz, x, y);
  const double rest = guarded_reldx(n - whole, xsiz, x + whole, y + whole);
  return std::isnan(rest) ? rest : std::max(rest, zvamx(LANES, largest));
}

template <int W>
TQNLP_BODY double squared_distance_body(long n, const double* x, const double* y) {
  Lanes<W> sum, a, b;
  sum.clear();
  long i = 0;
  for (; i + LANES <= n; i += LANES) {
    a.load(x + i);
    b.load(y + i);
#pragma GCC unroll 4
    for (int k = 0; k < Lanes<W>::PARTS; ++k) a.part[k] -= b.part[k];
    sum.add_product(a, a);
  }
  double total;
  sum.sum(total);
  for (; i < n; ++i) total += (x[i] - y[i]) * (x[i] - y[i]);
  return total;
}
TQNLP_DISPATCH(double, squared_distance, (long n, const double* x, const double* y), (n, x, y))

double xdif(long n, const double* x, const double* y) {
  static constexpr long LONG_VECTOR = 256;  // bound by memory: one walk instead of two
  const double squares = n < LONG_VECTOR ? 0.0 : squared_distance(n, x, y);
  if (squares > SAFE_SQUARES_LOW && squares < SAFE_SQUARES_HIGH) return std::sqrt(squares);
  // Scaled by the largest change, so that no square overflows or underflows.
  double largest = 0.0;
  for (long i = 0; i < n; ++i) {
    const double change = std::fabs(x[i] - y[i]);
    if (std::isnan(change)) return change;
    largest = std::max(largest, change);
  }
  if (largest == 0.0 || std::isinf(largest)) return largest;
  double sum = 0.0;
  for (long i = 0; i < n; ++i) {
    const double part = (x[i] - y[i]) / largest;
    sum += part * part;
  }
  return largest * std::sqrt(sum);
}

// ---- Ranges ------------------------------------------------------------------------------------

// Elements that are as wanted are counted, without a branch for each. Groups of eight are walked,
// and then the last eight, partly once more: n is 8 at least.
TQNLP_BODY long count_finite(long n, const double* x) {
  long count = 0;
  for (long i = 0; i < n; ++i) count += std::fabs(x[i]) <= std::numeric_limits<double>::max();
  return count;
}

template <int W>
TQNLP_BODY bool finite_body(long n, const double* x) {
  const long whole = n & -LANES;
  return count_finite(whole, x) + count_finite(LANES, x + n - LANES) == whole + LANES;
}
TQNLP_DISPATCH(bool, finite, (long n, const double* x), (n, x))

TQNLP_BODY long count_between(long n, const double* x, const double* lower, const double* upper) {
  long count = 0;
  for (long i = 0; i < n; ++i) count += (x[i] >= lower[i]) & (x[i] <= upper[i]);
  return count;
}

template <int W>
TQNLP_BODY bool between_body(long n, const double* x, const double* lower, const double* upper) {
  const long whole = n & -LANES, last = n - LANES;
  return count_between(whole, x, lower, upper) +
             count_between(LANES, x + last, lower + last, upper + last) ==
         whole + LANES;
}
TQNLP_DISPATCH(bool, between, (long n, const double* x, const double* lower, const double* upper),
               (n, x, lower, upper))

bool all_finite(long n, const double* x) {
  if (n >= LANES) return finite(n, x);
  for (long i = 0; i < n; ++i)
    if (!std::isfinite(x[i])) return false;
  return true;
}

bool all_between(long n, const double* x, const double* lower, const double* upper) {
  if (n >= LANES) return between(n, x, lower, upper);
  for (long i = 0; i < n; ++i)
    if (!(x[i] >= lower[i] && x[i] <= upper[i])) return false;
  return true;
}

}  // namespace tqnlp
