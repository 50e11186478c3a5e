// znlpqun: QUasi-Newton (QUANEW) on the inverse, technique 10: hess holds the approximation of the
// inverse Hessian in the reduced space, packed symmetric, so that a direction costs a product.
//
// The loop of the technique, its method and references stand in quanew_loop. What is this form's
// own: a change of the working set with linear constraints turns the basis, in which an inverse
// cannot be cut down or extended; it is then started afresh. With bounds alone a row and column
// come or go. Updates: BFGS or DFP of the inverse (job 1 of updat).
#include "aasubs/quasinewton/znlpqun.h"

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/loop/loads.h"
#include "aasubs/loop/secant_load.h"
#include "aasubs/quasinewton/quanew_loop.h"

namespace tqnlp {

static constexpr int UPDATE_INVERSE = 1;
static constexpr int REVISE_SYMMETRIC = 0;
static constexpr int NO_SCALE = 0;

static int actcon(MINSTR* str, int job, int* load) {
  if (job == 1) {
    if (const int code = secant_load(str, *load); code != 0) return code;
    if (!secant_start_matrix(str, quanew_factor(str), NO_SCALE, load)) return -1;
    secant_measure(str);
    return 0;
  }
  revise_working_set(str, REVISE_SYMMETRIC, false, str->hess);
  if (str->nabc != str->nvar && str->lincon != 0 && str->chac != 0) {
    *load = 0;
    if (!secant_start_matrix(str, quanew_factor(str), NO_SCALE, load)) return -2;
  }
  secant_measure(str);
  return 0;
}

static int update_job(const MINSTR*) { return UPDATE_INVERSE; }

static int direction(MINSTR* str) {
  static constexpr int MULTIPLY = -1;
  return znlpsd2(str, MULTIPLY, 0, 0, reduced_dimension(str), str->spro, str->sdir, str->hess);
}

static bool still_descends(const MINSTR* str, double tol, double) {
  return tol * str->gmax * str->gmax < str->pred;
}

int znlpqun(MINSTR* str) {
  return quanew_loop(str, {update_job, actcon, direction, still_descends, false});
}

}  // namespace tqnlp
