// The constrained quadratic subproblem: every solution on random polyhedra is certified by the
// conditions of Karush, Kuhn and Tucker, from feasible and infeasible starts.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpbas.h"
#include "aasubs/constraints/znlplcq.h"
#include "support/record.h"

namespace tqnlp::test {
namespace {

using Vec = std::vector<double>;
constexpr double INF = HUGE_VALUE;

// Is x feasible, is c + Hx a combination of the members' gradients, and are the signs right?
void certify(TestRecord& r, const Vec& c, double lamb, const Vec& hess, const char* what) {
  const long n = r.nvar;
  Vec g(c);
  for (long i = 0; i < n; ++i) {
    g[i] += lamb * r.x[i];
    for (long j = 0; j < n && !hess.empty(); ++j) g[i] += hess[zisub(i, j)] * r.x[j];
  }
  double size = 1.0;
  for (long i = 0; i < n; ++i) {
    size = std::max(size, std::fabs(g[i]));
    EXPECT_NEAR(g[i], r.grad[i], 1e-9 * (1.0 + std::fabs(g[i]))) << what;
  }
  EXPECT_EQ(0, znlpfch(&r, 0, 0, 0)) << what;
  ASSERT_LE(r.nabc + r.nalc, n);
  for (long i = 0; i < r.nabc + r.nalc; ++i) {
    const double lambda = r.lagm[i];
    Vec row(n, 0.0);
    bool inequality = true;
    if (i < r.nabc) {
      const long j = r.ifxr[n - r.nabc + i];
      row[j] = r.iabc[j] < 0 ? -1.0 : 1.0;
      inequality = r.iabc[j] != 2;
      EXPECT_NEAR(r.iabc[j] < 0 ? r.ub[j] : r.lb[j], r.x[j], 1e-9) << what;
    } else {
      const long k = r.iact[i - r.nabc];
      r.acget(&r, k, row.data());
      inequality = k >= r.neqc;
      double value = -r.blcn[k];
      for (long j = 0; j < n; ++j) value += row[j] * r.x[j];
      EXPECT_NEAR(0.0, value, 1e-8 * (1.0 + std::fabs(r.blcn[k]))) << what;
    }
    EXPECT_TRUE(!inequality || lambda >= -1e-8 * size) << what << ": " << lambda;
    for (long j = 0; j < n; ++j) g[j] -= lambda * row[j];
  }
  for (const double rest : g) EXPECT_NEAR(0.0, rest, 1e-8 * size) << what;
}

struct Draw {
  std::mt19937 rng;
  explicit Draw(unsigned seed) : rng(seed) {}
  double normal() { return std::normal_distribution<double>()(rng); }
  long below(long n) { return static_cast<long>(rng() % static_cast<unsigned long>(n)); }
  Vec vector(long n, double size = 1.0) {
    Vec v(n);
    for (double& x : v) x = size * normal();
    return v;
  }
};

// A record around a point that satisfies everything; many constraints hold with equality there.
void fill(TestRecord& r, Draw& draw, const Vec& inside, bool with_bounds) {
  const long n = r.nvar;
  if (with_bounds) {
    Vec lower(n, -INF), upper(n, INF);
    for (long j = 0; j < n; ++j) {
      const long kind = draw.below(5);
      const double gap = draw.below(3) == 0 ? 0.0 : std::fabs(draw.normal());
      if (kind < 2) lower[j] = inside[j] - gap;
      if (kind == 1 || kind == 2) upper[j] = inside[j] + std::fabs(draw.normal()) + 0.1;
      if (kind == 3 && n > 3 && draw.below(3) == 0) lower[j] = upper[j] = inside[j];
    }
    r.with_bounds(lower, upper);
  }
  std::vector<LinearRow> rows;
  const long equalities = draw.below(n / 2 + 1);
  for (long i = 0; i < equalities + 1 + draw.below(2 * n); ++i) {
    Vec a = draw.vector(n);
    for (double& cell : a) cell = draw.below(3) == 0 ? 0.0 : cell;
    a[draw.below(n)] = 1.0;
    double value = 0.0;
    for (long j = 0; j < n; ++j) value += a[j] * inside[j];
    const bool equality = i < equalities;
    const double slack = equality || draw.below(3) == 0 ? 0.0 : std::fabs(draw.normal());
    rows.push_back({a, equality ? 0 : 1, value - slack});
  }
  r.with_rows(rows);
}

TEST(QuadraticSubproblem, SolutionsSatisfyTheOptimalityConditions) {
  int from_outside = 0;
  for (unsigned seed = 0; seed < 400; ++seed) {
    Draw draw(seed);
    const long n = 2 + draw.below(8);
    TestRecord r(n, draw.below(2) == 0 ? 4 : 16);
    const Vec inside = draw.vector(n);
    fill(r, draw, inside, draw.below(4) != 0);
    const bool feasible_start = seed % 2 == 0;
    r.at(feasible_start ? inside : draw.vector(n, 5.0));
    if (znlpfch(&r, 0, 0, 0) != 0) ++from_outside;

    const Vec c = draw.vector(n, 4.0);
    Vec hess, work(packed_size(n));
    double lamb = 2.0;
    if (draw.below(2) == 0) {
      lamb = draw.below(2) == 0 ? 0.0 : 0.5;
      const Vec factor = draw.vector(n * n);
      hess.assign(packed_size(n), 0.0);
      for (long i = 0; i < n; ++i) {
        for (long j = 0; j <= i; ++j) {
          for (long k = 0; k < n; ++k) hess[zisub(i, j)] += factor[i * n + k] * factor[j * n + k];
        }
        hess[zisub(i, i)] += 0.1;
      }
    }
    std::copy(c.begin(), c.end(), r.grad);
    const Vec kept = hess;
    const int code =
        znlplcq(&r, 0, 0, lamb, r.grad, hess.empty() ? nullptr : hess.data(), work.data());
    ASSERT_EQ(0, code) << "seed " << seed;
    EXPECT_EQ(kept, hess);
    certify(r, c, lamb, hess, ("seed " + std::to_string(seed)).c_str());
  }
  EXPECT_GT(from_outside, 150);
}

TEST(QuadraticSubproblem, NearestPointOfAPolyhedron) {
  TestRecord r(2);
  r.with_bounds({0.0, 0.0}, {INF, INF}).with_rows({{{1.0, 1.0}, 1, 2.0}}).at({-1.0, -3.0});
  double linear[] = {2.0, 6.0};  // -2 times the start; the array need not be the record's gradient
  ASSERT_EQ(0, znlplcq(&r, 0, 0, 2.0, linear, nullptr, nullptr));
  EXPECT_NEAR(2.0, r.x[0], 1e-14);
  EXPECT_NEAR(0.0, r.x[1], 1e-14);
  EXPECT_NEAR(6.0, linear[0], 1e-14);
  certify(r, {2.0, 6.0}, 2.0, {}, "corner");
}

// The caller's working set stands, also where it holds what must leave, and where x violates it.
TEST(QuadraticSubproblem, StartsFromTheWorkingSetOfTheCaller) {
  TestRecord r(3);
  r.with_bounds({0.0, -INF, -INF}, {INF, INF, INF});
  r.with_rows({{{1.0, 1.0, 1.0}, 0, 3.0}, {{0.0, 1.0, 0.0}, 1, -8.0}});
  r.at({0.0, -8.0, 1.0});
  znlpfch(&r, 1, 0, 0);
  znlpfta(&r, 0, 0, 0, nullptr, nullptr, nullptr);
  ASSERT_EQ(0, reduced_dimension(&r));
  ASSERT_EQ(0, znlplcq(&r, 0, 1, 2.0, r.grad, nullptr, nullptr));
  for (long j = 0; j < 3; ++j) EXPECT_NEAR(1.0, r.x[j], 1e-13);
}

TEST(QuadraticSubproblem, EndsWithACode) {
  const auto run = [](const std::vector<LinearRow>& rows, const Vec& start, double lamb,
                      double curvature) {
    TestRecord r(2);
    r.with_bounds({0.0, 0.0}, {INF, INF}).with_rows(rows).at(start);
    double hess[] = {curvature, 0.0, curvature};
    return znlplcq(&r, 1, 0, lamb, r.grad, lamb == 2.0 ? nullptr : hess, r.hpro);
  };
  const std::vector<LinearRow> consistent = {{{1.0, 1.0}, 1, 1.0}};
  // No feasible point: x + y <= -1 in the positive quadrant, and parallel equalities.
  EXPECT_EQ(-1, run({{{-1.0, -1.0}, 1, 1.0}}, {3.0, 4.0}, 2.0, 1.0));
  EXPECT_EQ(-1, run({{{1.0, 1.0}, 0, 1.0}, {{1.0, 1.0}, 0, 2.0}}, {3.0, 4.0}, 2.0, 1.0));
  EXPECT_EQ(-2, run(consistent, {3.0, 4.0}, 0.0, -1.0));
  EXPECT_EQ(0, run(consistent, {3.0, 4.0}, 1.5, -1.0));
  EXPECT_EQ(0, run(consistent, {3.0, 4.0}, 0.0, 1e-7)) << "small units are not singular";
  EXPECT_EQ(-1, run(consistent, {std::numeric_limits<double>::quiet_NaN(), 0.0}, 2.0, 1.0));
}

}  // namespace
}  // namespace tqnlp::test
