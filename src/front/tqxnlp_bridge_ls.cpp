// tqxnlp, the callback bridge for least squares and nonlinear constraints, and the one place where
// the difference services are plugged in.
//
// Least squares: the module "jac" gives the m x n Jacobian J of the functions; the gradient of half
// the sum of squares is J'f, and J itself goes to the Jacobian store by columns.
#include <algorithm>
#include <cmath>

#include "aasubs/derivatives/znlpfid.h"
#include "front/tqxnlp_bridge.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr int MESSAGE_CONSTRAINTS = 148;
static constexpr int MESSAGE_MATRIX = 150;
static constexpr int STORE_NONZEROS = 0;  // form of a column in the Jacobian store

// ---- Difference services ------------------------------------------------------------------------

// The one place to name them.
const DifferenceServices DIFFERENCE_SERVICES = {
    .gradient = {znlpfig, znlpfg2},
    .jacobian = {znlpfij, znlpfj2},
    .crossproduct = {znlpfic, znlpfc2},
    .hessian = {znlpfih, znlpfh2, znlpfh3, znlpfh4},
    .constraint_jacobian = {znlpfcj, znlpfcc},
    .write_jacobian = znlpjwt,
};

Callback difference_service(const MINSTR* str, int digit) {
  const DifferenceServices& services = DIFFERENCE_SERVICES;
  const int value = fidi_digit(str->fidi, digit);
  const int central = value == 1 ? 0 : 1;  // any other value means central differences
  switch (digit) {
    case DIGIT_GRADIENT:
      return services.gradient[central];
    case DIGIT_JACOBIAN:
      return services.jacobian[central];
    case DIGIT_CROSSPRODUCT:
      return services.crossproduct[central];
    case DIGIT_HESSIAN:
      return str->secstr->igmod != 0 ? services.hessian[value == 3 ? 2 : 3]
                                     : services.hessian[central];
    default:
      return services.constraint_jacobian[central];
  }
}

// A service may answer 0 and leave missing what it could not compute, from a point at a bound for
// instance; and a quotient may overflow where no value did.
static bool differences_finite(const MINSTR* str, int digit) {
  const bool constraints = digit == DIGIT_CONSTRAINT_JACOBIAN;
  const double* values = constraints ? str->jcon : str->grad;
  const long count = constraints ? str->nnlc * str->nvar : str->nvar;
  return std::all_of(values, values + count, [](double value) { return std::isfinite(value); });
}

int run_difference_service(MINSTR* str, int digit, int* flag) {
  const Callback service = difference_service(str, digit);
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

// Gradient J'f, row after row.
static void form_gradient(MINSTR* str, const double* jacobian) {
  const long n = str->nvar;
  vzfdl(0.0, str->grad, n);
  for (long i = 0; i < str->mequ; ++i) zvxay11(n, str->grad, str->func[i], jacobian + i * n);
}

static bool store_jacobian(MINSTR* str, double* jacobian) {
  const auto write = DIFFERENCE_SERVICES.write_jacobian;
  const long n = str->nvar;
  for (long j = 0; j < n; ++j) {
    if (write(str, STORE_NONZEROS, j, n, jacobian + j) != 0) return false;
  }
  return true;
}

// Packed J'J as a sum over the rows of J. Returns false when an element overflows.
static bool form_crossproduct(MINSTR* str, const double* jacobian) {
  const long n = str->nvar;
  vzfdl(0.0, str->hess, str->nnva);
  for (long i = 0; i < str->mequ; ++i) {
    const double* row = jacobian + i * n;
    for (long j = 0; j < n; ++j) {
      if (row[j] != 0.0) zvxay11(j + 1, str->hess + packed_size(j), row[j], row);
    }
  }
  return std::all_of(str->hess, str->hess + str->nnva, [](double h) { return std::isfinite(h); });
}

// What the three callbacks share: Jacobian by module or by differences, gradient, store.
static int load_jacobian(MINSTR* str, int digit, int* flag, long* counter) {
  ARGMTS* argm = str->secstr;
  if (argm->dncg == 0 && str->fidi == 0) ++*counter;
  if (argm->igmod == 0) return run_difference_service(str, digit, flag);
  const int code = run_module(str, argm->ssgrd, {str->mequ, str->nvar, false}, Elements::finite,
                              MESSAGE_MATRIX, flag);
  if (code != EVALUATED) return code;
  form_gradient(str, argm->arg2.data);
  const bool stored = store_jacobian(str, argm->arg2.data);
  return end_evaluation(str, flag, stored ? EVALUATED : EVALUATION_FAILED);
}

int nlpjgrd(MINSTR* str) {
  return load_jacobian(str, DIGIT_GRADIENT, &str->secstr->grjer, &str->ngrd);
}

int nlpjacm(MINSTR* str) {
  return load_jacobian(str, DIGIT_JACOBIAN, &str->secstr->jacer, &str->nhes);
}

int nlpcrpj(MINSTR* str) {
  ARGMTS* argm = str->secstr;
  const int code = load_jacobian(str, DIGIT_CROSSPRODUCT, &argm->cpjer, &str->nhes);
  if (code != EVALUATED || argm->igmod == 0) return code;
  const bool finite = form_crossproduct(str, argm->arg2.data);
  return end_evaluation(str, &argm->cpjer, finite ? EVALUATED : NORM_TOO_LARGE);
}

// ---- Nonlinear constraints ----------------------------------------------------------------------

int nlpnlco(MINSTR* str) {
  ARGMTS* argm = str->secstr;
  if (str->nlicon == 0 || argm->icmod == 0) return EVALUATED;
  if (str->indf < GRADIENT_STEP) ++str->nfnc;
  const int code = run_module(str, argm->ssnlc, {1, str->nnlc, true}, Elements::finite,
                              MESSAGE_CONSTRAINTS, &argm->nlcer);
  if (code != EVALUATED) return code;
  std::copy_n(argm->arg9.data, str->nnlc, str->fcon);
  return end_evaluation(str, &argm->nlcer, EVALUATED);
}

int nlpjcon(MINSTR* str) {
  ARGMTS* argm = str->secstr;
  if (str->nlicon == 0 || argm->icmod == 0) return EVALUATED;
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
