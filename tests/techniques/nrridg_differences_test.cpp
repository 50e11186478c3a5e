// NLPNRR over the whole problem library with differences in the place of modules: the Hessian from
// gradients, and both derivatives from function values. The runs must be the ones with modules, up
// to the accuracy of the differences: same solutions, about the same number of iterations.
#include <gtest/gtest.h>

#include <map>

#include "techniques/outcome.h"

namespace tqnlp::test {

void PrintTo(const Problem& problem, std::ostream* out);

namespace {

using Reasons = std::map<std::string, std::string>;

// Not solved to 1e-6, with the reason found in the iteration history. HS25, HS54, S265 and
// Meyer are not solved with modules either.
const Reasons NOT_SOLVED_FROM_GRADIENTS = {
    {"Meyer", "a long curved valley: needs more than the 200 iterations of the default limit"},
    {"HS25", "the start is flat: its gradient already meets ABSGCONV"},
    {"HS54", "parameters of size 1e7 make small gradients far from the minimum"},
    {"S265", "the feasible point next to the start is a saddle: its projected gradient is 0"},
    {"Watson 12",
     "small eigenvalues of the Hessian are below the error of its differences: ABSGCONV is met at "
     "f = 2.4e-6"},
};
const Reasons NOT_SOLVED_FROM_VALUES = {
    {"Meyer", NOT_SOLVED_FROM_GRADIENTS.at("Meyer")},
    {"HS25", NOT_SOLVED_FROM_GRADIENTS.at("HS25")},
    {"HS54", NOT_SOLVED_FROM_GRADIENTS.at("HS54")},
    {"S265", NOT_SOLVED_FROM_GRADIENTS.at("S265")},
    {"Powell badly scaled",
     "a curvature of 1.6e10 in x1 makes the forward gradient wrong by 100: the steps turn tiny"},
    {"Brown badly scaled",
     "x2 is near 2e-6 and the curvature in it 2e12: a forward step of 1.5e-8 gives a gradient "
     "wrong by 1e4"},
    {"Watson 9",
     "small eigenvalues of the Hessian are below the error of its differences: ABSGCONV is met at "
     "f = 8.7e-6"},
};

// Solved, with more than half as many iterations again, or not at a criterion.
const Reasons SLOW_FROM_GRADIENTS = {
    {"Powell badly scaled",
     "solved at the iteration limit: near the end the error of the Hessian's differences is larger "
     "than its smallest eigenvalue"},
    {"Penalty II 4", "a flat valley, curvature 1e-5: the last steps are those of a ridge"},
};
const std::string CURVED =
    "a curvature of 1e5 makes the forward gradient wrong by more than ABSGCONV: code -5, at the "
    "minimum";
const Reasons SLOW_FROM_VALUES = {
    {"Osborne 1", "the forward gradient's error is near ABSGCONV in a nearly singular problem"},
    {"Penalty II 4", SLOW_FROM_GRADIENTS.at("Penalty II 4")},
    {"S209", CURVED},
    {"S268", "a curvature of 6e4: the forward gradient's error keeps the last steps small"},
    {"Linear rank 1", CURVED},
    {"Linear rank 1 with zero columns and rows", CURVED},
};

class NrridgDifferences : public testing::TestWithParam<Problem> {};

TEST_P(NrridgDifferences, LikeWithModules) {
  const Problem& p = GetParam();
  const Outcome exact = solve(p, "NLPNRR", 1e-6);
  for (const Modules modules : {Modules::gradient, Modules::none}) {
    const bool values = modules == Modules::none;
    const Reasons& not_solved = values ? NOT_SOLVED_FROM_VALUES : NOT_SOLVED_FROM_GRADIENTS;
    const Reasons& slow = values ? SLOW_FROM_VALUES : SLOW_FROM_GRADIENTS;
    const Outcome run = solve(p, "NLPNRR", 1e-6, Matrix(), Matrix(), modules);
    EXPECT_EQ(run.solved, not_solved.count(p.name) == 0)
        << values << " code " << run.code << " f " << run.f << " after " << run.iterations;
    EXPECT_LE(run.infeasible, 1e-7);
    EXPECT_EQ(run.hessians, 0);
    if (values) {
      EXPECT_EQ(run.gradients, 0);
    }
    if (!run.solved || slow.count(p.name) != 0) continue;
    EXPECT_GT(run.code, 0);
    EXPECT_LE(run.iterations, 3 + 1.5 * exact.iterations);
  }
  // Central differences of the values come closer to the modules.
  const Matrix central =
      Matrix::row({missing, missing, missing, missing, missing, missing, missing, 2});
  const Outcome run = solve(p, "NLPNRR", 1e-6, central, Matrix(), Modules::none);
  const bool unsolved =
      p.name == "Meyer" || p.name == "HS25" || p.name == "HS54" || p.name == "S265";
  EXPECT_EQ(run.solved, !unsolved) << run.f;
}

std::string name_of(const testing::TestParamInfo<Problem>& problem) {
  std::string name = problem.param.name;
  for (char& c : name) {
    if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
  }
  return name;
}

INSTANTIATE_TEST_SUITE_P(All, NrridgDifferences, testing::ValuesIn(problem_library()), name_of);

// Superlinear to the end: the largest gradient element falls by a growing factor.
TEST(NrridgDifferencesSpeed, SuperlinearWithHessiansFromGradients) {
  for (const Problem& p : more_garbow_hillstrom()) {
    if (p.name != "Helical valley" && p.name != "Wood" && p.name != "Broyden banded") continue;
    Session tql;
    tql.module("F", [&](const Matrix& x) { return Matrix::scalar(p.value(x.data())); });
    tql.module("G", [&](const Matrix& x) {
      Matrix g(1, p.n);
      p.evaluate(x.data(), g.data());
      return g;
    });
    const Matrix none;
    tql.call("NLPNRR",
             {"F", Matrix::row(p.start), Matrix::row({0, 2}), none, none, none, none, "G"});
    std::vector<double> largest;
    for (const Table& table : tql.tables()) {
      if (table.name != "IterHist") continue;
      const auto column = std::find(table.columns.begin(), table.columns.end(), "MaxGrad");
      ASSERT_NE(column, table.columns.end());
      for (const auto& row : table.rows) {
        largest.push_back(
            std::get<double>(row[static_cast<std::size_t>(column - table.columns.begin())]));
      }
    }
    const std::size_t last = largest.size() - 1;
    ASSERT_GE(last, 3U) << p.name;
    EXPECT_LT(largest[last - 1], 0.05 * largest[last - 2]) << p.name;
    EXPECT_LT(largest[last], 0.005 * largest[last - 1]) << p.name;
  }
}

}  // namespace
}  // namespace tqnlp::test
