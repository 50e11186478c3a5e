// Solves small problems by every technique and prints technique, problem, code and the bits of x.
// test_scipy.py does the same in Python and wants the same lines.
#include <cstdio>

#include "tqnlp/optimize.hpp"

using namespace tqnlp;

static double rosenbrock(Point x) {
  const double a = x[1] - x[0] * x[0], b = 1.0 - x[0];
  return 100.0 * a * a + b * b;
}

static void gradient(Point x, Values g) {
  const double a = x[1] - x[0] * x[0];
  g[0] = -400.0 * x[0] * a - 2.0 * (1.0 - x[0]);
  g[1] = 200.0 * a;
}

static void residuals(Point x, Values r) {
  r[0] = 10.0 * (x[1] - x[0] * x[0]);
  r[1] = 1.0 - x[0];
  r[2] = 0.5 * x[0] * x[1];
}

static void print(Technique technique, const char* name, const Problem& problem) {
  Options options;
  options.technique = technique;
  if (std::string_view(name) == "squares") {  // what the package sets for fits
    if (technique == Technique::automatic || technique == Technique::levenberg_marquardt ||
        technique == Technique::hybrid_quasi_newton || technique == Technique::gauss_newton)
      options.gradient_tolerance = 0.0;
    options.iterations = 1000.0;
    options.calls = 10000.0;
  }
  try {
    const Result found = solve(problem, {-1.2, 1.0}, options);
    std::printf("%s %s %d %a %a\n", name_of(technique), name, found.status.code, found.x[0],
                found.x[1]);
  } catch (const std::invalid_argument&) {  // not for this kind of problem
  }
}

int main() {
  const auto scalar = [] { return Problem::minimize(2, rosenbrock); };
  const auto squares = [] { return Problem::least_squares(2, 3, residuals); };
  const auto disk = [](Point x, Values c) { c[0] = x[0] * x[0] + x[1] * x[1]; };
#define TQNLP_RUN(name)                                                                           \
  print(Technique::name, "values", scalar());                                                     \
  print(Technique::name, "gradient", scalar().gradient(gradient));                                \
  print(Technique::name, "bounds", scalar().gradient(gradient).bounds({-inf, -inf}, {0.5, inf})); \
  print(Technique::name, "row", scalar().gradient(gradient).linear({1.0, 2.0}, -inf, 1.0));       \
  print(Technique::name, "disk", scalar().nonlinear({-inf}, {1.0}, disk));                        \
  print(Technique::name, "squares", squares());                                                   \
  print(Technique::name, "quadratic", Problem::quadratic({2, {2.0, 0.5, 0.5, 1.0}}, {-1, -1}));
  TQNLP_FACE_TECHNIQUES(TQNLP_RUN)
#undef TQNLP_RUN
}
