// znlppli, its tables: a row for each parameter and level.
#include "aasubs/post/znlppli_internal.h"
#include "aasubs/reports/report_tables.h"

namespace tqnlp {

namespace {

struct LimitRow {
  HeadText head;
  long number;
  RvxText parameter;
  double estimate, alpha, lower, upper, lower_wald, upper_wald;
};

}  // namespace

static void add_columns(RvxObject** table, bool profile, LimitRow& row) {
  if (profile) add_column(table, "TitleText", &row.head.cell);
  add_column(table, "Number", &row.number);
  add_column(table, "Parameter", &row.parameter);
  add_column(table, "Estimate", &row.estimate);
  add_column(table, "Alpha", &row.alpha);
  if (profile) {
    add_column(table, "LowerPLI", &row.lower);
    add_column(table, "UpperPLI", &row.upper);
  }
  add_column(table, "LowerWald", &row.lower_wald);
  add_column(table, "UpperWald", &row.upper_wald);
}

void priplc(MINSTR* str, int job) {
  const PLCS* s = working_record(str);
  const PLCSTR* options = str->covstr->plcstr;
  const bool profile = job != 1;
  RvxObject** table = &str->plit;
  LimitRow row{};
  open_table(str->rvx, table, profile ? "WaldPLLimits" : "WaldLimits",
             profile ? TITLE_PROFILE_LIMITS : TITLE_WALD_LIMITS);
  add_columns(table, profile, row);
  if (profile) row.head.set(TEXT_PROFILE_LIMITS);
  const PLLIM* limit = s->limits;
  for (long i = 0; i < options->npar * options->nalf && *table != nullptr; ++i, limit += 2) {
    row.number = limit->ipar + 1;
    row.parameter = parameter_name(str, limit->ipar);
    row.estimate = s->xsav[limit->ipar];
    row.alpha = limit->alfa;
    row.lower = limit[0].value;
    row.upper = limit[1].value;
    row.lower_wald = limit[0].wald;
    row.upper_wald = limit[1].wald;
    add_row(table);
    row.head.clear();
  }
  close_table(table);
}

}  // namespace tqnlp
