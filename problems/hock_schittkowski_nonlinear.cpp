// Problems of Hock and Schittkowski (Test Examples for Nonlinear Programming Codes, Lecture Notes
// in Economics and Mathematical Systems 187, 1981) with nonlinear constraints, with the starts
// and minima given there; the minimum of number 106 is the one that later authors confirmed, a
// little below the one printed. Linear constraints among them stand in the rows.
#include <cmath>
#include <numbers>

#include "problems/problem.h"

namespace tqnlp::problems {

using std::cos;
using std::exp;
using std::log;
using std::pow;
using std::sin;
using std::sqrt;
using std::numbers::sqrt2;
using std::numbers::sqrt3;

static constexpr auto rosenbrock = [](auto x) {
  return 100.0 * square(x[1] - x[0] * x[0]) + square(1.0 - x[0]);
};

// The sum of the squares of n elements.
static constexpr auto sum_of_squares = [](auto x, int n) {
  Number<decltype(x)> sum(0.0);
  for (int i = 0; i < n; ++i) sum += square(x[i]);
  return sum;
};

static constexpr auto fourth = [](const auto& x) { return square(square(x)); };
static constexpr auto cube = [](const auto& x) { return x * x * x; };

// ---- Two parameters -----------------------------------------------------------------------------

static void equalities_in_the_plane(std::vector<Problem>& all) {
  all.push_back(
      constrained(scalar_problem("HS6", {-1.2, 1}, {0}, [](auto x) { return square(1.0 - x[0]); }),
                  1, 0, [](auto x, auto c) { c[0] = 10.0 * (x[1] - square(x[0])); }));
  all.push_back(constrained(
      scalar_problem("HS7", {2, 2}, {-sqrt3},
                     [](auto x) { return log(1.0 + square(x[0])) - x[1]; }),
      1, 0, [](auto x, auto c) { c[0] = square(1.0 + square(x[0])) + square(x[1]) - 4.0; }));
  all.push_back(constrained(
      scalar_problem("HS8", {2, 1}, {-1}, [](auto x) { return Number<decltype(x)>(-1.0); }), 2, 0,
      [](auto x, auto c) {
        c[0] = square(x[0]) + square(x[1]) - 25.0;
        c[1] = x[0] * x[1] - 9.0;
      }));
  all.push_back(with(
      constrained(scalar_problem("HS14", {2, 2}, {9.0 - 2.875 * std::sqrt(7.0)},
                                 [](auto x) { return square(x[0] - 2.0) + square(x[1] - 1.0); }),
                  0, 1, [](auto x, auto c) { c[0] = 1.0 - 0.25 * square(x[0]) - square(x[1]); }),
      {}, {}, {{{1, -2}, 0, -1}}));
}

static void inequalities_in_the_plane(std::vector<Problem>& all) {
  all.push_back(constrained(
      scalar_problem("HS10", {-10, 10}, {-1}, [](auto x) { return x[0] - x[1]; }), 0, 1,
      [](auto x, auto c) { c[0] = -3.0 * square(x[0]) + 2.0 * x[0] * x[1] - square(x[1]) + 1.0; }));
  all.push_back(
      constrained(scalar_problem("HS11", {4.9, 0.1}, {-8.498464223},
                                 [](auto x) { return square(x[0] - 5.0) + square(x[1]) - 25.0; }),
                  0, 1, [](auto x, auto c) { c[0] = x[1] - square(x[0]); }));
  all.push_back(
      constrained(scalar_problem("HS12", {0, 0}, {-30},
                                 [](auto x) {
                                   return 0.5 * square(x[0]) + square(x[1]) - x[0] * x[1] -
                                          7.0 * x[0] - 7.0 * x[1];
                                 }),
                  0, 1, [](auto x, auto c) { c[0] = 25.0 - 4.0 * square(x[0]) - square(x[1]); }));
  all.push_back(
      with(constrained(scalar_problem("HS13", {-2, -2}, {1},
                                      [](auto x) { return square(x[0] - 2.0) + square(x[1]); }),
                       0, 1, [](auto x, auto c) { c[0] = cube(1.0 - x[0]) - x[1]; }),
           {0, 0}, {NONE, NONE}));
  all.push_back(
      with(constrained(scalar_problem("HS18", {2, 2}, {5},
                                      [](auto x) { return 0.01 * square(x[0]) + square(x[1]); }),
                       0, 2,
                       [](auto x, auto c) {
                         c[0] = x[0] * x[1] - 25.0;
                         c[1] = square(x[0]) + square(x[1]) - 25.0;
                       }),
           {2, 0}, {50, 50}));
  all.push_back(
      with(constrained(scalar_problem("HS19", {20.1, 5.84}, {-6961.81381},
                                      [](auto x) { return cube(x[0] - 10.0) + cube(x[1] - 20.0); }),
                       0, 2,
                       [](auto x, auto c) {
                         c[0] = square(x[0] - 5.0) + square(x[1] - 5.0) - 100.0;
                         c[1] = 82.81 - square(x[1] - 5.0) - square(x[0] - 6.0);
                       }),
           {13, 0}, {100, 100}));
  all.push_back(with(
      constrained(scalar_problem("HS22", {2, 2}, {1},
                                 [](auto x) { return square(x[0] - 2.0) + square(x[1] - 1.0); }),
                  0, 1, [](auto x, auto c) { c[0] = x[1] - square(x[0]); }),
      {}, {}, {{{1, 1}, -1, 2}}));
  all.push_back(with(
      constrained(scalar_problem("HS23", {3, 1}, {2}, [](auto x) { return sum_of_squares(x, 2); }),
                  0, 4,
                  [](auto x, auto c) {
                    c[0] = square(x[0]) + square(x[1]) - 1.0;
                    c[1] = 9.0 * square(x[0]) + square(x[1]) - 9.0;
                    c[2] = square(x[0]) - x[1];
                    c[3] = square(x[1]) - x[0];
                  }),
      repeat(-50, 2), repeat(50, 2), {{{1, 1}, 1, 1}}));
}

static void rosenbrock_in_the_plane(std::vector<Problem>& all) {
  const auto problem = [](const char* name, std::vector<double> minima) {
    return scalar_problem(name, {-2, 1}, std::move(minima), rosenbrock);
  };
  all.push_back(with(constrained(problem("HS15", {306.5, 360.3797672}), 0, 2,
                                 [](auto x, auto c) {
                                   c[0] = x[0] * x[1] - 1.0;
                                   c[1] = x[0] + square(x[1]);
                                 }),
                     {-NONE, -NONE}, {0.5, NONE}));
  all.push_back(with(constrained(problem("HS16", {0.25, 23.14466088}), 0, 2,
                                 [](auto x, auto c) {
                                   c[0] = x[0] + square(x[1]);
                                   c[1] = square(x[0]) + x[1];
                                 }),
                     {-0.5, -NONE}, {0.5, 1}));
  all.push_back(with(constrained(problem("HS17", {1}), 0, 2,
                                 [](auto x, auto c) {
                                   c[0] = square(x[1]) - x[0];
                                   c[1] = square(x[0]) - x[1];
                                 }),
                     {-0.5, -NONE}, {0.5, 1}));
  all.push_back(with(constrained(problem("HS20", {81.5 - 25.0 * sqrt3, 40.19872974}), 0, 3,
                                 [](auto x, auto c) {
                                   c[0] = x[0] + square(x[1]);
                                   c[1] = square(x[0]) + x[1];
                                   c[2] = square(x[0]) + square(x[1]) - 1.0;
                                 }),
                     {-0.5, -NONE}, {0.5, NONE}));
}

// ---- Three parameters ---------------------------------------------------------------------------

static void equalities_in_space(std::vector<Problem>& all) {
  all.push_back(constrained(
      scalar_problem("HS26", {-2.6, 2, 2}, {0},
                     [](auto x) { return square(x[0] - x[1]) + fourth(x[1] - x[2]); }),
      1, 0, [](auto x, auto c) { c[0] = (1.0 + square(x[1])) * x[0] + fourth(x[2]) - 3.0; }));
  all.push_back(constrained(scalar_problem("HS27", {2, 2, 2}, {0.04},
                                           [](auto x) {
                                             return 0.01 * square(x[0] - 1.0) +
                                                    square(x[1] - square(x[0]));
                                           }),
                            1, 0, [](auto x, auto c) { c[0] = x[0] + square(x[2]) + 1.0; }));
  all.push_back(with(
      constrained(scalar_problem("HS32", {0.1, 0.7, 0.2}, {1},
                                 [](auto x) {
                                   return square(x[0] + 3.0 * x[1] + x[2]) +
                                          4.0 * square(x[0] - x[1]);
                                 }),
                  0, 1, [](auto x, auto c) { c[0] = 6.0 * x[1] + 4.0 * x[2] - cube(x[0]) - 3.0; }),
      repeat(0, 3), repeat(NONE, 3), {{{1, 1, 1}, 0, 1}}));
  all.push_back(with(constrained(scalar_problem("HS60", {2, 2, 2}, {0.03256820025},
                                                [](auto x) {
                                                  return square(x[0] - 1.0) + square(x[0] - x[1]) +
                                                         fourth(x[1] - x[2]);
                                                }),
                                 1, 0,
                                 [](auto x, auto c) {
                                   c[0] = x[0] * (1.0 + square(x[1])) + fourth(x[2]) - 4.0 -
                                          3.0 * sqrt2;
                                 }),
                     repeat(-10, 3), repeat(10, 3)));
  all.push_back(constrained(scalar_problem("HS61", {0, 0, 0}, {-143.6461422, -81.91909609},
                                           [](auto x) {
                                             return 4.0 * square(x[0]) + 2.0 * square(x[1]) +
                                                    2.0 * square(x[2]) - 33.0 * x[0] + 16.0 * x[1] -
                                                    24.0 * x[2];
                                           }),
                            2, 0, [](auto x, auto c) {
                              c[0] = 3.0 * x[0] - 2.0 * square(x[1]) - 7.0;
                              c[1] = 4.0 * x[0] - square(x[2]) - 11.0;
                            }));
  all.push_back(with(constrained(scalar_problem("HS63", {2, 2, 2}, {961.7151721},
                                                [](auto x) {
                                                  return 1000.0 - square(x[0]) -
                                                         2.0 * square(x[1]) - square(x[2]) -
                                                         x[0] * x[1] - x[0] * x[2];
                                                }),
                                 1, 0, [](auto x, auto c) { c[0] = sum_of_squares(x, 3) - 25.0; }),
                     repeat(0, 3), repeat(NONE, 3), {{{8, 14, 7}, 0, 56}}));
}

static void inequalities_in_space(std::vector<Problem>& all) {
  all.push_back(constrained(scalar_problem("HS29", {1, 1, 1}, {-16.0 * sqrt2},
                                           [](auto x) { return -x[0] * x[1] * x[2]; }),
                            0, 1, [](auto x, auto c) {
                              c[0] = 48.0 - square(x[0]) - 2.0 * square(x[1]) - 4.0 * square(x[2]);
                            }));
  all.push_back(
      with(constrained(
               scalar_problem("HS30", {1, 1, 1}, {1}, [](auto x) { return sum_of_squares(x, 3); }),
               0, 1, [](auto x, auto c) { c[0] = square(x[0]) + square(x[1]) - 1.0; }),
           {1, -10, -10}, repeat(10, 3)));
  all.push_back(with(constrained(scalar_problem("HS31", {1, 1, 1}, {6},
                                                [](auto x) {
                                                  return 9.0 * square(x[0]) + square(x[1]) +
                                                         9.0 * square(x[2]);
                                                }),
                                 0, 1, [](auto x, auto c) { c[0] = x[0] * x[1] - 1.0; }),
                     {-10, 1, -10}, {10, 10, 1}));
  all.push_back(with(
      constrained(
          scalar_problem("HS33", {0, 0, 3}, {sqrt2 - 6.0, -4.0},
                         [](auto x) { return (x[0] - 1.0) * (x[0] - 2.0) * (x[0] - 3.0) + x[2]; }),
          0, 2,
          [](auto x, auto c) {
            c[0] = square(x[2]) - square(x[1]) - square(x[0]);
            c[1] = sum_of_squares(x, 3) - 4.0;
          }),
      repeat(0, 3), {NONE, NONE, 5}));
  const auto exponentials = [](auto x, auto c) {
    c[0] = x[1] - exp(x[0]);
    c[1] = x[2] - exp(x[1]);
  };
  all.push_back(with(constrained(scalar_problem("HS34", {0, 1.05, 2.9}, {-std::log(std::log(10.0))},
                                                [](auto x) { return -x[0]; }),
                                 0, 2, exponentials),
                     repeat(0, 3), {100, 100, 10}));
  all.push_back(with(constrained(scalar_problem("HS66", {0, 1.05, 2.9}, {0.5181632741},
                                                [](auto x) { return 0.2 * x[2] - 0.8 * x[0]; }),
                                 0, 2, exponentials),
                     repeat(0, 3), {100, 100, 10}));
  all.push_back(with(
      constrained(scalar_problem("HS64", {1, 1, 1}, {6299.842428},
                                 [](auto x) {
                                   return 5.0 * x[0] + 50000.0 / x[0] + 20.0 * x[1] +
                                          72000.0 / x[1] + 10.0 * x[2] + 144000.0 / x[2];
                                 }),
                  0, 1,
                  [](auto x, auto c) { c[0] = 1.0 - 4.0 / x[0] - 32.0 / x[1] - 120.0 / x[2]; }),
      repeat(1e-5, 3), repeat(NONE, 3)));
  all.push_back(with(constrained(scalar_problem("HS65", {-5, 5, 0}, {0.9535288567},
                                                [](auto x) {
                                                  return square(x[0] - x[1]) +
                                                         square(x[0] + x[1] - 10.0) / 9.0 +
                                                         square(x[2] - 5.0);
                                                }),
                                 0, 1, [](auto x, auto c) { c[0] = 48.0 - sum_of_squares(x, 3); }),
                     {-4.5, -4.5, -5}, {4.5, 4.5, 5}));
}

// ---- Four and five parameters -------------------------------------------------------------------

static void four_parameters(std::vector<Problem>& all) {
  all.push_back(
      constrained(scalar_problem("HS39", repeat(2, 4), {-1}, [](auto x) { return -x[0]; }), 2, 0,
                  [](auto x, auto c) {
                    c[0] = x[1] - cube(x[0]) - square(x[2]);
                    c[1] = square(x[0]) - x[1] - square(x[3]);
                  }));
  all.push_back(constrained(scalar_problem("HS40", repeat(0.8, 4), {-0.25},
                                           [](auto x) { return -x[0] * x[1] * x[2] * x[3]; }),
                            3, 0, [](auto x, auto c) {
                              c[0] = cube(x[0]) + square(x[1]) - 1.0;
                              c[1] = square(x[0]) * x[3] - x[2];
                              c[2] = square(x[3]) - x[1];
                            }));
  all.push_back(constrained(scalar_problem("HS42", repeat(1, 4), {28.0 - 10.0 * sqrt2},
                                           [](auto x) {
                                             return square(x[0] - 1.0) + square(x[1] - 2.0) +
                                                    square(x[2] - 3.0) + square(x[3] - 4.0);
                                           }),
                            2, 0, [](auto x, auto c) {
                              c[0] = x[0] - 2.0;
                              c[1] = square(x[2]) + square(x[3]) - 2.0;
                            }));
  all.push_back(constrained(
      scalar_problem("HS43", repeat(0, 4), {-44},
                     [](auto x) {
                       return square(x[0]) + square(x[1]) + 2.0 * square(x[2]) + square(x[3]) -
                              5.0 * x[0] - 5.0 * x[1] - 21.0 * x[2] + 7.0 * x[3];
                     }),
      0, 3, [](auto x, auto c) {
        c[0] = 8.0 - sum_of_squares(x, 4) - x[0] + x[1] - x[2] + x[3];
        c[1] = 10.0 - square(x[0]) - 2.0 * square(x[1]) - square(x[2]) - 2.0 * square(x[3]) + x[0] +
               x[3];
        c[2] = 5.0 - 2.0 * square(x[0]) - square(x[1]) - square(x[2]) - 2.0 * x[0] + x[1] + x[3];
      }));
  all.push_back(with(
      constrained(scalar_problem("HS71", {1, 5, 5, 1}, {17.0140173},
                                 [](auto x) { return x[0] * x[3] * (x[0] + x[1] + x[2]) + x[2]; }),
                  1, 1,
                  [](auto x, auto c) {
                    c[0] = sum_of_squares(x, 4) - 40.0;
                    c[1] = x[0] * x[1] * x[2] * x[3] - 25.0;
                  }),
      repeat(1, 4), repeat(5, 4)));
  all.push_back(
      with(constrained(scalar_problem("HS72", repeat(1, 4), {727.67937},
                                      [](auto x) { return 1.0 + x[0] + x[1] + x[2] + x[3]; }),
                       0, 2,
                       [](auto x, auto c) {
                         c[0] = 0.0401 - 4.0 / x[0] - 2.25 / x[1] - 1.0 / x[2] - 0.25 / x[3];
                         c[1] = 0.010085 - 0.16 / x[0] - 0.36 / x[1] - 0.64 / x[2] - 0.64 / x[3];
                       }),
           repeat(0.001, 4), {4e5, 3e5, 2e5, 1e5}));
  all.push_back(with(
      constrained(scalar_problem("HS73", repeat(1, 4), {29.894378},
                                 [](auto x) {
                                   return 24.55 * x[0] + 26.75 * x[1] + 39.0 * x[2] + 40.5 * x[3];
                                 }),
                  0, 1,
                  [](auto x, auto c) {
                    c[0] = 12.0 * x[0] + 11.9 * x[1] + 41.8 * x[2] + 52.1 * x[3] - 21.0 -
                           1.645 * sqrt(0.28 * square(x[0]) + 0.19 * square(x[1]) +
                                        20.5 * square(x[2]) + 0.62 * square(x[3]));
                  }),
      repeat(0, 4), repeat(NONE, 4), {{{1, 1, 1, 1}, 0, 1}, {{2.3, 5.6, 11.1, 1.3}, 1, 5}}));
}

static void five_parameters(std::vector<Problem>& all) {
  const auto far = [](auto x) {  // what 46 and 77 share
    return square(x[0] - x[1]) + square(x[2] - 1.0) + fourth(x[3] - 1.0) +
           fourth(x[4] - 1.0) * square(x[4] - 1.0);
  };
  const auto waves = [](double a, double b) {
    return [a, b](auto x, auto c) {
      c[0] = square(x[0]) * x[3] + sin(x[3] - x[4]) - a;
      c[1] = x[1] + fourth(x[2]) * square(x[3]) - b;
    };
  };
  all.push_back(constrained(scalar_problem("HS46", {0.5 * sqrt2, 1.75, 0.5, 2, 2}, {0}, far), 2, 0,
                            waves(1, 2)));
  all.push_back(constrained(scalar_problem("HS77", repeat(2, 5), {0.24150513},
                                           [far](auto x) { return square(x[0] - 1.0) + far(x); }),
                            2, 0, waves(2.0 * sqrt2, 8.0 + sqrt2)));

  const auto product = [](auto x) { return x[0] * x[1] * x[2] * x[3] * x[4]; };
  const auto sphere = [](auto x, auto c) {
    c[0] = sum_of_squares(x, 5) - 10.0;
    c[1] = x[1] * x[2] - 5.0 * x[3] * x[4];
    c[2] = cube(x[0]) + cube(x[1]) + 1.0;
  };
  const std::vector<double> box = {2.3, 2.3, 3.2, 3.2, 3.2};
  const std::vector<double> opposite = {-2.3, -2.3, -3.2, -3.2, -3.2};
  all.push_back(constrained(scalar_problem("HS78", {-2, 1.5, 2, -1, -1}, {-2.91970041}, product), 3,
                            0, sphere));
  all.push_back(with(constrained(scalar_problem("HS80", {-2, 2, 2, -1, -1}, {0.0539498478},
                                                [product](auto x) { return exp(product(x)); }),
                                 3, 0, sphere),
                     opposite, box));
  all.push_back(with(constrained(scalar_problem("HS81", {-2, 2, 2, -1, -1}, {0.0539498478},
                                                [product](auto x) {
                                                  return exp(product(x)) -
                                                         0.5 *
                                                             square(cube(x[0]) + cube(x[1]) + 1.0);
                                                }),
                                 3, 0, sphere),
                     opposite, box));
  all.push_back(constrained(scalar_problem("HS79", repeat(2, 5), {0.0787768209},
                                           [](auto x) {
                                             return square(x[0] - 1.0) + square(x[0] - x[1]) +
                                                    square(x[1] - x[2]) + fourth(x[2] - x[3]) +
                                                    fourth(x[3] - x[4]);
                                           }),
                            3, 0, [](auto x, auto c) {
                              c[0] = x[0] + square(x[1]) + cube(x[2]) - 2.0 - 3.0 * sqrt2;
                              c[1] = x[1] - square(x[2]) + x[3] + 2.0 - 2.0 * sqrt2;
                              c[2] = x[0] * x[4] - 2.0;
                            }));
}

// ---- Six parameters and more --------------------------------------------------------------------

static void boxes(std::vector<Problem>& all) {
  const double a = std::asin(std::sqrt(1.0 / 4.2));
  const double b = std::asin(std::sqrt(5.0 / 7.2));
  all.push_back(constrained(scalar_problem("HS56", {1, 1, 1, a, a, a, b}, {-3.456},
                                           [](auto x) { return -x[0] * x[1] * x[2]; }),
                            4, 0, [](auto x, auto c) {
                              for (int i = 0; i < 3; ++i) {
                                c[i] = x[i] - 4.2 * square(sin(x[3 + i]));
                              }
                              c[3] = x[0] + 2.0 * x[1] + 2.0 * x[2] - 7.2 * square(sin(x[6]));
                            }));
}

static void transformer(std::vector<Problem>& all) {
  all.push_back(
      with(constrained(scalar_problem("HS93", {5.54, 4.4, 12.02, 11.82, 0.702, 0.852}, {135.075961},
                                      [](auto x) {
                                        const auto u = x[0] * x[3] * (x[0] + x[1] + x[2]);
                                        const auto v = x[1] * x[2] * (x[0] + 1.57 * x[1] + x[3]);
                                        return 0.0204 * u + 0.0187 * v + 0.0607 * u * square(x[4]) +
                                               0.0437 * v * square(x[5]);
                                      }),
                       0, 2,
                       [](auto x, auto c) {
                         const auto u = x[0] * x[3] * (x[0] + x[1] + x[2]);
                         const auto v = x[1] * x[2] * (x[0] + 1.57 * x[1] + x[3]);
                         c[0] = 0.001 * x[0] * x[1] * x[2] * x[3] * x[4] * x[5] - 2.07;
                         c[1] = 1.0 - 0.00062 * u * square(x[4]) - 0.00058 * v * square(x[5]);
                       }),
           repeat(0, 6), repeat(NONE, 6)));
}

// Four problems that differ in the right-hand sides alone.
static void bilinear(std::vector<Problem>& all) {
  const auto cost = [](auto x) {
    return 4.3 * x[0] + 31.8 * x[1] + 63.3 * x[2] + 15.8 * x[3] + 68.5 * x[4] + 4.7 * x[5];
  };
  const auto add = [&](const char* name, std::vector<double> minima, std::vector<double> b) {
    all.push_back(with(
        constrained(
            scalar_problem(name, repeat(0, 6), std::move(minima), cost), 0, 4,
            [b](auto x, auto c) {
              c[0] = 17.1 * x[0] + 38.2 * x[1] + 204.2 * x[2] + 212.3 * x[3] + 623.4 * x[4] +
                     1495.5 * x[5] - 169.0 * x[0] * x[2] - 3580.0 * x[2] * x[4] -
                     3810.0 * x[3] * x[4] - 18500.0 * x[3] * x[5] - 24300.0 * x[4] * x[5] - b[0];
              c[1] = 17.9 * x[0] + 36.8 * x[1] + 113.9 * x[2] + 169.7 * x[3] + 337.8 * x[4] +
                     1385.2 * x[5] - 139.0 * x[0] * x[2] - 2450.0 * x[3] * x[4] -
                     16600.0 * x[3] * x[5] - 17200.0 * x[4] * x[5] - b[1];
              c[2] = -273.0 * x[1] - 70.0 * x[3] - 819.0 * x[4] + 26000.0 * x[3] * x[4] - b[2];
              c[3] = 159.9 * x[0] - 311.0 * x[1] + 587.0 * x[3] + 391.0 * x[4] + 2198.0 * x[5] -
                     14000.0 * x[0] * x[5] - b[3];
            }),
        repeat(0, 6), {0.31, 0.046, 0.068, 0.042, 0.028, 0.0134}));
  };
  add("HS95", {0.01561953}, {4.97, -1.88, -29.08, -78.02});
  add("HS96", {0.01561953}, {4.97, -1.88, -69.08, -118.02});
  add("HS97", {3.1358091, 4.07124636}, {32.97, 25.12, -29.08, -78.02});
  add("HS98", {3.1358091, 4.07124636}, {32.97, 25.12, -124.08, -173.02});
}

static void convex(std::vector<Problem>& all) {
  all.push_back(constrained(
      scalar_problem("HS100", {1, 2, 0, 4, 0, 1, 1}, {680.6300573},
                     [](auto x) {
                       return square(x[0] - 10.0) + 5.0 * square(x[1] - 12.0) + fourth(x[2]) +
                              3.0 * square(x[3] - 11.0) + 10.0 * fourth(x[4]) * square(x[4]) +
                              7.0 * square(x[5]) + fourth(x[6]) - 4.0 * x[5] * x[6] - 10.0 * x[5] -
                              8.0 * x[6];
                     }),
      0, 4, [](auto x, auto c) {
        c[0] = 127.0 - 2.0 * square(x[0]) - 3.0 * fourth(x[1]) - x[2] - 4.0 * square(x[3]) -
               5.0 * x[4];
        c[1] = 282.0 - 7.0 * x[0] - 3.0 * x[1] - 10.0 * square(x[2]) - x[3] + x[4];
        c[2] = 196.0 - 23.0 * x[0] - square(x[1]) - 6.0 * square(x[5]) + 8.0 * x[6];
        c[3] = -4.0 * square(x[0]) - square(x[1]) + 3.0 * x[0] * x[1] - 2.0 * square(x[2]) -
               5.0 * x[5] + 11.0 * x[6];
      }));
  all.push_back(with(
      constrained(scalar_problem("HS113", {2, 3, 5, 5, 1, 2, 7, 3, 6, 10}, {24.3062091},
                                 [](auto x) {
                                   return square(x[0]) + square(x[1]) + x[0] * x[1] - 14.0 * x[0] -
                                          16.0 * x[1] + square(x[2] - 10.0) +
                                          4.0 * square(x[3] - 5.0) + square(x[4] - 3.0) +
                                          2.0 * square(x[5] - 1.0) + 5.0 * square(x[6]) +
                                          7.0 * square(x[7] - 11.0) + 2.0 * square(x[8] - 10.0) +
                                          square(x[9] - 7.0) + 45.0;
                                 }),
                  0, 5,
                  [](auto x, auto c) {
                    c[0] = 120.0 - 3.0 * square(x[0] - 2.0) - 4.0 * square(x[1] - 3.0) -
                           2.0 * square(x[2]) + 7.0 * x[3];
                    c[1] = 40.0 - 5.0 * square(x[0]) - 8.0 * x[1] - square(x[2] - 6.0) + 2.0 * x[3];
                    c[2] = 30.0 - 0.5 * square(x[0] - 8.0) - 2.0 * square(x[1] - 4.0) -
                           3.0 * square(x[4]) + x[5];
                    c[3] = -square(x[0]) - 2.0 * square(x[1] - 2.0) + 2.0 * x[0] * x[1] -
                           14.0 * x[4] + 6.0 * x[5];
                    c[4] = 3.0 * x[0] - 6.0 * x[1] - 12.0 * square(x[8] - 8.0) + 7.0 * x[9];
                  }),
      {}, {},
      {{{4, 5, 0, 0, 0, 0, -3, 9, 0, 0}, -1, 105},
       {{10, -8, 0, 0, 0, 0, -17, 2, 0, 0}, -1, 0},
       {{-8, 2, 0, 0, 0, 0, 0, 0, 5, -2}, -1, 12}}));
}

static void chemistry(std::vector<Problem>& all) {
  const auto reactor = [](auto x) {
    return 0.4 * pow(x[0] / x[6], 0.67) + 0.4 * pow(x[1] / x[7], 0.67) + 10.0 - x[0] - x[1];
  };
  all.push_back(with(
      constrained(
          scalar_problem("HS104", {6, 3, 0.4, 0.2, 6, 6, 1, 0.5}, {3.9511634396}, reactor), 0, 6,
          [reactor](auto x, auto c) {
            c[0] = 1.0 - 0.0588 * x[4] * x[6] - 0.1 * x[0];
            c[1] = 1.0 - 0.0588 * x[5] * x[7] - 0.1 * x[0] - 0.1 * x[1];
            for (int i = 0; i < 2; ++i) {
              c[2 + i] = 1.0 - 4.0 * x[2 + i] / x[4 + i] - 2.0 * pow(x[2 + i], -0.71) / x[4 + i] -
                         0.0588 * pow(x[2 + i], -1.3) * x[6 + i];
            }
            c[4] = reactor(x) - 0.1;
            c[5] = 4.2 - reactor(x);
          }),
      repeat(0.1, 8), repeat(10, 8)));
  all.push_back(
      with(constrained(scalar_problem("HS106", {5000, 5000, 5000, 200, 350, 150, 225, 425},
                                      {7049.248021}, [](auto x) { return x[0] + x[1] + x[2]; }),
                       0, 3,
                       [](auto x, auto c) {
                         c[0] = x[0] * x[5] - 833.33252 * x[3] - 100.0 * x[0] + 83333.333;
                         c[1] = x[1] * x[6] - 1250.0 * x[4] - x[1] * x[3] + 1250.0 * x[3];
                         c[2] = x[2] * x[7] - 1250000.0 - x[2] * x[4] + 2500.0 * x[4];
                       }),
           {100, 1000, 1000, 10, 10, 10, 10, 10}, {1e4, 1e4, 1e4, 1000, 1000, 1000, 1000, 1000},
           {{{0, 0, 0, 0.0025, 0, 0.0025, 0, 0}, -1, 1},
            {{0, 0, 0, -0.0025, 0.0025, 0, 0.0025, 0}, -1, 1},
            {{0, 0, 0, 0, -0.01, 0, 0, 0.01}, -1, 1}}));
}

// The largest hexagon of diameter 1 that has the origin as a corner.
static void hexagon(std::vector<Problem>& all) {
  const auto unit = [](const auto& u, const auto& v) { return 1.0 - square(u) - square(v); };
  all.push_back(
      with(constrained(scalar_problem("HS108", repeat(1, 9), {-0.8660254038, -0.6749814429, -0.5},
                                      [](auto x) {
                                        return -0.5 * (x[0] * x[3] - x[1] * x[2] + x[2] * x[8] -
                                                       x[4] * x[8] + x[4] * x[7] - x[5] * x[6]);
                                      }),
                       0, 13,
                       [unit](auto x, auto c) {
                         c[0] = unit(x[2], x[3]);
                         c[1] = 1.0 - square(x[8]);
                         c[2] = unit(x[4], x[5]);
                         c[3] = unit(x[0], x[1] - x[8]);
                         c[4] = unit(x[0] - x[4], x[1] - x[5]);
                         c[5] = unit(x[0] - x[6], x[1] - x[7]);
                         c[6] = unit(x[2] - x[4], x[3] - x[5]);
                         c[7] = unit(x[2] - x[6], x[3] - x[7]);
                         c[8] = unit(x[6], x[7] - x[8]);
                         c[9] = x[0] * x[3] - x[1] * x[2];
                         c[10] = x[2] * x[8];
                         c[11] = -x[4] * x[8];
                         c[12] = x[4] * x[7] - x[5] * x[6];
                       }),
           {-NONE, -NONE, -NONE, -NONE, -NONE, -NONE, -NONE, -NONE, 0}, repeat(NONE, 9)));
}

std::vector<Problem> hock_schittkowski_nonlinear() {
  std::vector<Problem> all;
  equalities_in_the_plane(all);
  inequalities_in_the_plane(all);
  rosenbrock_in_the_plane(all);
  equalities_in_space(all);
  inequalities_in_space(all);
  four_parameters(all);
  five_parameters(all);
  boxes(all);
  transformer(all);
  bilinear(all);
  convex(all);
  chemistry(all);
  hexagon(all);
  return all;
}

}  // namespace tqnlp::problems
