// tqxnlp, the entries of the optimizers. All take one road: decode the arguments into the record,
// prepare the modules, take the arrays, run the driver's two jobs, hand the results over, clean up.
//
// Three bodies serve eight subroutines: dopt1 (first order), dopt2 (second order) and dols (least
// squares); NLPNMS, NLPVMC and NLPQUA have their own. What differs between subroutines of one body
// is the row of its numbers; what differs between bodies is the step that settles derivatives and
// constraints.
#include <algorithm>
#include <iterator>
#include <span>

#include "aasubs/driver/znlpdrv.h"
#include "aasubs/reports/znlppre.h"
#include "aasubs/setup/defaults.h"
#include "aasubs/setup/derivative_choice.h"
#include "front/tqxnlp.h"
#include "front/tqxnlp_bridge.h"
#include "front/tqxnlp_call.h"
#include "front/tqxnlp_decode.h"
#include "front/tqxnlp_modules.h"
#include "front/tqxnlp_remarks.h"
#include "host/log.h"

namespace tqnlp {

namespace {

// What the subroutines of one body share.
struct Body {
  std::span<const int> modules;  // call codes, in the order of preparation
  void (*set_callbacks)(MINSTR* str);
};

// Numbers of one subroutine.
struct SubroutineRow {
  const char* name;  // padded to eight
  int tech;          // NLPQN settles it later
  int ider;          // derivative order of the record
  struct {
    int read;    // derivative order
    int layout;  // positions 1 and 8 to 10
  } args;        // of getargm
  struct {
    int setoptn, setparm, setterm;
  } job;
  // Settles what follows from options and modules; getncon is called in it. Returns 0 or 6.
  int (*settle)(MINSTR* str, long* nonzeros);
  const Body* body;
};

}  // namespace

static constexpr long MOST_SPARSE_ROWS = 2147483646;

// ---- Steps that bodies share --------------------------------------------------------------------

// What every run starts from; the vectors of settings and the settling steps change some of it.
static void set_start_values(MINSTR* str, const SubroutineRow& sub) {
  default_start(str, sub.tech, sub.ider, str->secstr->n);
}

// A sparse Hessian where the subroutine has none, or where its module is missing.
static void drop_sparse_hessian(ARGMTS* argm) {
  xpmlog(CALLING_SURFACE, 163, {call_name(argm).text, argm->hrow});
  argm->hrow = 0;
}

// Announced and given constraints must agree: without a module there are none, and equalities are a
// part of all. opro asks for the null-space frame as soon as there is a general constraint.
static int settle_constraints(MINSTR* str, int job, long* nonzeros) {
  const ARGMTS* argm = str->secstr;
  if (str->nnlc > 0 && argm->icmod == 0) {
    xpmlog(CALLING_SURFACE, 174, {call_name(argm).text, str->nnlc});
    str->nnlc = 0;
  }
  if (str->nnlc == 0 && argm->icmod != 0) {  // most likely element 10 of opt was forgotten
    const ModuleKind& kind = *module_kind(CALL_CONSTRAINTS);
    xpmlog(CALLING_SURFACE, 190, {call_name(argm).text, module_name(argm, kind).text});
  }
  if (str->nnlc < 0 || str->nlec < 0 || str->nnlc < str->nlec) {
    xpmlog(CALLING_SURFACE, 175, {call_name(argm).text, str->nnlc, str->nlec});
    return ENTRY_BAD_ARGUMENT;
  }
  if (getncon(str, job, nonzeros) != 0) return ENTRY_BAD_ARGUMENT;
  str->opro = str->lincon != 0 || str->nlicon != 0 ? 1 : 0;
  return 0;
}

static int constraint_job(const MINSTR* str) {
  return str->secstr->icmod != 0 ? CONS_NONLINEAR : CONS_LINEAR;
}

// ---- First-order techniques ---------------------------------------------------------------------

// The modules that are given, for the digits of fidi.
static Supplied supplied_modules(const ARGMTS* argm) {
  return {argm->igmod != 0, argm->ihmod != 0, argm->icmod != 0, argm->jcmod != 0};
}

// Only the double dogleg scales (hesc) among the first-order techniques.
static int settle_first_order(MINSTR* str, long* nonzeros) {
  ARGMTS* argm = str->secstr;
  str->fidi = first_order_digits(supplied_modules(argm), str->fidi, str->load != 0);
  if (str->tech != DBLDOG) str->hesc = 0;
  if (argm->hrow != 0) drop_sparse_hessian(argm);
  return settle_constraints(str, constraint_job(str), nonzeros);
}

// NLPQN runs the primal form only on request (updates 3, 4) and without nonlinear constraints.
static int settle_quasi_newton(MINSTR* str, long* nonzeros) {
  const int rc = settle_first_order(str, nonzeros);
  if (rc != 0) return rc;
  const bool primal = str->tupd == 3 || str->tupd == 4;
  str->tech = str->nlicon == 0 && primal ? QUANEW : QUANEW_DUAL;
  if (primal) str->tupd -= 2;
  return 0;
}

// The double dogleg updates a factor, whose updates are 1 and 2.
static int settle_double_dogleg(MINSTR* str, long* nonzeros) {
  const int rc = settle_first_order(str, nonzeros);
  if (str->tupd == 3 || str->tupd == 4) str->tupd = 1;
  return rc;
}

// VMCWD works in the frame of general constraints whether there are any or not.
static int settle_watchdog(MINSTR* str, long* nonzeros) {
  const int rc = settle_first_order(str, nonzeros);
  str->opro = 1;
  return rc;
}

static void set_first_order_callbacks(MINSTR* str) {
  str->usfct = nlpfunc;
  str->usgrd = nlpgrad;
  if (str->load != 0 && str->tech != CONGRA) str->ushes = nlphess;
}

// ---- Second-order techniques --------------------------------------------------------------------

// A sparse Hessian must come from a module.
static int settle_second_order(MINSTR* str, long* nonzeros) {
  ARGMTS* argm = str->secstr;
  str->fidi = second_order_digits(supplied_modules(argm), str->fidi);
  if (argm->hrow < 0 || (argm->hrow != 0 && argm->ihmod == 0)) drop_sparse_hessian(argm);
  if (argm->hrow > MOST_SPARSE_ROWS) {
    xpmlog(CALLING_SURFACE, 165, {call_name(argm).text, argm->hrow, MOST_SPARSE_ROWS});
    return ENTRY_BAD_ARGUMENT;
  }
  const int rc = settle_constraints(str, CONS_LINEAR, nonzeros);
  default_sparse_form(str);
  return rc;
}

static void set_second_order_callbacks(MINSTR* str) {
  str->usfct = nlpfunc;
  str->usgrd = nlpgrad;
  str->ushes = nlphess;
}

// ---- Least squares ------------------------------------------------------------------------------

static int settle_least_squares(MINSTR* str, long* nonzeros) {
  ARGMTS* argm = str->secstr;
  str->lsqu = 1;
  if (str->mequ < 1) {
    xpmlog(CALLING_SURFACE, 146, {call_name(argm).text, str->mequ});
    return ENTRY_BAD_ARGUMENT;
  }
  str->mfun = str->mequ;
  if (argm->hrow != 0) drop_sparse_hessian(argm);
  str->fidi = least_squares_digits(supplied_modules(argm), str->fidi);
  return settle_constraints(str, CONS_LINEAR, nonzeros);
}

static void set_least_squares_callbacks(MINSTR* str) {
  str->usfct = nlpfunc;
  str->usgrd = nlpjgrd;
  str->usjac = nlpjacm;
  str->ushes = nlpcrpj;
}

// ---- Simplex and quadratic ----------------------------------------------------------------------

// No derivatives, and no frame: bounds and rows are looked at as values.
static int settle_simplex(MINSTR* str, long* nonzeros) {
  str->fidi = str->cfdh = 0;
  const int rc = settle_constraints(str, CONS_SIMPLEX, nonzeros);
  str->opro = 0;
  return rc;
}

static void set_simplex_callbacks(MINSTR* str) { str->usfct = nlpfunc; }

// The derivatives of a quadratic are known. The sparse form as for second-order techniques.
static int settle_quadratic(MINSTR* str, long* nonzeros) {
  str->fidi = str->cfdh = 0;
  str->fqad = str->secstr->qlin != 0 ? 2 : 1;
  const int rc = settle_constraints(str, CONS_LINEAR, nonzeros);
  if (is_barrier(str)) str->opro = 0;  // the technique has a frame of its own
  default_sparse_form(str);
  return rc;
}

static void set_quadratic_callbacks(MINSTR* str) {
  str->usfct = nlpfqad;
  str->usgrd = nlpgqad;
  str->ushes = nlpgqad;
}

// ---- The road -----------------------------------------------------------------------------------

// Arguments, options and constraints into the record.
static int decode_call(MINSTR* str, long narg, const SubroutineRow& sub, long* nonzeros) {
  ARGMTS* argm = str->secstr;
  int rc = getargm(argm, argm->arg, narg, sub.args.read, sub.args.layout);
  if (rc != 0) return rc;
  set_start_values(str, sub);
  setoptn(str, sub.job.setoptn);
  remark_options(str, sub.job.setoptn);
  rc = sub.settle(str, nonzeros);
  if (rc != 0) return rc;
  setparm(str, sub.job.setparm);
  remark_parameters(str, sub.job.setparm);
  remark_feasibility_tolerance(str, 3);
  remark_few_functions(str);
  setterm(str, sub.job.setterm);
  return 0;
}

// Modules that are given; those of nonlinear constraints only when there are any.
static int prepare_modules(MINSTR* str, const SubroutineRow& sub) {
  const ARGMTS* argm = str->secstr;
  for (const int code : sub.body->modules) {
    const bool of_constraints = code == CALL_CONSTRAINTS || code == CALL_CONSTRAINT_JACOBIAN;
    if (argm->*module_kind(code)->given == 0 || (of_constraints && str->nnlc == 0)) continue;
    if (const int rc = setss(str, code); rc != 0) return rc;
  }
  return 0;
}

// Termination test, quasi-Newton update, line search, constraints.
static void set_common_callbacks(MINSTR* str) {
  str->uster = nlpterm;
  choose_methods(str);
  if (str->nnlc != 0 && str->secstr->icmod != 0) {
    str->usnlc = nlpnlco;
    if (str->usgrd != nullptr) str->usjnc = nlpjcon;
  }
}

// The error flags, and the modules that they belong to.
static constexpr struct {
  int ARGMTS::*flag;
  int code;
} ERROR_FLAGS[] = {
    {&ARGMTS::funer, CALL_OBJECTIVE},   {&ARGMTS::grder, CALL_GRADIENT},
    {&ARGMTS::heser, CALL_HESSIAN},     {&ARGMTS::grjer, CALL_GRADIENT},
    {&ARGMTS::cpjer, CALL_GRADIENT},    {&ARGMTS::jacer, CALL_GRADIENT},
    {&ARGMTS::nlcer, CALL_CONSTRAINTS}, {&ARGMTS::jncer, CALL_CONSTRAINT_JACOBIAN},
    {&ARGMTS::trmer, CALL_TERMINATION},
};

// Did the last call of any module fail?
static bool a_module_failed(const ARGMTS* argm) {
  return std::any_of(std::begin(ERROR_FLAGS), std::end(ERROR_FLAGS),
                     [argm](const auto& entry) { return argm->*entry.flag != FLAG_GOOD; });
}

// Derivatives failed at the start: the first ones in job 1, the Hessian in a technique.
static constexpr int DERIVATIVE_FAILED = -2;
static constexpr int DERIVATIVE_FAILED_IN_RUN = -4;

// A run that ends at its start has no report that says why: the log names the module. A wrong shape
// is in the log already; functions of least squares that are too large set no flag, and an estimate
// of intervals that failed has called its function once more at the start, with success.
static void log_failed_start(const MINSTR* str, int code) {
  static constexpr int INTERVALS_OF_CONSTRAINTS = 2;
  const ARGMTS* argm = str->secstr;
  int failed = str->tbig != 0.0 ? CALL_OBJECTIVE : -1;
  if (code == DERIVATIVE_FAILED && str->cfdh != 0) {
    failed = str->cfdh == INTERVALS_OF_CONSTRAINTS ? CALL_CONSTRAINTS : CALL_OBJECTIVE;
  }
  for (const auto& entry : ERROR_FLAGS) {
    const int flag = argm->*entry.flag;
    if (flag == FLAG_WRONG_SHAPE || flag == FLAG_UNUSABLE) return;
    if (flag == FLAG_FAILED) failed = entry.code;
  }
  const ModuleKind* kind = module_kind(failed);
  if (kind == nullptr) return;
  if (str->tech == QUADAS) {  // it has no modules
    xpmlog(CALLING_SURFACE, 217, {call_name(argm).text});
    return;
  }
  if (argm->*kind->given == 0) {  // differences stand in for it
    const bool of_constraints = failed == CALL_CONSTRAINT_JACOBIAN;
    kind = module_kind(of_constraints ? CALL_CONSTRAINTS : CALL_OBJECTIVE);
  }
  xpmlog(CALLING_SURFACE, 192, {call_name(argm).text, module_name(argm, *kind).text, kind->role});
}

// The end of a run for want of a value: which module it was. The codes are those of the objective
// and of derivatives.
static void log_failed_run(const MINSTR* str, int code) {
  const ARGMTS* argm = str->secstr;
  if (code < DERIVATIVE_FAILED_IN_RUN || code > -1 || argm->failed == nullptr) return;
  xpmlog(CALLING_SURFACE, 194,
         {call_name(argm).text, module_name(argm, *argm->failed).text, argm->failed->role});
}

// The form of a sparse Hessian and its arrays, at a start point that could be evaluated. A module
// that failed there ends the run with *code; returns 0, or 1 when the host refuses memory.
static int prepare_sparse_hessian(MINSTR* str, int* code) {
  const int result = nlphstr(str);
  if (result == EVALUATION_NO_MEMORY) return ENTRY_NO_MEMORY;
  if (result != EVALUATED) {
    *code = DERIVATIVE_FAILED;
    log_failed_start(str, *code);
    return 0;
  }
  return take_matrices(str);
}

// The two jobs of the driver; *code receives that of the run. A start point that failed ends it.
// Returns 0, or 1 when the host refuses memory.
static int run_driver(MINSTR* str, int* code) {
  static constexpr int START_REPORT = 1;
  static constexpr int FUNCTION_DETAIL = 2;
  static constexpr int NO_FEASIBLE_START = -10;
  const ARGMTS* argm = str->secstr;
  const bool start_report = str->dbug > 2.0;
  const bool functions = str->lsqu != 0 && str->dbug > 4.0;
  const int pfun = (start_report ? START_REPORT : 0) + (functions ? FUNCTION_DETAIL : 0);
  const int gradient_test = argm->igmod == 0 ? 0 : (str->lsqu != 0 ? 2 : 1);
  const int constraint_test = str->nlicon != 0 && argm->jcmod != 0 ? 1 : 0;
  *code = znlpdrv(str, 1, pfun, gradient_test, constraint_test);
  if (*code < 0 || a_module_failed(argm)) {
    if (*code != NO_FEASIBLE_START) log_failed_start(str, *code);
    return 0;
  }
  if (hessian_by_rows(argm)) {
    const int rc = prepare_sparse_hessian(str, code);
    if (rc != 0 || *code == DERIVATIVE_FAILED) return rc;
  }
  *code = znlpdrv(str, 2, functions ? FUNCTION_DETAIL : 0, 0, 0);
  if (*code == DERIVATIVE_FAILED) {
    log_failed_start(str, *code);
  } else if (*code != str->tcod) {
    log_failed_run(str, *code);
  }
  return 0;
}

// Result 1: the return code of the run. Result 2: the final point.
static int make_results(MINSTR* str, int code) {
  const double rc = code;
  if (make_row_result(1, &rc, 1) != 0) return ENTRY_NO_MEMORY;
  return make_row_result(2, str->x, str->nvar);
}

// Arrays, start point, constraints, run, results, report.
static int run_call(MINSTR* str, const SubroutineRow& sub, long nonzeros) {
  if (const int rc = str->fqad != 0 ? prepare_quadratic(str) : 0; rc != 0) return rc;
  if (take_arrays(str, nonzeros) != 0) return ENTRY_NO_MEMORY;
  if (const int rc = str->fqad != 0 ? load_quadratic(str) : 0; rc != 0) return rc;
  announce_run(str);
  copy_start(str);
  if (str->tech == DBLDOG) vzfdl(1.0, str->dsca, str->nvar);
  const bool simplex = sub.args.layout == ARGS_SIMPLEX;
  if (str->bounds != 0 || str->lincon != 0) {
    setcons(str, simplex ? CONS_SIMPLEX : constraint_job(str));
  }
  int code = 0;
  int rc = run_driver(str, &code);
  if (rc == 0) rc = make_results(str, code);
  return rc != 0 ? rc : deliver_report(str);
}

// The road from arguments to results. Every step answers 0 or the code that ends the call, and
// every way out goes through end_call.
static int run_subroutine(const SubroutineRow& sub, TQLARG** arg, const long* to_n) {
  MINSTR str{};
  ARGMTS argm{};
  OuterCall outer{};
  long nonzeros = 0;
  int rc = begin_call(&str, &argm, arg, sub.name, &outer);
  if (rc == 0) rc = decode_call(&str, *to_n, sub, &nonzeros);
  if (rc == 0) rc = prepare_modules(&str, sub);
  if (rc == 0) {
    sub.body->set_callbacks(&str);
    set_common_callbacks(&str);
  }
  if (rc == 0) rc = run_call(&str, sub, nonzeros);
  return end_call(&str, &argm, outer, rc);
}

// ---- Bodies and entries -------------------------------------------------------------------------

static constexpr int FIRST_ORDER_MODULES[] = {CALL_OBJECTIVE,   CALL_GRADIENT,
                                              CALL_HESSIAN,     CALL_TERMINATION,
                                              CALL_CONSTRAINTS, CALL_CONSTRAINT_JACOBIAN};
static constexpr int SECOND_ORDER_MODULES[] = {CALL_OBJECTIVE, CALL_GRADIENT, CALL_HESSIAN,
                                               CALL_TERMINATION};
static constexpr int LEAST_SQUARES_MODULES[] = {CALL_OBJECTIVE, CALL_GRADIENT, CALL_TERMINATION};
static constexpr int SIMPLEX_MODULES[] = {CALL_OBJECTIVE, CALL_TERMINATION, CALL_CONSTRAINTS};
static constexpr int QUADRATIC_MODULES[] = {CALL_TERMINATION};

static constexpr Body FIRST_ORDER{FIRST_ORDER_MODULES, set_first_order_callbacks};
static constexpr Body SECOND_ORDER{SECOND_ORDER_MODULES, set_second_order_callbacks};
static constexpr Body LEAST_SQUARES{LEAST_SQUARES_MODULES, set_least_squares_callbacks};
static constexpr Body SIMPLEX{SIMPLEX_MODULES, set_simplex_callbacks};
static constexpr Body QUADRATIC{QUADRATIC_MODULES, set_quadratic_callbacks};

//  name, technique, derivative order, argument list, jobs, step that settles, body
static constexpr SubroutineRow NLPCG{
    "NLPCG   ", 13, 1, {READ_GRADIENT, ARGS_GRADIENT}, {1, 1, 1}, settle_first_order, &FIRST_ORDER};
static constexpr SubroutineRow NLPQN{
    "NLPQN   ",          QUANEW,      1, {READ_GRADIENT, ARGS_NONLINEAR}, {1, 2, 2},
    settle_quasi_newton, &FIRST_ORDER};
static constexpr SubroutineRow NLPDD{
    "NLPDD   ",           DBLDOG,      1, {READ_GRADIENT, ARGS_GRADIENT}, {1, 2, 2},
    settle_double_dogleg, &FIRST_ORDER};
static constexpr SubroutineRow NLPTR{
    "NLPTR   ",          TRUREG,       4, {READ_HESSIAN, ARGS_SECOND_ORDER}, {1, 4, 2},
    settle_second_order, &SECOND_ORDER};
static constexpr SubroutineRow NLPNRA{
    "NLPNRA  ",   3, 4, {READ_HESSIAN, ARGS_SECOND_ORDER}, {1, 4, 2}, settle_second_order,
    &SECOND_ORDER};
static constexpr SubroutineRow NLPNRR{
    "NLPNRR  ",   4, 4, {READ_HESSIAN, ARGS_SECOND_ORDER}, {1, 4, 2}, settle_second_order,
    &SECOND_ORDER};
static constexpr SubroutineRow NLPLM{
    "NLPLM   ",    8, 3, {READ_JACOBIAN, ARGS_LEAST_SQUARES}, {2, 3, 2}, settle_least_squares,
    &LEAST_SQUARES};
static constexpr SubroutineRow NLPHQN{
    "NLPHQN  ",    12, 3, {READ_JACOBIAN, ARGS_LEAST_SQUARES}, {2, 3, 2}, settle_least_squares,
    &LEAST_SQUARES};
static constexpr SubroutineRow NLPNMS{
    "NLPNMS  ", 14, 1, {READ_NO_DERIVATIVES, ARGS_SIMPLEX}, {0, 0, 0}, settle_simplex, &SIMPLEX};
static constexpr SubroutineRow NLPVMC{
    "NLPVMC  ", 21, 1, {READ_GRADIENT, ARGS_NONLINEAR}, {1, 2, 2}, settle_watchdog, &FIRST_ORDER};
static constexpr SubroutineRow NLPQUA{
    "NLPQUA  ",       16,        4, {READ_NO_DERIVATIVES, ARGS_QUADRATIC}, {1, 5, 2},
    settle_quadratic, &QUADRATIC};

// First order; job 0 NLPCG, 1 NLPQN, 3 NLPDD.
static int dopt1(TQLARG** arg, long* to_n, int job) {
  return run_subroutine(job == 0 ? NLPCG : (job == 1 ? NLPQN : NLPDD), arg, to_n);
}

// Second order; job 0 NLPTR, 1 NLPNRA, 2 NLPNRR.
static int dopt2(TQLARG** arg, long* to_n, int job) {
  return run_subroutine(job == 0 ? NLPTR : (job == 1 ? NLPNRA : NLPNRR), arg, to_n);
}

// Least squares; job 1 NLPLM, 2 NLPHQN.
static int dols(TQLARG** arg, long* to_n, int job) {
  return run_subroutine(job == 1 ? NLPLM : NLPHQN, arg, to_n);
}

int tqxcg(TQLARG** arg, long* to_n) { return dopt1(arg, to_n, 0); }
int tqxqn(TQLARG** arg, long* to_n) { return dopt1(arg, to_n, 1); }
int tqxdd(TQLARG** arg, long* to_n) { return dopt1(arg, to_n, 3); }
int tqxtr(TQLARG** arg, long* to_n) { return dopt2(arg, to_n, 0); }
int tqxnra(TQLARG** arg, long* to_n) { return dopt2(arg, to_n, 1); }
int tqxnrr(TQLARG** arg, long* to_n) { return dopt2(arg, to_n, 2); }
int tqxlm(TQLARG** arg, long* to_n) { return dols(arg, to_n, 1); }
int tqxhqn(TQLARG** arg, long* to_n) { return dols(arg, to_n, 2); }

int tqxnms(TQLARG** arg, long* to_n) { return run_subroutine(NLPNMS, arg, to_n); }
int tqxvmc(TQLARG** arg, long* to_n) { return run_subroutine(NLPVMC, arg, to_n); }
int tqxqas(TQLARG** arg, long* to_n) { return run_subroutine(NLPQUA, arg, to_n); }

}  // namespace tqnlp
