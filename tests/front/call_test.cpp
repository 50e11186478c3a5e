// Whole calls: NLPNRR from the arguments to the results, NLPFEA, and what disturbs a call: refused
// memory, failing evaluations, numbers that are none, a test that never ends the run. Exceptions,
// nested calls, math errors and failing reports are tested at the public interface.
#include <gtest/gtest.h>

#include "front_call.h"

namespace tqnlp::test {
namespace {

// Rosenbrock's function with its derivatives; every evaluation passes `before`, which may throw.
struct Rosenbrock {
  Session session;
  long evaluations = 0;
  std::function<void()> before;

  Rosenbrock() {
    define("F", [](double a, double b) {
      return Matrix::scalar(100 * (b - a * a) * (b - a * a) + (1 - a) * (1 - a));
    });
    define("G", [](double a, double b) {
      return Matrix::row({-400 * a * (b - a * a) - 2 * (1 - a), 200 * (b - a * a)});
    });
    define("H", [](double a, double b) {
      return Matrix(2, 2, {1200 * a * a - 400 * b + 2, -400 * a, -400 * a, 200});
    });
  }
  void define(const char* name, Matrix (*body)(double, double)) {
    session.module(name, [this, body](const Matrix& x) {
      ++evaluations;
      if (before) before();
      return body(x(0, 0), x(0, 1));
    });
  }
  Answer run(Matrix x0, Matrix opt = NONE, Matrix blc = NONE, Matrix tc = NONE, Matrix par = NONE) {
    evaluations = 0;
    return enter(session, tqxnrr, {"F", x0, opt, blc, tc, par, NONE, "G", "H"});
  }
};

const Matrix START = Matrix::row({-1.2, 1});
const Matrix LOUD = Matrix::row({0, 9});
const Matrix BOUNDS_AND_ROW(3, 4,
                            {-5, -5, MISSING, MISSING, 0.7, 5, MISSING, MISSING, 1, 1, -1, 4});

void expect_solution(const Answer& answer, double a, double b) {
  ASSERT_EQ(answer.code, 0);
  ASSERT_EQ(answer.results.size(), 2u);
  EXPECT_GT(answer.results[0](0, 0), 0.0);
  ASSERT_EQ(answer.results[1].cols(), 2);
  EXPECT_NEAR(answer.results[1](0, 0), a, 1e-5);
  EXPECT_NEAR(answer.results[1](0, 1), b, 1e-5);
  EXPECT_EQ(answer.blocks_left, 0);
}

TEST(Call, FindsTheMinimum) {
  Rosenbrock problem;
  expect_solution(problem.run(START), 1, 1);
  expect_solution(problem.run(Matrix::col({-1.2, 1}), LOUD), 1, 1);
  EXPECT_GT(problem.session.variable("_ITER_")[0], 5.0);
  expect_solution(problem.run(Matrix::row({MISSING, NOT_A_NUMBER})), 1, 1);  // starts at 0, 0
  expect_solution(problem.run(START, NONE, BOUNDS_AND_ROW), 0.7, 0.49);
  // from outside the region
  expect_solution(problem.run(Matrix::row({9, 9}), LOUD, BOUNDS_AND_ROW), 0.7, 0.49);
}

TEST(Call, LimitsAndInfeasibleRegionsEndInTheRunsCode) {
  Rosenbrock problem;
  const double M = MISSING;
  const Matrix impossible(4, 4, {M, M, M, M, M, M, M, M, 1, 1, 1, 5, 1, 1, -1, 3});
  const struct {
    Matrix blc, tc;
    double code;
  } cases[] = {{NONE, Matrix::row({0}), -8}, {NONE, Matrix::row({2}), -8}, {impossible, NONE, -10}};
  for (const auto& c : cases) {
    const Answer answer = problem.run(START, NONE, c.blc, c.tc);
    ASSERT_EQ(answer.code, 0);
    EXPECT_EQ(answer.results[0](0, 0), c.code);
    EXPECT_TRUE(c.code != -10 || answer.results[1] == START);
  }
}

// Every k-th request of memory is refused until a run meets none: code 1, and nothing is left. The
// variable "_ITER_" is the one request that a call does without.
TEST(Call, SurvivesRefusedMemory) {
  Rosenbrock problem;
  embed::Task& task = problem.session.task();
  long refused = 0;
  bool met = true;
  for (long k = 0; met; ++k) {
    ASSERT_LT(k, 1000);
    embed::plan_fault(task, embed::Fault::allocation, k);
    const Answer answer = problem.run(START, LOUD, BOUNDS_AND_ROW);
    met = !embed::fault_pending(task, embed::Fault::allocation);
    embed::clear_faults(task);
    EXPECT_EQ(answer.blocks_left + answer.files_left, 0) << k;
    EXPECT_TRUE(answer.code == 0 || answer.code == 1) << k << ": " << answer.code;
    if (answer.code == 1) ++refused;
    if (!met) expect_solution(answer, 0.7, 0.49);
  }
  EXPECT_GT(refused, 20);
  expect_solution(problem.run(START), 1, 1);
}

// The k-th evaluation cannot be done. At the start the run ends with -1 or -2; later the technique
// backs up, or ends with a code of its own.
TEST(Call, SurvivesTheKthFailedEvaluation) {
  Rosenbrock problem;
  problem.run(START);
  const long total = problem.evaluations;
  ASSERT_GT(total, 20);
  for (long k = 1; k <= total; ++k) {
    problem.before = [&problem, k] {
      if (problem.evaluations == k) throw EvaluationFailed();
    };
    const Answer answer = problem.run(START);
    ASSERT_EQ(answer.code, 0) << k;
    const double rc = answer.results[0](0, 0);
    EXPECT_TRUE(k > 2 || rc == static_cast<double>(-k)) << k << ": " << rc;
    if (rc > 0) expect_solution(answer, 1, 1);
    EXPECT_EQ(answer.blocks_left, 0) << k;
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

// A module that never gives a code must not keep a run going that has come to rest.
TEST(Call, ATerminationModuleThatNeverStopsIsOverruled) {
  for (const double code : {0.0, 100.0}) {
    Rosenbrock problem;
    problem.session.termination_module("GO", [code](const Matrix&, double) { return code; });
    const Answer answer =
        enter(problem.session, tqxnrr, {"F", START, LOUD, NONE, NONE, NONE, "GO", "G", "H"});
    ASSERT_EQ(answer.code, 0);
    EXPECT_EQ(answer.results[0](0, 0), -5);
    EXPECT_EQ(answer.messages, std::vector<int>{191});
    for (const Table& table : problem.session.tables()) EXPECT_NE(table.name, "IterHist");
  }
}

// Numbers that are none, in every element of every vector: the call ends, whatever the code.
TEST(Call, StrangeNumbersEndInACode) {
  Rosenbrock problem;
  const double strange[] = {NOT_A_NUMBER, -NOT_A_NUMBER, MISSING, INF,  -INF,   1e308,
                            -1e308,       0.0,           -0.0,    -1.0, 5e-324, 2147483648.0};
  for (const double value : strange)
    for (int which = 0; which < 4; ++which)  // opt, blc, tc, par
      for (long k = 0; k < (which == 1 ? 12 : 20); ++k) {
        Matrix vectors[] = {NONE, BOUNDS_AND_ROW, NONE, NONE};
        if (which != 1) vectors[which] = Matrix::row(std::vector<double>(20, MISSING));
        vectors[which].data()[k] = value;
        const Answer answer = problem.run(START, vectors[0], vectors[1], vectors[2], vectors[3]);
        EXPECT_TRUE(answer.code == 0 || answer.code == 6) << value << " at " << which << ' ' << k;
        EXPECT_EQ(answer.blocks_left, 0);
        EXPECT_TRUE(answer.code == 0 || !answer.messages.empty());
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
