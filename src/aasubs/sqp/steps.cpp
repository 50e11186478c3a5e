// Steps of the sequential quadratic techniques. Contracts in steps.h.
#include "aasubs/sqp/steps.h"

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpbas.h"
#include "aasubs/constraints/znlpfnc.h"
#include "aasubs/loop/loads.h"
#include "aasubs/sqp/qpsub.h"
#include "host/log.h"
#include "kernels/chmod.h"
#include "kernels/dense.h"
#include "kernels/vector.h"

namespace tqnlp {

void open_sequential_run(MINSTR* str, SequentialRun& run) {
  open_run(str);
  if (!(str->salf > 0.0 && str->salf <= 1.0)) str->salf = 1.0;
  if (!(str->nres > 0.0)) str->nres = NEVER;
  str->nlis = str->nhup = str->ngrd = 0;
  str->chac = str->nldc = str->nlbc = str->nalc = str->nabc = 0;
  run.load = str->load != 0 ? 1 : 0;
  open_terms(str, run.v);
  open_subproblem(str, run.v);
}

// ---- Points -------------------------------------------------------------------------------------

void keep_best(MINSTR* str, SequentialRun& run) {
  run.fopt = str->crit;
  run.psiopt = str->cpsi;
  run.cmxopt = str->cmax;
  run.iopt = str->nitr;
  std::copy_n(str->x, str->nvar, run.v.xopt);
  std::copy_n(run.v.vcon, run.v.terms, run.v.vopt);
}

void measure_merit(MINSTR* str, const SequentialRun& run) {
  str->cpsi = str->crit + penalty(run.v, run.v.vcon);
  str->cmax = largest_violation(run.v, run.v.vcon);
}

void forget_active(MINSTR* str) {
  for (long j = 0; j < str->nvar; ++j) {
    if (str->iabc[j] != 2) str->iabc[j] = 0;
  }
  str->nabc = str->nalc = str->nldc = str->nlbc = str->nanc = 0;
  str->idac = 0;
}

Next load_restart(MINSTR* str, SequentialRun& run) {
  static constexpr double FIRST_WEIGHT = 1e-20;
  open_restart(str);
  str->null = 0;
  run.fresh = true;
  run.v.warm = false;
  start_iteration(str);
  if (str->ires > 0) {
    run.ij = str->uster(str, TEST_LIMITS_ONLY);
    if (run.ij != 0) return Next::stop;
  }
  const double scale = 0x1p-106 * std::max(1.0, std::fabs(str->crit));
  vzfdl(std::max(scale, FIRST_WEIGHT), run.v.vmu, run.v.terms);
  vzfdl(0.0, run.v.vlam, run.v.terms);
  run.psiopt = run.fopt + penalty(run.v, run.v.vopt);
  run.ij = load_point(str, run, -1, -1);
  if (run.ij == 0) return Next::go_on;
  std::copy_n(str->xold, str->nvar, str->x);
  return Next::leave;
}

int load_point(MINSTR* str, SequentialRun& run, int values_code, int derivatives_code) {
  str->tbig = 0.0;
  if (!evaluate_values(str, run.v)) return values_code;
  measure_merit(str, run);
  return evaluate_derivatives(str, run.v) ? 0 : derivatives_code;
}

void reset(MINSTR* str, SequentialRun& run) {
  run.gs = zvdot11(str->nvar, str->grad, str->sdir);
  str->crlf = lagrangian(str, run.v);
  lagrangian_gradient(str, run.v);
  // Where a constraint with a multiplier is still far, the gradient of the Lagrangian says nothing.
  str->gmlf = str->gmax = std::max(str->gmlf, complementarity(run.v));
  str->pred = std::fabs(run.gs);
  for (long i = 0; i < run.v.terms; ++i) {
    if (run.v.vlam[i] != 0.0) str->pred += std::fabs(run.v.vlam[i] * run.v.vcon[i]);
  }
  // A point that violates its constraints is no solution, whatever the multipliers promise.
  static constexpr double WEIGHT = 100.0;
  if (str->cmax > feasibility_tolerance(str, str->ipre)) {
    str->pred = std::max(str->pred, WEIGHT * str->cmax * std::max(1.0, std::fabs(str->crit)));
  }
}

void measure_start(MINSTR* str, SequentialRun& run) {
  forget_active(str);
  znlpfch(str, 1, 1, str->ipre);
  znlpfta(str, 0, 1, 0, nullptr, nullptr, nullptr);
  take_multipliers(str, run.v, term_index);
  str->crlf = lagrangian(str, run.v);
  lagrangian_gradient(str, run.v);
  str->gmlf = str->gmax = std::max(str->gmlf, complementarity(run.v));
}

bool move_along(MINSTR* str) {
  bool moved = false;
  for (long j = 0; j < str->nvar; ++j) {
    const double from = str->xold[j];
    double& to = str->x[j];
    to = from + str->alfa * str->sdir[j];
    if (str->bounds != 0 && from >= str->lb[j] && from <= str->ub[j]) {
      to = std::clamp(to, str->lb[j], str->ub[j]);
    }
    moved = moved || std::fabs(to - from) > (std::fabs(to) + std::fabs(from)) * HUNDRED_EPS;
  }
  return moved;
}

void return_to_start(MINSTR* str, SequentialRun& run, double merit) {
  return_to_xold(str);
  str->tbig = 0.0;
  std::copy_n(run.v.cbeg, run.v.terms, run.v.vcon);
  str->cpsi = merit;
  str->cmax = largest_violation(run.v, run.v.vcon);
}

Next derivatives_failed(MINSTR* str, SequentialRun& run) {
  move_along(str);  // differences may have left x beside the point
  str->indf = IN_RUN;
  run.ij = -4;
  return Next::finish;
}

// ---- Matrix -------------------------------------------------------------------------------------

// The updates and the start of the matrix see all parameters, whatever is active.
template <class Operation>
static void in_full_space(MINSTR* str, Operation operation) {
  const long nabc = str->nabc;
  const long nalc = str->nalc;
  str->nabc = str->nalc = 0;
  operation();
  str->nabc = nabc;
  str->nalc = nalc;
}

static int factor_user_hessian(MINSTR* str, VMCSTR& v) {
  if (str->fsav != 0 && str->ifdr > ORDER_FUNCTION && !evaluate_values(str, v)) return -1;
  if (!evaluate(str, ORDER_HESSIAN, str->ushes)) return -2;
  if (str->hfrm == 2) {  // the diagonal alone
    const long n = str->nvar;
    std::copy_n(str->hess, n, str->work);
    vzfdl(0.0, str->hess, packed_size(n));
    for (long j = 0; j < n; ++j) str->hess[zisub(j, j)] = str->work[j];
  }
  chmod(str->nvar, str->sing, str->hess);
  return 0;
}

int load_matrix(MINSTR* str, SequentialRun& run) {
  if (run.load != 0) return factor_user_hessian(str, run.v);
  in_full_space(str, [str] { znlphin(str, 1, 0, 0, 2, str->hess); });
  const double unit = std::max(str->hess[0], 1.0);
  vzfdl(0.0, str->hess, packed_size(str->nvar));
  for (long j = 0; j < str->nvar; ++j) str->hess[zisub(j, j)] = std::sqrt(unit);
  return 0;
}

void update_matrix(MINSTR* str, SequentialRun& run) {
  static constexpr int FACTOR = 3;
  // Near the largest slack the multipliers have no bound, and what they would teach B would spoil
  // it for the rest of the run.
  str->null = 1;
  if (run.v.slack < 1.0) return;
  lagrangian_gradient(str, run.v);
  double* step = str->work;
  for (long j = 0; j < str->nvar; ++j) {
    step[j] = str->x[j] - str->xold[j];
    str->gold[j] = str->grlf[j] - str->gold[j];
  }
  MINSTR& inner = run.v.inner;
  int code = 0;
  in_full_space(str, [&] {
    code =
        str->updat(str, FACTOR, 0, step, str->gold, str->hess, inner.work, inner.xold, inner.gold);
  });
  str->null = code != 0 ? 1 : 0;
  if (code == 0) ++str->nhup;
}

// ---- Step ---------------------------------------------------------------------------------------

// Once in a run, a step that leaves all violations as they are will do: it may lead where the
// linearized constraints no longer contradict each other.
bool make_step(MINSTR* str, SequentialRun& run) {
  const Subproblem answer = qpsub(str, run.v);
  if (answer == Subproblem::failed) return false;
  if (answer == Subproblem::inconsistent) {
    if (run.slid || !(zvamx(str->nvar, str->sdir) > 0.0)) return false;
    run.slid = true;
  }
  run.struggle = run.v.slack < 1.0 ? run.struggle + 1 : 0;
  reset(str, run);
  return true;
}

bool matrix_hides_descent(const MINSTR* str) {
  static constexpr double FAR = 1e-3;  // of the size of the gradient
  const double promise = std::max(str->gtol * std::max(1.0, std::fabs(str->crit)), str->fto2);
  if (str->itre == 0 || str->pred > promise) return false;
  return largest_or_nan(str->nvar, str->grlf) > FAR * std::max(1.0, zvamx(str->nvar, str->grad));
}

// Names the constraint that is violated most.
static void report_contradiction(const MINSTR* str, const VMCSTR& v) {
  static constexpr int CONTRADICTION = 144;
  long worst = 0;
  for (long i = 1; i < v.rows; ++i) {
    if (violation(v, i, v.vcon[i]) > violation(v, worst, v.vcon[worst])) worst = i;
  }
  const long g = general_index(str, v, worst);
  const bool linear = g < str->ncon;
  xpmlog(OPTIMIZATION, CONTRADICTION,
         {violation(v, worst, v.vcon[worst]), linear ? "linear" : "nonlinear",
          linear ? g + 1 : g - str->ncon + 1});
}

// Where the linearized constraints contradict each other, a step against the sum of the squared
// violations may still help. It must, or the run ends.
Next restore(MINSTR* str, SequentialRun& run) {
  static constexpr double WORTH = 0.9;
  const double before = str->cmax;
  const bool violated = run.v.rows > 0 && before > feasibility_tolerance(str, str->ipre);
  const bool moved = violated && before < WORTH * run.restored && znlpfnc(str, 1) >= 0;
  run.restored = before;
  run.struggle = 0;
  run.load = 0;
  run.moved = moved;
  forget_active(str);
  if (moved) return Next::restart;
  if (violated) report_contradiction(str, run.v);
  vzfdl(0.0, str->sdir, str->nvar);
  run.ij = NO_PROGRESS;
  return Next::finish;
}

}  // namespace tqnlp
