// znlpfid, Jacobians: of the summands (znlpfij, znlpfj2), with their crossproduct matrix (znlpfic,
// znlpfc2), and of the nonlinear constraints (znlpfcj, znlpfcc). The columns of the summands'
// Jacobian go to the utility file as they are formed; grad is accumulated in the same pass.
//
// Work       wfid = func at the base point (m) | func at the plus side (m); func = the column
//
// The summands' Jacobian (m x n) may be too large for memory: column j is formed in func, summed up
// with its weights in grad[j], written to the file, and joined with the columns before it, which
// are read back, to row j of J'J.
//
//   func = J(:,j)  ->  grad[j]  ->  utjacm  ->  hess row j = J(:,j)' [ J(:,0) .. J(:,j) ]
//
// The constraints' Jacobian stands by rows in jcon, a row for each constraint, and is kept whole:
// parameter j changes column j of every row.
//
// A point that cannot be evaluated halves the step of its column, down to step_floor. A perturbed
// parameter is put back before anything else is done with x.
#include <algorithm>
#include <cmath>

#include "aasubs/derivatives/differences.h"
#include "aasubs/derivatives/znlpfid.h"
#include "aasubs/record/covstr.h"
#include "host/process.h"

namespace tqnlp {

// ---- Jacobian of the summands ------------------------------------------------------------------

namespace {

// How one of the four routines differs from the others.
struct JacobianKind {
  Side side;
  bool crossproduct;
  bool scaled_interval;  // false: the interval lacks the factor |xj| + 1 (znlpfj2, on purpose)
  int plus_failed;       // code when the retreat ran out at the plus side
};

// What became of the columns. The code of an overflowing gradient sum is also that of a retreat.
struct ColumnsEnd {
  int code;
  bool overflow;
};

}  // namespace

// func := column j of the Jacobian. 0, or a code when the retreat ran out.
static int difference_column(MINSTR* str, long j, const JacobianKind& kind, double r) {
  const double xj = str->x[j];
  const double wanted = step_made(xj, kind.scaled_interval ? (std::fabs(xj) + 1.0) * r : r);
  double h = step_inside(str, j, wanted, kind.side);
  const double floor = step_floor(xj);
  const bool central = kind.side == Side::central;
  double* plus = str->wfid + str->mequ;
  // Both sides with one step: when either fails, both are taken anew.
  for (;;) {
    int failed = 0;
    perturb(str, j, xj + h);
    if (!call_function(str)) {
      failed = kind.plus_failed;
    } else if (central) {
      std::copy_n(str->func, str->mequ, plus);
      perturb(str, j, xj - h);
      if (!call_function(str)) failed = -2;
    }
    if (failed == 0) break;
    if (!(h > floor)) {
      str->x[j] = xj;
      return failed;
    }
    h *= 0.5;
  }
  str->x[j] = xj;
  for (long i = 0; i < str->mequ; ++i) {
    str->func[i] = central ? (plus[i] - str->func[i]) / (2.0 * h)  //
                           : (str->func[i] - str->wfid[i]) / h;
  }
  return 0;
}

// Row j of the crossproduct matrix from the columns on file and func. 0 or -9. In diagonal form
// only the column's own square is needed, and no file is read. The form is that of post-analysis
// where the crossproduct is asked for without least squares.
static int add_crossproduct_row(MINSTR* str, long j) {
  const int form = str->lsqu == 0 && str->covstr != nullptr ? str->covstr->cfrm : str->hfrm;
  if (form != 2) {
    return znlpjdt(str, j, str->wfid, str->func, str->hess + packed_size(j)) != 0 ? -9 : 0;
  }
  str->hess[j] = 0.0;
  for (long i = 0; i < str->mequ; ++i) {
    if (hupd(str, &str->hess[j], str->wfid[i], str->func[i], str->func[i]) != 0) return -9;
  }
  return 0;
}

// All columns in order: column j of the crossproduct needs those before it on file. Ends at
// the first column that cannot be had.
static ColumnsEnd jacobian_columns(MINSTR* str, const JacobianKind& kind, double eps) {
  vzfdl(0.0, str->grad, str->nvar);
  const bool own = objective_has_intervals(str);
  const double* intervals = kind.side == Side::forward ? str->hfwd : str->hcnt;
  for (long j = 0; j < str->nvar; ++j) {
    const int code = difference_column(str, j, kind, own ? intervals[j] : eps);
    if (code != 0) return {code, false};
    if (!add_to_gradient(str, j, str->func)) return {-3, true};
    znlpjwt(str, 0, j, 1, str->func);
    if (kind.crossproduct && add_crossproduct_row(str, j) != 0) return {-9, true};
  }
  return {0, false};
}

// The shape of all four: note the state, move away from the bounds, form the columns, put back. At
// a moved base func and grad are those of the moved point, so that the user's state is evaluated
// anew at x; else func is copied back.
static int jacobian_by_differences(MINSTR* str, const JacobianKind& kind) {
  if (str->nfuv != 0) xexit(EXIT_INCONSISTENT, 0);  // the summands are not available
  ++str->nhes;
  const int indf = static_cast<int>(str->indf);
  const double crit = str->crit;
  str->indf = GRADIENT_STEP;
  const double eps =
      kind.side == Side::forward ? forward_interval(str->fdig) : central_interval(str->fdig);
  const int moved = movx(str, 1, objective_has_intervals(str) ? 1 : 0, kind.side, eps);
  int code = 0;
  if (moved >= 0) {
    std::copy_n(str->func, str->mequ, str->wfid);
    const ColumnsEnd end = jacobian_columns(str, kind, eps);
    code = end.code;
    // After an overflow the run is to stop: nothing is put back.
    if (kind.crossproduct && end.overflow) return code;
    if (moved == 0) std::copy_n(str->wfid, str->mequ, str->func);
  }
  if (moved != 0) code = return_from_moved_base(str, moved < 0 || code != 0);
  str->crit = crit;
  str->indf = indf;
  return code;
}

// side, crossproduct, scaled_interval, plus_failed
int znlpfij(MINSTR* str) { return jacobian_by_differences(str, {Side::forward, false, true, -2}); }

int znlpfj2(MINSTR* str) { return jacobian_by_differences(str, {Side::central, false, false, -2}); }

int znlpfic(MINSTR* str) { return jacobian_by_differences(str, {Side::forward, true, true, -2}); }

int znlpfc2(MINSTR* str) { return jacobian_by_differences(str, {Side::central, true, true, -3}); }

// ---- Jacobian of the nonlinear constraints -----------------------------------------------------

// The constraints' own callback, or the objective's, which then leaves fcon behind.
static bool call_constraints(MINSTR* str) {
  str->ifdr = ORDER_FUNCTION;
  return (str->usnlc != nullptr ? str->usnlc : str->usfct)(str) == 0;
}

// Column j of jcon at one interval; false when the retreat ran out. Forward columns hold the values
// at the base point on entry.
static bool constraint_column(MINSTR* str, long j, Side forc, double r) {
  const double xj = str->x[j];
  const long n = str->nvar;
  double h = step_inside(str, j, step_made(xj, (std::fabs(xj) + 1.0) * r), forc);
  const double floor = step_floor(xj);
  const bool central = forc == Side::central;
  for (;;) {
    perturb(str, j, xj + h);
    bool good = call_constraints(str);
    if (good && central) {
      for (long i = 0; i < str->nnlc; ++i) str->jcon[i * n + j] = str->fcon[i];
      perturb(str, j, xj - h);
      good = call_constraints(str);
    }
    if (good) break;
    if (!(h > floor)) {
      str->x[j] = xj;
      return false;
    }
    h *= 0.5;
  }
  str->x[j] = xj;
  for (long i = 0; i < str->nnlc; ++i) {
    double& entry = str->jcon[i * n + j];
    entry = central ? (entry - str->fcon[i]) / (2.0 * h) : (str->fcon[i] - entry) / h;
  }
  return true;
}

// Forward: the values at the base point are laid into every column first, which saves a vector for
// them. The user's x is kept in work here, because movx does so only where there
// are bounds.
static int constraint_jacobian(MINSTR* str, Side forc) {
  ++str->njnc;
  const int indf = static_cast<int>(str->indf);
  const double crit = str->crit;
  str->indf = CONSTRAINT_STEP;
  const bool own = constraints_have_intervals(str);
  const double eps =
      forc == Side::forward ? forward_interval(str->cdig) : central_interval(str->cdig);
  std::copy_n(str->x, str->nvar, str->work);
  movx(str, 0, own ? 1 : 0, forc, eps);
  if (forc == Side::forward) {
    // At once: indf, crit and any shift are left as they stand, the run is to stop.
    if (!call_constraints(str) || str->tbig != 0.0) return -1;
    for (long i = 0; i < str->nnlc; ++i) vzfdl(str->fcon[i], str->jcon + i * str->nvar, str->nvar);
  }
  const double* intervals = forc == Side::forward ? str->hfwd : str->hcnt;
  long done = 0;
  while (done < str->nvar && constraint_column(str, done, forc, own ? intervals[done] : eps)) {
    ++done;
  }
  // A retreat that ran out ends the columns and is not reported (deliberate): those formed before
  // it stand, those behind it, which hold values of constraints by now, become zero, and the log
  // tells of it.
  for (long i = 0; i < str->nnlc; ++i) {
    vzfdl(0.0, str->jcon + i * str->nvar + done, str->nvar - done);
  }
  if (done < str->nvar) tell_incomplete(str, "Jacobian of the nonlinear constraints", done);
  std::copy_n(str->work, str->nvar, str->x);
  const bool restored = call_constraints(str);
  str->crit = crit;
  str->indf = indf;
  return restored ? 0 : -10;
}

int znlpfcj(MINSTR* str) { return constraint_jacobian(str, Side::forward); }

int znlpfcc(MINSTR* str) { return constraint_jacobian(str, Side::central); }

}  // namespace tqnlp
