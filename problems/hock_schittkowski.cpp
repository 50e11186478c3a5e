// Problems of Hock and Schittkowski (Test Examples for Nonlinear Programming Codes, Lecture Notes
// in Economics and Mathematical Systems 187, 1981) with bounds and linear constraints only, with
// the starts and minima given there. Number 112 has the minimum that later authors
// confirmed; number 105 is left out, since its table of 235 data could not be confirmed.
#include <array>
#include <numbers>

#include "problems/colville_data.h"
#include "problems/problem.h"

namespace tqnlp::problems {

using std::cos;
using std::exp;
using std::log;
using std::pow;
using std::sin;
using std::sqrt;

static void bounded_problems(std::vector<Problem>& all) {
  const auto rosenbrock = [](auto x) {
    return 100.0 * square(x[1] - x[0] * x[0]) + square(1.0 - x[0]);
  };
  all.push_back(with(scalar_problem("HS1", {-2, 1}, {0}, rosenbrock), {-NONE, -1.5}, {NONE, NONE}));
  all.push_back(with(scalar_problem("HS2", {-2, 1}, {0.0504261879, 4.9412293}, rosenbrock),
                     {-NONE, 1.5}, {NONE, NONE}));
  all.push_back(with(
      scalar_problem("HS3", {10, 1}, {0}, [](auto x) { return x[1] + 1e-5 * square(x[1] - x[0]); }),
      {-NONE, 0}, {NONE, NONE}));
  all.push_back(with(scalar_problem("HS4", {1.125, 0.125}, {8.0 / 3.0},
                                    [](auto x) { return pow(x[0] + 1.0, 3.0) / 3.0 + x[1]; }),
                     {1, 0}, {NONE, NONE}));
  all.push_back(with(scalar_problem("HS5", {0, 0}, {-1.9132229549810362},
                                    [](auto x) {
                                      return sin(x[0] + x[1]) + square(x[0] - x[1]) - 1.5 * x[0] +
                                             2.5 * x[1] + 1.0;
                                    }),
                     {-1.5, -3}, {4, 3}));
  all.push_back(with(
      residual_problem("HS25", 99, {100, 12.5, 3}, {0},
                       [](auto x, auto r) {
                         for (int i = 1; i <= 99; ++i) {
                           const double u = 25.0 + std::pow(-50.0 * std::log(0.01 * i), 2.0 / 3.0);
                           r[i - 1] = exp(-pow(u - x[1], x[2]) / x[0]) - 0.01 * i;
                         }
                       }),
      {0.1, 0, 0}, {100, 25.6, 5}));
  all.push_back(with(scalar_problem("HS38", {-3, -1, -3, -1}, {0},
                                    [](auto x) {
                                      return 100.0 * square(x[1] - x[0] * x[0]) +
                                             square(1.0 - x[0]) +
                                             90.0 * square(x[3] - x[2] * x[2]) +
                                             square(1.0 - x[2]) +
                                             10.1 * (square(x[1] - 1.0) + square(x[3] - 1.0)) +
                                             19.8 * (x[1] - 1.0) * (x[3] - 1.0);
                                    }),
                     repeat(-10, 4), repeat(10, 4)));
  all.push_back(
      with(scalar_problem("HS45", repeat(2, 5), {1},
                          [](auto x) { return 2.0 - x[0] * x[1] * x[2] * x[3] * x[4] / 120.0; }),
           repeat(0, 5), {1, 2, 3, 4, 5}));
  all.push_back(with(scalar_problem("HS110", repeat(9, 10), {-45.77846971},
                                    [](auto x) {
                                      Number<decltype(x)> sum(0.0), product(1.0);
                                      for (int i = 0; i < 10; ++i) {
                                        sum += square(log(x[i] - 2.0)) + square(log(10.0 - x[i]));
                                        product *= x[i];
                                      }
                                      return sum - pow(product, 0.2);
                                    }),
                     repeat(2.001, 10), repeat(9.999, 10)));
}

static void equality_problems(std::vector<Problem>& all) {
  all.push_back(with(scalar_problem("HS9", {0, 0}, {-0.5},
                                    [](auto x) {
                                      return sin(std::numbers::pi * x[0] / 12.0) *
                                             cos(std::numbers::pi * x[1] / 16.0);
                                    }),
                     {}, {}, {{{4, -3}, 0, 0}}));
  all.push_back(
      with(scalar_problem("HS28", {-4, 1, 1}, {0},
                          [](auto x) { return square(x[0] + x[1]) + square(x[1] + x[2]); }),
           {}, {}, {{{1, 2, 3}, 0, 1}}));
  all.push_back(with(scalar_problem("HS48", {3, 5, -3, 2, -2}, {0},
                                    [](auto x) {
                                      return square(x[0] - 1.0) + square(x[1] - x[2]) +
                                             square(x[3] - x[4]);
                                    }),
                     {}, {}, {{{1, 1, 1, 1, 1}, 0, 5}, {{0, 0, 1, -2, -2}, 0, -3}}));
  all.push_back(with(scalar_problem("HS49", {10, 7, 2, -3, 0.8}, {0},
                                    [](auto x) {
                                      return square(x[0] - x[1]) + square(x[2] - 1.0) +
                                             square(square(x[3] - 1.0)) +
                                             square(square(x[4] - 1.0) * (x[4] - 1.0));
                                    }),
                     {}, {}, {{{1, 1, 1, 4, 0}, 0, 7}, {{0, 0, 1, 0, 5}, 0, 6}}));
  all.push_back(with(scalar_problem("HS50", {35, -31, 11, 5, -5}, {0},
                                    [](auto x) {
                                      return square(x[0] - x[1]) + square(x[1] - x[2]) +
                                             square(square(x[2] - x[3])) + square(x[3] - x[4]);
                                    }),
                     {}, {},
                     {{{1, 2, 3, 0, 0}, 0, 6}, {{0, 1, 2, 3, 0}, 0, 6}, {{0, 0, 1, 2, 3}, 0, 6}}));
  const std::vector<LinearRow> rows_51 = {
      {{1, 3, 0, 0, 0}, 0, 4}, {{0, 0, 1, 1, -2}, 0, 0}, {{0, 1, 0, 0, -1}, 0, 0}};
  std::vector<LinearRow> rows_52 = rows_51;
  rows_52[0].b = 0;
  const auto quadratic = [](double a) {
    return [a](auto x) {
      return square(a * x[0] - x[1]) + square(x[1] + x[2] - 2.0) + square(x[3] - 1.0) +
             square(x[4] - 1.0);
    };
  };
  all.push_back(
      with(scalar_problem("HS51", {2.5, 0.5, 2, -1, 0.5}, {0}, quadratic(1)), {}, {}, rows_51));
  all.push_back(
      with(scalar_problem("HS52", repeat(2, 5), {1859.0 / 349.0}, quadratic(4)), {}, {}, rows_52));
  all.push_back(with(scalar_problem("HS53", repeat(2, 5), {176.0 / 43.0}, quadratic(1)),
                     repeat(-10, 5), repeat(10, 5), rows_52));
  all.push_back(with(
      scalar_problem("HS54", {6e3, 1.5, 4e6, 2, 3e-3, 5e7}, {-std::exp(-27.0 / 280.0)},
                     [](auto x) {
                       const auto a = x[0] - 1e4;
                       const auto b = x[1] - 1.0;
                       const auto h = (square(a) / 6.4e7 + a * b / 2e4 + square(b)) / 0.96 +
                                      square(x[2] - 2e6) / 4.9e13 + square(x[3] - 10.0) / 2.5e3 +
                                      square(x[4] - 1e-3) / 2.5e-3 + square(x[5] - 1e8) / 2.5e17;
                       return -exp(-h / 2.0);
                     }),
      {0, -10, 0, 0, -1, 0}, {2e4, 10, 1e7, 20, 1, 2e8}, {{{1, 4e3, 0, 0, 0, 0}, 0, 1.76e4}}));
  all.push_back(
      with(scalar_problem("HS55", {1, 2, 0, 0, 0, 2}, {19.0 / 3.0, 20.0 / 3.0},
                          [](auto x) { return x[0] + 2.0 * x[1] + 4.0 * x[4] + exp(x[0] * x[3]); }),
           repeat(0, 6), {1, NONE, NONE, 1, NONE, NONE},
           {{{1, 2, 0, 0, 5, 0}, 0, 6},
            {{1, 1, 1, 0, 0, 0}, 0, 3},
            {{0, 0, 0, 1, 1, 1}, 0, 2},
            {{1, 0, 0, 1, 0, 0}, 0, 1},
            {{0, 1, 0, 0, 1, 0}, 0, 2},
            {{0, 0, 1, 0, 0, 1}, 0, 2}}));
  all.push_back(with(scalar_problem("HS62", {0.7, 0.2, 0.1}, {-26272.51448},
                                    [](auto x) {
                                      const auto s3 = x[2] + 0.03;
                                      const auto s2 = x[1] + s3;
                                      const auto s1 = x[0] + s2;
                                      return -32.174 * (255.0 * log(s1 / (0.09 * x[0] + s2)) +
                                                        280.0 * log(s2 / (0.07 * x[1] + s3)) +
                                                        290.0 * log(s3 / (0.13 * x[2] + 0.03)));
                                    }),
                     repeat(0, 3), repeat(1, 3), {{{1, 1, 1}, 0, 1}}));
  static constexpr std::array c = {-6.089,  -17.164, -34.054, -5.914,  -24.721,
                                   -14.986, -24.100, -10.708, -26.662, -22.179};
  all.push_back(with(scalar_problem("HS112", repeat(0.1, 10), {-47.76109086},
                                    [coefficients = c](auto x) {
                                      Number<decltype(x)> total(0.0), sum(0.0);
                                      for (int j = 0; j < 10; ++j) total += x[j];
                                      for (int j = 0; j < 10; ++j) {
                                        sum += x[j] * (coefficients[static_cast<std::size_t>(j)] +
                                                       log(x[j] / total));
                                      }
                                      return sum;
                                    }),
                     repeat(1e-6, 10), repeat(NONE, 10),
                     {{{1, 2, 2, 0, 0, 1, 0, 0, 0, 1}, 0, 2},
                      {{0, 0, 0, 1, 2, 1, 1, 0, 0, 0}, 0, 1},
                      {{0, 0, 1, 0, 0, 0, 1, 1, 2, 1}, 0, 1}}));
}

static void inequality_problems(std::vector<Problem>& all) {
  const double root3 = std::sqrt(3.0);
  all.push_back(
      with(scalar_problem("HS21", {-1, -1}, {-99.96},
                          [](auto x) { return 0.01 * square(x[0]) + square(x[1]) - 100.0; }),
           {2, -50}, {50, 50}, {{{10, -1}, 1, 10}}));
  all.push_back(with(
      scalar_problem(
          "HS24", {1, 0.5}, {-1},
          [root3](auto x) { return (square(x[0] - 3.0) - 9.0) * pow(x[1], 3.0) / (27.0 * root3); }),
      {0, 0}, {NONE, NONE}, {{{1 / root3, -1}, 1, 0}, {{1, root3}, 1, 0}, {{1, root3}, -1, 6}}));
  all.push_back(with(scalar_problem("HS35", repeat(0.5, 3), {1.0 / 9.0},
                                    [](auto x) {
                                      return 9.0 - 8.0 * x[0] - 6.0 * x[1] - 4.0 * x[2] +
                                             2.0 * square(x[0]) + 2.0 * square(x[1]) +
                                             square(x[2]) + 2.0 * x[0] * x[1] + 2.0 * x[0] * x[2];
                                    }),
                     repeat(0, 3), repeat(NONE, 3), {{{1, 1, 2}, -1, 3}}));
  const auto volume = [](auto x) { return -1.0 * x[0] * x[1] * x[2]; };
  all.push_back(with(scalar_problem("HS36", repeat(10, 3), {-3300}, volume), repeat(0, 3),
                     {20, 11, 42}, {{{1, 2, 2}, -1, 72}}));
  all.push_back(with(scalar_problem("HS37", repeat(10, 3), {-3456}, volume), repeat(0, 3),
                     repeat(42, 3), {{{1, 2, 2}, -1, 72}, {{1, 2, 2}, 1, 0}}));
  all.push_back(with(scalar_problem("HS41", repeat(2, 4), {52.0 / 27.0, 2},
                                    [](auto x) { return 2.0 - x[0] * x[1] * x[2]; }),
                     repeat(0, 4), {1, 1, 1, 2}, {{{1, 2, 2, -1}, 0, 0}}));
  all.push_back(with(scalar_problem("HS44", repeat(0, 4), {-15, -13},
                                    [](auto x) {
                                      return x[0] - x[1] - x[2] - x[0] * x[2] + x[0] * x[3] +
                                             x[1] * x[2] - x[1] * x[3];
                                    }),
                     repeat(0, 4), repeat(NONE, 4),
                     {{{1, 2, 0, 0}, -1, 8},
                      {{4, 1, 0, 0}, -1, 12},
                      {{3, 4, 0, 0}, -1, 12},
                      {{0, 0, 2, 1}, -1, 8},
                      {{0, 0, 1, 2}, -1, 8},
                      {{0, 0, 1, 1}, -1, 5}}));
  all.push_back(with(scalar_problem("HS76", repeat(0.5, 4), {-4.681818181818},
                                    [](auto x) {
                                      return square(x[0]) + 0.5 * square(x[1]) + square(x[2]) +
                                             0.5 * square(x[3]) - x[0] * x[2] + x[2] * x[3] - x[0] -
                                             3.0 * x[1] + x[2] - x[3];
                                    }),
                     repeat(0, 4), repeat(NONE, 4),
                     {{{1, 2, 1, 1}, -1, 5}, {{3, 1, 2, -1}, -1, 4}, {{0, 1, 4, 0}, 1, 1.5}}));
}

// Colville's first problem.
static Problem problem_86() {
  std::vector<LinearRow> rows;
  for (int i = 0; i < 10; ++i) {
    const double* row = COLVILLE_ROWS[i];
    rows.push_back({{row, row + 5}, 1, COLVILLE_RIGHT[i]});
  }
  return with(scalar_problem("HS86", {0, 0, 0, 0, 1}, {-32.34867897},
                             [](auto x) {
                               Number<decltype(x)> sum(0.0);
                               for (int j = 0; j < 5; ++j) {
                                 sum += COLVILLE_LINEAR[j] * x[j] +
                                        COLVILLE_CUBIC[j] * x[j] * x[j] * x[j];
                                 for (int i = 0; i < 5; ++i) {
                                   sum += COLVILLE_QUADRATIC[i][j] * x[i] * x[j];
                                 }
                               }
                               return sum;
                             }),
              repeat(0, 5), repeat(NONE, 5), rows);
}

static Problem problem_118() {
  std::vector<double> lower = {8, 43, 3}, upper = {21, 57, 16}, start = {20, 55, 15};
  std::vector<LinearRow> rows;
  const double totals[] = {60, 50, 70, 85, 100};
  for (int k = 0; k < 5; ++k) {
    LinearRow row{repeat(0, 15), 1, totals[k]};
    for (std::size_t i = 0; i < 3; ++i) row.a[static_cast<std::size_t>(3 * k) + i] = 1;
    rows.push_back(row);
    if (k == 0) continue;
    lower.insert(lower.end(), {0, 0, 0});
    upper.insert(upper.end(), {90, 120, 60});
    start.insert(start.end(), {20, 60, 20});
    const double widest[] = {6, 7, 6};
    for (std::size_t i = 0; i < 3; ++i) {
      LinearRow change{repeat(0, 15), 1, -7};
      change.a[static_cast<std::size_t>(3 * k) + i] = 1;
      change.a[static_cast<std::size_t>(3 * k) + i - 3] = -1;
      rows.push_back(change);
      change.op = -1;
      change.b = widest[i];
      rows.push_back(change);
    }
  }
  return with(scalar_problem("HS118", start, {664.8204500},
                             [](auto x) {
                               Number<decltype(x)> sum(0.0);
                               for (int k = 0; k < 15; k += 3) {
                                 sum += 2.3 * x[k] + 1e-4 * square(x[k]) + 1.7 * x[k + 1] +
                                        1e-4 * square(x[k + 1]) + 2.2 * x[k + 2] +
                                        1.5e-4 * square(x[k + 2]);
                               }
                               return sum;
                             }),
              lower, upper, rows);
}

// Colville's seventh problem.
static Problem problem_119() {
  static const std::vector<std::vector<int>> pattern = {{1, 4, 7, 8, 16},
                                                        {2, 3, 7, 10},
                                                        {3, 7, 9, 10, 14},
                                                        {4, 7, 11, 15},
                                                        {5, 6, 10, 12, 16},
                                                        {6, 8, 15},
                                                        {7, 11, 13},
                                                        {8, 10, 15},
                                                        {9, 12, 16},
                                                        {10, 14},
                                                        {11, 13},
                                                        {12, 14},
                                                        {13, 14},
                                                        {14},
                                                        {15},
                                                        {16}};
  const std::vector<LinearRow> rows = {
      {{.22, .20, .19, .25, .15, .11, .12, .13, 1, 0, 0, 0, 0, 0, 0, 0}, 0, 2.5},
      {{-1.46, 0, -1.30, 1.82, -1.15, 0, .80, 0, 0, 1, 0, 0, 0, 0, 0, 0}, 0, 1.1},
      {{1.29, -.89, 0, 0, -1.16, -.96, 0, -.49, 0, 0, 1, 0, 0, 0, 0, 0}, 0, -3.1},
      {{-1.10, -1.06, .95, -.54, 0, -1.78, -.41, 0, 0, 0, 0, 1, 0, 0, 0, 0}, 0, -3.5},
      {{0, 0, 0, -1.43, 1.51, .59, -.33, -.43, 0, 0, 0, 0, 1, 0, 0, 0}, 0, 1.3},
      {{0, -1.72, -.33, 0, 1.62, 1.24, .21, -.26, 0, 0, 0, 0, 0, 1, 0, 0}, 0, 2.1},
      {{1.12, 0, 0, .31, 0, 0, 1.12, 0, -.36, 0, 0, 0, 0, 0, 1, 0}, 0, 2.3},
      {{0, .45, .26, -1.10, .58, 0, -1.03, .10, 0, 0, 0, 0, 0, 0, 0, 1}, 0, -1.5}};
  return with(scalar_problem("HS119", repeat(10, 16), {244.899698},
                             [](auto x) {
                               Number<decltype(x)> sum(0.0);
                               std::vector<Number<decltype(x)>> g;
                               for (int i = 0; i < 16; ++i) g.push_back(x[i] * x[i] + x[i] + 1.0);
                               for (std::size_t i = 0; i < 16; ++i) {
                                 for (int j : pattern[i]) {
                                   sum += g[i] * g[static_cast<std::size_t>(j - 1)];
                                 }
                               }
                               return sum;
                             }),
              repeat(0, 16), repeat(5, 16), rows);
}

std::vector<Problem> hock_schittkowski_linear() {
  std::vector<Problem> all;
  bounded_problems(all);
  equality_problems(all);
  inequality_problems(all);
  all.push_back(problem_86());
  all.push_back(problem_118());
  all.push_back(problem_119());
  return all;
}

}  // namespace tqnlp::problems
