// NLPQN and NLPVMC over the problems with nonlinear constraints, every success judged by the
// certificate of the problem library; and problems that show what the watchdog and the way out of
// contradictory constraints are for.
#include <gtest/gtest.h>

#include "problems/certificate.h"
#include "techniques/library.h"

namespace tqnlp::test {
namespace {

// Runs are told apart by subroutine and version.
constexpr int AVERAGED = 1, WATCHDOG = 2, VMCWD_RUN = 3;

constexpr const char* LOCAL = "another point that satisfies the conditions";
constexpr const char* DEPENDENT = "the gradients of the active constraints are dependent";
constexpr const char* FLAT = "where the constraint is infeasible it is flat to 1e-8";
const Exceptions SEQUENTIAL = {
    {{"HS57"}, {ANY}, 6, LOCAL, 0.1},
    {{"HS33"}, {ANY}, 6, LOCAL, 1.0},
    {{"HS87"}, {WATCHDOG, AVERAGED}, SOME_CODE, "an objective with jumps", 1e-2},
    {{"HS13"}, {ANY}, SOME_CODE, DEPENDENT, 1e-2},
    {{"HS88", "HS89", "HS90", "HS92"}, {VMCWD_RUN}, SOME_CODE, FLAT, 2.0},
    {{"HS88"}, {AVERAGED}, SOME_CODE, "rounding ends the last search", 1e-6},
};

struct Variant {
  const char* subroutine;
  double version;
  int variant;
  long calls;  // of all problems, when this was written
};

class Sequential : public testing::TestWithParam<Variant> {};

// Criteria by the gradient of the Lagrangian and by the promise.
Matrix tight() {
  const double M = missing;
  return Matrix::row({M, M, M, 1e-10, M, 1e-7, M, 0});
}

TEST_P(Sequential, EndsAsExpected) {
  const Variant& row = GetParam();
  const double M = missing;
  long calls = 0;
  for (const Problem& p : hock_schittkowski()) {
    if (p.constraints == 0) continue;
    SCOPED_TRACE(p.name);
    const Matrix opt = Matrix::row(
        {0, 0, M, M, M, row.version, M, M, M, double(p.constraints), double(p.equalities)});
    const Outcome run = solve(p, row.subroutine, 1e-6, opt, tight());
    const Exception* exception = find(SEQUENTIAL, p.name, row.variant);
    double off = HUGE_VAL;
    for (const double f : p.minima) {
      off = std::min(off, std::fabs(run.f - f) / std::max(1.0, std::fabs(f)));
    }
    EXPECT_LE(off, exception != nullptr ? exception->within : 1e-6) << run.code;
    const bool any_code = exception != nullptr && exception->code == SOME_CODE;
    EXPECT_TRUE(any_code || run.code > 0) << run.code;
    EXPECT_TRUE(run.code < 0 || certify(p, run.x.data(), {1e-6, 1e-6, 1e-3}).holds);
    calls += run.functions;
  }
  EXPECT_LE(calls, row.calls * 21 / 20);
}

INSTANTIATE_TEST_SUITE_P(Library, Sequential,
                         testing::Values(Variant{"NLPQN", 2, WATCHDOG, 1951},
                                         Variant{"NLPQN", 1, AVERAGED, 2461},
                                         Variant{"NLPVMC", 2, VMCWD_RUN, 2455}));

// Full steps lower the Lagrangian and raise every merit function at each point of the circle but
// the solution: a method that insists on the merit function crawls.
TEST(Sequential, TakesFullStepsWhereTheMeritFunctionRises) {
  const Problem maratos = constrained(
      scalar_problem("Maratos", {0.8, 0.6}, {-1.0},
                     [](auto x) { return 10.0 * (x[0] * x[0] + x[1] * x[1] - 1.0) - x[0]; }),
      1, 0, [](auto x, auto c) { c[0] = x[0] * x[0] + x[1] * x[1] - 1.0; });
  const double M = missing;
  for (const char* subroutine : {"NLPQN", "NLPVMC"}) {
    const Outcome run =
        solve(maratos, subroutine, 1e-6, Matrix::row({0, 0, M, M, M, M, M, M, M, 1, 1}), tight());
    EXPECT_TRUE(run.solved && run.functions <= 20) << run.functions;
  }
}

// No point satisfies both: the end says which constraint is violated, and by how much.
TEST(Sequential, NamesContradictoryConstraints) {
  for (const char* subroutine : {"NLPQN", "NLPVMC"}) {
    long calls = 0;
    Session tql;
    tql.module("F", [](const Matrix& x) { return Matrix::scalar(x[0] * x[0] + x[1]); });
    tql.module("C", [&calls](const Matrix& x) {
      ++calls;
      const double r = x[0] * x[0] + x[1] * x[1];
      return Matrix::row({1 - r, r - 4});
    });
    const double M = missing;
    const auto results = tql.call(
        subroutine, {"F", Matrix::row({3, 1}), Matrix::row({0, 0, M, M, M, M, M, M, M, 2, 0}),
                     Matrix(), Matrix(), Matrix(), Matrix(), Matrix(), "C"});
    EXPECT_EQ(results[0][0], -5);
    EXPECT_LE(calls, 2000);
    const auto named = [](const LogRecord& line) {
      return line.group == 549 && line.number == 144;
    };
    EXPECT_EQ(std::count_if(tql.log().begin(), tql.log().end(), named), 1);
  }
}

}  // namespace
}  // namespace tqnlp::test
