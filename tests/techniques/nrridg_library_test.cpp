// NLPNRR over the whole problem library from the standard starts, with the defaults of the call.
#include <gtest/gtest.h>

#include <map>

#include "techniques/outcome.h"

namespace tqnlp::test {
namespace {

// Problems that NLPNRR does not solve to 1e-6 from the standard start, with the reason found in the
// iteration history.
const std::map<std::string, std::string> NOT_SOLVED = {
    {"Meyer",
     "a long curved valley where every step gains one or two per cent: 223 iterations are needed, "
     "the default limit is 200"},
    {"HS25", "the start is flat: its gradient already meets ABSGCONV"},
    {"HS54",
     "parameters of size 1e7 make small gradients far from the minimum: ABSGCONV is met early"},
    {"S265", "the feasible point next to the start is a saddle: its projected gradient is 0"}};

class NrridgLibrary : public testing::TestWithParam<Problem> {};

TEST_P(NrridgLibrary, EndsAsExpected) {
  const Problem& p = GetParam();
  const Outcome first = solve(p, "NLPNRR", 1e-6);
  EXPECT_EQ(first.solved, NOT_SOLVED.count(p.name) == 0)
      << "code " << first.code << " f " << first.f << " after " << first.iterations;
  EXPECT_LE(first.infeasible, 1e-7);
  if (first.solved) {
    EXPECT_GT(first.code, 0);
  }
  // The same call gives the same bits.
  const Outcome second = solve(p, "NLPNRR", 1e-6);
  EXPECT_EQ(first.x, second.x);
  EXPECT_EQ(first.functions, second.functions);
}

// Test names may hold letters and digits only.
std::string name_of(const testing::TestParamInfo<Problem>& problem) {
  std::string name = problem.param.name;
  for (char& c : name) {
    if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
  }
  return name;
}

INSTANTIATE_TEST_SUITE_P(All, NrridgLibrary, testing::ValuesIn(problem_library()), name_of);

}  // namespace

// The name stands in for a problem in the output of a failing test.
void PrintTo(const Problem& problem, std::ostream* out) { *out << problem.name; }

}  // namespace tqnlp::test
