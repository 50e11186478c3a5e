// znlpchg: CHeck of the Gradient in full, with grdchk, the differences that it is made of.
//
// Method     one step h in each parameter. Which elements of the gradient change shows which
//            parameters influence it. The gradient's differences A(k,j) = (g_k(x + h e_j) - g_k)/h
//            must be a Hessian: symmetric, and on the diagonal the second derivative of f, which
//            the function gives as -2 (g_j - (f(x + h e_j) - f)/h)/h. The comparison matrix holds
//            A(k,j) - A(j,k) off the diagonal and the difference of the two second derivatives on
//            it, so that a gradient that belongs to f makes it zero up to truncation and rounding.
// Reference  Wolfe (1978), Numerical Methods for Unconstrained Optimization, on testing gradients
// Work       iwk = counts (n) | xold = the user's x (n) | work = gradient at x (n)
//            gold = diagonal of the comparison matrix (n)
#include <algorithm>
#include <cmath>

#include "aasubs/derivatives/differences.h"
#include "aasubs/derivatives/znlpchd.h"
#include "aasubs/record/covstr.h"
#include "aasubs/reports/report_tables.h"
#include "aasubs/reports/znlppre.h"
#include "host/log.h"
#include "host/memory.h"
#include "kernels/vector.h"
#include "kernels/zranuni.h"

namespace tqnlp {

static constexpr double SAME_VALUE = 1.110223024625157e-12;  // relative, between two evaluations
static constexpr long FIRST_SEED = 1;

double maceps(double r) {
  double e = 1.0;
  while ((1.0 + 0.5 * e) * r > r) e *= 0.5;
  return 2.0 * e;
}

// 0, or -1 (function) and -2 (gradient) when the pair failed.
static int evaluate_pair(MINSTR* str) {
  if (!call_function(str) || str->tbig != 0.0) return -1;
  return call_gradient_there(str) && str->tbig == 0.0 ? 0 : -2;
}

// Size below which an element of the gradient is rounding.
static double rounding_of_gradient(const MINSTR* str) { return EPS * zvamx(str->nvar, str->grad); }

static void count_nonzero(const MINSTR* str, long* iwk) {
  const double scale = rounding_of_gradient(str);
  for (long k = 0; k < str->nvar; ++k) {
    if (std::fabs(str->grad[k]) > scale) ++iwk[k];
  }
}

// Counts the elements that are nonzero, or have another magnitude than in before.
static void count_changes(const MINSTR* str, const double* before, long* iwk) {
  const double scale = rounding_of_gradient(str);
  for (long k = 0; k < str->nvar; ++k) {
    const double now = std::fabs(str->grad[k]);
    const double then = std::fabs(before[k]);
    const bool differs = now + then > TINY && std::fabs(now - then) > EPS * (now + then);
    if (now > scale || differs) ++iwk[k];
  }
}

// Takes column j of the Hessian from the gradient at x + h e_j. Rows below j are met first from
// here and for the second time when their own column is formed.
static void take_column(const MINSTR* str, long j, double h, const double* before, double* hess,
                        double* compare) {
  for (long k = 0; k < str->nvar; ++k) {
    if (k == j) continue;
    const double a = (str->grad[k] - before[k]) / h;
    const long place = zisub(k, j);
    if (k > j) {
      hess[place] = compare[place] = a;
    } else {
      compare[place] -= a;
      hess[place] = 0.5 * (hess[place] + a);
    }
  }
}

static bool step_in_each_parameter(MINSTR* str, long* iwk, double* hess, double* compare,
                                   double* work) {
  const double base = str->crit;
  const double step = std::cbrt(3.0 * maceps(1.0));
  std::copy_n(str->grad, str->nvar, work);
  for (long j = 0; j < str->nvar; ++j) {
    const double xj = str->x[j];
    const double h = one_sided_step(str, j, step);
    perturb(str, j, xj + h);
    const int code = evaluate_pair(str);
    str->x[j] = xj;
    if (code != 0) return false;
    count_changes(str, work, iwk);
    const double curvature = (str->grad[j] - work[j]) / h;
    str->gold[j] = curvature + 2.0 * (work[j] - (str->crit - base) / h) / h;
    if (hess == nullptr) continue;
    hess[zisub(j, j)] = curvature;
    compare[zisub(j, j)] = str->gold[j];
    take_column(str, j, h, work, hess, compare);
  }
  return true;
}

// Two random points; a parameter that has shown nothing at the first is moved for the second.
static bool try_random_points(MINSTR* str, long* iwk, double* work) {
  long seed = FIRST_SEED;
  std::fill_n(iwk, str->nvar, 0L);
  for (long j = 0; j < str->nvar; ++j) str->x[j] = zranuni(&seed) - 0.5;
  if (evaluate_pair(str) != 0) return false;
  count_nonzero(str, iwk);
  std::copy_n(str->grad, str->nvar, work);
  for (long j = 0; j < str->nvar; ++j) {
    if (iwk[j] == 0) str->x[j] = (str->x[j] + 0.1) * 1.1;
  }
  if (evaluate_pair(str) != 0) return false;
  count_changes(str, work, iwk);
  return true;
}

int grdchk(MINSTR* str, int job, long* iwk, double* hess, double* compare, double* work) {
  std::fill_n(iwk, str->nvar, 0L);
  if (str->nvar < 1) return 0;
  if (evaluate_pair(str) != 0) return -1;
  count_nonzero(str, iwk);
  const bool good = job != 0 ? step_in_each_parameter(str, iwk, hess, compare, work)
                             : try_random_points(str, iwk, work);
  if (!good) return -1;
  return static_cast<int>(std::count(iwk, iwk + str->nvar, 0L));
}

// Matrices of a full test in a pool of their own; all null when memory is refused.
static MemPool* take_matrices(const MINSTR* str, HDOUT* out) {
  const auto bytes = static_cast<std::size_t>(str->nnva) * sizeof(double);
  const std::size_t pieces = out->hess == nullptr ? 3 : 2;
  MemPool* pool = xmpoolc(pieces * bytes);
  const auto piece = [&] {
    return pool != nullptr ? static_cast<double*>(xmemdef(pool, bytes)) : nullptr;
  };
  if (out->hess == nullptr) out->hess = piece();
  out->hwrk = piece();
  out->rval = piece();
  if (out->hess != nullptr && out->hwrk != nullptr && out->rval != nullptr) return pool;
  xpmlog(OPTIMIZATION, 260);
  xmpoold(pool);
  out->hess = out->hwrk = out->rval = nullptr;
  return nullptr;
}

static void name_parameters_without_influence(const MINSTR* str) {
  for (long j = 0; j < str->nvar; ++j) {
    if (str->iwk[j] == 0) xpmlog(OPTIMIZATION, 262, {parameter_name(str, j).text});
  }
}

// The comparison matrix as a square one, for the report; it may be lost for want of memory.
static void print_matrix(MINSTR* str, const HDOUT& out) {
  const long n = str->nvar;
  auto* square =
      static_cast<double*>(vmalloc_handler(static_cast<std::size_t>(n * n) * sizeof(double), 0));
  if (square == nullptr) return;
  for (long i = 0; i < n; ++i) {
    for (long j = 0; j < n; ++j) square[i * n + j] = out.hwrk[zisub(i, j)];
  }
  znlppmt(str->rvx, "SymDif", n, n, square, str->pnam, 1, TITLE_COMPARISON_MATRIX);
  vmfree_handler(square);
}

static void report(MINSTR* str, HDOUT* out) {
  if (str->dbug == 0.0 || str->rvx == nullptr) return;
  ptstvec(str);
  if (out->hess == nullptr || (str->covstr != nullptr && str->covstr->psho != 0)) return;
  hdimout(out);
  dishdif(str, out);
  maxhdif(str, out);
  print_matrix(str, *out);
}

int znlpchg(MINSTR* str, int job, double* hess) {
  const double crit = str->crit;
  str->indf = IN_TEST;
  std::copy_n(str->x, str->nvar, str->xold);
  HDOUT out{};
  out.pminst = str;
  out.hess = hess;
  MemPool* pool = job != 0 ? take_matrices(str, &out) : nullptr;

  const int count = grdchk(str, job, str->iwk, out.hess, out.hwrk, str->work);
  if (count < 0 && str->gchk == 2) xpmlog(OPTIMIZATION, 261);
  if (count > 0) name_parameters_without_influence(str);
  const bool printed = str->covstr == nullptr || str->covstr->npri == 0;
  if (count >= 0 && job != 0 && printed) report(str, &out);
  xmpoold(pool);

  std::copy_n(str->xold, str->nvar, str->x);
  const int code = evaluate_pair(str);
  const double size = 0.5 * (std::fabs(crit) + std::fabs(str->crit)) + 1.0;
  if (code == 0 && !(std::fabs(str->crit - crit) / size <= SAME_VALUE)) xpmlog(OPTIMIZATION, 49);
  str->crit = crit;
  return code;
}

}  // namespace tqnlp
