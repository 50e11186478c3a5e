// tqxnlp, the callback bridge: preparing the modules' calls, running a module, and the callbacks of
// general objectives (nlpfunc, nlpgrad, nlphess, nlpterm). The callbacks of least squares and of
// nonlinear constraints stand in tqxnlp_bridge_ls.cpp.
//
// An evaluation costs a copy of x, the host's run and a look at the result; nothing is allocated.
// The run is guarded: a math error that the host traps comes back here as a failed evaluation, and
// the technique backs up as from any other.
#include "front/tqxnlp_bridge.h"

#include <algorithm>
#include <cmath>
#include <iterator>

#include "aasubs/setup/derivative_choice.h"
#include "aasubs/setup/evaluations.h"
#include "aasubs/setup/hessian_form.h"
#include "aasubs/termination/znlptrm.h"
#include "front/tqxnlp_decode.h"
#include "front/tqxnlp_modules.h"
#include "front/tqxnlp_remarks.h"
#include "host/log.h"
#include "host/memory.h"
#include "host/process.h"
#include "host/strings.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr int ELEMENT_SIZE = 8;
static constexpr int MESSAGE_NO_MEMORY = 1;
static constexpr int MESSAGE_SCALAR = 148;
static constexpr int MESSAGE_FUNCTIONS = 149;
static constexpr int MESSAGE_MATRIX = 150;
static constexpr int MESSAGE_HESSIAN_INCOMPLETE = 151;
static constexpr int MESSAGE_CODE_MISSING = 152;
static constexpr int MESSAGE_GRADIENT = 166;
static constexpr int MESSAGE_STANDSTILL = 191;
static constexpr int MESSAGE_OBJECTIVE = 200;
static constexpr int MESSAGE_NO_OBJECTIVE = 201;

// ---- Preparation --------------------------------------------------------------------------------

// Gives a matrix that is handed to a module rows x cols numbers, if it has another size. The host's
// interpreter may take the data of an argument away when a module assigns to it, so that this is
// asked before every run. Returns false, with a message, when memory is refused.
static bool ensure_size(const ARGMTS* argm, TQLSYM* symbol, long rows, long cols) {
  const bool fits = symbol->data != nullptr && symbol->rows * symbol->cols == rows * cols;
  if (!fits) {
    tqwfre2(symbol->data);
    const long bytes = rows * cols * ELEMENT_SIZE;
    symbol->data = tqwalo2(bytes);
    if (symbol->data == nullptr) {
      symbol->rows = symbol->cols = 0;
      xpmlog(CALLING_SURFACE, MESSAGE_NO_MEMORY, {call_name(argm).text, bytes});
      return false;
    }
  }
  symbol->kind = NUMERIC;
  symbol->elsize = ELEMENT_SIZE;
  symbol->rows = rows;
  symbol->cols = cols;
  return true;
}

// Shape of what a module is expected to give. Vectors of values may stand either way; derivatives
// may not, since a transposed matrix of derivatives would go unnoticed when it is square.
static ResultShape expected_shape(const MINSTR* str, int job) {
  const long n = str->nvar;
  const long hrow = str->secstr->hrow;
  switch (job) {
    case CALL_OBJECTIVE:
      return {str->lsqu != 0 ? str->mequ : 1, 1, true};
    case CALL_GRADIENT:
      return {str->lsqu != 0 ? str->mequ : 1, n, false};
    case CALL_HESSIAN:
      return {hrow != 0 ? hrow : n, hrow != 0 ? 3 : n, false};
    case CALL_CONSTRAINTS:
      return {1, str->nnlc, true};
    case CALL_CONSTRAINT_JACOBIAN:
      return {str->nnlc, n, false};
    default:
      return {1, 1, false};
  }
}

int setss(MINSTR* str, int job) {
  ARGMTS* argm = str->secstr;
  const ModuleKind* kind = module_kind(job);
  if (kind == nullptr) xexit(EXIT_INCONSISTENT, 0);
  TQLCALL* call = nullptr;
  const long status = tqsget(argm->*kind->handle, &call);
  if (status != 0) {
    xprrlog(0, static_cast<int>(status));
    return static_cast<int>(status);
  }

  auto* ss = static_cast<TQLSS*>(vmalloc_handler(sizeof(TQLSS), 0));
  if (ss == nullptr) {
    xmemmsg(sizeof(TQLSS));
    return EVALUATION_NO_MEMORY;
  }
  argm->*kind->prepared = ss;
  ss->funptr = argm->*kind->handle;
  ss->call = call;

  // The numbers of a result stay with the host, so that only the shape is set.
  const ResultShape shape = expected_shape(str, job);
  ss->result = &(argm->*kind->result);
  *ss->result = {NUMERIC, ELEMENT_SIZE, shape.rows, shape.cols, nullptr};
  ss->argument[0] = &(argm->*kind->point);
  if (!ensure_size(argm, ss->argument[0], 1, str->nvar)) return EVALUATION_NO_MEMORY;
  if (job == CALL_TERMINATION) {
    ss->argument[1] = &argm->arg8;
    if (!ensure_size(argm, ss->argument[1], 1, 1)) return EVALUATION_NO_MEMORY;
  }
  return 0;
}

void release_prepared_calls(ARGMTS* argm) {
  for (const ModuleKind& kind : MODULE_KINDS) {
    TQLSS*& ss = argm->*kind.prepared;
    if (ss == nullptr) continue;
    for (TQLSYM* argument : ss->argument) {
      if (argument == nullptr) continue;
      tqwfre2(argument->data);
      *argument = TQLSYM{};
    }
    *ss->result = TQLSYM{};  // its data is the host's
    vmfree_handler(ss);
    ss = nullptr;
  }
}

// ---- Running a module ---------------------------------------------------------------------------

// Answers of the guarded run. The codes that the math-error trap resumes with are 0 and -1: a run
// that was broken off has no result, even where the trap calls the error harmless.
static constexpr int RUN_GOOD = 1;
static constexpr int RUN_BAD = 2;

static int run_current(MINSTR*) {
  tqlrc(RUN_MODULE);
  return tqlexst() == 0 ? RUN_GOOD : RUN_BAD;
}

// Runs a prepared call; true when the module came to its end. The result's numbers stay with the
// host: its symbol points to them until the module runs again. The statement position and the
// current call of the language are saved around it, so that a module may call a subroutine in turn.
static bool run_prepared(MINSTR* str, TQLSS* ss) {
  TQLTASK* task = tqlq();
  TQLSS* outer = tqsput(ss);
  ss->position[0] = task->position[0];
  ss->position[1] = task->position[1];
  const int outer_runs = task->module_runs;
  task->module_runs = 1;
  ss->status = 0;

  const int answer = wtguard(&str->mpin, run_current, str);

  ss->result->data = task->result;
  task->module_runs = outer_runs;
  task->position[0] = ss->position[0];
  task->position[1] = ss->position[1];
  tqsput(outer);
  return answer == RUN_GOOD && ss->status == 0;
}

// A character result fits nothing.
static bool shape_fits(const TQLSYM& result, const ResultShape& shape) {
  if (result.kind != NUMERIC) return false;
  if (result.rows == shape.rows && result.cols == shape.cols) return true;
  return shape.either_way && result.rows == shape.cols && result.cols == shape.rows;
}

// The module is told from its prepared call, so that callers need not name it.
static const ModuleKind* kind_of(const ARGMTS* argm, const TQLSS* ss) {
  return std::find_if(
      std::begin(MODULE_KINDS), std::end(MODULE_KINDS),
      [argm, ss](const ModuleKind& candidate) { return argm->*candidate.prepared == ss; });
}

static void log_wrong_shape(const ARGMTS* argm, const TQLSS* ss, const ResultShape& shape,
                            int message) {
  xpmlog(CALLING_SURFACE, message,
         {call_name(argm).text, module_name(argm, *kind_of(argm, ss)).text, ss->result->rows,
          ss->result->cols, ss->result->kind == NUMERIC ? "numeric" : "character", shape.rows,
          shape.cols});
  if (message != MESSAGE_MATRIX) return;
  remark_transposed(argm, module_name(argm, *kind_of(argm, ss)).text, *ss->result, shape.rows,
                    shape.cols);
}

int end_evaluation(MINSTR* str, int* flag, int code) {
  *flag = code == EVALUATED ? FLAG_GOOD : FLAG_FAILED;
  str->tbig = code == EVALUATED ? 0.0 : 1.0;
  return code;
}

// Copies n numbers; true when all are finite. 0 a is 0 for a finite a alone, and the partial sums
// let the processor look at several at a time.
static bool copy_and_look(long n, const double* from, double* to) {
  static constexpr long SIDE_BY_SIDE = 8;
  double sums[SIDE_BY_SIDE] = {};
  long j = 0;
  for (; j + SIDE_BY_SIDE <= n; j += SIDE_BY_SIDE) {
    double a[SIDE_BY_SIDE];
    for (long k = 0; k < SIDE_BY_SIDE; ++k) a[k] = from[j + k];
    for (long k = 0; k < SIDE_BY_SIDE; ++k) to[j + k] = a[k];
    for (long k = 0; k < SIDE_BY_SIDE; ++k) sums[k] += 0.0 * a[k];
  }
  for (; j < n; ++j) sums[0] += 0.0 * (to[j] = from[j]);
  double total = 0.0;
  for (double sum : sums) total += sum;
  return total == 0.0;
}

// Copies x into the matrix that the module is given. False when x is no point: an element is not
// finite, as after an overflow in a step. Modules that compare or clip would give a value there.
static bool copy_point(const MINSTR* str, double* point) {
  return copy_and_look(str->nvar, str->x, point);
}

// For the message at the end of the run.
int module_failed(MINSTR* str, const TQLSS* ss, int* flag) {
  str->secstr->failed = kind_of(str->secstr, ss);
  return end_evaluation(str, flag, EVALUATION_FAILED);
}

static bool elements_fit(const TQLSYM& result, Elements wanted) {
  if (wanted == Elements::any) return true;
  if (tqlmiss(&result) != 0) return false;
  return wanted == Elements::present || all_finite(result.rows * result.cols, result.data);
}

int run_module(MINSTR* str, TQLSS* ss, const ResultShape& shape, Elements elements, int message,
               int* flag) {
  str->tbig = 1.0;
  TQLSYM* point = ss->argument[0];
  if (!ensure_size(str->secstr, point, 1, str->nvar)) return EVALUATION_NO_MEMORY;
  if (!copy_point(str, point->data) || !run_prepared(str, ss)) {
    return module_failed(str, ss, flag);
  }
  if (!shape_fits(*ss->result, shape)) {
    // A module that keeps giving the wrong shape does so at every trial point: once is enough.
    if (*flag != FLAG_WRONG_SHAPE) log_wrong_shape(str->secstr, ss, shape, message);
    str->secstr->failed = kind_of(str->secstr, ss);
    *flag = FLAG_WRONG_SHAPE;
    return EVALUATION_FAILED;
  }
  if (!elements_fit(*ss->result, elements)) return module_failed(str, ss, flag);
  return EVALUATED;
}

static void negate(double* values, long count) {
  for (long i = 0; i < count; ++i) values[i] = -values[i];
}

// ---- Objective ----------------------------------------------------------------------------------

// Takes what the objective's module gave. Codes 2 and 3 leave the error flag as the last call left
// it, and tbig set.
static int take_objective(MINSTR* str, long m, const double* values) {
  ARGMTS* argm = str->secstr;
  int code = EVALUATED;
  if (str->lsqu != 0) {
    code = half_sum_of_squares(m, values, str->func, &str->crit);
  } else if (std::isinf(values[0])) {
    // Too large to be compared or differenced, so that it counts as a failed evaluation.
    return end_evaluation(str, &argm->funer, EVALUATION_FAILED);
  } else {
    str->func[0] = str->crit = values[0];
  }
  if (code != EVALUATED) return code;
  if (str->imax != 0) negate(str->func, m);
  return end_evaluation(str, &argm->funer, EVALUATED);
}

// crit stands at the largest double while there is no value (negated when the run maximizes, on
// purpose: the sign follows the run even then), so that every caller looks at tbig, not at crit.
// The highest print level shows every evaluation that counts, as a line of the report.
static void show_evaluation(const MINSTR* str, int code) {
  static constexpr double LEVEL_OF_EVALUATIONS = 9.0;
  if (str->dbug < LEVEL_OF_EVALUATIONS) return;
  if (code == EVALUATED && str->tbig == 0.0) {
    xpmout(CALLING_SURFACE, MESSAGE_OBJECTIVE, {str->nfct, str->crit});
  } else {
    xpmout(CALLING_SURFACE, MESSAGE_NO_OBJECTIVE, {str->nfct});
  }
}

int nlpfunc(MINSTR* str) {
  ARGMTS* argm = str->secstr;
  const long m = str->lsqu != 0 ? str->mequ : 1;
  const bool counts = argm->dncf == 0 && str->indf < GRADIENT_STEP;
  str->tbig = 0.0;
  if (counts) ++str->nfct;
  str->crit = HUGE_VALUE;
  const int message = m > 1 ? MESSAGE_FUNCTIONS : MESSAGE_SCALAR;
  int code = run_module(str, argm->ssfun, {m, 1, true}, Elements::present, message, &argm->funer);
  if (code == EVALUATED) code = take_objective(str, m, argm->arg0.data);
  if (code != EVALUATED) argm->failed = module_kind(CALL_OBJECTIVE);  // also a value too large
  if (counts) show_evaluation(str, code);
  if (str->imax != 0 && !wzmis(str->crit)) str->crit = -str->crit;
  return code;
}

// ---- Derivatives --------------------------------------------------------------------------------

int nlpgrad(MINSTR* str) {
  ARGMTS* argm = str->secstr;
  // The difference service counts its gradients itself.
  if (argm->igmod == 0) return run_difference_service(str, DIGIT_GRADIENT, &argm->grder);
  if (argm->dncg == 0) ++str->ngrd;
  const long n = str->nvar;
  const int code =
      run_module(str, argm->ssgrd, {1, n, false}, Elements::finite, MESSAGE_GRADIENT, &argm->grder);
  if (code != EVALUATED) return code;
  std::copy_n(argm->arg2.data, n, str->grad);
  if (str->imax != 0) negate(str->grad, n);
  return end_evaluation(str, &argm->grder, EVALUATED);
}

// An n x n result: elements above the diagonal win over those below; an element that is missing
// leaves the place to its partner.
static void take_dense_hessian(MINSTR* str, const double* values) {
  const long n = str->nvar;
  double* packed = str->hess;
  for (long i = 0; i < n; ++i) {
    for (long j = 0; j <= i; ++j) {
      const double upper = values[j * n + i];
      *packed++ = std::isnan(upper) ? values[i * n + j] : upper;
    }
  }
}

static bool hessian_finite(const MINSTR* str) {
  return std::all_of(str->hess, str->hess + hessian_length(str),
                     [](double h) { return std::isfinite(h); });
}

// Is every element there, and finite? One may be missing on one side of the diagonal only.
static bool hessian_complete(const MINSTR* str) {
  if (hessian_finite(str)) return true;
  const ARGMTS* argm = str->secstr;
  if (argm->heser != FLAG_UNUSABLE) {
    xpmlog(CALLING_SURFACE, MESSAGE_HESSIAN_INCOMPLETE,
           {call_name(argm).text, module_name(argm, *module_kind(CALL_HESSIAN)).text});
  }
  return false;
}

// The gradient belongs to the Hessian's point: techniques ask for both with one call.
int nlphess(MINSTR* str) {
  ARGMTS* argm = str->secstr;
  if (str->fidi == 0) ++str->nhes;
  if (argm->ihmod == 0) {
    const int made = run_difference_service(str, DIGIT_HESSIAN, &argm->heser);
    // Second differences divide by the square of a step, so that they overflow before values do.
    const bool usable = made != EVALUATED || hessian_finite(str);
    return usable ? made : end_evaluation(str, &argm->heser, HESSIAN_NOT_USABLE);
  }
  if (nlpgrad(str) != EVALUATED || str->tbig != 0.0) return HESSIAN_GRADIENT_FAILED;

  const ResultShape shape = expected_shape(str, CALL_HESSIAN);
  const int code = run_module(str, argm->sshes, shape, Elements::any, MESSAGE_MATRIX, &argm->heser);
  if (code != EVALUATED) return code == EVALUATION_FAILED ? HESSIAN_FAILED : code;
  const double* values = argm->arg4.data;
  if (argm->hrow == 0) take_dense_hessian(str, values);
  const bool good = argm->hrow == 0 ? hessian_complete(str) : take_sparse_hessian(str, values);
  if (!good) {
    end_evaluation(str, &argm->heser, HESSIAN_NOT_USABLE);
    argm->heser = FLAG_UNUSABLE;
    return HESSIAN_NOT_USABLE;
  }
  if (str->imax != 0) negate(str->hess, hessian_length(str));
  return end_evaluation(str, &argm->heser, EVALUATED);
}

// ---- Termination --------------------------------------------------------------------------------

// A technique may stay at a point for many iterations while it shrinks a region or restarts. Beyond
// this many it stays for ever: it has converged, and the module does not say so.
static constexpr long MOST_ASKED_AT_ONE_POINT = 5000;

// Counts how often the module was asked about this point in succession. The matrices of its call
// still hold what it was asked about before.
static bool stands_still(const MINSTR* str) {
  ARGMTS* argm = str->secstr;
  const TQLSYM& last = argm->arg7;
  const bool same = last.data != nullptr && last.cols == str->nvar &&
                    std::equal(str->x, str->x + str->nvar, last.data) &&
                    argm->arg8.data[0] == str->crit;
  argm->ntrm = same ? argm->ntrm + 1 : 1;
  return argm->ntrm > MOST_ASKED_AT_ONE_POINT;
}

// The user's module takes the place of the whole termination test, limits included, and with it of
// the history. So that a module that never gives a code cannot keep a run going that has come to
// rest, the run then ends for lack of progress.
static int ask_termination_module(MINSTR* str, int job) {
  ARGMTS* argm = str->secstr;
  ++str->nter;
  str->tcod = 0;
  if (!ensure_size(argm, &argm->arg8, 1, 1)) return EVALUATION_FAILED;
  if (stands_still(str)) {
    xpmlog(CALLING_SURFACE, MESSAGE_STANDSTILL,
           {call_name(argm).text, module_name(argm, *module_kind(CALL_TERMINATION)).text,
            MOST_ASKED_AT_ONE_POINT});
    return NO_PROGRESS;
  }
  argm->arg8.data[0] = str->crit;
  const double tbig = str->tbig;  // belongs to the last evaluation, not to the test
  int code =
      run_module(str, argm->sstrm, {1, 1, false}, Elements::any, MESSAGE_SCALAR, &argm->trmer);
  const bool missing = code == EVALUATED && std::isnan(argm->arg6.data[0]);
  if (missing || (code == EVALUATION_FAILED && argm->trmer == FLAG_FAILED)) {
    xpmlog(CALLING_SURFACE, MESSAGE_CODE_MISSING,
           {call_name(argm).text, module_name(argm, *module_kind(CALL_TERMINATION)).text});
    code = end_evaluation(str, &argm->trmer, EVALUATION_FAILED);
  }
  str->tbig = tbig;
  if (code != EVALUATED) return EVALUATION_FAILED;
  argm->trmer = FLAG_GOOD;
  str->tcod = to_int(argm->arg6.data[0]);
  // A technique that has ended by itself cannot go on: 0 leaves it the code that it came with.
  return str->tcod == 0 && job < 0 ? job : str->tcod;
}

// "_ITER_" is set before the test, so that it is right when the test's history line is written and
// for every module that runs in the next iteration.
int nlpterm(MINSTR* str, int job) {
  ARGMTS* argm = str->secstr;
  if (argm->iptit != 0) return ask_termination_module(str, job);
  argm->_iter_ = str->nitr;
  Export_iter_(argm->_iter_, argm->_iterptr_);
  return znlptrm(str, job);
}

// ---- The variable "_ITER_" ----------------------------------------------------------------------

// The name is kept in the decoded call, padded as the language looks names up.
void SetUp_iter_(double x, ARGMTS* argm) {
  static constexpr char NAME[] = "_ITER_";
  static constexpr long LENGTH = sizeof(NAME) - 1;
  wzstmov(argm->_iterstr_.name, NAME_FIELD, NAME, LENGTH);
  argm->_iterstr_.length = LENGTH;
  argm->_iterptr_ = &argm->_iterstr_;
  argm->_iter_ = x;
  argm->_itersymptr_ = tqlrtre(argm->_iterstr_.name, LENGTH);
  Export_iter_(x, argm->_iterptr_);
}

// The user may have assigned anything to the variable: what is not one number is made one again.
void Export_iter_(double value, ITERVAR* varstr) {
  if (varstr == nullptr) return;
  TQLSYM* symbol = tqlrtre(varstr->name, varstr->length);
  if (symbol == nullptr) return;
  if (symbol->kind != NUMERIC || symbol->rows != 1 || symbol->cols != 1) {
    tqwfre2(symbol->data);
    *symbol = {NUMERIC, ELEMENT_SIZE, 1, 1, nullptr};
  }
  if (symbol->data == nullptr) {
    double* data = tqwalo2(ELEMENT_SIZE);
    if (data == nullptr) {
      symbol->rows = symbol->cols = 0;
      return;
    }
    tqwown2(symbol, data);
  }
  symbol->data[0] = value;
}

}  // namespace tqnlp
