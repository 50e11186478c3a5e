// Whole calls: NLPNRR from the arguments to the results, NLPFEA, and what disturbs a call: a start
// that cannot be evaluated, a test that never ends the run. Everything else that can fail is walked
// through at the public interface.
#include <gtest/gtest.h>

#include <tuple>

#include "front_call.h"
#include "support/rosenbrock.h"

namespace tqnlp::test {
namespace {

struct Rosenbrock {
  Session session;

  Rosenbrock() { define_rosenbrock(session); }
  Answer run(Matrix x0, Matrix opt = NONE, Matrix blc = NONE, Matrix ptit = NONE) {
    return enter(session, tqxnrr, {"F", x0, opt, blc, NONE, NONE, ptit, "G", "H"});
  }
};

const Matrix START = Matrix::row({-1.2, 1});
const Matrix LOUD = Matrix::row({0, 9});
const Matrix BOUNDS_AND_ROW(3, 4,
                            {-5, -5, MISSING, MISSING, 0.7, 5, MISSING, MISSING, 1, 1, -1, 4});

// The minimum from vectors in either shape, from missing elements (which count as 0), and from
// outside of the region.
TEST(Call, FindsTheMinimum) {
  const std::tuple<Matrix, Matrix, double> cases[] = {
      {Matrix::col({-1.2, 1}), NONE, 1},
      {Matrix::row({MISSING, NOT_A_NUMBER}), NONE, 1},
      {Matrix::row({9, 9}), BOUNDS_AND_ROW, 0.7}};
  Rosenbrock problem;
  for (const auto& [x0, blc, x1] : cases) {
    const Answer answer = problem.run(x0, LOUD, blc);
    ASSERT_EQ(answer.results.size(), 2u);
    EXPECT_GT(answer.results[0][0], 0.0);
    EXPECT_GT(problem.session.variable("_ITER_")[0], 2.0);
    EXPECT_NEAR(answer.results[1][0], x1, 1e-5);
    EXPECT_EQ(answer.results[1].cols(), 2);
    EXPECT_EQ(answer.blocks_left, 0);
  }
}

// What cannot be evaluated at the start is named in the log, whatever the way; a wrong shape with a
// message of its own.
TEST(Call, AFailedStartNamesTheModule) {
  const struct {
    const char* module;
    Matrix answer;
    double code;
    int message;
  } cases[] = {{"F", Matrix::scalar(MISSING), -1, 192},
               {"F", Matrix::scalar(-INF), -1, 192},
               {"F", Matrix::row({1, 2}), -1, 148},
               {"G", Matrix::row({1, INF}), -2, 192},
               {"G", Matrix::col({1, 2}), -2, 166},
               {"H", Matrix(2, 2, {INF, 0, 0, 1}), -2, 151},
               {"H", Matrix(1, 2), -2, 150}};
  for (const auto& c : cases) {
    Rosenbrock problem;
    problem.session.module(c.module, [&c](const Matrix&) { return c.answer; });
    const Answer answer = problem.run(START);
    ASSERT_EQ(answer.code, 0);
    EXPECT_EQ(answer.results[0](0, 0), c.code) << c.message;
    EXPECT_EQ(answer.messages, std::vector<int>{c.message});
    EXPECT_NE(problem.session.log()[0].text.find(std::string("module ") + c.module),
              std::string::npos);
  }
}

// Least squares of three functions: the first answers of F and J go wrong from call `good` on.
TEST(Call, LeastSquaresFromBadModules) {
  const Matrix start = Matrix::row({1, 2}), three = Matrix::row({3});
  const struct {
    const char* module;
    Matrix answer;
    long good;
    double code;
    std::vector<int> messages;
  } cases[] = {{"F", Matrix(2, 1), 0, -1, {149}},
               {"F", Matrix::col({1, MISSING, 1}), 0, -1, {192}},
               {"F", Matrix::col({1, 1e155, 1}), 0, -1, {192}},
               {"F", Matrix::col({MISSING, MISSING, MISSING}), 2, -3, {194}},
               {"J", Matrix(2, 3), 0, -2, {150, 208}},
               {"J", Matrix(3, 2, {1, 0, MISSING, 1, 1, 1}), 0, -2, {192}}};
  for (const auto& c : cases) {
    Session session;
    long calls = 0;
    const auto define = [&](const char* name, auto right) {
      session.module(name, [&calls, &c, name, right](const Matrix& x) {
        return std::string(name) == c.module && calls++ >= c.good ? c.answer : right(x);
      });
    };
    define("F", [](const Matrix& x) {
      return Matrix::col({x[0] * x[0] - 4, x[1] - 3, x[0] * x[1] - 6});
    });
    define("J", [](const Matrix& x) { return Matrix(3, 2, {2 * x[0], 0, 0, 1, x[1], x[0]}); });
    const Answer answer = enter(session, tqxlm, {"F", start, three, NONE, NONE, NONE, NONE, "J"});
    ASSERT_EQ(answer.code, 0);
    EXPECT_EQ(answer.results[0](0, 0), c.code);
    EXPECT_EQ(answer.messages, c.messages);
  }
}

// The Jacobian's file on disk gives the bits of the one in memory; more parameters than functions
// are remarked on.
TEST(Call, WorkFilesOnDiskChangeNothing) {
  std::vector<Matrix> runs;
  for (const std::size_t memory : {std::size_t{1} << 30, std::size_t{0}}) {
    Session session;
    session.work_file_memory(memory);
    session.module("F", [](const Matrix& x) {
      return Matrix::col({x[0] * x[1] - 6, std::exp(x[2]) - x[0]});
    });
    const Answer answer = enter(session, tqxlm, {"F", Matrix::row({1, 2, 1}), Matrix::row({2})});
    EXPECT_EQ(answer.messages, std::vector<int>{209});
    runs.push_back(answer.results.at(1));
  }
  for (long j = 0; j < 3; ++j) EXPECT_EQ(runs[0][j], runs[1][j]);
}

// A module that never gives a code must not keep a run going that has come to rest.
TEST(Call, ATerminationModuleThatNeverStopsIsOverruled) {
  for (const double code : {0.0, 100.0}) {
    Rosenbrock problem;
    problem.session.termination_module("GO", [code](const Matrix&, double) { return code; });
    const Answer answer = problem.run(START, LOUD, NONE, "GO");
    ASSERT_EQ(answer.code, 0);
    EXPECT_EQ(answer.results[0](0, 0), -5);
    EXPECT_EQ(answer.messages, std::vector<int>{191});
    for (const Table& table : problem.session.tables()) EXPECT_NE(table.name, "IterHist");
  }
}

TEST(FeasiblePoint, MovesOnlyWhatMustMove) {
  const double M = MISSING;
  const Matrix box(2, 2, {0, 0, 2, 2});
  const Matrix row(3, 4, {0, 0, M, M, 2, 2, M, M, 1, 1, 0, 3});
  const Matrix impossible(3, 4, {0, 0, M, M, 1, 1, M, M, 1, 1, 1, 3});
  const auto feasible = [](std::vector<Matrix> arguments, const std::vector<int>& messages) {
    Session session;
    const Answer answer = enter(session, tqxfea, std::move(arguments));
    EXPECT_EQ(answer.code, 0);
    EXPECT_EQ(answer.messages, messages);
    return answer.results.at(0);
  };
  EXPECT_EQ(feasible({Matrix::row({1, 0.5}), box}, {}), Matrix::row({1, 0.5}));
  for (const double x : feasible({Matrix::row({-1, M}), box}, {142}).values())
    EXPECT_TRUE(x >= 0.0 && x <= 2.0) << x;
  const Matrix on_row = feasible({Matrix::row({5, 5}), row, Matrix::row({1e-9})}, {142});
  EXPECT_NEAR(on_row(0, 0) + on_row(0, 1), 3.0, 1e-7);
  for (const double x : feasible({Matrix::row({5, 5}), impossible}, {143}).values())
    EXPECT_TRUE(wzmis(x));
}

}  // namespace
}  // namespace tqnlp::test
