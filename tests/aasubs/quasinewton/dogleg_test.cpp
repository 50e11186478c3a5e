// The double dogleg path, against the model that it is to minimize. Runs of the technique are
// tested with those of the other quasi-Newton techniques.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/quasinewton/znlpddl.h"
#include "kernels/vector.h"
#include "support/record.h"

namespace tqnlp::test {
namespace {

// A box with one bound active and its parameters out of order, so that components, parameters and
// their scales have different places.
struct Model {
  TestRecord record{5, DBLDOG};
  DGWSTR d{};
  double g[4], r[4][4] = {};  // reduced gradient and factor

  explicit Model(unsigned seed, double size) {
    std::mt19937 random(seed);
    std::normal_distribution<double> normal;
    record.with_bounds(std::vector<double>(5, 0.0), std::vector<double>(5, 9.0));
    const long order[] = {3, 0, 4, 1, 2};
    std::copy_n(order, 5, record.ifxr);
    record.nabc = record.iabc[2] = 1;
    record.hesc = 1;
    for (long j = 0; j < 5; ++j) {
      record.dsca[j] = std::exp(normal(random));
      record.grad[j] = size * normal(random);
    }
    for (long i = 0; i < 4; ++i) {
      g[i] = record.grad[order[i]];
      for (long j = i; j < 4; ++j)
        record.hess[zisub(j, i)] = r[i][j] = normal(random) + (i == j ? 2.0 : 0.0);
    }
    d.minstr = &record;
    d.dogleg = true;
    EXPECT_TRUE(make_dogleg_model(&d));
  }
  const double* step() const { return record.wrk2 + 10; }
  double slope() const { return zvdot11(4, g, step()); }
  double length() const {
    double sum = 0;
    for (long k = 0; k < 4; ++k) sum += std::pow(record.dsca[record.ifxr[k]] * step()[k], 2);
    return std::sqrt(sum);
  }
  double reduction() const {
    double sum = slope();
    for (const auto& row : r) sum += 0.5 * std::pow(zvdot11(4, row, step()), 2);
    return -sum;
  }
};

TEST(Dogleg, StepsAreThoseOfTheModel) {
  int kinds[5] = {};
  for (unsigned seed = 0; seed < 200; ++seed) {
    SCOPED_TRACE(seed);
    Model model(seed, std::pow(10.0, double(seed % 7) - 3.0));
    TestRecord& record = model.record;
    int last = CAUCHY_STEP;
    double promise = 0, lamb = HUGE_VALUE;
    for (record.delt = 1e-3 * model.d.dst0; record.delt < 2 * model.d.dst0; record.delt *= 1.1) {
      const int kind = dbldog(&model.d);
      const double size = model.d.nred;
      ++kinds[kind];
      EXPECT_LE(kind, last);
      EXPECT_NEAR(model.d.dstn, std::min(record.delt, model.d.dst0), 0);
      EXPECT_NEAR(model.length() / model.d.dstn, 1, 1e-10);
      EXPECT_NEAR(model.d.gtst, model.slope(), 1e-12 * size);
      EXPECT_NEAR(record.pred, model.reduction(), 1e-11 * size);
      EXPECT_GE(record.pred, promise - 1e-12 * size);
      EXPECT_LE(record.lamb, lamb);
      const double ranges[] = {0, 0, 1, 2, HUGE_VALUE};
      EXPECT_GE(record.lamb, ranges[kind - 1] - 1e-12);
      EXPECT_LE(record.lamb, ranges[kind] + 1e-12);
      last = kind;
      promise = record.pred;
      lamb = record.lamb;
    }
    EXPECT_EQ(last, NEWTON_STEP);
    EXPECT_NEAR(promise, model.reduction(), 1e-11 * promise);
  }
  EXPECT_GT(*std::min_element(kinds + 1, kinds + 5), 500);
}

// A curvature that is the same everywhere, where the path is straight and the points on it differ
// by rounding; and no gradient, no step.
TEST(Dogleg, OfModelsWithoutADirection) {
  Model flat(1, 0.0);
  flat.record.delt = 1.0;
  EXPECT_EQ(dbldog(&flat.d) + flat.d.dstn + flat.record.pred, NEWTON_STEP);
  Model round(1, 1.0);
  for (long i = 0; i < 4; ++i) {
    for (long j = 0; j <= i; ++j) {
      round.r[j][i] = i == j ? 3.0 * round.record.dsca[round.record.ifxr[i]] : 0.0;
      round.record.hess[zisub(i, j)] = round.r[j][i];
    }
  }
  ASSERT_TRUE(make_dogleg_model(&round.d));
  for (const double share : {0.5, 1 - 1e-15, 1.0 - 3e-16, 1.0}) {
    round.record.delt = share * round.d.dst0;
    dbldog(&round.d);
    EXPECT_NEAR(round.length(), round.record.delt, 1e-12 * round.d.dst0);
    EXPECT_NEAR(round.record.pred, round.reduction(), 1e-12 * round.d.nred);
  }
}

}  // namespace
}  // namespace tqnlp::test
