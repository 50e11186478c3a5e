// znlpfnc: Feasibility of Nonlinear Constraints, the repair of a point.
//
// Model      F(x) = sum r_i(x)^2 / 2 over the residuals of all equalities and of the inequalities
//            and bounds that x violates, g = J'r, H = J'J
// Method     Gauss-Newton with a ridge, (J'J + ridge I)s = -g, and a line search on F that doubles
//            the step or cuts it; steepest descent when no ridge is of use
// Reference  Levenberg (1944), Marquardt (1963); Gill and Murray (1974), Mathematical Programming
//            7, for the modified Cholesky factor; Armijo (1966) for the shortening of steps
// Reads      fcon, jcon through usnlc, usjnc; bounds, linear constraints; ceps, ipre, sing
// Writes     x; iabc, iact and counts at a point with a gain
// Work       hess = J'J | half (or hpro) = its factor | grad = g | sdir = s | gold = x at entry |
//            xold = x of the iteration | awrk = constraint row
//
//   1  residuals, g and H; feasible: done
//   2  factor with the present ridge, direction, its slope; raise the ridge where it is no descent
//   3  limit the step, search, raise the ridge where nothing is gained
//   4  take the best step; limits
#include "aasubs/constraints/znlpfnc.h"

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpbas.h"
#include "aasubs/record/covstr.h"
#include "host/log.h"
#include "host/memory.h"
#include "kernels/chmod.h"
#include "kernels/dense.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr int FEASIBLE = 0;
static constexpr int LESS_INFEASIBLE = 3;
static constexpr int NO_START = -1;
static constexpr int LIMIT_REACHED = -3;
static constexpr int NO_DESCENT = -5;

static constexpr double FIRST_RIDGE = 0.0001;
static constexpr double RAISE = 4.0;
static constexpr double LONG_STEP = 10.0;           // longest step against max(|x|, 1)
static constexpr double LESS = 0.9999999999999889;  // share of F that counts as smaller
static constexpr double LONGEST_MULTIPLE = 10.0;    // doubling stays below it
static constexpr double FIRST_CUT = 0.5;            // of a first trial that failed
static constexpr double CUT = 0.1;                  // of the trials after it
static constexpr double LEAST_COMPONENT = 1.4916681469999999e-154;  // of a step, in quotients

namespace {

struct Repair {
  double* matrix = nullptr;  // J'J, packed
  double* factor = nullptr;
  long calls = 0;  // nfun
  long most_calls = 0;
  double vmax = 0.0;   // largest violation at the point last looked at
  double vvio = 0.0;   // F there
  double entry = 0.0;  // largest violation at the start
  double ridge = 0.0;
  bool solver = true;  // false: steepest descent

  bool out_of_calls() const { return calls > most_calls; }
};

enum class Next { search, end, stop };

}  // namespace

// ---- Residuals ----------------------------------------------------------------------------------

namespace {

// What one pass over the constraints adds up. A residual within its tolerance violates nothing;
// that of an equality counts in F all the same.
struct Residuals {
  double vmax = 0.0;
  double vvio = 0.0;
  long violated = 0;
  double* hess = nullptr;  // null: values alone
};

}  // namespace

static void add_value(Residuals& sum, double r, double tolerance) {
  sum.vmax = std::max(sum.vmax, std::fabs(r));
  sum.vvio += 0.5 * r * r;
  if (!(std::fabs(r) <= tolerance)) ++sum.violated;
}

// A residual r = (row)'x + const over n parameters.
static void add_row(MINSTR* str, Residuals& sum, double r, double tolerance, const double* row) {
  add_value(sum, r, tolerance);
  if (sum.hess == nullptr) return;
  zvxay11(str->nvar, str->grad, r, row);
  for (long i = 0; i < str->nvar; ++i) {
    if (row[i] != 0.0) zvxay11(i + 1, sum.hess + packed_size(i), row[i], row);
  }
}

// Written so that a parameter that is no number counts as violated.
static void add_bounds(MINSTR* str, Residuals& sum, double eps) {
  for (long j = 0; j < str->nvar; ++j) {
    const double lb = str->lb[j];
    const double ub = str->ub[j];
    const double x = str->x[j];
    const double below = (std::fabs(lb) + 1.0) * eps;
    const double above = (std::fabs(ub) + 1.0) * eps;
    double r = 0.0;
    if (str->iabc[j] == 2) {
      if (!(std::fabs(x - lb) <= below)) r = x - lb;
    } else if (lower_exists(lb) && !(x >= lb - below)) {
      r = x - lb;
    } else if (upper_exists(ub) && !(x <= ub + above)) {
      r = x - ub;
    }
    if (r == 0.0) continue;
    add_value(sum, r, 0.0);
    if (sum.hess == nullptr) continue;
    str->grad[j] += r;
    sum.hess[zisub(j, j)] += 1.0;
  }
}

static void add_linear(MINSTR* str, Residuals& sum, double eps) {
  for (long i = 0; i < str->ncon; ++i) {
    str->acget(str, i, str->awrk);
    const double r = zvdot11(str->nvar, str->awrk, str->x) - str->blcn[i];
    const double tolerance = std::max((std::fabs(str->blcn[i]) + 1.0) * eps, eps);
    if (i < str->neqc || !(r >= -tolerance)) add_row(str, sum, r, tolerance, str->awrk);
  }
}

static void add_nonlinear(MINSTR* str, Residuals& sum, double eps) {
  for (long i = 0; i < str->nnlc; ++i) {
    const double r = str->fcon[i];
    if (i < str->nlec || !(r >= -eps)) add_row(str, sum, r, eps, str->jcon + i * str->nvar);
  }
}

// Values of the nonlinear constraints at x, and with job their Jacobian. Returns 0, -1, -2.
static int evaluate_constraints(MINSTR* str, int job) {
  if (str->nlicon == 0) return 0;
  str->ifdr = ORDER_FUNCTION;
  const int code = str->usnlc != nullptr ? str->usnlc(str) : str->usfct(str);
  if (code != 0 || str->tbig != 0.0) return -1;
  if (job == 0) return 0;
  const bool post = str->covstr != nullptr && str->covstr->usjnc != nullptr;
  const Callback jacobian = post ? str->covstr->usjnc : str->usjnc;
  str->ifdr = ORDER_GRADIENT;
  return jacobian == nullptr || jacobian(str) != 0 || str->tbig != 0.0 ? -2 : 0;
}

// F and the largest violation at x; job 1 also g in grad and H in hess. Returns the number of
// violated constraints, -1 (constraints failed) or -2 (Jacobian failed). A trial asks for values
// alone; the Jacobian, which may cost n evaluations, is only formed at the points that are taken.
static long funhes(MINSTR* str, int job, long* nfun, double* vmax, double* vvio, double* hess) {
  ++*nfun;
  const int code = evaluate_constraints(str, job);
  if (code != 0) return code;
  Residuals sum;
  if (job != 0) {
    sum.hess = hess;
    vzfdl(0.0, str->grad, str->nvar);
    vzfdl(0.0, hess, str->nnva);
  }
  const double eps = feasibility_tolerance(str, str->ipre);
  if (str->bounds != 0) add_bounds(str, sum, eps);
  if (str->lincon != 0) add_linear(str, sum, eps);
  if (str->nlicon != 0) add_nonlinear(str, sum, eps);
  if (!std::isfinite(sum.vvio)) return -1;  // a residual that overflows is none
  *vmax = sum.vmax;
  *vvio = sum.vvio;
  return sum.violated;
}

static long look(MINSTR* str, Repair& repair, int job) {
  return funhes(str, job, &repair.calls, &repair.vmax, &repair.vvio, repair.matrix);
}

// ---- Direction ----------------------------------------------------------------------------------

// sdir := solution of (J'J + ridge I)s = -g, or -g.
static void form_direction(MINSTR* str, Repair& repair) {
  const long n = str->nvar;
  if (repair.solver) {
    std::copy_n(repair.matrix, str->nnva, repair.factor);
    for (long i = 0; repair.ridge > 0.0 && i < n; ++i) repair.factor[zisub(i, i)] += repair.ridge;
    repair.ridge = std::max(repair.ridge, chmod(n, str->sing, repair.factor));
    zvz111(n, str->sdir, -1.0, str->grad);
    repair.solver = znlpcso(str, 2, n, repair.factor, str->sdir) == 0;
  }
  if (!repair.solver) zvz111(n, str->sdir, -1.0, str->grad);
}

// The next ridge, or steepest descent when there is none left. False: both have been used up.
static bool raise_ridge(Repair& repair) {
  if (!repair.solver) return false;
  repair.ridge = repair.ridge == 0.0 ? FIRST_RIDGE : RAISE * repair.ridge;
  if (!(repair.ridge < RIDGE_CEILING)) repair.solver = false;
  return true;
}

// A descent direction in sdir, at most ten times as long as x. Next::end: there is none.
static Next descent_direction(MINSTR* str, Repair& repair) {
  // Some five hundred raises lead to the ceiling; steepest descent after it ends the loop.
  for (;;) {
    form_direction(str, repair);
    const double length = zvenorm(str->nvar, 1, str->sdir);
    if (length <= TINY) return Next::end;
    if (dotprd(str->nvar, str->sdir, str->grad) <= 0.0 && std::isfinite(length)) {
      const double most = std::max(zvenorm(str->nvar, 1, str->xold), 1.0);
      if (length / LONG_STEP > most) zvscl11(str->nvar, str->sdir, most / (length / LONG_STEP));
      return Next::search;
    }
    if (!raise_ridge(repair)) return Next::end;
  }
}

// ---- Line search --------------------------------------------------------------------------------

static long try_step(MINSTR* str, Repair& repair, double alfa) {
  zvaxpy(str->x, str->sdir, str->xold, str->nvar, alfa);
  return look(str, repair, 0);
}

// The smallest step that changes a component.
static double smallest_step(const MINSTR* str) {
  double least = HUGE_VALUE;
  for (long j = 0; j < str->nvar; ++j) {
    const double move = std::max(std::fabs(str->sdir[j]), LEAST_COMPONENT);
    least = std::min(least, HUNDRED_EPS * std::fabs(str->xold[j]) / move);
  }
  // A component of zero is changed by any step: the number of evaluations ends the cutting then.
  return std::max(least, TINY);
}

// Cuts the step until F falls below its value cold at xold. Returns the step, or 0; *feasible when
// the trial in x violates nothing.
static double armijo(MINSTR* str, Repair& repair, double cold, bool* feasible) {
  const double least = smallest_step(str);
  for (double alfa = FIRST_CUT; alfa >= least && !repair.out_of_calls(); alfa *= CUT) {
    const long violated = try_step(str, repair, alfa);
    *feasible = violated == 0;
    if (*feasible || (violated > 0 && repair.vvio < LESS * cold)) return alfa;
  }
  return 0.0;
}

// Step along sdir that makes F smaller: doubles from 1 as long as it pays, or cuts. 0: no gain.
static double search_step(MINSTR* str, Repair& repair, double cold, bool* feasible) {
  double best = cold;
  double taken = 0.0;
  for (double alfa = 1.0; alfa < LONGEST_MULTIPLE; alfa *= 2.0) {
    const long violated = try_step(str, repair, alfa);
    *feasible = violated == 0;
    if (*feasible) return alfa;
    if (!(violated > 0 && repair.vvio < LESS * best)) break;
    best = repair.vvio;
    taken = alfa;
  }
  return taken > 0.0 ? taken : armijo(str, repair, cold, feasible);
}

// ---- The iteration ------------------------------------------------------------------------------

static int end_code(const Repair& repair, double vmax, int without_gain) {
  return vmax < repair.entry ? LESS_INFEASIBLE : without_gain;
}

// x back to the last good point of the iteration, where the largest violation is vmax.
static int end_at_xold(MINSTR* str, const Repair& repair, double vmax, int without_gain) {
  std::copy_n(str->xold, str->nvar, str->x);
  return end_code(repair, vmax, without_gain);
}

// One iteration from x, where g and H stand. Returns true to go on; else *code is the result.
static bool iterate(MINSTR* str, Repair& repair, int* code) {
  std::copy_n(str->x, str->nvar, str->xold);
  repair.ridge = 0.0;
  repair.solver = true;
  const double cold = repair.vvio;
  const double vmax = repair.vmax;
  double alfa = 0.0;
  while (!(alfa > 0.0)) {
    if (repair.out_of_calls()) {
      *code = end_at_xold(str, repair, vmax, LIMIT_REACHED);
      return false;
    }
    bool feasible = false;
    if (descent_direction(str, repair) == Next::search) {
      alfa = search_step(str, repair, cold, &feasible);
    } else {
      repair.solver = false;
    }
    // A trial that violates nothing ends the repair at once, wherever F could still fall.
    if (feasible) {
      *code = FEASIBLE;
      return false;
    }
    // A larger ridge turns the step towards steepest descent and shortens it.
    if (!(alfa > 0.0) && !raise_ridge(repair)) {
      *code = end_at_xold(str, repair, vmax, NO_DESCENT);
      return false;
    }
  }
  zvaxpy(str->x, str->sdir, str->xold, str->nvar, alfa);
  long violated = look(str, repair, 1);
  if (violated < 0) {
    std::copy_n(str->xold, str->nvar, str->x);
    violated = look(str, repair, 1);
    *code = violated >= 0 ? end_code(repair, repair.vmax, LIMIT_REACHED) : LIMIT_REACHED;
    return false;
  }
  *code = FEASIBLE;
  return violated != 0;
}

static int minimize_violation(MINSTR* str, Repair& repair, int job) {
  static constexpr int MOST_ITERATIONS = 20;
  static constexpr int FEWER_ITERATIONS = 10;
  static constexpr long MOST_CALLS = 200;
  static constexpr long FEWER_CALLS = 20;
  repair.most_calls = job != 0 ? MOST_CALLS : FEWER_CALLS;
  const int limit = job != 0 ? MOST_ITERATIONS : FEWER_ITERATIONS;

  const long violated = look(str, repair, 1);
  if (violated < 0) return NO_START;
  if (violated == 0) return FEASIBLE;
  repair.entry = repair.vmax;
  int code = FEASIBLE;
  for (int iteration = 0; iterate(str, repair, &code); ++iteration) {
    if (repair.out_of_calls() || iteration >= limit) {
      return end_code(repair, repair.vmax, LIMIT_REACHED);
    }
  }
  return code;
}

// Statuses and counts at a repaired point; what was active before belongs to another one.
static void collect_active(MINSTR* str) {
  evaluate_constraints(str, 0);
  for (long j = 0; str->bounds != 0 && j < str->nvar; ++j) {
    if (str->iabc[j] != 2) str->iabc[j] = 0;
  }
  znlpfch(str, 1, 1, str->ipre);
}

int znlpfnc(MINSTR* str, int job) {
  if (str->bounds == 0 && str->lincon == 0 && str->nlicon == 0) return FEASIBLE;
  const bool crowded = str->tech == NMSIMP;
  if (!crowded && (str->hess == nullptr || (str->half == nullptr && str->hpro == nullptr))) {
    return NO_START;
  }
  const long n = str->nvar;
  // The caller's gradient is kept here, since grad serves as that of F.
  const long count = n + (crowded ? 2 * str->nnva : 0);
  const std::size_t bytes = static_cast<std::size_t>(count) * sizeof(double);
  auto* own = static_cast<double*>(vmalloc_handler(bytes, 0));
  if (own == nullptr) {
    xmemmsg(bytes);
    return NO_START;
  }
  Repair repair;
  repair.matrix = crowded ? own + n : str->hess;
  repair.factor = crowded ? repair.matrix + str->nnva : str->half;
  if (repair.factor == nullptr) repair.factor = str->hpro;

  std::copy_n(str->grad, n, own);
  std::copy_n(str->x, n, str->gold);
  const double tbig = str->tbig;
  const int code = minimize_violation(str, repair, job);
  if (code < 0) {
    // The values of the constraints must belong to x again: the caller goes on with them.
    std::copy_n(str->gold, n, str->x);
    std::copy_n(own, n, str->grad);
    if (code != NO_START) evaluate_constraints(str, 0);
    str->tbig = tbig;
  } else {
    str->tbig = 0.0;
    collect_active(str);
  }
  // The driver goes back to xold when the repair was not enough.
  std::copy_n(str->gold, n, str->xold);
  vmfree_handler(own);
  return code;
}

}  // namespace tqnlp
