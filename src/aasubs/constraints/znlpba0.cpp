// znlpba0: BAse operators, group 0: projections of vectors between the space of all parameters and
// the reduced space of the working set.
//
// The active general constraints stand as A Q = (0 T) on the free parameters, and the first nzmm
// columns of Q are an orthonormal basis Z of their null space. A reduced vector holds coordinates
// in Z (full frame), the free parameters in the order of ifxr (permuted frame), or simply all
// parameters (identity frame). See Gill, Murray and Wright, Practical Optimization (1981), section
// 5.1, for reduced gradients, Newton steps and multipliers on such a basis.
//
// Layout: qlcn is n by n with stride n and only its leading nfre by nfre part is in use, so that a
// projection walks nfre contiguous pieces of nzmm doubles, once.

#include "aasubs/constraints/znlpba0.h"

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba1.h"
#include "host/process.h"
#include "kernels/vector.h"

namespace tqnlp {

// A direction longer than this is cut to unit length before its first constraint is looked for.
static constexpr double LONG_DIRECTION = 10.0;

Frame frame_of(const MINSTR* str) {
  if (str->lincon != 0 && (uses_full_frame(str->tech) || str->nalc > 0)) {
    if (str->opro == 2) xexit(EXIT_INCONSISTENT, 0);
    return Frame::full;
  }
  return str->lincon != 0 || str->bounds != 0 ? Frame::permuted : Frame::identity;
}

// ---- Reduce and expand --------------------------------------------------------------------------

// p := projection of v. In the full frame Z'v is gathered row by row of Q, which is contiguous,
// where a column would be walked at stride n.
static void reduce(const MINSTR* str, Frame frame, const double* v, double* p) {
  const long n = str->nvar;
  const long free = free_count(str);
  switch (frame) {
    case Frame::full: {
      const long order = reduced_dimension(str);
      vzfdl(0.0, p, order);
      for (long l = 0; l < free; ++l) zvxay11(order, p, v[str->ifxr[l]], str->qlcn + l * n);
      break;
    }
    case Frame::permuted:
      for (long k = 0; k < free; ++k) p[k] = v[str->ifxr[k]];
      break;
    case Frame::identity:
      std::copy_n(v, n, p);
      break;
  }
}

void znlpvre(MINSTR* str, const double* sdir, double* spro) {
  if (reduced_dimension(str) < 1) return;
  reduce(str, frame_of(str), sdir, spro);
}

void znlpvex(MINSTR* str, const double* spro, double* sdir) {
  const long n = str->nvar;
  const long free = free_count(str);
  const long order = reduced_dimension(str);
  if (order < 1) return;
  switch (frame_of(str)) {
    case Frame::full:
      vzfdl(0.0, sdir, n);
      for (long l = 0; l < free; ++l) {
        sdir[str->ifxr[l]] = zvdot11(order, str->qlcn + l * n, spro);
      }
      break;
    case Frame::permuted:
      vzfdl(0.0, sdir, n);
      for (long k = 0; k < free; ++k) sdir[str->ifxr[k]] = spro[k];
      break;
    case Frame::identity:
      std::copy_n(spro, n, sdir);
      break;
  }
}

// ---- Gradient -----------------------------------------------------------------------------------

void znlpgcs(MINSTR* str, double* gpro) {
  if (free_count(str) < 1) return;
  reduce(str, frame_of(str), str->grad, gpro);
}

double largest_or_nan(long n, const double* v) {
  // Eight candidates side by side; a NaN is taken, and stays because nothing is larger than it.
  static constexpr long WIDTH = 8;
  double largest[WIDTH] = {};
  const auto look = [&largest](double value, long k) {
    const double size = std::fabs(value);
    largest[k] = ((size > largest[k]) | (size != size)) ? size : largest[k];
  };
  long i = 0;
  for (; i + WIDTH <= n; i += WIDTH) {
    for (long k = 0; k < WIDTH; ++k) look(v[i + k], k);
  }
  for (; i < n; ++i) look(v[i], 0);
  for (long k = 1; k < WIDTH && n >= WIDTH; ++k) look(largest[k], 0);
  return largest[0];
}

void znlpgmx(MINSTR* str, int job, double* gpro) {
  const Frame frame = frame_of(str);
  const long free = free_count(str);
  double* target = job == 0 ? str->gpro : gpro;
  str->gmax = 0.0;
  if (free < 1) return;
  if (frame == Frame::identity && job == 0) {
    str->gmax = largest_or_nan(str->nvar, str->grad);
    return;
  }
  // A run with bounds alone has no array for the projected gradient.
  if (frame == Frame::permuted && target == nullptr) {
    for (long k = 0; k < free && !std::isnan(str->gmax); ++k) {
      const double size = std::fabs(str->grad[str->ifxr[k]]);
      if (!(size <= str->gmax)) str->gmax = size;
    }
    return;
  }
  reduce(str, frame, str->grad, target);
  const long order = frame == Frame::full       ? reduced_dimension(str)
                     : frame == Frame::permuted ? free
                                                : str->nvar;
  str->gmax = largest_or_nan(order, target);
}

int znlptcs(MINSTR* str, double* gpro, long* icon, long* iwk) {
  const long n = str->nvar;
  double* direction = str->work;
  *icon = -1;
  vzfdl(0.0, direction, n);
  znlpvex(str, gpro, direction);
  const double norm = zvenorm(n, 1, direction);
  // A long direction would drown the components that decide, in the relative test for movement.
  const double factor = norm > LONG_DIRECTION ? -1.0 / norm : -1.0;
  zvscl11(n, direction, factor);
  return znlpstl(str, 1, 0, 0, str->x, direction, icon, iwk);
}

// ---- Slopes -------------------------------------------------------------------------------------

// a b, or 0 where the product would underflow. Most products are so large that they need no test.
static double guarded_product(double a, double b) {
  static constexpr double SURELY_LARGE = 1e-300;  // far above the square of the guard
  const double product = a * b;
  if (std::fabs(product) >= SURELY_LARGE) return product;
  const double larger = std::max(std::fabs(a), std::fabs(b));
  if (larger < ROOT_TINY_GUARD) return 0.0;
  if (larger <= 1.0 && std::fabs(a / ROOT_TINY_GUARD * b) < ROOT_TINY_GUARD) return 0.0;
  return product;
}

// Long vectors are bound by memory, and take the sum of all products if it is so large that what
// the guard makes zero is nothing beside it.
double dotprd(long n, const double* x, const double* y) {
  static constexpr long LONG_VECTOR = 256;
  static constexpr double SURELY_LARGE_SUM = 1e-270;
  double sum = n < LONG_VECTOR ? 0.0 : zvdot11(n, x, y);
  if (std::fabs(sum) >= SURELY_LARGE_SUM) return sum;
  sum = 0.0;
  for (long i = 0; i < n; ++i) sum += guarded_product(x[i], y[i]);
  return sum;
}

double znlpgs(MINSTR* str, const double* spro, const double* gpro, const double* sdir,
              const double* grad) {
  const long order = reduced_dimension(str);
  if (order < 1) return 0.0;
  // With linear constraints the short product is the same number, and cheaper.
  if (str->lincon != 0) return dotprd(order, spro, gpro);
  if (str->bounds == 0) return dotprd(str->nvar, sdir, grad);
  double slope = 0.0;
  for (long k = 0; k < free_count(str); ++k) {
    slope += guarded_product(sdir[str->ifxr[k]], grad[str->ifxr[k]]);
  }
  return slope;
}

// ---- Steps in full and reduced form -------------------------------------------------------------

void znlpscd(MINSTR* str, double* spro) {
  if (str->hesc == 0) return;
  for (long k = 0; k < reduced_dimension(str); ++k) spro[k] /= component_scale(str, k);
}

// Moves components whose target reaches a bound, within tolerance or beyond, onto that bound. Where
// both bounds are met the lower one, which is tested first, has it. Techniques that take full steps
// stay inside the box by this alone.
static void snap_to_bounds(const MINSTR* str, double* spro) {
  const double eps = feasibility_tolerance(str, str->ipre);
  for (long k = 0; k < free_count(str); ++k) {
    const long j = str->ifxr[k];
    const double lb = str->lb[j];
    const double ub = str->ub[j];
    const double target = str->xold[j] + spro[k];
    if (lower_exists(lb) && target <= lb + (std::fabs(lb) + 1.0) * eps) {
      spro[k] = lb - str->xold[j];
    } else if (upper_exists(ub) && target >= ub - (std::fabs(ub) + 1.0) * eps) {
      spro[k] = ub - str->xold[j];
    }
  }
}

// Sum of step times reduced gradient, each frame with the gradient that it keeps.
static double reduced_slope(const MINSTR* str, const double* spro) {
  const long order = reduced_dimension(str);
  if (str->lincon != 0) return zvdot11(order, spro, str->gpro);
  if (str->bounds != 0) return zvdots1(order, str->ifxr, str->grad, spro);
  return zvdot11(str->nvar, spro, str->grad);
}

// Length of the reduced step, scaled when hesc is set; scratch takes the scaled copy.
static double reduced_length(MINSTR* str, const double* spro, double* scratch) {
  const long order = reduced_dimension(str);
  if (str->hesc == 0) return zvenorm(order, 1, spro);
  for (long k = 0; k < order; ++k) scratch[k] = component_scale(str, k) * spro[k];
  return zvenorm(order, 1, scratch);
}

double znlpsp2(MINSTR* str, int job, double* spro, double* sdir) {
  if (reduced_dimension(str) < 1) return 0.0;
  if (str->lincon == 0 && str->bounds != 0) snap_to_bounds(str, spro);
  // The target sdir is free until the expansion, and serves as scratch.
  double result = 0.0;
  if (job == 1) result = reduced_length(str, spro, sdir);
  if (job == 2) result = -0.5 * reduced_slope(str, spro);
  znlpvex(str, spro, sdir);
  return result;
}

}  // namespace tqnlp
