// znlpdnc: Direction of Negative Curvature, the second-order test at a claimed solution.
//
// Method     Cholesky factorization of the projected Hessian Z'HZ with diagonal pivoting. When no
//            positive pivot is left, the reduced matrix S tells: S = 0 means positive
//            semidefinite, anything else gives u with u'Su < 0, and with the finished factor L
//            z = (-L^-T (L21' u), u) has z'Z'HZz = u'Su < 0. The objective is then searched along
//            d = Zz by values alone.
// Reference  Fiacco and McCormick (1968), section 8; More and Sorensen (1979), Mathematical
//            Programming 16, for descent along negative curvature; Gill, Murray and Wright (1981),
//            section 3.2.2 (second-order conditions)
// Reads      ider, fidi, hfrm, ushes, constraints
// Writes     x, crit, stub, cmax, the working set (job 1)
// Work       hess = H | hpro = Z'HZ and its factor | sdir = d | work, gold scratch | iwk pivots
//
//   1  function, constraints and Hessian at x; the working set, the projected Hessian
//   2  factor, and a direction if there is negative curvature
//   3  scale the direction to the length of x, step limit, line search
#include <algorithm>
#include <cmath>
#include <utility>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpba1.h"
#include "aasubs/constraints/znlpbas.h"
#include "aasubs/derivatives/znlpfid.h"
#include "aasubs/linesearch/znlplis.h"
#include "aasubs/post/stop_analysis.h"
#include "host/log.h"
#include "host/memory.h"
#include "kernels/dense.h"
#include "kernels/factor.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr int BETTER = 0;
static constexpr int SEMIDEFINITE = 1;
static constexpr int DEFINITE = 2;
static constexpr int NO_STEP = 3;
static constexpr int NOT_TESTED = -1;
static constexpr int MEMORY_REFUSED = -2;

static constexpr int SPARSE_FORM = 1;
static constexpr int DIAGONAL_FORM = 2;

namespace {

// Arrays of the test; what the run lacks is in the pool.
struct Workspace {
  MemPool* pool = nullptr;
  double* hess = nullptr;  // the record's own, put back at the end
  double* hpro = nullptr;
  double* wfid = nullptr;
};

}  // namespace

static bool has_general_constraints(const MINSTR* str) {
  return str->lincon != 0 || str->nlicon != 0;
}

// The projection of a diagonal Hessian is a diagonal only while nothing but bounds is active.
static bool is_diagonal(const MINSTR* str) {
  return str->hfrm == DIAGONAL_FORM && !has_general_constraints(str);
}

// ---- Work arrays --------------------------------------------------------------------------------

static long difference_work(const MINSTR* str) {
  const long m = str->mequ;
  return std::max({2 * m, m + str->nvar, 2L});
}

// Has half room for two packed matrices? Of a least-squares model and of a quadratic it holds one.
static bool half_is_spare(const MINSTR* str) {
  return str->hlfalo != 0 && str->tech != HYQUAN && str->tech != QUADAS;
}

// Puts arrays in the place of those that the run did not allocate.
static bool borrow_arrays(MINSTR* str, Workspace& own) {
  // A technique that is told to go on loads its matrices afresh, and one that ends needs them no
  // more: what is there may be overwritten.
  own = {nullptr, str->hess, str->hpro, str->wfid};
  double* spare = half_is_spare(str) ? str->half : nullptr;
  str->hess = str->hesalo != 0 ? str->hess : spare;
  str->hpro = str->hpralo != 0 ? str->hpro : (spare != nullptr ? spare + str->nnva : nullptr);

  const auto doubles = [](long count) { return static_cast<std::size_t>(count) * sizeof(double); };
  const std::size_t matrix = doubles(str->nnva);
  const std::size_t differences = str->fidi == 0 ? doubles(difference_work(str)) : 0;
  const std::size_t total =
      (str->hess == nullptr ? matrix : 0) + (str->hpro == nullptr ? matrix : 0) + differences;
  if (total == 0) return true;
  // The pool has exactly the bytes that are asked for below.
  own.pool = xmpoolc(total);
  const auto take = [&](double*& array, std::size_t bytes) {
    array = own.pool != nullptr ? static_cast<double*>(xmemdef(own.pool, bytes)) : nullptr;
    return array != nullptr;
  };
  if ((str->hess != nullptr || take(str->hess, matrix)) &&
      (str->hpro != nullptr || take(str->hpro, matrix)) &&
      (differences == 0 || take(str->wfid, differences))) {
    return true;
  }
  xmemmsg(total);
  return false;
}

static void return_arrays(MINSTR* str, const Workspace& own) {
  str->hess = own.hess;
  str->hpro = own.hpro;
  str->wfid = own.wfid;
  xmpoold(own.pool);
}

// ---- Hessian ------------------------------------------------------------------------------------

// Hessian by differences in the form that the run uses. Without a choice gradients are differenced,
// but never gradients that are differences themselves: the steps of both are equally long, so that
// the errors of such a Hessian are as large as its elements, and say nothing of their signs.
static int difference_hessian(MINSTR* str) {
  const bool gradient = str->ider >= 1 && str->usgrd != nullptr;
  const int choice = fidi_digit(str->fidi, 3);
  if (choice == 2) return znlpfh2(str);
  if (choice == 3 && gradient) return znlpfh3(str);
  if (choice == 4 && gradient) return znlpfh4(str);
  if (choice == 0 && gradient && fidi_digit(str->fidi, 0) == 0) return znlpfh3(str);
  return znlpfih(str);
}

// Function, constraints and Hessian at x; false when one of them failed or is no number.
static bool calhes(MINSTR* str) {
  str->ifdr = ORDER_FUNCTION;
  if (str->usfct(str) != 0 || str->tbig != 0.0 || std::isnan(str->crit)) return false;
  int code = 0;
  // For least squares ushes would give the crossproduct J'J, which never has negative curvature.
  if (str->ushes != nullptr && str->lsqu == 0) {
    str->ifdr = ORDER_HESSIAN;
    code = str->ushes(str);
  } else {
    code = difference_hessian(str);
  }
  if (code != 0 || str->tbig != 0.0) return false;
  const long length = str->hfrm == DIAGONAL_FORM ? str->nvar : str->nnva;
  return std::all_of(str->hess, str->hess + length, [](double h) { return std::isfinite(h); });
}

// Without the rows of nonlinear constraints in the working set the direction would leave their
// tangent space.
static void project_hessian(MINSTR* str, int job) {
  // The operator wants room for a projected gradient, which bounds alone do not come with.
  double* gradient = str->gpro != nullptr ? str->gpro : str->gold;
  with_general_frame(
      str, [&] { znlphpr(str, 1, job != 0 ? 1 : 0, str->hfrm, gradient, str->hess, str->hpro); });
}

// ---- Factorization ------------------------------------------------------------------------------

// Rows and columns k and ipiv change places in the packed matrix, and so do the pivots.
static void doswap(long n, long k, long ipiv, long* piv, double* c) {
  swap_packed(n, k, ipiv, c);
  std::swap(piv[k], piv[ipiv]);
}

// Eliminates the positive pivot k: column k becomes that of the factor, and the triangle behind it
// the reduced matrix S.
static void eliminate(long n, long k, double* c) {
  const double root = std::sqrt(c[zisub(k, k)]);
  c[zisub(k, k)] = root;
  for (long i = k + 1; i < n; ++i) {
    double* row = c + packed_size(i);
    row[k] /= root;
    for (long j = k + 1; j <= i; ++j) row[j] -= row[k] * c[zisub(j, k)];
  }
}

// A vector u on the places k..n-1 with u'Su < 0, in z; false when S is zero. The most negative
// diagonal element decides. The plain test would take all others for semidefinite; beyond it, a
// zero diagonal with an element s beside it is indefinite as well: (1, -sign s) has curvature -2|s|
// there. Elements up to rounding are zero like the diagonal they stand beside: a singular matrix
// leaves such elements, and they say nothing.
static bool negative_in_remainder(long n, long k, double rounding, const double* c, double* z) {
  long least = k;
  for (long i = k + 1; i < n; ++i) {
    if (c[zisub(i, i)] < c[zisub(least, least)]) least = i;
  }
  vzfdl(0.0, z, n);
  if (c[zisub(least, least)] < -TINY) {
    z[least] = 1.0;
    return true;
  }
  long row = -1;
  long column = -1;
  double largest = std::max(rounding, TINY);
  for (long i = k + 1; i < n; ++i) {
    for (long j = k; j < i; ++j) {
      if (!(std::fabs(c[zisub(i, j)]) > largest)) continue;
      largest = std::fabs(c[zisub(i, j)]);
      row = i;
      column = j;
    }
  }
  if (row < 0) return false;
  z[row] = 1.0;
  z[column] = c[zisub(row, column)] > 0.0 ? -1.0 : 1.0;
  return true;
}

// Completes z, given on the places r..n-1, to a direction of the whole matrix.
static void baksub(long n, long r, const double* c, double* z) {
  for (long i = r; i < n; ++i) {
    if (z[i] != 0.0) zvxay11(r, z, -z[i], c + packed_size(i));
  }
  zbaksub(r, c, z);
}

// Factors packed c of order n with diagonal pivoting (the first of equal elements), in place.
// Returns 0 positive definite; -1-r positive semidefinite, zero from step r on; k+1 > 0 negative
// curvature at step k, with a direction in z (in the order of the matrix).
static long chodec1(long n, long* piv, double* c, double* z) {
  const double rounding = static_cast<double>(n) * EPS * zvamx(packed_size(n), c);
  for (long i = 0; i < n; ++i) piv[i] = i;
  for (long k = 0; k < n; ++k) {
    long largest = k;
    for (long i = k + 1; i < n; ++i) {
      if (c[zisub(i, i)] > c[zisub(largest, largest)]) largest = i;
    }
    // Positive pivots first, however small: only a remainder without any shows what is negative.
    if (c[zisub(largest, largest)] > TINY) {
      if (largest != k) doswap(n, k, largest, piv, c);
      eliminate(n, k, c);
      continue;
    }
    if (!negative_in_remainder(n, k, rounding, c, z)) return -1 - k;
    baksub(n, k, c, z);
    znlpprm(1, n, piv, z);
    return k + 1;
  }
  return 0;
}

// The diagonal form: a unit vector on the smallest element.
static int test_diagonal(long n, const double* hpro, double* z) {
  const long least = std::min_element(hpro, hpro + n) - hpro;
  if (hpro[least] < -TINY) {
    vzfdl(0.0, z, n);
    z[least] = -1.0;
    return NO_STEP;
  }
  return hpro[least] <= TINY ? SEMIDEFINITE : DEFINITE;
}

// Curvature of the projected Hessian: DEFINITE, SEMIDEFINITE, or NO_STEP for a negative one, with
// the direction over all parameters in sdir.
static int look_for_direction(MINSTR* str) {
  const long order = reduced_dimension(str);
  if (is_diagonal(str)) {
    const int kind = test_diagonal(order, str->hpro, str->work);
    if (kind != NO_STEP) return kind;
  } else {
    const long kind = chodec1(order, str->iwk, str->hpro, str->work);
    if (kind == 0) return DEFINITE;
    if (kind < 0) return SEMIDEFINITE;
  }
  with_general_frame(str, [&] { znlpvex(str, str->work, str->sdir); });
  return NO_STEP;
}

// d'Hd with the Hessian over all parameters.
static double curvature_along(MINSTR* str) {
  const long n = str->nvar;
  if (str->hfrm == DIAGONAL_FORM) {
    for (long j = 0; j < n; ++j) str->work[j] = str->hess[j] * str->sdir[j];
  } else {
    znlpsmv(n, nullptr, str->hess, str->sdir, str->work);
  }
  return zvdot11(n, str->sdir, str->work);
}

// ---- Step ---------------------------------------------------------------------------------------

// Gives the direction the length of x, so that the first trial changes what is there by its own
// size. False when nothing is left of it (x = 0 among others).
static bool scale_direction(MINSTR* str) {
  const double length = zvenorm(str->nvar, 1, str->sdir);
  if (!(length > TINY) || std::isinf(length)) return false;
  zvscl11(str->nvar, str->sdir, zvenorm(str->nvar, 1, str->x) / length);
  return true;
}

// Line search along sdir from xold by values alone; damp 2 lets its first trial be the direction
// itself, whatever the last step of the run was. True: it moved.
static bool search(MINSTR* str) {
  const int ider = str->ider;
  const double damp = str->damp;
  const double salf = str->salf;
  str->ider = 0;
  str->damp = 2.0;
  str->alfa = str->salf = 1.0;
  const int code = str->nlicon != 0 ? znlpls9(str) : znlpls6(str);
  const bool moved = code == 0 && str->alfa > TINY;
  str->ider = ider;
  str->damp = damp;
  str->salf = salf;
  return moved;
}

static void return_to_entry(MINSTR* str, double crit) {
  str->crit = crit;
  std::copy_n(str->xold, str->nvar, str->x);
}

// Follows the direction in sdir. Equal values are no gain: the run would go on in a circle.
static int follow(MINSTR* str) {
  const double crit = str->crit;
  const double violation = str->cmax;
  str->stub = HUGE_VALUE;
  if (str->bounds != 0 || has_general_constraints(str)) {
    long blocking = -1;
    znlpstl(str, 0, 1, 0, str->xold, str->sdir, &blocking, nullptr);
    if (!(str->stub > DIAGONAL_PIVOT_FLOOR)) return NO_STEP;
  }
  if (!search(str)) {
    return_to_entry(str, crit);
    return NO_STEP;
  }
  if (str->nlicon == 0) {
    if (str->crit < crit) return BETTER;
    return_to_entry(str, crit);
    return NO_STEP;
  }
  const double reached = gtcmx(str);
  // A violation that grew leaves the new point standing, deliberately: it is reported as it is.
  if (!(reached <= violation)) return NO_STEP;
  // A step that changed neither would send the run in a circle.
  const bool gained = reached < violation || str->crit < crit;
  str->cmax = reached;
  if (gained) return BETTER;
  return_to_entry(str, crit);
  return NO_STEP;
}

// ---- The test -----------------------------------------------------------------------------------

// Is there a frame to test in? Lowers job to 0 where no working set can be made.
static bool can_be_tested(const MINSTR* str, int* job) {
  if (str->ider == 0 || str->hfrm == SPARSE_FORM || str->utquad != nullptr) return false;
  // The value of a quadratic is computed from hess, which differences would overwrite.
  if (str->fqad != 0 && str->ushes == nullptr) return false;
  if (!has_general_constraints(str)) return true;
  if (str->opro == 2) return false;
  if (str->opro == 0) *job = 0;
  if (str->nlicon != 0 && *job == 0) return false;
  return str->opro != 0 || str->nalc == 0;
}

// Active bounds and constraints at x, as job asks. Statuses are cleared first: one may belong to a
// bound that x has left.
static void collect_active(MINSTR* str, int job) {
  const bool general = has_general_constraints(str);
  if (job == 0 || !(general || str->bounds != 0)) return;
  for (long j = 0; str->bounds != 0 && j < str->nvar; ++j) {
    if (str->iabc[j] != 2) str->iabc[j] = 0;
  }
  znlpfch(str, 1, 1, str->ipre);
}

static int test_curvature(MINSTR* str, int job) {
  const bool constrained = str->bounds != 0 || has_general_constraints(str);
  if (!calhes(str)) return NOT_TESTED;
  if (constrained) {
    // The constraints' values must belong to x before the working set is made from them.
    const double value = str->crit;
    const double violation = gtcmx(str);
    if (str->tbig != 0.0) return NOT_TESTED;
    collect_active(str, job);
    str->crit = value;
    str->cmax = violation;
    if (job != 0) znlpfta(str, 1, 1, 0, nullptr, nullptr, nullptr);
  }
  if (reduced_dimension(str) < 1) return DEFINITE;
  project_hessian(str, job);
  std::copy_n(str->x, str->nvar, str->xold);

  const int kind = look_for_direction(str);
  if (kind != NO_STEP) return kind;
  // Rounding may turn the curvature of a nearly singular matrix around: there is nothing to follow.
  if (!(curvature_along(str) < 0.0) || !scale_direction(str)) return NO_STEP;
  return follow(str);
}

int znlpdnc(MINSTR* str, int job) {
  if (!can_be_tested(str, &job)) return NOT_TESTED;
  const double crit = str->crit;
  const double alfa = str->alfa;
  const double tbig = str->tbig;
  const long chac = str->chac;
  const long idac = str->idac;
  Workspace own;
  const int result = borrow_arrays(str, own) ? test_curvature(str, job) : MEMORY_REFUSED;
  return_arrays(str, own);
  str->alfa = alfa;
  // The stop stands: what the run reports about its last iteration is not that of the test.
  if (result != BETTER) {
    if (result == NOT_TESTED) str->crit = crit;
    str->tbig = tbig;
    str->chac = chac;
    str->idac = idac;
  }
  return result;
}

}  // namespace tqnlp
