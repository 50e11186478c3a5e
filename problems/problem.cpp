#include "problems/problem.h"

#include <algorithm>

namespace tqnlp::problems {

double Problem::evaluate(const double* x, double* gradient, double* hessian) const {
  if (by_hand && hessian == nullptr) return by_hand(x, gradient);
  std::vector<Jet> point;
  for (long i = 0; i < n; ++i) {
    point.push_back(hessian != nullptr ? Jet::variable(x[i], i, n) : Jet::slope(x[i], i, n));
  }
  const Jet result = jet(point.data());
  for (long i = 0; gradient != nullptr && i < n; ++i) gradient[i] = result.gradient(i);
  for (long k = 0; hessian != nullptr && k < Jet::hessian_size(n); ++k)
    hessian[k] = result.hessian(k);
  return result.value();
}

// Jacobian of m functions of n parameters, by rows.
static void jacobian_of(const std::function<void(const Jet* x, Jet* r)>& functions, long m, long n,
                        const double* x, double* by_rows) {
  std::vector<Jet> point, values(static_cast<std::size_t>(m));
  for (long j = 0; j < n; ++j) point.push_back(Jet::slope(x[j], j, n));
  functions(point.data(), values.data());
  for (const Jet& value : values) {
    for (long j = 0; j < n; ++j) *by_rows++ = value.gradient(j);
  }
}

void Problem::jacobian(const double* x, double* by_rows) const {
  if (jacobian_by_hand) return jacobian_by_hand(x, by_rows);
  jacobian_of(residual_jets, m, n, x, by_rows);
}

void Problem::constraint_jacobian(const double* x, double* by_rows) const {
  jacobian_of(constraint_jets, constraints, n, x, by_rows);
}

Problem with(Problem p, std::vector<double> lower, std::vector<double> upper,
             std::vector<LinearRow> rows) {
  p.lower = std::move(lower);
  p.upper = std::move(upper);
  p.rows = std::move(rows);
  return p;
}

std::vector<Problem> hock_schittkowski() {
  std::vector<Problem> all = hock_schittkowski_linear();
  for (Problem& p : hock_schittkowski_nonlinear()) all.push_back(std::move(p));
  for (Problem& p : hock_schittkowski_models()) all.push_back(std::move(p));
  const auto number = [](const Problem& p) { return std::stoi(p.name.substr(2)); };
  std::sort(all.begin(), all.end(),
            [&](const Problem& a, const Problem& b) { return number(a) < number(b); });
  return all;
}

std::vector<Problem> problem_library() {
  std::vector<Problem> all = more_garbow_hillstrom();
  for (Problem& p : hock_schittkowski_linear()) all.push_back(std::move(p));
  for (Problem& p : schittkowski_linear()) all.push_back(std::move(p));
  return all;
}

}  // namespace tqnlp::problems
