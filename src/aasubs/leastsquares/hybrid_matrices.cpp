// The matrices of HYQUAN. Contracts in hybrid_matrices.h.
//
// With s the step and r the residuals, the pair of differences is structured: y = A s + (J -
// Jold)'r takes the first-order part of the curvature along s from A itself and learns the
// second-order part alone. Where its curvature s'y falls far below that of the plain difference of
// the gradients, the plain one is taken.
//
// How well a matrix M fits a pair is measured by
//
//   (y'M^-1 y / s'y)^2 + 1 - 2 s'y / s'Ms
//
// the least distance, in the metric of M, between M and a matrix that maps s onto y; 0 when M does.
//
// Reference  Al-Baali and Fletcher (1985), J. Oper. Res. Soc. 36; Fletcher and Xu (1987), IMA J.
//            Numer. Anal. 7
#include "aasubs/leastsquares/hybrid_matrices.h"

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/loop/loads.h"
#include "aasubs/loop/secant_load.h"
#include "kernels/dense.h"
#include "kernels/vector.h"

namespace tqnlp {

// Factorization jobs.
static constexpr int LDLT = 1;
static constexpr int LLT = 2;

void choose_forms(const MINSTR* str, HybridRun& run) {
  run.jcho = has_constraints(str) ? LLT : LDLT;
  run.icho = str->hfrm == 2 && str->lincon == 0 ? DIAGONAL_FORM : run.jcho;
}

// ---- Start matrix -------------------------------------------------------------------------------

// B := D, given by its values, which are the roots of D where B is held as LL'.
static void set_diagonal(MINSTR* str, const double* values) {
  const long order = reduced_dimension(str);
  vzfdl(0.0, str->half, packed_size(order));
  for (long k = 0; k < order; ++k) str->half[zisub(k, k)] = values[k];
}

void reset_to_unit(MINSTR* str) {
  vzfdl(1.0, str->work, str->nvar);
  set_diagonal(str, str->work);
}

void copy_crossproduct(MINSTR* str, const HybridRun& run) {
  const long order = reduced_dimension(str);
  if (run.icho == run.jcho) {
    std::copy_n(str->hpro, packed_size(order), str->half);
    return;
  }
  for (long k = 0; k < order; ++k) {
    const double root = str->hpro[k];
    str->work[k] = run.jcho == LDLT ? root * root : root;
  }
  set_diagonal(str, str->work);
}

static void start_quasi_newton(MINSTR* str, HybridRun& run) {
  run.stale = false;
  // Along steepest descent no constraint blocks that has just left the working set.
  const bool unit = run.load != 0 || run.blocked;
  run.twins = !unit;
  if (unit) {
    reset_to_unit(str);
  } else {
    copy_crossproduct(str, run);
  }
}

// ---- Derivatives and Gauss-Newton matrix --------------------------------------------------------

// A := Z'J'JZ + ridg I, factored in hpro. hess keeps J'J. False: not positive definite.
static bool factor_crossproduct(MINSTR* str, const HybridRun& run) {
  const long order = reduced_dimension(str);
  if (order < 1) return true;
  // Without a place of its own the projected gradient goes where no direction is needed any more.
  znlphpr(str, 1, 0, str->hfrm, str->lincon != 0 ? str->gpro : str->sdir, str->hess, str->hpro);
  for (long k = 0; k < order; ++k) {
    str->hpro[run.icho == DIAGONAL_FORM ? k : zisub(k, k)] += str->ridg;
  }
  double logdet = 0.0;
  return znlpcde(str, run.icho, order, str->sing, &logdet, str->hpro, str->hpro, nullptr) == 0;
}

static int load_crossproduct(MINSTR* str, int) {
  return evaluate(str, ORDER_HESSIAN, str->ushes) ? 0 : -2;
}

// Everything afresh at x.
static int load_start(MINSTR* str, HybridRun& run) {
  static constexpr int MERE_REPAIR = -1;
  if (const int code = load_feasible_point(str, MERE_REPAIR, load_crossproduct, 0); code != 0) {
    return code;
  }
  while (!factor_crossproduct(str, run)) {
    run.load = 0;  // a unit matrix beside one that needs a ridge would be no better
    if (!secant_raise_shift(str)) return NO_PROGRESS;
  }
  run.nohs = run.twins = false;
  // With constraints the frame is new, and a B in the old one of no use.
  if (run.stale || run.load != 0 || has_constraints(str)) start_quasi_newton(str, run);
  return 0;
}

static int load_step(MINSTR* str, HybridRun& run) {
  static constexpr int REVISE_FACTOR = 1;
  if (!run.at_hand) {
    if (!refresh_saved_results(str)) return -1;
    if (const int code = load_crossproduct(str, 0); code != 0) return code;
  }
  revise_working_set(str, REVISE_FACTOR, false, str->half);
  str->ridg = 0.0;  // that of the start is no part of A any more
  run.twins = false;
  run.nohs = !factor_crossproduct(str, run);
  return 0;
}

int actcon(MINSTR* str, int job, HybridRun& run) {
  const int code = job == 1 ? load_start(str, run) : load_step(str, run);
  if (code == 0) secant_measure(str);
  return code;
}

// ---- Direction ----------------------------------------------------------------------------------

bool make_direction(MINSTR* str, const HybridRun& run, bool gauss_newton, double* slope) {
  static constexpr int SOLVE = 1;
  const int form = gauss_newton ? run.icho : run.jcho;
  double* factor = gauss_newton ? str->hpro : str->half;
  const int code =
      znlpsd2(str, SOLVE, 0, form, reduced_dimension(str), str->spro, str->sdir, factor);
  *slope = znlpgs(str, str->spro, str->gpro, str->sdir, str->grad);
  return code == 0 && std::isfinite(*slope);
}

// ---- Update -------------------------------------------------------------------------------------

namespace {

// A pair of differences in the reduced space, and how the matrices fit it.
struct Pair {
  double dxg = 0.0;    // s'y
  double dbd = 0.0;    // s'Bs
  double dbdgn = 0.0;  // s'As
  double del = 0.0;    // measure of B
  double delgn = 0.0;  // measure of A
};

}  // namespace

// s'Ms for a factored matrix; the product in `product`.
static double curvature(MINSTR* str, int form, double* factor, double* product) {
  const long order = reduced_dimension(str);
  std::copy_n(str->xold, order, product);
  znlpmmu(str, form, order, factor, product);
  return dotprd(order, str->xold, product);
}

// y := A s + (J - Jold)'r, from the plain y = J'r - Jold'rold in gold, As and (Jold'r - Jold'rold).
static void use_structure(MINSTR* str, const double* as, const double* old, Pair& pair) {
  static constexpr double LEAST_SHARE = 0.01;
  const long order = reduced_dimension(str);
  for (long k = 0; k < order; ++k) str->gold[k] += as[k] - old[k];
  const double dxgnew = dotprd(order, str->xold, str->gold);
  if (dxgnew >= LEAST_SHARE * pair.dxg) {
    pair.dxg = dxgnew;
    return;
  }
  for (long k = 0; k < order; ++k) str->gold[k] -= as[k] - old[k];
}

// The measure of a matrix with curvature s'Ms along the step. False: it is singular.
static bool measure(MINSTR* str, int form, double* factor, const Pair& pair, double curved,
                    double* result) {
  const long order = reduced_dimension(str);
  std::copy_n(str->gold, order, str->work);
  if (znlpcso(str, form, order, factor, str->work) != 0) return false;
  const double ratio = dotprd(order, str->gold, str->work) / pair.dxg;
  const double radicand = ratio * ratio + 1.0 - 2.0 * pair.dxg / curved;
  *result = radicand > 0.0 ? std::sqrt(radicand) : 0.0;
  return true;
}

// A parameter that reached its bound moved without a part in the reduced s. What its move changed
// in the gradient, by A, is not the curvature along s: left in, it would make that as large as s is
// short. With linear constraints there is no update in this case.
static void leave_out_bound_moves(MINSTR* str) {
  if (str->bounds == 0 || str->lincon != 0 || str->hfrm == 2) return;
  for (long j = 0; j < str->nvar; ++j) {
    const double move = str->x[j] - str->xold[j];
    if (str->iabc[j] == 0 || move == 0.0) continue;
    for (long i = 0; i < str->nvar; ++i) {
      str->gold[i] += move * str->hess[zisub(std::max(i, j), std::min(i, j))];
    }
  }
}

// The pair of the last step, s in xold and y in gold, and what the versions ask of it. False: it is
// not fit for an update.
static bool form_pair(MINSTR* str, HybridRun& run, Pair& pair) {
  const long order = reduced_dimension(str);
  double* product = str->sdir;  // the direction is no longer needed
  leave_out_bound_moves(str);
  if (run.has_old) zvaxpy(old_gradient(str), str->gold, old_gradient(str), str->nvar, -1.0);
  secant_differences(str);
  pair.dxg = dotprd(order, str->xold, str->gold);
  pair.dbd = curvature(str, run.jcho, str->half, product);
  if (!(pair.dxg > SMALLEST_TOLERANCE && pair.dbd > SMALLEST_TOLERANCE)) return false;
  if (run.nohs) return true;
  pair.dbdgn = curvature(str, run.icho, str->hpro, product);
  if (run.has_old) {
    znlpvre(str, old_gradient(str), str->work);
    use_structure(str, product, str->work, pair);
  }
  if (!(pair.dbdgn > EPS * std::fabs(pair.dxg))) return false;
  if (str->vers == 1 && !measure(str, run.jcho, str->half, pair, pair.dbd, &pair.del)) return false;
  if (str->vers == 2) return true;
  if (measure(str, run.icho, str->hpro, pair, pair.dbdgn, &pair.delgn)) return true;
  run.nohs = true;
  return false;
}

// Does the Gauss-Newton matrix supply the next direction?
static bool choose_gauss_newton(const MINSTR* str, const Pair& pair) {
  static constexpr double GOOD_DECREASE = 0.2;  // of the objective, in one iteration
  static constexpr double GOOD_FIT = 0.1;
  if (str->vers == 1) return pair.delgn < pair.del;
  if (str->dfes >= GOOD_DECREASE * str->cold) return true;
  // The curvature of B in place of its measure, deliberately: this version does not form that.
  return str->vers == 3 && pair.delgn < GOOD_FIT * pair.dbd;
}

Next update_and_choose(MINSTR* str, HybridRun& run) {
  static constexpr int NO_SCALING = 0;
  static constexpr int JOB_LDLT = 2;
  static constexpr int JOB_LLT = 3;
  run.skipped = false;
  // With linear constraints a change of the working set has turned the basis of the differences.
  if (str->chac != 0 && str->lincon != 0) {
    str->null = 0;
    return Next::go_on;
  }
  if (reduced_dimension(str) < 1) return Next::go_on;
  const bool nothing_else = run.nohs;
  Pair pair;
  run.skipped = !form_pair(str, run, pair);
  if (run.skipped) {
    if (run.nohs) str->null = 0;
    return nothing_else ? Next::restart : Next::go_on;
  }
  const bool gauss_newton = !run.nohs && choose_gauss_newton(str, pair);
  run.twins = false;
  const int code = str->updat(str, run.jcho == LDLT ? JOB_LDLT : JOB_LLT, NO_SCALING, str->xold,
                              str->gold, str->half, str->sdir, str->spro, str->work);
  if (code < 0) {
    run.stale = true;
    return Next::restart;
  }
  str->null = gauss_newton ? 1 : 0;
  return Next::go_on;
}

}  // namespace tqnlp
