// znlpdrv: the DRiVer of a run, the one point through which every run passes.
//
// Job 1 makes the start feasible, evaluates objective, constraints and derivatives there, tests
// supplied derivatives and writes the start reports. Job 2 runs the technique, evaluates the
// solution once more and writes the final reports. The driver holds no state and allocates nothing;
// an array that could not be computed is filled with the missing value, every failure is a code.
//
// Also here: which code runs under which technique number, and znlpmer, the math-error trap.
#include "aasubs/driver/znlpdrv.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iterator>

#include "aasubs/constraints/znlpba1.h"
#include "aasubs/constraints/znlpbas.h"
#include "aasubs/constraints/znlpftr.h"
#include "aasubs/derivatives/znlpchd.h"
#include "aasubs/derivatives/znlpfdh.h"
#include "aasubs/direct/znlpcob.h"
#include "aasubs/direct/znlpnm2.h"
#include "aasubs/direct/znlpnms.h"
#include "aasubs/leastsquares/znlpgan.h"
#include "aasubs/leastsquares/znlphqn.h"
#include "aasubs/leastsquares/znlplma.h"
#include "aasubs/newton/znlpnra.h"
#include "aasubs/newton/znlpnrl.h"
#include "aasubs/newton/znlpnrr.h"
#include "aasubs/newton/znlptre.h"
#include "aasubs/post/stop_analysis.h"
#include "aasubs/post/znlppli.h"
#include "aasubs/quadratic/znlpqar.h"
#include "aasubs/quadratic/znlpqas.h"
#include "aasubs/quasinewton/znlpcog.h"
#include "aasubs/quasinewton/znlpddl.h"
#include "aasubs/quasinewton/znlpdqn.h"
#include "aasubs/quasinewton/znlpqun.h"
#include "aasubs/record/covstr.h"
#include "aasubs/reports/znlppre.h"
#include "aasubs/sqp/znlpdq2.h"
#include "aasubs/sqp/znlpvmc.h"
#include "aasubs/termination/znlptrm.h"
#include "host/language.h"
#include "host/log.h"

namespace tqnlp {

// ---- Techniques ---------------------------------------------------------------------------------

// The code of a technique; null for the two numbers of the list that stand for no code at all, and
// for numbers that it does not hold: a run of them ends with code 0.
static Callback technique_code(const MINSTR* str) {
  switch (str->tech) {
    case TRUREG:
      return znlptre;
    case NEWRAP:
      return znlpnra;
    case NRRIDG:
      return znlpnrr;
    case NRLINS:
      return znlpnrl;
    case GAUNEW:
      return znlpgan;
    case LEVMAR:
      return znlplma;
    case DBLDOG:
      return znlpddl;
    case QUANEW:
      return znlpqun;
    case QUANEW_DUAL:
      return str->nlicon != 0 ? znlpdq2 : znlpdqn;
    case HYQUAN:
      return znlphqn;
    case CONGRA:
      return znlpcog;
    case NMSIMP:
      return str->nlicon != 0 ? znlpcob : znlpnms;
    case NMSIM2:
      return znlpnm2;
    case QUADAS:
      return str->vers == BARRIER_FORM ? znlpqar : znlpqas;
    case VMCWD:
      return znlpvmc;
    default:
      return nullptr;
  }
}

static int run_technique(MINSTR* str) {
  const Callback technique = technique_code(str);
  const int code = technique != nullptr ? technique(str) : 0;
  // A technique that was told to start over hands that request back when the derivatives cannot be
  // loaded there. A run must not report it as success.
  return code == STOP_OVERRULED ? -4 : code;
}

// ---- What both jobs share -----------------------------------------------------------------------

static bool has_general_constraints(const MINSTR* str) {
  return str->nlicon != 0 || str->lincon != 0;
}

static bool failed(MINSTR* str, Callback callback) {
  return callback(str) != 0 || str->tbig != 0.0;
}

static void set_message_detail(MINSTR* str) { str->zmsg = std::clamp(zbugi("-nlpitermsg"), 1, 3); }

static void mark_gradient_missing(MINSTR* str) { vzfdl(MISSING, str->grad, str->nvar); }

static void mark_constraints_missing(MINSTR* str) {
  if (str->nlicon != 0) vzfdl(MISSING, str->fcon, str->nnlc);
}

static void mark_constraint_jacobian_missing(MINSTR* str) {
  if (str->nlicon != 0) vzfdl(MISSING, str->jcon, str->nnlc * str->nvar);
}

// With nonlinear constraints: merit function, constraint values and, where post-analysis wants it,
// their Jacobian.
static void mark_lagrangian_missing(MINSTR* str) {
  if (str->nlicon == 0) return;
  str->crlf = MISSING;
  mark_constraints_missing(str);
  if (str->covstr != nullptr && str->covstr->usjnc != nullptr) {
    mark_constraint_jacobian_missing(str);
  }
}

static bool call_objective(MINSTR* str) {
  str->ifdr = ORDER_FUNCTION;
  const bool in_covstr = str->covstr != nullptr && str->covstr->usfct != nullptr;
  return !failed(str, in_covstr ? str->covstr->usfct : str->usfct);
}

// Objective at x, into crit and cold.
static bool evaluate_objective(MINSTR* str) {
  if (!call_objective(str)) return false;
  str->cold = str->crit;
  return true;
}

static bool evaluate_constraints(MINSTR* str) {
  if (str->nlicon == 0) return true;
  const bool in_covstr = str->covstr != nullptr && str->covstr->usnlc != nullptr;
  const Callback callback = in_covstr ? str->covstr->usnlc : str->usnlc;
  return callback == nullptr || !failed(str, callback);
}

static bool evaluate_gradient(MINSTR* str) {
  str->ifdr = ORDER_GRADIENT;
  const bool in_covstr = str->covstr != nullptr && str->covstr->usgrd != nullptr;
  const Callback callback = in_covstr ? str->covstr->usgrd : str->usgrd;
  return callback == nullptr || !failed(str, callback);
}

// Constraint Jacobian; the function is called again first when the user's code keeps work between a
// function call and its derivative call.
static bool evaluate_constraint_jacobian(MINSTR* str) {
  if (str->nlicon == 0) return true;
  if (str->fsav != 0 && str->ifdr > ORDER_FUNCTION && !call_objective(str)) return false;
  str->ifdr = ORDER_GRADIENT;
  const bool in_covstr = str->covstr != nullptr && str->covstr->usjnc != nullptr;
  const Callback callback = in_covstr ? str->covstr->usjnc : str->usjnc;
  return callback == nullptr || !failed(str, callback);
}

// Difference intervals, where they are asked for. False: an evaluation failed, so that the later
// parameters have none and no difference may be taken.
static bool estimate_intervals(MINSTR* str) {
  return str->cfdh == 0 || znlpfdh(str, str->cfdh) >= 0;
}

// Rebuilds the frame of the working set for a report; multipliers 1 first form, 2 second form.
static void rebuild_frame(MINSTR* str, int multipliers) {
  if (in_range_space(str)) {
    znlpftr(str, 0, 1, nullptr);  // with the identity for a factor, which the run may not have yet
  } else if (str->opro != 0) {
    znlpfta(str, 0, multipliers, 0, nullptr, nullptr, nullptr);
  }
}

// ---- Job 1: prepare -----------------------------------------------------------------------------

static int longest_name(const char* const* names, long count) {
  int longest = 0;
  for (long i = 0; names != nullptr && i < count; ++i) {
    longest = std::max(longest, static_cast<int>(std::strlen(names[i])));
  }
  return longest;
}

// No point satisfies the constraints: x returns to the user's start, nothing is known there.
static int give_up_feasibility(MINSTR* str) {
  xpmlog(OPTIMIZATION, 46, {str->ceps});
  std::copy_n(str->xold, str->nvar, str->x);
  str->ipre = 0;
  znlpfch(str, 1, 1, 0);
  str->crit = MISSING;
  mark_gradient_missing(str);
  mark_lagrangian_missing(str);
  return -10;
}

// Moves the start into the region of bounds and linear constraints. Returns 0 or -10.
static int make_start_feasible(MINSTR* str) {
  if (str->bounds == 0 && str->lincon == 0) return 0;
  std::copy_n(str->x, str->nvar, str->xold);
  const int result = make_feasible(str, 2);
  // A repair of enormous numbers may overflow, and takes the outcome for feasible.
  const bool finite =
      std::all_of(str->x, str->x + str->nvar, [](double x) { return std::isfinite(x); });
  if (!finite) return give_up_feasibility(str);
  if (result >= 0) {
    if (result > 0) {
      xpmlog(OPTIMIZATION, 10);
      if (str->dbug != 0.0) xpmout(OPTIMIZATION, 10);
    }
    std::copy_n(str->x, str->nvar, str->xold);
    return 0;
  }
  if (str->nlicon != 0 && znlpfnc(str, 1) == 0) return 0;
  return give_up_feasibility(str);
}

// Objective, constraints and first derivatives at the start. Returns 0, -1 or -2.
static int evaluate_start(MINSTR* str) {
  mark_gradient_missing(str);
  mark_constraints_missing(str);
  str->indf = AT_START;
  if (!evaluate_objective(str)) {
    str->crit = MISSING;
    mark_gradient_missing(str);
    mark_lagrangian_missing(str);
    return -1;
  }
  str->dfes = str->lsqu != 0 ? std::fabs(str->crit / 20.0) : MISSING;
  if (!evaluate_constraints(str)) {
    mark_gradient_missing(str);
    mark_lagrangian_missing(str);
    return -1;
  }
  if (!estimate_intervals(str) || !evaluate_gradient(str)) {
    mark_gradient_missing(str);
    return -2;
  }
  if (!evaluate_constraint_jacobian(str)) {
    mark_constraint_jacobian_missing(str);
    return -2;
  }
  return 0;
}

static int report_failed_start(MINSTR* str, int code, bool start_report, int detail) {
  if (start_report) {
    if (code == -10 && !wzmis(str->crit)) znlpptm(str, -10, 1);
    znlppre(str, str->dbug >= 3.0 ? -10 : -1, detail);
    if (str->covstr != nullptr && str->covstr->uspmat != nullptr) str->covstr->uspmat(str, -1);
  }
  str->rcod = code;
  return code;
}

static int start_level(const MINSTR* str) {
  if (str->dbug >= 4.0) return -3;
  return str->dbug == 3.0 ? -2 : -1;
}

static double* room_for_hessian(const MINSTR* str) {
  if (str->hess != nullptr) return str->hess;
  return str->hpro != nullptr ? str->hpro : str->half;
}

// Tests of what the user supplies: gradient or Jacobian (dtst 1, 2), Jacobian of the nonlinear
// constraints (ctst). A doubtful derivative is a warning; only an evaluation that fails gives -2.
static int test_derivatives(MINSTR* str, int dtst, int ctst) {
  if (str->gchk != 0 && str->fqad == 0 && (dtst == 1 || dtst == 2)) {
    const int result = dtst == 1 ? znlpchd(str, 0, nullptr) : znlpchd(str, 1, str->wrk2);
    if (result != 0) xpmlog(OPTIMIZATION, dtst == 1 ? 181 : 182, {static_cast<long>(result)});
    if (result < 0) return -2;
    if (str->gchk == 2) znlpchg(str, 1, room_for_hessian(str));
  }
  if (ctst != 0) {
    const int result = znlpchc(str, str->wrk2, str->wrk2 + str->nnlc);
    if (result != 0) xpmlog(OPTIMIZATION, 183, {static_cast<long>(result)});
    if (result < 0) return -2;
  }
  return 0;
}

static int prepare(MINSTR* str, int pfun, int dtst, int ctst) {
  const bool start_report = str->covstr != nullptr ? str->covstr->pini != 0 : (pfun & 1) != 0;
  const int detail = str->covstr != nullptr ? str->covstr->pfun : pfun / 2;
  str->maxpnam = longest_name(str->pnam, str->nvar);
  str->maxfnam = longest_name(str->fnam, str->mequ);

  int code = make_start_feasible(str);
  if (code == 0) code = evaluate_start(str);
  if (code != 0) return report_failed_start(str, code, start_report, detail);

  if (has_general_constraints(str) || str->bounds != 0) {
    znlpfch(str, 1, 1, str->ipre);
    rebuild_frame(str, 1);
  }
  if (start_report) znlppre(str, start_level(str), detail);
  code = test_derivatives(str, dtst, ctst);
  if (str->covstr != nullptr) {
    if (str->covstr->uscmat != nullptr) str->covstr->uscmat(str, 0);
    if (str->covstr->uspmat != nullptr) str->covstr->uspmat(str, 0);
  }
  str->rcod = code;
  return code;
}

// ---- Job 2: run ---------------------------------------------------------------------------------

// The technique, unless a limit forbids its first iteration.
static int run_within_limits(MINSTR* str) {
  if (str->tech == NO_TECHNIQUE) return 0;
  if (str->maxi <= 0.0 || str->maxf <= 0.0) return -8;
  if (str->upti <= 0.0) return -9;
  return run_technique(str);
}

// Widens the feasibility tolerance tenfold until the final point passes, at most to 10^10 ceps.
static void widen_tolerance_to_fit(MINSTR* str) {
  static constexpr int WIDEST = 10;
  double tolerance = std::max(str->ceps, SMALLEST_TOLERANCE);
  str->ipre = 0;
  while (znlpfch(str, 1, 1, str->ipre) != 0) {
    tolerance *= 10.0;
    ++str->ipre;
    if (str->ipre >= WIDEST || tolerance > RIDGE_CEILING) {
      znlpfch(str, 1, 1, str->ipre);
      break;
    }
  }
}

// Evaluates the solution once more, so that every reported quantity belongs to x. Returns the code
// of the run, or -3 or -4 when an evaluation failed.
static int evaluate_solution(MINSTR* str, int code) {
  mark_gradient_missing(str);
  mark_constraints_missing(str);
  str->indf = AT_SOLUTION;
  bool values = evaluate_objective(str);
  if (!values) str->crit = MISSING;
  if (!evaluate_constraints(str)) {
    mark_constraints_missing(str);
    values = false;
  }
  if (!values) code = -3;
  // Without values there is no noise to estimate, and their failure remains the reason of the end.
  const int failure = values ? -4 : -3;
  const bool intervals = str->cfdh == 0 || (values && estimate_intervals(str));
  if (values && !intervals) xpmlog(OPTIMIZATION, 139);
  if (!intervals || !evaluate_gradient(str)) {
    mark_gradient_missing(str);
    code = failure;
  }
  if (!intervals || !evaluate_constraint_jacobian(str)) {
    mark_constraint_jacobian_missing(str);
    code = failure;
  }
  if (has_general_constraints(str) || str->bounds != 0) {
    widen_tolerance_to_fit(str);
    rebuild_frame(str, str->ulm2 != 0 ? 2 : 1);
  }
  return code;
}

// The end of a run of a service: its values, and whether the constraints hold. Where they do not it
// is told apart whether points exist at which they do.
static int check_end(MINSTR* str, int code, int ipre) {
  str->indf = AT_SOLUTION;
  if (!evaluate_objective(str) || !evaluate_constraints(str)) return -3;
  if (znlpfch(str, 0, 1, ipre) == 0) return code;
  return str->nlicon != 0 && znlpfnc(str, 1) != 0 ? -10 : -6;
}

// A run without reports, from x: what a service calls that optimizes again. Its point must be
// feasible within the tolerance as it stands, also where it stopped for lack of progress or at a
// limit of counts. The caller's modules for termination and output belong to his own run. Returns
// the code of the run, with crit at x.
static int optimize_again(MINSTR* str) {
  const int ipre = str->ipre;
  str->uster = znlptrm;
  str->usfout = nullptr;
  if ((str->bounds != 0 || str->lincon != 0) && (make_feasible(str, 2) < 0 || str->ipre != ipre)) {
    return -10;
  }
  int code = evaluate_start(str);
  if (code != 0) return code;
  if (has_general_constraints(str) || str->bounds != 0) {
    znlpfch(str, 1, 1, str->ipre);
    rebuild_frame(str, 1);
  }
  str->indf = IN_RUN;
  code = run_within_limits(str);
  const bool judged = code >= 0 || code == NO_PROGRESS || code == COUNT_LIMIT;
  return judged ? check_end(str, code, ipre) : code;
}

// Confidence limits about the solution. They change the arrays of the run: what belongs to x is
// made again.
static void compute_limits(MINSTR* str, int code) {
  PLCSTR* options = str->covstr->plcstr;
  options->optimize = optimize_again;
  znlppli(str);
  if (options->nrun == 0 && options->nf == 0) return;
  const MINSTR result = *str;
  evaluate_solution(str, code);
  *str = result;
}

static int final_level(const MINSTR* str, bool evaluated) {
  int level = 0;
  if (str->dbug >= 4.0) {
    level = 3;
  } else if (str->dbug == 3.0) {
    level = 2;
  } else if (str->covstr != nullptr && str->covstr->psho != 0) {
    level = 1;
  }
  return evaluated ? level : std::min(level, 1);
}

static int run(MINSTR* str, int pfun) {
  str->indf = IN_RUN;
  if (str->dbug != 0.0) pritech(str);
  str->mtim = zdattim();
  int code = run_within_limits(str);
  str->mtim = zdattim() - str->mtim;

  const bool evaluated = !((code >= -4 && code <= -1) || code == -11);
  if (evaluated) code = evaluate_solution(str, code);
  str->rcod = code;
  // Without a value there is no summary; that the solution has none must not go unsaid.
  znlpptm(str, code, wzmis(str->crit) ? 1 : 0);
  COVSTR* post = str->covstr;
  if (evaluated && post != nullptr && post->uscmat != nullptr) post->uscmat(str, 1);

  const int level = final_level(str, evaluated);
  if (level != 0) znlppre(str, level, post != nullptr ? post->pfun : pfun / 2);
  if (evaluated && post != nullptr && post->uspmat != nullptr) post->uspmat(str, 1);
  if (code >= 0 && post != nullptr && post->plcstr != nullptr && post->plcstr->job != 0) {
    compute_limits(str, code);
  }
  return code;
}

int znlpdrv(MINSTR* str, int job, int pfun, int dtst, int ctst) {
  set_message_detail(str);
  return job == 2 ? run(str, pfun) : prepare(str, pfun, dtst, ctst);
}

// ---- Math-error trap ----------------------------------------------------------------------------

// Writes the line of a trapped error and returns the code of its kind.
static int describe_math_error(int type) {
  switch (type) {
    case 1:
      xpslog("Domain error trapped");
      return -1;
    case 2:
      xpslog("Singular error trapped");
      return -1;
    case 3:
    case 12:
      xpslog("Overflow error trapped");
      return -1;
    case 4:
    case 11:
      xpslog("**************************************");
      xpslog("Underflow error: Should not be trapped");
      xpslog("**************************************");
      return 0;
    case 5:
    case 6:
      xpslog("Loss of precision trapped");
      return -1;
    case 13:
      xpslog("Division by 0 error trapped");
      return -1;
    case 14:
    case 15:
      xpslog("Bad floating number");
      return -1;
    default:
      xpslog("Unidentified type of error trapped");
      return -1;
  }
}

int znlpmer(const WTMTHERR* x) {
  const int code = describe_math_error(x->type);
  const MINSTR* running = tqlq()->record;
  if (running != nullptr && running->mpin != nullptr) wtresum(running->mpin, code);
  return code;
}

}  // namespace tqnlp
