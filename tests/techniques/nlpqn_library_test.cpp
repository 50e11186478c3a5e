// NLPQN over the whole problem library from the standard starts, with the defaults of the call and
// a gradient module: every line search with BFGS, and every other update. (The formulas of the
// updates and the trials of the searches have tests of their own.)
#include <gtest/gtest.h>

#include "techniques/library.h"

namespace tqnlp::test {
namespace {

const char* const STEEP = "a dozen calls an iteration: the limit of 500 is met on the way";
const Exceptions WITH_GRADIENT = {
    {{"Meyer"}, {ANY}, -8, "a long curved valley: 240 to 10000 iterations, the limit is 200"},
    {{"HS25"}, {ANY}, 3, "the start is flat: its gradient already meets ABSGCONV"},
    {{"HS54"}, {ANY}, SOME_CODE, "parameters of size 1e7: small gradients far from the minimum"},
    {{"S265"}, {ANY}, 3, "the feasible point next to the start is a saddle"},
    {{"Osborne 1", "Osborne 2", "Penalty I 4", "Penalty I 10", "S209", "S282"}, {6, 8}, -8, STEEP},
    {{"Powell badly scaled", "Wood", "HS38", "S283", "S291", "S295"}, {6, 8}, -8, STEEP},
    {{"Watson 9"}, {ANY}, 3, "a flat valley: ABSGCONV is met with f 5e-6 above; 1e-9 solves it"},
    // The first extrapolation ends where both exponentials vanish.
    {{"Jennrich and Sampson"}, {4, 5}, 6, "a plain at f = 2020"},
    // Long extrapolated steps cross it again and again.
    {{"Penalty II 10"},
     {14, 22, 42},
     NEAR,
     "a flat valley: ABSGCONV is met with f 1e-6 above",
     1e-5},
    // So that near the minimum no decrease can be seen while the gradient is still above ABSGCONV.
    {{"S268"}, {ANY}, NEAR, "the terms of f are of size 1e4 and cancel", 1e-8},
};

// Calls of objective and gradient over all problems, a tenth above what it takes: by line search
// for BFGS, and for DFP with search 2.
constexpr long MOST_CALLS[] = {9200, 8600, 9200, 12200, 12100, 22900, 11200, 22900};
constexpr long WITH_DFP = 12800;

class QuanewLibrary : public testing::TestWithParam<int> {};

TEST_P(QuanewLibrary, EndsAsExpected) {
  const int update = GetParam() / 10, search = GetParam() % 10;
  const Matrix opt = options_of({{4, update}, {5, search}});
  const long calls = run_library("NLPQN", opt, WITH_GRADIENT, GetParam(), search == 2);
  EXPECT_LE(calls, update % 2 == 0 ? WITH_DFP : MOST_CALLS[search - 1]);
}

INSTANTIATE_TEST_SUITE_P(TupdTlin, QuanewLibrary,
                         testing::Values(11, 12, 13, 14, 15, 16, 17, 18, 22, 32, 42),
                         testing::PrintToStringParamName());

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
