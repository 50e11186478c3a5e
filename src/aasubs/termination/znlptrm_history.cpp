// prihist: PRInts the iteration HISTory.
//
// The history is one table that stays open over the run, in the record's ithis; its columns refer
// to fields of the record, so that writing a row reads the values of that moment. What is shown in
// another form than the technique keeps it (objective in the user's sense, decrease, slope) is put
// into the fields pnact .. ppred first. znlpptm closes the table at the end of the run.
//
// At the higher print levels other tables stand between the rows: the point, with its gradient, the
// step that led to it, and how each convergence criterion stands.
//
// Two columns of one character mark events of an iteration:
//   Ac1  "*" the matrix of the iteration had to be repaired or was indefinite
//   Ac2  "'" a constraint left the working set, other marks: several left
#include <algorithm>
#include <cstring>

#include "aasubs/reports/report_tables.h"
#include "aasubs/reports/znlppre.h"
#include "aasubs/reports/znlppre_criteria.h"
#include "aasubs/termination/znlptrm.h"
#include "host/log.h"
#include "host/memory.h"

namespace tqnlp {

// ---- Memory of the line -------------------------------------------------------------------------

static void fill_line(MINSTR* str, int job, int job1, int job2) {
  str->pnact = str->nabc + str->nalc;
  str->piter = static_cast<long>(str->nitr);
  str->pcrit = users_value(str, str->crit);
  str->pgmax = job1 == 37 ? str->gmlf : str->gmax;
  str->ppred = str->pred;
  if (job == TEST_START) {
    str->pcdif = HUGE_VALUE;
  } else {
    str->pcdif = str->cold - (job2 == 39 ? str->pred : str->crit);
  }
  // These layouts show the predicted change as the slope of the search.
  if (job2 == 15 || job2 == 23) str->ppred = negated(str->ppred);
}

// ---- Start table --------------------------------------------------------------------------------

static void write_start(MINSTR* str, int job1) {
  const bool nonlinear = job1 == 29 || job1 == 37;
  open_table(str->rvx, &str->out, "IterStart", TITLE_START);
  if (!nonlinear) {
    add_pair(&str->out, str->idac >= 1 ? LABEL_ACTIVE_AFTER_DROP : LABEL_ACTIVE, str->pnact);
  }
  add_pair(&str->out, LABEL_OBJECTIVE, str->pcrit);
  if (nonlinear) add_pair(&str->out, LABEL_LARGEST_VIOLATION, str->cmax);
  if (job1 == 11 || job1 == 16 || job1 == 21) {
    add_pair(&str->out, LABEL_LARGEST_GRADIENT, str->pgmax);
  }
  if (job1 == 11) add_pair(&str->out, LABEL_RADIUS, str->delt);
  if (job1 == 37) add_pair(&str->out, LABEL_LAGRANGIAN_GRADIENT, str->pgmax);
  close_table(&str->out);
}

// ---- History table ------------------------------------------------------------------------------

struct Column {
  const char* name;
  double MINSTR::*source;
};

static constexpr int LAYOUT_COLUMNS = 4;
struct ColumnLayout {
  int job2;
  Column columns[LAYOUT_COLUMNS];
};

static constexpr ColumnLayout LAYOUTS[] = {
    {13,
     {{"DifCrit", &MINSTR::pcdif},
      {"MaxGrad", &MINSTR::gmax},
      {"Lambda", &MINSTR::lamb},
      {"Rho", &MINSTR::rhor}}},
    {15,
     {{"DifCrit", &MINSTR::pcdif},
      {"MaxGrad", &MINSTR::gmax},
      {"Lambda", &MINSTR::lamb},
      {"Slope", &MINSTR::ppred}}},
    {18,
     {{"DifCrit", &MINSTR::pcdif},
      {"MaxGrad", &MINSTR::gmax},
      {"Ridge", &MINSTR::ridg},
      {"Rho", &MINSTR::rhor}}},
    {23,
     {{"DifCrit", &MINSTR::pcdif},
      {"MaxGrad", &MINSTR::gmax},
      {"Alpha", &MINSTR::alfa},
      {"Slope", &MINSTR::ppred}}},
    {28,
     {{"DifCrit", &MINSTR::pcdif},
      {"StdDev", &MINSTR::ppred},
      {"Delta", &MINSTR::alfa},
      {"Size", &MINSTR::pgmax}}},
    {31,
     {{"DifCrit", &MINSTR::pcdif},
      {"MaxGrad", &MINSTR::gmax},
      {"Lambda", &MINSTR::lamb},
      {"Radius", &MINSTR::delt}}},
    {38,
     {{"ConMax", &MINSTR::cmax},
      {"Pred", &MINSTR::ppred},
      {"Alpha", &MINSTR::alfa},
      {"LFGMax", &MINSTR::pgmax}}},
    {39,
     {{"ConMax", &MINSTR::cmax},
      {"MeritF", &MINSTR::ppred},
      {"DifMerit", &MINSTR::pcdif},
      {"Rho", &MINSTR::rhor}}},
};

static constexpr int FIRST_LAYOUT_WITHOUT_ACTIVE = 38;

static void set_mark(char* mark, const char* text) { std::strcpy(mark, text); }

static void open_history(MINSTR* str, int job2) {
  RvxObject** table = &str->ithis;
  set_mark(str->T_ac1, " ");
  set_mark(str->T_ac2, " ");
  open_table(str->rvx, table, "IterHist", TITLE_HISTORY);
  add_column(table, "Iter", &str->piter);
  add_column(table, "Ac1", str->T_ac1);
  add_column(table, "Rest", &str->ires);
  add_column(table, "NFun", &str->nfct);
  if (job2 < FIRST_LAYOUT_WITHOUT_ACTIVE) {
    add_column(table, "Act", &str->pnact);
    add_column(table, "Ac2", str->T_ac2);
  }
  add_column(table, "OptCrit", &str->pcrit);
  for (const ColumnLayout& layout : LAYOUTS) {
    if (layout.job2 != job2) continue;
    for (const Column& column : layout.columns) {
      add_column(table, column.name, &(str->*column.source));
    }
  }
}

// ---- Rows ---------------------------------------------------------------------------------------

static void set_mark_from_message(char (&mark)[8], int message) {
  xpmstr(mark, sizeof mark, OPTIMIZATION, message);
}

static void mark_working_set(MINSTR* str, int job1) {
  set_mark(str->T_ac2, " ");
  if (job1 == 29 || job1 == 37) return;
  if (str->idac == BLOCK_DROPPED) {
    set_mark_from_message(str->T_ac2, MARK_SEVERAL_LEFT);
  } else if (str->idac < 0) {
    set_mark_from_message(str->T_ac2, MARK_SEVERAL_LEFT_TRIED);
  } else if (str->idac > 0) {
    set_mark(str->T_ac2, "'");
  }
}

static void mark_matrix(MINSTR* str, int job1) {
  set_mark(str->T_ac1, " ");
  if (job1 == 37) {
    // The state of the penalty and the watchdog, which this technique keeps here.
    if (str->null == 1) set_mark(str->T_ac1, "*");
    if (str->null == 2) set_mark_from_message(str->T_ac1, MARK_SEVERAL_LEFT);
    if (str->null == 3) set_mark(str->T_ac1, "'");
    return;
  }
  if (job1 == 26 || job1 == 29 || str->tech == CONGRA) return;  // these keep no matrix
  if (str->null >= 1) set_mark(str->T_ac1, "*");
}

// Point, and gradient where one is at hand, between two rows.
static void write_parameters(MINSTR* str, int job1) {
  static constexpr double LEVEL_WITH_GRADIENT = 5.0;  // above it
  const bool point_only = job1 == 26 || job1 == 29 || str->dbug <= LEVEL_WITH_GRADIENT;
  const long n = str->nvar;
  if (point_only) {
    znlppmt(str->rvx, "Grad", -3, n, str->x, str->pnam, 1, TITLE_PARAMETERS_ON_THE_WAY);
    return;
  }
  const std::size_t bytes = 2 * static_cast<std::size_t>(n) * sizeof(double);
  auto* values = static_cast<double*>(vmalloc_handler(bytes, 0));
  if (values == nullptr) {
    xmemmsg(bytes);
    return;
  }
  std::copy_n(str->x, n, values);
  for (long j = 0; j < n; ++j) values[n + j] = users_value(str, str->grad[j]);
  znlppmt(str->rvx, "Grad", -2, n, values, str->pnam, 1, TITLE_PARAMETERS_ON_THE_WAY);
  vmfree_handler(values);
}

// The last step.
static void write_step(MINSTR* str) {
  const long n = str->nvar;
  const std::size_t bytes = static_cast<std::size_t>(n) * sizeof(double);
  auto* step = static_cast<double*>(vmalloc_handler(bytes, 0));
  if (step == nullptr) {
    xmemmsg(bytes);
    return;
  }
  for (long j = 0; j < n; ++j) step[j] = str->x[j] - str->xold[j];
  znlppmt(str->rvx, "Step", n, 1, step, str->pnam, 1, TITLE_STEP);
  vmfree_handler(step);
}

static void write_standing(MINSTR* str) {
  open_table(str->rvx, &str->out, "Criteria", TITLE_CRITERIA);
  write_criteria(str, &str->out, 0);
  close_table(&str->out);
}

// What the print level asks for between two rows.
static void write_between_rows(MINSTR* str, int job1) {
  static constexpr double LEVEL_OF_STEPS = 6.0;     // above it
  static constexpr double LEVEL_OF_CRITERIA = 7.0;  // above it
  write_parameters(str, job1);
  if (str->dbug > LEVEL_OF_STEPS) write_step(str);
  if (str->dbug > LEVEL_OF_CRITERIA) write_standing(str);
}

void prihist(MINSTR* str, int job, int job1, int job2) {
  static constexpr double LEVEL_OF_ROWS = 1.0;        // rows above it
  static constexpr double LEVEL_OF_PARAMETERS = 4.0;  // parameters between rows above it
  fill_line(str, job, job1, job2);
  if (str->nitr == 0.0 && job == TEST_START) {
    write_start(str, job1);
    if (str->ithis == nullptr) open_history(str, job2);
    return;
  }
  if (!(str->dbug > LEVEL_OF_ROWS) || (job >= 0 && job % 2 == 0)) return;
  mark_working_set(str, job1);
  mark_matrix(str, job1);
  add_row_or_lose_it(str->ithis);
  if (str->dbug > LEVEL_OF_PARAMETERS && str->ithis != nullptr) {
    close_table(&str->ithis);
    write_between_rows(str, job1);
    open_history(str, job2);
  }
}

}  // namespace tqnlp
