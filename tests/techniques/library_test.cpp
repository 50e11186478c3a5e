// Every subroutine with derivatives but NLPQN, which has a table of its own, over the whole problem
// library from the standard starts, with the defaults of the call and derivative modules.
#include "techniques/library.h"

#include <gtest/gtest.h>

#include <cmath>

namespace tqnlp::test {
namespace {

const std::string FLAT = "the start is flat: its gradient already meets ABSGCONV";
const std::string SADDLE =
    "the feasible point next to the start is a saddle: its projected gradient is 0";
const std::string LARGE_SCALE =
    "parameters of size 1e7 make small gradients far from the minimum: ABSGCONV is met early";
const std::string STEEP =
    "a steep start: the curvature seen along the first steps is so large that GCONV is met; 0 goes "
    "on";
const std::string SLOW = "first-order steps in a long valley: the limit of calls or iterations";

const std::string SLOW_SCALE =
    "columns of the Jacobian that shrink by powers of ten on the way: a scale of their largest "
    "lengths keeps the steps short, and more than 200 iterations are needed";

const std::string VALLEY =
    "a long curved valley where every step gains one or two per cent: more iterations than the "
    "default limit of 200 are needed";

const Exceptions NEWTON_RIDGE = {{{"Meyer"}, {ANY}, -8, VALLEY},
                                 {{"HS25"}, {ANY}, 3, FLAT},
                                 {{"HS54"}, {ANY}, 3, LARGE_SCALE},
                                 {{"S265"}, {ANY}, 3, SADDLE}};

const Exceptions NEWTON_SEARCH = {
    {{"HS25"}, {ANY}, 3, FLAT},
    {{"HS54"}, {ANY}, SOME_CODE, LARGE_SCALE},
    {{"S265"}, {ANY}, 3, SADDLE},
    {{"Meyer"}, {1, 2, 3, 7}, -8, VALLEY},
    {{"Osborne 1"},
     {ANY},
     SOME_CODE,
     "a plateau at f = 0.05 with an indefinite Hessian: the ridge makes the step, and with it the "
     "predicted reduction, small"},
    {{"Watson 12"}, {1, 2, 3}, 3, "a flat valley: ABSGCONV is met with f 1e-6 above"},
    {{"HS62"}, {4}, NEAR, "no decrease can be seen any more, the gradient is above ABSGCONV", 1e-5},
    {{"Powell badly scaled"}, {4}, 6, "an extrapolated step ends far out, where GCONV is met"},
    {{"Penalty II 4"}, {4}, 3, "a flat valley: ABSGCONV is met with f 4e-6 above"},
    {{"Broyden tridiagonal", "Broyden banded"}, {4}, SOME_CODE, "another local minimum"},
    {{"Meyer"}, {4, 6, 8}, -8, "the limit of 500 calls is met on the way"},
    {{"Powell badly scaled", "Penalty I 10", "Penalty II 10", "S209", "S282"},
     {6, 8},
     -8,
     "a dozen calls an iteration: the limit of 500 is met on the way"}};

const Exceptions TRUST_REGION = {
    {{"Meyer"}, {ANY}, -8, VALLEY},
    {{"Osborne 1", "Biggs EXP6"},
     {ANY},
     -8,
     "the first steps lead into a valley that falls for ever; a first radius of 0.5 solves them"},
    {{"HS25"}, {ANY}, 3, FLAT},
    {{"HS54"}, {ANY}, 3, LARGE_SCALE},
    {{"S265"}, {ANY}, 3, SADDLE},
    {{"Watson 9"}, {2, 3}, 3, "a flat valley: ABSGCONV is met with f 1.5e-6 above"}};

const std::string CANCELS = "terms of size 1e4 cancel: no decrease can be seen near the minimum";
const std::string STIFF =
    "DFP hardly ever lowers a curvature that is too large when no search lengthens its steps: "
    "hundreds to 20000 iterations are needed";

// Variants 1 to 3 are hesc, 4 is hesc 0, 20 is DFP.
const Exceptions DOGLEG = {
    {{"Meyer"}, {ANY}, -8, VALLEY},
    {{"HS25"}, {ANY}, 3, FLAT},
    {{"HS54"}, {1, 2, 3, 4}, SOME_CODE, LARGE_SCALE},
    {{"S265"}, {ANY}, 3, SADDLE},
    {{"S268"}, {1, 2, 3, 4}, NEAR, CANCELS, 1e-8},
    {{"Penalty II 10"}, {ANY}, 6, "a flat valley: GCONV is met with f 1e-6 to 4e-6 above"},
    {{"Watson 9"}, {1, 2, 3, 4}, 3, "a flat valley: ABSGCONV is met with f 5e-6 above"},
    {{"Wood", "HS38"}, {20}, 6, "the path passes a saddle so slowly that GCONV is met there"},
    {{"Rosenbrock",
      "Powell badly scaled",
      "Jennrich and Sampson",
      "Bard",
      "Gulf research",
      "Box three-dimensional",
      "Osborne 1",
      "Osborne 2",
      "Biggs EXP6",
      "Powell singular",
      "Watson 6",
      "Watson 9",
      "Watson 12",
      "Extended Rosenbrock 10",
      "Extended Powell singular 12",
      "Penalty I 4",
      "Penalty I 10",
      "Brown almost-linear",
      "HS1",
      "HS54",
      "S211",
      "S231",
      "S268",
      "S282",
      "S283",
      "S291",
      "S295"},
     {20},
     -8,
     STIFF}};

const Exceptions CONJUGATE = {
    {{"HS25"}, {ANY}, 3, FLAT},
    {{"HS54"}, {ANY}, SOME_CODE, LARGE_SCALE},
    {{"S265"}, {ANY}, 3, SADDLE},
    {{"Powell badly scaled", "Brown badly scaled", "Meyer"}, {ANY}, 6, STEEP},
    {{"Penalty I 10"}, {2, 4}, 6, STEEP},
    {{"Broyden banded"}, {1, 3}, 6, "another local minimum"},
    {{"HS62", "S268"},
     {ANY},
     NEAR,
     "no decrease can be seen any more, the gradient is above ABSGCONV",
     1e-5},
    {{"Gulf research"}, {3}, 3, "a flat valley: ABSGCONV is met with f 3e-6 above"},
    {{"Osborne 1"}, {2}, 6, "slow, so that a step that hardly gains anything meets GCONV"},
    {{"Watson 9", "S282"}, {ANY}, -8, SLOW},
    {{"Osborne 2", "Watson 12", "S209", "S295"}, {2}, -8, SLOW},
    {{"Osborne 1", "Watson 6", "Watson 12", "S295"}, {3}, -8, SLOW},
    {{"Osborne 1", "Osborne 2", "Watson 6", "Watson 12", "Biggs EXP6", "Extended Rosenbrock 10",
      "Trigonometric", "Broyden banded", "Chebyquad 9", "Chebyquad 10", "HS112", "S209", "S283",
      "S295", "S300"},
     {4},
     -8,
     SLOW}};

// Variants 1 to 3 are hesc, 4 is hesc 0.
const Exceptions MARQUARDT = {
    {{"HS25"}, {ANY}, 3, FLAT},
    {{"Brown and Dennis"}, {1, 2, 3}, -8, SLOW_SCALE},
    {{"Penalty II 10"}, {3}, -8, SLOW_SCALE},
    {{"Watson 9"}, {1, 2, 3}, 3, "a flat valley: ABSGCONV is met with f 2e-6 above"}};

// Variants: 1 version 1, 2 the default, 3, 4, 7 line searches 2, 4, 7, 5 load, 8 DFP.
const Exceptions HYBRID = {
    {{"HS25"}, {ANY}, 3, FLAT},
    {{"Wood"}, {2, 3, 4}, 6, "Gauss-Newton leads to a saddle, where GCONV is met"},
    {{"Gulf research"},
     {1, 2, 5, 7, 8},
     SOME_CODE,
     "the first steps lead into a valley that falls towards f = 0.4 for ever"},
    {{"Penalty I 10"}, {ANY}, NEAR, "a flat valley: ABSGCONV is met on its floor", 1e-4},
    {{"Penalty II 10"},
     {1, 3, 4, 5, 7},
     SOME_CODE,
     "a flat valley: ABSGCONV or a limit is met with f 1e-6 above"},
    {{"Bard", "Brown almost-linear"},
     {8},
     3,
     "flat regions far from the start, or another minimum"},
    {{"Meyer"}, {8}, -8, STIFF},
    {{"Meyer"}, {ANY}, NEAR, "a valley of condition 1e13: GCONV is met beside its floor", 1e-4}};

struct Row {
  const char* subroutine;
  Matrix opt;
  const Exceptions& exceptions;
  int variant;
  long most_calls;  // of objective and gradient over all problems, a tenth above what it takes
  // After a stop by GCONV; conjugate gradients know the curvature along the last step alone.
  double by_gconv = 1e-3;
};

const Row ROWS[] = {
    {"NLPNRR", options_of({}), NEWTON_RIDGE, 0, 4900},
    {"NLPNRA", options_of({}), NEWTON_SEARCH, 2, 7000},
    {"NLPNRA", options_of({{5, 1}}), NEWTON_SEARCH, 1, 7000},
    {"NLPNRA", options_of({{5, 3}}), NEWTON_SEARCH, 3, 7000},
    {"NLPNRA", options_of({{5, 4}}), NEWTON_SEARCH, 4, 11900},
    {"NLPNRA", options_of({{5, 5}}), NEWTON_SEARCH, 5, 12900},
    {"NLPNRA", options_of({{5, 6}}), NEWTON_SEARCH, 6, 17300},
    {"NLPNRA", options_of({{5, 7}}), NEWTON_SEARCH, 7, 7000},
    {"NLPNRA", options_of({{5, 8}}), NEWTON_SEARCH, 8, 17300},
    {"NLPTR", options_of({}), TRUST_REGION, 0, 5500},
    {"NLPTR", options_of({{3, 1}}), TRUST_REGION, 1, 5600},
    {"NLPTR", options_of({{3, 2}}), TRUST_REGION, 2, 5600},
    {"NLPTR", options_of({{3, 3}}), TRUST_REGION, 3, 5600},
    {"NLPDD", options_of({}), DOGLEG, 4, 8300},
    {"NLPDD", options_of({{3, 1}}), DOGLEG, 1, 8500},
    {"NLPDD", options_of({{3, 2}}), DOGLEG, 2, 8400},
    {"NLPDD", options_of({{3, 3}}), DOGLEG, 3, 8300},
    {"NLPDD", options_of({{4, 2}}), DOGLEG, 20, 17700},
    {"NLPLM", options_of({}), MARQUARDT, 1, 3000},
    {"NLPLM", options_of({{3, 2}}), MARQUARDT, 2, 3400},
    {"NLPLM", options_of({{3, 3}}), MARQUARDT, 3, 3700},
    {"NLPLM", options_of({{3, 0}}), MARQUARDT, 4, 2600},
    {"NLPHQN", options_of({}), HYBRID, 2, 4000},
    {"NLPHQN", options_of({{6, 1}}), HYBRID, 1, 4100},
    {"NLPHQN", options_of({{5, 2}}), HYBRID, 3, 4900},
    {"NLPHQN", options_of({{5, 4}}), HYBRID, 4, 6000},
    {"NLPHQN", options_of({{7, 1}}), HYBRID, 5, 4200},
    {"NLPHQN", options_of({{5, 7}}), HYBRID, 7, 6700},
    {"NLPHQN", options_of({{4, 2}}), HYBRID, 8, 5400},
    {"NLPCG", options_of({{4, 1}}), CONJUGATE, 1, 17800, 0.05},
    {"NLPCG", options_of({{4, 2}}), CONJUGATE, 2, 30700, 0.05},
    {"NLPCG", options_of({{4, 3}}), CONJUGATE, 3, 26800, 0.05},
    {"NLPCG", options_of({{4, 4}}), CONJUGATE, 4, 48300, 0.05},
};

class Library : public testing::TestWithParam<Row> {};

TEST_P(Library, EndsAsExpected) {
  const Row& row = GetParam();
  EXPECT_LE(run_library(row.subroutine, row.opt, row.exceptions, row.variant, row.variant <= 2,
                        row.by_gconv),
            row.most_calls);
}

// Least squares where bounds and a row cut the way to the minimum. A parameter that comes to its
// bound in a step must not spoil what the updates know of the others.
TEST(ConstrainedSquares, EndAtFirstOrderPoints) {
  Matrix tight(1, 7, std::vector<double>(7, missing));
  tight(0, 3) = 1e-14;
  for (Problem p : more_garbow_hillstrom()) {
    // Helical valley has a jump in this box; what is left of Meyer's gradient is relative to 1e4.
    if (p.m == 0 || p.n > 9 || p.name == "Helical valley" || p.name == "Meyer") continue;
    LinearRow sum{std::vector<double>(p.start.size(), 1.0), -1, 0.2};
    p.lower = p.upper = p.start;
    for (std::size_t j = 0; j < p.start.size(); ++j) {
      p.lower[j] -= 0.3 * (1.0 + std::fabs(p.start[j]));
      p.upper[j] += 0.5 * (1.0 + std::fabs(p.start[j]));
      sum.b += p.start[j];
    }
    for (const bool row : {false, true}) {
      if (row) p.rows = {sum};
      for (const Matrix& opt : {options_of({}), options_of({{6, 1}}), options_of({{4, 2}}),
                                options_of({{5, 2}}), options_of({{7, 1}})}) {
        const Outcome run = solve(p, "NLPHQN", 1e-6, opt, tight);
        SCOPED_TRACE(p.name + (row ? ", row, code " : ", code ") + std::to_string(run.code));
        EXPECT_TRUE(run.code > 0 || run.code == -5);
        EXPECT_LE(run.infeasible, 1e-7);
        EXPECT_TRUE(run.unexplained_relative <= 1e-4 || run.unexplained <= 1e-4);
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(All, Library, testing::ValuesIn(ROWS), [](const auto& row) {
  return row.param.subroutine + std::to_string(row.param.variant);
});

}  // namespace
}  // namespace tqnlp::test
