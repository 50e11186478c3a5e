#include "problem.h"

#include <cmath>

namespace tqnlp::fuzz {

struct Jet {
  double value, first, second;
};

static Jet phi(int family, double x) {
  const double e = std::exp(x);
  const double root = std::sqrt(1 + x * x);
  switch (family) {
    case 0:
      return {(x - 1) * (x - 1), 2 * (x - 1), 2};
    case 1:
      return {x * x * x * x - x * x, 4 * x * x * x - 2 * x, 12 * x * x - 2};
    case 2:
      return {root, x / root, 1 / (root * root * root)};
    case 3:
      return {e - x, e - 1, e};
    case 4:
      return {x - std::log(x), 1 - 1 / x, 1 / (x * x)};
    case 5:
      return {std::fabs(x), x < 0 ? -1.0 : 1.0, 0};
    case 6:
      return {std::pow(x, 1.5) - x, 1.5 * std::sqrt(x) - 1, 0.75 / std::sqrt(x)};
    case 7:
      return {std::sin(x) + 0.1 * x * x, std::cos(x) + 0.2 * x, 0.2 - std::sin(x)};
    case 8:
      return {x, 1, 0};
    case 9:
      return {7, 0, 0};
    case 10:
      return {1e200 * x * x, 2e200 * x, 2e200};
    case 11:
      return {1e-200 * x * x, 2e-200 * x, 2e-200};
    case 12:
      return {1 / x, -1 / (x * x), 2 / (x * x * x)};
    default:
      return {std::floor(4 * x), 0, 0};
  }
}

static double dot(const std::vector<double>& a, const Matrix& x) {
  double sum = 0.0;
  for (long j = 0; j < x.size(); ++j) sum += a[static_cast<std::size_t>(j)] * x[j];
  return sum;
}

double Problem::objective(const Matrix& x) const {
  double f = coupling * dot(a, x) * dot(a, x);
  for (const double value : x) f += phi(family, value).value;
  return f;
}

Matrix Problem::gradient(const Matrix& x) const {
  Matrix g(1, n);
  for (long j = 0; j < n; ++j)
    g[j] = phi(family, x[j]).first + 2 * coupling * dot(a, x) * a[static_cast<std::size_t>(j)];
  return g;
}

Matrix Problem::hessian(const Matrix& x) const {
  Matrix h(n, n);
  for (long i = 0; i < n; ++i)
    for (long j = 0; j < n; ++j)
      h(i, j) = 2 * coupling * a[static_cast<std::size_t>(i)] * a[static_cast<std::size_t>(j)] +
                (i == j ? phi(family, x[j]).second : 0.0);
  return h;
}

// Residual i looks at one parameter, and at all of them through a.
Matrix Problem::residuals(const Matrix& x) const {
  Matrix r(m, 1);
  for (long i = 0; i < m; ++i)
    r[i] = phi(family, x[i % n]).value + coupling * dot(a, x) - static_cast<double>(i);
  return r;
}

Matrix Problem::jacobian(const Matrix& x) const {
  Matrix j(m, n);
  for (long i = 0; i < m; ++i)
    for (long k = 0; k < n; ++k)
      j(i, k) =
          coupling * a[static_cast<std::size_t>(k)] + (k == i % n ? phi(family, x[k]).first : 0.0);
  return j;
}

// Constraint k: a ball around a for even k, a half space for odd k.
Matrix Problem::constraints(const Matrix& x) const {
  Matrix c(1, nnlc);
  for (long k = 0; k < nnlc; ++k) {
    double squares = 0.0;
    for (const double value : x) squares += value * value;
    c[k] = k % 2 == 0 ? static_cast<double>(k + 2) - squares : dot(a, x) - 1;
  }
  return c;
}

Matrix Problem::constraint_jacobian(const Matrix& x) const {
  Matrix j(nnlc, n);
  for (long k = 0; k < nnlc; ++k)
    for (long i = 0; i < n; ++i) j(k, i) = k % 2 == 0 ? -2 * x[i] : a[static_cast<std::size_t>(i)];
  return j;
}

Problem read_problem(Bytes& bytes) {
  Problem problem;
  problem.n = 1 + bytes.below(5);
  problem.m = 1 + bytes.below(6);
  problem.nnlc = bytes.below(3);
  problem.family = bytes.below(Problem::FAMILIES);
  problem.coupling = bytes.tame();
  for (long j = 0; j < problem.n; ++j) problem.a.push_back(bytes.tame());
  return problem;
}

// Half of all modules do as they should.
Misbehaviour read_misbehaviour(Bytes& bytes) {
  Misbehaviour fault;
  if (!bytes.one_in(2)) return fault;
  fault.kind = static_cast<Misbehaviour::Kind>(bytes.below(Misbehaviour::kinds));
  fault.first = bytes.one_in(2) ? bytes.byte() : bytes.below(12);
  fault.onwards = bytes.one_in(2);
  return fault;
}

}  // namespace tqnlp::fuzz
