// Difference intervals against those that theory gives, and the flags of constant parameters.
#include <gtest/gtest.h>

#include <bit>
#include <cstdint>

#include "aasubs/derivatives/difference_record.h"
#include "aasubs/derivatives/znlpfdh.h"
#include "aasubs/derivatives/znlpfid.h"
#include "aasubs/driver/znlpdrv.h"

namespace tqnlp::test {
namespace {

const double EPS_OF_DIGITS = std::pow(10, -15.653559774527022);

// Rounding noise of relative size eps, the same for the same bits of x.
double noise(const double* x, long n, double eps) {
  std::uint64_t hash = 1469598103934665603U;
  for (long j = 0; j < n; ++j) {
    hash = (hash ^ std::bit_cast<std::uint64_t>(x[j])) * 1099511628211U;
    hash ^= hash >> 29;
  }
  return eps * (2.0 * static_cast<double>(hash >> 11) * 0x1p-53 - 1.0);
}

// With noise eps the best forward interval is 2 sqrt(eps (|f| + 1)/|f''|): the estimate must be
// within a factor 3.
TEST(Intervals, NoisyFunctionGetsWideIntervals) {
  const double eps = 1e-8;
  const Vec at = {1.3, -20, 0};
  DifferenceRecord r(3, 1);
  r.functions = [eps](const double* x) -> Vec {
    const double f = 3 + x[0] * x[0] + std::exp(0.1 * x[1]) + 50 * std::cos(x[2]);
    return {f + (std::fabs(f) + 1) * noise(x, 3, eps)};
  };
  r.fdig = 8;
  r.cfdh = 1;
  r.start(at);
  const double f0 = r.crit;
  EXPECT_EQ(znlpfdh(&r, 1), 0);
  EXPECT_EQ(r.crit, f0);
  EXPECT_EQ(r.func[0], f0);
  EXPECT_EQ(r.point(), at);
  for (const auto& [j, curvature] : {std::pair{0, 2.0}, std::pair{2, 50.0}}) {
    const double best = 2 * std::sqrt(eps * (f0 + 1) / curvature) / (1 + std::fabs(r.x[j]));
    EXPECT_GT(r.hfwd[j], best / 3) << j;
    EXPECT_LT(r.hfwd[j], best * 3) << j;
  }
  for (long j = 0; j < 3; ++j) EXPECT_GE(r.hcnt[j], r.hfwd[j]);
}

TEST(Intervals, ConstantLinearAndCurvedParameters) {
  DifferenceRecord r(5, 1);
  // x0 absent, x1 linear, x2 curved; x3 and x4 have no influence here, but elsewhere they have
  r.functions = [](const double* x) -> Vec { return {3 * x[1] + x[2] * x[2] + x[3] * (x[4] - 1)}; };
  r.start({2, 1, 1, 0, 1});
  EXPECT_EQ(znlpfdh(&r, 1), 0);
  EXPECT_EQ(std::vector<short>(r.ofco, r.ofco + 5), (std::vector<short>{1, 1, 0, 0, 0}));
  for (const long j : {0L, 1L, 3L, 4L}) {
    EXPECT_NEAR(r.hfwd[j], 2 * std::sqrt(EPS_OF_DIGITS), 1e-15);
    EXPECT_NEAR(r.hcnt[j], 20 * std::sqrt(EPS_OF_DIGITS), 1e-14);
  }
  EXPECT_NEAR(r.hfwd[2], 2 * std::sqrt(EPS_OF_DIGITS * 5 / 2) / 2, 1e-10);
  EXPECT_NEAR(r.grad[1], 3, 1e-5);
  EXPECT_NEAR(r.grad[2], 2, 1e-5);
}

// Job 2 looks at constraints alone, job 3 at both: the interval then serves the worst of them.
TEST(Intervals, OfConstraints) {
  DifferenceRecord r(1, 1, 2);
  r.functions = [](const double* x) -> Vec { return {x[0] * x[0]}; };
  r.constraints = [](const double* x) -> Vec { return {std::exp(x[0]), 1e6 * x[0] * x[0]}; };
  r.start({1});
  for (const int job : {2, 3}) {
    EXPECT_EQ(znlpfdh(&r, job), 0);
    EXPECT_NEAR(r.jcon[0], std::exp(1.0), 1e-4);
    EXPECT_NEAR(r.jcon[1], 2e6, 100);
    EXPECT_EQ(r.fcon[1], 1e6);
    // Truncation of the strongly curved one against the noise of all.
    EXPECT_NEAR(r.hfwd[0], std::sqrt(EPS_OF_DIGITS * 1e6 / 2e6), 2e-9);
  }
}

// A failing evaluation ends the estimate, be it the last one, at a base that worked before. To the
// driver it is a failed derivative.
TEST(Intervals, FailureLeavesLaterParametersMissing) {
  DifferenceRecord r(2, 1);
  r.functions = [](const double* x) -> Vec { return {x[1] != 1 ? NAN : x[0] * x[0]}; };
  r.start({1, 1});
  EXPECT_LT(znlpfdh(&r, 1), 0);
  EXPECT_FALSE(wzmis(r.hfwd[0]));
  EXPECT_TRUE(wzmis(r.hfwd[1]) && wzmis(r.hcnt[1]));
  EXPECT_TRUE(r.point() == (Vec{1, 1}) && r.crit == 1);
  r.cfdh = 1;
  EXPECT_EQ(znlpdrv(&r, 1, 0, 0, 0), -2);
  r.functions = [](const double* x) -> Vec { return {x[0] * x[0]}; };
  r.start({1, 1});
  EXPECT_EQ(znlpfdh(&r, 1), 0);
  const long last = r.calls;
  r.fail(last, last);
  EXPECT_EQ(znlpfdh(&r, 1), -1);
  EXPECT_TRUE(r.calls == last && r.crit == 1 && r.func[0] == 1);
}

}  // namespace
}  // namespace tqnlp::test
