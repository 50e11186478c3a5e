// znlpqas, the reduced Hessian: its factorization in the three storage forms, and the directions of
// Newton, of zero and of negative curvature that it gives. Contracts in znlpqas_factor.h.
//
// Reference  Gill and Murray (1978), Numerically stable methods for quadratic programming,
//            Mathematical Programming 14, for curvature in the null space; Higham, Accuracy and
//            Stability (2002), section 10.3, for the semidefinite factor with diagonal pivoting
//            Ruiz (2001), RAL-TR-2001-034, for the scale
// Work       wrk2 behind spro: expanded vector | product | reduced product | direction | scaled
//            reduced gradient (n each)
// Scale      H(i,j) is at most scale[i] scale[j], whatever units the parameters have, and what is
//            rounding is judged on the matrix scaled so. Scales are powers of two: they cost no
//            digit.
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

// Rounding of a matrix whose elements are at most 1, as those of the scaled matrix are.
static constexpr double WEAK_PIVOT = 1e-11;  // least pivot that is more
static constexpr double FLAT = 1e-11;        // least element of S, of the direction that made it
// Without pivoting eigenvalues may lie far below the smallest pivot. A plain factor is trusted
// where all pivots are more than this share of what they were before elimination.
static constexpr double TRUSTED_PIVOT = 1e-8;
// A slope along zero curvature must exceed this share of what it is the sum of.
static constexpr double CLEAR_SLOPE = 1e-9;

static constexpr int EQUILIBRATIONS = 8;
static constexpr double LARGEST_SCALE = 0x1p300;

// Factorization jobs.
static constexpr int CHOLESKY = 2;
static constexpr int PIVOTED = 4;
static constexpr int SPARSE = 6;
static constexpr int SPARSE_FREE = 7;

static double* expanded_room(const MINSTR* str) { return str->wrk2 + str->nvar; }
static double* product_room(const MINSTR* str) { return str->wrk2 + 2 * str->nvar; }
static double* reduced_room(const MINSTR* str) { return str->wrk2 + 3 * str->nvar; }
static double* weak_room(const MINSTR* str) { return str->wrk2 + 4 * str->nvar; }
static double* gradient_room(const MINSTR* str) { return str->wrk2 + 5 * str->nvar; }

// ---- The matrix ---------------------------------------------------------------------------------

// Calls visit(i, j, element) for every stored element of H, j <= i; visit may change it.
template <class Visit>
static void visit_elements(MINSTR* str, Visit visit) {
  const long n = str->nvar;
  for (long i = 0; i < n; ++i) {
    if (str->hfrm == 0) {
      double* row = str->hess + packed_size(i);
      for (long j = 0; j <= i; ++j) visit(i, j, row[j]);
      continue;
    }
    visit(i, i, str->hess[i]);
    const long* ja = str->shes.jasp;
    for (long p = str->hfrm == 1 ? ja[i] : 0; str->hfrm == 1 && p < ja[i + 1]; ++p) {
      visit(i, ja[p], str->hess[p]);
    }
  }
}

static double power_of_two(double size) {
  if (!(size > 0.0)) return 1.0;
  return std::exp2(std::round(std::log2(std::clamp(size, 1.0 / LARGEST_SCALE, LARGEST_SCALE))));
}

// Each row of H(i,j) / (scale[i] scale[j]) gets its largest element near 1, by Ruiz's method: the
// scale of a row takes a share of what its largest element still is, again and again.
void measure_hessian(MINSTR* str, ReducedHessian& reduced) {
  const long n = str->nvar;
  double* scale = reduced.scale;
  double* largest = weak_room(str);
  reduced.form = str->lincon != 0 ? Form::packed : static_cast<Form>(str->hfrm);
  std::fill_n(scale, n, 1.0);
  for (int k = 0; k < EQUILIBRATIONS; ++k) {
    vzfdl(0.0, largest, n);
    visit_elements(str, [=](long i, long j, double& h) {
      const double size = std::fabs(h) / scale[i] / scale[j];
      largest[i] = std::max(largest[i], size);
      largest[j] = std::max(largest[j], size);
    });
    for (long i = 0; i < n; ++i) {
      if (largest[i] > 0.0) scale[i] *= std::sqrt(largest[i]);
    }
  }
  for (long i = 0; i < n; ++i) scale[i] = power_of_two(scale[i]);
}

double scaled_length(long n, const double* scale, const double* d) {
  double largest = 0.0;
  for (long i = 0; i < n; ++i) largest = std::max(largest, std::fabs(scale[i] * d[i]));
  if (!(largest > 0.0)) return 0.0;
  double sum = 0.0;
  for (long i = 0; i < n; ++i) {
    const double share = scale[i] * d[i] / largest;
    sum += share * share;
  }
  return largest * std::sqrt(sum);
}

void multiply_hessian(MINSTR* str, const double* d, double* product) {
  znlpmul(str, str->hfrm, str->nvar, nullptr, str->hess, d, product);
}

// Unit of each reduced variable: with rows in the working set its direction mixes scales.
static void find_units(MINSTR* str, ReducedHessian& reduced) {
  const Frame frame = frame_of(str);
  double* unit = reduced.unit;
  if (frame == Frame::identity) {
    std::copy_n(reduced.scale, reduced.order, unit);
  } else if (frame == Frame::permuted) {
    for (long k = 0; k < reduced.order; ++k) unit[k] = reduced.scale[str->ifxr[k]];
  } else {
    vzfdl(0.0, unit, reduced.order);
    for (long l = 0; l < free_count(str); ++l) {
      const double scale = reduced.scale[str->ifxr[l]];
      const double* row = str->qlcn + l * str->nvar;
      for (long k = 0; k < reduced.order; ++k) unit[k] += scale * std::fabs(row[k]);
    }
    for (long k = 0; k < reduced.order; ++k) unit[k] = power_of_two(unit[k]);
  }
}

// out := Z'HZ s in scaled variables. out must not overlap s.
static void multiply_reduced(MINSTR* str, const ReducedHessian& reduced, const double* s,
                             double* out) {
  double* unscaled = product_room(str);
  for (long k = 0; k < reduced.order; ++k) unscaled[k] = s[k] / reduced.unit[k];
  znlpvex(str, unscaled, expanded_room(str));
  multiply_hessian(str, expanded_room(str), product_room(str));
  znlpvre(str, product_room(str), out);
  for (long k = 0; k < reduced.order; ++k) out[k] /= reduced.unit[k];
}

// ---- Factorization ------------------------------------------------------------------------------

static double weak_limit(const ReducedHessian& reduced) {
  return std::max(10.0 * EPS * static_cast<double>(reduced.order), WEAK_PIVOT);
}

static void project(MINSTR* str, double* target) {
  znlphpr(str, 1, 0, str->hfrm, reduced_room(str), str->hess, target);
}

bool pivot_is_clear(const double* factor, long i, double share) {
  const double* row = factor + packed_size(i);
  const double length = zvenorm(i + 1, 1, row);
  return row[i] * row[i] > share * length * length;
}

static bool all_pivots_clear(const MINSTR* str, const ReducedHessian& reduced) {
  for (long i = 0; i < reduced.order; ++i) {
    const double pivot = str->half[packed_size(i) + i] / reduced.unit[i];
    if (!(pivot * pivot > WEAK_PIVOT) || !pivot_is_clear(str->half, i, TRUSTED_PIVOT)) return false;
  }
  return true;
}

// A plain factor if the matrix is clearly definite; otherwise one of the scaled matrix with
// pivoting, which stops where nothing positive is left.
static void factor_packed(MINSTR* str, ReducedHessian& reduced) {
  double logdet = 0.0;
  const long order = reduced.order;
  project(str, str->half);
  reduced.updatable =
      znlpcde(str, CHOLESKY, order, 0.0, &logdet, str->half, str->half, nullptr) == 0 &&
      all_pivots_clear(str, reduced);
  reduced.nosi = order;
  if (reduced.updatable) {
    std::fill_n(reduced.unit, str->nvar, 1.0);  // the order may grow
    return;
  }
  project(str, str->half);
  for (long i = 0; i < order; ++i) {
    double* row = str->half + packed_size(i);
    for (long j = 0; j <= i; ++j) row[j] /= reduced.unit[i] * reduced.unit[j];
  }
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
// the factor are reciprocals, 0 in a cleared row. Without bounds the matrix itself is scaled, which
// powers of two undo without rounding.
static void factor_sparse(MINSTR* str, ReducedHessian& reduced) {
  const SPAR& s = str->shes;
  const bool bounds = str->bounds != 0;
  const double* unit = reduced.unit;
  const double* factor = str->half;
  double logdet = 0.0;
  if (bounds) {
    project(str, str->hpro);
    for (long i = 0; i < reduced.order; ++i) {
      str->hpro[i] /= unit[i] * unit[i];
      for (long p = s.jasl[i]; p < s.jasl[i + 1]; ++p) str->hpro[p] /= unit[i] * unit[s.jasl[p]];
    }
  } else {
    visit_elements(str, [=](long i, long j, double& h) { h /= unit[i] * unit[j]; });
  }
  znlpcde(str, bounds ? SPARSE_FREE : SPARSE, reduced.order, weak_limit(reduced), &logdet,
          bounds ? str->hpro : str->hess, str->half, nullptr);
  if (!bounds) visit_elements(str, [=](long i, long j, double& h) { h *= unit[i] * unit[j]; });
  const long* place = bounds ? s.jusl + s.jusl[reduced.order] : s.perm;
  sort_places(str, reduced, [factor, place](long k) { return factor[place[k]] != 0.0; });
}

// Here every place is a matrix of its own, and only a value that is not positive is weak.
static void factor_diagonal(MINSTR* str, ReducedHessian& reduced) {
  znlpvre(str, str->hess, str->half);
  double* d = str->half;
  for (long k = 0; k < reduced.order; ++k) d[k] /= reduced.unit[k] * reduced.unit[k];
  sort_places(str, reduced, [d](long k) { return d[k] > TINY; });
}

void newchol(MINSTR* str, ReducedHessian& reduced) {
  reduced.order = reduced.nosi = reduced_dimension(str);
  reduced.current = true;
  reduced.updatable = false;
  reduced.inertia = Inertia::semidefinite;
  str->null = 0;
  if (reduced.order < 1) return;
  find_units(str, reduced);
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

// b := solution on the strong part, 0 at the weak places, in scaled variables.
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
  multiply_reduced(str, reduced, t, out);
  for (long k = 0; k < reduced.order; ++k) d[k] = -out[k];
  solve_strong(str, reduced, d);
  for (long k = 0; k < reduced.order; ++k) d[k] += t[k];
  multiply_reduced(str, reduced, d, out);
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
  return FLAT * std::max(1.0, zvamx(reduced.order, d));
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
  if (!(found < -EPS * length * length)) return false;
  turn_down(reduced, rg, str->spro);
  return true;
}

// What the slope along the direction in spro is the sum of.
static double slope_size(MINSTR* str, const ReducedHessian& reduced, const double* sizes) {
  double* unscaled = product_room(str);
  for (long k = 0; k < reduced.order; ++k) unscaled[k] = str->spro[k] / reduced.unit[k];
  znlpvex(str, unscaled, expanded_room(str));
  return scaled_length(str->nvar, sizes, expanded_room(str));
}

// Newton step on the strong part. Where its residual at the weak places is more than rounding, the
// direction of zero curvature down that residual takes its place.
static Course semidefinite_course(MINSTR* str, const ReducedHessian& reduced, const double* rg,
                                  const double* sizes) {
  const long order = reduced.order;
  double* residual = reduced_room(str);
  double* t = weak_room(str);
  for (long k = 0; k < order; ++k) str->spro[k] = -rg[k];
  solve_strong(str, reduced, str->spro);
  if (reduced.nosi == order) return Course::newton;
  multiply_reduced(str, reduced, str->spro, residual);
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
  if (slope < -CLEAR_SLOPE * slope_size(str, reduced, sizes)) return Course::straight;
  std::copy_n(newton, order, str->spro);
  return Course::newton;
}

Course find_course(MINSTR* str, ReducedHessian& reduced, const double* rg, const double* sizes) {
  if (!reduced.current) newchol(str, reduced);
  vzfdl(0.0, str->sdir, str->nvar);
  if (reduced.order < 1) return Course::none;
  if (reduced.inertia == Inertia::unknown) find_inertia(str, reduced);
  double* scaled = gradient_room(str);
  for (long k = 0; k < reduced.order; ++k) scaled[k] = rg[k] / reduced.unit[k];
  Course course = Course::negative;
  if (reduced.inertia != Inertia::indefinite || !negative_course(str, reduced, scaled)) {
    course = semidefinite_course(str, reduced, scaled, sizes);
  }
  for (long k = 0; k < reduced.order; ++k) str->spro[k] /= reduced.unit[k];
  znlpvex(str, str->spro, str->sdir);
  return course;
}

}  // namespace tqnlp
