// write_criteria: what each convergence criterion measured at the end of a run, and how that stands
// to its tolerance.
//
// The measures are those that the termination test has kept. The criterion that ended the run is
// met by definition; the others are compared anew.
#include "aasubs/reports/znlppre_criteria.h"

#include <algorithm>
#include <cmath>

#include "aasubs/record/stop_codes.h"
#include "aasubs/reports/report_tables.h"

namespace tqnlp {

bool criterion_applies(const MINSTR* str, int code) {
  const bool nonlinear = str->nlicon != 0;
  switch (code) {
    case 1:
      return true;
    case 2:
    case 5:
    case 7:
      return !nonlinear;
    case 3:
    case 6:
      return !is_simplex(str->tech);
    case 4:
      return !nonlinear || is_simplex(str->tech);
    case 8:
      if (is_simplex(str->tech)) return !nonlinear;
      return nonlinear || str->lsqu != 0;
    default:
      return !nonlinear && str->lsqu != 0 && str->tech >= TRUREG && str->tech <= LEVMAR;
  }
}

// What the test of a criterion compares with its tolerance. Level and gradient belong to the point;
// the others to the last step that was tested, and are missing when there was none.
static double measure_of(const MINSTR* str, int code) {
  if (code == 1) return users_value(str, str->crit);
  if (code == 3) return str->nlicon != 0 ? str->gmlf : str->gmax;
  return str->tval[code];
}

static bool is_level(const Criterion& c) { return c.code == FIRST_CRITERION; }

// Switched off: a tolerance that only a measure of exactly 0 meets, a level beyond all objectives.
static bool is_off(const MINSTR* str, const Criterion& c) {
  const double tolerance = str->*c.tolerance;
  return is_level(c) ? std::fabs(tolerance) >= ROOT_HUGE : tolerance == 0.0;
}

// A decrease below zero meets no criterion: the test ends a run whose objective rose as a failure.
static bool is_rise(const Criterion& c, double measure) {
  return (c.code == 2 || c.code == 5) && measure < 0.0;
}

static void write_verdict(MINSTR* str, RvxObject** table, const Criterion& c, double measure,
                          bool met) {
  const bool at_least = is_level(c) && str->imax != 0;
  const char* relation = at_least ? (met ? ">=" : "<") : (met ? "<=" : ">");
  RvxText verdict = report_text(met ? WORD_MET : WORD_OPEN, {measure, relation, str->*c.tolerance});
  if (wzmis(measure)) verdict = report_text(WORD_NOT_JUDGED);
  if (is_rise(c, measure)) verdict = report_text(WORD_ROSE, {-measure});
  add_pair(table, LABEL_CRITERION + c.code, &verdict);
}

// A list of words in one cell.
struct WordList {
  RvxText cell{};

  void add(const char* separator, const RvxText& word) {
    const RvxText before = cell;
    const bool first = before.text[0] == '\0';
    rvxtxts(&cell, sizeof cell.text - 1, "%s%s%s", before.text, first ? "" : separator, word.text);
  }
};

void write_criteria(MINSTR* str, RvxObject** table, int fail) {
  WordList off;
  for (const Criterion& c : CRITERIA) {
    if (!criterion_applies(str, c.code)) continue;
    const double measure = measure_of(str, c.code);
    const double tolerance = str->*c.tolerance;
    const bool within = is_level(c) && str->imax != 0 ? measure >= tolerance : measure <= tolerance;
    const bool met = fail == c.code || (within && !is_rise(c, measure));
    if (met || !is_off(str, c)) {
      write_verdict(str, table, c, measure, met);
    } else {
      off.add(" ", unpadded(c.name));
    }
  }
  if (off.cell.text[0] != '\0') add_pair(table, LABEL_CRITERIA_OFF, &off.cell);
}

RvxText gradient_criteria(const MINSTR* str) {
  WordList list;
  for (const Criterion& c : {criterion(3), criterion(6)}) {
    const RvxText name = unpadded(c.name);
    const double measure = measure_of(str, c.code);
    if (is_off(str, c)) {
      list.add(", ", report_text(WORD_CRITERION_OFF, {name.text}));
    } else if (!wzmis(measure)) {
      list.add(", ", report_text(WORD_CRITERION_STANDS, {name.text, measure, str->*c.tolerance}));
    }
  }
  return list.cell;
}

}  // namespace tqnlp
