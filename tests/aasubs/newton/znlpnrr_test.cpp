// What the Newton techniques promise alike, and NRRIDG alone.
#include "aasubs/newton/znlpnrr.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>

#include "aasubs/driver/znlpdrv.h"
#include "support/record.h"

namespace tqnlp::test {
namespace {

using Vec = std::vector<double>;

Problem rosenbrock() {
  return scalar_problem("Rosenbrock", {-1.2, 1}, {0}, [](auto x) {
    return 100.0 * (x[1] - x[0] * x[0]) * (x[1] - x[0] * x[0]) + (1.0 - x[0]) * (1.0 - x[0]);
  });
}

// 0.5 x'Hx - b'x with H = tridiag(-1, 4, -1) and b = 1.
Problem quadratic(long n) {
  return scalar_problem("quadratic", Vec(static_cast<std::size_t>(n), 3.0), {}, [n](auto x) {
    auto sum = 2.0 * x[0] * x[0] - x[0];
    for (long i = 1; i < n; ++i) sum += 2.0 * x[i] * x[i] - x[i] - x[i] * x[i - 1];
    return sum;
  });
}

class Newton : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(Techniques, Newton, testing::Values(TRUREG, NRRIDG, NRLINS));

TEST_P(Newton, ConvergesQuadraticallyNearTheSolution) {
  TestRecord record(2, GetParam());
  const Problem problem = rosenbrock();
  install(record, problem);
  static std::vector<double> gradients;
  gradients.clear();
  record.uster = [](MINSTR* str, int job) {
    gradients.push_back(str->gmax);
    return str->gmax <= 1e-12 ? 3 : (str->nitr >= 60 ? -8 : job < 0 ? job : 0);
  };
  EXPECT_EQ(run_technique(record), 3);
  EXPECT_LT(record.nitr, 30);
  EXPECT_EQ(record.nhes, static_cast<long>(record.nitr) + 1);
  EXPECT_NEAR(record.x[0], 1.0, 1e-10);
  ASSERT_GE(gradients.size(), 4u);
  const double last = gradients.back(), before = gradients[gradients.size() - 2];
  EXPECT_LE(last, 1e4 * before * before + 1e-13) << "order of convergence is below two";
}

TEST_P(Newton, SolvesAConvexQuadraticInEveryFrame) {
  const long n = 6;
  const std::function<void(TestRecord&)> frames[] = {
      [](auto&) {}, [](auto& r) { r.with_bounds(Vec(n, -HUGE_VALUE), Vec(n, 9)); },
      [](auto& r) {
        r.with_rows({{Vec(n, 1), 0, 18}, {{1, -1, 0, 0, 0, 0}, 0, 0}});
      },
      [](auto& r) { r.hesc = 1; },
      // Every parameter is fixed: nothing moves.
      [](auto& r) {
        r.with_bounds({1, 2, 3, 4, 5, 6}, {1, 2, 3, 4, 5, 6});
      }};
  const Problem problem = quadratic(n);
  for (std::size_t k = 0; k < std::size(frames); ++k) {
    SCOPED_TRACE(k);
    TestRecord record(n, GetParam());
    install(record, problem);
    frames[k](record);
    EXPECT_GT(run_technique(record), 0);
    // The trust region begins with a step of length 1.
    EXPECT_LE(record.nitr, k == 4 ? 0.0 : GetParam() == TRUREG ? 4.0 : 2.0);
    EXPECT_LE(record.gmax, k == 4 ? 0.0 : 1e-9);
    EXPECT_TRUE(k != 2 || std::fabs(record.x[0] - record.x[1]) <= 1e-12);
    EXPECT_TRUE(k != 4 || record.x[2] == 3.0);
  }
}

TEST_P(Newton, LeavesTheRegionWhereADiagonalHessianIsIndefinite) {
  // A saddle at the origin, minima at x = (+-1, 0).
  const Problem problem = scalar_problem("saddle", {0.1, 1}, {}, [](auto x) {
    return 0.25 * x[0] * x[0] * x[0] * x[0] - 0.5 * x[0] * x[0] + x[1] * x[1];
  });
  TestRecord record(2, GetParam());
  install(record, problem);
  record.hfrm = 2;
  record.h = [&](const double* x, double* h) { h[0] = 3 * x[0] * x[0] - 1, h[1] = 2; };
  EXPECT_GT(run_technique(record), 0);
  EXPECT_NEAR(record.crit, -0.25, 1e-9);
}

TEST_P(Newton, EndsWithACodeWhenTheKthEvaluationFails) {
  const Problem problem = rosenbrock();
  enum { function, gradient, hessian };
  for (int which : {function, gradient, hessian}) {
    for (long k = 1; k < 60; ++k) {
      TestRecord record(2, GetParam());
      install(record, problem);
      long calls = 0;
      const auto fails = [&](int kind) { return kind == which && ++calls >= k; };
      record.f = [&](const double* x) { return fails(function) ? MISSING : problem.value(x); };
      record.g = [&](const double* x, double* g) {
        problem.evaluate(x, g);
        if (fails(gradient)) g[1] = std::nan("");
      };
      record.h = [&, exact = record.h](const double* x, double* h) {
        exact(x, h);
        if (fails(hessian)) h[0] = std::nan("");
      };
      const int code = run_technique(record);
      // -11: the module failed again when the run restarted from the last good point
      EXPECT_TRUE(code > 0 ? record.crit < 1e-8 : code == -11 || (code >= -4 && code <= -1))
          << "kind " << which << " k " << k << " code " << code;
      EXPECT_TRUE(std::isfinite(record.x[0]) && std::isfinite(record.x[1]));
      EXPECT_LE(problem.value(record.x), 24.2);
    }
  }
}

// The second trial ties with the first, so that the slope decides; the gradient fails there, and
// then the objective at the final evaluation, which is what the code must tell.
TEST(Nrridg, FailureOfTheFinalEvaluationIsTheObjectives) {
  for (const long values : {4L, 100L}) {
    TestRecord record(1);
    long functions = 0, gradients = 0;
    record.f = [&](const double*) {
      return ++functions > values ? MISSING : functions < 3 ? 10 : 5;
    };
    record.g = [&](const double*, double* g) { g[0] = ++gradients > 3 ? std::nan("") : 1.0; };
    record.h = [](const double*, double* h) { h[0] = 1.0; };
    record.with_callbacks();
    ASSERT_EQ(znlpdrv(&record, 1, 0, 0, 0), 0);
    EXPECT_EQ(znlpnrr(&record), values == 4 ? -3 : -4);
    EXPECT_EQ(record.nitr, 1.0);
  }
}

// Gradient and Hessian at the trial that is given up must not enter the next step from xold.
TEST(Nrridg, SolvesAgainFromXoldWhenDerivativesFailAtATrial) {
  TestRecord record(2);
  std::vector<Vec> trials;
  record.f = [&](const double* x) {
    trials.push_back({x[0], x[1]});
    return std::exp(x[0] + x[1]) + 2 * x[0] * x[0] + x[1] * x[1];
  };
  record.g = [](const double* x, double* g) {
    const double e = std::exp(x[0] + x[1]);
    g[0] = e + 4 * x[0], g[1] = e + 2 * x[1];
  };
  long hessians = 0;
  record.h = [&](const double* x, double* h) {
    const double e = std::exp(x[0] + x[1]);
    h[0] = e + 4, h[1] = ++hessians == 2 ? std::nan("") : e, h[2] = e + 2;
  };
  record.with_callbacks().at({0.0, 0.0});
  ASSERT_GT(run_technique(record), 0);
  const double ridge = 0.03125;  // the least first ridge; (5 + r, 1; 1, 3 + r) s = -(1, 1)
  const double determinant = (5 + ridge) * (3 + ridge) - 1;
  EXPECT_TRUE(std::ranges::any_of(trials, [=](const Vec& x) {
    return std::fabs(x[0] + (2 + ridge) / determinant) < 1e-12 &&
           std::fabs(x[1] + (4 + ridge) / determinant) < 1e-12;
  }));
}

TEST_P(Newton, EndsOnAnObjectiveThatIsNoNumberOrUnbounded) {
  const Problem problem = scalar_problem(
      "cubic", {1.0, 1.0}, {}, [](auto x) { return -1.0 * x[0] * x[0] * x[0] - x[1] * x[1]; });
  TestRecord record(2, GetParam()), noisy(2, GetParam());
  install(record, problem);
  const int code = run_technique(record);
  EXPECT_TRUE((code == -8 || code == 1 || code == -5) && record.crit < -1e3) << code;
  install(noisy, problem);
  noisy.usfct = [](MINSTR* str) {
    str->crit = str->nfct++ == 0 ? 1.0 : std::nan("");
    return str->tbig = 0.0, 0;
  };
  EXPECT_LT(run_technique(noisy), 0);
}

}  // namespace
}  // namespace tqnlp::test
