// NLPQN over the whole problem library from the standard starts, with the defaults of the call:
// every update with every line search and a gradient module, and differences in the place of the
// module.
#include <gtest/gtest.h>

#include "techniques/library.h"

namespace tqnlp::test {
namespace {

const std::string DIGITS =
    "the terms of f are of size 1e4 and cancel: near the minimum no decrease can be seen while the "
    "gradient is still above ABSGCONV";
const Exceptions WITH_GRADIENT = {
    {{"Meyer"},
     {ANY},
     -8,
     "a long curved valley: 240 to 10000 iterations are needed, the limit is 200"},
    {{"HS25"}, {ANY}, 3, "the start is flat: its gradient already meets ABSGCONV"},
    {{"HS54"},
     {ANY},
     SOME_CODE,
     "parameters of size 1e7 make small gradients far from the minimum: ABSGCONV or GCONV is met"},
    {{"S265"},
     {ANY},
     3,
     "the feasible point next to the start is a saddle: its projected gradient is 0"},
    {{"Watson 9", "Watson 12", "Gulf research"},
     {26, 28, 46, 48},
     -8,
     "a dozen calls an iteration, and 40 iterations of DFP: the limit of 500 is met on the way"},
    {{"Osborne 1", "Osborne 2", "Penalty I 4", "Penalty I 10", "Powell badly scaled", "Wood",
      "HS38", "S209", "S282", "S283", "S291", "S295"},
     {6, 8},
     -8,
     "a dozen calls an iteration: the limit of 500 is met on the way"},
    {{"Biggs EXP6", "Box three-dimensional", "Extended Powell singular 12",
      "Extended Rosenbrock 10", "Gulf research", "Osborne 1", "Osborne 2", "Penalty I 4",
      "Powell badly scaled", "S209", "S213", "S282", "S283", "S291", "S303", "Watson 6", "Watson 9",
      "Watson 12"},
     {27, 47},
     CLOSE_CALL,
     "Goldstein's test asks nothing of the slope, and DFP does not mend a matrix that such steps "
     "spoil: 150 to 10000 iterations are needed"},
    {{"Watson 9"}, {ANY}, 3, "a flat valley: ABSGCONV is met with f 5e-6 above; 1e-9 solves it"},
    {{"S209"},
     {24, 44},
     6,
     "DFP holds a direction across the valley: its slope meets GCONV; 0 solves it"},
    {{"Penalty I 4", "Penalty I 10", "Powell badly scaled", "S209", "S282"},
     {21, 24, 25, 41, 44, 45},
     CLOSE_CALL,
     "DFP follows a curved valley slowly: 150 to 300 iterations, 400 to 600 calls"},
    {{"Jennrich and Sampson"},
     {4, 5},
     6,
     "the first extrapolation ends where both exponentials vanish: a plain at f = 2020"},
    {{"Penalty II 10"},
     {14, 21, 22, 23, 24, 27, 34, 41, 42, 43, 44, 47},
     NEAR,
     "a flat valley: ABSGCONV is met with f 1e-6 above; long extrapolated steps cross it again and "
     "again",
     1e-5},
    {{"S268"},
     {37, 47},
     -8,
     "a constraint with multiplier 0 comes and goes, and each change rebuilds the inverse"},
    {{"S268"}, {ANY}, NEAR, DIGITS, 1e-8},
};

const std::string INEXACT =
    "the error of the differences is above ABSGCONV at the minimum, where no descent is left";
const Exceptions ALWAYS = {WITH_GRADIENT[0],
                           WITH_GRADIENT[1],
                           WITH_GRADIENT[2],
                           WITH_GRADIENT[3],
                           {{"Watson 9"}, {ANY}, 3, "as with gradients"}};
const Exceptions FORWARD = {
    {{"Powell badly scaled", "Brown badly scaled", "Osborne 1", "Linear rank 1", "S209", "S211",
      "S241", "S295", "S268"},
     {ANY},
     NEAR,
     INEXACT,
     1e-4},
};
const Exceptions CENTRAL = {{{"Osborne 1"}, {ANY}, NEAR, INEXACT, 1e-8},
                            {{"S268"}, {ANY}, NEAR, DIGITS, 1e-8}};

// ---- With a gradient module ---------------------------------------------------------------------

// Calls of objective and gradient over all problems, a tenth above what it takes: by line search
// for BFGS, and for DFP.
constexpr long MOST_CALLS[2][8] = {
    {9200, 8600, 9200, 12200, 12100, 22900, 11200, 22900},
    {16300, 12800, 13700, 15400, 14800, 23900, 19400, 23900},
};

class QuanewLibrary : public testing::TestWithParam<int> {};

TEST_P(QuanewLibrary, EndsAsExpected) {
  const int update = GetParam() / 10, search = GetParam() % 10;
  const Matrix opt = options_of({{4, update}, {5, search}});
  const long calls = run_library("NLPQN", opt, WITH_GRADIENT, GetParam(), search == 2);
  EXPECT_LE(calls, MOST_CALLS[update % 2 == 0][search - 1]);
}

INSTANTIATE_TEST_SUITE_P(TupdTlin, QuanewLibrary,
                         testing::Values(11, 12, 13, 14, 15, 16, 17, 18, 21, 22, 23, 24, 25, 26, 27,
                                         28, 31, 32, 33, 34, 35, 36, 37, 38, 41, 42, 43, 44, 45, 46,
                                         47, 48),
                         testing::PrintToStringParamName());

// ---- With differences ---------------------------------------------------------------------------

// The runs are those with a gradient module, up to the error of the differences: the same solutions
// and about as many iterations.
TEST(QuanewDifferences, EndAsWithGradients) {
  for (const int points : {1, 2}) {
    Exceptions rows = points == 1 ? FORWARD : CENTRAL;
    rows.insert(rows.end(), ALWAYS.begin(), ALWAYS.end());
    Matrix opt(1, 8, std::vector<double>(8, missing));
    opt(0, 1) = 1;
    if (points == 2) opt(0, 7) = 2;
    long calls = 0;
    for (const Problem& p : problem_library()) {
      const Outcome exact = solve(p, "NLPQN", 1e-6);
      const Outcome run = solve(p, "NLPQN", 1e-6, opt, Matrix(), Modules::none);
      const Exception* exception = find(rows, p.name, 12);
      judge(p, run, exception);
      EXPECT_EQ(run.gradients, 0) << p.name;
      if (exception == nullptr) {
        EXPECT_LE(run.iterations, 5 + 1.5 * exact.iterations) << p.name;
      }
      calls += run.functions;
    }
    EXPECT_LE(calls, points == 1 ? 28500 : 48700);  // a tenth above what it takes
  }
}

// ---- Of any size --------------------------------------------------------------------------------

TEST(QuanewScalable, SolvesSmallAndLarge) {
  for (const long n : {12L, 600L}) {
    for (const Problem& p : scalable_problems(n)) {
      const Outcome run = solve(p, "NLPQN", 1e-5, Matrix(), Matrix::row({500, 1000}));
      EXPECT_TRUE(run.solved && run.code > 0) << p.name << " " << n << " f " << run.f;
      expect_optimal(p, run);
    }
  }
  EXPECT_NEAR(scalable_problems(10).back().minima[0], 7.08765e-5, 5e-11);  // as published
}

}  // namespace
}  // namespace tqnlp::test
