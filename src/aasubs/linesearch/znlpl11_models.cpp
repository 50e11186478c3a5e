// znlpl11, its models: the parabola through three values, and the quartic that the squared length
// of a residual vector is when the residuals themselves are taken as quadratic in the step.
#include <algorithm>
#include <cmath>
#include <numbers>

#include "aasubs/linesearch/znlpl11.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr double ROOT_EPS = 1.053671212772351e-08;  // root of the rounding unit

// ---- Parabola -----------------------------------------------------------------------------------

void minrn(MINSTR*, double pmax, double alfl, double alfu, double a0, double f0, double a1,
           double f1, double a2, double f2, double* anew, double* panew) {
  *anew = a0;
  *panew = f0;
  const double h1 = a1 - a0;
  const double h2 = a2 - a0;
  const double apart = ROOT_EPS / pmax;
  if (!(std::min({std::fabs(h1), std::fabs(h2), std::fabs(a1 - a2)}) >= apart)) return;
  const double denominator = 2.0 * (h1 * (f2 - f0) - h2 * (f1 - f0));
  const double step = a0 + ((f2 - f0) * h1 * h1 - h2 * h2 * (f1 - f0)) / denominator;
  if (!std::isfinite(step)) return;
  const double x = std::clamp(step, alfl, alfu);
  *anew = x;
  *panew = f0 * (x - a1) * (x - a2) / (h1 * h2) + f1 * (x - a0) * (x - a2) / (h1 * (a1 - a2)) +
           f2 * (x - a0) * (x - a1) / (h2 * (a2 - a1));
}

// ---- Quartic ------------------------------------------------------------------------------------

double pol4(const double* c, double x) {
  return c[0] + x * (c[1] + x * (c[2] + x * (c[3] + x * c[4])));
}

double pol3(const double* c, double x) {
  return c[1] + x * (2.0 * c[2] + x * (3.0 * c[3] + x * 4.0 * c[4]));
}

static double curvature(const double* c, double x) {
  return 2.0 * c[2] + x * (6.0 * c[3] + x * 12.0 * c[4]);
}

static void model_coefficients(long m, const double* v, double* c) {
  const double* v1 = v + m;
  const double* v2 = v1 + m;
  c[0] = 0.5 * zvdot11(m, v, v);
  c[1] = zvdot11(m, v, v1);
  c[2] = 0.5 * zvdot11(m, v1, v1) + zvdot11(m, v, v2);
  c[3] = zvdot11(m, v1, v2);
  c[4] = 0.5 * zvdot11(m, v2, v2);
}

// Closed forms lose digits where roots are far apart in size; a few Newton steps bring them back.
static double polish(const double* c, double x) {
  for (int pass = 0; pass < 4; ++pass) {
    const double next = x - pol3(c, x) / curvature(c, x);
    if (!(std::fabs(pol3(c, next)) < std::fabs(pol3(c, x)))) break;
    x = next;
  }
  return x;
}

// Real stationary points of a quartic in ascending order: one, or three, of which the second is the
// maximum between two minima. Returns their number.
static int stationary_points(const double* c, double* x) {
  // x^3 + b x^2 + d x + e, then y = x + b/3: y^3 + 3 p y + 2 q.
  const double b = 0.75 * c[3] / c[4];
  const double d = 0.5 * c[2] / c[4];
  const double e = 0.25 * c[1] / c[4];
  const double p = (d - b * b / 3.0) / 3.0;
  const double q = (2.0 * b * b * b / 27.0 - b * d / 3.0 + e) / 2.0;
  const double discriminant = q * q + p * p * p;
  const double shift = b / 3.0;
  if (!std::isfinite(discriminant)) return 0;
  if (discriminant < 0.0) {
    const double radius = 2.0 * std::sqrt(-p);
    const double angle = std::acos(std::clamp(-q / std::sqrt(-p * p * p), -1.0, 1.0)) / 3.0;
    constexpr double THIRD_TURN = 2.0 * std::numbers::pi / 3.0;
    x[2] = polish(c, radius * std::cos(angle) - shift);
    x[1] = polish(c, radius * std::cos(angle - THIRD_TURN) - shift);
    x[0] = polish(c, radius * std::cos(angle + THIRD_TURN) - shift);
    std::sort(x, x + 3);
    return 3;
  }
  // The root of the larger magnitude first: the other follows without cancellation.
  const double w = std::fabs(q) + std::sqrt(discriminant);
  const double u = q > 0.0 ? -std::pow(w, 1.0 / 3.0) : std::pow(w, 1.0 / 3.0);
  x[0] = polish(c, (u == 0.0 ? 0.0 : u - p / u) - shift);
  return 1;
}

void minrm(MINSTR* str, double alfl, double alfu, double xmin, double* anew, double* panew,
           double* beta, double* pbeta, const double* v) {
  const long m = str->mequ;
  double c[5];
  model_coefficients(m, v, c);
  double x[3] = {xmin, xmin, xmin};
  // Where the residuals are all but linear the closed forms would divide by next to nothing: the
  // parabola's minimum is polished then.
  const bool linear = std::sqrt(c[4]) * xmin <= ROOT_EPS * zvenorm(m, 1, v + m) && c[2] > 0.0;
  const int count = linear ? 0 : stationary_points(c, x);
  if (linear) x[0] = polish(c, -c[1] / (2.0 * c[2]));
  double near = x[0];
  double other = x[0];
  if (count == 3) {
    const bool first = std::fabs(x[0] - xmin) <= std::fabs(x[2] - xmin);
    near = first ? x[0] : x[2];
    other = first ? x[2] : x[0];
  }
  *anew = std::clamp(near, alfl, alfu);
  *beta = std::clamp(other, alfl, alfu);
  *panew = pol4(c, *anew);
  *pbeta = pol4(c, *beta);
  if (*pbeta < *panew && *beta <= xmin) {
    std::swap(*anew, *beta);
    std::swap(*panew, *pbeta);
  }
}

}  // namespace tqnlp
