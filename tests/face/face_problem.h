// Problems of the library as the named face and as the calling surface take them.
#pragma once

#include "aasubs/record/packed.h"
#include "techniques/outcome.h"
#include "tqnlp/optimize.hpp"

namespace tqnlp::test {

enum class Form { scalar, squares };

// The problem with as many of its derivatives as modules says; outside counts points that violate
// its bounds.
inline tqnlp::Problem face_problem(const problems::Problem& p, Form form, Modules modules,
                                   long* outside = nullptr) {
  const auto look = [&p, outside](Point x) {
    for (std::size_t j = 0; outside != nullptr && j < p.lower.size(); ++j)
      *outside += x[j] < p.lower[j] || x[j] > p.upper[j];
  };
  auto problem = form == Form::squares
                     ? tqnlp::Problem::least_squares(p.n, p.m,
                                                     [&p, look](Point x, Values r) {
                                                       look(x);
                                                       p.residuals(x.data(), r.data());
                                                     })
                     : tqnlp::Problem::minimize(p.n, [&p, look](Point x) {
                         look(x);
                         return p.value(x.data());
                       });
  if (form == Form::squares && modules != Modules::none)
    problem.jacobian([&p](Point x, Values j) { p.jacobian(x.data(), j.data()); });
  if (form == Form::scalar && modules != Modules::none)
    problem.gradient([&p, look](Point x, Values g) {
      look(x);
      p.evaluate(x.data(), g.data());
    });
  if (form == Form::scalar && modules == Modules::all)
    problem.hessian([&p](Point x, Values h) {
      std::vector<double> g(x.size()), packed(static_cast<std::size_t>(packed_size(p.n)));
      p.evaluate(x.data(), g.data(), packed.data());
      for (long i = 0; i < p.n; ++i)
        for (long j = 0; j < p.n; ++j)
          h[static_cast<std::size_t>(i * p.n + j)] = packed[static_cast<std::size_t>(zisub(i, j))];
    });
  if (!p.lower.empty()) problem.bounds(p.lower, p.upper);
  for (const auto& row : p.rows)
    problem.linear(row.a, row.op == -1 ? -inf : row.b, row.op == 1 ? inf : row.b);
  if (p.constraints > 0) {
    const auto count = static_cast<std::size_t>(p.constraints);
    std::vector<double> lower(count, 0.0), upper(count, inf);
    std::fill_n(upper.begin(), p.equalities, 0.0);
    problem.nonlinear(lower, upper, [&p, look](Point x, Values c) {
      look(x);
      p.constraint_values(x.data(), c.data());
    });
    if (modules != Modules::none)
      problem.nonlinear_jacobian(
          [&p](Point x, Values j) { p.constraint_jacobian(x.data(), j.data()); });
  }
  return problem;
}

}  // namespace tqnlp::test
