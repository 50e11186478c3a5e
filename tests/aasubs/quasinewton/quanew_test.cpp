// QUANEW in both forms (10 on the inverse, 11 on the factor), driven on a record.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpbas.h"
#include "aasubs/control/znlpdrv.h"
#include "aasubs/linesearch/znlplis.h"
#include "aasubs/quasinewton/znlpupd.h"
#include "problems/problem.h"

namespace tqnlp::test {
namespace {

constexpr int INVERSE = 10, FACTOR = 11;

// Installs a problem with the settings that an entry gives a quasi-Newton run.
void install_quasi_newton(TestRecord& record, const Problem& problem, int tupd = 1) {
  install(record, problem);
  record.tupd = tupd;
  record.updat = tupd == 2 ? znlpdfp : znlpbfg;
  record.linse = znlpls2;
  record.sigm = MISSING;
  record.maxi = 400;
  record.maxf = 2000;
}

int run(TestRecord& record) {
  const int code = znlpdrv(&record, 1, 0, 0, 0);
  return code != 0 ? code : znlpdrv(&record, 2, 0, 0, 0);
}

Problem rosenbrock() {
  return scalar_problem("Rosenbrock", {-1.2, 1}, {0}, [](auto x) {
    return 100.0 * (x[1] - x[0] * x[0]) * (x[1] - x[0] * x[0]) + (1.0 - x[0]) * (1.0 - x[0]);
  });
}

// Strictly convex, minimum at x_i = (i + 1)/2 where nothing constrains it; curvature grows with i.
Problem convex(long n, double quartic = 0.1) {
  return scalar_problem("convex", std::vector<double>(static_cast<std::size_t>(n), 2.0), {},
                        [n, quartic](auto x) {
                          auto sum = 0.0 * x[0];
                          for (long i = 0; i < n; ++i) {
                            const auto d = x[i] - 0.5 * static_cast<double>(i + 1);
                            sum += static_cast<double>(1 + i) * (d * d + quartic * d * d * d * d);
                            if (i > 0) sum += 0.3 * d * (x[i - 1] - 0.5 * static_cast<double>(i));
                          }
                          return sum;
                        });
}

class Quanew : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(Forms, Quanew, testing::Values(INVERSE, FACTOR));

TEST_P(Quanew, ConvergesSuperlinearly) {
  static std::vector<double>* history;
  for (int tupd : {1, 2}) {
    const Problem problem = rosenbrock();
    TestRecord record(2, GetParam());
    install_quasi_newton(record, problem, tupd);
    std::vector<double> gradients;
    history = &gradients;
    record.uster = [](MINSTR* str, int job) {
      history->push_back(str->gmax);
      return str->gmax <= 1e-11 ? 3 : (str->nitr >= 100 || job < 0 ? -8 : 0);
    };
    EXPECT_EQ(run(record), 3);
    EXPECT_LT(record.nitr, 60);
    EXPECT_EQ(record.ires, 0);
    ASSERT_GE(gradients.size(), 5u);
    // The last steps gain much more than a constant factor.
    const std::size_t last = gradients.size() - 1;
    EXPECT_LT(gradients[last], 0.02 * gradients[last - 1]) << "tupd " << tupd;
    EXPECT_LT(gradients[last], 1e-5 * gradients[last - 3]) << "tupd " << tupd;
  }
}

// The same constrained minimum in every frame and from every form, checked by its multipliers: the
// projected gradient is zero and what is active pushes outward.
TEST_P(Quanew, SolvesInEveryFrame) {
  for (long n : {6L, 14L}) {  // without and with scaling
    const Problem problem = convex(n);
    const auto size = static_cast<std::size_t>(n);
    for (int tupd : {1, 2}) {
      for (int frame = 0; frame < 4; ++frame) {
        SCOPED_TRACE(testing::Message() << "n " << n << " tupd " << tupd << " frame " << frame);
        TestRecord record(n, GetParam());
        install_quasi_newton(record, problem, tupd);
        record.agtl = 1e-5;
        record.gtol = record.ftol = 0.0;
        if (frame % 2 == 1) {
          record.with_bounds(std::vector<double>(size, 1.0), std::vector<double>(size, 2.5));
        }
        if (frame >= 2) {
          std::vector<double> ones(size, 1.0), tail(size, 0.0);
          tail[0] = 1.0;
          tail[size - 1] = -1.0;
          record.with_rows({{ones, 0, 2.0 * static_cast<double>(n)}, {tail, 1, -1.2}});
        }
        const int code = run(record);
        EXPECT_TRUE(code == 3 || code == 10) << code << " gmax " << record.gmax;
        EXPECT_LE(record.gmax, 1e-5);
        EXPECT_EQ(znlpfch(&record, 0, 0, 1), 0);
        if (frame == 0) {
          for (long i = 0; i < n; ++i) EXPECT_NEAR(record.x[i], 0.5 * double(i + 1), 1e-5);
        }
        if (frame == 1) {
          std::vector<double> g(size);
          problem.evaluate(record.x, g.data());
          for (long i = 0; i < n; ++i) {
            const double slope = g[static_cast<std::size_t>(i)];
            if (record.x[i] > 1.0 + 1e-9) {
              EXPECT_LE(slope, 1e-5);
            }
            if (record.x[i] < 2.5 - 1e-9) {
              EXPECT_GE(slope, -1e-5);
            }
          }
        }
      }
    }
  }
}

TEST_P(Quanew, EndsWhereNothingIsFree) {
  const Problem problem = convex(3);
  TestRecord fixed(3, GetParam());
  install_quasi_newton(fixed, problem);
  fixed.with_bounds({1, 2, 3}, {1, 2, 3});
  EXPECT_GT(run(fixed), 0);
  EXPECT_EQ(fixed.nitr, 0.0);
  EXPECT_EQ(fixed.gmax, 0.0);

  // A vertex of general constraints, which is also reached without a criterion that could be met.
  for (bool criteria : {true, false}) {
    TestRecord vertex(3, GetParam());
    install_quasi_newton(vertex, problem);
    vertex.with_rows({{{1, 0, 0}, 0, 1}, {{1, 1, 0}, 0, 2}, {{1, 1, 1}, 0, 3}});
    if (!criteria) vertex.mini = 5;
    EXPECT_GT(run(vertex), 0);
    EXPECT_EQ(vertex.nitr, 0.0);
    EXPECT_NEAR(vertex.x[2], 1.0, 1e-12);
  }
}

TEST_P(Quanew, AGivenHessianStartsTheMatrix) {
  const Problem problem = convex(14, 1e-4);
  for (int load : {0, 1}) {
    TestRecord record(14, GetParam());
    install_quasi_newton(record, problem);
    record.load = load;
    record.dhes = 1.0;
    EXPECT_GT(run(record), 0);
    EXPECT_EQ(record.nhes, load);
    if (load != 0) {
      EXPECT_LE(record.nitr, 4.0);
    } else {
      EXPECT_GT(record.nitr, 4.0);
    }
  }
  // Given as a diagonal; one that is not positive definite is given up.
  for (double sign : {1.0, -1.0}) {
    TestRecord record(14, GetParam());
    install_quasi_newton(record, problem);
    record.load = 1;
    record.hfrm = 2;
    record.h = [&](const double*, double* h) {
      for (long i = 0; i < 14; ++i) h[i] = sign * 2.0 * static_cast<double>(1 + i);
    };
    EXPECT_GT(run(record), 0);
    EXPECT_LE(record.gmax, 1e-3);
  }
}

TEST_P(Quanew, RestartsWhenItsPeriodIsOver) {
  const Problem problem = convex(6);
  TestRecord record(6, GetParam());
  install_quasi_newton(record, problem);
  record.nres = 1;
  record.salf = 0.5;
  EXPECT_GT(run(record), 0);
  EXPECT_GE(static_cast<double>(record.ires), record.nitr - 1);
  EXPECT_EQ(record.nhup, 0);
  EXPECT_EQ(record.salf, 1.0);
}

// The k-th evaluation fails, and from there on none, one or all: every run ends, with the values of
// the point that it returns.
TEST_P(Quanew, SurvivesFailedEvaluations) {
  const Problem problem = rosenbrock();
  for (bool bounded : {false, true}) {
    for (int k = 1; k < 60; ++k) {
      for (int many : {1, 4, 1000000}) {
        SCOPED_TRACE(testing::Message() << k << " " << many << " " << bounded);
        TestRecord record(2, GetParam());
        install_quasi_newton(record, problem);
        if (bounded) record.with_bounds({-3, -3}, {0.8, 3});
        int calls = 0;
        const auto fails = [&] { return ++calls >= k && calls < k + many; };
        record.f = [&](const double* x) { return fails() ? NAN : problem.value(x); };
        record.g = [&](const double* x, double* g) {
          problem.evaluate(x, g);
          if (fails()) g[1] = NAN;
        };
        const int code = run(record);
        EXPECT_LT(calls, 3000);
        if (code > 0) {
          EXPECT_EQ(record.crit, problem.value(record.x));
          EXPECT_LE(record.crit, bounded ? 0.05 : 1e-6);
        } else {
          EXPECT_TRUE(code == -1 || code == -2 || code == -3 || code == -4 || code == -5) << code;
        }
      }
    }
  }
}

// What could go on for ever: a test that overrules every stop, a search that never moves, a slope
// that is no number.
TEST_P(Quanew, EndsWhenNothingMoves) {
  const Problem problem = rosenbrock();
  TestRecord stubborn(2, GetParam());
  install_quasi_newton(stubborn, problem);
  stubborn.uster = [](MINSTR*, int) { return 100; };
  EXPECT_EQ(run(stubborn), -5);

  TestRecord stuck(2, GetParam());
  install_quasi_newton(stuck, problem);
  stuck.linse = [](MINSTR* str) {
    str->alfa = 0.0;
    return 1;
  };
  EXPECT_EQ(run(stuck), -5);
  EXPECT_EQ(stuck.point(), problem.start);

  TestRecord broken(2, GetParam());
  install_quasi_newton(broken, problem);
  broken.usgrd = [](MINSTR* str) {
    str->grad[0] = NAN;
    return 0;
  };
  EXPECT_LT(run(broken), 0);
}

}  // namespace
}  // namespace tqnlp::test
