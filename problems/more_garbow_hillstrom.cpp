// The 35 problems of More, Garbow and Hillstrom (ACM Transactions on Mathematical Software 7,
// 1981), with the starts and minima given there; f = sum of squared residuals.
#include <array>
#include <numbers>

#include "problems/problem.h"

namespace tqnlp::problems {

using std::atan;
using std::cos;
using std::exp;
using std::pow;
using std::sin;
using std::sqrt;

static void small_problems(std::vector<Problem>& all) {
  all.push_back(residual_problem("Rosenbrock", 2, {-1.2, 1}, {0}, [](auto x, auto r) {
    r[0] = 10.0 * (x[1] - x[0] * x[0]);
    r[1] = 1.0 - x[0];
  }));
  all.push_back(residual_problem("Freudenstein and Roth", 2, {0.5, -2}, {0, 48.98425367924},
                                 [](auto x, auto r) {
                                   r[0] = -13.0 + x[0] + ((5.0 - x[1]) * x[1] - 2.0) * x[1];
                                   r[1] = -29.0 + x[0] + ((x[1] + 1.0) * x[1] - 14.0) * x[1];
                                 }));
  all.push_back(residual_problem("Powell badly scaled", 2, {0, 1}, {0}, [](auto x, auto r) {
    r[0] = 1e4 * x[0] * x[1] - 1.0;
    r[1] = exp(-x[0]) + exp(-x[1]) - 1.0001;
  }));
  all.push_back(residual_problem("Brown badly scaled", 3, {1, 1}, {0}, [](auto x, auto r) {
    r[0] = x[0] - 1e6;
    r[1] = x[1] - 2e-6;
    r[2] = x[0] * x[1] - 2.0;
  }));
  all.push_back(residual_problem("Beale", 3, {1, 1}, {0}, [](auto x, auto r) {
    r[0] = 1.5 - x[0] * (1.0 - x[1]);
    r[1] = 2.25 - x[0] * (1.0 - x[1] * x[1]);
    r[2] = 2.625 - x[0] * (1.0 - x[1] * x[1] * x[1]);
  }));
  all.push_back(residual_problem(
      "Jennrich and Sampson", 10, {0.3, 0.4}, {124.3621823556148}, [](auto x, auto r) {
        for (int i = 1; i <= 10; ++i) {
          r[i - 1] = 2.0 + 2.0 * i - (exp(double(i) * x[0]) + exp(double(i) * x[1]));
        }
      }));
  all.push_back(residual_problem("Helical valley", 3, {-1, 0, 0}, {0}, [](auto x, auto r) {
    using T = Number<decltype(x)>;
    T theta = atan(x[1] / x[0]) / (2.0 * std::numbers::pi);
    if (value_of(x[0]) < 0.0) theta += 0.5;
    r[0] = 10.0 * (x[2] - 10.0 * theta);
    r[1] = 10.0 * (sqrt(x[0] * x[0] + x[1] * x[1]) - 1.0);
    r[2] = x[2];
  }));
}

// Data of the fitting problems.
static constexpr std::array bard = {0.14, 0.18, 0.22, 0.25, 0.29, 0.32, 0.35, 0.39,
                                    0.37, 0.58, 0.73, 0.96, 1.34, 2.10, 4.39};
static constexpr std::array gauss = {0.0009, 0.0044, 0.0175, 0.0540, 0.1295, 0.2420, 0.3521, 0.3989,
                                     0.3521, 0.2420, 0.1295, 0.0540, 0.0175, 0.0044, 0.0009};
static constexpr std::array meyer = {34780., 28610., 23650., 19630., 16370., 13720., 11540., 9744.,
                                     8261.,  7030.,  6005.,  5147.,  4427.,  3820.,  3307.,  2872.};
static constexpr std::array kowalik_y = {0.1957, 0.1947, 0.1735, 0.1600, 0.0844, 0.0627,
                                         0.0456, 0.0342, 0.0323, 0.0235, 0.0246};
static constexpr std::array kowalik_u = {4.0,   2.0, 1.0,    0.5,    0.25,  0.167,
                                         0.125, 0.1, 0.0833, 0.0714, 0.0625};
static constexpr std::array osborne1 = {
    0.844, 0.908, 0.932, 0.936, 0.925, 0.908, 0.881, 0.850, 0.818, 0.784, 0.751,
    0.718, 0.685, 0.658, 0.628, 0.603, 0.580, 0.558, 0.538, 0.522, 0.506, 0.490,
    0.478, 0.467, 0.457, 0.448, 0.438, 0.431, 0.424, 0.420, 0.414, 0.411, 0.406};
static constexpr std::array osborne2 = {
    1.366, 1.191, 1.112, 1.013, 0.991, 0.885, 0.831, 0.847, 0.786, 0.725, 0.746, 0.679, 0.608,
    0.655, 0.616, 0.606, 0.602, 0.626, 0.651, 0.724, 0.649, 0.649, 0.694, 0.644, 0.624, 0.661,
    0.612, 0.558, 0.533, 0.495, 0.500, 0.423, 0.395, 0.375, 0.372, 0.391, 0.396, 0.405, 0.428,
    0.429, 0.523, 0.562, 0.607, 0.653, 0.672, 0.708, 0.633, 0.668, 0.645, 0.632, 0.591, 0.559,
    0.597, 0.625, 0.739, 0.710, 0.729, 0.720, 0.636, 0.581, 0.428, 0.292, 0.162, 0.098, 0.054};

static void data_problems(std::vector<Problem>& all) {
  all.push_back(residual_problem("Bard", 15, {1, 1, 1}, {8.214877306578970e-3, 17.42869333},
                                 [](auto x, auto r) {
                                   for (int i = 1; i <= 15; ++i) {
                                     const double u = i, v = 16 - i, w = std::min(u, v);
                                     r[i - 1] = bard[i - 1] - (x[0] + u / (v * x[1] + w * x[2]));
                                   }
                                 }));
  all.push_back(
      residual_problem("Gaussian", 15, {0.4, 1, 0}, {1.127932769618710e-8}, [](auto x, auto r) {
        for (int i = 1; i <= 15; ++i) {
          const double t = (8 - i) / 2.0;
          r[i - 1] = x[0] * exp(-x[1] * (t - x[2]) * (t - x[2]) / 2.0) - gauss[i - 1];
        }
      }));
  all.push_back(
      residual_problem("Meyer", 16, {0.02, 4000, 250}, {87.94585517018}, [](auto x, auto r) {
        for (int i = 1; i <= 16; ++i) {
          r[i - 1] = x[0] * exp(x[1] / (45.0 + 5.0 * i + x[2])) - meyer[i - 1];
        }
      }));
  all.push_back(
      residual_problem("Gulf research", 99, {5, 2.5, 0.15}, {0, 0.038}, [](auto x, auto r) {
        for (int i = 1; i <= 99; ++i) {
          const double t = i / 100.0;
          const double y = 25.0 + std::pow(-50.0 * std::log(t), 2.0 / 3.0);
          const auto gap = y - x[1];
          const auto size = value_of(gap) < 0.0 ? -1.0 * gap : 1.0 * gap;
          r[i - 1] = exp(-pow(size, x[2]) / x[0]) - t;
        }
      }));
  all.push_back(residual_problem(
      "Box three-dimensional", 10, {0, 10, 20}, {0, 0.0755887}, [](auto x, auto r) {
        for (int i = 1; i <= 10; ++i) {
          const double t = 0.1 * i;
          r[i - 1] = exp(-t * x[0]) - exp(-t * x[1]) - x[2] * (std::exp(-t) - std::exp(-10 * t));
        }
      }));
  all.push_back(residual_problem("Kowalik and Osborne", 11, {0.25, 0.39, 0.415, 0.39},
                                 {3.075056038e-4, 1.02734e-3}, [](auto x, auto r) {
                                   for (int i = 0; i < 11; ++i) {
                                     const double u = kowalik_u[i];
                                     r[i] = kowalik_y[i] -
                                            x[0] * (u * u + u * x[1]) / (u * u + u * x[2] + x[3]);
                                   }
                                 }));
  all.push_back(residual_problem("Brown and Dennis", 20, {25, 5, -5, -1}, {85822.20162635},
                                 [](auto x, auto r) {
                                   for (int i = 1; i <= 20; ++i) {
                                     const double t = i / 5.0;
                                     const auto a = x[0] + t * x[1] - std::exp(t);
                                     const auto b = x[2] + std::sin(t) * x[3] - std::cos(t);
                                     r[i - 1] = a * a + b * b;
                                   }
                                 }));
  all.push_back(residual_problem(
      "Osborne 1", 33, {0.5, 1.5, -1, 0.01, 0.02}, {5.464894697483e-5}, [](auto x, auto r) {
        for (int i = 0; i < 33; ++i) {
          const double t = 10.0 * i;
          r[i] = osborne1[i] - (x[0] + x[1] * exp(-t * x[3]) + x[2] * exp(-t * x[4]));
        }
      }));
  all.push_back(residual_problem(
      "Biggs EXP6", 13, {1, 2, 1, 1, 1, 1}, {0, 5.655649925516e-3}, [](auto x, auto r) {
        for (int i = 1; i <= 13; ++i) {
          const double t = 0.1 * i;
          const double y = std::exp(-t) - 5 * std::exp(-10 * t) + 3 * std::exp(-4 * t);
          r[i - 1] = x[2] * exp(-t * x[0]) - x[3] * exp(-t * x[1]) + x[5] * exp(-t * x[4]) - y;
        }
      }));
  all.push_back(residual_problem("Osborne 2", 65, {1.3, 0.65, 0.65, 0.7, 0.6, 3, 5, 7, 2, 4.5, 5.5},
                                 {4.013773629355e-2, 1.789813589}, [](auto x, auto r) {
                                   for (int i = 0; i < 65; ++i) {
                                     const double t = i / 10.0;
                                     r[i] = osborne2[i] -
                                            (x[0] * exp(-t * x[4]) +
                                             x[1] * exp(-x[5] * (t - x[8]) * (t - x[8])) +
                                             x[2] * exp(-x[6] * (t - x[9]) * (t - x[9])) +
                                             x[3] * exp(-x[7] * (t - x[10]) * (t - x[10])));
                                   }
                                 }));
}

static Problem watson(long n, double minimum) {
  return residual_problem("Watson " + std::to_string(n), 31,
                          std::vector<double>(static_cast<std::size_t>(n), 0.0), {minimum},
                          [n](auto x, auto r) {
                            for (int i = 1; i <= 29; ++i) {
                              const double t = i / 29.0;
                              Number<decltype(x)> slope(0.0), sum(0.0);
                              double power = 1.0;
                              for (long j = 0; j < n; ++j) {
                                sum += x[j] * power;
                                if (j + 1 < n) slope += double(j + 1) * x[j + 1] * power;
                                power *= t;
                              }
                              r[i - 1] = slope - sum * sum - 1.0;
                            }
                            r[29] = x[0];
                            r[30] = x[1] - x[0] * x[0] - 1.0;
                          });
}

static Problem penalty_1(long n, double minimum) {
  std::vector<double> start;
  for (long j = 1; j <= n; ++j) start.push_back(double(j));
  return residual_problem("Penalty I " + std::to_string(n), n + 1, start, {minimum},
                          [n](auto x, auto r) {
                            Number<decltype(x)> sum(-0.25);
                            for (long j = 0; j < n; ++j) {
                              r[j] = std::sqrt(1e-5) * (x[j] - 1.0);
                              sum += x[j] * x[j];
                            }
                            r[n] = sum;
                          });
}

static Problem penalty_2(long n, double minimum) {
  return residual_problem("Penalty II " + std::to_string(n), 2 * n,
                          std::vector<double>(static_cast<std::size_t>(n), 0.5), {minimum},
                          [n](auto x, auto r) {
                            const double root = std::sqrt(1e-5);
                            r[0] = x[0] - 0.2;
                            Number<decltype(x)> sum(-1.0);
                            for (long j = 0; j < n; ++j) sum += double(n - j) * x[j] * x[j];
                            for (long i = 1; i < n; ++i) {
                              const double y = std::exp((i + 1) / 10.0) + std::exp(i / 10.0);
                              r[i] = root * (exp(x[i] / 10.0) + exp(x[i - 1] / 10.0) - y);
                              r[n + i - 1] = root * (exp(x[i] / 10.0) - std::exp(-0.1));
                            }
                            r[2 * n - 1] = sum;
                          });
}

static void scalable_problems(std::vector<Problem>& all) {
  all.push_back(residual_problem("Powell singular", 4, {3, -1, 0, 1}, {0}, [](auto x, auto r) {
    r[0] = x[0] + 10.0 * x[1];
    r[1] = std::sqrt(5.0) * (x[2] - x[3]);
    r[2] = (x[1] - 2.0 * x[2]) * (x[1] - 2.0 * x[2]);
    r[3] = std::sqrt(10.0) * (x[0] - x[3]) * (x[0] - x[3]);
  }));
  all.push_back(residual_problem("Wood", 6, {-3, -1, -3, -1}, {0}, [](auto x, auto r) {
    r[0] = 10.0 * (x[1] - x[0] * x[0]);
    r[1] = 1.0 - x[0];
    r[2] = std::sqrt(90.0) * (x[3] - x[2] * x[2]);
    r[3] = 1.0 - x[2];
    r[4] = std::sqrt(10.0) * (x[1] + x[3] - 2.0);
    r[5] = (x[1] - x[3]) / std::sqrt(10.0);
  }));
  all.push_back(watson(6, 2.287670053552e-3));
  all.push_back(watson(9, 1.399760138e-6));
  all.push_back(watson(12, 4.722381e-10));
  std::vector<double> rosenbrock_start, powell_start;
  for (int i = 0; i < 5; ++i) rosenbrock_start.insert(rosenbrock_start.end(), {-1.2, 1.0});
  for (int i = 0; i < 3; ++i) powell_start.insert(powell_start.end(), {3.0, -1.0, 0.0, 1.0});
  all.push_back(
      residual_problem("Extended Rosenbrock 10", 10, rosenbrock_start, {0}, [](auto x, auto r) {
        for (int i = 0; i < 10; i += 2) {
          r[i] = 10.0 * (x[i + 1] - x[i] * x[i]);
          r[i + 1] = 1.0 - x[i];
        }
      }));
  all.push_back(
      residual_problem("Extended Powell singular 12", 12, powell_start, {0}, [](auto x, auto r) {
        for (int i = 0; i < 12; i += 4) {
          r[i] = x[i] + 10.0 * x[i + 1];
          r[i + 1] = std::sqrt(5.0) * (x[i + 2] - x[i + 3]);
          r[i + 2] = (x[i + 1] - 2.0 * x[i + 2]) * (x[i + 1] - 2.0 * x[i + 2]);
          r[i + 3] = std::sqrt(10.0) * (x[i] - x[i + 3]) * (x[i] - x[i + 3]);
        }
      }));
  all.push_back(penalty_1(4, 2.249977500e-5));
  all.push_back(penalty_1(10, 7.087651467e-5));
  all.push_back(penalty_2(4, 9.376293007e-6));
  all.push_back(penalty_2(10, 2.936605374e-4));
}

// Problems of ten variables with their regular starts.
static void equation_problems(std::vector<Problem>& all) {
  constexpr long n = 10;
  const double h = 1.0 / (n + 1);
  std::vector<double> variable, boundary, chebyquad;
  for (long j = 1; j <= n; ++j) {
    variable.push_back(1.0 - j / 10.0);
    boundary.push_back(j * h * (j * h - 1.0));
  }
  const std::vector<double> tenth(n, 0.1), half(n, 0.5), minus_one(n, -1.0), one(n, 1.0);
  all.push_back(residual_problem("Variably dimensioned", n + 2, variable, {0}, [](auto x, auto r) {
    Number<decltype(x)> sum(0.0);
    for (long j = 0; j < n; ++j) {
      r[j] = x[j] - 1.0;
      sum += double(j + 1) * (x[j] - 1.0);
    }
    r[n] = sum;
    r[n + 1] = sum * sum;
  }));
  all.push_back(
      residual_problem("Trigonometric", n, tenth, {0, 2.795056121e-5}, [](auto x, auto r) {
        Number<decltype(x)> sum(0.0);
        for (long j = 0; j < n; ++j) sum += cos(x[j]);
        for (long i = 0; i < n; ++i) {
          r[i] = double(n) - sum + double(i + 1) * (1.0 - cos(x[i])) - sin(x[i]);
        }
      }));
  all.push_back(residual_problem("Brown almost-linear", n, half, {0, 1}, [](auto x, auto r) {
    Number<decltype(x)> sum(0.0), product(1.0);
    for (long j = 0; j < n; ++j) {
      sum += x[j];
      product *= x[j];
    }
    for (long i = 0; i + 1 < n; ++i) r[i] = x[i] + sum - double(n + 1);
    r[n - 1] = product - 1.0;
  }));
  all.push_back(residual_problem("Discrete boundary value", n, boundary, {0}, [h](auto x, auto r) {
    for (long i = 0; i < n; ++i) {
      const auto shifted = x[i] + (i + 1) * h + 1.0;
      r[i] = 2.0 * x[i] + h * h * shifted * shifted * shifted / 2.0;
      if (i > 0) r[i] -= x[i - 1];
      if (i + 1 < n) r[i] -= x[i + 1];
    }
  }));
  all.push_back(
      residual_problem("Discrete integral equation", n, boundary, {0}, [h](auto x, auto r) {
        for (long i = 0; i < n; ++i) {
          const double ti = (i + 1) * h;
          Number<decltype(x)> below(0.0), above(0.0);
          for (long j = 0; j < n; ++j) {
            const double tj = (j + 1) * h;
            const auto shifted = x[j] + tj + 1.0;
            const auto cube = shifted * shifted * shifted;
            if (j <= i) {
              below += tj * cube;
            } else {
              above += (1.0 - tj) * cube;
            }
          }
          r[i] = x[i] + h * ((1.0 - ti) * below + ti * above) / 2.0;
        }
      }));
  all.push_back(residual_problem("Broyden tridiagonal", n, minus_one, {0}, [](auto x, auto r) {
    for (long i = 0; i < n; ++i) {
      r[i] = (3.0 - 2.0 * x[i]) * x[i] + 1.0;
      if (i > 0) r[i] -= x[i - 1];
      if (i + 1 < n) r[i] -= 2.0 * x[i + 1];
    }
  }));
  all.push_back(
      residual_problem("Broyden banded", n, minus_one, {0, 3.05727842}, [](auto x, auto r) {
        for (long i = 0; i < n; ++i) {
          r[i] = x[i] * (2.0 + 5.0 * x[i] * x[i]) + 1.0;
          for (long j = std::max(0L, i - 5); j <= std::min(n - 1, i + 1); ++j) {
            if (j != i) r[i] -= x[j] * (1.0 + x[j]);
          }
        }
      }));
}

static void linear_problems(std::vector<Problem>& all) {
  constexpr long n = 10, m = 20;
  const std::vector<double> one(n, 1.0);
  all.push_back(residual_problem("Linear full rank", m, one, {m - n}, [](auto x, auto r) {
    Number<decltype(x)> sum(0.0);
    for (long j = 0; j < n; ++j) sum += x[j];
    for (long i = 0; i < m; ++i) {
      r[i] = -2.0 / m * sum - 1.0;
      if (i < n) r[i] += x[i];
    }
  }));
  all.push_back(residual_problem("Linear rank 1", m, one, {m * (m - 1) / (2.0 * (2 * m + 1))},
                                 [](auto x, auto r) {
                                   Number<decltype(x)> sum(0.0);
                                   for (long j = 0; j < n; ++j) sum += double(j + 1) * x[j];
                                   for (long i = 0; i < m; ++i) r[i] = double(i + 1) * sum - 1.0;
                                 }));
  all.push_back(residual_problem("Linear rank 1 with zero columns and rows", m, one,
                                 {(m * m + 3 * m - 6) / (2.0 * (2 * m - 3))}, [](auto x, auto r) {
                                   Number<decltype(x)> sum(0.0);
                                   for (long j = 1; j + 1 < n; ++j) sum += double(j + 1) * x[j];
                                   for (long i = 0; i < m; ++i) r[i] = double(i) * sum - 1.0;
                                   r[0] = -1.0;
                                   r[m - 1] = -1.0;
                                 }));
}

static Problem chebyquad(long n, std::vector<double> minima) {
  std::vector<double> start;
  for (long j = 1; j <= n; ++j) start.push_back(double(j) / (n + 1));
  return residual_problem("Chebyquad " + std::to_string(n), n, start, std::move(minima),
                          [n](auto x, auto r) {
                            using T = Number<decltype(x)>;
                            for (long i = 0; i < n; ++i) r[i] = T(0.0);
                            for (long j = 0; j < n; ++j) {
                              const T t = 2.0 * x[j] - 1.0;
                              T before(1.0), present = t;
                              for (long i = 0; i < n; ++i) {
                                r[i] += present / double(n);
                                const T next = 2.0 * t * present - before;
                                before = present;
                                present = next;
                              }
                            }
                            for (long i = 2; i <= n; i += 2) r[i - 1] += 1.0 / (i * i - 1.0);
                          });
}

std::vector<Problem> more_garbow_hillstrom() {
  std::vector<Problem> all;
  small_problems(all);
  data_problems(all);
  scalable_problems(all);
  equation_problems(all);
  linear_problems(all);
  all.push_back(chebyquad(8, {3.516873725677e-3}));
  all.push_back(chebyquad(9, {0}));
  all.push_back(chebyquad(10, {4.77271369637e-3, 6.503954801e-3}));
  return all;
}

}  // namespace tqnlp::problems
