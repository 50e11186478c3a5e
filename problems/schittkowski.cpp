// Problems of Schittkowski (More Test Examples for Nonlinear Programming Codes, Lecture Notes in
// Economics and Mathematical Systems 282, 1987) without constraints or with bounds and linear
// constraints only, of kinds that the older collections lack: singular Hessians at the minimum,
// Hilbert matrices, long valleys, linear programs, more active constraints than parameters. Only
// problems whose data give a minimum that is known in closed form, or the published one, are here.
#include <cmath>
#include <numbers>

#include "problems/problem.h"

namespace tqnlp::problems {

using std::exp;
using std::pow;
using std::sqrt;

static void unconstrained(std::vector<Problem>& all) {
  all.push_back(residual_problem("S209", 2, {-1.2, 1}, {0}, [](auto x, auto r) {
    r[0] = 100.0 * (x[1] - x[0] * x[0]);
    r[1] = 1.0 - x[0];
  }));
  all.push_back(residual_problem("S211", 2, {-1.2, 1}, {0}, [](auto x, auto r) {
    r[0] = 10.0 * (x[1] - x[0] * x[0] * x[0]);
    r[1] = 1.0 - x[0];
  }));
  all.push_back(residual_problem("S212", 2, {2, 0}, {0}, [](auto x, auto r) {
    r[0] = 4.0 * (x[0] + x[1]);
    r[1] = r[0] + (x[0] - x[1]) * (square(x[0] - 2.0) + square(x[1]) - 1.0);
  }));
  all.push_back(scalar_problem("S213", {-1.2, 1}, {0}, [](auto x) {
    return square(square(10.0 * square(x[0] - x[1]) + square(x[0] - 1.0)));
  }));
  all.push_back(residual_problem("S240", 3, {100, -1, 2.5}, {0}, [](auto x, auto r) {
    r[0] = x[0] - x[1] + x[2];
    r[1] = x[1] + x[2] - x[0];
    r[2] = x[0] + x[1] - x[2];
  }));
  all.push_back(residual_problem("S241", 5, {1, 2, 0}, {0}, [](auto x, auto r) {
    r[0] = square(x[0]) + square(x[1]) + square(x[2]) - 1.0;
    r[1] = square(x[0]) + square(x[1]) + square(x[2] - 2.0) - 1.0;
    r[2] = x[0] + x[1] + x[2] - 1.0;
    r[3] = x[0] + x[1] - x[2] + 1.0;
    r[4] = x[0] * x[0] * x[0] + 3.0 * square(x[1]) + square(5.0 * x[2] - x[0] + 1.0) - 36.0;
  }));
  all.push_back(residual_problem("S246", 3, {-1.2, 2, 0}, {0}, [](auto x, auto r) {
    r[0] = 10.0 * (x[2] - square(0.5 * (x[0] + x[1])));
    r[1] = 1.0 - x[0];
    r[2] = 1.0 - x[1];
  }));
  all.push_back(scalar_problem("S276", {-4, -2, -4.0 / 3, -1, -0.8, -2.0 / 3}, {0}, [](auto x) {
    Number<decltype(x)> sum(0.0);
    for (int i = 0; i < 6; ++i) {
      for (int j = 0; j < 6; ++j) sum += x[i] * x[j] / (i + j + 1.0);
    }
    return sum;
  }));
  std::vector<double> start = repeat(0, 10);
  start[0] = -1.2;
  all.push_back(residual_problem("S282", 11, start, {0, 3.98439502}, [](auto x, auto r) {
    r[0] = x[0] - 1.0;
    r[1] = x[9] - 1.0;
    for (int i = 1; i < 10; ++i) {
      r[i + 1] = std::sqrt(10.0 * (10.0 - i)) * (square(x[i - 1]) - x[i]);
    }
  }));
  all.push_back(scalar_problem("S283", repeat(0, 10), {0}, [](auto x) {
    Number<decltype(x)> sum(0.0);
    for (int i = 0; i < 10; ++i) sum += std::pow(i + 1.0, 3) * square(x[i] - 1.0);
    return sum * sum * sum;
  }));
  start = repeat(0, 30);
  for (std::size_t i = 0; i < 30; ++i)
    start[i] = (i % 2 == 0 ? -1.0 : 1.0) * (1.0 + (i + 1) / 30.0);
  all.push_back(scalar_problem("S289", start, {0}, [](auto x) {
    Number<decltype(x)> sum(0.0);
    for (int i = 0; i < 30; ++i) sum += square(x[i]);
    return 1.0 - exp(sum / -60.0);
  }));
  all.push_back(scalar_problem("S291", repeat(1, 10), {0}, [](auto x) {
    Number<decltype(x)> sum(0.0);
    for (int i = 0; i < 10; ++i) sum += (i + 1.0) * square(x[i]);
    return sum * sum;
  }));
  start = repeat(-1.2, 10);
  for (std::size_t i = 1; i < 10; i += 2) start[i] = 1;
  all.push_back(residual_problem("S295", 18, start, {0, 3.98657911}, [](auto x, auto r) {
    for (int i = 0; i < 9; ++i) {
      r[2 * i] = 10.0 * (x[i + 1] - square(x[i]));
      r[2 * i + 1] = 1.0 - x[i];
    }
  }));
  all.push_back(scalar_problem("S300", repeat(0, 20), {-20}, [](auto x) {
    auto sum = square(x[0]) - 2.0 * x[0];
    for (int i = 1; i < 20; ++i) sum += 2.0 * x[i] * (x[i] - x[i - 1]);
    return sum;
  }));
  all.push_back(scalar_problem("S303", repeat(0.1, 20), {0}, [](auto x) {
    Number<decltype(x)> sum(0.0), squares(0.0);
    for (int i = 0; i < 20; ++i) {
      squares += square(x[i]);
      sum += 0.5 * (i + 1.0) * x[i];
    }
    return squares + square(sum) + square(square(sum));
  }));
}

static void bounded(std::vector<Problem>& all) {
  all.push_back(with(residual_problem("S202", 2, {15, -2}, {0, 48.98425367924},
                                      [](auto x, auto r) {
                                        r[0] = x[0] - 13.0 + ((5.0 - x[1]) * x[1] - 2.0) * x[1];
                                        r[1] = x[0] - 29.0 + ((x[1] + 1.0) * x[1] - 14.0) * x[1];
                                      }),
                     {1, -5}, {20, 5}));
  all.push_back(with(residual_problem("S242", 10, {2.5, 10, 10}, {0},
                                      [](auto x, auto r) {
                                        for (int i = 1; i <= 10; ++i) {
                                          const double t = 0.1 * i;
                                          r[i - 1] = exp(-t * x[0]) - exp(-t * x[1]) -
                                                     x[2] * (std::exp(-t) - std::exp(-10.0 * t));
                                        }
                                      }),
                     repeat(0, 3), repeat(10, 3)));
  all.push_back(with(residual_problem("S244", 10, {1, 2, 1}, {0},
                                      [](auto x, auto r) {
                                        for (int i = 1; i <= 10; ++i) {
                                          const double z = 0.1 * i;
                                          const double y = std::exp(-z) - 5.0 * std::exp(-10.0 * z);
                                          r[i - 1] = exp(-z * x[0]) - x[2] * exp(-z * x[1]) - y;
                                        }
                                      }),
                     repeat(0, 3), repeat(1e10, 3)));
  all.push_back(with(scalar_problem("S257", repeat(0, 4), {0},
                                    [](auto x) {
                                      return 100.0 * square(x[0] * x[0] - x[1]) +
                                             square(x[0] - 1.0) +
                                             90.0 * square(x[2] * x[2] - x[3]) +
                                             square(x[2] - 1.0) +
                                             10.1 * (square(x[1] - 1.0) + square(x[3] - 1.0)) +
                                             19.8 * (x[1] - 1.0) * (x[3] - 1.0);
                                    }),
                     repeat(0, 4), repeat(NONE, 4)));
}

// A linear program on the Hilbert matrix, whose solution is a vector of ones.
static Problem hilbert_program(const std::string& name, int n) {
  std::vector<LinearRow> rows;
  std::vector<double> cost;
  double minimum = 0.0;
  for (int i = 1; i <= n; ++i) {
    LinearRow row{repeat(0, n), 1, 0.0};
    for (int j = 1; j <= n; ++j)
      row.b += row.a[static_cast<std::size_t>(j - 1)] = 1.0 / (i + j - 1);
    rows.push_back(row);
    cost.push_back(row.b);
    minimum += row.b;
  }
  return with(scalar_problem(name, repeat(0, n), {minimum},
                             [cost](auto x) {
                               Number<decltype(x)> sum(0.0);
                               for (std::size_t j = 0; j < cost.size(); ++j) sum += cost[j] * x[j];
                               return sum;
                             }),
              repeat(0, n), repeat(NONE, n), rows);
}

static constexpr double CURVATURE[5][5] = {{10197, -12454, -1013, 1948, 329},
                                           {-12454, 20909, -1733, -4914, -186},
                                           {-1013, -1733, 1755, 1089, -174},
                                           {1948, -4914, 1089, 1515, -22},
                                           {329, -186, -174, -22, 27}};
static constexpr double SLOPE[] = {-9170, 17099, -2271, -4336, -43};

static void linearly_constrained(std::vector<Problem>& all) {
  all.push_back(with(
      scalar_problem(
          "S224", {0.1, 0.1}, {-304},
          [](auto x) { return 2.0 * square(x[0]) + square(x[1]) - 48.0 * x[0] - 40.0 * x[1]; }),
      {0, 0}, {6, 6}, {{{1, 3}, 1, 0}, {{1, 3}, -1, 18}, {{1, 1}, 1, 0}, {{1, 1}, -1, 8}}));
  all.push_back(with(residual_problem("S231", 2, {-1.2, 1}, {0},
                                      [](auto x, auto r) {
                                        r[0] = 10.0 * (x[1] - x[0] * x[0]);
                                        r[1] = 1.0 - x[0];
                                      }),
                     {}, {}, {{{1.0 / 3, 1}, 1, -0.1}, {{-1.0 / 3, 1}, 1, -0.1}}));
  // The sum of the distances to the corners of a cube, whose centre lies on the constraint.
  all.push_back(with(scalar_problem("S253", {0, 2, 0}, {40.0 * std::numbers::sqrt3},
                                    [](auto x) {
                                      Number<decltype(x)> sum(0.0);
                                      for (int c = 0; c < 8; ++c) {
                                        sum += sqrt(square(x[0] - 10.0 * (c % 2)) +
                                                    square(x[1] - 10.0 * (c / 2 % 2)) +
                                                    square(x[2] - 10.0 * (c / 4)));
                                      }
                                      return sum;
                                    }),
                     repeat(0, 3), repeat(NONE, 3), {{{3, 0, 3}, -1, 30}}));
  all.push_back(with(scalar_problem("S262", repeat(1, 4), {-10},
                                    [](auto x) { return -0.5 * (x[0] + x[2]) - x[1] - x[3]; }),
                     repeat(0, 4), repeat(NONE, 4),
                     {{{1, 1, 1, -2}, 0, 6},
                      {{1, 1, 1, 1}, -1, 10},
                      {{0.2, 0.5, 1, 2}, -1, 10},
                      {{2, 1, 0.5, 0.2}, -1, 10}}));
  all.push_back(with(scalar_problem("S265", repeat(0, 4), {1.0 - std::exp(-10.0 / std::numbers::e)},
                                    [](auto x) {
                                      return 2.0 - exp(-10.0 * x[0] * exp(-x[2])) -
                                             exp(-10.0 * x[1] * exp(-x[3]));
                                    }),
                     repeat(0, 4), repeat(1, 4), {{{1, 1, 0, 0}, 0, 1}, {{0, 0, 1, 1}, 0, 1}}));
  all.push_back(with(scalar_problem("S268", repeat(1, 5), {0},
                                    [](auto x) {
                                      Number<decltype(x)> sum(14463.0);
                                      for (int i = 0; i < 5; ++i) {
                                        sum -= 2.0 * SLOPE[i] * x[i];
                                        for (int j = 0; j < 5; ++j) {
                                          sum += CURVATURE[i][j] * x[i] * x[j];
                                        }
                                      }
                                      return sum;
                                    }),
                     {}, {},
                     {{{1, 1, 1, 1, 1}, -1, 5},
                      {{10, 10, -3, 5, 4}, 1, 20},
                      {{-8, 1, -2, -5, 3}, 1, -40},
                      {{8, -1, 2, 5, -3}, 1, 11},
                      {{-4, -2, 3, -5, 1}, 1, -30}}));
  all.push_back(hilbert_program("S277", 4));
  all.push_back(hilbert_program("S278", 6));
  all.push_back(with(scalar_problem("S354", {3, -1, 0, 1}, {0.11378386},
                                    [](auto x) {
                                      return square(x[0] + 10.0 * x[1]) +
                                             5.0 * square(x[2] - x[3]) +
                                             square(square(x[1] - 2.0 * x[2])) +
                                             10.0 * square(square(x[0] - x[3]));
                                    }),
                     repeat(-NONE, 4), repeat(20, 4), {{{1, 1, 1, 1}, 1, 1}}));
}

std::vector<Problem> schittkowski_linear() {
  std::vector<Problem> all;
  unconstrained(all);
  bounded(all);
  linearly_constrained(all);
  return all;
}

}  // namespace tqnlp::problems
