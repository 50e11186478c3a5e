// znlpgan, derivatives by differences of the residuals: the Jacobian where the record has no other
// source of it, and the second-order part of the Hessian.
#include <algorithm>
#include <cmath>

#include "aasubs/derivatives/differences.h"
#include "aasubs/leastsquares/znlpgan.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr double ROOT_EPS = 1.053671212772351e-08;    // root of the rounding unit
static constexpr double FOURTH_ROOT_EPS = 1.0264848818e-04;  // its fourth root
static constexpr int MOST_HALVINGS = 10;

int jacdif(MINSTR* str, double* jac) {
  const double indf = str->indf;
  const double crit = str->crit;
  str->indf = GRADIENT_STEP;
  ++str->nhes;
  double* base = str->fold + str->mequ;  // the place of J sdir, which is made for a search only
  std::copy_n(str->func, str->mequ, base);
  int code = 0;
  vzfdl(0.0, jac, str->mequ * str->nvar);
  for (long j = 0; j < str->nvar && code == 0; ++j) {
    // A fixed variable has no step, and its column is never asked for.
    if (str->bounds != 0 && str->iabc[j] == 2) continue;
    const double xj = str->x[j];
    double h = one_sided_step(str, j, std::max(std::fabs(xj), 1.0) * ROOT_EPS);
    bool good = false;
    for (int count = 0; count < MOST_HALVINGS && !good; ++count, h *= good ? 1.0 : 0.5) {
      perturb(str, j, xj + h);
      good = call_function(str) && str->tbig == 0.0;
    }
    const double step = str->x[j] - xj;
    for (long i = 0; i < str->mequ && good; ++i) {
      jac[i * str->nvar + j] = (str->func[i] - base[i]) / step;
    }
    str->x[j] = xj;
    if (!good || step == 0.0) code = -1;
  }
  std::copy_n(base, str->mequ, str->func);
  str->tbig = 0.0;
  str->crit = crit;
  str->indf = indf;
  return code;
}

namespace {

// The second-order part as the Hessian of the scalar phi(x) = fcur'F(x).
struct ScalarDifferences {
  const double* weights;
  double base;    // phi at the base point
  double* steps;  // n; step of each variable
  double* sums;   // n; phi(+) + phi(-)
};

}  // namespace

static bool scalar_value(MINSTR* str, const ScalarDifferences& d, double* phi) {
  const bool good = call_function(str) && str->tbig == 0.0;
  *phi = good ? zvdot11(str->mequ, d.weights, str->func) : 0.0;
  return good && std::isfinite(*phi);
}

// Both sides of variable j, with a step that is halved until they can be evaluated.
static bool difference_variable(MINSTR* str, ScalarDifferences& d, long j) {
  const double xj = str->x[j];
  double h =
      step_inside(str, j, step_made(xj, (std::fabs(xj) + 1.0) * FOURTH_ROOT_EPS), Side::central);
  bool good = false;
  for (int count = 0; count < MOST_HALVINGS && !good; ++count) {
    double plus = 0.0;
    double minus = 0.0;
    perturb(str, j, xj + h);
    good = scalar_value(str, d, &plus);
    perturb(str, j, xj - h);
    good = good && scalar_value(str, d, &minus);
    d.steps[j] = h;
    d.sums[j] = plus + minus;
    h *= 0.5;
  }
  str->x[j] = xj;
  str->hess[zisub(j, j)] = (d.sums[j] - 2.0 * d.base) / (d.steps[j] * d.steps[j]);
  return good;
}

// The mixed derivative from the two points in which both steps have one sign.
static bool difference_pair(MINSTR* str, const ScalarDifferences& d, long j, long k) {
  const double xj = str->x[j];
  const double xk = str->x[k];
  double values[2] = {0.0, 0.0};
  bool good = true;
  for (int side = 0; side < 2 && good; ++side) {
    const double sign = side == 0 ? 1.0 : -1.0;
    perturb(str, j, xj + sign * d.steps[j]);
    perturb(str, k, xk + sign * d.steps[k]);
    good = scalar_value(str, d, &values[side]);
  }
  str->x[j] = xj;
  str->x[k] = xk;
  const double sum = values[0] + values[1] - d.sums[j] - d.sums[k] + 2.0 * d.base;
  str->hess[zisub(j, k)] = sum / (2.0 * d.steps[j] * d.steps[k]);
  return good;
}

int hesse(MINSTR* str, const double* fcur) {
  const long n = str->nvar;
  const double indf = str->indf;
  const double crit = str->crit;
  str->indf = HESSIAN_STEP_FROM_FUNCTION;
  ++str->nhes;
  vzfdl(0.0, str->hess, str->nnva);
  ScalarDifferences d{fcur, zvdot11(str->mequ, fcur, fcur), str->wrk2, str->wrk2 + n};
  const int moved = movx(str, 1, 0, Side::central, FOURTH_ROOT_EPS);
  bool good = moved >= 0;
  if (moved > 0) d.base = zvdot11(str->mequ, fcur, str->func);
  for (long j = 0; j < n && good; ++j) {
    if (is_free(str, j)) good = difference_variable(str, d, j);
  }
  for (long j = 0; j < n && good; ++j) {
    for (long k = 0; k < j && good && is_free(str, j); ++k) {
      if (is_free(str, k)) good = difference_pair(str, d, j, k);
    }
  }
  if (moved != 0) std::copy_n(str->work, n, str->x);
  str->crit = crit;
  str->indf = indf;
  return good ? 0 : -1;
}

}  // namespace tqnlp
