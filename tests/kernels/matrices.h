// Matrices for the tests of the kernels: seeded, dense, by rows, with the few operations that serve
// as oracles.
#pragma once

#include <cmath>
#include <random>
#include <vector>

#include "aasubs/record/packed.h"

namespace tqnlp::test {

using Vec = std::vector<double>;

struct Dense {
  long rows = 0, cols = 0;
  Vec a;
  Dense(long r, long c) : rows(r), cols(c), a(static_cast<std::size_t>(r * c) + 1, 0.0) {}
  double& operator()(long i, long j) { return a[static_cast<std::size_t>(i * cols + j)]; }
  double operator()(long i, long j) const { return a[static_cast<std::size_t>(i * cols + j)]; }
};

inline Vec random_vector(long n, unsigned seed) {
  std::mt19937 engine(seed);
  std::uniform_real_distribution<double> uniform(-1.0, 1.0);
  Vec x(static_cast<std::size_t>(n > 0 ? n : 0) + 1);
  for (double& value : x) value = uniform(engine);
  return x;
}

inline Dense random_dense(long rows, long cols, unsigned seed) {
  Dense d(rows, cols);
  d.a = random_vector(rows * cols, seed);
  return d;
}

inline Dense transpose(const Dense& x) {
  Dense t(x.cols, x.rows);
  for (long i = 0; i < x.rows; ++i)
    for (long j = 0; j < x.cols; ++j) t(j, i) = x(i, j);
  return t;
}

inline Dense operator*(const Dense& x, const Dense& y) {
  Dense z(x.rows, y.cols);
  for (long i = 0; i < x.rows; ++i)
    for (long k = 0; k < x.cols; ++k)
      for (long j = 0; j < y.cols; ++j) z(i, j) += x(i, k) * y(k, j);
  return z;
}

// Largest absolute difference, NaN kept; and largest element.
inline double distance(const Dense& x, const Dense& y) {
  double largest = 0.0;
  for (long i = 0; i < x.rows * x.cols; ++i) {
    const auto k = static_cast<std::size_t>(i);
    const double d = std::fabs(x.a[k] - y.a[k]);
    if (!(d <= largest)) largest = d;
  }
  return largest;
}
inline double size(const Dense& x) { return distance(x, Dense(x.rows, x.cols)); }

inline Vec pack(const Dense& s) {
  Vec p(static_cast<std::size_t>(packed_size(s.rows + 1)) + 1, 0.0);
  for (long i = 0; i < s.rows; ++i)
    for (long j = 0; j <= i; ++j) p[static_cast<std::size_t>(zisub(i, j))] = s(i, j);
  return p;
}

inline Dense unpack(long n, const Vec& p, bool lower_only = false) {
  Dense s(n, n);
  for (long i = 0; i < n; ++i)
    for (long j = 0; j < n; ++j)
      s(i, j) = lower_only && j > i ? 0.0 : p[static_cast<std::size_t>(zisub(i, j))];
  return s;
}

// Symmetric and positive definite with rank columns of freedom; grade scales row i by grade^i.
inline Dense gram(long n, long rank, unsigned seed, double grade = 1.0) {
  Dense g = random_dense(n, rank, seed);
  for (long i = 0; i < n; ++i)
    for (long j = 0; j < rank; ++j) g(i, j) *= std::pow(grade, static_cast<double>(i));
  return g * transpose(g);
}

inline Dense symmetric(long n, unsigned seed) {
  Dense r = random_dense(n, n, seed);
  Dense s(n, n);
  for (long i = 0; i < n; ++i)
    for (long j = 0; j < n; ++j) s(i, j) = r(i, j) + r(j, i);
  return s;
}

inline Dense multiplied(Dense x, double factor) {
  for (double& value : x.a) value *= factor;
  return x;
}

}  // namespace tqnlp::test
