// The quadratic model at a point, in the null space of its active constraints.
//
// Method     Z is an orthonormal basis of the directions that leave active bounds and constraints
//            alone, by Householder reflections. M = Z'HZ, with its rows and columns scaled to a
//            diagonal of ones, is factored by Cholesky with diagonal pivoting until the largest
//            pivot is at the noise of a Hessian of differences. The factor gives half the squared
//            Newton decrement g'H^-1 g / 2, which is what the model decreases, whatever the units
//            of the parameters are. In what is left of M a negative diagonal element, or an element
//            beside a zero diagonal, shows a direction of negative curvature.
// Reference  Gill, Murray and Wright (1981), Practical Optimization, sections 3.3 and 4.4.2; Boyd
//            and Vandenberghe (2004), Convex Optimization, section 9.5
#include "aasubs/post/second_order.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "aasubs/record/constants.h"
#include "aasubs/record/packed.h"
#include "host/memory.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr double ZERO_PIVOT = 1e-8;    // of a matrix with a diagonal of ones
static constexpr double CLEARLY_DOWN = 1e-4;  // in the same
static constexpr double DEPENDENT = 1e-8;     // length that is left of a unit normal
static constexpr double MODERATE_STEP = 1e3;

namespace {

struct Work {
  long n = 0;     // parameters
  long free = 0;  // of these not fixed
  long k = 0;     // independent normals
  long m = 0;     // columns of z
  double* block = nullptr;
  double* v = nullptr;      // rows x n; Householder vectors, on the free parameters
  double* z = nullptr;      // n x n; column i of the basis at z + i n, all parameters
  double* hz = nullptr;     // n; H times a column
  double* a = nullptr;      // m x m by rows; M, then its factor
  double* scale = nullptr;  // m; 1 / root of the diagonal
  double* b = nullptr;      // m; Z'rest scaled, then the forward solution
  double* p = nullptr;      // m; solution
  long* longs = nullptr;
  long* place = nullptr;  // n; the free parameters
  long* order = nullptr;  // m; pivots
  long rank = 0;
};

}  // namespace

static bool take_work(Work& w, long n, long rows) {
  w.n = n;
  const long doubles = rows * n + 2 * n * n + 4 * n;
  w.block =
      static_cast<double*>(vmalloc_handler(static_cast<std::size_t>(doubles) * sizeof(double), 0));
  w.longs = static_cast<long*>(vmalloc_handler(static_cast<std::size_t>(2 * n) * sizeof(long), 0));
  if (w.block == nullptr || w.longs == nullptr) return false;
  double* next = w.block;
  const auto take = [&next](long count) { return std::exchange(next, next + count); };
  w.v = take(rows * n);
  w.z = take(n * n);
  w.a = take(n * n);
  w.hz = take(n);
  w.scale = take(n);
  w.b = take(n);
  w.p = take(n);
  w.place = w.longs;
  w.order = w.longs + n;
  return true;
}

// ---- The null space -----------------------------------------------------------------------------

static void reflect(const double* v, long count, double* x) {
  zvxay11(count, x, -2.0 * zvdot11(count, v, x), v);
}

// Householder vectors that turn the normals, one after the other, onto the first axes.
static void reduce_normals(const SecondOrder& point, Work& w) {
  for (long i = 0; i < point.rows && w.k < w.free; ++i) {
    double* v = w.v + w.k * w.n;
    for (long f = 0; f < w.free; ++f) v[f] = point.normals[i * w.n + w.place[f]];
    const double length = std::sqrt(zvdot11(w.free, v, v));
    for (long q = 0; q < w.k; ++q) reflect(w.v + q * w.n, w.free, v);
    std::fill_n(v, w.k, 0.0);
    const double left = std::sqrt(zvdot11(w.free, v, v));
    if (!(left > DEPENDENT * length)) continue;
    v[w.k] += v[w.k] < 0.0 ? -left : left;
    const double norm = std::sqrt(zvdot11(w.free, v, v));
    for (long f = 0; f < w.free; ++f) v[f] /= norm;
    ++w.k;
  }
}

// The other axes, turned back.
static void make_basis(Work& w) {
  w.m = w.free - w.k;
  for (long i = 0; i < w.m; ++i) {
    double* on_free = w.hz;
    std::fill_n(on_free, w.free, 0.0);
    on_free[w.k + i] = 1.0;
    for (long q = w.k - 1; q >= 0; --q) reflect(w.v + q * w.n, w.free, on_free);
    double* column = w.z + i * w.n;
    std::fill_n(column, w.n, 0.0);
    for (long f = 0; f < w.free; ++f) column[w.place[f]] = on_free[f];
  }
}

static void multiply(const double* packed, long n, const double* x, double* y) {
  std::fill_n(y, n, 0.0);
  for (long i = 0; i < n; ++i) {
    const double* row = packed + packed_size(i);
    y[i] += zvdot11(i + 1, row, x);
    for (long j = 0; j < i; ++j) y[j] += row[j] * x[i];
  }
}

static void project(const SecondOrder& point, Work& w) {
  for (long i = 0; i < w.m; ++i) {
    multiply(point.hessian, w.n, w.z + i * w.n, w.hz);
    for (long j = 0; j <= i; ++j)
      w.a[i * w.m + j] = w.a[j * w.m + i] = zvdot11(w.n, w.hz, w.z + j * w.n);
    w.b[i] = zvdot11(w.n, point.rest, w.z + i * w.n);
  }
  // A diagonal that is zero beside the other elements of its row is scaled by these.
  for (long i = 0; i < w.m; ++i) {
    const double largest = zvamx(w.m, w.a + i * w.m), own = std::fabs(w.a[i * w.m + i]);
    const double size = std::max(own, ZERO_PIVOT * largest);
    w.scale[i] = size > TINY ? 1.0 / std::sqrt(size) : 1.0;
    w.order[i] = i;
  }
  for (long i = 0; i < w.m; ++i) {
    for (long j = 0; j < w.m; ++j) w.a[i * w.m + j] *= w.scale[i] * w.scale[j];
    w.b[i] *= w.scale[i];
  }
}

// ---- The factor ---------------------------------------------------------------------------------

static void swap_pivots(Work& w, long i, long j) {
  if (i == j) return;
  for (long c = 0; c < w.m; ++c) std::swap(w.a[i * w.m + c], w.a[j * w.m + c]);
  for (long r = 0; r < w.m; ++r) std::swap(w.a[r * w.m + i], w.a[r * w.m + j]);
  std::swap(w.b[i], w.b[j]);
  std::swap(w.scale[i], w.scale[j]);
  std::swap(w.order[i], w.order[j]);
}

// The lower triangle by rows becomes L in its first rank columns, and behind them what is left.
static void factor(Work& w) {
  for (w.rank = 0; w.rank < w.m; ++w.rank) {
    const long k = w.rank;
    long largest = k;
    for (long i = k; i < w.m; ++i)
      if (w.a[i * w.m + i] > w.a[largest * w.m + largest]) largest = i;
    if (!(w.a[largest * w.m + largest] > ZERO_PIVOT)) return;
    swap_pivots(w, k, largest);
    const double pivot = std::sqrt(w.a[k * w.m + k]);
    w.a[k * w.m + k] = pivot;
    for (long i = k + 1; i < w.m; ++i) w.a[i * w.m + k] /= pivot;
    for (long i = k + 1; i < w.m; ++i)
      for (long j = k + 1; j <= i; ++j) {
        w.a[i * w.m + j] -= w.a[i * w.m + k] * w.a[j * w.m + k];
        w.a[j * w.m + i] = w.a[i * w.m + j];
      }
  }
}

// p := L^-T p on the factored part.
static void solve_back(Work& w) {
  for (long i = w.rank - 1; i >= 0; --i) {
    for (long r = i + 1; r < w.rank; ++r) w.p[i] -= w.a[r * w.m + i] * w.p[r];
    w.p[i] /= w.a[i * w.m + i];
  }
}

// In the parameters: the combination p of the columns of Z, which are scaled and in order.
static void combine(const Work& w, double* x) {
  std::fill_n(x, w.n, 0.0);
  for (long i = 0; i < w.m; ++i) zvxay11(w.n, x, w.p[i] * w.scale[i], w.z + w.order[i] * w.n);
}

static double decrease_of_model(Work& w, double* step) {
  for (long i = 0; i < w.rank; ++i) {
    for (long j = 0; j < i; ++j) w.b[i] -= w.a[i * w.m + j] * w.b[j];
    w.b[i] /= w.a[i * w.m + i];
  }
  double flat = 0.0;
  for (long i = w.rank; i < w.m; ++i) {
    for (long j = 0; j < w.rank; ++j) w.b[i] -= w.a[i * w.m + j] * w.b[j];
    flat = std::max(flat, std::fabs(w.b[i]) / w.scale[i]);
  }
  std::copy_n(w.b, w.rank, w.p);
  std::fill_n(w.p + w.rank, w.m - w.rank, 0.0);
  solve_back(w);
  combine(w, w.hz);
  const double longest = zvamx(w.n, w.hz);
  *step = w.rank == w.m ? longest : HUGE_VALUE;
  const double part = longest > MODERATE_STEP ? MODERATE_STEP / longest : 1.0;
  return 0.5 * part * (2.0 - part) * zvdot11(w.rank, w.b, w.b) + flat;
}

// Is there u with u'Su < 0 for what is left of the matrix? p becomes (-L^-T L21'u, u).
static bool find_way_down(Work& w) {
  double worst = -CLEARLY_DOWN;
  long first = -1, second = -1;
  for (long i = w.rank; i < w.m; ++i)
    for (long j = w.rank; j <= i; ++j) {
      const double element = w.a[i * w.m + j];
      const double value =
          i == j ? element : -2.0 * std::fabs(element) + w.a[i * w.m + i] + w.a[j * w.m + j];
      if (!(value < worst)) continue;
      worst = value;
      first = i;
      second = j;
    }
  if (first < 0) return false;
  std::fill_n(w.p, w.m, 0.0);
  w.p[first] = 1.0;
  if (second != first) w.p[second] = w.a[first * w.m + second] > 0.0 ? -1.0 : 1.0;
  for (long i = 0; i < w.rank; ++i) {
    w.p[i] = -w.a[first * w.m + i];
    if (second != first) w.p[i] -= w.p[second] * w.a[second * w.m + i];
  }
  solve_back(w);
  return true;
}

int look_at_second_order(SecondOrder* point) {
  Work w;
  const bool taken = take_work(w, point->n, point->rows);
  if (taken) {
    for (long j = 0; j < w.n; ++j)
      if (point->fixed[j] == 0) w.place[w.free++] = j;
    reduce_normals(*point, w);
    make_basis(w);
    project(*point, w);
    factor(w);
    point->decrease = decrease_of_model(w, &point->step);
    point->bends_down = find_way_down(w);
    if (point->bends_down) {
      combine(w, point->direction);
      const double length = std::sqrt(zvdot11(w.n, point->direction, point->direction));
      for (long j = 0; j < w.n; ++j) point->direction[j] /= length;
    }
  }
  vmfree_handler(w.block);
  vmfree_handler(w.longs);
  return taken ? 0 : -1;
}

}  // namespace tqnlp
