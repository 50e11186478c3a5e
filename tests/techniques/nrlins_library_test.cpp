// NRLINS, which no subroutine selects, over the whole problem library by its number.
#include <gtest/gtest.h>

#include <set>
#include <utility>

#include "techniques/library.h"

namespace tqnlp::test {
namespace {

// Its ridges are absolute numbers from 0.3125 to 320, and a pivot must be 1e-6 of the largest
// diagonal element.
const char* const NO_RIDGE = "curvatures of -1240 and less at the start, or 4 and 5e11";
const char* const VALLEY = "a valley of curvature far below the first ridge, which stays";
const Exceptions NOT_SOLVED = {
    {{"Powell badly scaled"}, {ANY}, -8, "curvatures 0.4 and 3e8: the ridge rules the step"},
    {{"Brown badly scaled", "Helical valley", "Meyer", "Osborne 1", "S241"}, {ANY}, -5, NO_RIDGE},
    {{"Biggs EXP6", "Watson 9", "Watson 12", "HS54"}, {ANY}, -8, VALLEY},
    {{"HS25"}, {ANY}, 3, "the start is flat: its gradient already meets ABSGCONV"},
    {{"S265"}, {ANY}, 3, "the feasible point next to the start is a saddle"}};

// Problems whose projected Hessian is positive definite at the solution, so that the last
// decrements g'H^-1 g must fall as Newton's do.
const std::set<std::string> NONSINGULAR = {"Rosenbrock", "Wood", "Brown and Dennis",
                                           "Osborne 2",  "Bard", "HS38",  //
                                           "HS110",      "HS62", "HS112",
                                           "HS119",      "HS86", "HS41"};

TEST(NrlinsLibrary, EndsAsExpected) {
  for (const Problem& p : problem_library()) {
    const Exception* exception = find(NOT_SOLVED, p.name, 11);
    double before = HUGE_VALUE, last = HUGE_VALUE;  // decrements of the last two iterations
    const Outcome run = solve_by_number(p, NRLINS, 1e-6, [&](const MINSTR& str, int job, int) {
      if (job == 11) before = std::exchange(last, str.pred);
    });
    SCOPED_TRACE(p.name + ", code " + std::to_string(run.code));
    EXPECT_EQ(run.solved, exception == nullptr) << run.f;
    EXPECT_LE(run.infeasible, 1e-9);
    // Each new point takes one Hessian, however many trials it took.
    EXPECT_LE(run.hessians, run.iterations + 1);
    EXPECT_TRUE(exception == nullptr ? run.code > 0 : run.code == exception->code);
    if (!run.solved) continue;
    EXPECT_TRUE(run.unexplained <= 5e-3 || run.code == 6) << run.unexplained;
    EXPECT_TRUE(NONSINGULAR.count(p.name) == 0 || last <= 0.01 * before);
  }
}

}  // namespace
}  // namespace tqnlp::test
