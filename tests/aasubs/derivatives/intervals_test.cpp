// Difference intervals against those that theory gives, and the flags of constant parameters.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include "aasubs/derivatives/difference_record.h"
#include "aasubs/derivatives/znlpfdh.h"
#include "aasubs/derivatives/znlpfid.h"

namespace tqnlp::test {
namespace {

// Rounding noise of relative size eps, the same for the same bits of x.
double noise(const double* x, long n, double eps) {
  std::uint64_t hash = 1469598103934665603U;
  for (long j = 0; j < n; ++j) {
    std::uint64_t bits;
    std::memcpy(&bits, &x[j], sizeof bits);
    hash = (hash ^ bits) * 1099511628211U;
    hash ^= hash >> 29;
  }
  return eps * (2.0 * static_cast<double>(hash >> 11) * 0x1p-53 - 1.0);
}

// With noise eps the best forward interval is 2 sqrt(eps (|f| + 1)/|f''|): the estimate must be
// within a factor 3, and the gradient with it far better than with the interval of full digits.
TEST(Intervals, NoisyFunctionGetsWideIntervals) {
  const double eps = 1e-8;
  const Vec at = {1.3, -20, 0};
  DifferenceRecord r(3, 1);
  r.functions = [eps](const double* x, double* f) {
    f[0] = 3 + x[0] * x[0] + std::exp(0.1 * x[1]) + 50 * std::cos(x[2]);
    f[0] += (std::fabs(f[0]) + 1) * noise(x, 3, eps);
  };
  r.fdig = 8;
  r.cfdh = 1;
  r.start(at);
  const Vec func(r.func, r.func + 1);
  EXPECT_EQ(znlpfdh(&r, 1), 0);
  const double f0 = r.crit;
  EXPECT_EQ(r.point(), at);
  EXPECT_EQ(Vec(r.func, r.func + 1), func);
  const double curvature[] = {2, 0.01 * std::exp(-2.0), 50};
  const double slope[] = {2.6, 0.1 * std::exp(-2.0), 0};
  for (long j : {0L, 2L}) {
    const double best = 2 * std::sqrt(eps * (f0 + 1) / curvature[j]) / (1 + std::fabs(at[j]));
    EXPECT_GT(r.hfwd[j], best / 3) << j;
    EXPECT_LT(r.hfwd[j], best * 3) << j;
  }
  for (long j = 0; j < 3; ++j) EXPECT_GE(r.hcnt[j], r.hfwd[j]);
  EXPECT_EQ(znlpfg2(&r), 0);
  const double with = std::fabs(r.grad[0] - slope[0]);
  r.cfdh = 0;
  r.fdig = 15.65;
  EXPECT_EQ(znlpfg2(&r), 0);
  const double without = std::fabs(r.grad[0] - slope[0]);
  EXPECT_LT(with, 1e-3);
  EXPECT_LT(10 * with, without);
}

TEST(Intervals, ConstantLinearAndCurvedParameters) {
  DifferenceRecord r(5, 1);
  // x0 absent, x1 linear, x2 curved; x3 and x4 have no influence here, but elsewhere they have
  r.functions = [](const double* x, double* f) {
    f[0] = 3 * x[1] + x[2] * x[2] + x[3] * (x[4] - 1);
  };
  r.start({2, 1, 1, 0, 1});
  EXPECT_EQ(znlpfdh(&r, 1), 0);
  const double eps = std::pow(10, -15.653559774527022);
  EXPECT_EQ(r.ofco[0], 1);
  EXPECT_EQ(r.ofco[1], 1);
  EXPECT_EQ(r.ofco[2], 0);
  EXPECT_EQ(r.ofco[3], 0);
  EXPECT_EQ(r.ofco[4], 0);
  for (const long j : {0L, 1L, 3L, 4L}) {
    EXPECT_NEAR(r.hfwd[j], 2 * std::sqrt(eps), 1e-15);
    EXPECT_NEAR(r.hcnt[j], 20 * std::sqrt(eps), 1e-14);
  }
  EXPECT_NEAR(r.hfwd[2], 2 * std::sqrt(eps * 5 / 2) / 2, 1e-10);
  EXPECT_NEAR(r.grad[1], 3, 1e-5);
  EXPECT_NEAR(r.grad[2], 2, 1e-5);
}

TEST(Intervals, StayInsideTheBounds) {
  DifferenceRecord r(2, 1);
  r.functions = [](const double* x, double* f) { f[0] = std::sqrt(1 - x[0]) + std::exp(x[1]); };
  r.with_bounds({-4, 0}, {1 - 1e-3, 3});
  r.start({1 - 1e-3, 0});
  EXPECT_EQ(znlpfdh(&r, 1), 0);
  for (const Vec& point : r.visited) {
    EXPECT_LE(point[0], 1 - 1e-3);
    EXPECT_GE(point[1], 0);
  }
  EXPECT_NEAR(r.grad[0], -0.5 / std::sqrt(1e-3), 1e-2);
}

// Job 2 looks at constraints alone, job 3 at both: the interval then serves the worst of them.
TEST(Intervals, OfConstraints) {
  DifferenceRecord r(1, 1, 2);
  r.functions = [](const double* x, double* f) { f[0] = x[0] * x[0]; };
  r.constraints = [](const double* x, double* c) {
    c[0] = std::exp(x[0]);
    c[1] = 1e6 * x[0] * x[0];
  };
  r.start({1});
  EXPECT_EQ(znlpfdh(&r, 2), 0);
  const double of_constraints = r.hfwd[0];
  EXPECT_NEAR(r.jcon[0], std::exp(1.0), 1e-4);
  EXPECT_NEAR(r.jcon[1], 2e6, 100);
  EXPECT_EQ(r.fcon[1], 1e6);
  // The two together: truncation of the strongly curved one against the noise of both.
  const double eps = std::pow(10, -15.653559774527022);
  EXPECT_NEAR(of_constraints, std::sqrt(eps * 1e6 / 2e6), 2e-9);
  EXPECT_EQ(znlpfdh(&r, 3), 0);
  EXPECT_NEAR(r.hfwd[0], of_constraints, 1e-9);
  // Without constraints there is nothing that job 2 could estimate.
  r.nlicon = 0;
  EXPECT_EQ(znlpfdh(&r, 2), 0);
  EXPECT_TRUE(wzmis(r.hfwd[0]));
  EXPECT_EQ(znlpfdh(&r, 0), 0);
}

// A failing evaluation ends the estimate; the base point must work, since it worked before.
TEST(Intervals, FailureLeavesLaterParametersMissing) {
  DifferenceRecord r(2, 1);
  r.functions = [](const double* x, double* f) { f[0] = x[1] != 1 ? NAN : x[0] * x[0]; };
  r.start({1, 1});
  EXPECT_LT(znlpfdh(&r, 1), 0);
  EXPECT_FALSE(wzmis(r.hfwd[0]));
  EXPECT_TRUE(wzmis(r.hfwd[1]));
  EXPECT_TRUE(wzmis(r.hcnt[1]));
  EXPECT_EQ(r.point(), (Vec{1, 1}));
  EXPECT_EQ(r.crit, 1);
}

}  // namespace
}  // namespace tqnlp::test
