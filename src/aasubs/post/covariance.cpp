// Covariance in the null space of the active constraints.
//
//   1  scales d: roots of |H_jj|, norms of the columns of J
//   2  Z: the last columns of Q, from a QR factorization with column pivoting of the scaled normals
//   3  Hessian: M = Z'D^-1 H D^-1 Z and its generalized inverse G
//      Jacobian: J D^-1 Z P = Q R, without forming J'J, whose condition is that of J squared; then
//      G = P [R11^-1 R11^-T 0; 0 0] P'
//   4  D^-1 Z G Z'D^-1. A parameter is determined when its row z of D^-1 Z stands at a right angle
//      to the null vectors of M
//
// Reference  Searle (1971), Linear Models, on generalized inverses and estimable functions; for
//            constraints, Silvey (1959), Annals of Mathematical Statistics 30
#include "aasubs/post/covariance.h"

#include <algorithm>
#include <cmath>

#include "aasubs/post/zcovinv.h"
#include "aasubs/record/constants.h"
#include "aasubs/record/minstr.h"
#include "host/memory.h"
#include "kernels/dense.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr double DEPENDENT = 1e-10;   // what is left of a unit normal
static constexpr double FREE = 1e-12;        // length of a row of Z
static constexpr double RIGHT_ANGLE = 1e-6;  // cosine between a row of Z and a null vector

namespace {

struct Work {
  double* d;     // n; scales
  double* z;     // n x k; Z by rows
  double* q;     // n x max(rows, 1); factored normals
  double* b;     // m x k, or k x k: J D^-1 Z, or G
  double* y;     // n x k; rows of Z times the factor of G, or times G
  double* null;  // k x k; null vectors by rows
  double* alfa;  // k or rows
  double* sum;
  double* work;  // max(n, k)
  long* iwk;     // max(n, rows)
};

}  // namespace

static Work take_work(const NullSpaceCovariance& it, char** block) {
  const long n = it.n, rows = std::max(it.rows, 1L), larger = std::max(n, rows);
  const long count = n + 2 * n * n + n * rows + std::max(it.m, n) * n + n * n + 3 * larger;
  const std::size_t bytes = static_cast<std::size_t>(count) * sizeof(double) +
                            static_cast<std::size_t>(larger) * sizeof(long);
  *block = static_cast<char*>(vmalloc_handler(bytes, 0));
  Work w{};
  if (*block == nullptr) {
    xmemmsg(bytes);
    return w;
  }
  w.d = reinterpret_cast<double*>(*block);
  w.z = w.d + n;
  w.y = w.z + n * n;
  w.q = w.y + n * n;
  w.b = w.q + n * rows;
  w.null = w.b + std::max(it.m, n) * n;
  w.alfa = w.null + n * n;
  w.sum = w.alfa + larger;
  w.work = w.sum + larger;
  w.iwk = reinterpret_cast<long*>(w.work + larger);
  return w;
}

static void set_scales(const NullSpaceCovariance& it, const Work& w) {
  for (long j = 0; j < it.n; ++j) {
    double squares = it.hess != nullptr ? std::fabs(it.hess[zisub(j, j)]) : 0.0;
    for (long i = 0; i < it.m; ++i)
      squares += it.jacobian[i * it.n + j] * it.jacobian[i * it.n + j];
    w.d[j] = squares > TINY && std::isfinite(squares) ? std::sqrt(squares) : 1.0;
  }
}

// Z of the scaled parameters D x, n x k. Returns k.
static long null_space(const NullSpaceCovariance& it, const Work& w) {
  const long n = it.n, rows = it.rows;
  for (long i = 0; i < rows; ++i) {
    double length = 0.0;
    for (long j = 0; j < n; ++j) length = std::hypot(length, it.normals[i * n + j] / w.d[j]);
    for (long j = 0; j < n; ++j)
      w.q[j * rows + i] = length > 0.0 ? it.normals[i * n + j] / w.d[j] / length : 0.0;
  }
  long rank = 0;
  if (rows > 0) {
    std::fill_n(w.iwk, rows, 0L);
    rank = std::min(n, rows) -
           zqrdec(n, rows, 0, rows, 0, w.iwk, DEPENDENT, w.q, nullptr, w.alfa, w.sum);
  }
  const long k = n - rank;
  vzfdl(0.0, w.z, n * k);
  for (long i = 0; i < k; ++i) w.z[(rank + i) * k + i] = 1.0;
  if (rank > 0 && k > 0) zqrform(4, n, rank, k, rows, k, w.q, w.z, w.z, nullptr, nullptr, w.work);
  return k;
}

// ---- Of a Hessian -------------------------------------------------------------------------------

// G into b (full), D^-1 Z G into y, and what a row of Z has outside of the range of M into null:
// I - G M, by rows.
static void invert_hessian(NullSpaceCovariance& it, const Work& w, long k) {
  const long n = it.n;
  const auto scaled = [&](long i, long j) { return it.hess[zisub(i, j)] / w.d[i] / w.d[j]; };
  double* hz = w.y;  // n x k
  vzfdl(0.0, hz, n * k);
  for (long i = 0; i < n; ++i) {
    for (long j = 0; j < n; ++j) {
      const double h = i >= j ? scaled(i, j) : scaled(j, i);
      for (long c = 0; c < k && h != 0.0; ++c) hz[i * k + c] += h * w.z[j * k + c];
    }
  }
  double* m = w.null;  // k x k
  for (long a = 0; a < k; ++a) {
    for (long c = 0; c <= a; ++c) {
      double sum = 0.0;
      for (long i = 0; i < n; ++i) sum += w.z[i * k + a] * hz[i * k + c];
      m[a * k + c] = m[c * k + a] = w.b[zisub(a, c)] = sum;
    }
  }
  double det[5];
  if (zcovinv(0, 0, k, MISSING, it.noise, it.noise, w.b, det, w.alfa, w.work, w.iwk) != 0) {
    it.negative = k;  // an element is no number
    return;
  }
  it.negative = static_cast<long>(det[3]);
  it.rank = k - static_cast<long>(det[4]);
  const auto g = [&](long a, long c) { return a >= c ? w.b[zisub(a, c)] : w.b[zisub(c, a)]; };
  for (long c = 0; c < k; ++c) {  // a column of M after the other becomes one of I - G M
    for (long a = 0; a < k; ++a) w.work[a] = m[a * k + c];
    for (long a = 0; a < k; ++a) {
      double sum = a == c ? 1.0 : 0.0;
      for (long l = 0; l < k; ++l) sum -= g(a, l) * w.work[l];
      m[a * k + c] = sum;
    }
  }
}

static void add_hessian_covariance(const NullSpaceCovariance& it, const Work& w, long k) {
  const long n = it.n;
  const auto g = [&](long a, long c) { return a >= c ? w.b[zisub(a, c)] : w.b[zisub(c, a)]; };
  for (long j = 0; j < n; ++j) {
    for (long c = 0; c < k; ++c) {
      double sum = 0.0;
      for (long a = 0; a < k; ++a) sum += w.z[j * k + a] * g(a, c);
      w.y[j * k + c] = sum;
    }
  }
  for (long i = 0; i < n; ++i) {
    for (long j = 0; j <= i; ++j) {
      double sum = 0.0;
      for (long c = 0; c < k; ++c) sum += w.y[i * k + c] * w.z[j * k + c];
      it.covariance[i * n + j] = it.covariance[j * n + i] = sum / w.d[i] / w.d[j];
    }
  }
}

// ---- Of a Jacobian ------------------------------------------------------------------------------

// x := R11^-1 x, R11 the upper triangle of the first columns of b, its diagonal in alfa.
static void solve_upper(const Work& w, long rank, long k, double* x) {
  for (long i = rank - 1; i >= 0; --i) {
    for (long c = i + 1; c < rank; ++c) x[i] -= w.b[i * k + c] * x[c];
    x[i] /= w.alfa[i];
  }
}

// The factor Z P [R11^-1; 0] into y (n x rank), null vectors of J D^-1 Z into the rows of null.
static void factor_jacobian(NullSpaceCovariance& it, const Work& w, long k) {
  const long n = it.n, m = it.m;
  vzfdl(0.0, w.b, m * k);
  for (long i = 0; i < m; ++i) {
    for (long j = 0; j < n; ++j) {
      const double scaled = it.jacobian[i * n + j] / w.d[j];
      for (long c = 0; c < k && scaled != 0.0; ++c) w.b[i * k + c] += scaled * w.z[j * k + c];
    }
  }
  std::fill_n(w.iwk, k, 0L);
  it.rank = std::min(m, k) - zqrdec(m, k, 0, k, 0, w.iwk, it.noise, w.b, nullptr, w.alfa, w.sum);
  const long rank = it.rank;
  for (long r = 0; r < rank; ++r) {
    vzfdl(0.0, w.work, rank);
    w.work[r] = 1.0;
    solve_upper(w, rank, k, w.work);
    for (long j = 0; j < n; ++j) {
      double sum = 0.0;
      for (long i = 0; i <= r; ++i) sum += w.z[j * k + w.iwk[i]] * w.work[i];
      w.y[j * k + r] = sum;
    }
  }
  for (long c = rank; c < k; ++c) {
    for (long i = 0; i < rank; ++i) w.work[i] = w.b[i * k + c];
    solve_upper(w, rank, k, w.work);
    double* row = w.null + (c - rank) * k;
    vzfdl(0.0, row, k);
    row[w.iwk[c]] = 1.0;
    for (long i = 0; i < rank; ++i) row[w.iwk[i]] = -w.work[i];
  }
}

static void add_jacobian_covariance(const NullSpaceCovariance& it, const Work& w, long k) {
  const long n = it.n;
  for (long i = 0; i < n; ++i) {
    for (long j = 0; j <= i; ++j) {
      double sum = 0.0;
      for (long r = 0; r < it.rank; ++r) sum += w.y[i * k + r] * w.y[j * k + r];
      it.covariance[i * n + j] = it.covariance[j * n + i] = sum / w.d[i] / w.d[j];
    }
  }
}

// ---- States -------------------------------------------------------------------------------------

// Has row z of Z a part along a null vector? Those of a Jacobian stand in the rows of null; of a
// Hessian its rows are those of I - G M, from which z' (I - G M) is formed.
static bool moves_freely(const NullSpaceCovariance& it, const Work& w, const double* z, long k) {
  const double angle = std::max(RIGHT_ANGLE, std::sqrt(it.noise));
  if (it.rank == k) return false;
  if (it.hess != nullptr) {
    vzfdl(0.0, w.work, k);
    for (long a = 0; a < k; ++a)
      for (long c = 0; c < k; ++c) w.work[c] += z[a] * w.null[a * k + c];
    return std::any_of(w.work, w.work + k, [=](double part) { return std::fabs(part) > angle; });
  }
  for (long c = 0; c < k - it.rank; ++c) {
    const double* row = w.null + c * k;
    double sum = 0.0, length = 0.0;
    for (long a = 0; a < k; ++a) sum += z[a] * row[a], length = std::hypot(length, row[a]);
    if (std::fabs(sum) > angle * length) return true;
  }
  return false;
}

static void set_states(const NullSpaceCovariance& it, const Work& w, long k) {
  for (long j = 0; j < it.n; ++j) {
    const double* z = w.z + j * k;
    const bool held = std::all_of(z, z + k, [](double part) { return std::fabs(part) <= FREE; });
    it.state[j] = held                        ? COVARIANCE_HELD
                  : moves_freely(it, w, z, k) ? COVARIANCE_NOT_DETERMINED
                                              : COVARIANCE_KNOWN;
  }
}

int null_space_covariance(NullSpaceCovariance* it) {
  char* block = nullptr;
  const Work w = take_work(*it, &block);
  if (block == nullptr) return -1;
  vzfdl(0.0, it->covariance, it->n * it->n);
  set_scales(*it, w);
  const long k = it->dimension = null_space(*it, w);
  it->rank = it->negative = 0;
  if (k > 0 && it->hess != nullptr) {
    invert_hessian(*it, w, k);
    if (it->negative == 0) add_hessian_covariance(*it, w, k);
  } else if (k > 0) {
    factor_jacobian(*it, w, k);
    add_jacobian_covariance(*it, w, k);
  }
  set_states(*it, w, k);
  vmfree_handler(block);
  return 0;
}

}  // namespace tqnlp
