// Runs from many starts: the same results whatever the number of threads, one solution a point.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <random>

#include "tqnlp/optimize.hpp"

namespace tqnlp::test {
namespace {

// Six minima, two of them the least.
Problem camel_back() {
  return Problem::minimize(2,
                           [](Point x) {
                             const double a = x[0] * x[0], b = x[1] * x[1];
                             return (4 - 2.1 * a + a * a / 3) * a + x[0] * x[1] + (-4 + 4 * b) * b;
                           })
      .bounds({-3, -2}, {3, 2});
}

std::vector<std::vector<double>> random_starts(int count) {
  std::mt19937 random(1);
  std::vector<std::vector<double>> starts;
  for (int i = 0; i < count; ++i) {
    starts.push_back({random() / 4294967296.0 * 6 - 3, random() / 4294967296.0 * 4 - 2});
  }
  return starts;
}

TEST(ManyStarts, GiveTheSameWhateverTheThreads) {
  const std::vector<std::vector<double>> starts = random_starts(60);
  const ManyResults alone = solve_from_many(camel_back(), starts, {}, 1);
  EXPECT_NEAR(alone.best().objective, -1.0316284535, 1e-9);
  EXPECT_EQ(alone.solutions.size(), 6u);
  EXPECT_EQ(alone.summary.rows.size(), 6u);
  std::size_t led = 0;
  for (std::size_t k = 0; k < alone.solutions.size(); ++k) {
    led += alone.solutions[k].starts.size();
  }
  EXPECT_EQ(led, starts.size());
  for (const int threads : {2, 7, 0}) {
    const ManyResults many = solve_from_many(camel_back(), starts, {}, threads);
    EXPECT_EQ(many.solution_of, alone.solution_of);
    for (std::size_t k = 0; k < many.solutions.size(); ++k) {
      EXPECT_EQ(many.solutions[k].result.x, alone.solutions[k].result.x);
    }
  }
}

// What the lowest start throws arrives; a start that cannot be meant is named.
TEST(ManyStarts, ReportTheFirstFailure) {
  std::atomic<int> running = 0;
  const Problem fails = Problem::minimize(1, [&running](Point x) {
    ++running;
    if (x[0] == 3.0 || x[0] == 7.0) throw static_cast<int>(x[0]);
    return (x[0] - 1) * (x[0] - 1);
  });
  std::vector<std::vector<double>> starts;
  for (int i = 0; i < 10; ++i) starts.push_back({double(i)});
  for (int repeat = 0; repeat < 20; ++repeat) {
    try {
      solve_from_many(fails, starts, {}, 4);
      ADD_FAILURE();
    } catch (int start) {
      EXPECT_EQ(start, 3);
    }
  }
  starts[5].push_back(0.0);
  try {
    solve_from_many(fails, starts);
    ADD_FAILURE();
  } catch (const std::invalid_argument& refusal) {
    EXPECT_NE(std::string(refusal.what()).find("start 5: 2 elements; expected 1"),
              std::string::npos);
  }
}

}  // namespace
}  // namespace tqnlp::test
