// qpsub: the Quadratic Programming SUBproblem.
//
// Model      min g'd + d'Bd/2 over d, with a slack s in front of the violated constraints:
//              c_i s + a_i'd (=, >=) 0   equalities, and inequalities with c_i < 0
//              c_i   + a_i'd >= 0        the others
//            s = 1 asks for the whole linearization; d = 0, s = 0 satisfies all rows, so that a
//            start is at hand where s = 1 is too much
// Method     QUADAS on n + 1 variables with s fixed at 1. The working set of the last subproblem is
//            tried first: near a solution it is that of the new one. If no d exists for s = 1, s is
//            freed from 0 with a linear term that wants it large, and the solution taken back
//            towards the start by a tenth, where s is fixed again: at the largest s the feasible
//            set may be a single point, and multipliers have no bound there.
// Reference  Powell (1978), Numerical Analysis Dundee 1977, Lecture Notes in Mathematics 630
// Work       half = factor of the reduced matrix | B with the row of the slack; the arrays of the
//            working set are those of the problem record
#include "aasubs/sqp/qpsub.h"

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/members.h"
#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpbas.h"
#include "aasubs/constraints/znlpfea.h"
#include "aasubs/loop/loads.h"
#include "aasubs/quadratic/znlpqas.h"
#include "aasubs/sqp/terms.h"
#include "kernels/dense.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr double LONGEST_STEP = 1000000.0;  // of a parameter without bound: a bounded region
static constexpr double NO_SHARE = 1e-6;           // a slack not above it takes nothing away
static constexpr double BACK = 0.9;                // from the largest slack
static constexpr double SLACK_WEIGHT = 1e6;        // times the size of the gradient
static constexpr double LEAST_LIMIT = 500.0;       // of iterations; more for many constraints
static constexpr int SOLVED = 3;

static VMCSTR* outer_of(MINSTR* inner) { return static_cast<VMCSTR*>(inner->thdstr); }

// ---- Callbacks of the subproblem ----------------------------------------------------------------

static void multiply(MINSTR* inner, const double* d, double* product) {
  znlpsmv(inner->nvar, nullptr, inner->hess, d, product);
}

// grad := g + Bd, of which the value needs the product too.
static int gquad(MINSTR* inner) {
  ++inner->ngrd;
  multiply(inner, inner->x, inner->grad);
  zvxay11(inner->nvar, inner->grad, 1.0, inner->qvec);
  return 0;
}

static int fquad(MINSTR* inner) {
  ++inner->nfct;
  inner->tbig = 0.0;
  double* product = outer_of(inner)->prod;
  multiply(inner, inner->x, product);
  inner->crit = inner->qcon + zvdot11(inner->nvar, inner->qvec, inner->x) +
                0.5 * zvdot11(inner->nvar, product, inner->x);
  return std::isfinite(inner->crit) ? 0 : 1;
}

// B stands in hess for the whole subproblem; a technique of second order gets both derivatives.
static int hquad(MINSTR* inner) { return gquad(inner); }

// Row i with the coefficient of the slack behind it.
static int getawrk(MINSTR* inner, long i, double* crow) {
  const VMCSTR* v = outer_of(inner);
  MINSTR* str = v->minstr;
  const double* row = getjcon(str, *v, i);
  if (row != crow) std::copy_n(row, str->nvar, crow);
  const double c = v->vcon[i];
  crow[str->nvar] = is_equality(*v, i) || c < 0.0 ? c : 0.0;
  return 0;
}

// A minimizer on its working set, which nothing wants to leave, is the solution.
static int test_quadratic(MINSTR* inner, int job) {
  if (job < 0) return job;
  if (inner->tbig != 0.0) return FUNCTION_FAILED;
  if (inner->chac == 0 && job != TEST_LIMITS_ONLY) return SOLVED;
  const bool limit = inner->nitr >= inner->maxi || static_cast<double>(inner->nfct) >= inner->maxf;
  return limit ? COUNT_LIMIT : 0;
}

// ---- The record ---------------------------------------------------------------------------------

static void share_working_set(const MINSTR* str, MINSTR& inner) {
  inner.ipiv = str->ipiv;
  inner.iwk = str->iwk;
  inner.ifxr = str->ifxr;
  inner.iabc = str->iabc;
  inner.iact = str->iact;
  inner.liwk = str->liwk;
  inner.gpro = str->gpro;
  inner.lagm = str->lagm;
  inner.dcds = str->dcds;
  inner.awrk = str->awrk;
  inner.qlcn = str->qlcn;
  inner.llcn = str->llcn;
}

void open_subproblem(MINSTR* str, VMCSTR& v) {
  MINSTR& inner = v.inner;
  inner.nvar = str->nvar + 1;
  inner.nnva = packed_size(inner.nvar);
  inner.mequ = inner.mfun = 1;
  inner.fqad = inner.qlin = 1;
  inner.tech = QUADAS;
  inner.vers = 2;
  inner.nres = NEVER;
  inner.bounds = 1;
  inner.lincon = v.rows > 0 ? 1 : 0;
  inner.opro = inner.lincon;
  inner.ncon = v.rows;
  inner.neqc = inner.ntec = v.equalities;
  inner.ntco = v.rows + 2 * inner.nvar;
  inner.ceps = str->ceps;
  inner.ldct = str->ldct;
  inner.sing = str->sing;
  inner.ssin = str->ssin;
  inner.deat = inner.rtop = inner.dhes = inner.damp = MISSING;
  inner.salf = 1.0;
  inner.ider = 4;
  inner.maxi = std::max(LEAST_LIMIT, 10.0 * static_cast<double>(str->nvar + v.rows));
  inner.maxf = 2.0 * inner.maxi;
  inner.upti = HUGE_VALUE;
  inner.unbd = 1;
  inner.indf = IN_RUN;
  inner.savstr = str;
  inner.thdstr = &v;
  inner.usfct = fquad;
  inner.usgrd = gquad;
  inner.ushes = hquad;
  inner.acget = getawrk;
  inner.uster = test_quadratic;
  inner.qvec = str->qvec;
  inner.half = str->half;
  inner.hess = str->half + inner.nnva;
  share_working_set(str, inner);
}

// ---- Loading ------------------------------------------------------------------------------------

// B = LL', a row of zeros for the slack behind it.
static void load_matrix(const MINSTR* str, MINSTR& inner) {
  const long n = str->nvar;
  const double* l = str->hess;
  for (long i = 0; i < n; ++i) {
    for (long j = 0; j <= i; ++j) {
      inner.hess[packed_size(i) + j] = zvdot11(j + 1, l + packed_size(i), l + packed_size(j));
    }
  }
  vzfdl(0.0, inner.hess + packed_size(n), n + 1);
}

// Bounds of the step and right sides. stblcn
static void load_constraints(const MINSTR* str, const VMCSTR& v, MINSTR& inner) {
  const long n = str->nvar;
  for (long j = 0; j < n; ++j) {
    const double below = v.terms > v.rows ? -v.vcon[v.rows + j] : -HUGE_VALUE;
    const double above = v.terms > v.rows ? v.vcon[v.rows + n + j] : HUGE_VALUE;
    inner.lb[j] = std::max(below, -LONGEST_STEP);
    inner.ub[j] = std::max(std::min(above, LONGEST_STEP), inner.lb[j]);
  }
  for (long i = 0; i < v.rows; ++i) {
    const bool scaled = is_equality(v, i) || v.vcon[i] < 0.0;
    inner.blcn[i] = scaled ? 0.0 : -v.vcon[i];
  }
}

// The slack fixed at a value.
static void fix_slack(MINSTR& inner, double s) {
  const long n = inner.nvar - 1;
  inner.x[n] = inner.lb[n] = inner.ub[n] = s;
  inner.qvec[n] = 0.0;
}

static void clear_working_set(MINSTR& inner) {
  std::fill_n(inner.iabc, inner.nvar, 0);
  inner.nabc = inner.nalc = inner.nldc = inner.nlbc = inner.nanc = 0;
  inner.chac = inner.idac = 0;
  inner.ipre = 0;
}

// ---- Solving ------------------------------------------------------------------------------------

static bool is_feasible(MINSTR& inner) { return znlpfch(&inner, 0, 0, inner.ipre) == 0; }

// Are the gradients of the active constraints independent?
static bool has_multipliers(const MINSTR& inner) {
  for (long r = 0; r < inner.nalc; ++r) {
    if (!(std::fabs(inner.llcn[packed_size(r)]) > TINY)) return false;
  }
  return true;
}

// A run that ends with another code than that of a solution, at a limit or by rounding, may still
// have found a feasible step that lowers the model.
static bool solve(MINSTR& inner, int isqp) {
  inner.isqp = isqp;
  inner.nitr = 0.0;
  inner.nter = 0;
  inner.tbig = 0.0;
  const int code = znlpqas(&inner);
  if (code > 0 || isqp != 0) return code > 0;
  return code != -6 && inner.crit < 0.0 && is_feasible(inner) && has_multipliers(inner);
}

// Starts on the working set of the last subproblem: its members satisfied by the smallest step.
// False: they cannot be, or other constraints are violated there.
static bool solve_warm(MINSTR* str, VMCSTR& v, MINSTR& inner) {
  if (!v.warm || str->nabc + str->nalc == 0) return false;
  long kept = 0;
  for (long i = 0; i < v.rows; ++i) {
    const long g = general_index(str, v, i);
    const bool active = std::find(str->iact, str->iact + str->nalc, g) != str->iact + str->nalc;
    if (active || is_equality(v, i)) str->liwk[kept++] = i;
  }
  std::copy_n(str->liwk, kept, inner.iact);
  inner.nalc = kept;
  inner.nabc = 1;
  for (long j = 0; j < str->nvar; ++j) inner.nabc += str->iabc[j] != 0 ? 1 : 0;
  inner.iabc[str->nvar] = 2;
  inner.nldc = inner.nlbc = inner.nanc = inner.chac = inner.idac = 0;
  inner.ipre = 0;
  if (inner.nabc + inner.nalc > inner.nvar) return false;
  vzfdl(0.0, inner.x, str->nvar);
  const bool there = doequc(&inner, 0) == 0 && is_feasible(inner);
  return there && solve(inner, 1);
}

// From d = 0, or the feasible point nearest to it.
static bool solve_cold(MINSTR* str, MINSTR& inner) {
  vzfdl(0.0, inner.x, str->nvar);
  clear_working_set(inner);
  return solve(inner, 0);
}

// With the slack fixed at s, from a point that is feasible with it.
static bool solve_fixed(MINSTR& inner, VMCSTR& v, double s) {
  v.slack = s;
  fix_slack(inner, s);
  clear_working_set(inner);
  return solve(inner, 0);
}

// The largest slack that a weight buys. False: it bought next to nothing, or the solution failed.
static bool largest_slack(MINSTR* str, MINSTR& inner, double weight) {
  const long n = str->nvar;
  inner.lb[n] = 0.0;
  inner.ub[n] = 1.0;
  inner.qvec[n] = -weight * std::max(1.0, zvamx(n, str->grad));
  inner.x[n] = 0.0;
  return solve_cold(str, inner) && inner.x[n] > NO_SHARE;
}

// The largest slack, then nine tenths of it. A step that takes a violation away may be so long that
// only an enormous weight pays for its curvature.
static Subproblem solve_with_slack(MINSTR* str, VMCSTR& v, MINSTR& inner) {
  static constexpr double ENORMOUS = 1e6;
  const long n = str->nvar;
  if (!largest_slack(str, inner, SLACK_WEIGHT) &&
      !largest_slack(str, inner, ENORMOUS * SLACK_WEIGHT)) {
    vzfdl(0.0, inner.x, n);
    return solve_fixed(inner, v, 0.0) ? Subproblem::inconsistent : Subproblem::failed;
  }
  const double largest = inner.x[n];
  const double share = largest < 1.0 - HUNDRED_EPS ? BACK * largest : 1.0;
  zvscl11(n, inner.x, share / largest);
  return solve_fixed(inner, v, share) ? Subproblem::solved : Subproblem::failed;
}

// ---- The result ---------------------------------------------------------------------------------

// The rows of the subproblem are the first terms.
static long same_index(const MINSTR*, const VMCSTR&, long i) { return i; }

// The bounds of the step are more than those of x.
static bool is_status_of_bound(const MINSTR* str, long j) {
  if (str->bounds == 0) return false;
  return str->iabc[j] == -1 ? upper_exists(str->ub[j]) : lower_exists(str->lb[j]);
}

// Multipliers in the order of the terms, and the working set as that of the problem record. getlf
static void take_result(MINSTR* str, VMCSTR& v, MINSTR& inner) {
  take_multipliers(&inner, v, same_index);
  str->nalc = inner.nalc;
  str->nanc = 0;
  for (long k = 0; k < inner.nalc; ++k) {
    str->iact[k] = general_index(str, v, inner.iact[k]);
    str->nanc += str->iact[k] >= str->ncon ? 1 : 0;
  }
  str->nabc = 0;
  for (long j = 0; j < str->nvar; ++j) {
    if (!is_status_of_bound(str, j)) str->iabc[j] = 0;
    str->nabc += str->iabc[j] != 0 ? 1 : 0;
  }
  str->chac = str->nldc = str->nlbc = 0;
  v.warm = true;
}

// From the last working set, from d = 0, or with less than the whole linearization.
static Subproblem solve_subproblem(MINSTR* str, VMCSTR& v) {
  MINSTR& inner = v.inner;
  v.slack = 1.0;
  fix_slack(inner, 1.0);
  if (solve_warm(str, v, inner)) return Subproblem::solved;
  fix_slack(inner, 1.0);
  if (solve_cold(str, inner)) return Subproblem::solved;
  return solve_with_slack(str, v, inner);
}

Subproblem qpsub(MINSTR* str, VMCSTR& v) {
  MINSTR& inner = v.inner;
  const long n = str->nvar;
  std::copy_n(str->grad, n, inner.qvec);
  load_matrix(str, inner);
  load_constraints(str, v, inner);
  const Subproblem answer = solve_subproblem(str, v);
  if (answer == Subproblem::failed) {
    v.warm = false;
    str->nabc = str->nalc = 0;
    return answer;
  }
  std::copy_n(inner.x, n, str->sdir);
  multiply(&inner, inner.x, v.prod);
  v.curvature = zvdot11(n, v.prod, inner.x);
  take_result(str, v, inner);
  set_slopes(str, v);
  return answer;
}

}  // namespace tqnlp
