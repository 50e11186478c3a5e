// znlpptm: PrinTs the TerMination of a run: summary, status, and the messages of its code.
//
// The same reason is told twice, as a sentence in the log and as a shorter text in the table of the
// status; END_TEXTS has both for every code whose messages take no arguments.
//
//   print level 0    log only: reason of the code, doubts
//   above 0          table "IterStop" (job 0): work | point | what steered the steps | criteria
//                    table "ConvergenceStatus": code and reason
//
// job is not 0 where there is no objective to tell of: no summary then.
#include <algorithm>
#include <cmath>

#include "aasubs/record/stop_codes.h"
#include "aasubs/reports/report_tables.h"
#include "aasubs/reports/znlppre.h"
#include "aasubs/reports/znlppre_criteria.h"
#include "host/log.h"

namespace tqnlp {

// Codes of a run without progress or at a limit while a criterion with a counter was being met. The
// counter of criterion c is c - 1, so that such a code less STOP_OVERRULED is the criterion's own.
static constexpr int FIRST_NEAR_CRITERION = NEAR_CRITERION + 1;
static constexpr int LAST_NEAR_CRITERION = NEAR_CRITERION + CONSECUTIVE_COUNTERS;

// ---- Summary ------------------------------------------------------------------------------------

// Rows of the summary beyond what every technique shows: which counters, which state.
enum StopLayout : int {
  STOP_PLAIN = 0,
  STOP_LEVMAR = 12,          // also TRUREG on least squares
  STOP_DOGLEG = 14,          //
  STOP_RIDGE = 17,           //
  STOP_RIDGE_SQUARES = 19,   //
  STOP_LINE_SEARCH = 22,     // QUANEW, CONGRA, QUADAS
  STOP_HYBRID = 25,          //
  STOP_SIMPLEX = 27,         //
  STOP_COBYLA = 30,          //
  STOP_TRUST_REGION = 32,    //
  STOP_NEWTON = 34,          //
  STOP_NEWTON_SQUARES = 35,  //
  STOP_SEQUENTIAL = 36,      // QUANEW with nonlinear constraints
  STOP_RANGE_SPACE = 259,    // CONGRA and QUADAS in the range-space frame
};

// Techniques with the same state share a layout; a technique that has two forms (with nonlinear
// constraints, on least squares, in the range-space frame) shows what its form steers by.
static StopLayout stop_layout(const MINSTR* str) {
  static constexpr int RANGE_SPACE = 2;
  const bool squares = str->lsqu != 0;
  const bool nonlinear = str->nlicon != 0;
  switch (str->tech) {
    case TRUREG:
      return squares ? STOP_LEVMAR : STOP_TRUST_REGION;
    case LEVMAR:
      return STOP_LEVMAR;
    case NRRIDG:
    case NRLINS:
    case OLDRAP:
      return squares ? STOP_RIDGE_SQUARES : STOP_RIDGE;
    case NEWRAP:
    case GAUNEW:
      return squares ? STOP_NEWTON_SQUARES : STOP_NEWTON;
    case QUANEW:
    case QUANEW_DUAL:
    case VMCWD:  // VMCWD reports as QUANEW
      return nonlinear ? STOP_SEQUENTIAL : STOP_LINE_SEARCH;
    case DBLDOG:
      return STOP_DOGLEG;
    case HYQUAN:
      return STOP_HYBRID;
    case CONGRA:
    case QUADAS:
      return str->opro == RANGE_SPACE ? STOP_RANGE_SPACE : STOP_LINE_SEARCH;
    case NMSIMP:
    case NMSIM2:
      return nonlinear ? STOP_COBYLA : STOP_SIMPLEX;
    default:
      return STOP_PLAIN;
  }
}

// Iterations and calls; of the derivatives those that the technique asks for.
static void write_work(MINSTR* str, RvxObject** table, StopLayout layout) {
  add_pair(table, LABEL_ITERATIONS, static_cast<long>(str->nitr));
  add_pair(table, LABEL_FUNCTION_CALLS, str->nfct);
  switch (layout) {
    case STOP_LEVMAR:
    case STOP_RIDGE_SQUARES:
    case STOP_HYBRID:
    case STOP_NEWTON_SQUARES:
      return add_pair(table, LABEL_JACOBIAN_CALLS, str->nhes);
    case STOP_DOGLEG:
    case STOP_LINE_SEARCH:
    case STOP_SEQUENTIAL:
    case STOP_RANGE_SPACE:
      return add_pair(table, LABEL_GRADIENT_CALLS, str->ngrd);
    case STOP_RIDGE:
    case STOP_TRUST_REGION:
    case STOP_NEWTON:
      return add_pair(table, LABEL_HESSIAN_CALLS, str->nhes);
    case STOP_SIMPLEX:
    case STOP_COBYLA:
      return add_pair(table, LABEL_RESTARTS, str->ires);
    case STOP_PLAIN:
      return;
  }
}

// Value, size of the working set, gradient. Where nonlinear constraints are handled by the
// technique itself the working set says little, and the largest violation takes its place.
static void write_point(MINSTR* str, RvxObject** table, StopLayout layout) {
  const double objective = users_value(str, str->crit);
  if (layout == STOP_SEQUENTIAL || layout == STOP_COBYLA) {
    add_pair(table, LABEL_OBJECTIVE, objective);
    add_pair(table, LABEL_LARGEST_VIOLATION, str->cmax);
    return;
  }
  add_pair(table, str->idac >= 1 ? LABEL_ACTIVE_AFTER_DROP : LABEL_ACTIVE, str->nabc + str->nalc);
  add_pair(table, LABEL_OBJECTIVE, objective);
  // The simplex keeps its size where other techniques keep the gradient.
  if (layout != STOP_SIMPLEX && str->nter > 0) add_pair(table, LABEL_LARGEST_GRADIENT, str->gmax);
}

// What steered the steps of the technique: the last value of each quantity, by which a reader sees
// whether it was still moving (a tiny radius, a huge ridge, a slope of rounding size). The record
// has no field for every technique's own: pred is the slope, but the merit value or the deviation
// of a simplex; alfa and gmax are sizes of the simplex; rhor is the radius of COBYLA.
static void write_steering(MINSTR* str, RvxObject** table, StopLayout layout) {
  switch (layout) {
    case STOP_LEVMAR:
    case STOP_TRUST_REGION:
      add_pair(table, LABEL_LAMBDA, str->lamb);
      add_pair(table, LABEL_RATIO, str->rhor);
      return add_pair(table, LABEL_RADIUS, str->delt);
    case STOP_RIDGE:
    case STOP_RIDGE_SQUARES:
      add_pair(table, LABEL_RATIO, str->rhor);
      return add_pair(table, LABEL_RIDGE, str->ridg);
    case STOP_DOGLEG:
      add_pair(table, LABEL_SLOPE, negated(str->pred));
      return add_pair(table, LABEL_RADIUS, str->delt);
    case STOP_LINE_SEARCH:
    case STOP_HYBRID:
    case STOP_NEWTON:
    case STOP_NEWTON_SQUARES:
    case STOP_RANGE_SPACE:
      return add_pair(table, LABEL_SLOPE, negated(str->pred));
    case STOP_SEQUENTIAL:
      add_pair(table, LABEL_OBJECTIVE_GRADIENT, str->gmax);
      add_pair(table, LABEL_MERIT, str->imax != 0 ? -str->crlf : str->crlf);
      return add_pair(table, LABEL_LAGRANGIAN_GRADIENT, str->gmlf);
    case STOP_COBYLA:
      add_pair(table, LABEL_MERIT_OF_SIMPLEX, str->pred);
      return add_pair(table, LABEL_RADIUS, str->rhor);
    case STOP_SIMPLEX:
      add_pair(table, LABEL_DEVIATION, str->pred);
      add_pair(table, LABEL_SIMPLEX_DELTA, str->alfa);
      return add_pair(table, LABEL_SIMPLEX_SIZE, str->gmax);
    case STOP_PLAIN:
      return;
  }
}

// A technique that was kept from running, or failed before its first test, has measured nothing:
// what is not known is left out.
static void write_summary(MINSTR* str, int fail, bool tested) {
  const StopLayout layout = stop_layout(str);
  RvxObject** table = &str->out;
  open_table(str->rvx, table, "IterStop", TITLE_STOP);
  write_work(str, table, layout);
  write_point(str, table, layout);
  if (str->nter > 0) write_steering(str, table, layout);
  if (tested) write_criteria(str, table, fail);
  close_table(table);
}

// ---- Reasons ------------------------------------------------------------------------------------

// How a code is told that needs no arguments.
struct EndText {
  int code;
  int log;     // message of the log; 0: none
  int reason;  // text of the status table
};

static constexpr EndText END_TEXTS[] = {
    {ALL_PARAMETERS_ACTIVE, 609, REASON_VERTEX},
    {-1, 131, 131},
    {-2, 132, 132},
    {FUNCTION_FAILED, 133, 133},
    {-4, 134, 134},
    {-6, 8, 8},
    {-7, 9, 9},
    {-10, 130, 130},
    {MODULE_FAILED, 0, REASON_MODULE},  // the failing call has told its own message
};

static constexpr int IN_FULL = 3;  // zmsg: the status table tells limits in full

// Severities of message 4.
static constexpr long AS_ERROR = 1;
static constexpr long AS_NOTE = 3;

static bool stopped_early(const MINSTR* str) { return str->nitr < static_cast<double>(str->mini); }

// QUADAS stops where a direction leads down without end.
static bool unbounded_quadratic(const MINSTR* str) { return str->tech == QUADAS && str->unbd != 0; }

// Did the run end where the nonlinear constraints are far from being met? Each step of ipre is a
// factor of ten on CEPS.
static bool far_from_feasible(const MINSTR* str) {
  static constexpr int FAR = 4;
  return str->nlicon != 0 && str->ipre >= FAR;
}

// Logs message number log (0: none) and gives the text of message number reason for the status
// table, both with the arguments.
static RvxText tell(const MINSTR* str, int log, int reason, MsgArgs args = {}) {
  if (log != 0) xpmlog(OPTIMIZATION, log, args);
  return str->dbug != 0.0 ? report_text(reason, args) : RvxText{};
}

// At a limit zmsg, the detail of such reports, is the severity too. No progress before the least
// number of iterations is a note: who asks for that number asks to go on where nothing is left to
// gain.
static long severity_of(const MINSTR* str, int fail) {
  if (fail == COUNT_LIMIT) return str->zmsg;
  return fail == NO_PROGRESS && stopped_early(str) ? AS_NOTE : AS_ERROR;
}

// The message of the code in the log; its reason for the status table. Codes with a criterion's
// name or with limits as arguments come first, the table of the others last. A code of the user's
// own termination test means what the user says, not what the library's codes do.
static RvxText tell_reason(const MINSTR* str, int fail) {
  const bool in_full = str->zmsg == IN_FULL;
  if (fail != 0 && fail == str->tcod) {
    return tell(str, REASON_TERMINATION_MODULE, REASON_TERMINATION_MODULE, {long{fail}});
  }
  if (fail == 0) {
    return str->nitr == 0.0 ? tell(str, 613, REASON_NOT_RUN) : tell(str, 614, 614);
  }
  if (fail >= FIRST_CRITERION && fail <= LAST_CRITERION) {
    const RvxText name = unpadded(criterion(fail).name);
    return tell(str, 607, REASON_CRITERION, {name.text});
  }
  if (fail >= FIRST_NEAR_CRITERION && fail <= LAST_NEAR_CRITERION) {
    const Criterion& c = criterion(fail - STOP_OVERRULED);
    const RvxText name = unpadded(c.name);
    return tell(str, 611, REASON_NEAR_CRITERION, {name.text, str->toln[c.counter]});
  }
  if (fail == NO_PROGRESS && unbounded_quadratic(str)) {
    return tell(str, 0, str->imax != 0 ? 41 : 40);  // the log has it
  }
  if (fail == -2 && is_barrier(str)) return tell(str, 0, 145);  // the matrix: the log has it
  if (fail == NO_PROGRESS && far_from_feasible(str)) {
    return tell(str, 146, 146, {str->cmax});
  }
  if (fail == NO_PROGRESS) {
    const int message = stopped_early(str) ? 3 : 1;
    return tell(str, message, message);
  }
  if (fail == COUNT_LIMIT) {
    const RvxText name = unpadded(technique_name(str->tech));
    return tell(str, 605, in_full ? REASON_LIMIT_IN_FULL : REASON_LIMIT,
                {str->maxi, str->maxf, name.text});
  }
  if (fail == TIME_LIMIT) {
    return tell(str, 2, in_full ? REASON_TIME_IN_FULL : REASON_TIME, {str->upti});
  }
  for (const EndText& end : END_TEXTS) {
    if (end.code == fail) return tell(str, end.log, end.reason);
  }
  return RvxText{};
}

static double largest_parameter(const MINSTR* str) {
  double largest = 0.0;
  for (long j = 0; j < str->nvar; ++j) largest = std::max(largest, std::fabs(str->x[j]));
  return largest;
}

// Does the objective, by its own rounding, hide the decrease that the gradient still promises? The
// relative gradient of Dennis and Schnabel (1983), section 7.2, against the root of the relative
// accuracy of the objective: a step that changes the parameters by that root changes the objective
// by its rounding error. The magnitude of an objective near zero is taken as 1, as the default of
// ABSGCONV does.
static bool gradient_is_rounding(const MINSTR* str) {
  static constexpr double MARGIN = 10.0;
  static constexpr double TYPICAL_OBJECTIVE = 1.0;
  if (str->nlicon != 0 || is_simplex(str->tech) || str->nter == 0) return false;
  const double largest = std::max(1.0, largest_parameter(str));
  const double accuracy = str->fdig > 0.0 ? std::pow(10.0, -str->fdig) : EPS;
  const double size = std::max(std::fabs(str->crit), TYPICAL_OBJECTIVE);
  return str->gmax * largest <= MARGIN * std::sqrt(accuracy) * size;
}

// Was the last step that of the ridge rather than of the Hessian? The prediction is s'Hs/2 + r s's.
// The ridge in hand is the one for the next iteration, after good steps an eighth of the last.
static bool ridge_kept_steps_short(const MINSTR* str) {
  static constexpr double SHARE = 0.1;
  const bool ridging = str->tech == NRRIDG || str->tech == NRLINS;
  if (!ridging || str->hesc != 0 || str->nter == 0 || wzmis(str->tval[4])) return false;
  return str->gmax > str->agtl && str->ridg * str->tval[4] * str->tval[4] > SHARE * str->pred;
}

// Under nonlinear constraints the steps have no limit at which a run could tell that the objective
// is unbounded.
static bool may_be_unbounded(const MINSTR* str, int fail) {
  static constexpr double SUSPICIOUS = 1e6;
  return fail == COUNT_LIMIT && str->nlicon != 0 && largest_parameter(str) > SUSPICIOUS;
}

// What a reader of the result should know besides: a feasibility tolerance that had to be widened,
// a gradient that is large for a converged run, an active constraint with a multiplier of the wrong
// sign, a failure that may be none, a success that may be none.
static void tell_doubts(const MINSTR* str, int fail, int job) {
  static constexpr int WIDEST = 10;  // ipre when no tolerance fits
  static constexpr double LARGE_GRADIENT = 0.001;
  if (str->ipre >= WIDEST) {
    xpmlog(OPTIMIZATION, 253);
  } else if (str->ipre != 0) {
    xpmlog(OPTIMIZATION, 137, {feasibility_tolerance(str, str->ipre)});
  }
  const double gradient = str->nlicon != 0 ? str->gmlf : str->gmax;
  if (job == 0 && fail >= 0 && gradient > LARGE_GRADIENT) xpmlog(OPTIMIZATION, 136);
  if (str->idac != 0) xpmlog(OPTIMIZATION, 138);
  if (fail == str->tcod) return;  // the module that ended the run knows why
  if (fail == NO_PROGRESS && !unbounded_quadratic(str) && gradient_is_rounding(str)) {
    xpmlog(OPTIMIZATION, 142, {str->gmax, gradient_criteria(str).text});
  }
  if (fail > 0 && far_from_feasible(str)) xpmlog(OPTIMIZATION, 146, {str->cmax});
  if (may_be_unbounded(str, fail)) xpmlog(OPTIMIZATION, 141, {largest_parameter(str)});
  if (fail == 6 && ridge_kept_steps_short(str)) {
    xpmlog(OPTIMIZATION, 143, {str->ridg, str->gmax});
  }
}

// The code for programs, its reason for people.
static void write_status(MINSTR* str, int fail, const RvxText& reason) {
  RvxObject** table = &str->out;
  const long status = fail;
  open_table(str->rvx, table, "ConvergenceStatus", TITLE_STATUS);
  add_column(table, "Status", &status);
  add_column(table, "Reason", &reason);
  add_row(table);
  close_table(table);
}

void znlpptm(MINSTR* str, int fail, int job) {
  // Without a history no test of this library ran: a limit forbade the first iteration, or a module
  // of the user took the place of the test.
  // The criteria are judged on the values of the last test; without one there is nothing to show.
  const bool tested = str->ithis != nullptr;
  close_table(&str->ithis);
  if (str->dbug != 0.0 && job == 0) write_summary(str, fail, tested);
  if (fail < 0 && str->tech != NO_TECHNIQUE) {
    const RvxText name = unpadded(technique_name(str->tech));
    xpmlog(OPTIMIZATION, 4, {name.text, severity_of(str, fail)});
  }
  const RvxText reason = tell_reason(str, fail);
  tell_doubts(str, fail, job);
  if (str->dbug != 0.0) write_status(str, fail, reason);
}

}  // namespace tqnlp
