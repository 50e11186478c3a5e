// Problems of any size, with value and gradient written by hand in O(n): extended Rosenbrock,
// extended Powell singular, Broyden tridiagonal and penalty I of More, Garbow and Hillstrom (ACM
// TOMS 7, 1981), ARWHEAD of Conn, Gould and Toint (LANCELOT, 1992), TRIDIA of Toint, and DIXMAANA
// of Dixon and Maany.
#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <utility>

#include "problems/problem.h"

namespace tqnlp::problems {

// Each function gives the value, and adds the gradient to g, which is zero, when it is not null.
// A term f += r^2 adds 2 r dr/dx; these are the terms of one residual and its parts of the
// gradient.
static double add_square(double r, double* g,
                         std::initializer_list<std::pair<long, double>> slope) {
  for (const auto& [i, d] : slope) {
    if (g != nullptr) g[i] += 2.0 * r * d;
  }
  return r * r;
}

static double rosenbrock(long n, const double* x, double* g) {
  double sum = 0.0;
  for (long i = 0; i < n; i += 2) {
    sum += add_square(10.0 * (x[i + 1] - x[i] * x[i]), g, {{i, -20.0 * x[i]}, {i + 1, 10.0}});
    sum += add_square(1.0 - x[i], g, {{i, -1.0}});
  }
  return sum;
}

static double powell_singular(long n, const double* x, double* g) {
  const double root5 = std::sqrt(5.0), root10 = std::sqrt(10.0);
  double sum = 0.0;
  for (long i = 0; i < n; i += 4) {
    const double inner = x[i + 1] - 2.0 * x[i + 2], outer = x[i] - x[i + 3];
    sum += add_square(x[i] + 10.0 * x[i + 1], g, {{i, 1.0}, {i + 1, 10.0}});
    sum += add_square(root5 * (x[i + 2] - x[i + 3]), g, {{i + 2, root5}, {i + 3, -root5}});
    sum += add_square(inner * inner, g, {{i + 1, 2.0 * inner}, {i + 2, -4.0 * inner}});
    sum += add_square(root10 * outer * outer, g,
                      {{i, 2.0 * root10 * outer}, {i + 3, -2.0 * root10 * outer}});
  }
  return sum;
}

static double arwhead(long n, const double* x, double* g) {
  double sum = 0.0;
  const double last = x[n - 1];
  for (long i = 0; i < n - 1; ++i) {
    sum += add_square(x[i] * x[i] + last * last, g, {{i, 2.0 * x[i]}, {n - 1, 2.0 * last}});
    sum += 3.0 - 4.0 * x[i];
    if (g != nullptr) g[i] -= 4.0;
  }
  return sum;
}

static double tridia(long n, const double* x, double* g) {
  double sum = add_square(x[0] - 1.0, g, {{0, 1.0}});
  for (long i = 1; i < n; ++i) {
    const double root = std::sqrt(double(i + 1));
    sum += add_square(root * (2.0 * x[i] - x[i - 1]), g, {{i, 2.0 * root}, {i - 1, -root}});
  }
  return sum;
}

static double dixmaana(long n, const double* x, double* g) {
  const long m = n / 3;
  double sum = 1.0;
  for (long i = 0; i < n; ++i) sum += add_square(x[i], g, {{i, 1.0}});
  const double root = std::sqrt(0.125);
  for (long i = 0; i < 2 * m; ++i) {
    const double square = root * x[i + m] * x[i + m];
    sum += add_square(x[i] * square, g, {{i, square}, {i + m, 2.0 * root * x[i] * x[i + m]}});
  }
  for (long i = 0; i < m; ++i) {
    sum += 0.125 * x[i] * x[i + 2 * m];
    if (g == nullptr) continue;
    g[i] += 0.125 * x[i + 2 * m];
    g[i + 2 * m] += 0.125 * x[i];
  }
  return sum;
}

static double broyden_tridiagonal(long n, const double* x, double* g) {
  double sum = 0.0;
  for (long i = 0; i < n; ++i) {
    const long before = i > 0 ? i - 1 : i, after = i < n - 1 ? i + 1 : i;
    const double left = i > 0 ? 1.0 : 0.0, right = i < n - 1 ? 2.0 : 0.0;
    sum += add_square((3.0 - 2.0 * x[i]) * x[i] - left * x[before] - right * x[after] + 1.0, g,
                      {{i, 3.0 - 4.0 * x[i]}, {before, -left}, {after, -right}});
  }
  return sum;
}

static constexpr double PENALTY = 1e-5;
static double penalty1(long n, const double* x, double* g) {
  double sum = 0.0, squares = -0.25;
  for (long i = 0; i < n; ++i) {
    squares += x[i] * x[i];
    sum += PENALTY * add_square(x[i] - 1.0, nullptr, {});
  }
  for (long i = 0; g != nullptr && i < n; ++i) {
    g[i] = 2.0 * PENALTY * (x[i] - 1.0) + 4.0 * squares * x[i];
  }
  return sum + squares * squares;
}

// All parameters of the minimum of penalty I are alike, since each solves the same linear equation:
// Newton's method finds their value t from t (2 (n t^2 - 1/4) + a) = a, and comes from above.
static double penalty1_minimum(long n) {
  double t = 1.0;
  for (int k = 0; k < 100; ++k) {
    t -= (t * (2.0 * (double(n) * t * t - 0.25) + PENALTY) - PENALTY) /
         (6.0 * double(n) * t * t - 0.5 + PENALTY);
  }
  const std::vector<double> x(static_cast<std::size_t>(n), t);
  return penalty1(n, x.data(), nullptr);
}

static Problem scalable(const std::string& name, long n, std::vector<double> pattern,
                        double minimum, double (*f)(long, const double*, double*)) {
  Problem p;
  p.name = name;
  p.n = n;
  for (std::size_t i = 0; i < static_cast<std::size_t>(n); ++i) {
    p.start.push_back(pattern[i % pattern.size()]);
  }
  p.minima = {minimum};
  p.value = [f, n](const double* x) { return f(n, x, nullptr); };
  p.by_hand = [f, n](const double* x, double* g) {
    std::fill_n(g, n, 0.0);
    return f(n, x, g);
  };
  return p;
}

std::vector<Problem> scalable_problems(long n) {
  std::vector<Problem> all = {
      scalable("Extended Rosenbrock", n / 2 * 2, {-1.2, 1}, 0, rosenbrock),
      scalable("Extended Powell singular", n / 4 * 4, {3, -1, 0, 1}, 0, powell_singular),
      scalable("ARWHEAD", n, {1}, 0, arwhead),
      scalable("TRIDIA", n, {1}, 0, tridia),
      scalable("DIXMAANA", n / 3 * 3, {2}, 1, dixmaana),
      scalable("Broyden tridiagonal", n, {-1}, 0, broyden_tridiagonal),
      scalable("PENALTY1", n, {1}, penalty1_minimum(n), penalty1)};
  for (long i = 0; i < n; ++i) all.back().start[static_cast<std::size_t>(i)] = double(i + 1);
  return all;
}

}  // namespace tqnlp::problems
