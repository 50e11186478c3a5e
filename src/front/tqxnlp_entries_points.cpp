// tqxnlp, the two calls that run no optimization: NLPFEA (tqxfea), a feasible point for bounds and
// linear constraints, and NLPFDD (tqxfdd), a function with its derivatives at a point.
//
//   NLPFEA   x0, blc, par           x, a row; missing without a feasible point
//            par                    feasibility tolerance, tolerance of linear dependence
//
//   NLPFDD   "fun", x0, par, "grd"  f, g, h
//            one function           value, gradient (row), Hessian n x n
//            m functions            values (column), Jacobian m x n, J'J n x n
//            par                    number of functions, kind of differences, accurate digits
//
// Both fill the record of a run, with technique 0, since what they call are services of a run:
// feasible start, difference intervals, differences. What par leaves out, or holds as no number,
// has its default.
#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba1.h"
#include "aasubs/derivatives/znlpfdh.h"
#include "aasubs/derivatives/znlpfid.h"
#include "aasubs/setup/defaults.h"
#include "front/tqxnlp.h"
#include "front/tqxnlp_bridge.h"
#include "front/tqxnlp_call.h"
#include "front/tqxnlp_decode.h"
#include "front/tqxnlp_modules.h"
#include "front/tqxnlp_remarks.h"
#include "host/language.h"
#include "host/log.h"
#include "host/memory.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr long FEWEST_ARGUMENTS = 2;
static constexpr double DEFAULT_TOLERANCE = 1e-8;

// Element k (from 1) of a vector of parameters; missing when it is not there, or no finite number.
static double parameter(const ARGMTS* argm, int k) {
  return k <= argm->npar && std::isfinite(argm->parm[k - 1]) ? argm->parm[k - 1] : MISSING;
}

static void take_parameters(ARGMTS* argm, const Argument& par) {
  if (par.kind == ARGUMENT_ABSENT) return;
  static constexpr long MOST = 1000000;  // far beyond the elements that are read
  argm->parm = static_cast<double*>(par.data);
  argm->npar = static_cast<int>(std::min(par.rows * par.cols, MOST));
}

static int refuse_parameters(const ARGMTS* argm, long position, const Argument& par) {
  xpmlog(CALLING_SURFACE, 133,
         {call_name(argm).text, position, par.rows, par.cols,
          par.kind == ARGUMENT_NAME ? "character" : "numeric"});
  return ENTRY_BAD_ARGUMENT;
}

// Sizes of a problem with one function, until par says otherwise.
static void set_dimensions(MINSTR* str) {
  str->nvar = str->secstr->n;
  str->nnva = packed_size(str->nvar);
  str->mfun = str->mequ = 1;
}

// ---- NLPFEA -------------------------------------------------------------------------------------

// x0, blc, par. Without blc there is no question to answer.
static int read_feasible_arguments(MINSTR* str, long narg) {
  static constexpr int POSITION_X0 = 1;
  static constexpr int POSITION_BLC = 2;
  static constexpr int POSITION_PAR = 3;
  ARGMTS* argm = str->secstr;
  int rc = refuse_too_few(argm, narg, FEWEST_ARGUMENTS);
  if (rc == 0) rc = read_start(argm, argm->arg, narg, POSITION_X0);
  if (rc == 0) rc = read_constraint_matrix(argm, argm->arg, narg, POSITION_BLC);
  if (rc != 0) return rc;
  if (argm->cons == nullptr) {  // absent is no answer to the question that the call asks
    xpmlog(CALLING_SURFACE, 138,
           {call_name(argm).text, static_cast<long>(POSITION_BLC), 0L, 0L, "numeric",
            static_cast<long>(argm->n), argm->n + 2L});
    return ENTRY_BAD_ARGUMENT;
  }
  const Argument par = look_at_argument(argm->arg, narg, POSITION_PAR);
  if (par.kind != ARGUMENT_ABSENT && !is_vector(par)) {
    return refuse_parameters(argm, POSITION_PAR, par);
  }
  take_parameters(argm, par);
  return 0;
}

// Elements 1 and 2 of par: feasibility and linear dependence.
static void set_feasible_tolerances(MINSTR* str) {
  const double ceps = parameter(str->secstr, 1);
  const double ldct = parameter(str->secstr, 2);
  str->sing = DEFAULT_TOLERANCE;
  str->ceps = wzmis(ceps) ? DEFAULT_TOLERANCE : ceps;
  str->ldct = wzmis(ldct) ? DEFAULT_TOLERANCE : ldct;
  limit_constraint_tolerances(str);
}

// Moves x into the feasible region; without any such point x is filled with the missing value.
static void find_feasible_point(MINSTR* str) {
  const FieldText name = call_name(str->secstr);
  const int result = znlpfea(str, 2);
  if (result > 0) xpmlog(CALLING_SURFACE, 142, {name.text});
  if (result < 0) {
    vzfdl(MISSING, str->x, str->nvar);
    xpmlog(CALLING_SURFACE, 143, {name.text});
  }
}

// The technique number stays 0: the arrays are those of the constraints, without the ones that only
// a technique uses.
static int run_feasible(MINSTR* str, long narg) {
  long nonzeros = 0;
  int rc = read_feasible_arguments(str, narg);
  if (rc != 0) return rc;
  set_dimensions(str);
  set_feasible_tolerances(str);
  if (getncon(str, CONS_LINEAR, &nonzeros) != 0) return ENTRY_BAD_ARGUMENT;
  remark_feasibility_tolerance(str, 1);
  // The null-space frame is what the search for a feasible point works in.
  str->opro = str->lincon != 0 ? 1 : 0;
  str->acget = nlpaget;
  if (take_arrays(str, nonzeros) != 0) return ENTRY_NO_MEMORY;
  copy_start(str);
  if (str->bounds != 0 || str->lincon != 0) {
    setcons(str, CONS_LINEAR);
    find_feasible_point(str);
  }
  rc = make_row_result(1, str->x, str->nvar);
  return rc != 0 ? rc : deliver_report(str);
}

int tqxfea(TQLARG** arg, long* to_n) {
  MINSTR str{};
  ARGMTS argm{};
  OuterCall outer{};
  int rc = begin_call(&str, &argm, arg, "NLPFEA  ", &outer);
  if (rc == 0) rc = run_feasible(&str, *to_n);
  return end_call(&str, &argm, outer, rc);
}

// ---- NLPFDD -------------------------------------------------------------------------------------

// "fun", x0, par, "grd".
static int read_difference_arguments(MINSTR* str, long narg) {
  static constexpr int POSITION_FUN = 1;
  static constexpr int POSITION_X0 = 2;
  static constexpr int POSITION_PAR = 3;
  static constexpr int POSITION_GRD = 4;
  static constexpr long MOST_OF_A_MATRIX = 10;
  ARGMTS* argm = str->secstr;
  int rc = refuse_too_few(argm, narg, FEWEST_ARGUMENTS);
  if (rc == 0) rc = read_module(argm, argm->arg, narg, POSITION_FUN, CALL_OBJECTIVE);
  if (rc == 0) rc = read_start(argm, argm->arg, narg, POSITION_X0);
  if (rc != 0) return rc;
  const Argument par = look_at_argument(argm->arg, narg, POSITION_PAR);
  // A small matrix is let pass on purpose: its elements are read by rows.
  const bool oversized = !is_vector(par) && par.rows * par.cols > MOST_OF_A_MATRIX;
  if (par.kind == ARGUMENT_NAME || (par.kind == ARGUMENT_MATRIX && oversized)) {
    return refuse_parameters(argm, POSITION_PAR, par);
  }
  take_parameters(argm, par);
  return read_module(argm, argm->arg, narg, POSITION_GRD, CALL_GRADIENT);
}

// Number of functions, kind of differences and accuracy, from par. Element 2 has two digits: tens
// the estimate of the intervals (cfdh: 0 to 3), units 0 forward, any other central.
//
//   fidi   one function     1 or 2 in the units, and in the thousands 1, 2 from values or 3, 4 from
//                           gradients
//          several          1 or 2 in the units and in the tens (Jacobian)
static void set_difference_parameters(MINSTR* str) {
  ARGMTS* argm = str->secstr;
  const double functions = parameter(argm, 1);
  if (to_int(functions) > 0) str->mfun = str->mequ = to_int(functions);
  str->lsqu = str->mequ > 1 ? 1 : 0;
  // Of several functions only the values are asked for, so that a gradient module has no place.
  if (str->lsqu != 0) argm->igmod = 0;

  const int code = to_int(parameter(argm, 2));
  str->cfdh = code / 10 > 3 || code < 0 ? 0 : code / 10;
  const int central = code % 10 != 0 ? 1 : 0;
  const int kind = 1 + central + (argm->igmod != 0 ? 2 : 0);
  const int units = 1 + central;
  str->fidi = str->lsqu != 0 ? 11 * units : units + 1000 * kind;

  const double digits = parameter(argm, 3);
  str->fdig = limited_digits(digits == 0.0 ? MISSING : digits);
}

// One function: gradient and Hessian. Several: the Jacobian, in its file, and J'f as gradient.
static int prepare_differences(MINSTR* str) {
  const ARGMTS* argm = str->secstr;
  str->usfct = nlpfunc;
  str->usgrd = str->lsqu != 0 ? nlpjgrd : nlpgrad;
  if (str->lsqu != 0) {
    str->usjac = nlpjacm;
  } else {
    str->ushes = nlphess;
  }
  int rc = setss(str, CALL_OBJECTIVE);
  if (rc == 0 && argm->igmod != 0) rc = setss(str, CALL_GRADIENT);
  return rc;
}

// Evaluates functions and derivatives at x. Below 0 or above: the module failed there or near by.
static int evaluate_differences(MINSTR* str) {
  str->indf = AT_START;
  int code = str->usfct(str);
  if (code == 0 && str->cfdh != 0) code = znlpfdh(str, str->cfdh);
  if (code == 0) code = (str->lsqu != 0 ? str->usjac : str->ushes)(str);
  return code;
}

// Result k, rows x cols; null, with a line in the log, when the host refuses.
static double* take_result(int k, long rows, long cols) {
  double* result = tqwres(k, rows, cols);
  if (result == nullptr) xmemmsg(static_cast<std::size_t>(rows * cols) * sizeof(double));
  return result;
}

// f, g and h of one function: value, gradient, Hessian.
static int make_scalar_results(MINSTR* str) {
  const long n = str->nvar;
  int rc = make_row_result(1, &str->crit, 1);
  if (rc == 0) rc = make_row_result(2, str->grad, n);
  if (rc != 0) return rc;
  double* h = take_result(3, n, n);
  if (h == nullptr) return ENTRY_NO_MEMORY;
  for (long i = 0; i < n; ++i) {
    for (long j = 0; j < n; ++j) h[i * n + j] = str->hess[zisub(i, j)];
  }
  return 0;
}

// h := J'J of the m x n matrix J, as a sum over its rows, which lie side by side.
static void form_crossproduct(long m, long n, const double* jacobian, double* h) {
  vzfdl(0.0, h, n * n);
  for (long k = 0; k < m; ++k) {
    const double* row = jacobian + k * n;
    for (long i = 0; i < n; ++i) {
      if (row[i] != 0.0) zvxay11(i + 1, h + i * n, row[i], row);
    }
  }
  for (long i = 0; i < n; ++i) {
    for (long j = 0; j < i; ++j) h[j * n + i] = h[i * n + j];
  }
}

// f, g and h of several functions: values, Jacobian J, crossproduct J'J.
static int make_vector_results(MINSTR* str) {
  const long n = str->nvar;
  const long m = str->mequ;
  double* f = take_result(1, m, 1);
  double* g = f != nullptr ? take_result(2, m, n) : nullptr;
  double* h = g != nullptr ? take_result(3, n, n) : nullptr;
  if (h == nullptr) return ENTRY_NO_MEMORY;
  std::copy_n(str->func, m, f);
  znlpjrd(str, g);
  form_crossproduct(m, n, g, h);
  return 0;
}

// An evaluation that fails is an argument that cannot be served: there is no run whose code could
// tell it.
static int run_differences(MINSTR* str, long narg) {
  int rc = read_difference_arguments(str, narg);
  if (rc != 0) return rc;
  set_dimensions(str);
  set_difference_parameters(str);
  rc = prepare_differences(str);
  if (rc != 0) return rc;
  if (take_arrays(str, 0) != 0) return ENTRY_NO_MEMORY;
  copy_start(str);
  if (evaluate_differences(str) != 0) {
    xpmlog(CALLING_SURFACE, 193, {call_name(str->secstr).text});
    return ENTRY_BAD_ARGUMENT;
  }
  rc = str->lsqu != 0 ? make_vector_results(str) : make_scalar_results(str);
  return rc != 0 ? rc : deliver_report(str);
}

int tqxfdd(TQLARG** arg, long* to_n) {
  MINSTR str{};
  ARGMTS argm{};
  OuterCall outer{};
  int rc = begin_call(&str, &argm, arg, "NLPFDD  ", &outer);
  if (rc == 0) rc = run_differences(&str, *to_n);
  return end_call(&str, &argm, outer, rc);
}

}  // namespace tqnlp
