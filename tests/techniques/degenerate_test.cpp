// Runs that start at a vertex through which more constraints pass than there are parameters: the
// answer must be that of a run from the interior.
#include <gtest/gtest.h>

#include <random>

#include "techniques/outcome.h"

namespace tqnlp::test {
namespace {

// The point of a random cone with its vertex at v that is nearest to a random target.
Problem nearest_point_of_cone(unsigned seed, long n, long rows, bool with_bounds, bool integer) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> uniform(-1.0, 1.0);
  const auto draw = [&] { return integer ? std::round(2.0 * uniform(random)) : uniform(random); };
  const auto size = static_cast<std::size_t>(n);
  std::vector<double> vertex(size), inside(size), target(size);
  for (std::size_t j = 0; j < size; ++j) {
    vertex[j] = draw();
    inside[j] = 0.2 + std::fabs(uniform(random));
    target[j] = vertex[j] + 2.0 * uniform(random);
  }
  Problem p = scalar_problem("cone", vertex, {}, [n, target](auto x) {
    auto sum = 0.0 * x[0];
    for (long j = 0; j < n; ++j) {
      const auto gap = x[j] - target[static_cast<std::size_t>(j)];
      sum += (1.0 + 0.1 * double(j)) * gap * gap;
    }
    return sum;
  });
  for (long i = 0; i < rows; ++i) {
    LinearRow row{std::vector<double>(size), 1, 0.0};
    double towards_inside = 0.0;
    for (std::size_t j = 0; j < size; ++j) {
      row.a[j] = draw();
      towards_inside += row.a[j] * inside[j];
    }
    for (std::size_t j = 0; j < size; ++j) {
      if (towards_inside < 0.0) row.a[j] = -row.a[j];
      row.b += row.a[j] * vertex[j];
    }
    if (std::fabs(towards_inside) > 0.1) p.rows.push_back(row);
  }
  if (with_bounds) {
    p.lower = vertex;
    p.upper.assign(size, NONE);
  }
  // The start of the comparison lies behind the vertex's coordinates.
  p.start.insert(p.start.end(), inside.begin(), inside.end());
  return p;
}

TEST(DegenerateVertex, TheRunLeavesItForTheSolution) {
  for (unsigned seed = 1; seed <= 240; ++seed) {
    const long n = 2 + seed % 7;
    Problem p = nearest_point_of_cone(seed, n, (seed % 2 + 2) * n, seed % 3 == 0, seed % 5 < 2);
    std::vector<double> interior(p.start.begin(), p.start.begin() + n);
    for (long j = 0; j < n; ++j) interior[std::size_t(j)] += p.start[std::size_t(n + j)];
    p.start.resize(std::size_t(n));
    const Outcome from_vertex = solve(p, "NLPNRR", 1e-6);
    p.start = interior;
    const Outcome from_inside = solve(p, "NLPNRR", 1e-6);
    EXPECT_NEAR(from_vertex.f, from_inside.f, 1e-5 * (1.0 + from_inside.f)) << "seed " << seed;
    EXPECT_GT(from_vertex.code, 0) << "seed " << seed;
    EXPECT_LE(from_vertex.infeasible, 1e-7);
  }
}

TEST(Equalities, DependentOnesAreHarmlessAndContradictoryOnesAreToldApart) {
  Problem p =
      scalar_problem("equalities", {5, 5}, {0.5}, [](auto x) { return x[0] * x[0] + x[1] * x[1]; });
  p.rows = {{{1, 1}, 0, 1}, {{2, 2}, 0, 2}};
  const Outcome redundant = solve(p, "NLPNRR", 1e-6);
  EXPECT_TRUE(redundant.solved);
  p.rows[1].b = 3;
  const Outcome contradictory = solve(p, "NLPNRR", 1e-6);
  EXPECT_EQ(contradictory.code, -10);
  EXPECT_EQ(contradictory.x, p.start);
}

}  // namespace
}  // namespace tqnlp::test
