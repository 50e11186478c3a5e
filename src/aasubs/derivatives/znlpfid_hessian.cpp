// znlpfid, Hessians: from function values (znlpfih forward, znlpfh2 central of fourth order) and
// from gradients (znlpfh3 forward, znlpfh4 central), and the curvature of nonlinear constraints
// (znlphlf).
//
// Reference  Abramowitz and Stegun (1964), formulas 25.3.23 to 25.3.27; Dennis and Schnabel (1983),
//            section 5.6
// Work       wfid = func at the base point (m) |
//            gradient at the base point, or at the plus side (n)
//
//   znlpfih   diagonal  (f(+) - 2 f0 + f(-)) / h^2             + o +       points of a pair
//             mixed     (f(j,k) - f(j) - f(k) + f0) / hj hk
//   znlpfh2   diagonal  (-f(2) + 16 f(1) - 30 f0 + 16 f(-1) - f(-2)) / 12 h^2
//             mixed     (f(+,+) - f(+,-) - f(-,+) + f(-,-)) / 4 hj hk
//   znlpfh3   column j  (g(xj + h) - g) / h                    the mean of entries (i,j) and (j,i)
//   znlpfh4   column j  (g(xj + h) - g(xj - h)) / 2h           makes the matrix symmetric
//
// Differences of values are always formed before anything is added up: f0 is large beside them, and
// a sum of values would lose their digits.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "aasubs/derivatives/differences.h"
#include "aasubs/derivatives/znlpfid.h"
#include "aasubs/record/covstr.h"
#include "host/files.h"
#include "host/log.h"
#include "host/memory.h"
#include "host/process.h"

namespace tqnlp {

// Form of the Hessian: 2 diagonal, any other packed.
static bool is_diagonal(const MINSTR* str) {
  const int form = str->lsqu != 0 && str->covstr != nullptr ? str->covstr->hfrm : str->hfrm;
  return form == 2;
}

static long hessian_length(const MINSTR* str) { return is_diagonal(str) ? str->nvar : str->nnva; }

// Where H(j,j) stands in either form.
static double& diagonal_entry(MINSTR* str, long j) {
  return str->hess[is_diagonal(str) ? j : zisub(j, j)];
}

// ---- From function values ----------------------------------------------------------------------

namespace {

// What one pass over the matrix shares.
struct Stencil {
  double eps;         // common interval, halved when a point fails
  const double* own;  // per-parameter intervals, or null
  int reach;          // steps to the farthest point
  double base;        // f at the base point
  double failed_at;   // value of the parameter whose perturbation failed
};

}  // namespace

static double stencil_step(const MINSTR* str, const Stencil& stencil, long j) {
  const double r = stencil.own != nullptr ? stencil.own[j] : stencil.eps;
  return step_inside(str, j, (std::fabs(str->x[j]) + 1.0) * r, Side::central, stencil.reach);
}

// f with x[j] moved by hj, and x[k] by hk when k is not negative; x is put back.
static bool value_at(MINSTR* str, Stencil& stencil, long j, double hj, long k, double hk,
                     double* f) {
  const double xj = str->x[j];
  const double xk = k >= 0 ? str->x[k] : 0.0;
  perturb(str, j, xj + hj);
  if (k >= 0) perturb(str, k, xk + hk);
  const bool good = call_function(str);
  str->x[j] = xj;
  if (k >= 0) str->x[k] = xk;
  *f = str->crit;
  if (!good) stencil.failed_at = k >= 0 ? xk : xj;
  return good;
}

// One pass of the forward stencil: H(j,k) = (f(j,k) - f(j) - f(k) + f0)/(hj hk). A value f(j)
// serves all entries of its row and column. It is not kept: when it comes, -(f(j) - f0) goes into
// the part of column j below the diagonal, and the entries of row j are closed at once. hess must
// start at zero.
static int forward_pass(MINSTR* str, Stencil& stencil) {
  const bool packed = !is_diagonal(str);
  double f = 0.0;
  for (long j = 0; j < str->nvar; ++j) {
    const double hj = stencil_step(str, stencil, j);
    double plus = 0.0;
    double& diagonal = diagonal_entry(str, j);
    if (!value_at(str, stencil, j, hj, -1, 0.0, &plus)) return -2;
    diagonal += plus - stencil.base;
    for (long l = j + 1; packed && l < str->nvar; ++l) {
      str->hess[zisub(l, j)] -= plus - stencil.base;
    }
    if (!value_at(str, stencil, j, -hj, -1, 0.0, &f)) return -3;
    // Divided twice, as the square of a small step may underflow.
    diagonal += f - stencil.base;
    diagonal = diagonal / hj / hj;
    for (long k = 0; packed && k < j; ++k) {
      const double hk = stencil_step(str, stencil, k);
      if (!value_at(str, stencil, j, hj, k, hk, &f)) return -4;
      double& entry = str->hess[zisub(j, k)];
      entry += f - plus;
      entry = entry / hj / hk;
    }
  }
  return 0;
}

// Mixed derivative of parameters j and k from the four corners. 0, or -4, -5 for the side of j.
static int central_pair(MINSTR* str, Stencil& stencil, long j, double hj, long k) {
  const double hk = stencil_step(str, stencil, k);
  double pp = 0.0, pm = 0.0, mp = 0.0, mm = 0.0;
  if (!value_at(str, stencil, j, hj, k, hk, &pp)) return -4;
  if (!value_at(str, stencil, j, hj, k, -hk, &pm)) return -4;
  if (!value_at(str, stencil, j, -hj, k, hk, &mp)) return -5;
  if (!value_at(str, stencil, j, -hj, k, -hk, &mm)) return -5;
  str->hess[zisub(k, j)] = ((pp - pm) + (mm - mp)) / (4.0 * hk) / hj;
  return 0;
}

// One pass of the central stencil, of fourth order on the diagonal, second order beside it.
static int central_pass(MINSTR* str, Stencil& stencil) {
  const bool packed = !is_diagonal(str);
  for (long j = 0; j < str->nvar; ++j) {
    const double h = stencil_step(str, stencil, j);
    double plus = 0.0, minus = 0.0, plus2 = 0.0, minus2 = 0.0;
    if (!value_at(str, stencil, j, h, -1, 0.0, &plus)) return -2;
    if (!value_at(str, stencil, j, -h, -1, 0.0, &minus)) return -3;
    if (!value_at(str, stencil, j, 2.0 * h, -1, 0.0, &plus2)) return -2;
    if (!value_at(str, stencil, j, -2.0 * h, -1, 0.0, &minus2)) return -3;
    diagonal_entry(str, j) = (15.0 * ((minus - stencil.base) + (plus - stencil.base)) +
                              (plus - plus2) + (minus - minus2)) /
                             (12.0 * h) / h;
    for (long k = j + 1; packed && k < str->nvar; ++k) {
      if (const int code = central_pair(str, stencil, j, h, k); code != 0) return code;
    }
  }
  return 0;
}

// Repeats the whole matrix with half the common interval until every point can be evaluated. Where
// per-parameter intervals hold, the halved number serves no step: the same points are repeated
// until it reaches the floor, some fifty times, and the routine fails (deliberate).
static int hessian_passes(MINSTR* str, Stencil& stencil, int (*pass)(MINSTR*, Stencil&)) {
  for (;;) {
    vzfdl(0.0, str->grad, str->nvar);
    vzfdl(0.0, str->hess, hessian_length(str));
    const int code = pass(str, stencil);
    if (code == 0 || !(stencil.eps > step_floor(stencil.failed_at))) return code;
    stencil.eps *= 0.5;
  }
}

// State noted, base moved away from the bounds, passes, gradient in the form that fidi asks for,
// and everything put back.
static int hessian_from_functions(MINSTR* str, int (*pass)(MINSTR*, Stencil&), int reach) {
  ++str->nhes;
  const int indf = static_cast<int>(str->indf);
  const double crit = str->crit;
  str->indf = HESSIAN_STEP_FROM_FUNCTION;
  const bool own = objective_has_intervals(str);
  Stencil stencil{own ? 1.0 : central_interval(str->fdig), own ? str->hcnt : nullptr, reach, crit,
                  0.0};

  // The shift is the central one in both forms.
  const int moved = movx(str, 1, own ? 1 : 0, Side::central, stencil.eps, reach);
  int code = -1;
  if (moved >= 0) {
    stencil.base = str->crit;
    save_functions(str);
    code = hessian_passes(str, stencil, pass);
    if (code == 0) {
      const bool forward = fidi_digit(str->fidi, 0) == 1;
      const double eps = own ? 1.0 : (forward ? forward_interval(str->fdig) : stencil.eps);
      const int slope = dograd(str, forward ? Side::forward : Side::central, eps, stencil.base);
      // As for the gradient alone: its status is dropped when the base stands shifted.
      if (moved == 0) code = slope;
      if (slope != 0) vzfdl(MISSING, str->grad, str->nvar);
    }
    restore_functions(str);
  }
  if (moved != 0 && return_from_shift(str) != 0) code = -10;
  str->crit = crit;
  str->indf = indf;
  return code;
}

int znlpfih(MINSTR* str) { return hessian_from_functions(str, forward_pass, 1); }

int znlpfh2(MINSTR* str) { return hessian_from_functions(str, central_pass, 2); }

// ---- From gradients ----------------------------------------------------------------------------

// Function, then gradient, at x: a user's gradient module may rely on what the function left
// behind. 0, -3 function failed, -2 gradient failed.
static int call_pair(MINSTR* str) {
  if (!call_function(str)) return -3;
  return call_gradient_there(str) ? 0 : -2;
}

// Adds column j, the differences of two gradients over width; an off-diagonal entry ends as the
// mean of its two columns.
static void add_hessian_column(MINSTR* str, long j, const double* above, const double* below,
                               double width) {
  if (is_diagonal(str)) {
    str->hess[j] += (above[j] - below[j]) / width;
    return;
  }
  for (long i = 0; i < str->nvar; ++i) {
    const double d = (above[i] - below[i]) / width;
    str->hess[zisub(i, j)] += i == j ? d : 0.5 * d;
  }
}

// Column j with the step from interval r, which retreats by halving of both sides. saved: gradient
// at the base (forward) or, filled here, at the plus side (central). 0, -2 or -3.
static int gradient_column(MINSTR* str, long j, Side forc, double r, double* saved) {
  const double xj = str->x[j];
  const double floor = step_floor(xj);
  const bool central = forc == Side::central;
  double h = step_inside(str, j, step_made(xj, (std::fabs(xj) + 1.0) * r), forc);
  for (;;) {
    perturb(str, j, xj + h);
    int code = call_pair(str);
    if (code == 0 && central) {
      std::copy_n(str->grad, str->nvar, saved);
      perturb(str, j, xj - h);
      code = call_pair(str);
    }
    if (code == 0) break;
    if (!(h > floor)) {
      str->x[j] = xj;
      return code;
    }
    h *= 0.5;
  }
  str->x[j] = xj;
  if (central) {
    add_hessian_column(str, j, saved, str->grad, 2.0 * h);
  } else {
    add_hessian_column(str, j, str->grad, saved, h);
  }
  return 0;
}

// grad must end as that of x: the forward form has saved it before the first column; the central
// form, and any moved base, evaluate once more at x.
static int hessian_from_gradients(MINSTR* str, Side forc) {
  ++str->nhes;
  const int indf = static_cast<int>(str->indf);
  const double crit = str->crit;
  str->indf = HESSIAN_STEP_FROM_GRADIENT;
  const bool own = objective_has_intervals(str);
  const bool central = forc == Side::central;
  const double eps = central ? central_interval(str->fdig) : forward_interval(str->fdig);
  const double* intervals = central ? str->hcnt : str->hfwd;
  double* func = str->wfid;
  double* saved = str->wfid + str->mequ;

  std::copy_n(str->x, str->nvar, str->work);
  const bool moved = movx(str, 0, own ? 1 : 0, forc, eps) != 0;
  vzfdl(0.0, str->hess, hessian_length(str));
  int code = 0;
  if (!central) {
    if (call_pair(str) != 0) code = -1;
    std::copy_n(str->func, str->mequ, func);
    std::copy_n(str->grad, str->nvar, saved);
  }
  long done = 0;
  while (code == 0 && done < str->nvar) {
    code = gradient_column(str, done, forc, own ? intervals[done] : eps, saved);
    if (code == 0) ++done;
  }
  if (moved || central) {
    // A retreat that ran out is not reported here (deliberate): what counts is the state at x. The
    // columns formed before it stand, those behind it are zero, and the log tells of it.
    if (code != -1 && done < str->nvar) tell_incomplete(str, "Hessian", done);
    if (code != -1) code = 0;
    std::copy_n(str->work, str->nvar, str->x);
    const int back = call_pair(str);
    if (back != 0) code = back == -3 ? -10 : -11;
  } else {
    std::copy_n(saved, str->nvar, str->grad);
    std::copy_n(func, str->mequ, str->func);
  }
  str->crit = crit;
  str->indf = indf;
  return code;
}

// A run whose derivatives are all the user's has no wfid: it is taken here for the call.
int znlpfh3(MINSTR* str) {
  double* own = nullptr;
  if (str->wfid == nullptr) {
    const std::size_t count = static_cast<std::size_t>(str->mequ + str->nvar);
    own = static_cast<double*>(vmalloc_handler(count * sizeof(double), 0));
    if (own == nullptr) return -1;
    str->wfid = own;
  }
  const int code = hessian_from_gradients(str, Side::forward);
  if (own != nullptr) {
    str->wfid = nullptr;
    vmfree_handler(own);
  }
  return code;
}

int znlpfh4(MINSTR* str) { return hessian_from_gradients(str, Side::central); }

// ---- Curvature of the constraints --------------------------------------------------------------

// Curvature of the Lagrangian that stems from the constraints: sum over the active ones of lambda_i
// times the Hessian of c_i, by forward differences of their gradients and made symmetric.
//
//   utpmat from lmax on:   jcon (nnlc rows of n) | grad (n)       at the base point
//
// The callbacks overwrite jcon and grad, so that both rest there; grad is the buffer for a row that
// is read back.

static constexpr double LAGRANGIAN_STEP = 10;  // indf while the constraints' curvature is formed

static void check_file(int code) {
  if (code == 0) return;
  xprrlog(0, code);
  xexit(EXIT_WORK_FILE, 0);
}

// Subtracts column j of the curvature of active nonlinear constraint i (place p of the working
// set); row holds its gradient at the base point.
static void subtract_curvature(MINSTR* str, double* hess, long j, long i, long p, const double* row,
                               double h) {
  const double multiplier = str->lagm[str->nabc + p];
  if (wzmis(multiplier) || multiplier == 0.0) return;
  const double* moved = str->jcon + i * str->nvar;
  for (long l = 0; l < str->nvar; ++l) {
    const double d = (moved[l] - row[l]) * multiplier / h;
    hess[zisub(l, j)] -= l == j ? d : 0.5 * d;
  }
}

static bool call_jacobian_there(MINSTR* str) {
  const int code = str->usjnc(str);
  str->ifdr = ORDER_GRADIENT;
  return code == 0;
}

// Function and constraint Jacobian at xj + h, with retreat; false at the floor.
static bool jacobian_nearby(MINSTR* str, long j, double xj, double* h) {
  const double floor = step_floor(xj);
  for (;;) {
    perturb(str, j, xj + *h);
    if (call_function(str) && call_jacobian_there(str)) return true;
    if (!(std::fabs(*h) > floor)) return false;
    *h *= 0.5;
  }
}

int znlphlf(MINSTR* str, double* hess, long lmax) {
  const long n = str->nvar;
  str->nanc = std::count_if(str->iact, str->iact + str->nalc,
                            [str](long entry) { return entry >= str->ncon; });
  if (str->nanc == 0) return 0;
  WorkFile* file = str->covstr->utpmat;
  const long row_bytes = n * static_cast<long>(sizeof(double));
  const long jacobian_bytes = str->nnlc * row_bytes;
  const bool own = constraints_have_intervals(str);
  const double eps = forward_interval(str->cdig);
  str->indf = LAGRANGIAN_STEP;
  std::copy_n(str->x, n, str->work);
  call_function(str);
  call_jacobian_there(str);
  check_file(xcpoint(file, lmax));
  check_file(xcwrite(file, str->jcon, jacobian_bytes));
  check_file(xcwrite(file, str->grad, row_bytes));

  bool good = true;
  for (long j = 0; good && j < n; ++j) {
    const double xj = str->x[j];
    const double wanted = step_made(xj, (std::fabs(xj) + 1.0) * (own ? str->hfwd[j] : eps));
    double h = one_sided_step(str, j, wanted);
    good = jacobian_nearby(str, j, xj, &h);
    for (long p = 0; good && p < str->nalc; ++p) {
      const long i = str->iact[p] - str->ncon;
      if (i < 0) continue;
      check_file(xcpoint(file, lmax + i * row_bytes));
      check_file(xcread(file, str->grad, row_bytes));
      subtract_curvature(str, hess, j, i, p, str->grad, h);
    }
    str->x[j] = xj;
  }

  str->indf = IN_RUN;
  std::copy_n(str->work, n, str->x);
  call_function(str);
  const bool restored = call_jacobian_there(str);
  check_file(xcpoint(file, lmax));
  check_file(xcread(file, str->jcon, jacobian_bytes));
  check_file(xcread(file, str->grad, row_bytes));
  return restored ? 0 : -10;
}

}  // namespace tqnlp
