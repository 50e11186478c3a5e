// write_criteria: what each convergence criterion measured at the end of a run, and how that stands
// to its tolerance.
//
// The measures are those of the termination test, taken from what the record still holds after the
// driver has evaluated the result once more: the decrease of the last iteration comes from the
// memory of the history, since cold is the objective of the result by then. The criterion that
// ended the run is met by definition; the others are compared anew.
#include "aasubs/reports/znlppre_criteria.h"

#include <algorithm>
#include <cmath>

#include "aasubs/record/stop_codes.h"
#include "aasubs/reports/report_tables.h"
#include "kernels/vector.h"

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

// Was a step taken that the last test could judge?
static bool has_step(const MINSTR* str) { return str->pcdif < HUGE_VALUE; }

// The scale is the objective before the step; with nonlinear constraints, which may raise it, the
// present one.
static double relative_to_objective(const MINSTR* str, double value) {
  const double before = str->nlicon == 0 ? str->crit + str->pcdif : str->crit;
  const double scale = std::max(std::fabs(before), str->fsiz);
  return scale > 0.0 ? value / scale : value;
}

// The predicted reduction, or what stands for it in a technique.
static double predicted(const MINSTR* str) {
  return str->tech == LEVMAR ? str->gihg : std::fabs(str->pred);
}

static double relative_prediction(const MINSTR* str) {
  return relative_to_objective(str, str->tech == CONGRA ? str->gcri : predicted(str));
}

static double step_measure(const MINSTR* str) {
  if (!is_simplex(str->tech)) return xdif(str->nvar, str->x, str->xold);
  return str->nlicon != 0 ? str->rhor : std::min(str->alfa, str->gmax);
}

// What the test of a criterion compares with its tolerance; missing when no step was taken that it
// could judge.
static double measure_of(const MINSTR* str, int code) {
  const bool nonlinear = str->nlicon != 0;
  if (code == 1) return users_value(str, str->crit);
  if (code == 3) return nonlinear ? str->gmlf : str->gmax;
  if (!has_step(str)) return MISSING;
  switch (code) {
    case 2:
      return str->pcdif;
    case 4:
      return step_measure(str);
    case 5:
      return relative_to_objective(str, str->pcdif);
    case 6:
      return relative_prediction(str);
    case 7:
      return reldx(str->nvar, str->xsiz, str->x, str->xold);
    case 8:
      return predicted(str) / (nonlinear || is_simplex(str->tech) ? 1.0 : 2.0);
    default:
      return str->gcri;
  }
}

static bool is_level(const Criterion& c) { return c.code == FIRST_CRITERION; }

// Switched off: a tolerance that only a measure of exactly 0 meets, a level beyond all objectives.
static bool is_off(const MINSTR* str, const Criterion& c) {
  const double tolerance = str->*c.tolerance;
  return is_level(c) ? std::fabs(tolerance) >= ROOT_HUGE : tolerance == 0.0;
}

static void write_verdict(MINSTR* str, RvxObject** table, const Criterion& c, double measure,
                          bool met) {
  const bool at_least = is_level(c) && str->imax != 0;
  const char* relation = at_least ? (met ? ">=" : "<") : (met ? "<=" : ">");
  const RvxText verdict = wzmis(measure) ? report_text(WORD_NOT_JUDGED)
                                         : report_text(met ? WORD_MET : WORD_OPEN,
                                                       {measure, relation, str->*c.tolerance});
  add_pair(table, LABEL_CRITERION + c.code, &verdict);
}

// The names of criteria, one after another.
struct NameList {
  RvxText cell{};
  std::size_t used = 0;
  static_assert(sizeof(RvxText) > sizeof(CRITERIA) / sizeof(CRITERIA[0]) * 9);

  void add(const Criterion& c) {
    if (used > 0) cell.text[used++] = ' ';
    for (const char* p = c.name; *p != '\0' && *p != ' '; ++p) cell.text[used++] = *p;
  }
};

void write_criteria(MINSTR* str, RvxObject** table, int fail) {
  NameList off;
  for (const Criterion& c : CRITERIA) {
    if (!criterion_applies(str, c.code)) continue;
    const double measure = measure_of(str, c.code);
    const double tolerance = str->*c.tolerance;
    const bool within = is_level(c) && str->imax != 0 ? measure >= tolerance : measure <= tolerance;
    const bool met = within || fail == c.code;
    if (met || !is_off(str, c)) {
      write_verdict(str, table, c, measure, met);
    } else {
      off.add(c);
    }
  }
  if (off.used > 0) add_pair(table, LABEL_CRITERIA_OFF, &off.cell);
}

}  // namespace tqnlp
