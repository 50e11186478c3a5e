// NLPFDD, and differences at the edge of the domain of an objective.
#include <gtest/gtest.h>

#include <cmath>

#include "front_call.h"

namespace tqnlp::test {
namespace {

// f = exp(x) + x y^2 and three functions of (x, y).
void define(Session& session) {
  session.module("F", [](const Matrix& x) {
    return Matrix::scalar(std::exp(x(0, 0)) + x(0, 0) * x(0, 1) * x(0, 1));
  });
  session.module("G", [](const Matrix& x) {
    return Matrix::row({std::exp(x(0, 0)) + x(0, 1) * x(0, 1), 2 * x(0, 0) * x(0, 1)});
  });
  session.module("R", [](const Matrix& x) {
    return Matrix::col({x(0, 0) * x(0, 1), std::sin(x(0, 0)), 3 * x(0, 1)});
  });
  session.module("POINT", [](const Matrix& x) {  // can be evaluated at one point alone
    return Matrix::scalar(x(0, 0) == 1 ? 5.0 : missing);
  });
}

void expect_matrix(const Matrix& matrix, long rows, std::vector<double> values, double error) {
  ASSERT_EQ(matrix.rows(), rows);
  ASSERT_EQ(matrix.rows() * matrix.cols(), static_cast<long>(values.size()));
  for (std::size_t k = 0; k < values.size(); ++k) EXPECT_NEAR(matrix.data()[k], values[k], error);
}

TEST(Nlpfdd, OneFunction) {
  Session session;
  define(session);
  const double x = 0.5, y = -1.5;
  const double f = std::exp(x) + x * y * y;
  struct Case {
    double code;  // element 2 of par
    Matrix gradient_module;
    double gradient_error, hessian_error;
  };
  for (const Case& c :
       {Case{0, NONE, 1e-7, 1e-3}, Case{1, NONE, 1e-9, 1e-4}, Case{0, "G", 1e-15, 1e-6},
        Case{1, "G", 1e-15, 1e-8}, Case{10, NONE, 1e-6, 1e-2}, Case{11, NONE, 1e-6, 1e-2}}) {
    const auto results = session.call(
        "NLPFDD", {"F", Matrix::row({x, y}), Matrix::row({1, c.code}), c.gradient_module});
    ASSERT_EQ(results.size(), 3U);
    EXPECT_EQ(results[0](0, 0), f);
    expect_matrix(results[1], 1, {std::exp(x) + y * y, 2 * x * y}, c.gradient_error);
    expect_matrix(results[2], 2, {std::exp(x), 2 * y, 2 * y, 2 * x}, c.hessian_error);
    EXPECT_EQ(results[2](0, 1), results[2](1, 0));
  }
  // A missing element of x0 counts as 0; few digits make wide, and so less accurate, steps.
  const auto rough =
      session.call("NLPFDD", {"F", Matrix::col({missing, 2}), Matrix::row({1, 0, 4})});
  expect_matrix(rough[1], 1, {5, 0}, 0.02);
  EXPECT_GT(std::fabs(rough[1](0, 0) - 5), 1e-3);
}

TEST(Nlpfdd, SeveralFunctionsGiveJacobianAndCrossproduct) {
  Session session;
  define(session);
  const double x = 0.5, y = -1.5, c = std::cos(x);
  for (const double code : {0.0, 1.0, 10.0}) {
    // The gradient module is ignored: only function values are asked for.
    const auto results =
        session.call("NLPFDD", {"R", Matrix::row({x, y}), Matrix::row({3, code}), "G"});
    expect_matrix(results[0], 3, {x * y, std::sin(x), 3 * y}, 0);
    const double error = code == 1 ? 1e-9 : 1e-6;
    expect_matrix(results[1], 3, {y, x, c, 0, 0, 3}, error);
    expect_matrix(results[2], 2, {y * y + c * c, x * y, x * y, x * x + 9}, 10 * error);
  }
}

// Refused without results: a point that cannot be evaluated, or its neighbourhood.
TEST(Nlpfdd, FailedEvaluation) {
  for (const double at : {1.0, 2.0}) {
    for (const double code : {0.0, 1.0, 10.0}) {
      Session session;
      define(session);
      const Answer answer =
          enter(session, tqxfdd, {"POINT", Matrix::scalar(at), Matrix::row({1, code})});
      EXPECT_TRUE(answer.code == 6 && answer.results.empty());
      EXPECT_EQ(answer.messages, std::vector<int>{193});
    }
  }
}

// Objectives that do not exist beyond a bound, or beside a point on the edge of their domain.
TEST(Differences, AtTheEdgeOfTheDomain) {
  const auto power = [](double x, double p) { return x < 0 ? missing : std::pow(x, p); };
  const auto run = [](const char* subroutine, double differences, const Matrix& start,
                      const Matrix& bounds, auto f, const Matrix& gradient) {
    Session session;
    session.module("F", [&](const Matrix& x) { return Matrix::scalar(f(x)); });
    session.module("G", [&](const Matrix& x) {
      return Matrix::row({2 * (x[0] - 3), x[1] < 0 ? missing : 1.5 * std::sqrt(x[1])});
    });
    const double M = missing;
    const auto results =
        session.call(subroutine, {"F", start, Matrix::row({0, 0, M, M, M, M, M, differences}),
                                  bounds, NONE, NONE, NONE, gradient});
    EXPECT_GT(results[0][0], 0) << text_report(session);
    return results[1];
  };
  // Estimated intervals from the bound.
  const Matrix root = run(
      "NLPNRR", 10, Matrix::scalar(0), Matrix::col({0, missing}),
      [&](const Matrix& x) { return power(x[0], 1.5) - x[0]; }, NONE);
  EXPECT_NEAR(root[0], 4.0 / 9, 1e-6);
  // A box narrower than the interval, and nothing below it.
  const Matrix corner = run(
      "NLPQN", 1, Matrix::row({4e-6, 3}), Matrix(2, 2, {1e-7, -9, 5e-6, 9}),
      [](const Matrix& x) { return x[0] > 0 ? x[1] * x[1] - std::log(x[0]) : missing; }, NONE);
  EXPECT_EQ(corner[0], 5e-6);
  EXPECT_NEAR(corner[1], 0, 1e-5);
  // No gradient on one side: the column of the Hessian is left out.
  const Matrix kink = run(
      "NLPNRR", 2, Matrix::row({1, 0}), NONE,
      [&](const Matrix& x) { return (x[0] - 3) * (x[0] - 3) + power(x[1], 1.5); }, Matrix("G"));
  EXPECT_NEAR(kink[0], 3, 1e-6);
  EXPECT_EQ(kink[1], 0);
}

}  // namespace
}  // namespace tqnlp::test
