// tqxnlp, the arguments: reads an argument list by position and checks kinds, shapes and names
// before anything is computed. Every refusal names the subroutine, the argument's position and what
// was expected of it.
#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>

#include "front/tqxnlp.h"
#include "front/tqxnlp_decode.h"
#include "front/tqxnlp_modules.h"
#include "front/tqxnlp_remarks.h"
#include "host/log.h"
#include "host/strings.h"
#include "host/tables.h"

namespace tqnlp {

// Positions that all optimizers share.
static constexpr int POSITION_FUN = 1;
static constexpr int POSITION_X0 = 2;
static constexpr int POSITION_OPT = 3;
static constexpr int POSITION_BLC = 4;
static constexpr int POSITION_TC = 5;
static constexpr int POSITION_PAR = 6;
static constexpr int POSITION_PTIT = 7;
static constexpr int POSITION_FIRST_OTHER = 8;

namespace {

// What stands in positions 8, 9, 10.
enum class Role { none, gradient, hessian, constraints, constraint_jacobian, linear_term };

// Messages about a module's name.
struct NameMessages {
  int code;
  int not_a_name;
  int not_found;
};

}  // namespace

static constexpr int OTHERS = 3;
static constexpr Role LAYOUT[][OTHERS] = {
    {Role::linear_term, Role::none, Role::none},                     // ARGS_QUADRATIC
    {Role::constraints, Role::none, Role::none},                     // ARGS_SIMPLEX
    {Role::gradient, Role::none, Role::none},                        // ARGS_GRADIENT
    {Role::gradient, Role::hessian, Role::none},                     // ARGS_SECOND_ORDER
    {Role::gradient, Role::none, Role::none},                        // ARGS_LEAST_SQUARES
    {Role::gradient, Role::constraints, Role::constraint_jacobian},  // ARGS_NONLINEAR
};

// A sparse matrix of the quadratic has three columns; below this order three columns mean dense.
static constexpr long SPARSE_COLUMNS = 3;
static constexpr long LEAST_SPARSE_ORDER = 4;
static constexpr long MOST_ELEMENTS = std::numeric_limits<int>::max();

static constexpr NameMessages NAME_MESSAGES[] = {
    {CALL_OBJECTIVE, 131, 131},   {CALL_GRADIENT, 134, 134},
    {CALL_HESSIAN, 155, 155},     {CALL_TERMINATION, 154, 154},
    {CALL_CONSTRAINTS, 169, 155}, {CALL_CONSTRAINT_JACOBIAN, 169, 155},
};

// A position beyond the list and a matrix without elements are the same: the argument is absent.
Argument look_at_argument(TQLARG** arg, long narg, int position) {
  Argument argument{ARGUMENT_ABSENT, 0, 0, 0, nullptr};
  if (position > narg) return argument;
  argument.kind =
      tqwarg2(arg[position - 1], &argument.rows, &argument.cols, &argument.length, &argument.data);
  const bool numbers = argument.kind == ARGUMENT_MATRIX;
  if (numbers && (argument.rows <= 0 || argument.cols <= 0 || argument.data == nullptr)) {
    argument.kind = ARGUMENT_ABSENT;
  }
  return argument;
}

bool is_vector(const Argument& argument) {
  return argument.kind == ARGUMENT_MATRIX && (argument.rows == 1 || argument.cols == 1);
}

static long elements(const Argument& argument) { return argument.rows * argument.cols; }

static const char* kind_word(const Argument& argument) {
  return argument.kind == ARGUMENT_NAME ? "character" : "numeric";
}

// Logs a message about an argument's shape: subroutine, position, what was given, what is expected
// (a number, and the number with operator and right-hand side).
static int refuse_shape(const ARGMTS* argm, int number, int position, const Argument& given,
                        long expected = 0) {
  xpmlog(CALLING_SURFACE, number,
         {call_name(argm).text, static_cast<long>(position), given.rows, given.cols,
          kind_word(given), expected, expected + 2});
  return ENTRY_BAD_ARGUMENT;
}

// The host checks the number by the table as well; an entry does not rely on it.
int refuse_too_few(const ARGMTS* argm, long narg, long fewest) {
  if (narg >= fewest) return 0;
  xpmlog(CALLING_SURFACE, 130, {call_name(argm).text, fewest, narg});
  return ENTRY_BAD_ARGUMENT;
}

// ---- Modules ------------------------------------------------------------------------------------

// What is wrong with the text of a name.
static RvxText name_fault(const Argument& name) {
  RvxText reason{};
  if (name.kind == ARGUMENT_ABSENT) {
    rvxtxts(&reason, sizeof reason.text, "nothing is given");
  } else if (name.kind == ARGUMENT_MATRIX || name.rows != 1 || name.cols != 1) {
    rvxtxts(&reason, sizeof reason.text, "a %s %ld by %ld matrix is given", kind_word(name),
            name.rows, name.cols);
  } else {
    rvxtxts(&reason, sizeof reason.text, "a text of %ld characters is given, not of 1 to %ld",
            name.length, NAME_FIELD);
  }
  return reason;
}

// Why a name was not found: no such module, or one of the other kind.
static RvxText search_fault(const char* field, int kind) {
  const int other = kind == MODULE_FUNCTION ? MODULE_TERMINATION : MODULE_FUNCTION;
  const FieldText name = field_text(field, NAME_FIELD);
  RvxText reason{};
  if (tqsmod(field, other) == nullptr) {
    rvxtxts(&reason, sizeof reason.text, "there is no module \"%s\"", name.text);
  } else {
    rvxtxts(&reason, sizeof reason.text, "module \"%s\" is %s termination module", name.text,
            other == MODULE_TERMINATION ? "a" : "no");
  }
  return reason;
}

static int refuse_name(const ARGMTS* argm, int message, int position, const ModuleKind& kind,
                       const RvxText& reason, int code) {
  xpmlog(CALLING_SURFACE, message,
         {call_name(argm).text, static_cast<long>(position), kind.role, reason.text});
  return code;
}

// A name is one text of 1 to 32 characters. It is moved to its field, put to upper case and looked
// up. An absent name is no mistake, except for the objective.
int read_module(ARGMTS* argm, TQLARG** arg, long narg, int position, int code) {
  const ModuleKind& kind = *module_kind(code);
  const Argument name = look_at_argument(arg, narg, position);
  if (name.kind == ARGUMENT_ABSENT && code != CALL_OBJECTIVE) return 0;

  const NameMessages* numbers = std::begin(NAME_MESSAGES);
  while (numbers->code != code) ++numbers;
  const bool single = name.kind == ARGUMENT_NAME && name.rows == 1 && name.cols == 1;
  if (!single || name.length < 1 || name.length > NAME_FIELD || name.data == nullptr) {
    return refuse_name(argm, numbers->not_a_name, position, kind, name_fault(name),
                       ENTRY_BAD_ARGUMENT);
  }
  char* field = argm->*kind.name;
  wzstmov(field, NAME_FIELD, static_cast<const char*>(name.data), name.length);
  wzstrup(field, NAME_FIELD);
  argm->*kind.handle = tqsmod(field, kind.kind);
  if (argm->*kind.handle == nullptr) {
    return refuse_name(argm, numbers->not_found, position, kind, search_fault(field, kind.kind),
                       ENTRY_NO_MODULE);
  }
  argm->*kind.given = 1;
  return 0;
}

// ---- Matrices -----------------------------------------------------------------------------------

// The start point gives the number of parameters, by which all other shapes are judged.
int read_start(ARGMTS* argm, TQLARG** arg, long narg, int position) {
  const Argument x0 = look_at_argument(arg, narg, position);
  if (!is_vector(x0) || elements(x0) > MOST_ELEMENTS) {
    return refuse_shape(argm, 132, position, x0);
  }
  argm->iargx = position;
  argm->n = static_cast<int>(elements(x0));
  argm->xinp = static_cast<double*>(x0.data);
  // An infinite start is no point: every difference and every step from it is undefined.
  for (long j = 0; j < argm->n; ++j) {
    if (!std::isinf(argm->xinp[j])) continue;
    xpmlog(CALLING_SURFACE, 195, {call_name(argm).text, static_cast<long>(position), j + 1});
    return ENTRY_BAD_ARGUMENT;
  }
  return 0;
}

// A quadratic's matrix: n x n, or rows (i, j, value) from order 4 on. Below order 4 a matrix of
// three columns could be either; it is taken as dense, where the sparse form gains nothing.
static int read_quadratic(ARGMTS* argm, TQLARG** arg, long narg) {
  const Argument matrix = look_at_argument(arg, narg, POSITION_FUN);
  const long n = argm->n;
  const bool dense = matrix.rows == n && matrix.cols == n;
  const bool sparse = n >= LEAST_SPARSE_ORDER && matrix.cols == SPARSE_COLUMNS;
  if (matrix.kind != ARGUMENT_MATRIX || (!dense && !sparse)) {
    return refuse_shape(argm, 160, POSITION_FUN, matrix, n);
  }
  argm->qmat = static_cast<double*>(matrix.data);
  argm->hrow = dense ? 0 : matrix.rows;
  return 0;
}

// The vector of a quadratic's linear term, with the constant as an extra element. A constant that
// is missing is none.
static int read_linear_term(ARGMTS* argm, TQLARG** arg, long narg, int position) {
  const Argument vector = look_at_argument(arg, narg, position);
  if (vector.kind == ARGUMENT_ABSENT) return 0;
  const long n = argm->n;
  if (!is_vector(vector) || (elements(vector) != n && elements(vector) != n + 1)) {
    return refuse_shape(argm, 159, position, vector, n);
  }
  argm->iargq = position;
  argm->qvec = static_cast<double*>(vector.data);
  argm->qlin = 1;
  argm->qcon = elements(vector) == n + 1 && !std::isnan(argm->qvec[n]) ? 1 : 0;
  return 0;
}

// A vector of settings: absent, a row or a column.
static int read_settings(ARGMTS* argm, TQLARG** arg, long narg, int position, int message,
                         double** data, int* count) {
  const Argument vector = look_at_argument(arg, narg, position);
  if (vector.kind == ARGUMENT_ABSENT) return 0;
  if (!is_vector(vector)) return refuse_shape(argm, message, position, vector);
  *data = static_cast<double*>(vector.data);
  *count = static_cast<int>(std::min(elements(vector), MOST_ELEMENTS));
  return 0;
}

// One or two rows are bounds alone, and may leave operator and right-hand side out.
int read_constraint_matrix(ARGMTS* argm, TQLARG** arg, long narg, int position) {
  const Argument blc = look_at_argument(arg, narg, position);
  if (blc.kind == ARGUMENT_ABSENT) return 0;
  const long n = argm->n;
  const bool bounds_alone = blc.rows <= 2;
  const bool fits = blc.cols == n + 2 || (bounds_alone && blc.cols == n);
  if (blc.kind != ARGUMENT_MATRIX || !fits || blc.rows > MOST_ELEMENTS ||
      blc.cols > MOST_ELEMENTS) {
    return refuse_shape(argm, 138, position, blc, n);
  }
  // Operator and right-hand side of the two rows of bounds have no meaning.
  if (bounds_alone && blc.cols > n) {
    xpmlog(CALLING_SURFACE, 172, {call_name(argm).text, static_cast<long>(position), blc.cols, n});
  }
  argm->iargc = position;
  argm->cons = static_cast<double*>(blc.data);
  argm->ncon = static_cast<int>(blc.rows);
  argm->ccol = static_cast<int>(blc.cols);
  remark_forgotten_bound_rows(argm);
  return 0;
}

// ---- The list -----------------------------------------------------------------------------------

// Reads the argument of a role; the layouts say which role a position has.
static int read_role(ARGMTS* argm, TQLARG** arg, long narg, int position, Role role) {
  switch (role) {
    case Role::gradient:
      return read_module(argm, arg, narg, position, CALL_GRADIENT);
    case Role::hessian:
      return read_module(argm, arg, narg, position, CALL_HESSIAN);
    case Role::constraints:
      return read_module(argm, arg, narg, position, CALL_CONSTRAINTS);
    case Role::constraint_jacobian:
      return read_module(argm, arg, narg, position, CALL_CONSTRAINT_JACOBIAN);
    case Role::linear_term:
      return read_linear_term(argm, arg, narg, position);
    case Role::none:
      break;
  }
  return 0;
}

// The settings and constraints, positions 3 to 6, in every layout the same.
static int read_vectors(ARGMTS* argm, TQLARG** arg, long narg) {
  int rc = read_settings(argm, arg, narg, POSITION_OPT, 139, &argm->optn, &argm->nopt);
  if (rc == 0) rc = read_constraint_matrix(argm, arg, narg, POSITION_BLC);
  if (rc == 0) rc = read_settings(argm, arg, narg, POSITION_TC, 153, &argm->tcri, &argm->nitc);
  if (rc == 0) rc = read_settings(argm, arg, narg, POSITION_PAR, 133, &argm->parm, &argm->npar);
  return rc;
}

// Reads in the order of the positions, except that a quadratic's matrix waits for the number of
// parameters. The first mistake ends it.
int getargm(ARGMTS* argm, TQLARG** arg, long narg, int ider, int job) {
  int rc = refuse_too_few(argm, narg, ider == READ_JACOBIAN ? POSITION_OPT : POSITION_X0);
  if (rc == 0 && job != ARGS_QUADRATIC) {
    rc = read_module(argm, arg, narg, POSITION_FUN, CALL_OBJECTIVE);
  }
  if (rc == 0) rc = read_start(argm, arg, narg, POSITION_X0);
  if (rc == 0 && job == ARGS_QUADRATIC) rc = read_quadratic(argm, arg, narg);
  if (rc == 0) rc = read_vectors(argm, arg, narg);
  if (rc == 0) rc = read_module(argm, arg, narg, POSITION_PTIT, CALL_TERMINATION);
  for (int k = 0; k < OTHERS && rc == 0; ++k) {
    rc = read_role(argm, arg, narg, POSITION_FIRST_OTHER + k, LAYOUT[job][k]);
  }
  // A Hessian without a gradient would be of no use: the gradient's differences cost as much as the
  // Hessian's.
  if (rc == 0 && argm->ihmod != 0 && argm->igmod == 0) {
    xpmlog(CALLING_SURFACE, 145,
           {call_name(argm).text, module_name(argm, *module_kind(CALL_HESSIAN)).text});
    argm->ihmod = 0;
    argm->hesptr = nullptr;
  }
  if (rc == 0 && argm->jcmod != 0 && argm->icmod == 0) {
    const ModuleKind& kind = *module_kind(CALL_CONSTRAINT_JACOBIAN);
    xpmlog(CALLING_SURFACE, 179, {call_name(argm).text, module_name(argm, kind).text});
  }
  return rc;
}

}  // namespace tqnlp
