// Terms of the sequential quadratic techniques. Contracts in terms.h and vmcstr.h.
//
// Reference  Powell (1978), A fast algorithm for nonlinearly constrained optimization calculations,
//            for the averaged weights; Powell (1985), Report DAMTP NA4, for the least change
#include "aasubs/sqp/terms.h"

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/members.h"
#include "aasubs/constraints/znlpba0.h"
#include "aasubs/loop/loads.h"
#include "aasubs/quadratic/znlpqas_factor.h"
#include "kernels/vector.h"

namespace tqnlp {

// ---- Memory -------------------------------------------------------------------------------------

static long term_count(long n, long rows, bool bounds) { return rows + (bounds ? 2 * n : 0); }

static constexpr long TERM_VECTORS = 7;
static constexpr long POINT_VECTORS = 9;  // of the subproblem: points, bounds, a product

long sqp_work(long n, long rows, bool bounds) {
  const long terms = term_count(n, rows, bounds);
  return TERM_VECTORS * terms + n + (POINT_VECTORS + QUADAS_WORK) * (n + 1) + rows;
}

void open_terms(MINSTR* str, VMCSTR& v) {
  const long n = str->nvar;
  v.minstr = str;
  v.rows = str->nnlc + str->ncon;
  v.equalities = str->nlec + str->neqc;
  v.terms = term_count(n, v.rows, str->bounds != 0);
  double* next = str->wrk2;
  vzfdl(0.0, next, sqp_work(n, v.rows, str->bounds != 0));
  const auto take = [&next](double** array, long count) {
    *array = next;
    next += count;
  };
  for (double** array : {&v.vcon, &v.vlam, &v.vmu, &v.slop, &v.prdc, &v.cbeg, &v.vopt}) {
    take(array, v.terms);
  }
  take(&v.xopt, n);
  MINSTR& inner = v.inner;
  for (double** array : {&inner.x, &inner.grad, &inner.xold, &inner.gold, &inner.sdir, &inner.work,
                         &inner.lb, &inner.ub, &v.prod}) {
    take(array, n + 1);
  }
  take(&inner.wrk2, QUADAS_WORK * (n + 1));
  take(&inner.blcn, v.rows);
}

// ---- Terms --------------------------------------------------------------------------------------

long general_index(const MINSTR* str, const VMCSTR& v, long i) {
  if (i < str->nlec) return str->ncon + i;
  if (i < v.equalities) return i - str->nlec;
  const long k = i - v.equalities;
  const long nonlinear = str->nnlc - str->nlec;
  return k < nonlinear ? str->ncon + str->nlec + k : str->neqc + (k - nonlinear);
}

long term_index(const MINSTR* str, const VMCSTR& v, long g) {
  if (g < str->neqc) return str->nlec + g;
  if (g < str->ncon) return v.equalities + (str->nnlc - str->nlec) + (g - str->neqc);
  const long k = g - str->ncon;
  return k < str->nlec ? k : v.equalities + (k - str->nlec);
}

const double* getjcon(MINSTR* str, const VMCSTR& v, long i) {
  const long g = general_index(str, v, i);
  if (g >= str->ncon) return str->jcon + (g - str->ncon) * str->nvar;
  str->acget(str, g, str->awrk);
  return str->awrk;
}

double violation(const VMCSTR& v, long i, double c) {
  return is_equality(v, i) ? std::fabs(c) : std::max(-c, 0.0);
}

double largest_violation(const VMCSTR& v, const double* values) {
  double largest = 0.0;
  for (long i = 0; i < v.terms; ++i) largest = std::max(largest, violation(v, i, values[i]));
  return largest;
}

static void set_bound_values(const MINSTR* str, VMCSTR& v) {
  const long n = str->nvar;
  double* below = v.vcon + v.rows;
  double* above = below + n;
  for (long j = 0; j < n; ++j) {
    below[j] = lower_exists(str->lb[j]) ? str->x[j] - str->lb[j] : HUGE_VALUE;
    above[j] = upper_exists(str->ub[j]) ? str->ub[j] - str->x[j] : HUGE_VALUE;
  }
}

bool setvcon(MINSTR* str, VMCSTR& v) {
  if (str->nlicon != 0 && str->usnlc != nullptr) {
    if (str->usnlc(str) != 0 || str->tbig != 0.0) return false;
  }
  for (long i = 0; i < v.rows; ++i) {
    const long g = general_index(str, v, i);
    if (g >= str->ncon) {
      v.vcon[i] = str->fcon[g - str->ncon];
      if (!std::isfinite(v.vcon[i])) return false;
    } else {
      v.vcon[i] = zvdot11(str->nvar, getjcon(str, v, i), str->x) - str->blcn[g];
    }
  }
  if (v.terms > v.rows) set_bound_values(str, v);
  return true;
}

bool evaluate_values(MINSTR* str, VMCSTR& v) { return evaluate_objective(str) && setvcon(str, v); }

// Results that the user's code keeps between calls are those of x again (fsav).
static bool refresh_values(MINSTR* str, VMCSTR& v) {
  return str->fsav == 0 || str->ifdr <= ORDER_FUNCTION || evaluate_values(str, v);
}

bool evaluate_derivatives(MINSTR* str, VMCSTR& v) {
  if (!refresh_values(str, v) || !evaluate_gradient(str)) return false;
  if (str->nlicon == 0 || str->usjnc == nullptr) return true;
  return refresh_values(str, v) && evaluate(str, ORDER_GRADIENT, str->usjnc);
}

// ---- Merit function and Lagrangian --------------------------------------------------------------

double penalty(const VMCSTR& v, const double* values) {
  double sum = 0.0;
  for (long i = 0; i < v.terms; ++i) sum += v.vmu[i] * violation(v, i, values[i]);
  return sum;
}

double model_merit(const VMCSTR& v, double objective, double slope, double alfa) {
  double sum = objective + alfa * slope;
  for (long i = 0; i < v.terms; ++i) {
    sum += v.vmu[i] * violation(v, i, v.cbeg[i] + alfa * v.slop[i]);
  }
  return sum;
}

double lagrangian(const MINSTR* str, const VMCSTR& v) {
  double sum = str->crit;
  for (long i = 0; i < v.terms; ++i) {
    if (v.vlam[i] != 0.0) sum -= v.vlam[i] * v.vcon[i];
  }
  return sum;
}

void lagrangian_gradient(MINSTR* str, VMCSTR& v) {
  const long n = str->nvar;
  std::copy_n(str->grad, n, str->grlf);
  for (long i = 0; i < v.rows; ++i) {
    if (v.vlam[i] != 0.0) zvxay11(n, str->grlf, -v.vlam[i], getjcon(str, v, i));
  }
  const double* lower = v.vlam + v.rows;
  for (long j = 0; v.terms > v.rows && j < n; ++j) str->grlf[j] -= lower[j] - lower[n + j];
  str->gmlf = str->gmax = largest_or_nan(n, str->grlf);
}

double complementarity(const VMCSTR& v) {
  double largest = 0.0;
  for (long i = v.equalities; i < v.terms; ++i) {
    largest = std::max(largest, std::min(v.vlam[i], v.vcon[i]));
  }
  return largest;
}

// A fixed parameter stands at both of its bounds. A bound of a step that no bound of x made has no
// term.
static void take_multiplier_of_bound(VMCSTR& v, long n, const Member& m, double lambda) {
  if (m.ic >= n || v.terms == v.rows) return;
  const bool upper = m.koc == -1 || (m.koc == 2 && lambda < 0.0);
  const long term = v.rows + (upper ? n : 0) + m.ic;
  if (v.vcon[term] < HUGE_VALUE) v.vlam[term] = m.koc == 2 ? std::fabs(lambda) : lambda;
}

void take_multipliers(MINSTR* record, VMCSTR& v,
                      long (*term_of)(const MINSTR*, const VMCSTR&, long)) {
  vzfdl(0.0, v.vlam, v.terms);
  multipliers(record, record->grad, record->lagm);
  for (long i = 0; i < record->nabc + record->nalc; ++i) {
    const Member m = member(record, i);
    if (m.koc == 0) {
      v.vlam[term_of(v.minstr, v, m.ic)] = record->lagm[i];
    } else {
      take_multiplier_of_bound(v, v.minstr->nvar, m, record->lagm[i]);
    }
  }
  for (long i = v.equalities; i < v.terms; ++i) v.vlam[i] = std::max(v.vlam[i], 0.0);
}

void set_slopes(MINSTR* str, VMCSTR& v) {
  const long n = str->nvar;
  for (long i = 0; i < v.rows; ++i) v.slop[i] = dotprd(n, getjcon(str, v, i), str->sdir);
  for (long j = 0; v.terms > v.rows && j < n; ++j) {
    v.slop[v.rows + j] = str->sdir[j];
    v.slop[v.rows + n + j] = -str->sdir[j];
  }
  for (long i = 0; i < v.terms; ++i) {
    v.prdc[i] = violation(v, i, v.vcon[i]) - violation(v, i, v.vcon[i] + v.slop[i]);
  }
}

bool raise_weights(VMCSTR& v, double slope) {
  static constexpr double ENOUGH = 1.5;  // times the slope, of the fall of the penalty
  static constexpr double WANTED = 2.0;
  static constexpr double SHARE_OF_CURVATURE = 0.1;
  static constexpr double NO_SUM = 2.225073858507202e-305;
  // Where the objective is flat its slope asks for nothing, and weights near zero would let the
  // merit function see no difference between points: the curvature stands in.
  const double size = std::max(std::fabs(slope), SHARE_OF_CURVATURE * v.curvature);
  double fall = 0.0;
  for (long i = 0; i < v.terms; ++i) fall += v.vmu[i] * v.prdc[i];
  if (0.5 * v.curvature + slope <= 0.0 || ENOUGH * size <= fall) return false;

  double wanted = WANTED * size;  // B
  double offered = 0.0;           // A
  for (long i = 0; i < v.terms; ++i) {
    if (v.vlam[i] == 0.0) {
      wanted -= v.vmu[i] * v.prdc[i];
      v.prdc[i] = 0.0;
    } else {
      offered += std::fabs(v.vlam[i] * v.prdc[i]);
    }
  }
  // A weight that is large enough already keeps its value and leaves both sums.
  for (bool left = true; left && offered > NO_SUM;) {
    left = false;
    const double ratio = wanted / offered;
    for (long i = 0; i < v.terms; ++i) {
      if (v.prdc[i] == 0.0 || !(std::fabs(v.vlam[i]) * ratio < v.vmu[i])) continue;
      wanted -= v.vmu[i] * v.prdc[i];
      offered -= std::fabs(v.vlam[i] * v.prdc[i]);
      v.prdc[i] = 0.0;
      left = true;
    }
  }
  if (!(offered > NO_SUM)) return false;
  const double ratio = wanted / offered;
  for (long i = 0; i < v.terms; ++i) {
    if (v.prdc[i] > 0.0) v.vmu[i] = std::fabs(v.vlam[i]) * ratio;
  }
  return true;
}

void average_weights(VMCSTR& v) {
  for (long i = 0; i < v.terms; ++i) {
    const double size = std::fabs(v.vlam[i]);
    v.vmu[i] = std::max(size, 0.5 * (v.vmu[i] + size));
  }
}

}  // namespace tqnlp
