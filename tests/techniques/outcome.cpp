#include "techniques/outcome.h"

#include <algorithm>
#include <cmath>

#include "aasubs/driver/znlpdrv.h"
#include "aasubs/record/packed.h"
#include "aasubs/termination/znlptrm.h"
#include "problems/certificate.h"
#include "support/record.h"

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

// The numbers among the labels and values of the summary.
static std::map<std::string, double> summary(const Session& tql) {
  std::map<std::string, double> numbers;
  for (const Table& table : tql.tables()) {
    if (table.name != "IterStop") continue;
    for (const auto& row : table.rows) {
      const auto* label = std::get_if<std::string>(&row[0]);
      if (label == nullptr) continue;
      if (const auto* value = std::get_if<double>(&row[1])) numbers[*label] = *value;
      if (const auto* count = std::get_if<long>(&row[1])) numbers[*label] = double(*count);
    }
  }
  return numbers;
}

void judge(const Problem& p, double tolerance, Outcome& outcome) {
  const Certificate certificate = certify(p, outcome.x.data(), {.active = 1e-7});
  outcome.infeasible = certificate.violation;
  for (std::size_t j = 0; j < outcome.x.size(); ++j) {
    const double rest = std::fabs(certificate.rest[j]);
    const double size =
        std::max(1.0, std::fabs(outcome.x[j])) / std::max(1.0, std::fabs(outcome.f));
    outcome.unexplained = std::max(outcome.unexplained, rest);
    outcome.unexplained_relative = std::max(outcome.unexplained_relative, rest * size);
  }
  for (double minimum : p.minima) {
    const bool close =
        std::fabs(outcome.f - minimum) <= tolerance * std::max(1.0, std::fabs(minimum));
    outcome.solved |= close && outcome.infeasible <= 1e-7;
  }
}

// The modules of a sum of squares: the residuals, and their Jacobian.
static void set_residual_modules(Session& tql, const Problem& p, Outcome& outcome) {
  tql.module("F", [&](const Matrix& x) {
    ++outcome.functions;
    Matrix r(p.m, 1);
    p.residuals(x.data(), r.data());
    return r;
  });
  tql.module("G", [&](const Matrix& x) {
    ++outcome.gradients;
    Matrix jacobian(p.m, p.n);
    p.jacobian(x.data(), jacobian.data());
    return jacobian;
  });
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
  tql.module("C", [&](const Matrix& x) {
    Matrix values(1, p.constraints);
    p.constraint_values(x.data(), values.data());
    return values;
  });
  tql.module("J", [&](const Matrix& x) {
    Matrix jacobian(p.constraints, p.n);
    p.constraint_jacobian(x.data(), jacobian.data());
    return jacobian;
  });
  const bool squares = subroutine == "NLPLM" || subroutine == "NLPHQN";
  if (squares) set_residual_modules(tql, p, outcome);
  const bool second_order = subroutine == "NLPNRR" || subroutine == "NLPTR" ||  //
                            subroutine == "NLPNRA";
  Matrix options = squares && opt.size() == 0 ? Matrix(1, 1) : opt;
  if (squares) options(0, 0) = double(p.m);
  std::vector<Matrix> arguments = {
      "F", Matrix::row(p.start), options, constraint_matrix(p), tc, Matrix(), Matrix(), "G"};
  if (modules == Modules::none || subroutine == "NLPNMS") arguments.pop_back();
  if (p.constraints > 0) arguments.emplace_back("C");
  if (p.constraints > 0 && modules == Modules::all) arguments.emplace_back("J");
  if (subroutine == "NLPNMS" && p.constraints > 0 && modules == Modules::all) arguments.pop_back();
  if (second_order && modules == Modules::all) arguments.emplace_back("H");
  const auto results = tql.call(subroutine, arguments);
  outcome.code = results[0](0, 0);
  outcome.x.assign(results[1].data(), results[1].data() + p.n);
  outcome.f = p.value(outcome.x.data());
  outcome.reported = summary(tql);
  if (squares) outcome.reported["Objective"] *= 2.0;  // half the sum
  outcome.iterations = tql.variable("_ITER_")(0, 0);
  judge(p, tolerance, outcome);
  return outcome;
}

static Observer observer;  // of the run by number

static int observed_test(MINSTR* str, int job) {
  const int answer = znlptrm(str, job);
  if (observer) observer(*str, job, answer);
  return answer;
}

Outcome solve_by_number(const Problem& p, int technique, double tolerance, const Observer& observe,
                        const Preparation& prepare) {
  TestRecord record(p.n, technique);
  if (technique == GAUNEW) {
    install_residuals(record, p);
  } else {
    install(record, p);
  }
  if (!p.lower.empty()) {
    const auto finite = [](std::vector<double> bounds) {
      for (double& bound : bounds) bound = std::clamp(bound, -HUGE_VALUE, HUGE_VALUE);
      return bounds;
    };
    record.with_bounds(finite(p.lower), finite(p.upper));
  }
  std::vector<LinearRow> rows = p.rows;
  for (LinearRow& row : rows) {
    if (row.op != -1) continue;
    for (double& a : row.a) a = -a;
    row = {row.a, 1, -row.b};
  }
  if (!rows.empty()) record.with_rows(rows);
  if (is_simplex(technique)) record.maxi = record.maxf = 20000;
  observer = observe;
  record.uster = observed_test;
  if (prepare) prepare(record);
  Outcome outcome;
  outcome.code = znlpdrv(&record, 1, 0, 0, 0);
  if (outcome.code == 0) outcome.code = znlpdrv(&record, 2, 0, 0, 0);
  outcome.x = record.point();
  outcome.f = p.value(record.x);
  outcome.iterations = record.nitr;
  outcome.functions = record.nfct;
  outcome.hessians = record.nhes;
  judge(p, tolerance, outcome);
  return outcome;
}

}  // namespace tqnlp::test
