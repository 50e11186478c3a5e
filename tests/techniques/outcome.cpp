#include "techniques/outcome.h"

#include <algorithm>
#include <cmath>

namespace tqnlp::test {

static double given(const std::vector<double>& bounds, long j) {
  const double bound = bounds[static_cast<std::size_t>(j)];
  return std::isinf(bound) ? missing : bound;
}

Matrix constraint_matrix(const Problem& p) {
  if (p.lower.empty() && p.rows.empty()) return Matrix();
  Matrix blc(2 + static_cast<long>(p.rows.size()), p.n + 2);
  std::fill_n(blc.data(), 2 * (p.n + 2), missing);
  for (long j = 0; !p.lower.empty() && j < p.n; ++j) {
    blc(0, j) = given(p.lower, j);
    blc(1, j) = given(p.upper, j);
  }
  for (long i = 0; i < static_cast<long>(p.rows.size()); ++i) {
    const LinearRow& row = p.rows[static_cast<std::size_t>(i)];
    std::copy(row.a.begin(), row.a.end(), blc.data() + (2 + i) * (p.n + 2));
    blc(2 + i, p.n) = row.op;
    blc(2 + i, p.n + 1) = row.b;
  }
  return blc;
}

static double worst_violation(const Problem& p, const std::vector<double>& x) {
  double worst = 0.0;
  for (std::size_t j = 0; j < p.lower.size(); ++j) {
    if (std::isfinite(p.lower[j])) {
      worst = std::max(worst, (p.lower[j] - x[j]) / (1 + std::fabs(p.lower[j])));
    }
    if (std::isfinite(p.upper[j])) {
      worst = std::max(worst, (x[j] - p.upper[j]) / (1 + std::fabs(p.upper[j])));
    }
  }
  for (const LinearRow& row : p.rows) {
    double residual = -row.b;
    for (std::size_t j = 0; j < x.size(); ++j) residual += row.a[j] * x[j];
    if (row.op == 0) residual = -std::fabs(residual);
    if (row.op == -1) residual = -residual;
    worst = std::max(worst, -residual / (1 + std::fabs(row.b)));
  }
  return worst;
}

Outcome solve(const Problem& p, const std::string& subroutine, double tolerance, const Matrix& opt,
              const Matrix& tc, Modules modules) {
  Outcome outcome;
  Session tql;
  tql.module("F", [&](const Matrix& x) {
    ++outcome.functions;
    return Matrix::scalar(p.value(x.data()));
  });
  tql.module("G", [&](const Matrix& x) {
    ++outcome.gradients;
    Matrix g(1, p.n);
    p.evaluate(x.data(), g.data());
    return g;
  });
  tql.module("H", [&](const Matrix& x) {
    ++outcome.hessians;
    std::vector<double> g(static_cast<std::size_t>(p.n));
    std::vector<double> packed(static_cast<std::size_t>(packed_size(p.n)));
    p.evaluate(x.data(), g.data(), packed.data());
    Matrix h(p.n, p.n);
    for (long i = 0; i < p.n; ++i) {
      for (long j = 0; j < p.n; ++j) h(i, j) = packed[static_cast<std::size_t>(zisub(i, j))];
    }
    return h;
  });
  const bool second_order = subroutine == "NLPNRR" || subroutine == "NLPTR" ||  //
                            subroutine == "NLPNRA";
  std::vector<Matrix> arguments = {
      "F", Matrix::row(p.start), opt, constraint_matrix(p), tc, Matrix(), Matrix(), "G"};
  if (modules == Modules::none) arguments.pop_back();
  if (second_order && modules == Modules::all) arguments.emplace_back("H");
  const auto results = tql.call(subroutine, arguments);
  outcome.code = results[0](0, 0);
  outcome.x.assign(results[1].data(), results[1].data() + p.n);
  outcome.f = p.value(outcome.x.data());
  outcome.infeasible = worst_violation(p, outcome.x);
  outcome.iterations = tql.variable("_ITER_")(0, 0);
  for (double minimum : p.minima) {
    const bool close =
        std::fabs(outcome.f - minimum) <= tolerance * std::max(1.0, std::fabs(minimum));
    outcome.solved |= close && outcome.infeasible <= 1e-7;
  }
  return outcome;
}

}  // namespace tqnlp::test
