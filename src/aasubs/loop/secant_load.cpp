// Load of the techniques on a quasi-Newton matrix. Contracts in secant_load.h.
#include "aasubs/loop/secant_load.h"

#include <algorithm>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/loop/loads.h"
#include "kernels/vector.h"

namespace tqnlp {

// Shift of a start matrix.
static constexpr double FIRST_SHIFT = 0.0001;
static constexpr double RAISE_SHIFT = 4.0;
static constexpr double SHIFT_LIMIT = 1073741824.0;

static int derivatives(MINSTR* str, int load) {
  if (load > 0) return evaluate(str, ORDER_HESSIAN, str->ushes) ? 0 : -2;
  return evaluate_gradient(str) ? 0 : -2;
}

int secant_load(MINSTR* str, int load) {
  static constexpr int MERE_REPAIR = -1;
  return load_feasible_point(str, MERE_REPAIR, derivatives, load);
}

bool secant_raise_shift(MINSTR* str) {
  str->ridg = str->ridg == 0.0 ? FIRST_SHIFT : RAISE_SHIFT * str->ridg;
  return str->ridg < SHIFT_LIMIT;
}

// A Hessian that was given as its diagonal, in packed form.
static void spread_diagonal(MINSTR* str) {
  const long n = str->nvar;
  std::copy_n(str->hess, n, str->work);
  vzfdl(0.0, str->hess, packed_size(n));
  for (long i = 0; i < n; ++i) str->hess[zisub(i, i)] = str->work[i];
}

bool secant_start_matrix(MINSTR* str, int factor, int hesc, int* load) {
  if (*load > 0 && str->hfrm == 2) spread_diagonal(str);
  for (;;) {
    znlphin(str, 1, *load, hesc, factor, str->hess);
    if (znlphin(str, 2, *load, hesc, factor, str->hess) == 0) return true;
    *load = 0;  // the user's Hessian is used up
    if (!secant_raise_shift(str)) return false;
  }
}

void secant_measure(MINSTR* str) {
  if (str->nabc == str->nvar) {
    str->gmax = 0.0;
  } else {
    znlpgmx(str, 0, nullptr);
  }
}

void secant_differences(MINSTR* str) {
  const long n = str->nvar;
  if (!has_constraints(str)) {
    zvaxpy(str->xold, str->xold, str->x, n, -1.0);
    zvaxpy(str->gold, str->gold, str->grad, n, -1.0);
    return;
  }
  zvaxpy(str->work, str->xold, str->x, n, -1.0);
  znlpvre(str, str->work, str->xold);
  zvaxpy(str->work, str->gold, str->grad, n, -1.0);
  znlpvre(str, str->work, str->gold);
}

int secant_load_final(MINSTR* str) {
  if (!evaluate_gradient(str)) return -2;
  secant_measure(str);
  return 0;
}

void secant_settle_restarts(MINSTR* str) {
  if (!(str->salf > 0.0 && str->salf <= 1.0)) str->salf = 1.0;
  if (!(str->nres > 0.0)) str->nres = NEVER;
}

}  // namespace tqnlp
