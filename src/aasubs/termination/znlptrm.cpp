// znlptrm: the TeRMination test of every technique.
//
// Nine criteria are looked at in a fixed order; each counts the iterations in a row for which it
// held, and a later criterion that is met takes the place of an earlier one in the answer:
//
//   code  name      holds when                                        tolerance
//    1    ABSCONV   objective at or below the level (above when maximizing)  atol
//    2    ABSFCONV  decrease of the objective                         aftl
//    3    ABSGCONV  largest projected gradient element                agtl
//    4    ABSXCONV  |x - xold|; simplex step or size; COBYLA radius   axtl
//    5    FCONV     decrease of the objective / scale                 ftol
//    6    GCONV     predicted reduction / scale                       gtol
//    7    XCONV     relative change of x                              xtol
//    8    FCONV2    predicted reduction; spread of the simplex        fto2
//    9    GCONV2    scaled gradient of least squares                  gto2
//
// with scale = max(|objective|, fsiz). All comparisons are `<=`, so a tolerance of 0 can be met. A
// value that is no number meets none of them, which leaves the run to its limits. The criteria are
// those of Dennis and Schnabel (1983), section 7.2, with the predicted reduction g'H^-1 g as
// the scale-free measure of the gradient.
//
// A stop is not final: it may be analysed (noise of the objective, negative curvature, lost
// feasibility), and an analysis that finds a better point turns it into 100, go on.
#include "aasubs/termination/znlptrm.h"

#include <algorithm>
#include <cmath>
#include <iterator>

#include "aasubs/post/stop_analysis.h"
#include "host/log.h"
#include "kernels/vector.h"

namespace tqnlp {

// ---- What the tests compare ---------------------------------------------------------------------

// The values of one call, all in the sense of a minimization but for objective.
struct Measures {
  double objective;    // as the user knows it
  double decrease;     // cold - crit; the largest double where no step can be judged
  double scale;        // of the objective in relative tests
  double ftest;        // tolerance of FCONV, on the scale of the objective
  double gtest;        // tolerance of GCONV, on the scale of the objective
  double gradient;     // gm: largest projected gradient element (of the Lagrangian)
  double predicted;    // pm: |predicted reduction|
  double newton;       // gc: gradient criterion g'H^-1 g
  double marquardt;    // gi: its Levenberg-Marquardt form
  double step;         // |x - xold|
  double reldx;        // largest relative change of a parameter
  double feasibility;  // widened feasibility tolerance
};

static Measures take_measures(const MINSTR* str, int job) {
  const bool start = job == TEST_START;
  const bool nonlinear = str->nlicon != 0;
  Measures m{};
  m.objective = str->crit;
  double before = str->crit;
  m.decrease = HUGE_VALUE;
  if (!nonlinear && !start) {
    before = str->cold;
    m.decrease = str->cold - str->crit;
  }
  if (str->imax != 0) m.objective = -m.objective;
  m.scale = std::max(std::fabs(before), str->fsiz);
  m.ftest = m.scale * str->ftol;
  m.gtest = m.scale * str->gtol;
  m.gradient = nonlinear ? str->gmlf : str->gmax;
  m.predicted = start ? HUGE_VALUE : std::fabs(str->pred);
  m.newton = start ? HUGE_VALUE : str->gcri;
  m.marquardt = start ? HUGE_VALUE : str->gihg;
  m.step = start ? HUGE_VALUE : xdif(str->nvar, str->x, str->xold);
  m.reldx = start ? HUGE_VALUE : reldx(str->nvar, str->xsiz, str->x, str->xold);
  m.feasibility = feasibility_tolerance(str, str->ipre);
  return m;
}

// The measure that GCONV takes depends on the technique.
static double gradient_measure(const MINSTR* str, const Measures& m) {
  if (str->tech == CONGRA) return m.newton;
  return str->tech == LEVMAR ? m.marquardt : m.predicted;
}

// What FCONV2 takes: of least squares half the prediction, which is on the scale of the objective.
static double second_measure(const MINSTR* str, const Measures& m) {
  if (str->nlicon != 0 || is_simplex(str->tech)) return m.predicted;
  return (str->tech == LEVMAR ? m.marquardt : m.predicted) / 2.0;
}

// The size of the last step: a simplex has one of its own, COBYLA a radius.
static double step_measure(const MINSTR* str, const Measures& m) {
  if (!is_simplex(str->tech)) return m.step;
  return str->nlicon != 0 ? str->rhor : std::min(str->alfa, m.gradient);
}

// Keeps what the step that led to x measures, for the reports. They cannot find it out later: a
// search that failed goes back to xold, and the final evaluation overwrites cold and xold. A step
// that has no value, and a technique that stops by itself, leave the measures as they are.
static void keep_measures(MINSTR* str, int job, const Measures& m) {
  if (job == TEST_START) std::fill(std::begin(str->tval), std::end(str->tval), MISSING);
  if (job == TEST_START || job <= TEST_LIMITS_ONLY || str->tbig != 0.0) return;
  const auto relative = [&m](double value) { return m.scale > 0.0 ? value / m.scale : value; };
  str->tval[2] = m.decrease;
  str->tval[4] = step_measure(str, m);
  str->tval[5] = relative(m.decrease);
  str->tval[6] = relative(gradient_measure(str, m));
  str->tval[7] = m.reldx;
  str->tval[8] = second_measure(str, m);
  str->tval[9] = m.newton;
}

// ---- The criteria -------------------------------------------------------------------------------

// Counts a criterion; true when it has held for as many iterations in a row as wanted.
static bool is_met(MINSTR* str, int code, bool holds) {
  const int counter = criterion(code).counter;
  long& counted = str->toln[COUNTED + counter];
  counted = holds ? counted + 1 : 0;
  return holds && counted >= str->toln[counter];
}

// A later criterion that is met takes the place of an earlier one.
static void test(MINSTR* str, int code, bool holds, int* result) {
  if (is_met(str, code, holds)) *result = code;
}

static int test_simplex(MINSTR* str, int job, const Measures& m) {
  int result = 0;
  test(str, 2, m.decrease <= str->aftl, &result);
  if (job != TEST_START) {
    test(str, 4, str->alfa <= str->axtl || m.gradient <= str->axtl, &result);
    test(str, 7, m.reldx <= str->xtol, &result);
  }
  test(str, 5, m.decrease <= m.ftest, &result);
  test(str, 8, m.predicted <= str->fto2, &result);
  return result;
}

static int test_cobyla(MINSTR* str) {
  int result = 0;
  test(str, 4, str->rhor <= str->axtl, &result);
  return result;
}

static int test_descent(MINSTR* str, int job, const Measures& m) {
  int result = 0;
  test(str, 2, m.decrease <= str->aftl, &result);
  test(str, 3, m.gradient <= str->agtl, &result);
  if (job == TEST_START) {
    test(str, 5, m.decrease <= m.ftest, &result);
    return result;
  }
  test(str, 4, m.step <= str->axtl, &result);
  test(str, 5, m.decrease <= m.ftest, &result);
  test(str, 6, gradient_measure(str, m) <= m.gtest, &result);
  test(str, 7, m.reldx <= str->xtol, &result);
  if (str->lsqu != 0) {
    test(str, 8, second_measure(str, m) <= str->fto2, &result);
    if (str->tech >= TRUREG && str->tech <= LEVMAR) test(str, 9, m.newton <= str->gto2, &result);
  }
  return result;
}

static int test_constrained(MINSTR* str, const Measures& m) {
  int result = 0;
  test(str, 3, m.gradient <= str->agtl && str->cmax <= m.feasibility, &result);
  test(str, 6, m.predicted <= m.gtest, &result);
  test(str, 8, m.predicted <= str->fto2, &result);
  return result;
}

static bool level_reached(const MINSTR* str, const Measures& m) {
  return str->imax != 0 ? m.objective >= str->atol : m.objective <= str->atol;
}

// All criteria of the technique. The level of the objective and an objective that rose end the run
// at any time, the others only from iteration mini on.
static int test_criteria(MINSTR* str, int job, const Measures& m) {
  if (level_reached(str, m)) return 1;
  int result = 0;
  if (str->nlicon == 0) {
    if (m.decrease < -str->aftl) return NO_PROGRESS;
    result = is_simplex(str->tech) ? test_simplex(str, job, m) : test_descent(str, job, m);
  } else {
    result = is_simplex(str->tech) ? test_cobyla(str) : test_constrained(str, m);
  }
  return str->nitr < static_cast<double>(str->mini) ? 0 : result;
}

// ---- The verdict before analysis and limits -----------------------------------------------------

// Code of a technique that stopped by itself. A stop for lack of progress or at a limit, while a
// criterion was being counted, becomes the code that names the criterion.
static int stop_code(const MINSTR* str, int job) {
  if (job != NO_PROGRESS && job != COUNT_LIMIT && job != TIME_LIMIT) return job;
  for (int k = 1; k <= CONSECUTIVE_COUNTERS; ++k) {
    if (str->toln[k] != 0 && str->toln[COUNTED + k] != 0) return NEAR_CRITERION + k;
  }
  return job;
}

// Did the working set change in a way that makes the tests of this iteration meaningless?
static bool working_set_is_moving(const MINSTR* str, const Measures& m) {
  if (str->tech == QUADAS) return str->chac != 0;
  return str->chac < 0 && m.decrease > TINY;  // a constraint left, and there was progress
}

// Said once in a run: the steps stay long.
static void warn_if_unbounded(MINSTR* str, int job) {
  if (str->unbd != 0 || job <= 0 || job == TEST_START) return;
  if (!(str->alfa >= str->ssin)) return;
  xpmlog(OPTIMIZATION, str->imax != 0 ? 41 : 40);
  str->unbd = 1;
}

static int verdict(MINSTR* str, int job, const Measures& m) {
  // At a vertex nothing can move, whatever a technique made of it: this goes before every failure
  // deliberately. Values that cannot be had there fail again when the driver evaluates the result.
  // The working set of a subproblem is none of x: with linearized constraints x may still move.
  const bool linearized = str->nlicon != 0 || str->tech == VMCWD;
  const bool vertex = !linearized && str->nabc + str->nalc == str->nvar;
  if (job != TEST_START && vertex) return ALL_PARAMETERS_ACTIVE;
  if (job < 0) return stop_code(str, job);
  if (str->tbig != 0.0) return FUNCTION_FAILED;
  if (job == TEST_LIMITS_ONLY || working_set_is_moving(str, m)) return 0;
  warn_if_unbounded(str, job);
  return test_criteria(str, job, m);
}

// ---- Analysis at a stop, limits, central differences --------------------------------------------

// Is there a better point near a stop? The analysis runs when an evaluation failed, and wherever
// the noise analysis is switched on.
static bool stop_is_overruled(MINSTR* str, int job, const Measures& m) {
  static constexpr int LARGEST_JOB = 10;
  static constexpr double CLEAR_VIOLATION = 0.001;
  if (std::abs(job) > LARGEST_JOB) return false;
  if (str->tbig == 0.0 && wzmis(str->rtop)) return false;
  if (str->nlicon != 0 && str->cmax > CLEAR_VIOLATION && znlpfnc(str, 1) >= 0) return true;
  const double purpose = str->indf;
  str->indf = IN_STOP_ANALYSIS;
  bool better = znlpnoi(str, job != TEST_START ? 1 : 0) != 0;
  if (!better && str->cmax < m.feasibility) better = znlpdnc(str, 1) == 0;
  str->indf = purpose;
  return better;
}

int limit_reached(const MINSTR* str) {
  if (str->nitr >= str->maxi || static_cast<double>(str->nfct) >= str->maxf) return COUNT_LIMIT;
  if (!(str->upti < HUGE_VALUE)) return 0;  // a clock is slow beside a small iteration
  return zdattim() - str->mtim > str->upti ? TIME_LIMIT : 0;
}

// Limits end a run that would go on, an overruled stop included.
static int apply_limits(const MINSTR* str, int result) {
  if (result != 0 && result != STOP_OVERRULED) return result;
  const int limit = limit_reached(str);
  return limit != 0 ? limit : result;
}

// Digit k of fidi from its forward to its central form.
static void raise_digit(MINSTR* str, int k, int forward) {
  int place = 1;
  for (int i = 0; i < k; ++i) place *= 10;
  if (fidi_digit(str->fidi, k) == forward) str->fidi += place;
}

// Near the solution the error of forward differences shows: go over to central ones. The digit of
// the constraint Jacobian stays.
static void switch_to_central_differences(MINSTR* str, int job, const Measures& m) {
  static constexpr double LEAST_LIMIT = 1e-6;
  if (str->fidi == 0 || !(str->swfd > 0.0) || job == TEST_START) return;
  if (is_simplex(str->tech) || str->tech == QUADAS) return;
  const double gtest = str->tech == LEVMAR ? str->gtol : m.gtest;
  const double limit = std::max(gtest * str->swfd, LEAST_LIMIT);
  if (m.gradient > str->swfd * str->agtl && m.predicted > limit) return;
  raise_digit(str, 0, 1);
  raise_digit(str, 1, 1);
  raise_digit(str, 2, 1);
  if (fidi_digit(str->fidi, 3) == 1) {
    raise_digit(str, 3, 1);
  } else {
    raise_digit(str, 3, 3);
  }
}

// ---- The history's layout -----------------------------------------------------------------------

struct Layout {
  int start;    // of the start table and the marks (job1 of prihist)
  int columns;  // of the history (job2 of prihist)
};

static Layout history_layout(const MINSTR* str) {
  const bool nonlinear = str->nlicon != 0;
  switch (str->tech) {
    case TRUREG:
      return {11, 31};
    case LEVMAR:
      return {11, 13};
    case GAUNEW:
      return {16, 23};
    case NRRIDG:
    case NRLINS:
    case OLDRAP:
      return {16, 18};
    case DBLDOG:
      return {11, 15};
    case NEWRAP:
    case HYQUAN:
    case CONGRA:
    case QUADAS:
      return {21, 23};
    case NMSIMP:
    case NMSIM2:
      return nonlinear ? Layout{29, 39} : Layout{26, 28};
    default:  // both forms of QUANEW; VMCWD reports as they do
      return nonlinear ? Layout{37, 38} : Layout{21, 23};
  }
}

int znlptrm(MINSTR* str, int job) {
  if (str->usfout != nullptr) str->usfout(str);
  ++str->nter;
  const Measures measures = take_measures(str, job);
  keep_measures(str, job, measures);
  if (str->dbug != 0.0) {
    const Layout layout = history_layout(str);
    prihist(str, job, layout.start, layout.columns);
  }
  int result = verdict(str, job, measures);
  if (result != 0 && stop_is_overruled(str, job, measures)) result = STOP_OVERRULED;
  result = apply_limits(str, result);
  if (result == 0) {
    switch_to_central_differences(str, job, measures);
    str->idac = 0;
  }
  str->rcod = result;
  return result;
}

}  // namespace tqnlp
