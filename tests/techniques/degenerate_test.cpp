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

// Five rows that differ in the sixth digit: of those that block at the vertex one has a slope so
// small that it stays within tolerance over a full step, beyond which other rows are met. A run
// that cannot settle such a point must not claim convergence there.
TEST(DegenerateVertex, ARowThatIsOnlyMetFurtherOnStaysOut) {
  Problem p = scalar_problem(
      "pencil", {0.037547008806357418, -1.811911557292436, 1.2993207851280184}, {}, [](auto x) {
        const auto a = x[0] + 1.3140921751284975, b = x[1] + 1.3316777165557836,
                   c = x[2] + 1.4108730022735356;
        return 0.94831823765276455 * a * a + 0.68990517233774260 * b * b +
               0.64764627632342255 * c * c + 0.87755640161126269 * a * b -
               0.80640510096832129 * a * c - 0.70760732120757275 * b * c +
               0.1 * (a * a * a * a + b * b * b * b + c * c * c * c);
      });
  p.rows = {{{-0.84798008116639001, 0.99904812664139586, 0.47767518330761494}, 1, 0},
            {{-0.84797935654924417, 0.99904776008923191, 0.47767488324890028}, 1, 0},
            {{-0.84798024147424533, 0.99904872772822872, 0.47767405625863513}, 1, 0},
            {{-0.84797934770990169, 0.99904777553058577, 0.47767486639021972}, 1, 0},
            {{-0.84797937323986206, 0.99904777034578118, 0.47767490249466277}, 1, 0}};
  p.lower = {-3, -NONE, -NONE};
  p.upper = {3, NONE, NONE};
  for (const char* technique : {"NLPNRR", "NLPQN"}) {
    const Outcome o = solve(p, technique, 1e-6);
    EXPECT_TRUE(o.code < 0 || o.unexplained < 1e-6) << technique << ' ' << o.code;
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
