// Matrices for the tests of the kernels: seeded, dense, by rows, with the few operations that serve
// as oracles.
#pragma once

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>
#include <vector>

#include "aasubs/record/packed.h"

namespace tqnlp::test {

using Vec = std::vector<double>;
using Longs = std::vector<long>;

// Calls a kernel with vectors in the place of its pointers.
template <class T>
T bare(T x) {
  return x;
}
template <class T>
T* bare(std::vector<T>& x) {
  return x.data();
}
template <class T>
const T* bare(const std::vector<T>& x) {
  return x.data();
}
template <class Kernel, class... Arguments>
auto run(Kernel kernel, Arguments&&... arguments) {
  return kernel(bare(arguments)...);
}

inline Vec random_vector(long n, unsigned seed, double scale = 1.0) {
  std::mt19937 engine(seed);
  std::uniform_real_distribution<double> uniform(-scale, scale);
  Vec x(std::max(n, 0L));
  for (double& value : x) value = uniform(engine);
  return x;
}

// The numbers from 0 to n-1, in a random order unless the seed is 0.
inline Longs random_order(long n, unsigned seed) {
  Longs order(n);
  std::iota(order.begin(), order.end(), 0L);
  if (seed != 0) std::shuffle(order.begin(), order.end(), std::mt19937(seed));
  return order;
}

// One element more than needed, so that an empty matrix has an address.
struct Dense {
  long rows, cols;
  Vec a;
  Dense(long r, long c) : rows(r), cols(c), a(r * c + 1) {}
  template <class Element>
  Dense(long r, long c, Element element) : Dense(r, c) {
    for (long i = 0; i < r; ++i)
      for (long j = 0; j < c; ++j) (*this)(i, j) = element(i, j);
  }
  double& operator()(long i, long j) { return a[i * cols + j]; }
  double operator()(long i, long j) const { return a[i * cols + j]; }
};

inline Dense random_dense(long rows, long cols, unsigned seed) {
  Dense d(rows, cols);
  const Vec values = random_vector(rows * cols, seed);
  std::copy(values.begin(), values.end(), d.a.begin());
  return d;
}

inline Dense identity(long n) {
  return {n, n, [](long i, long j) { return i == j ? 1.0 : 0.0; }};
}

inline Dense transpose(const Dense& x) {
  return {x.cols, x.rows, [&x](long i, long j) { return x(j, i); }};
}

inline Dense operator*(const Dense& x, const Dense& y) {
  Dense z(x.rows, y.cols);
  for (long i = 0; i < x.rows; ++i)
    for (long k = 0; k < x.cols; ++k)
      for (long j = 0; j < y.cols; ++j) z(i, j) += x(i, k) * y(k, j);
  return z;
}

inline Vec operator*(const Dense& x, const Vec& y) {
  Vec z(x.rows);
  for (long i = 0; i < x.rows; ++i)
    for (long k = 0; k < x.cols; ++k) z[i] += x(i, k) * y[k];
  return z;
}

inline Dense multiplied(Dense x, double factor) {
  for (double& value : x.a) value *= factor;
  return x;
}

// Largest modulus, infinite for a NaN; and of a difference.
inline double size(const Vec& x) {
  double largest = 0.0;
  for (const double value : x)
    largest = std::isnan(value) ? HUGE_VAL : std::max(largest, std::fabs(value));
  return largest;
}
inline double size(const Dense& x) { return size(x.a); }

inline double distance(Vec x, const Vec& y) {
  if (x.size() != y.size()) return HUGE_VAL;
  for (std::size_t i = 0; i < x.size(); ++i) x[i] -= y[i];
  return size(x);
}
inline double distance(const Dense& x, const Dense& y) { return distance(x.a, y.a); }

inline double dot(const Vec& x, const Vec& y) {
  return std::inner_product(x.begin(), x.end(), y.begin(), 0.0);
}

// Packed, with room for one row more.
inline Vec pack(const Dense& s) {
  Vec p(packed_size(s.rows + 1));
  for (long i = 0; i < s.rows; ++i)
    for (long j = 0; j <= i; ++j) p[zisub(i, j)] = s(i, j);
  return p;
}

inline Dense unpack(long n, const Vec& p, bool lower_only = false) {
  return {n, n, [&](long i, long j) { return lower_only && j > i ? 0.0 : p[zisub(i, j)]; }};
}

// Symmetric and positive definite with rank columns of freedom; grade scales row i by grade^i.
inline Dense gram(long n, long rank, unsigned seed, double grade = 1.0) {
  Dense g = random_dense(n, rank, seed);
  for (long i = 0; i < n; ++i)
    for (long j = 0; j < rank; ++j) g(i, j) *= std::pow(grade, i);
  return g * transpose(g);
}

inline Dense symmetric(long n, unsigned seed) {
  const Dense r = random_dense(n, n, seed);
  return {n, n, [&r](long i, long j) { return r(i, j) + r(j, i); }};
}

}  // namespace tqnlp::test
