// QUANEW in both forms (10 on the inverse, 11 on the factor) and DBLDOG (9), driven on a record, in
// states that the runs over the problem library and the walks through failures do not reach.
#include <gtest/gtest.h>

#include <cmath>

#include "aasubs/linesearch/znlplis.h"
#include "aasubs/quasinewton/znlpupd.h"
#include "support/record.h"

namespace tqnlp::test {
namespace {

constexpr int DOGLEG = 9, INVERSE = 10, FACTOR = 11;

// Installs a problem with the settings that an entry gives a quasi-Newton run.
void install_quasi_newton(TestRecord& record, const Problem& problem) {
  install(record, problem);
  record.updat = znlpbfg, record.linse = znlpls2;
  record.sigm = MISSING, record.maxi = 400, record.maxf = 2000;
}

// Strictly convex, minimum at x_i = (i + 1)/2 where nothing constrains it; curvature grows with i.
Problem convex(long n, double quartic = 0.1) {
  const std::vector<double> start(static_cast<std::size_t>(n), 2.0);
  return scalar_problem("convex", start, {}, [n, quartic](auto x) {
    auto sum = 0.0 * x[0];
    for (long i = 0; i < n; ++i) {
      const auto d = x[i] - 0.5 * double(i + 1);
      sum += double(1 + i) * (d * d + quartic * d * d * d * d);
      if (i > 0) sum += 0.3 * d * (x[i - 1] - 0.5 * double(i));
    }
    return sum;
  });
}

class Quanew : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(Forms, Quanew, testing::Values(DOGLEG, INVERSE, FACTOR));

TEST_P(Quanew, EndsWhereNothingIsFree) {
  const Problem problem = convex(3);
  // Fixed parameters; a vertex of general constraints, which is also reached without a criterion
  // that could be met.
  for (int kind = 0; kind < 3; ++kind) {
    TestRecord record(3, GetParam());
    install_quasi_newton(record, problem);
    if (kind == 0) record.with_bounds({1, 2, 3}, {1, 2, 3});
    if (kind > 0) record.with_rows({{{1, 0, 0}, 0, 1}, {{1, 1, 0}, 0, 2}, {{1, 1, 1}, 0, 3}});
    if (kind == 2) record.mini = 5;
    EXPECT_GT(run_technique(record), 0);
    EXPECT_EQ(record.nitr, 0.0);
    EXPECT_EQ(record.gmax, 0.0);
    EXPECT_NEAR(record.x[2], kind == 0 ? 3.0 : 1.0, 1e-12);
  }
}

// No Hessian; one given packed; as a diagonal; a diagonal that is not positive definite, which is
// given up; and one with a row that becomes active, whose basis the inverse cannot follow.
TEST_P(Quanew, AGivenHessianStartsTheMatrix) {
  const Problem problem = convex(14, 1e-4);
  double iterations[5];
  for (int kind = 0; kind < 5; ++kind) {
    TestRecord record(14, GetParam());
    install_quasi_newton(record, problem);
    record.dhes = 1.0, record.load = kind > 0 ? 1 : 0, record.hfrm = kind == 2 || kind == 3 ? 2 : 0;
    if (record.hfrm == 2)
      record.h = [=](const double*, double* h) {
        for (long i = 0; i < 14; ++i) h[i] = (kind == 2 ? 2.0 : -2.0) * double(1 + i);
      };
    std::vector<double> row(14, 0.0);
    row.back() = -1.0;
    if (kind == 4) record.with_rows({{row, 1, -5.0}});
    EXPECT_GT(run_technique(record), 0);
    EXPECT_LE(record.gmax, 1e-3);
    EXPECT_EQ(record.nhes, record.load);
    iterations[kind] = record.nitr;
  }
  EXPECT_LE(iterations[1], 4.0);
  EXPECT_LT(iterations[2], 0.7 * iterations[0]);
  EXPECT_LE(iterations[4], 1.5 * iterations[0]);
}

// A period of one iteration leaves steepest descent on the start matrix.
TEST_P(Quanew, RestartsWhenItsPeriodIsOver) {
  const Problem problem = convex(6);
  TestRecord record(6, GetParam());
  install_quasi_newton(record, problem);
  record.nres = 1;
  record.salf = 0.5;
  record.linse = [](MINSTR* str) {
    for (long i = 1; i < 6; ++i)
      EXPECT_NEAR(str->sdir[i] * str->grad[0], str->sdir[0] * str->grad[i], 1e-12 * str->gmax);
    return znlpls2(str);
  };
  EXPECT_GT(run_technique(record), 0);
  // The dogleg makes the iteration at the end of its period before it restarts.
  const double period = GetParam() == DOGLEG ? 2.0 : 1.0;
  EXPECT_GE(period * static_cast<double>(record.ires), record.nitr - period);
  EXPECT_EQ(record.nhup, 0);
  EXPECT_EQ(record.salf, 1.0);
}

// What could go on for ever: a test that overrules every stop, a search that never moves, a slope
// that is no number.
TEST_P(Quanew, EndsWhenNothingMoves) {
  const Problem problem = convex(2);
  for (int kind = 0; kind < 3; ++kind) {
    TestRecord record(2, GetParam());
    install_quasi_newton(record, problem);
    if (kind == 1 && GetParam() == DOGLEG) continue;  // it does not search
    if (kind == 0) record.uster = [](MINSTR*, int) { return 100; };
    if (kind == 1) record.linse = [](MINSTR* str) { return str->alfa = 0.0, 1; };
    if (kind == 2) record.usgrd = [](MINSTR* str) { return str->grad[0] = NAN, 0; };
    const int code = run_technique(record);
    EXPECT_TRUE(kind == 2 ? code < 0 : code == -5) << kind << " " << code;
    EXPECT_TRUE(kind == 0 || record.point() == problem.start);
  }
}

}  // namespace
}  // namespace tqnlp::test
