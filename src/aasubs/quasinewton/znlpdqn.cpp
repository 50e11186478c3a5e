// znlpdqn: Dual Quasi-Newton (QUANEW) on the factor, technique 11: hess holds a factor of the
// approximation of the Hessian in the reduced space, so that a direction costs two triangular
// solves and the approximation stays positive definite whatever rounding does.
//
// The loop of the technique, its method and references stand in quanew_loop. What is this form's
// own: with neither bounds nor linear constraints the factor is LDL' (job 2 of updat); otherwise it
// is R'R, held as packed L = R' (job 3), which is revised by rotations with every change of the
// working set.
#include "aasubs/quasinewton/znlpdqn.h"

#include <cmath>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/loop/loads.h"
#include "aasubs/loop/secant_load.h"
#include "aasubs/quasinewton/quanew_loop.h"

namespace tqnlp {

static constexpr int REVISE_FACTOR = 1;
static constexpr int NO_SCALE = 0;

static int actcon(MINSTR* str, int job, int* load) {
  if (job == 1) {
    if (const int code = secant_load(str, *load); code != 0) return code;
    if (!secant_start_matrix(str, quanew_factor(str), NO_SCALE, load)) return NO_PROGRESS;
  } else {
    revise_working_set(str, REVISE_FACTOR, false, str->hess);
  }
  secant_measure(str);
  return 0;
}

// 2 for the factor LDL', 3 for R'R.
static int update_job(const MINSTR* str) { return quanew_factor(str) + 1; }

static int direction(MINSTR* str) {
  static constexpr int SOLVE = 1;
  return znlpsd2(str, SOLVE, 0, quanew_factor(str), reduced_dimension(str), str->spro, str->sdir,
                 str->hess);
}

static bool still_descends(const MINSTR*, double tol, double gs) {
  return tol < std::sqrt(std::fabs(gs));
}

int znlpdqn(MINSTR* str) {
  return quanew_loop(str, {update_job, actcon, direction, still_descends, true});
}

}  // namespace tqnlp
