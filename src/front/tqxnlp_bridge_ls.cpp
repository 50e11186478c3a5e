// tqxnlp, the callback bridge for least squares and nonlinear constraints, and the differences that
// stand in for a module.
//
// Least squares: the module "jac" gives the m x n Jacobian J of the functions; the gradient of half
// the sum of squares is J'f. J itself stays where the module put it, for those who read the
// Jacobian store, until the module runs again.
#include <algorithm>

#include "aasubs/derivatives/znlpfid.h"
#include "aasubs/setup/derivative_choice.h"
#include "aasubs/setup/evaluations.h"
#include "front/tqxnlp_bridge.h"
#include "kernels/crossproduct.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr int MESSAGE_CONSTRAINTS = 148;
static constexpr int MESSAGE_MATRIX = 150;

// ---- Difference services ------------------------------------------------------------------------

// A service may answer 0 and leave missing what it could not compute, from a point at a bound for
// instance; and a quotient may overflow where no value did.
static bool differences_finite(const MINSTR* str, int digit) {
  return digit == DIGIT_CONSTRAINT_JACOBIAN ? all_finite(str->nnlc * str->nvar, str->jcon)
                                            : all_finite(str->nvar, str->grad);
}

int run_difference_service(MINSTR* str, int digit, int* flag) {
  const bool gradient_supplied = str->secstr->igmod != 0;
  const Callback service = difference_service(str->fidi, digit, gradient_supplied);
  // Services nest: a Hessian's differences ask for gradients. The outer state comes back after.
  ARGMTS* argm = str->secstr;
  const short outer_functions = argm->dncf;
  const short outer_gradients = argm->dncg;
  argm->dncf = 1;
  if (digit == DIGIT_HESSIAN) argm->dncg = 1;
  const int code = service(str);
  argm->dncf = outer_functions;
  argm->dncg = outer_gradients;
  const bool good = code == 0 && differences_finite(str, digit);
  return end_evaluation(str, flag, good ? EVALUATED : EVALUATION_FAILED);
}

// ---- Least squares ------------------------------------------------------------------------------

// What the three callbacks share: Jacobian by module or by differences, gradient, store; with a
// module also the packed J'J where crossproduct is not null.
static int load_jacobian(MINSTR* str, int digit, int* flag, long* counter, double* packed) {
  ARGMTS* argm = str->secstr;
  if (argm->dncg == 0 && str->fidi == 0) ++*counter;
  if (argm->igmod == 0) return run_difference_service(str, digit, flag);
  let_go_jacobian(str);
  const int code = run_module(str, argm->ssgrd, {str->mequ, str->nvar, false}, Elements::any,
                              MESSAGE_MATRIX, flag);
  if (code != EVALUATED) return code;
  double* jacobian = argm->arg2.data;
  // A failure leaves the gradient as it was.
  if (!all_finite(str->mequ * str->nvar, jacobian)) return module_failed(str, argm->ssgrd, flag);
  crossproduct(str->mequ, str->nvar, jacobian, str->func, str->grad, packed);
  hold_jacobian(str, jacobian);
  return end_evaluation(str, flag, EVALUATED);
}

int nlpjgrd(MINSTR* str) {
  return load_jacobian(str, DIGIT_GRADIENT, &str->secstr->grjer, &str->ngrd, nullptr);
}

int nlpjacm(MINSTR* str) {
  return load_jacobian(str, DIGIT_JACOBIAN, &str->secstr->jacer, &str->nhes, nullptr);
}

int nlpcrpj(MINSTR* str) {
  ARGMTS* argm = str->secstr;
  const int code = load_jacobian(str, DIGIT_CROSSPRODUCT, &argm->cpjer, &str->nhes, str->hess);
  if (code != EVALUATED || argm->igmod == 0 || all_finite(str->nnva, str->hess)) return code;
  return end_evaluation(str, &argm->cpjer, NORM_TOO_LARGE);
}

// ---- Nonlinear constraints ----------------------------------------------------------------------

int nlpnlco(MINSTR* str) {
  ARGMTS* argm = str->secstr;
  if (str->nnlc == 0 || argm->icmod == 0) return EVALUATED;
  if (str->indf < GRADIENT_STEP) ++str->nfnc;
  const int code = run_module(str, argm->ssnlc, {1, str->nnlc, true}, Elements::finite,
                              MESSAGE_CONSTRAINTS, &argm->nlcer);
  if (code != EVALUATED) return code;
  std::copy_n(argm->arg9.data, str->nnlc, str->fcon);
  return end_evaluation(str, &argm->nlcer, EVALUATED);
}

int nlpjcon(MINSTR* str) {
  ARGMTS* argm = str->secstr;
  if (str->nnlc == 0 || argm->icmod == 0) return EVALUATED;
  if (argm->jcmod == 0) {
    return run_difference_service(str, DIGIT_CONSTRAINT_JACOBIAN, &argm->jncer);
  }
  ++str->njnc;
  const int code = run_module(str, argm->ssjnc, {str->nnlc, str->nvar, false}, Elements::finite,
                              MESSAGE_MATRIX, &argm->jncer);
  if (code != EVALUATED) return code;
  std::copy_n(argm->arg11.data, str->nnlc * str->nvar, str->jcon);
  return end_evaluation(str, &argm->jncer, EVALUATED);
}

}  // namespace tqnlp
