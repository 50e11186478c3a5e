// Load of the Newton techniques. Contracts in newton_load.h.
#include "aasubs/loop/newton_load.h"

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpbas.h"
#include "aasubs/loop/loads.h"

namespace tqnlp {

static void set_identity_hessian(MINSTR* str) {
  if (str->hfrm != 0) {  // the diagonal, or a sparse matrix, whose diagonal stands first
    if (str->hfrm == 1) vzfdl(0.0, str->hess, str->shes.mxja);
    vzfdl(1.0, str->hess, str->nvar);
    return;
  }
  vzfdl(0.0, str->hess, str->nnva);
  for (long i = 0; i < str->nvar; ++i) str->hess[zisub(i, i)] = 1.0;
}

int newton_derivatives(MINSTR* str, int user_hessian) {
  if (!refresh_saved_results(str)) return -1;
  if (user_hessian != 0) return evaluate(str, ORDER_HESSIAN, str->ushes) ? 0 : -2;
  set_identity_hessian(str);
  return evaluate_gradient(str) ? 0 : -2;
}

static constexpr int REVISE_NOTHING = 1;

int newton_load(MINSTR* str, int job, bool user_hessian) {
  static constexpr int REPAIR = 0;
  str->chac = 0;
  if (job == 1) return load_feasible_point(str, REPAIR, newton_derivatives, user_hessian ? 1 : 0);
  const int code = newton_derivatives(str, user_hessian ? 1 : 0);
  if (code != 0) return code;
  revise_working_set(str, REVISE_NOTHING, str->ulm2 != 0, nullptr);
  return 0;
}

bool newton_readmit(MINSTR* str) {
  if (str->chac >= 0 || str->itre == 0) return false;
  return_to_xold(str);
  znlpact(str, REVISE_NOTHING, 0, nullptr, nullptr, nullptr);
  // More than the one that left: a degenerate point, where the choice among them is not this one's.
  if (str->chac == 1 && reduced_dimension(str) > 0) return true;
  if (str->chac != 0) {
    znlpdac(str, REVISE_NOTHING, str->ulm2 != 0 ? 1 : 0, nullptr, nullptr, nullptr);
  }
  return false;
}

// ---- Noise of differences -----------------------------------------------------------------------

// Size of the noise: the rounding of the objective over the square of the difference step.
static double difference_noise(const MINSTR* str) {
  static constexpr double MARGIN = 100.0;
  const double step = str->fdig > 0.0 ? std::cbrt(std::pow(10.0, -str->fdig)) : std::cbrt(EPS);
  return MARGIN * (std::max(1.0, std::fabs(str->crit)) / step) * (EPS / step);
}

// Returns whether a curvature was lost.
static bool clean_difference_hessian(MINSTR* str) {
  static constexpr int FROM_VALUES = 1000;  // thousands digit of fidi: 1, 2 from function values,
  static constexpr int FROM_GRADIENTS_CENTRAL = 4000;  // 3, 4 from gradients
  static constexpr double LARGEST_REST = 1e-6;
  if (str->hesc == 0 || str->fidi < FROM_VALUES || str->fidi > FROM_GRADIENTS_CENTRAL) return false;
  const double noise = difference_noise(str);
  bool lost = false;
  const auto clean = [&](long k, bool diagonal) {
    if (!(std::fabs(str->hess[k]) < noise)) return;
    str->hess[k] = diagonal ? std::min(noise, LARGEST_REST) : 0.0;
    lost |= diagonal;
  };
  const long n = str->nvar;
  if (str->hfrm == 0) {
    for (long i = 0, k = 0; i < n; ++i) {
      for (long j = 0; j <= i; ++j, ++k) clean(k, i == j);
    }
    return lost;
  }
  for (long i = 0; i < n; ++i) clean(i, true);
  for (long k = n + 1; str->hfrm == 1 && k < str->shes.mxja; ++k) clean(k, false);
  return lost;
}

// ---- Projection ---------------------------------------------------------------------------------

// Updates dsca from a matrix of the given order; null, the count of the last reduction, forces the
// scale to 1 while the matrix is not positive definite. At a start or restart point nothing has
// been reduced yet, and the diagonal is counted instead: the root of a curvature of zero would make
// a scale of 1e-8, in which no ridge and no radius is of use.
static void update_scale(MINSTR* str, Scale scale, int form, long order, double* matrix) {
  if (scale == Scale::kept || str->hesc == 0) return;
  const long counted = str->null;
  if (scale == Scale::renewed && str->itre == 0) {
    str->null = 0;
    for (long i = 0; i < order; ++i) str->null += matrix[form != 0 ? i : zisub(i, i)] <= EPS;
  }
  znlphsc(str, form, order, matrix);
  str->null = counted;
}

long newton_project(MINSTR* str, int form, Scale scale, double* norm) {
  const bool linear = str->lincon != 0;
  double* matrix = linear ? str->hpro : str->hess;
  const long order = reduced_dimension(str);
  *norm = 0.0;

  if (!linear) update_scale(str, scale, form, str->nvar, str->hess);
  if (str->nabc == str->nvar) {
    str->gmax = str->gcri = 0.0;
    return 0;
  }
  znlphgp(str, 1, form, linear ? str->gpro : str->gold, str->hess, matrix);
  if (order == 0) return 0;
  if (linear) update_scale(str, scale, 0, order, matrix);
  *norm = znlphs2(str, linear ? 0 : form, str->gold);
  return order;
}

long newton_project_clean(MINSTR* str, int form, bool user_hessian, bool rescale, double* norm) {
  if (user_hessian && clean_difference_hessian(str) && rescale) {
    vzfdl(1.0, str->dsca, str->nvar);
    rescale = false;
  }
  return newton_project(str, form, rescale ? Scale::renewed : Scale::kept, norm);
}

}  // namespace tqnlp
