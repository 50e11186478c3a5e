// tqxnlp, the remarks on a call. The vectors of settings are decoded without a word: what is out of
// range is limited or ignored. Here the elements are compared with their ranges once more, and each
// that had to be replaced is named, with what is used in its place.
#include "front/tqxnlp_remarks.h"

#include <algorithm>
#include <cmath>

#include "front/tqxnlp_decode.h"
#include "front/tqxnlp_modules.h"
#include "host/log.h"
#include "host/tables.h"

namespace tqnlp {

namespace {

// An element of opt and the values that mean something.
struct OptionRange {
  int element;
  double low, high;
  bool (*read)(const MINSTR* str);            // does the technique look at it?
  RvxText (*replacement)(const MINSTR* str);  // what is used in place of another value
};

// An element of par. Where taken is "positive", 0 and less keep the default: of these only numbers
// below 0 can have been meant.
struct ParameterRange {
  int element;
  double low, high;
  bool positive;
  double MINSTR::*field;
};

}  // namespace

static RvxText number_in_use(double value) {
  RvxText text{};
  if (wzmis(value)) {
    rvxtxts(&text, sizeof text.text - 1, "the default");
  } else {
    rvxtxts(&text, sizeof text.text - 1, "%.6g", value);
  }
  return text;
}

static bool by_any(const MINSTR*) { return true; }

static bool by_scaling_techniques(const MINSTR* str) {
  return (str->tech >= TRUREG && str->tech <= NRRIDG) || str->tech == LEVMAR ||
         str->tech == DBLDOG || str->tech == HYQUAN || str->tech == QUADAS;
}

static bool by_updating_techniques(const MINSTR* str) {
  return str->tech >= DBLDOG && str->tech <= CONGRA;
}

static bool by_searching_techniques(const MINSTR* str) {
  return str->tech == NEWRAP || (str->tech >= QUANEW && str->tech <= CONGRA);
}

// DBLDOG and HYQUAN know two updates, others four.
static double most_updates(const MINSTR* str) {
  return str->tech == DBLDOG || str->tech == HYQUAN ? 2.0 : 4.0;
}

static RvxText scale_in_use(const MINSTR*) {
  RvxText text{};
  rvxtxts(&text, sizeof text.text - 1, "the scale of the first iteration");
  return text;
}

static constexpr double QUADRATIC_SEARCH = 12.0;  // of least squares, beyond the general methods

static constexpr OptionRange OPTION_RANGES[] = {
    {2, 0.0, 9.0, by_any,
     [](const MINSTR* str) { return number_in_use(std::max(str->dbug - 1.0, 0.0)); }},
    {3, 0.0, 3.0, by_scaling_techniques, scale_in_use},
    {4, 0.0, 4.0, by_updating_techniques,
     [](const MINSTR* str) { return number_in_use(str->tupd); }},
    {5, 0.0, 8.0, by_searching_techniques, [](const MINSTR*) { return number_in_use(2.0); }},
    {6, 0.0, 2.0, by_any, [](const MINSTR* str) { return number_in_use(str->vers); }},
    {8, 0.0, 39.0, by_any,
     [](const MINSTR* str) { return number_in_use(10.0 * str->cfdh + std::abs(str->fidi)); }},
};

static constexpr ParameterRange PARAMETER_RANGES[] = {
    {3, SMALLEST_TOLERANCE, HUGE_VALUE, false, &MINSTR::ceps},
    {5, 0.0, 0.1, true, &MINSTR::ldct},
    {6, 0.0, HUGE_VALUE, true, &MINSTR::sigm},
    {7, 0.0, HUGE_VALUE, true, &MINSTR::damp},
    {8, 1.0, 31.3, true, &MINSTR::fdig},
    {9, 1.0, 31.3, true, &MINSTR::cdig},
    {10, 0.0, HUGE_VALUE, true, &MINSTR::dhes},
};

static void log_replaced(const ARGMTS* argm, const char* vector, int element, double value,
                         double low, double high, const RvxText& used) {
  RvxText range{};
  if (high < HUGE_VALUE) {
    rvxtxts(&range, sizeof range.text - 1, "from %.4g to %.4g", low, high);
  } else if (low > 0.0) {
    rvxtxts(&range, sizeof range.text - 1, "at least %.4g", low);
  } else {
    rvxtxts(&range, sizeof range.text - 1, "positive");
  }
  xpmlog(CALLING_SURFACE, 176,
         {call_name(argm).text, static_cast<long>(element), vector, value, range.text, used.text});
}

// NLPNMS looks at element 2 alone. The clamped vector shows an infinite element as 2147483647.
void remark_options(const MINSTR* str, int job) {
  static constexpr int SIMPLEX = 0;
  static constexpr int LEAST_SQUARES = 2;
  const ARGMTS* argm = str->secstr;
  for (const OptionRange& range : OPTION_RANGES) {
    if (range.element > argm->nopt || (job == SIMPLEX && range.element != 2)) continue;
    const double value = argm->optn[range.element - 1];
    const double high = range.element == 4 ? most_updates(str) : range.high;
    if (std::isnan(value) || (value >= range.low && value <= high) || !range.read(str)) continue;
    if (range.element == 5 && job == LEAST_SQUARES && value == QUADRATIC_SEARCH) continue;
    log_replaced(argm, "opt", range.element, value, range.low, high, range.replacement(str));
  }
}

void remark_parameters(const MINSTR* str, int job) {
  const ARGMTS* argm = str->secstr;
  const int reach = std::min(argm->npar, job > 0 ? 10 : 4);
  for (const ParameterRange& range : PARAMETER_RANGES) {
    if (range.element > reach) continue;
    const double value = argm->parm[range.element - 1];
    if (std::isnan(value) || (range.positive && value == 0.0)) continue;
    const bool within = value >= range.low && value <= range.high && std::isfinite(value);
    if (within) continue;
    log_replaced(argm, "par", range.element, value, range.low, range.high,
                 number_in_use(str->*range.field));
  }
}

// A point counts as feasible when it violates by no more than ceps (1 + |right-hand side|).
void remark_feasibility_tolerance(const MINSTR* str, long element) {
  static constexpr double HARDLY_A_CONSTRAINT = 0.1;
  const bool constrained = str->bounds != 0 || str->lincon != 0 || str->nlicon != 0;
  if (!constrained || str->ceps < HARDLY_A_CONSTRAINT) return;
  xpmlog(CALLING_SURFACE, 177, {call_name(str->secstr).text, element, str->ceps});
}

// Cells that are 0 may have been filled by a program that makes its matrix of zeros.
void remark_forgotten_bound_rows(const ARGMTS* argm) {
  static constexpr int BOUND_ROWS = 2;
  if (argm->ccol <= argm->n) return;
  for (long i = 0; i < std::min(argm->ncon, BOUND_ROWS); ++i) {
    const double* cells = argm->cons + i * argm->ccol + argm->n;
    const bool filled =
        std::any_of(cells, cells + 2, [](double cell) { return !std::isnan(cell) && cell != 0.0; });
    if (!filled) continue;
    xpmlog(CALLING_SURFACE, 181,
           {call_name(argm).text, static_cast<long>(argm->iargc), i + 1, argm->n + 1L, argm->n + 2L,
            i == 0 ? "lower" : "upper"});
  }
}

// A row of a vector is no transposed column: where either form is good, neither is remarked on.
void remark_transposed(const ARGMTS* argm, const char* module, const TQLSYM& result, long rows,
                       long cols) {
  if (result.kind != NUMERIC || result.rows != cols || result.cols != rows) return;
  xpmlog(CALLING_SURFACE, 208, {call_name(argm).text, module, rows, cols});
}

void remark_few_functions(const MINSTR* str) {
  if (str->lsqu == 0 || str->mequ >= str->nvar) return;
  xpmlog(CALLING_SURFACE, 209, {call_name(str->secstr).text, str->mequ, str->nvar});
}

// Printed, not logged: it heads the tables of a run.
void announce_run(const MINSTR* str) {
  if (str->dbug == 0.0) return;
  const ARGMTS* argm = str->secstr;
  const FieldText objective = module_name(argm, *module_kind(CALL_OBJECTIVE));
  RvxText what{};
  if (argm->qmat != nullptr) {
    rvxtxts(&what, sizeof what.text - 1, "the quadratic");
  } else if (str->lsqu != 0) {
    rvxtxts(&what, sizeof what.text - 1,
            "half the sum of squares of the %ld functions of module %s", str->mequ, objective.text);
  } else {
    rvxtxts(&what, sizeof what.text - 1, "the objective of module %s", objective.text);
  }
  xpmout(CALLING_SURFACE, 202,
         {call_name(argm).text, str->imax != 0 ? "maximizes" : "minimizes", what.text, str->nvar});
}

}  // namespace tqnlp
