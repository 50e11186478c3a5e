// Differences in the place of derivative modules, over the whole problem library: the runs are
// those with modules, up to the error of the differences: the same solutions, about as many
// iterations.
#include <gtest/gtest.h>

#include "techniques/library.h"

namespace tqnlp::test {
namespace {

// Of the differences: above ABSGCONV at the minimum, where no descent is left; or above small
// eigenvalues of the Hessian, so that ABSGCONV is met early.
const char *const INEXACT = "error of the gradient", *const BLURRED = "error of the Hessian";
// Variants: NLPQN from values by forward (11) and central (12) differences; NLPNRR the same (21,
// 22), and with Hessians from a gradient module (23).
const Exceptions ROWS = {
    {{"Meyer"}, {ANY}, -8, "a long curved valley: more than the 200 iterations of the limit"},
    {{"HS25"}, {ANY}, 3, "the start is flat: its gradient already meets ABSGCONV"},
    {{"HS54"}, {ANY}, SOME_CODE, "parameters of size 1e7: small gradients far from the minimum"},
    {{"S265"}, {ANY}, 3, "the feasible point next to the start is a saddle"},
    {{"Watson 9"}, {11, 12}, 3, "as with gradients"},
    {{"Powell badly scaled", "Brown badly scaled", "Osborne 1"}, {11}, NEAR, INEXACT, 1e-4},
    {{"Linear rank 1", "S209", "S211", "S241", "S295", "S268"}, {11}, NEAR, INEXACT, 1e-4},
    {{"Osborne 1", "S268"}, {12}, NEAR, INEXACT, 1e-8},
    // Curvatures of 1e10 and more make the forward gradient wrong by 100 to 1e4.
    {{"Powell badly scaled", "Brown badly scaled"}, {21}, SOME_CODE, INEXACT},
    {{"Osborne 1", "S209", "S268", "Linear rank 1"}, {21}, NEAR, INEXACT, 1e-6},
    {{"Linear rank 1 with zero columns and rows"}, {21}, NEAR, INEXACT, 1e-6},
    {{"Watson 9"}, {21}, 3, BLURRED},
    {{"Watson 12"}, {23}, 3, BLURRED},
    {{"Powell badly scaled"}, {23}, NEAR, BLURRED, 1e-6},
    {{"Penalty II 4"}, {21, 22, 23}, NEAR, "a flat valley: ridges make the last steps", 1e-6},
};

TEST(Differences, EndAsWithModules) {
  const struct {
    const char* subroutine;
    int variant;
    long most_calls;  // of the objective over all problems, a tenth above what it takes
  } runs[] = {{"NLPQN", 11, 28500},
              {"NLPQN", 12, 48700},
              {"NLPNRR", 21, 82000},
              {"NLPNRR", 22, 218000},
              {"NLPNRR", 23, 15600}};
  for (const auto& [subroutine, variant, most_calls] : runs) {
    SCOPED_TRACE(variant);
    const Modules modules = variant == 23 ? Modules::gradient : Modules::none;
    const Matrix opt = options_of({{8, variant % 10 == 2 ? 2 : missing}});
    long calls = 0;
    for (const Problem& p : problem_library()) {
      const Outcome exact = solve(p, subroutine, 1e-6);
      const Outcome run = solve(p, subroutine, 1e-6, opt, Matrix(), modules);
      const Exception* exception = find(ROWS, p.name, variant);
      judge(p, run, exception);
      EXPECT_TRUE(run.hessians == 0 && (run.gradients == 0) == (modules == Modules::none));
      if (exception == nullptr) {
        EXPECT_LE(run.iterations, 5 + 1.5 * exact.iterations) << p.name;
      }
      calls += run.functions;
    }
    EXPECT_LE(calls, most_calls);
  }
}

// A start where the Hessian has diagonal elements of zero (Beale) or none but zeros must not make
// the scale, or the ridge that is measured in it, useless.
TEST(Scaling, SolvesWhatIsSolvedWithoutIt) {
  for (const double rule : {1.0, 2.0, 3.0})
    for (const Problem& p : problem_library()) {
      const Outcome scaled = solve(p, "NLPNRR", 1e-6, Matrix::row({0, 0, rule}));
      EXPECT_TRUE(scaled.solved || !solve(p, "NLPNRR", 1e-6).solved) << p.name << " " << rule;
    }
}

}  // namespace
}  // namespace tqnlp::test
