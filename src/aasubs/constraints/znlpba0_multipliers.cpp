// znlpba0, multipliers: first and second estimates of the Lagrange multipliers of the working set,
// and the Lagrangian of a nonlinearly constrained run.
//
// First form: with A Q = (0 T) the least-squares solution of A'lambda = g is T'lambda = Y'g, Y
// being the last nalc columns of Q. Second form: the same for the gradient that the quadratic model
// predicts at the Newton point of the working set. Gill, Murray and Wright, Practical Optimization
// (1981), section 5.1.5. In the range-space frame both forms are the one that it keeps (znlpftr.h).
//
// Layout: row r of T stands at llcn[r(r+1)/2], its pivot first, that is in reversed column order:
// element k of row r belongs to column nfre - 1 - r + k of Q. Work: dcds takes the right side, awrk
// one constraint row.

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpftr.h"
#include "host/process.h"
#include "kernels/dense.h"
#include "kernels/indefinite.h"
#include "kernels/sparse.h"
#include "kernels/vector.h"

namespace tqnlp {

// A pivot of T at or below this is singular.
static constexpr double PIVOT_LIMIT = 2.2250738585072019e-308;

// ---- First form ---------------------------------------------------------------------------------

// Gradient of active constraint number r, n doubles: of a linear one in awrk, of a nonlinear one in
// its place in jcon.
static const double* constraint_gradient(MINSTR* str, long r) {
  const long index = str->iact[r];
  if (index >= str->ncon) return str->jcon + (index - str->ncon) * str->nvar;
  str->acget(str, index, str->awrk);
  return str->awrk;
}

// Element l of vv in the order of ifxr.
static double in_order(const MINSTR* str, int job, const double* vv, long l) {
  return job == 0 ? vv[str->ifxr[l]] : vv[l];
}

// Multipliers of the general constraints into lambda: T'lambda = Y'v.
static void solve_general(MINSTR* str, int job, const double* vv, double* lambda) {
  const long n = str->nvar;
  const long free = free_count(str);
  const long active = str->nalc;
  double* rhs = str->dcds;
  vzfdl(0.0, rhs, active);
  for (long l = 0; l < free; ++l) {
    zvxay11(active, rhs, in_order(str, job, vv, l), str->qlcn + l * n + free - active);
  }
  if (znlpqts(2, active, PIVOT_LIMIT, str->llcn, rhs, lambda) != 0) {
    xexit(EXIT_INCONSISTENT, 0);
  }
}

void znlpglm(MINSTR* str, int job, const double* vv, double* lagm) {
  const long free = free_count(str);
  const long bound = str->nabc;
  if (str->lincon == 0 && str->nlicon == 0) xexit(EXIT_INCONSISTENT, 0);
  if (bound + str->nalc == 0) return;

  for (long i = 0; i < bound; ++i) lagm[i] = in_order(str, job, vv, free + i);
  if (str->nalc > 0) {
    double* general = lagm + bound;
    if (in_range_space(str)) {
      if (str->uvwg == nullptr) xexit(EXIT_INCONSISTENT, 0);
      frame_multipliers(str, general);
    } else {
      solve_general(str, job, vv, general);
    }
    for (long r = 0; r < str->nalc; ++r) {
      const double* row = constraint_gradient(str, r);
      for (long i = 0; i < bound; ++i) lagm[i] -= general[r] * row[str->ifxr[free + i]];
    }
  }
  // The gradient of an upper bound, ub - x, points down. A fixed parameter keeps its sign.
  for (long i = 0; i < bound; ++i) {
    if (str->iabc[str->ifxr[free + i]] < 0) lagm[i] = -lagm[i];
  }
}

// ---- Second form --------------------------------------------------------------------------------

static void multiply_hessian(MINSTR* str, const double* s, double* hs) {
  if (str->hfrm == 1) {
    zslltma(str->nvar, str->shes.jasp, str->hess, s, hs);
  } else if (str->hfrm == 2) {
    for (long j = 0; j < str->nvar; ++j) hs[j] = str->hess[j] * s[j];
  } else {
    znlpsmv(str->nvar, nullptr, str->hess, s, hs);
  }
}

// Newton step on the working set, over all parameters, in lag2. False when Z'HZ is singular.
static bool newton_step(MINSTR* str, long order) {
  vzfdl(0.0, str->lag2, str->nvar);
  if (order < 1) return true;
  znlphpr(str, 1, 1, str->hfrm, str->gpro, str->hess, str->hpro);
  if (zududec(order, str->sing, str->det, str->hpro, str->iwk) != 0) return false;
  for (long k = 0; k < order; ++k) str->work[k] = -str->gpro[k];
  if (zudusol(order, 1, order, str->hpro, str->work, str->iwk) != 0) return false;
  znlpsp2(str, 3, str->work, str->lag2);
  return true;
}

int znlplm2(MINSTR* str) {
  const long n = str->nvar;
  if (str->ider < 3) xexit(EXIT_INCONSISTENT, 0);
  // Without a packed projection the first form has to serve.
  const bool general = str->lincon != 0 || str->nlicon != 0;
  const bool packed = str->hfrm == 0 || (str->hfrm == 2 && general);
  if (str->hpro == nullptr || str->lag2 == nullptr || !packed) return 3;

  bool regular = false;
  with_general_frame(str, [&] { regular = newton_step(str, reduced_dimension(str)); });
  if (!regular) return 3;
  // The step solves Z'HZ p = -Z'g, so that the gradient at the Newton point is g + H s.
  multiply_hessian(str, str->lag2, str->work);
  for (long j = 0; j < n; ++j) str->work[j] += str->grad[j];
  znlpglm(str, 0, str->work, str->lag2);
  return 0;
}

// ---- Lagrangian ---------------------------------------------------------------------------------

// Residual of active constraint number r, given its gradient.
static double constraint_residual(const MINSTR* str, long r, const double* row) {
  const long index = str->iact[r];
  if (index >= str->ncon) return str->fcon[index - str->ncon];
  return zvdot11(str->nvar, row, str->x) - str->blcn[index];
}

static double largest_projected(MINSTR* str, const double* v) {
  double* reduced = str->work;
  const long order = frame_of(str) == Frame::full ? reduced_dimension(str) : free_count(str);
  if (reduced_dimension(str) < 1) return 0.0;
  znlpvre(str, v, reduced);
  return largest_or_nan(order, reduced);
}

void znlplfg(MINSTR* str, int ider) {
  if (str->nlicon == 0) return;
  const long n = str->nvar;
  const long free = free_count(str);
  str->crlf = str->crit;
  if (ider != 0) std::copy_n(str->grad, n, str->grlf);

  for (long i = 0; i < str->nabc; ++i) {
    const long j = str->ifxr[free + i];
    const double lambda = str->lagm[i];
    const bool upper = str->iabc[j] < 0;
    const double residual = upper ? str->ub[j] - str->x[j] : str->x[j] - str->lb[j];
    str->crlf -= lambda * residual;
    if (ider != 0) str->grlf[j] -= upper ? -lambda : lambda;
  }
  for (long r = 0; r < str->nalc; ++r) {
    const double lambda = str->lagm[str->nabc + r];
    const double* row = constraint_gradient(str, r);
    str->crlf -= lambda * constraint_residual(str, r, row);
    if (ider != 0) zvxay11(n, str->grlf, -lambda, row);
  }
  if (ider != 0) str->gmlf = largest_projected(str, str->grlf);
}

}  // namespace tqnlp
