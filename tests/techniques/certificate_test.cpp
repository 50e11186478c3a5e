// The certificate of optimality: points that satisfy the conditions, and points that fail one.
#include "problems/certificate.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

namespace tqnlp::problems {
namespace {

TEST(Certificate, HoldsAtMinimaAlone) {
  struct Row {
    const char* name;
    std::vector<double> x;
    bool feasible, stationary, holds;
  };
  const Row rows[] = {
      {"HS71", {1, 4.7429996, 3.8211500, 1.3794083}, true, true, true},
      {"HS71", {1, 5, 5, 1}, false, true, false},  // a corner of the box, off the equality
      {"HS21", {2, 0}, true, true, true},
      {"HS21", {50, 0}, true, false, false},  // at a bound whose multiplier is negative
      {"HS21", {2.1, 0}, true, false, false},
      {"HS28", {0.5, -0.5, 0.5}, true, true, true},
      {"HS28", {0.5, -0.5, 0.6}, false, false, false},
      {"HS55", {0, 4.0 / 3, 5.0 / 3, 1, 2.0 / 3, 1.0 / 3}, true, true, true},  // dependent rows
      {"HS13", {1, 0}, true, false, false},  // the active gradients leave no multipliers
      {"HS62", {NAN, 0.5, 0.5}, false, false, false},
  };
  for (const Row& row : rows) {
    for (const Problem& p : hock_schittkowski()) {
      if (p.name != row.name) continue;
      const Certificate c = certify(p, row.x.data());
      EXPECT_EQ(c.violation <= 1e-6, row.feasible) << p.name << " " << c.violation;
      EXPECT_EQ(c.stationarity <= 1e-4, row.stationary) << p.name << " " << c.stationarity;
      EXPECT_EQ(c.holds, row.holds) << p.name;
    }
  }
}

// The conditions of the least squares problem itself, with more columns than rows and doubles.
TEST(Certificate, LeastSquaresAreOptimal) {
  std::mt19937 random(7);
  std::normal_distribution<double> normal;
  const auto unit = [&](std::size_t n) {
    std::vector<double> v(n);
    double length = 0.0;
    for (double& value : v) length = std::hypot(length, value = normal(random));
    for (double& value : v) value /= length;
    return v;
  };
  for (int trial = 0; trial < 500; ++trial) {
    const std::size_t n = 1 + random() % 6, m = random() % 12, free = m == 0 ? 0 : random() % m;
    std::vector<std::vector<double>> a;
    for (std::size_t i = 0; i < m; ++i) a.push_back(i % 4 == 3 ? a[i / 2] : unit(n));
    const std::vector<double> b = unit(n), u = nonnegative_least_squares(a, free, b);
    std::vector<double> rest = b;
    for (std::size_t i = 0; i < m; ++i) {
      for (std::size_t j = 0; j < n; ++j) rest[j] -= u[i] * a[i][j];
    }
    for (std::size_t i = 0; i < m; ++i) {
      double slope = 0.0;
      for (std::size_t j = 0; j < n; ++j) slope += a[i][j] * rest[j];
      EXPECT_LE(i < free || u[i] > 0.0 ? std::fabs(slope) : slope, 1e-9) << trial;
      EXPECT_TRUE(i < free || u[i] >= 0.0) << trial;
    }
  }
}

}  // namespace
}  // namespace tqnlp::problems
