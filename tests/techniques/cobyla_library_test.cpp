// NLPNMS with constraints (COBYLA) over the problems with nonlinear constraints.
#include <gtest/gtest.h>

#include <stdexcept>

#include "techniques/library.h"

namespace tqnlp::test {
namespace {

constexpr const char* VALLEY = "a curved valley: 4000 to 25000 calls, the limit is 3000";
const Exceptions COBYLA = {
    {{"HS26", "HS46", "HS93"}, {ANY}, -8, VALLEY, 2e-6},
    {{"HS106"}, {ANY}, -8, "parameters of sizes 10 to 10^4, and no scale of the radius", 0.5},
    {{"HS13"}, {ANY}, 4, "the gradients of the active constraints are dependent", 1e-3},
};

// With a last radius of 1e-6: objective, feasibility, and the calls that the report counts.
TEST(CobylaLibrary, EndsAsExpected) {
  const double M = missing;
  const Matrix tc = Matrix::row({M, M, M, M, M, M, M, M, 1e-6});
  long calls = 0;
  for (const Problem& p : hock_schittkowski_nonlinear()) {
    const Matrix opt =
        Matrix::row({0, 1, M, M, M, M, M, M, M, double(p.constraints), double(p.equalities)});
    const Outcome run = solve(p, "NLPNMS", 1e-5, opt, tc);
    const Exception* exception = find(COBYLA, p.name, ANY);
    double off = HUGE_VAL;
    for (const double f : p.minima) {
      off = std::min(off, std::fabs(run.f - f) / std::max(1.0, std::fabs(f)));
    }
    SCOPED_TRACE(p.name);
    EXPECT_EQ(run.code, exception != nullptr ? exception->code : 4);
    EXPECT_LE(off, exception != nullptr ? exception->within : 1e-6);
    EXPECT_LE(run.infeasible, p.name == "HS106" ? 0.1 : 1e-6);
    // The driver's own call at the start is not counted.
    EXPECT_EQ(run.reported.at("Function calls") + 1, double(run.functions));
    calls += run.functions;
    // With the default last radius the last step is brief, and its violation of second order.
    EXPECT_LE(solve(p, "NLPNMS", 1e-4, opt).infeasible, p.name == "HS106" ? 0.1 : 1e-6);
  }
  EXPECT_LE(calls, 24000);  // 22734 when this was written
}

// A row makes the call constrained; a module without its number (opt element 10) stays uncalled.
TEST(Cobyla, LeavesAModuleWithoutItsNumberAlone) {
  Session tql;
  tql.module("F", [](const Matrix& x) { return Matrix::scalar(x[0] * x[0] + x[1] * x[1]); });
  tql.module("C", [](const Matrix&) -> Matrix { throw std::logic_error("called"); });
  const Matrix none, rows = Matrix::of({{missing, missing, missing, missing},
                                        {missing, missing, missing, missing},
                                        {1, 1, 1, 2}});
  const auto results =
      tql.call("NLPNMS", {"F", Matrix::row({3, 3}), none, rows, none, none, none, "C"});
  EXPECT_GT(results[0][0], 0);
  EXPECT_NEAR(results[1][0] + results[1][1], 2.0, 1e-3);
}

// The unit of a constraint does not matter, though squares of its gradient overflow or vanish.
TEST(Cobyla, TakesConstraintsOfAnyUnit) {
  for (const double unit : {1e-100, 1e200}) {
    Session tql;
    tql.module("F", [](const Matrix& x) { return Matrix::scalar(x[0]); });
    tql.module("C", [&](const Matrix& x) { return Matrix::scalar(unit * (x[0] - x[1] * x[1])); });
    const Matrix opt = options_of({{10, 1}}), none;
    const auto r = tql.call("NLPNMS", {"F", Matrix::row({2, 2}), opt, none, none, none, none, "C"});
    EXPECT_NEAR(r[1][0], 0.0, 1e-3) << unit;
  }
}

}  // namespace
}  // namespace tqnlp::test
