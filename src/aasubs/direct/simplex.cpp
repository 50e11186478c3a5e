// The simplex of the Nelder-Mead techniques. Contracts in simplex.h.
#include "aasubs/direct/simplex.h"

#include <algorithm>
#include <cmath>

#include "aasubs/loop/loads.h"
#include "kernels/vector.h"

namespace tqnlp {

// ---- Points -------------------------------------------------------------------------------------

long open_simplex(MINSTR* str, Simplex& s) {
  s.free = str->ipiv;
  s.iwk = str->iwk;
  s.nmask = 0;
  for (long j = 0; j < str->nvar; ++j) {
    if (str->bounds == 0 || str->iabc[j] != 2) s.free[s.nmask++] = j;
  }
  const long n = s.nmask;
  s.poly = str->wrk2;
  s.y = s.poly + n * (n + 1);
  s.cent = s.y + n + 1;
  s.p1 = s.cent + n;
  s.p2 = s.p1 + n;
  s.best = s.p2 + n;
  s.step = s.best + n;
  return n;
}

void put_point(MINSTR* str, const Simplex& s, const double* p) {
  for (long k = 0; k < s.nmask; ++k) str->x[s.free[k]] = p[k];
}

void get_point(const MINSTR* str, const Simplex& s, double* p) {
  for (long k = 0; k < s.nmask; ++k) p[k] = str->x[s.free[k]];
}

long bcfun(MINSTR* str) {
  long moved = 0;
  for (long j = 0; str->bounds != 0 && j < str->nvar; ++j) {
    const double before = str->x[j];
    if (str->x[j] < str->lb[j]) str->x[j] = str->lb[j];
    if (str->x[j] > str->ub[j]) str->x[j] = str->ub[j];
    if (str->x[j] != before && !std::isnan(before)) ++moved;
  }
  if (!evaluate_objective(str)) return -1;
  if (std::isfinite(str->crit)) return moved;
  str->tbig = 1.0;  // means and deviations of the simplex could not be formed with it
  return -1;
}

long try_point(MINSTR* str, Simplex& s, double* p, double* y) {
  put_point(str, s, p);
  const long moved = bcfun(str);
  get_point(str, s, p);
  *y = str->crit;
  if (moved < 0 || !(*y < s.ybest)) return moved;
  s.ybest = *y;
  std::copy_n(p, s.nmask, s.best);
  return moved;
}

long nactbc(const MINSTR* str, const double* x) {
  if (str->bounds == 0) return 0;
  const double eps = feasibility_tolerance(str, str->ipre);
  const auto stands_on = [eps](double value, double bound) {
    return std::fabs(value - bound) <= (std::fabs(bound) + 1.0) * eps;
  };
  long count = 0;
  for (long j = 0; j < str->nvar; ++j) {
    const bool on_lower = lower_exists(str->lb[j]) && stands_on(x[j], str->lb[j]);
    const bool on_upper = upper_exists(str->ub[j]) && stands_on(x[j], str->ub[j]);
    if (on_lower || on_upper) ++count;
  }
  return count;
}

double xdis(long n, double delt, const double* x, const double* step) {
  double largest = 0.0;
  for (long j = 0; j < n; ++j) {
    largest = std::max(largest, std::fabs(x[j] - (x[j] + delt * step[j])));
  }
  return largest;
}

// ---- Vertices -----------------------------------------------------------------------------------

void replace_vertex(Simplex& s, long k, const double* p, double y, long moved) {
  std::copy_n(p, s.nmask, s.vertex(k));
  s.y[k] = y;
  s.iwk[k] = moved;
}

void rank_vertices(Simplex& s) {
  s.khi = s.klo = 0;
  for (long k = 1; k <= s.nmask; ++k) {
    if (s.y[k] > s.y[s.khi]) s.khi = k;
    if (s.y[k] < s.y[s.klo]) s.klo = k;
  }
  long second = s.khi == 0 ? 1 : 0;
  for (long k = second + 1; k <= s.nmask; ++k) {
    if (k != s.khi && s.y[k] > s.y[second]) second = k;
  }
  s.yhi = s.y[s.khi];
  s.ysecond = s.y[second];
  s.ylo = s.y[s.klo];
}

// Means are taken as a vertex and the mean of the differences from it, so that what all vertices
// share is kept exactly.
static void form_mean(const Simplex& s, long left_out, double* mean) {
  const long first = left_out == 0 ? 1 : 0;
  const double* from = s.vertex(first);
  const double count = static_cast<double>(left_out < 0 ? s.nmask + 1 : s.nmask);
  std::fill_n(mean, s.nmask, 0.0);
  for (long k = first + 1; k <= s.nmask; ++k) {
    const double* point = s.vertex(k);
    for (long j = 0; k != left_out && j < s.nmask; ++j) mean[j] += point[j] - from[j];
  }
  for (long j = 0; j < s.nmask; ++j) mean[j] = from[j] + mean[j] / count;
}

void form_centroid(Simplex& s) { form_mean(s, s.khi, s.cent); }

void form_center(const Simplex& s, double* center) { form_mean(s, -1, center); }

double value_deviation(const Simplex& s) {
  const double count = static_cast<double>(s.nmask + 1);
  double mean = 0.0;  // of the differences from the lowest value, which are no larger than needed
  for (long k = 0; k <= s.nmask; ++k) mean += (s.y[k] - s.ylo) / count;
  double sum = 0.0;
  for (long k = 0; k <= s.nmask; ++k) {
    const double difference = (s.y[k] - s.ylo) - mean;
    sum += difference * difference / count;
  }
  return std::sqrt(sum);
}

double mean_size(const Simplex& s) {
  const double* lowest = s.vertex(s.klo);
  double sum = 0.0;
  for (long k = 0; k <= s.nmask; ++k) {
    const double* point = s.vertex(k);
    for (long j = 0; j < s.nmask; ++j) {
      if (s.step[j] > DIAGONAL_PIVOT_FLOOR) sum += std::fabs(point[j] - lowest[j]) / s.step[j];
    }
  }
  return s.nmask > 0 ? sum / static_cast<double>(s.nmask) : 1.0;
}

long tstangl(const MINSTR* str, long k, long nm, double tst, const double* poly) {
  static constexpr double DEGREES = 180.0 / 3.141592653589793;
  const double* center = str->work;
  for (long i = 0; i <= nm; ++i) {
    if (i == k) continue;
    double product = 0.0, length_k = 0.0, length_i = 0.0;
    for (long j = 0; j < nm; ++j) {
      const double of_k = poly[k * nm + j] - center[j];
      const double of_i = poly[i * nm + j] - center[j];
      product += of_k * of_i;
      length_k += of_k * of_k;
      length_i += of_i * of_i;
    }
    const double lengths = std::sqrt(length_k) * std::sqrt(length_i);
    if (!(lengths > TINY)) continue;
    const double angle = std::acos(std::clamp(product / lengths, -1.0, 1.0)) * DEGREES;
    if (std::fabs(angle) < tst) return i + 1;
  }
  return 0;
}

}  // namespace tqnlp
