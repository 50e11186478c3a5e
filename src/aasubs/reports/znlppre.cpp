// znlppre: PRints the REsults of a point: parameters, function values, difference intervals,
// constraints, multipliers, projected gradient.
//
// Each table is one function: it describes its row as a local record, binds the columns to it, and
// writes a row an element.
//
//   open_table(...)                      the record's field of this table is set
//   add_column(table, "Name", &row.x)    the host keeps the address, not the value
//   row.x = ...;  add_row(table)         it reads all addresses now
//   close_table(table)                   from here on the row may go
//
// A column that does not apply to the problem is left out as a whole; a value that is missing
// leaves its cell empty. A title text stands in the first row only (HeadText). Siblings:
// znlppre_problem (pritech), znlppre_constraints (pricon and its family, prinlc), znlppre_stop
// (znlpptm), znlppre_matrix (znlppmt).
#include "aasubs/reports/znlppre.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "aasubs/record/covstr.h"
#include "aasubs/reports/report_tables.h"
#include "kernels/distributions.h"

namespace tqnlp {

static constexpr int WITH_CONSTRAINTS = 2;
static constexpr int WITH_MULTIPLIERS = 3;

static long free_parameters(const MINSTR* str) { return str->nvar - str->nabc; }

// ---- Probability of a t value -------------------------------------------------------------------

// P(|T| > |t|) for df degrees of freedom; the normal distribution when they are not known. Both
// tails at once: 1 minus a distribution function would lose the small probabilities that matter.
static double probability_beyond(double t, double df) {
  if (wzmis(t) || std::isnan(t)) return MISSING;
  if (wzmis(df) || !(df > 0.0)) return std::erfc(std::fabs(t) / std::sqrt(2.0));
  return zbetai(0.5 * df, 0.5, df / (df + t * t));
}

// ---- Parameters ---------------------------------------------------------------------------------

// Which optional columns the table has: one choice for all rows.
struct EstimateColumns {
  bool errors, gradient, lagrangian, bounds, active, dependent;
};

struct EstimateRow {
  HeadText head;
  long number;
  RvxText parameter;
  double estimate, error, t, probability, gradient, lagrangian, lower, upper;
  RvxText active, dependent;
};

static bool any_status(const MINSTR* str, bool fixed_only) {
  return std::any_of(str->iabc, str->iabc + str->nvar,
                     [=](int status) { return fixed_only ? status == 2 : status != 0; });
}

// Bounds and fixed parameters are told at the start; errors, active bounds and those left out as
// dependent at the end. At a start that failed there are no derivatives to show, but the bounds,
// which x may violate.
static EstimateColumns choose_columns(const MINSTR* str, int job) {
  EstimateColumns c{};
  const bool start = job < 0;
  c.errors = !start && str->ster != nullptr;
  if (job != INFEASIBLE_START) {
    c.gradient = str->usgrd != nullptr;
    c.lagrangian = str->nlicon != 0 && str->opro != 0;
  }
  if (str->bounds == 0) return c;
  c.bounds = start;
  c.active = any_status(str, start);
  c.dependent = !start && str->nlbc != 0;
  return c;
}

static void add_estimate_columns(RvxObject** table, const EstimateColumns& c, EstimateRow& row) {
  add_column(table, "TitleText1", &row.head.cell);
  add_column(table, "Number", &row.number);
  add_column(table, "Parameter", &row.parameter);
  add_column(table, "Estimate", &row.estimate);
  if (c.errors) {
    add_column(table, "AppStdErr", &row.error);
    add_column(table, "tValue", &row.t);
    add_column(table, "Probt", &row.probability);
  }
  if (c.gradient) add_column(table, "GradObj", &row.gradient);
  if (c.lagrangian) add_column(table, "GradLag", &row.lagrangian);
  if (c.bounds) {
    add_column(table, "LowerBC", &row.lower);
    add_column(table, "UpperBC", &row.upper);
  }
  if (c.active) add_column(table, "ActiveBC", &row.active);
  if (c.dependent) add_column(table, "LinDep", &row.dependent);
}

// Is x[j] outside of its bounds by more than the feasibility tolerance, by the rule of the run?
static bool violates_bound(const MINSTR* str, long j) {
  const double eps = feasibility_tolerance(str, str->ipre);
  const double lb = str->lb[j];
  const double ub = str->ub[j];
  return (lower_exists(lb) && str->x[j] < lb - (std::fabs(lb) + 1.0) * eps) ||
         (upper_exists(ub) && str->x[j] > ub + (std::fabs(ub) + 1.0) * eps);
}

// Was the bound of parameter j left out of the working set? It is active, and still among the free.
static bool bound_is_deferred(const MINSTR* str, long j) {
  if (str->iabc[j] == 0 || str->ifxr == nullptr) return false;
  const long* first = str->ifxr;
  const long* end = first + free_parameters(str);
  return std::find(first, end, j) != end;
}

// Standard error, t value and its probability; the last two are missing unless the error is
// positive.
static void fill_errors(const MINSTR* str, long j, EstimateRow& row) {
  row.error = str->ster[j];
  const bool usable = !wzmis(row.error) && row.error > 0.0;
  row.t = usable ? row.estimate / row.error : MISSING;
  row.probability = probability_beyond(row.t, str->covstr != nullptr ? str->covstr->df : MISSING);
}

static void fill_estimate(const MINSTR* str, long j, const EstimateColumns& c, EstimateRow& row) {
  row.number = j + 1;
  row.parameter = parameter_name(str, j);
  row.estimate = str->x[j];
  if (c.errors) fill_errors(str, j, row);
  if (c.gradient) row.gradient = users_value(str, str->grad[j]);
  if (c.lagrangian) row.lagrangian = users_value(str, str->grlf[j]);
  if (c.bounds) {
    row.lower = lower_exists(str->lb[j]) ? str->lb[j] : MISSING;
    row.upper = upper_exists(str->ub[j]) ? str->ub[j] : MISSING;
  }
  if (c.active) {
    row.active = literal_text(violates_bound(str, j) ? "Violat. BC" : bound_kind(str->iabc[j]));
  }
  if (c.dependent) row.dependent = literal_text(bound_is_deferred(str, j) ? " LinDep " : "");
}

static void write_estimates(MINSTR* str, int job) {
  const bool start = job < 0;
  RvxObject** table = &str->parest;
  EstimateRow row{};
  const EstimateColumns columns = choose_columns(str, job);
  open_table(str->rvx, table, "ParameterEstimates",
             start ? TITLE_START_ESTIMATES : TITLE_FINAL_ESTIMATES);
  add_estimate_columns(table, columns, row);
  row.head.set(start ? TEXT_START_ESTIMATES : TEXT_FINAL_ESTIMATES);
  for (long j = 0; j < str->nvar && *table != nullptr; ++j) {
    fill_estimate(str, j, columns, row);
    add_row(table);
    row.head.clear();
  }
  close_table(table);
}

// ---- Function values of least squares -----------------------------------------------------------

static void write_functions(MINSTR* str, int job) {
  RvxObject** table = &str->presid;
  HeadText head;
  long number = 0;
  RvxText function{};
  double value = 0.0;
  open_table(str->rvx, table, "OptStartRes",
             job < 0 ? TITLE_START_ESTIMATES : TITLE_FINAL_ESTIMATES);
  add_column(table, "TitleText1", &head.cell);
  add_column(table, "Number", &number);
  add_column(table, "Function", &function);
  add_column(table, "Value", &value);
  head.set(TEXT_FUNCTIONS);
  for (long i = 0; i < str->mequ && *table != nullptr; ++i) {
    number = i + 1;
    function = str->fnam != nullptr ? unpadded(str->fnam[i]) : numbered_name("F", number);
    value = users_value(str, str->func[i]);
    add_row(table);
    head.clear();
  }
  close_table(table);
}

// ---- Difference intervals -----------------------------------------------------------------------

// Forward and central interval side by side; a column for parameters that look constant is there
// only if there are any.
void prifdh(MINSTR* str) {
  if (str->dbug == 0.0 || str->hfwd == nullptr) return;
  const long n = str->nvar;
  const bool constants =
      str->ofco != nullptr && std::any_of(str->ofco, str->ofco + n, [](short c) { return c != 0; });
  RvxObject** table = &str->fdest;
  HeadText head;
  long number = 0;
  RvxText parameter{}, constant{};
  double estimate = 0.0, forward = 0.0, central = 0.0;
  open_table(str->rvx, table, "FiniteDiff", TITLE_INTERVALS);
  add_column(table, "TitleText2", &head.cell);
  add_column(table, "Number", &number);
  add_column(table, "Parameter", &parameter);
  add_column(table, "Estimate", &estimate);
  add_column(table, "Forward", &forward);
  add_column(table, "Central", &central);
  if (constants) add_column(table, "Constant", &constant);
  head.set(TEXT_INTERVALS);
  for (long j = 0; j < n && *table != nullptr; ++j) {
    number = j + 1;
    parameter = parameter_name(str, j);
    estimate = str->x[j];
    forward = str->hfwd[j];
    central = str->hcnt[j];
    if (constants) constant = str->ofco[j] != 0 ? report_text(WORD_CONSTANT) : RvxText{};
    add_row(table);
    head.clear();
  }
  close_table(table);
}

// ---- Multipliers and projected gradient ---------------------------------------------------------

// first and second order estimate of one active constraint's multiplier.
struct MultiplierRow {
  HeadText head;
  long number;
  RvxText kind, name;
  double first, second;
};

static void write_multipliers(MINSTR* str) {
  RvxObject** table = &str->lagmul;
  MultiplierRow row{};
  const bool second_form = str->ulm2 != 0 && str->lag2 != nullptr;
  open_table(str->rvx, table, "Lagrange", TITLE_MULTIPLIERS);
  add_column(table, "TitleText", &row.head.cell);
  add_column(table, "Number", &row.number);
  add_column(table, "Parameter1", &row.kind);
  add_column(table, "Parameter2", &row.name);
  add_column(table, "Lagrange", &row.first);
  if (second_form) add_column(table, "SecondOrder", &row.second);
  row.head.set(second_form ? TEXT_SECOND_ORDER_MULTIPLIERS : TEXT_MULTIPLIERS);
  // Bounds in the order of the tail of ifxr, then general constraints in the order of iact.
  for (long k = 0; k < str->nabc + str->nalc && *table != nullptr; ++k) {
    row.number = k + 1;
    if (k < str->nabc) {
      const long j = str->ifxr[free_parameters(str) + k];
      row.kind = literal_text(bound_kind(str->iabc[j]));
      row.name = parameter_name(str, j);
    } else {
      const long c = str->iact[k - str->nabc];
      row.kind = literal_text(constraint_kind(str, c));
      row.name = constraint_name(str, c);
    }
    row.first = users_value(str, str->lagm[k]);
    if (second_form) row.second = users_value(str, str->lag2[k]);
    add_row(table);
    row.head.clear();
  }
  close_table(table);
}

// The reduced gradient in the subspace that the working set leaves free: its size decides
// convergence, while the gradient itself need not vanish.
static void write_projected_gradient(MINSTR* str) {
  const long dimension = free_parameters(str) - str->nalc;
  if (dimension <= 0) return;
  // Without active general constraints the reduced space is spanned by the free parameters.
  const bool by_parameter = str->nalc == 0;
  RvxObject** table = &str->projgra;
  HeadText head;
  long number = 0;
  RvxText direction{};
  double gradient = 0.0;
  open_table(str->rvx, table, "ProjGrad", TITLE_PROJECTED_GRADIENT);
  add_column(table, "TitleText", &head.cell);
  add_column(table, "Number", &number);
  add_column(table, "FreeDimension", &direction);
  add_column(table, "ProjGrad", &gradient);
  head.set(TEXT_PROJECTED_GRADIENT);
  for (long k = 0; k < dimension && *table != nullptr; ++k) {
    number = k + 1;
    direction = by_parameter ? parameter_name(str, str->ifxr[k]) : numbered_name("Z", number);
    gradient = users_value(str, str->gpro[k]);
    add_row(table);
    head.clear();
  }
  close_table(table);
}

// ---- All tables of a point ----------------------------------------------------------------------

// At the start linear constraints are shown as conditions on x, at the end as equations of their
// residuals.
static void write_constraints(MINSTR* str, int job) {
  if (str->ncon > 0) {
    if (job < 0) {
      pricon1(str, job);
    } else {
      pricon2(str);
    }
  }
  pricon3(str);
  if (str->nlicon != 0) prinlc(str, job);
}

void znlppre(MINSTR* str, int job, int pfun) {
  if (str->dbug == 0.0) return;
  const int level = std::abs(job);
  write_estimates(str, job);
  if (str->lsqu != 0 && pfun != 0) write_functions(str, job);
  if (job != INFEASIBLE_START && str->cfdh != 0) prifdh(str);
  if (level >= WITH_CONSTRAINTS) write_constraints(str, job);
  // Without an objective and its gradient there are no multipliers and no projection to show.
  if (level < WITH_MULTIPLIERS || job == INFEASIBLE_START || wzmis(str->crit)) return;
  const bool range_space = in_range_space(str);
  if ((str->opro == 0 && !range_space) || str->nabc + str->nalc == 0) return;
  write_multipliers(str);
  // The range-space frame has no basis along which the gradient could be shown.
  if (!range_space) write_projected_gradient(str);
}

}  // namespace tqnlp
