// Whole calls: NLPNRR from the arguments to the results, NLPFEA, and what disturbs a call: refused
// memory, failing evaluations, numbers that are none, a test that never ends the run. Exceptions,
// nested calls, math errors and failing reports are tested at the public interface.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "front_call.h"

namespace tqnlp {
namespace {

using test::Answer;
using test::enter;

constexpr double INF = std::numeric_limits<double>::infinity();
const double NOT_A_NUMBER = std::nan("");
const Matrix NONE;

// Rosenbrock's function with its derivatives; every evaluation passes `before`, which may throw.
struct Rosenbrock {
  Session session;
  long evaluations = 0;
  std::function<void()> before;

  Rosenbrock() {
    session.module("F", [this](const Matrix& x) {
      count();
      const double a = x(0, 0), b = x(0, 1);
      return Matrix::scalar(100 * (b - a * a) * (b - a * a) + (1 - a) * (1 - a));
    });
    session.module("G", [this](const Matrix& x) {
      count();
      const double a = x(0, 0), b = x(0, 1);
      return Matrix::row({-400 * a * (b - a * a) - 2 * (1 - a), 200 * (b - a * a)});
    });
    session.module("H", [this](const Matrix& x) {
      count();
      const double a = x(0, 0), b = x(0, 1);
      return Matrix(2, 2, {1200 * a * a - 400 * b + 2, -400 * a, -400 * a, 200});
    });
  }
  void count() {
    ++evaluations;
    if (before) before();
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
  const auto code = [](const Answer& answer) {
    EXPECT_EQ(answer.code, 0);
    return answer.results.at(0)(0, 0);
  };
  EXPECT_EQ(code(problem.run(START, NONE, NONE, Matrix::row({0}))), -8);
  EXPECT_EQ(code(problem.run(START, NONE, NONE, Matrix::row({2}))), -8);
  const Matrix impossible(4, 4,
                          {MISSING, MISSING, MISSING, MISSING,  //
                           MISSING, MISSING, MISSING, MISSING,  //
                           1, 1, 1, 5,                          //
                           1, 1, -1, 3});
  const Answer infeasible = problem.run(START, NONE, impossible);
  EXPECT_EQ(code(infeasible), -10);
  EXPECT_EQ(infeasible.results[1], START);
}

// Every k-th request of memory is refused until a run meets none: code 1, and nothing is left. The
// variable "_ITER_" is the one request that a call does without.
TEST(Call, SurvivesRefusedMemory) {
  Rosenbrock problem;
  expect_solution(problem.run(START, LOUD, BOUNDS_AND_ROW), 0.7, 0.49);
  long refused = 0;
  for (long k = 0;; ++k) {
    ASSERT_LT(k, 1000);
    embed::plan_fault(problem.session.task(), embed::Fault::allocation, k);
    const Answer answer = problem.run(START, LOUD, BOUNDS_AND_ROW);
    const bool met = !embed::fault_pending(problem.session.task(), embed::Fault::allocation);
    embed::clear_faults(problem.session.task());
    EXPECT_EQ(answer.blocks_left, 0) << k;
    EXPECT_EQ(answer.files_left, 0) << k;
    EXPECT_TRUE(answer.code == 0 || answer.code == 1) << k << ": " << answer.code;
    if (answer.code == 1) ++refused;
    if (!met) {
      expect_solution(answer, 0.7, 0.49);
      break;
    }
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
    if (k == 1) {
      EXPECT_EQ(rc, -1);
    }
    if (k == 2) {
      EXPECT_EQ(rc, -2);
    }
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
  for (const double value : strange) {
    for (std::size_t k = 0; k < 20; ++k) {
      std::vector<double> elements(20, MISSING);
      elements[k] = value;
      const Matrix vector = Matrix::row(elements);
      for (const auto& [opt, tc, par] :
           {std::tuple{vector, NONE, NONE}, std::tuple{NONE, vector, NONE},
            std::tuple{NONE, NONE, vector}}) {
        const Answer answer = problem.run(START, opt, BOUNDS_AND_ROW, tc, par);
        EXPECT_TRUE(answer.code == 0 || answer.code == 6) << value << " at " << k;
        EXPECT_EQ(answer.blocks_left, 0);
        if (answer.code == 6) {
          EXPECT_FALSE(answer.messages.empty());
        }
      }
    }
    for (std::size_t k = 0; k < 12; ++k) {
      Matrix blc = BOUNDS_AND_ROW;
      blc.data()[k] = value;
      const Answer answer = problem.run(START, NONE, blc);
      EXPECT_TRUE(answer.code == 0 || answer.code == 6) << value << " in blc at " << k;
    }
  }
}

TEST(FeasiblePoint, MovesOnlyWhatMustMove) {
  Session session;
  const Matrix box(2, 2, {0, 0, 2, 2});
  const Answer inside = enter(session, tqxfea, {Matrix::row({1, 0.5}), box});
  ASSERT_EQ(inside.code, 0);
  EXPECT_EQ(inside.results.at(0), Matrix::row({1, 0.5}));
  EXPECT_TRUE(inside.messages.empty());

  const Answer outside = enter(session, tqxfea, {Matrix::row({-1, MISSING}), box});
  ASSERT_EQ(outside.code, 0);
  EXPECT_EQ(outside.messages, std::vector<int>{142});
  for (const double x : outside.results.at(0).values()) EXPECT_TRUE(x >= 0.0 && x <= 2.0) << x;

  const Matrix row(3, 4, {0, 0, MISSING, MISSING, 2, 2, MISSING, MISSING, 1, 1, 0, 3});
  const Answer on_row = enter(session, tqxfea, {Matrix::row({5, 5}), row, Matrix::row({1e-9})});
  ASSERT_EQ(on_row.code, 0);
  EXPECT_EQ(on_row.messages, std::vector<int>{142});
  EXPECT_NEAR(on_row.results.at(0)(0, 0) + on_row.results.at(0)(0, 1), 3.0, 1e-7);

  const Matrix none(3, 4, {0, 0, MISSING, MISSING, 1, 1, MISSING, MISSING, 1, 1, 1, 3});
  const Answer nowhere = enter(session, tqxfea, {Matrix::row({5, 5}), none});
  ASSERT_EQ(nowhere.code, 0);
  EXPECT_EQ(nowhere.messages, std::vector<int>{143});
  for (const double x : nowhere.results.at(0).values()) EXPECT_TRUE(wzmis(x));
}

}  // namespace
}  // namespace tqnlp
