// Loads: what the techniques do alike around a point. Contracts in loads.h.
#include "aasubs/loop/loads.h"

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba1.h"
#include "aasubs/constraints/znlpbas.h"
#include "aasubs/constraints/znlpftr.h"
#include "kernels/vector.h"

namespace tqnlp {

// ---- Evaluations and points ---------------------------------------------------------------------

bool evaluate(MINSTR* str, int order, Callback callback) {
  str->ifdr = order;
  const int code = callback(str);
  if (code == 0 && std::isnan(str->crit)) str->tbig = 1.0;
  return code == 0 && str->tbig == 0.0;
}

bool refresh_saved_results(MINSTR* str) {
  return str->fsav == 0 || str->ifdr <= ORDER_FUNCTION || evaluate_objective(str);
}

void start_iteration(MINSTR* str) {
  str->cold = str->crit;
  std::copy_n(str->x, str->nvar, str->xold);
}

void return_to_xold(MINSTR* str) {
  str->crit = str->cold;
  std::copy_n(str->xold, str->nvar, str->x);
}

void zero_negligible_components(MINSTR* str, double* step) {
  const double negligible = HUNDRED_EPS * zvamx(str->nvar, step);
  for (long j = 0; j < str->nvar; ++j) {
    if (std::fabs(step[j]) <= negligible) step[j] = 0.0;
  }
}

bool step_moves(const MINSTR* str, const double* step) {
  static constexpr double NO_CHANGE = 0x1p-106;  // 1.232595164407832e-32, the squared rounding unit
  for (long j = 0; j < str->nvar; ++j) {
    if (std::fabs((step[j] + str->xold[j]) - str->xold[j]) > NO_CHANGE) return true;
  }
  return false;
}

// ---- Start and restart --------------------------------------------------------------------------

void open_run(MINSTR* str) {
  str->null = str->ires = str->nfct = 0;
  str->nitr = str->pred = 0.0;
  std::copy_n(str->x, str->nvar, str->xold);
}

void open_restart(MINSTR* str) {
  str->chac = 0;
  str->itre = 0;
  if (str->nitr != 0.0) ++str->ires;
}

int load_function(MINSTR* str) {
  if (!evaluate_objective(str)) return -1;
  str->cold = str->crit;
  if (str->lsqu != 0 && wzmis(str->dfes)) str->dfes = std::fabs(str->crit / 20.0);
  return 0;
}

static int load_values(MINSTR* str, int (*derivatives)(MINSTR*, int), int choice) {
  const int code = load_function(str);
  return code != 0 ? code : derivatives(str, choice);
}

int load_feasible_point(MINSTR* str, int repair, int (*derivatives)(MINSTR*, int), int choice) {
  int code = load_values(str, derivatives, choice);
  if (code != 0 || !has_constraints(str)) return code;
  if (znlpfch(str, 1, 0, 0) != 0) {
    if (znlpfea(str, repair) < 0) return -6;
    code = load_values(str, derivatives, choice);
    if (code != 0) return code;
    if (znlpfch(str, 1, 0, str->ipre) != 0) return -6;
  }
  znlpfta(str, 1, 0, 0, nullptr, nullptr, nullptr);
  return 0;
}

void revise_working_set(MINSTR* str, int job, bool second_form, double* ches) {
  if (!has_constraints(str)) return;
  znlpact(str, job, 0, nullptr, nullptr, ches);
  // Without a Hessian over all parameters a parameter or direction that becomes free gets a unit
  // row of ches: the updates teach it its curvature.
  if (str->nabc + str->nalc != 0) {
    znlpdac(str, job, second_form ? 1 : 0, nullptr, ches, nullptr);
  }
}

// ---- After a step -------------------------------------------------------------------------------

Next keep_feasible(MINSTR* str, int* ij) {
  if (!has_constraints(str) || znlpfch(str, 0, 0, str->ipre) == 0) return Next::go_on;
  if (make_feasible(str, -1) < 0) {
    *ij = -6;
    return Next::finish;
  }
  if (str->itre > 0) return Next::restart;
  *ij = NO_PROGRESS;
  return Next::finish;
}

// ---- End of a run -------------------------------------------------------------------------------

int finish_run(MINSTR* str, int code, int (*load)(MINSTR*)) {
  if (str->nitr != 0.0) {
    if (!evaluate_objective(str)) {
      code = FUNCTION_FAILED;  // derivatives would need the value that has just failed
    } else if (load(str) < 0 || str->tbig != 0.0) {
      code = -4;
    }
  }
  return str->uster(str, code < 0 ? code : TEST_ITERATION);
}

}  // namespace tqnlp
