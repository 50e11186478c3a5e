// pricon, pricon1, pricon2, pricon3, prinlc: reports of general constraints.
//
// A linear constraint takes as many rows of a table as it has coefficients. The first row carries
// what belongs to the whole constraint, the others are blank there:
//
//   Number Residual : Restriction Left Relation Sign Coefficient * Parameter
//        1     0.5  :               10    <=      +       2      *    X1
//                                                 -       3      *    X2
//
// Constraints are shown as the run keeps them, a'x >= b read from the left, b <= a'x, except that
// an inequality with more negative than positive coefficients is turned round for reading: the run
// does not remember which way it was given, and this is how people write them.
//
// The residual of a linear constraint is a'x - b, that of a nonlinear one its value, which is to be
// 0 or not below 0. State: VIO beyond the feasibility tolerance, ACT within it, blank inside.
// Linear constraints are judged against the tolerance times |b| + 1, as in the run.
//
// A linear constraint is fetched into awrk, dense, by the callback acget: its compact form is the
// caller's matter. That is why these reports write awrk.
#include <algorithm>
#include <cmath>
#include <string_view>

#include "aasubs/reports/report_tables.h"
#include "aasubs/reports/znlppre.h"

namespace tqnlp {

// ---- Rows of a constraint -----------------------------------------------------------------------

// What a row shows; a number that is missing and a text that is empty leave their cells empty.
struct TermRow {
  HeadText head;
  double number, residual, left, coefficient;
  RvxText colon, restriction, relation, sign, asterisk, parameter;
};

// Which columns a table has, in the order in which they are printed.
using ColumnNames = std::initializer_list<const char*>;

static constexpr ColumnNames AT_THE_START = {"TitleText",   "Number",   "Residual", "Colon",
                                             "Restriction", "Left",     "Relation", "Sign",
                                             "Coefficient", "Asterisk", "Parameter"};
static constexpr ColumnNames AT_THE_RESULT = {"TitleText", "Number",   "Restriction", "Residual",
                                              "Relation",  "Left",     "Sign",        "Coefficient",
                                              "Asterisk",  "Parameter"};
static constexpr ColumnNames REMOVED = {"TitleText",   "Left",     "Relation", "Sign",
                                        "Coefficient", "Asterisk", "Parameter"};

// The variable behind a column, by its name; "Parameter" is what is left.
static RvxArg source_of(TermRow& row, std::string_view name) {
  if (name == "TitleText") return &row.head.cell;
  if (name == "Number") return &row.number;
  if (name == "Residual") return &row.residual;
  if (name == "Colon") return &row.colon;
  if (name == "Restriction") return &row.restriction;
  if (name == "Left") return &row.left;
  if (name == "Relation") return &row.relation;
  if (name == "Sign") return &row.sign;
  if (name == "Coefficient") return &row.coefficient;
  if (name == "Asterisk") return &row.asterisk;
  return &row.parameter;
}

static void add_columns(RvxObject** table, ColumnNames names, TermRow& row) {
  for (const char* name : names) add_column(table, name, source_of(row, name));
}

// What follows the first row of a constraint repeats nothing of it.
static void clear_front(TermRow& row) {
  row.head.clear();
  row.number = row.residual = row.left = MISSING;
  row.colon = row.restriction = row.relation = RvxText{};
}

// Writes the rows of a constraint whose front is filled, with direction -1 turned round.
static void write_terms(const MINSTR* str, RvxObject** table, TermRow& row,
                        const double* coefficients, double direction) {
  bool written = false;
  for (long j = 0; j < str->nvar && *table != nullptr; ++j) {
    const double a = direction * coefficients[j];
    if (a == 0.0) continue;
    row.sign = literal_text(a < 0.0 ? " - " : " + ");
    row.coefficient = std::fabs(a);
    row.asterisk = literal_text(" * ");
    row.parameter = parameter_name(str, j);
    add_row(table);
    clear_front(row);
    written = true;
  }
  // A constraint without coefficients still has its row.
  if (written) return;
  row.sign = row.asterisk = row.parameter = RvxText{};
  row.coefficient = MISSING;
  add_row(table);
  clear_front(row);
}

// State of a constraint with residual r at x: " *?*" when the residual is not known.
static const char* state_of(double residual, bool equality, double tolerance) {
  if (std::isnan(residual)) return " *?*";
  if (equality) return std::fabs(residual) > tolerance ? "VIO" : "ACT";
  if (residual < -tolerance) return "VIO";
  return residual <= tolerance ? "ACT" : "";
}

// Linear constraint i into awrk; its residual a'x - b.
static double take_linear(MINSTR* str, long i) {
  str->acget(str, i, str->awrk);
  double residual = -str->blcn[i];
  // 0 times a missing or infinite parameter would spoil the sum.
  for (long j = 0; j < str->nvar; ++j) {
    if (str->awrk[j] != 0.0) residual += str->awrk[j] * str->x[j];
  }
  return residual;
}

static const char* linear_state(const MINSTR* str, long i, double residual) {
  const double eps = feasibility_tolerance(str, str->ipre);
  return state_of(residual, i < str->neqc, (std::fabs(str->blcn[i]) + 1.0) * eps);
}

// Is a constraint easier to read with all its signs changed?
static bool reads_better_turned(const MINSTR* str, long i) {
  const double* first = str->awrk;
  const double* end = first + str->nvar;
  return i >= str->neqc && std::count_if(first, end, [](double a) { return a < 0.0; }) >
                               std::count_if(first, end, [](double a) { return a > 0.0; });
}

// Left side and relation of the linear constraint in awrk, and its terms.
static void write_linear(const MINSTR* str, RvxObject** table, TermRow& row, long i) {
  const bool turned = reads_better_turned(str, i);
  row.left = turned ? negated(str->blcn[i]) : str->blcn[i];
  row.relation = literal_text(i < str->neqc ? " == " : turned ? " >= " : " <= ");
  write_terms(str, table, row, str->awrk, turned ? -1.0 : 1.0);
}

// All of constraint i. at_a_point false: without residual and state, which belong to a point.
static void write_linear_with_residual(MINSTR* str, RvxObject** table, TermRow& row, long i,
                                       bool at_a_point = true) {
  const double residual = take_linear(str, i);
  row.number = static_cast<double>(i + 1);
  row.residual = at_a_point ? residual : MISSING;
  row.colon = literal_text(":");
  row.restriction = literal_text(at_a_point ? linear_state(str, i, residual) : "");
  write_linear(str, table, row, i);
}

// ---- Linear constraints -------------------------------------------------------------------------

// Rows that a reduction of the constraints has marked in liwk.
void pricon(MINSTR* str, int job) {
  static constexpr int DEPENDENT = 2;
  if (str->dbug == 0.0) return;
  RvxObject** table = &str->licot3;
  TermRow row{};
  open_table(str->rvx, table, "LinConDel",
             job == DEPENDENT ? TITLE_LINEAR_DEPENDENT_REMOVED : TITLE_LINEAR_DUPLICATES);
  add_columns(table, REMOVED, row);
  row.head.set(TEXT_REMOVED);
  for (long i = 0; i < str->ncon && *table != nullptr; ++i) {
    if (str->liwk[i] >= 0) continue;
    str->acget(str, i, str->awrk);
    write_linear(str, table, row, i);
  }
  close_table(table);
}

void pricon1(MINSTR* str, int job) {
  if (str->dbug == 0.0) return;
  RvxObject** table = &str->licot1;
  TermRow row{};
  open_table(str->rvx, table, "LinCon", TITLE_LINEAR_START);
  add_columns(table, AT_THE_START, row);
  row.head.set(TEXT_LINEAR);
  for (long i = 0; i < str->ncon && *table != nullptr; ++i) {
    write_linear_with_residual(str, table, row, i, job < 0);
  }
  close_table(table);
}

void pricon2(MINSTR* str) {
  if (str->dbug == 0.0) return;
  RvxObject** table = &str->licot2;
  TermRow row{};
  open_table(str->rvx, table, "LinConSol", TITLE_LINEAR_SOLUTION);
  add_columns(table, AT_THE_RESULT, row);
  row.head.set(TEXT_LINEAR_RESIDUALS);
  for (long i = 0; i < str->ncon && *table != nullptr; ++i) {
    // The row is the equation of the residual: residual == -b + a'x.
    row.number = static_cast<double>(i + 1);
    row.residual = take_linear(str, i);
    row.restriction = literal_text(linear_state(str, i, row.residual));
    row.relation = literal_text(" == ");
    row.left = negated(str->blcn[i]);
    write_terms(str, table, row, str->awrk, 1.0);
  }
  close_table(table);
}

// ---- Dependencies -------------------------------------------------------------------------------

static void write_dependent_bounds(MINSTR* str) {
  if (str->nlbc == 0 || str->iabc == nullptr) return;
  RvxObject** table = &str->lide;
  RvxText parameter{}, kind{};
  open_table(str->rvx, table, "DepBoundCons", TITLE_DEPENDENT_BOUNDS);
  add_column(table, "Parameter", &parameter);
  add_column(table, "Kind", &kind);
  // A bound that was found dependent is active, but its parameter stays among the free ones.
  for (long k = 0; k < str->nvar - str->nabc && *table != nullptr; ++k) {
    const long j = str->ifxr[k];
    if (str->iabc[j] == 0) continue;
    parameter = parameter_name(str, j);
    kind = literal_text(bound_kind(str->iabc[j]));
    add_row(table);
  }
  close_table(table);
}

static void write_dependent_linear(MINSTR* str) {
  RvxObject** table = &str->licot4;
  TermRow row{};
  open_table(str->rvx, table, "LinDepLinCon", TITLE_DEPENDENT_LINEAR);
  add_columns(table, AT_THE_START, row);
  row.head.set(TEXT_DEPENDENT);
  for (long k = str->nalc; k < str->nalc + str->nldc && *table != nullptr; ++k) {
    if (str->iact[k] < str->ncon) write_linear_with_residual(str, table, row, str->iact[k]);
  }
  close_table(table);
}

// Names alone; their gradients follow in a table of their own, since they have other columns.
static void write_dependent_nonlinear(MINSTR* str) {
  RvxObject** table = &str->licot5;
  RvxText name{};
  open_table(str->rvx, table, "DepNonlinCon", TITLE_DEPENDENT_NONLINEAR);
  add_column(table, "Parameter", &name);
  for (long k = str->nalc; k < str->nalc + str->nldc && *table != nullptr; ++k) {
    if (str->iact[k] < str->ncon) continue;
    name = constraint_name(str, str->iact[k]);
    add_row(table);
  }
  close_table(table);
}

// The gradients at x, which are why the constraints were left out: each depends on those of the
// working set.
static void write_dependent_gradients(MINSTR* str) {
  RvxObject** table = &str->nljact;
  TermRow row{};
  const double eps = feasibility_tolerance(str, str->ipre);
  open_table(str->rvx, table, "LinDepGradNonLin", TITLE_DEPENDENT_GRADIENTS);
  add_columns(table, AT_THE_START, row);
  row.head.set(TEXT_DEPENDENT);
  for (long k = str->nalc; k < str->nalc + str->nldc && *table != nullptr; ++k) {
    const long c = str->iact[k] - str->ncon;
    if (c < 0) continue;
    // A gradient has no right side: the cells of the relation stay empty.
    row.number = static_cast<double>(c + 1);
    row.residual = str->fcon[c];
    row.colon = literal_text(":");
    row.restriction = literal_text(state_of(row.residual, c < str->nlec, eps));
    row.left = MISSING;
    write_terms(str, table, row, str->jcon + c * str->nvar, 1.0);
  }
  close_table(table);
}

// iact holds nalc constraints of the working set and behind them nldc that were left out.
void pricon3(MINSTR* str) {
  if (str->dbug == 0.0) return;
  write_dependent_bounds(str);
  if (str->nldc == 0) return;
  const long* first = str->iact + str->nalc;
  const long* last = first + str->nldc;
  const long linear = std::count_if(first, last, [=](long c) { return c < str->ncon; });
  if (linear > 0) write_dependent_linear(str);
  if (linear == str->nldc) return;
  write_dependent_nonlinear(str);
  write_dependent_gradients(str);
}

// ---- Nonlinear constraints ----------------------------------------------------------------------

// Multiplier of constraint c (as in iact): missing when it is not active or has none.
static double multiplier_of(const MINSTR* str, long c) {
  if ((str->opro == 0 && !in_range_space(str)) || str->lagm == nullptr) return MISSING;
  const long* end = str->iact + str->nalc;
  const long* place = std::find(static_cast<const long*>(str->iact), end, c);
  if (place == end) return MISSING;
  return users_value(str, str->lagm[str->nabc + (place - str->iact)]);
}

// Was constraint c left out of the working set as dependent?
static bool is_deferred(const MINSTR* str, long c) {
  if (str->opro == 0) return false;
  const long* first = str->iact + str->nalc;
  return std::find(first, first + str->nldc, c) != first + str->nldc;
}

void prinlc(MINSTR* str, int job) {
  if (str->dbug == 0.0) return;
  RvxObject** table = &str->nlcest;
  const double eps = feasibility_tolerance(str, str->ipre);
  long number = 0;
  RvxText name{}, restriction{}, dependent{};
  double value = 0.0, residual = 0.0, multiplier = 0.0;
  open_table(str->rvx, table, "NonLinCons",
             job < 0 ? TITLE_NONLINEAR_START : TITLE_NONLINEAR_SOLUTION);
  add_column(table, "Number", &number);
  add_column(table, "Parameter", &name);
  add_column(table, "Value", &value);
  add_column(table, "Residual", &residual);
  add_column(table, "Lagrange", &multiplier);
  add_column(table, "Restriction", &restriction);
  add_column(table, "LinDep", &dependent);
  for (long k = 0; k < str->nnlc && *table != nullptr; ++k) {
    const long c = str->ncon + k;
    number = k + 1;
    name = constraint_name(str, c);
    residual = str->fcon[k];
    // A caller that keeps values apart from residuals says so by vnlc; else both are the same.
    value = str->vnlc != nullptr ? str->vnlc[k] : residual;
    multiplier = wzmis(str->crit) || job == INFEASIBLE_START ? MISSING : multiplier_of(str, c);
    restriction = literal_text(state_of(residual, k < str->nlec, eps));
    dependent = literal_text(is_deferred(str, c) ? " LinDep " : "");
    add_row(table);
  }
  close_table(table);
}

}  // namespace tqnlp
