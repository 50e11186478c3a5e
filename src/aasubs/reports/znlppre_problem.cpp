// pritech: PRInts the TECHnique: what is to be solved, how, and within which limits.
//
// Two tables of labels and values, written once before the run. Every choice of the record that a
// reader may not remember is put into words; what does not apply to the technique is left out.
//
//   "InputOpts"            limits, tolerances that are not the default ones, typical sizes
//   "ProblemDescription"   method | differences | sizes | form of the Hessian
//
// Words are messages. Where a number of the record selects one, the messages of a choice lie in a
// row behind a base (report_messages.h): base + number. A number outside of the choice must be
// caught before that, as it would name another message.
#include <algorithm>
#include <cmath>
#include <iterator>

#include "aasubs/record/stop_codes.h"
#include "aasubs/reports/report_tables.h"
#include "aasubs/reports/znlppre.h"
#include "aasubs/reports/znlppre_criteria.h"

namespace tqnlp {

static bool is_sequential_quadratic(const MINSTR* str) {
  return str->tech == QUANEW_DUAL && str->nlicon != 0;
}

// ---- Limits and criteria ------------------------------------------------------------------------

// The tolerance that a criterion has when the user gives none, by the code of the criterion. These
// are the defaults with which a call fills the record; a change there belongs here too.
static double default_tolerance(const MINSTR* str, int code) {
  static constexpr double LN_10 = 2.302585092994046;
  static constexpr double FCONV_WITHOUT_DIGITS = 2.2204460492503141e-16;
  const bool simplex = is_simplex(str->tech);
  const bool nonlinear = str->nlicon != 0;
  switch (code) {
    case 1:
      return str->imax != 0 ? ROOT_HUGE : -ROOT_HUGE;
    case 3:
      return simplex ? 0.0 : 1e-5;
    case 4:
      if (!simplex) return 0.0;
      return nonlinear ? 1e-4 : 1e-8;
    case 5:
      return str->fdig > 0.0 ? std::exp(str->fdig * -LN_10) : FCONV_WITHOUT_DIGITS;
    case 6:
      return simplex ? 0.0 : 1e-8;
    case 7:
      return simplex && !nonlinear ? 1e-8 : 0.0;
    case 8:
      return simplex || nonlinear ? 1e-6 : 0.0;
    default:
      return 0.0;
  }
}

// A default that was formed by another route differs in its last bits; a user's choice does not.
static bool is_default(const MINSTR* str, const Criterion& c) {
  static constexpr double ROUNDING = 1e-12;
  const double usual = default_tolerance(str, c.code);
  return std::fabs(str->*c.tolerance - usual) <= ROUNDING * std::fabs(usual);
}

// Limits always, tolerances only where the user has changed one: the table then shows the user's
// choices at a glance, and the summary at the end has all criteria with their tolerances.
static void write_options(MINSTR* str) {
  RvxObject** table = &str->out;
  open_table(str->rvx, table, "InputOpts", TITLE_OPTIONS);
  add_pair(table, LABEL_MAX_ITERATIONS, str->maxi);
  add_pair(table, LABEL_MAX_CALLS, str->maxf);
  if (str->upti < HUGE_VALUE) {
    add_pair(table, LABEL_MAX_SECONDS, str->upti);
  } else {
    add_word_pair(table, LABEL_MAX_SECONDS, WORD_NO_LIMIT);
  }
  for (const Criterion& c : CRITERIA) {
    if (criterion_applies(str, c.code) && !is_default(str, c)) {
      add_pair(table, LABEL_CRITERION + c.code, str->*c.tolerance);
    }
  }
  if (str->fsiz != 0.0) add_pair(table, LABEL_FSIZE, str->fsiz);
  if (str->xsiz != 0.0) add_pair(table, LABEL_XSIZE, str->xsiz);
  close_table(table);
}

// ---- Method -------------------------------------------------------------------------------------

// A technique number may stand for several methods: nonlinear constraints turn the simplex into
// COBYLA and quasi-Newton into sequential quadratic programming.
int technique_word(const MINSTR* str) {
  static constexpr int MONOTONE_OR_BARRIER = 1;
  if (str->tech == NMSIMP && str->nlicon != 0) return WORD_TECHNIQUE_COBYLA;
  if (is_sequential_quadratic(str)) return WORD_TECHNIQUE_SQP;
  if (str->tech == QUADAS && str->vers == MONOTONE_OR_BARRIER) return WORD_TECHNIQUE_BARRIER;
  const bool known = (str->tech >= 1 && str->tech <= 16) || str->tech == VMCWD;
  return WORD_TECHNIQUE + (known ? str->tech : 1);
}

// Message of the update in words; 0 when the technique has none. Technique 10 updates the inverse,
// for which the words differ; for conjugate gradients tupd chooses the formula of the direction.
static int update_word(const MINSTR* str) {
  static constexpr int CONJUGATE_RULES = 4;
  switch (str->tech) {
    case DBLDOG:
    case QUANEW_DUAL:
    case HYQUAN:
      return WORD_UPDATE + (str->tupd == 2 ? 2 : 1);
    case QUANEW:
      return WORD_UPDATE_OF_INVERSE + (str->tupd == 2 ? 2 : 1);
    case CONGRA:
      return WORD_CONJUGATE_DIRECTION + std::clamp(str->tupd, 1, CONJUGATE_RULES);
    default:
      return 0;
  }
}

// The version switch chooses the merit rule of the sequential quadratic method and the choice of
// the matrix in HYQUAN; elsewhere the name of the technique says all.
static bool version_matters(const MINSTR* str) {
  return is_sequential_quadratic(str) || str->tech == HYQUAN;
}

// The sequential quadratic method has a line search of its own on the merit function, which tlin
// does not choose.
static bool uses_line_search(const MINSTR* str) {
  static constexpr int WITH_LINE_SEARCH[] = {NEWRAP, QUANEW, QUANEW_DUAL, HYQUAN, CONGRA};
  return !is_sequential_quadratic(str) &&
         std::find(std::begin(WITH_LINE_SEARCH), std::end(WITH_LINE_SEARCH), str->tech) !=
             std::end(WITH_LINE_SEARCH);
}

static int line_search_word(const MINSTR* str) {
  static constexpr int DEFAULT_METHOD = 2;  // also what any number without a method selects
  static constexpr int LAST_METHOD = 8;
  static constexpr int OF_RESIDUALS = 12;
  if (str->tlin == OF_RESIDUALS && str->tech == HYQUAN) return WORD_LINE_SEARCH + OF_RESIDUALS;
  const bool known = str->tlin >= 1 && str->tlin <= LAST_METHOD;
  return WORD_LINE_SEARCH + (known ? str->tlin : DEFAULT_METHOD);
}

static void write_method(MINSTR* str, RvxObject** table) {
  add_word_pair(table, LABEL_TECHNIQUE, technique_word(str));
  if (const int word = update_word(str); word != 0) add_word_pair(table, LABEL_UPDATE, word);
  if (version_matters(str)) add_pair(table, LABEL_VERSION, static_cast<long>(str->vers));
  if (uses_line_search(str)) add_word_pair(table, LABEL_LINE_SEARCH, line_search_word(str));
}

// ---- Differences --------------------------------------------------------------------------------

// A row for a derivative that digit k of fidi forms by forward (1) or central (other) differences.
static void write_difference_form(MINSTR* str, RvxObject** table, int label, int k) {
  const int digit = fidi_digit(str->fidi, k);
  if (digit != 0) add_word_pair(table, label, digit == 1 ? WORD_FORWARD : WORD_CENTRAL);
}

// Which derivatives are formed by differences, digit by digit of fidi; nothing where all are the
// user's. ider tells which digit beyond the gradient's the technique uses.
static void write_differences(MINSTR* str, RvxObject** table) {
  static constexpr int LARGEST_HESSIAN_DIGIT = 4;
  static constexpr int LARGEST_INTERVAL_CHOICE = 3;
  write_difference_form(str, table, LABEL_GRADIENT, 0);
  if (str->ider == 2) write_difference_form(str, table, LABEL_JACOBIAN, 1);
  if (str->ider == 3) write_difference_form(str, table, LABEL_CROSSPRODUCT, 2);
  if (str->ider == 4) {
    const int digit = fidi_digit(str->fidi, 3);
    if (digit >= 1 && digit <= LARGEST_HESSIAN_DIGIT) {
      add_word_pair(table, LABEL_HESSIAN, WORD_HESSIAN_DIFFERENCES + digit);
    }
  }
  if (str->nlicon != 0) write_difference_form(str, table, LABEL_CONSTRAINT_JACOBIAN, 4);
  if (str->cfdh >= 1 && str->cfdh <= LARGEST_INTERVAL_CHOICE) {
    add_word_pair(table, LABEL_INTERVALS, WORD_INTERVALS + str->cfdh);
  }
}

// ---- Sizes --------------------------------------------------------------------------------------

// Numbers of parameters and constraints; a kind of which the problem has none is left out.
static void write_sizes(MINSTR* str, RvxObject** table) {
  add_pair(table, LABEL_PARAMETERS, str->nvar);
  if (str->bounds != 0) {
    const long lower = std::count_if(str->lb, str->lb + str->nvar, lower_exists);
    const long upper = std::count_if(str->ub, str->ub + str->nvar, upper_exists);
    add_pair(table, LABEL_LOWER_BOUNDS, lower);
    add_pair(table, LABEL_UPPER_BOUNDS, upper);
  }
  if (str->ncon != 0) add_pair(table, LABEL_LINEAR, str->ncon);
  if (str->nnlc != 0) add_pair(table, LABEL_NONLINEAR, str->nnlc);
  if (str->nlec != 0) add_pair(table, LABEL_NONLINEAR_EQUALITIES, str->nlec);
}

void pritech(MINSTR* str) {
  if (str->dbug == 0.0) return;
  write_options(str);
  RvxObject** table = &str->out;
  open_table(str->rvx, table, "ProblemDescription", TITLE_PROBLEM);
  write_method(str, table);
  write_differences(str, table);
  write_sizes(str, table);
  if (str->hfrm == 1) add_word_pair(table, LABEL_HESSIAN_FORM, WORD_SPARSE);
  if (str->hfrm == 2) add_word_pair(table, LABEL_HESSIAN_FORM, WORD_DIAGONAL);
  close_table(table);
}

}  // namespace tqnlp
