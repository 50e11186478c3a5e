// znlpqas, the reduced Hessian: its factorization in the three storage forms, and the directions of
// Newton, of zero and of negative curvature that it gives. Contracts in znlpqas_factor.h.
//
// Reference  Gill and Murray (1978), Numerically stable methods for quadratic programming,
//            Mathematical Programming 14, for curvature in the null space; Higham, Accuracy and
//            Stability (2002), section 10.3, for the semidefinite factor with diagonal pivoting
// Work       wrk2 behind spro: expanded vector | product | reduced product | direction (n each)
#include "aasubs/quadratic/znlpqas_factor.h"

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba0.h"
#include "kernels/dense.h"
#include "kernels/sparse.h"
#include "kernels/vector.h"

namespace tqnlp {

using Form = ReducedHessian::Form;
using Inertia = ReducedHessian::Inertia;

// Pivots below this share of the largest element of the matrix are rounding: weak.
static constexpr double WEAK_PIVOT = 1e-11;
// Without pivoting eigenvalues may lie far below the smallest pivot. A plain factor is trusted
// where all pivots are more than this share of what they were before elimination.
static constexpr double TRUSTED_PIVOT = 1e-8;
// The same for a projection on a rotated basis, which mixes elements of all sizes.
static constexpr double ROTATION_ROUNDING = 1e-12;
// Elements of S below this share of the matrix and of the direction that made them are rounding.
static constexpr double FLAT = 1e-11;
// A slope along zero curvature must exceed this share of the gradient's size.
static constexpr double CLEAR_SLOPE = 1e-9;

// Factorization jobs.
static constexpr int CHOLESKY = 2;
static constexpr int PIVOTED = 4;
static constexpr int SPARSE = 6;
static constexpr int SPARSE_FREE = 7;

static double* expanded_room(const MINSTR* str) { return str->wrk2 + str->nvar; }
static double* product_room(const MINSTR* str) { return str->wrk2 + 2 * str->nvar; }
static double* reduced_room(const MINSTR* str) { return str->wrk2 + 3 * str->nvar; }
static double* weak_room(const MINSTR* str) { return str->wrk2 + 4 * str->nvar; }

// ---- The matrix ---------------------------------------------------------------------------------

void measure_hessian(const MINSTR* str, ReducedHessian& reduced) {
  const bool packed = str->hfrm == 0;
  const long n = str->nvar;
  reduced.form = str->lincon != 0 ? Form::packed : static_cast<Form>(str->hfrm);
  reduced.size = zvamx(packed ? str->nnva : n, str->hess);
  if (str->hfrm == 1) {
    const long stored = str->shes.jasp[n] - n - 1;
    reduced.size = std::max(reduced.size, zvamx(stored, str->hess + n + 1));
  }
}

void multiply_hessian(MINSTR* str, const double* d, double* product) {
  znlpmul(str, str->hfrm, str->nvar, nullptr, str->hess, d, product);
}

// out := Z'HZ s. out must not overlap s.
static void multiply_reduced(MINSTR* str, const double* s, double* out) {
  znlpvex(str, s, expanded_room(str));
  multiply_hessian(str, expanded_room(str), product_room(str));
  znlpvre(str, product_room(str), out);
}

// ---- Factorization ------------------------------------------------------------------------------

static double weak_limit(const ReducedHessian& reduced) {
  const double growth = std::max(10.0 * EPS * static_cast<double>(reduced.order), WEAK_PIVOT);
  return std::max(growth * reduced.size, SMALLEST_TOLERANCE);
}

static void project(MINSTR* str, double* target) {
  znlphpr(str, 1, 0, str->hfrm, reduced_room(str), str->hess, target);
}

bool pivot_is_clear(const double* factor, long i, double share) {
  const double* row = factor + packed_size(i);
  const double length = zvenorm(i + 1, 1, row);
  return row[i] * row[i] > share * length * length;
}

static bool all_pivots_clear(const MINSTR* str, long order) {
  for (long i = 0; i < order; ++i) {
    if (!pivot_is_clear(str->half, i, TRUSTED_PIVOT)) return false;
  }
  return true;
}

// A plain factor if the matrix is definite; otherwise one with pivoting, which stops where nothing
// positive is left.
static void factor_packed(MINSTR* str, ReducedHessian& reduced) {
  double logdet = 0.0;
  const long order = reduced.order;
  const double least = str->lincon != 0 ? ROTATION_ROUNDING * reduced.size : 0.0;
  project(str, str->half);
  reduced.updatable =
      znlpcde(str, CHOLESKY, order, least, &logdet, str->half, str->half, nullptr) == 0 &&
      all_pivots_clear(str, order);
  reduced.nosi = order;
  if (reduced.updatable) return;
  project(str, str->half);
  const long failed =
      znlpcde(str, PIVOTED, order, weak_limit(reduced), &logdet, str->half, nullptr, nullptr);
  if (failed != 0) reduced.nosi = failed - 1;
}

// Sorts the places into strong and weak ones.
template <class IsStrong>
static void sort_places(MINSTR* str, ReducedHessian& reduced, IsStrong is_strong) {
  long strong = 0;
  long weak = reduced.order;
  for (long k = reduced.order - 1; k >= 0; --k) {
    if (!is_strong(k)) str->ipiv[--weak] = k;
  }
  for (long k = 0; k < reduced.order; ++k) {
    if (is_strong(k)) str->ipiv[strong++] = k;
  }
  reduced.nosi = strong;
}

// A row that fails is cleared, and the others are the factor of the matrix without it. Diagonals of
// the factor are reciprocals, 0 in a cleared row.
static void factor_sparse(MINSTR* str, ReducedHessian& reduced) {
  const SPAR& s = str->shes;
  const bool bounds = str->bounds != 0;
  const double* factor = str->half;
  double logdet = 0.0;
  if (bounds) project(str, str->hpro);
  znlpcde(str, bounds ? SPARSE_FREE : SPARSE, reduced.order, weak_limit(reduced), &logdet,
          bounds ? str->hpro : str->hess, str->half, nullptr);
  const long* place = bounds ? s.jusl + s.jusl[reduced.order] : s.perm;
  sort_places(str, reduced, [factor, place](long k) { return factor[place[k]] != 0.0; });
}

// Here every place is a matrix of its own, and only a value that is not positive is weak.
static void factor_diagonal(MINSTR* str, ReducedHessian& reduced) {
  znlpvre(str, str->hess, str->half);
  const double* d = str->half;
  sort_places(str, reduced, [d](long k) { return d[k] > TINY; });
}

void newchol(MINSTR* str, ReducedHessian& reduced) {
  reduced.order = reduced.nosi = reduced_dimension(str);
  reduced.current = true;
  reduced.updatable = false;
  reduced.inertia = Inertia::semidefinite;
  str->null = 0;
  if (reduced.order < 1) return;
  switch (reduced.form) {
    case Form::packed:
      factor_packed(str, reduced);
      break;
    case Form::sparse:
      factor_sparse(str, reduced);
      break;
    case Form::diagonal:
      factor_diagonal(str, reduced);
      break;
  }
  if (reduced.nosi < reduced.order) reduced.inertia = Inertia::unknown;
  str->null = reduced.nosi < reduced.order ? 1 : 0;
}

// b := solution on the strong part, 0 at the weak places.
static void solve_strong(MINSTR* str, const ReducedHessian& reduced, double* b) {
  const SPAR& s = str->shes;
  const long order = reduced.order;
  for (long k = reduced.nosi; k < order; ++k) b[str->ipiv[k]] = 0.0;
  switch (reduced.form) {
    case Form::packed:
      if (!reduced.updatable) znlpprm(0, order, str->ipiv, b);
      znlpcso(str, CHOLESKY, reduced.nosi, str->half, b);
      if (!reduced.updatable) znlpprm(1, order, str->ipiv, b);
      break;
    case Form::sparse:
      if (str->bounds != 0) {
        zsllts2(order, s.perm, s.jusl, s.jusp, str->half, b);
      } else {
        zslltso(order, s.perm, s.jusp, str->half, b);
      }
      break;
    case Form::diagonal:
      for (long k = 0; k < reduced.nosi; ++k) b[str->ipiv[k]] /= str->half[str->ipiv[k]];
      break;
  }
}

// ---- Curvature of the weak places ---------------------------------------------------------------

// d := the extension of weak components t (0 elsewhere, in weak_room) that leaves no curvature
// between strong and weak part; out := Z'HZ d, which at the weak places is S t.
static void extend_weak(MINSTR* str, const ReducedHessian& reduced, double* d, double* out) {
  const double* t = weak_room(str);
  multiply_reduced(str, t, out);
  for (long k = 0; k < reduced.order; ++k) d[k] = -out[k];
  solve_strong(str, reduced, d);
  for (long k = 0; k < reduced.order; ++k) d[k] += t[k];
  multiply_reduced(str, d, out);
}

static void unit_weak(MINSTR* str, const ReducedHessian& reduced, long place) {
  vzfdl(0.0, weak_room(str), reduced.order);
  weak_room(str)[place] = 1.0;
}

// The weak place where |v| is largest, other than `but`.
static long largest_weak(const MINSTR* str, const ReducedHessian& reduced, const double* v,
                         long but) {
  long best = -1;
  for (long k = reduced.nosi; k < reduced.order; ++k) {
    const long place = str->ipiv[k];
    if (place != but && (best < 0 || std::fabs(v[place]) > std::fabs(v[best]))) best = place;
  }
  return best;
}

static double flat_limit(const ReducedHessian& reduced, const double* d) {
  return FLAT * reduced.size * std::max(1.0, zvamx(reduced.order, d));
}

// Signs that follow no pattern of the user's matrix.
static void random_weak(MINSTR* str, const ReducedHessian& reduced) {
  unsigned state = 2463534242U;
  vzfdl(0.0, weak_room(str), reduced.order);
  for (long k = reduced.nosi; k < reduced.order; ++k) {
    state = state * 1664525U + 1013904223U;
    const double share = 0.5 + 0.5 * static_cast<double>(state >> 16U) / 65536.0;
    weak_room(str)[str->ipiv[k]] = (state & 0x8000U) != 0 ? share : -share;
  }
}

// Is S zero? One product with random components tells, since a matrix that is not zero makes zero
// of hardly any vector. If it is not, a diagonal element that is negative, or a pair of places with
// an element between them, has negative curvature, because no diagonal element is positive.
static void find_inertia(MINSTR* str, ReducedHessian& reduced) {
  double* d = str->spro;
  double* out = reduced_room(str);
  reduced.inertia = Inertia::semidefinite;
  random_weak(str, reduced);
  extend_weak(str, reduced, d, out);
  const long first = largest_weak(str, reduced, out, -1);
  if (!(std::fabs(out[first]) > flat_limit(reduced, d))) return;
  unit_weak(str, reduced, first);
  extend_weak(str, reduced, d, out);
  const double limit = flat_limit(reduced, d);
  const long second = largest_weak(str, reduced, out, first);
  reduced.first = first;
  reduced.second = -1;
  reduced.other = 0.0;
  const bool diagonal = out[first] < -limit;
  if (second >= 0 && std::fabs(out[second]) > (diagonal ? std::fabs(out[first]) : limit)) {
    reduced.second = second;
    reduced.other = out[second] > 0.0 ? -1.0 : 1.0;
  } else if (!diagonal) {
    return;
  }
  reduced.inertia = Inertia::indefinite;
}

// ---- Directions ---------------------------------------------------------------------------------

static double curvature(const ReducedHessian& reduced, const double* d, const double* product) {
  return zvdot11(reduced.order, d, product);
}

// Points the direction downhill.
static void turn_down(const ReducedHessian& reduced, const double* rg, double* d) {
  if (zvdot11(reduced.order, rg, d) > 0.0) zvscl11(reduced.order, d, -1.0);
}

static bool negative_course(MINSTR* str, ReducedHessian& reduced, const double* rg) {
  unit_weak(str, reduced, reduced.first);
  if (reduced.second >= 0) weak_room(str)[reduced.second] = reduced.other;
  extend_weak(str, reduced, str->spro, reduced_room(str));
  const double length = zvenorm(reduced.order, 1, str->spro);
  const double found = curvature(reduced, str->spro, reduced_room(str));
  if (!(found < -EPS * reduced.size * length * length)) return false;
  turn_down(reduced, rg, str->spro);
  return true;
}

// Newton step on the strong part. Where its residual at the weak places is more than rounding, the
// direction of zero curvature down that residual takes its place.
static Course semidefinite_course(MINSTR* str, const ReducedHessian& reduced, const double* rg,
                                  double gradient_size) {
  const long order = reduced.order;
  double* residual = reduced_room(str);
  double* t = weak_room(str);
  for (long k = 0; k < order; ++k) str->spro[k] = -rg[k];
  solve_strong(str, reduced, str->spro);
  if (reduced.nosi == order) return Course::newton;
  multiply_reduced(str, str->spro, residual);
  vzfdl(0.0, t, order);
  for (long k = reduced.nosi; k < order; ++k) {
    const long place = str->ipiv[k];
    t[place] = -(residual[place] + rg[place]);
  }
  const double largest = zvamx(order, t);
  if (!(largest > TINY)) return Course::newton;
  zvscl11(order, t, 1.0 / largest);
  double* newton = str->sdir;
  std::copy_n(str->spro, order, newton);
  extend_weak(str, reduced, str->spro, residual);
  const double slope = zvdot11(order, rg, str->spro);
  if (slope < -CLEAR_SLOPE * gradient_size * zvamx(order, str->spro)) return Course::straight;
  std::copy_n(newton, order, str->spro);
  return Course::newton;
}

Course find_course(MINSTR* str, ReducedHessian& reduced, const double* rg, double gradient_size) {
  if (!reduced.current) newchol(str, reduced);
  vzfdl(0.0, str->sdir, str->nvar);
  if (reduced.order < 1) return Course::none;
  if (reduced.inertia == Inertia::unknown) find_inertia(str, reduced);
  Course course = Course::negative;
  if (reduced.inertia != Inertia::indefinite || !negative_course(str, reduced, rg)) {
    course = semidefinite_course(str, reduced, rg, gradient_size);
  }
  znlpvex(str, str->spro, str->sdir);
  return course;
}

}  // namespace tqnlp
