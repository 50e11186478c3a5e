// First-order certificates at the end of NLPNRR runs over the bounded and linearly constrained
// problems, with every rule of scaling: the multipliers that the run leaves explain the gradient,
// have the right signs, and belong to constraints that hold with equality.
#include <gtest/gtest.h>

#include <cmath>

#include "aasubs/driver/znlpdrv.h"
#include "support/record.h"
#include "techniques/outcome.h"

namespace tqnlp::test {
namespace {

// The problem with its constraints, rows in the order and form that the record asks for.
void install_constrained(TestRecord& record, const Problem& p) {
  install(record, p);
  const auto stored = [](double bound) {
    return std::isinf(bound) ? std::copysign(HUGE_VALUE, bound) : bound;
  };
  std::vector<double> lower = p.lower, upper = p.upper;
  for (double& bound : lower) bound = stored(bound);
  for (double& bound : upper) bound = stored(bound);
  if (!lower.empty()) record.with_bounds(lower, upper);
  std::vector<LinearRow> rows;
  for (const int equality : {1, 0}) {
    for (LinearRow row : p.rows) {
      if ((row.op == 0) != (equality == 1)) continue;
      if (row.op == -1) {
        for (double& a : row.a) a = -a;
        row.b = -row.b;
        row.op = 1;
      }
      rows.push_back(row);
    }
  }
  if (!rows.empty()) record.with_rows(rows);
}

class Certificates : public testing::TestWithParam<int> {};

TEST_P(Certificates, MultipliersExplainTheGradient) {
  for (const Problem& p : problem_library()) {
    if (p.lower.empty() && p.rows.empty()) continue;
    TestRecord r(p.n);
    install_constrained(r, p);
    r.hesc = GetParam();
    ASSERT_GE(znlpdrv(&r, 1, 0, 0, 0), 0) << p.name;
    ASSERT_GT(znlpdrv(&r, 2, 0, 0, 0), 0) << p.name;

    std::vector<double> gradient(static_cast<std::size_t>(p.n)), row(gradient);
    p.evaluate(r.x, gradient.data());
    std::vector<double> rest = gradient;
    double scale = 1.0;
    for (const double g : gradient) scale = std::max(scale, std::fabs(g));
    for (long i = 0; i < r.nabc + r.nalc; ++i) {
      const long j = i < r.nabc ? r.ifxr[p.n - r.nabc + i] : -1;
      const bool upper = j >= 0 && r.iabc[j] < 0;
      const long general = j < 0 ? r.iact[i - r.nabc] : -1;
      std::fill(row.begin(), row.end(), 0.0);
      double right_side = 0.0;
      if (j >= 0) {
        row[std::size_t(j)] = upper ? -1.0 : 1.0;
        right_side = upper ? -r.ub[j] : r.lb[j];
      } else {
        r.acget(&r, general, row.data());
        right_side = r.blcn[general];
      }
      // Runs with bounds alone keep no multipliers: they are components of the gradient.
      const double lambda = r.lincon != 0 ? r.lagm[i] : row[std::size_t(j)] * r.grad[j];
      double value = 0.0;
      for (std::size_t k = 0; k < row.size(); ++k) {
        value += row[k] * r.x[k];
        rest[k] -= lambda * row[k];
      }
      EXPECT_NEAR(value, right_side, 1e-7 * (1.0 + std::fabs(right_side))) << p.name << " " << i;
      const bool equality = j >= 0 ? r.iabc[j] == 2 : general < r.neqc;
      if (!equality) {
        EXPECT_GE(lambda, -1e-6 * scale) << p.name << " " << i;
      }
    }
    for (const double left : rest) EXPECT_NEAR(left, 0.0, 1e-5 * scale) << p.name;
  }
}

// A start where the Hessian has diagonal elements of zero (Beale) or none but zeros must not make
// the scale, or the ridge that is measured in it, useless.
TEST_P(Certificates, ScalingSolvesWhatIsSolvedWithoutIt) {
  for (const Problem& p : problem_library()) {
    const Outcome scaled = solve(p, "NLPNRR", 1e-6, Matrix::row({0, 0, double(GetParam())}));
    EXPECT_TRUE(scaled.solved || !solve(p, "NLPNRR", 1e-6).solved)
        << p.name << " code " << scaled.code << " f " << scaled.f;
  }
}

INSTANTIATE_TEST_SUITE_P(ScalingRules, Certificates, testing::Values(0, 1, 2, 3));

}  // namespace
}  // namespace tqnlp::test
