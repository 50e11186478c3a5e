// The callback bridge (source tqxnlp): the user's modules as callbacks of the problem record.
//
// Before a run setss prepares a call of each module once. At each evaluation a bridge function
// copies x into the module's argument matrix, runs the module through the host, checks the result
// and copies its values into the record, negated when the run maximizes. Without a module it goes
// to the difference services.
//
// What all bridge functions share: tbig is nonzero during the run and after a failure, and 0 after
// success; the module's error flag in ARGMTS says what the last call came to. A result of wrong
// kind or shape is logged once until a call succeeds. Nothing is allocated in an evaluation, unless
// the host has taken the argument matrix away.
#pragma once

#include "aasubs/record/minstr.h"
#include "aasubs/setup/evaluations.h"
#include "front/argmts.h"

namespace tqnlp {

// Answers of bridge functions, beside those of half_sum_of_squares.
inline constexpr int EVALUATED = 0;
inline constexpr int EVALUATION_NO_MEMORY = 1;  // the argument matrix could not be taken again
inline constexpr int EVALUATION_FAILED = -11;   // module failed, missing or infinite value, shape
inline constexpr int HESSIAN_GRADIENT_FAILED = -2;  // nlphess: the gradient that goes with it
inline constexpr int HESSIAN_NOT_USABLE = -3;       // nlphess: outside the pattern, or incomplete
inline constexpr int HESSIAN_FAILED = -4;           // nlphess: module failed or wrong shape

// ---- Preparation --------------------------------------------------------------------------------

// Prepares the call of a module (call codes of tqxnlp_modules.h), whose handle stands in ARGMTS:
// takes the TQLSS record and the argument matrix. Returns 0, 1 without memory (logged), or the
// host's nonzero status.
int setss(MINSTR* str, int job);

// Gives back what setss took, for all modules.
void release_prepared_calls(ARGMTS* argm);

// ---- Callbacks ----------------------------------------------------------------------------------

// Objective: crit, and func. 0, -11, 1; with least squares 2 and 3. Counts nfct unless indf is 7 or
// more or a differentiation is under way. crit is the largest double while there is no value.
int nlpfunc(MINSTR* str);
// Gradient into grad. 0, -11, 1. Counts ngrd.
int nlpgrad(MINSTR* str);
// Hessian into hess, and the gradient at the same point into grad. 0, -2, 1, -4, -3.
int nlphess(MINSTR* str);
// Least squares: gradient J'f into grad and J to the Jacobian store. 0, -11, 1. nlpjgrd stands for
// usgrd, nlpjacm for usjac; nlpcrpj, for ushes, also forms J'J into hess, and may answer 3.
int nlpjgrd(MINSTR* str);
int nlpjacm(MINSTR* str);
int nlpcrpj(MINSTR* str);
// Nonlinear constraints into fcon, their Jacobian into jcon. 0, -11, 1; 0 at once without any.
int nlpnlco(MINSTR* str);
int nlpjcon(MINSTR* str);
// Termination test: the value of the user's module for (x, crit), truncated, or -11; -5 when the
// module has been asked about one and the same point too often. 0 (go on) does not hide the
// negative job of a technique that has ended. Without a module the variable
// "_ITER_" is set and znlptrm asked.
int nlpterm(MINSTR* str, int job);

// ---- What the bridge functions are made of ------------------------------------------------------

struct ResultShape {
  long rows;
  long cols;
  bool either_way;  // cols x rows is as good
};

// What the elements of a result must be. An infinite derivative or constraint value is as useless
// to a technique as a missing one. Where `any` stands, the caller looks for itself.
enum class Elements { any, present, finite };

// Runs a prepared module at x and checks what it gave: kind and shape (logged under `message`), and
// its elements. Returns 0, -11 or 1 and sets *flag and tbig. After 0 the numbers stand at
// ss->result->data until the module runs again.
int run_module(MINSTR* str, TQLSS* ss, const ResultShape& shape, Elements elements, int message,
               int* flag);

// Ends an evaluation of a module that has no usable value, and remembers which one it was. -11.
int module_failed(MINSTR* str, const TQLSS* ss, int* flag);

// Ends an evaluation: sets tbig and the error flag by code, and returns code.
int end_evaluation(MINSTR* str, int* flag, int code);

// ---- Sparse Hessians (tqxnlp_bridge_sparse.cpp)
// ---------------------------------------------------

// Does the Hessian's module give rows (i, j, value)? hrow may also count those of a quadratic.
inline bool hessian_by_rows(const ARGMTS* argm) { return argm->hrow != 0 && argm->ihmod != 0; }

// Chooses the form of a Hessian of which the module gives rows (i, j, value): runs the module at x,
// before the first evaluation of a technique, and sets hfrm and shes from the places that it names.
// NEWRAP alone works with the sparse form; for the other techniques the rows are spread into the
// packed one, unless the Hessian is diagonal. Returns 0; -2 when the module failed or named a place
// that cannot be (logged); 1 when memory is refused.
int nlphstr(MINSTR* str);

// What is wrong with a row (i, j, value).
enum class RowFault { none, outside, no_number, disagrees };
struct RowsTaken {
  RowFault fault = RowFault::none;
  long row = -1;
  double other = MISSING;  // disagrees: the value that an earlier row gave
};

// hrow rows into hess, in the form in use: rows with a missing value are skipped, what no row names
// is zero. Stops at the first row that cannot be meant.
RowsTaken take_hessian_rows(MINSTR* str, const double* values);

// The same for the rows that the Hessian's module gave. False, with a line in the log that names
// the row and the element, for one that cannot be meant.
bool take_sparse_hessian(MINSTR* str, const double* values);

// ---- Quadratic (tqxnlp_bridge_quadratic.cpp) ----------------------------------------------------

// Looks at the matrix and the linear term of a quadratic and chooses the form of hess, with its
// pattern. Returns 0; 6, with a line in the log that names the element or row, for what cannot be
// meant; 1 when memory is refused.
int prepare_quadratic(MINSTR* str);

// Matrix, linear term and constant into the arrays, negated when the run maximizes. Returns 0 or 6
// as above.
int load_quadratic(MINSTR* str);

// Objective and gradient of the quadratic. 0, or -11 for a value that is not finite. Counts as
// nlpfunc and nlpgrad. The matrix stands in hess for the run, so that nlpgqad also stands for
// ushes.
int nlpfqad(MINSTR* str);
int nlpgqad(MINSTR* str);

// ---- Difference services ------------------------------------------------------------------------

// Calls the service of a digit while function calls (for the Hessian gradient calls too) are not
// counted. Returns 0, or -11 with tbig and *flag set.
int run_difference_service(MINSTR* str, int digit, int* flag);

// ---- The variable "_ITER_" ----------------------------------------------------------------------

// Prepares the variable and sets it to x.
void SetUp_iter_(double x, ARGMTS* argm);
// Sets it; null varstr does nothing. A refusal of the host leaves it unset.
void Export_iter_(double value, ITERVAR* varstr);

}  // namespace tqnlp
