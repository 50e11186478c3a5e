// Values of a user's code: the objective of least squares, of a quadratic.
#include "aasubs/setup/evaluations.h"

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba1.h"
#include "kernels/vector.h"

namespace tqnlp {

// ---- Least squares ------------------------------------------------------------------------------

// Euclidean norm of m function values, free of overflow and underflow: scale times the norm of the
// scaled values. Values whose square, relative to the scale, does not change the sum
// are left out, and the two factors of the result are multiplied only if that cannot overflow.
static double norm_of_functions(long m, const double* f) {
  static constexpr double LARGEST = HUGE_VALUE;
  double scale = 0.0;
  for (long i = 0; i < m; ++i) scale = std::max(scale, std::fabs(f[i]));
  if (scale == 0.0) return 0.0;
  const double guard = scale > 1.0 ? std::sqrt(scale) : scale;
  double sum = 0.0;
  for (long i = 0; i < m; ++i) {
    const double size = std::fabs(f[i]);
    const double ratio = size + guard == guard ? 0.0 : f[i] / scale;
    if (ratio + 1.0 != 1.0) sum += ratio * ratio;
  }
  const double root = std::sqrt(sum);
  const double small = std::min(root, scale);
  const double large = std::max(root, scale);
  if (large > ROOT_HUGE && small >= LARGEST / large) return LARGEST;
  return small * large;
}

int half_sum_of_squares(long m, const double* values, double* func, double* crit) {
  if (func != values) std::copy_n(values, m, func);
  for (long i = 0; i < m; ++i) {
    if (std::fabs(func[i]) >= ROOT_HUGE) return RESIDUAL_TOO_LARGE;
  }
  const double norm = m == 1 ? std::fabs(func[0]) : norm_of_functions(m, func);
  if (norm >= ROOT_HUGE) return NORM_TOO_LARGE;
  *crit = norm * 0.5 * norm;
  return 0;
}

// ---- Quadratics ---------------------------------------------------------------------------------

double quadratic_value(MINSTR* str) {
  const long n = str->nvar;
  double* product = str->qvec + n;
  quadratic_product(str, str->x, product);
  const double linear = zvdot11(n, str->qvec, str->x);
  const double square = 0.5 * zvdot11(n, product, str->x);
  return str->qcon + (linear + square);
}

void quadratic_gradient(MINSTR* str) {
  quadratic_product(str, str->x, str->grad);
  zvxay11(str->nvar, str->grad, 1.0, str->qvec);
}

}  // namespace tqnlp
