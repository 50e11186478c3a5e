// The constrained quadratic subproblem: every solution on random polyhedra is certified by the
// conditions of Karush, Kuhn and Tucker, from feasible and infeasible starts.
#include <gtest/gtest.h>

#include "aasubs/constraints/draw.h"
#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpbas.h"
#include "aasubs/constraints/znlplcq.h"

namespace tqnlp::test {
namespace {

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

TEST(QuadraticSubproblem, SolutionsSatisfyTheOptimalityConditions) {
  for (unsigned seed = 0; seed < 400; ++seed) {
    const Polyhedron p = make_polyhedron(seed);
    Random random(seed);
    const auto r = p.record(random.one_in(2) ? 4 : 16);
    if (seed % 2 == 0) r->at(p.inside);
    const Vec c = random.vector(p.n, 4.0);
    const double lamb = seed % 3 == 0 ? 2.0 : (seed % 3 == 1 ? 0.0 : 0.5);
    Vec work(packed_size(p.n));
    Vec hess = lamb < 2.0 ? random_hessian(random, p.n, 0.1) : Vec();
    const Vec kept = hess;
    std::ranges::copy(c, r->grad);
    double* matrix = hess.empty() ? nullptr : hess.data();
    ASSERT_EQ(0, znlplcq(r.get(), 0, 0, lamb, r->grad, matrix, work.data())) << "seed " << seed;
    EXPECT_EQ(kept, hess);
    certify(*r, c, lamb, hess, ("seed " + std::to_string(seed)).c_str());
  }
}

// Rows through one vertex that differ by 1e-5 to 1e-8: some are within tolerance of blocking, and
// of being dependent.
TEST(QuadraticSubproblem, NearlyParallelRowsThroughAVertexAreToldApart) {
  for (unsigned seed = 0; seed < 4000; ++seed) {
    Random random(seed);
    const long n = 2 + seed % 4;
    const Vec vertex = random.vector(n);
    const Vec inside = random.vector(n);
    std::vector<LinearRow> rows;
    for (long i = 0; i < 2 * n; ++i) {
      Vec a = i < n - 1 ? random.vector(n) : rows[random.below(i)].a;
      const double change = i < n - 1 ? 0.0 : std::pow(10.0, random.within(-8, -5));
      for (double& v : a) v += change * random.uniform();
      if (dot(a, inside) < 0.0) std::ranges::transform(a, a.begin(), std::negate());
      rows.push_back({a, 1, dot(a, vertex)});
    }
    TestRecord r(n, seed % 8 < 4 ? 4 : 16);
    r.with_rows(rows).at(vertex);
    for (long j = 0; j < n && seed % 3 != 0; ++j) r.x[j] += seed % 3 == 1 ? inside[j] : 2.0;
    const Vec c = random.vector(n, 4.0);
    const Vec hess = random_hessian(random, n, 0.3);
    Vec work(hess), matrix(hess);
    std::ranges::copy(c, r.grad);
    ASSERT_EQ(0, znlplcq(&r, 0, 0, 0.0, r.grad, matrix.data(), work.data())) << "seed " << seed;
    certify(r, c, 0.0, hess, ("seed " + std::to_string(seed)).c_str());
    if (HasFailure()) break;
  }
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
  EXPECT_EQ(-1, run(consistent, {MISSING, 0.0}, 2.0, 1.0));
}

}  // namespace
}  // namespace tqnlp::test
