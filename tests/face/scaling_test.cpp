// Badly scaled problems with default options, and what the check of a result says of them: one
// table over all techniques, with derivatives and without.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "tqnlp/optimize.hpp"

namespace tqnlp {
namespace {

using Vector = std::vector<double>;

struct Fit {
  const char* name;
  Vector start;
  double best;  // half the sum of squares
  Problem problem, with_jacobian;
};

template <class Residuals, class Jacobian>
Fit fit(const char* name, Vector start, double best, long m, Residuals r, Jacobian j) {
  const auto problem = Problem::least_squares(2, m, r);
  return {name, start, best, problem, Problem(problem).jacobian(j)};
}

// Michaelis and Menten: rates of an enzyme. unit: of the second parameter.
Fit puromycin(double unit) {
  static constexpr double C[] = {.02, .02, .06, .06, .11, .11, .22, .22, .56, .56, 1.1, 1.1};
  static constexpr double V[] = {76, 47, 97, 107, 123, 139, 159, 152, 191, 201, 207, 200};
  return fit(
      "Puromycin", {200, 0.1 * unit}, 597.7244073, 12,
      [unit](Point x, Values r) {
        for (std::size_t i = 0; i < 12; ++i) r[i] = x[0] * C[i] / (x[1] / unit + C[i]) - V[i];
      },
      [unit](Point x, Values j) {
        for (std::size_t i = 0; i < 12; ++i) {
          const double d = x[1] / unit + C[i];
          j[2 * i] = C[i] / d;
          j[2 * i + 1] = -x[0] * C[i] / (d * d) / unit;
        }
      });
}

// Arrhenius: rate constants A exp(-E / RT) with A = 1e12, E = 8e4, off by up to 4 percent.
Fit arrhenius(double unit) {
  const auto rate = [](double a, double e, std::size_t i) {
    return a * std::exp(-e / (8.314 * (300.0 + 10.0 * double(i))));
  };
  return fit(
      "Arrhenius", {0.5e12, 7.8e4}, 0.0640002822827 * unit * unit, 10,
      [=](Point x, Values r) {
        for (std::size_t i = 0; i < 10; ++i)
          r[i] = unit * (rate(x[0], x[1], i) -
                         rate(1e12, 8e4, i) * (1 + 0.02 * (double((i * 7) % 5) - 2)));
      },
      [=](Point x, Values j) {
        for (std::size_t i = 0; i < 10; ++i) {
          j[2 * i] = unit * rate(1, x[1], i);
          j[2 * i + 1] = -x[0] * j[2 * i] / (8.314 * (300.0 + 10.0 * double(i)));
        }
      });
}

// size (1 + banana), where the second parameter has an axis of its own.
Fit banana(double size, double axis, double stiff) {
  const double root = std::sqrt(2 * size), bend = std::sqrt(stiff);
  return fit(
      "Banana", {-1.2, axis}, size, 3,
      [=](Point x, Values r) {
        r[0] = root * bend * (x[1] / axis - x[0] * x[0]);
        r[1] = root * (1 - x[0]);
        r[2] = root;
      },
      [=](Point x, Values j) {
        const double all[] = {-2 * root * bend * x[0], root * bend / axis, -root, 0, 0, 0};
        std::copy(all, all + 6, j.begin());
      });
}

TEST(Scaling, BadlyScaledProblemsEndAtTheirMinimum) {
  int runs = 0;
  for (const Fit& row :
       {puromycin(1), puromycin(1e6), puromycin(1e-6), arrhenius(1), arrhenius(1e-6),
        banana(1, 1e6, 1), banana(1, 1e-6, 1), banana(1e-12, 1, 100), banana(1e12, 1, 100)}) {
    for (int k = 0; k <= static_cast<int>(Technique::watchdog); ++k) {
      for (const Problem& problem : {row.problem, row.with_jacobian}) {
        Options options;
        options.technique = static_cast<Technique>(k);
        SCOPED_TRACE(std::string(row.name) + " " + name_of(options.technique) + " " +
                     std::to_string(row.best));
        try {
          const Result found = solve(problem, row.start, options);
          EXPECT_NEAR(found.objective / row.best, 1, 1e-5) << found.status.sentence();
          EXPECT_TRUE(found.optimality) << found.optimality.sentence();
          ++runs;
        } catch (const std::invalid_argument&) {  // not for least squares
        }
      }
    }
  }
  EXPECT_EQ(runs, 9 * 2 * 16);
}

// Both axes of a quadratic by its matrix, wherever it starts, and between bounds and rows: results
// are in the user's units, as is what is shown on the way.
TEST(Scaling, IsUndoneInAllThatTheUserSees) {
  const auto bowl =
      Problem::quadratic(SymmetricMatrix(2, Vector{2, 1e-6, 1e-6, 2e-12}), {-11, -13e-6});
  for (const double start : {0.0, 1e6}) EXPECT_NEAR(solve(bowl, {1, start}).x[1], 5e6, 1);
  // The nearest point to (3, 5e6) with x <= 1 and x + y / 1e6 <= 4.
  auto near = Problem::minimize(2, [](Point x) {
    EXPECT_LE(x[0], 1);
    return std::pow(x[0] - 3, 2) + std::pow(x[1] / 1e6 - 5, 2);
  });
  near.bounds({-inf, 0}, {1, 1e9}).linear({1, 1e-6}, -inf, 4);
  Options options;
  options.scale = {1, 1e6};
  options.report = 2;
  double last = 0;
  options.progress = [&](const Progress& at) {
    last = at.x[1];
    return true;
  };
  const Result found = solve(near, {0, 1e6}, options);
  ASSERT_TRUE(found.status && found.optimality) << found.optimality.sentence();
  EXPECT_NEAR(found.x[1], 3e6, 1);
  EXPECT_EQ(last, found.x[1]);
  const auto& end = std::find_if(found.tables.rbegin(), found.tables.rend(), [](const Table& t) {
                      return t.name == "ParameterEstimates";
                    })->rows[1];
  EXPECT_TRUE(std::find(end.begin(), end.end(), Cell(last)) != end.end());
  EXPECT_NEAR(found.objective, 8, 1e-5);
  EXPECT_NEAR(found.gradient[1], -4e-6, 1e-11);
  EXPECT_NEAR(found.multipliers.linear[0], -4, 1e-5);
  EXPECT_EQ(found.active.bounds[0], 1);
}

// ---- The check ----------------------------------------------------------------------------------

// At an active bound and for a fixed parameter, without a gradient.
TEST(Check, DifferencesAtABoundAreThoseOfThePoint) {
  auto problem = Problem::minimize(3, [](Point x) {
    return 100 * std::pow(x[1] - x[0] * x[0], 2) + std::pow(1 - x[0], 2) + x[0] * x[2];
  });
  const Result found = solve(problem.bounds({-2, -2, 0.5}, {0.5, 2, 0.5}), {-0.3, 0.1, 0.5});
  EXPECT_TRUE(found.status && found.optimality) << found.optimality.sentence();
  EXPECT_EQ(found.optimality.restarts, 0);
  EXPECT_NEAR(found.multipliers.bounds[0], -0.5, 1e-5);
  EXPECT_TRUE(is_missing(found.gradient[2]) && is_missing(found.multipliers.bounds[2]));
}

// On the circle x^2 + y^2 = 1 the point (1, 0) is a maximum of y^2 - x^2 / 2 or a minimum of -x,
// and nothing but the curvature of the constraint tells.
TEST(Check, CurvatureAlongNonlinearConstraints) {
  for (const double sign : {1.0, -1.0}) {
    auto problem = Problem::minimize(2, [sign](Point x) { return sign * x[0]; });
    problem.gradient([sign](Point, Values g) { g[0] = sign, g[1] = 0; });
    problem.nonlinear({1}, {1}, [](Point x, Values c) { c[0] = x[0] * x[0] + x[1] * x[1]; });
    problem.nonlinear_jacobian([](Point x, Values j) { j[0] = 2 * x[0], j[1] = 2 * x[1]; });
    Options off;
    off.analysis = false;
    EXPECT_TRUE(solve(problem, {1, 0}, off).optimality);  // not looked at
    const Result found = solve(problem, {1, 0});
    EXPECT_TRUE(found.optimality && found.optimality.curvature_known);
    EXPECT_NEAR(found.x[0], -sign, 1e-5);
    EXPECT_EQ(found.optimality.restarts > 0, sign > 0);
  }
}

// A start near 0, and bounds far away, say nothing of sizes.
TEST(Scaling, SmallStartsAndWideBoundsMislead) {
  for (const double start : {1e-300, 1e-20, 1e-6, 0.0}) {
    for (const double bound : {1e5, 1e9, inf}) {
      SCOPED_TRACE(testing::Message() << start << ' ' << bound);
      auto problem = Problem::minimize(
          2, [](Point x) { return 100 * std::pow(x[1] - x[0] * x[0], 2) + std::pow(1 - x[0], 2); });
      problem.bounds({-bound, -bound}, {bound, bound});
      const Result found = solve(problem, {start, start});
      EXPECT_NEAR(found.objective, 0.0, 1e-8);
      EXPECT_TRUE(found.optimality);
    }
  }
}

}  // namespace
}  // namespace tqnlp
