// The collection of published problems that tests and benchmarks share. It depends on the standard
// library alone.
#pragma once

#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "problems/jet.h"

namespace tqnlp::problems {

inline constexpr double NONE = std::numeric_limits<double>::infinity();  // an absent bound

// One linear constraint a'x (op) b: op 0 equality, 1 at least, -1 at most. Equalities stand first.
struct LinearRow {
  std::vector<double> a;
  int op;
  double b;
};

struct Problem {
  std::string name;
  long n = 0;
  std::vector<double> start;
  // Published minimum, and other local minima that a descent method may rightly end in.
  std::vector<double> minima;
  std::function<double(const double* x)> value;
  std::function<Jet(const Jet* x)> jet;
  // Value and gradient by hand; stands in for jet, except for Hessians, when it is not empty.
  std::function<double(const double* x, double* g)> by_hand;
  // Sums of squares: m residuals, f = sum of r_i^2. Empty for other objectives.
  long m = 0;
  std::function<void(const double* x, double* r)> residuals;
  std::function<void(const Jet* x, Jet* r)> residual_jets;
  // Jacobian by hand, as jacobian() below; stands in for residual_jets there when it is not empty.
  std::function<void(const double* x, double* by_rows)> jacobian_by_hand;
  // Bounds (empty: none; NONE and -NONE absent) and linear rows.
  std::vector<double> lower;
  std::vector<double> upper;
  std::vector<LinearRow> rows;
  // Nonlinear constraints, the first `equalities` c(x) = 0, the others c(x) >= 0.
  long constraints = 0;
  long equalities = 0;
  std::function<void(const double* x, double* c)> constraint_values;
  std::function<void(const Jet* x, Jet* c)> constraint_jets;

  // Value, gradient and packed Hessian at x.
  double evaluate(const double* x, double* gradient, double* hessian) const;
  // Value and gradient alone.
  double evaluate(const double* x, double* gradient) const {
    return evaluate(x, gradient, nullptr);
  }
  // Jacobian of the residuals at x, m x n by rows.
  void jacobian(const double* x, double* by_rows) const;
  // Jacobian of the nonlinear constraints at x, constraints x n by rows.
  void constraint_jacobian(const double* x, double* by_rows) const;
};

// A problem whose objective is a generic callable f(x), x an array of numbers or jets.
template <typename F>
Problem scalar_problem(std::string name, std::vector<double> start, std::vector<double> minima,
                       F f) {
  Problem p;
  p.name = std::move(name);
  p.n = static_cast<long>(start.size());
  p.start = std::move(start);
  p.minima = std::move(minima);
  p.value = [f](const double* x) { return f(x); };
  p.jet = [f](const Jet* x) { return f(x); };
  return p;
}

// A sum of squares of m residuals, given by a generic callable f(x, r).
template <typename F>
Problem residual_problem(std::string name, long m, std::vector<double> start,
                         std::vector<double> minima, F f) {
  const auto sum = [f, m](auto* x) {
    using T = std::remove_cvref_t<decltype(*x)>;
    std::vector<T> r(static_cast<std::size_t>(m));
    f(x, r.data());
    T total(0.0);
    for (const T& value : r) total += value * value;
    return total;
  };
  Problem p = scalar_problem(std::move(name), std::move(start), std::move(minima), sum);
  p.m = m;
  p.residuals = [f](const double* x, double* r) { f(x, r); };
  p.residual_jets = [f](const Jet* x, Jet* r) { f(x, r); };
  return p;
}

// The problem with nonlinear constraints, given by a generic callable c(x, values), equalities
// first.
template <typename F>
Problem constrained(Problem p, long equalities, long inequalities, F c) {
  p.equalities = equalities;
  p.constraints = equalities + inequalities;
  p.constraint_values = [c](const double* x, double* values) { c(x, values); };
  p.constraint_jets = [c](const Jet* x, Jet* values) { c(x, values); };
  return p;
}

// The type of the elements of a generic callable's argument: number or jet.
template <typename T>
using Number = std::remove_cvref_t<decltype(*std::declval<T>())>;

template <typename T>
T square(const T& value) {
  return value * value;
}

inline std::vector<double> repeat(double value, int count) {
  return std::vector<double>(static_cast<std::size_t>(count), value);
}

// The problem with bounds and linear constraints.
Problem with(Problem p, std::vector<double> lower, std::vector<double> upper,
             std::vector<LinearRow> rows = {});

// More, Garbow and Hillstrom, Testing Unconstrained Optimization Software, ACM TOMS 7 (1981):
// all 35.
std::vector<Problem> more_garbow_hillstrom();

// Hock and Schittkowski, Test Examples for Nonlinear Programming Codes (1981): those that have only
// bounds and linear constraints, all but number 105.
std::vector<Problem> hock_schittkowski_linear();

// The same source: 54 of those with nonlinear constraints.
std::vector<Problem> hock_schittkowski_nonlinear();

// The same source: 28 models of practice with nonlinear constraints.
std::vector<Problem> hock_schittkowski_models();

// All of that source but number 105, 114 in the order of their numbers.
std::vector<Problem> hock_schittkowski();

// Schittkowski, More Test Examples for Nonlinear Programming Codes (1987): kinds that the two
// collections above lack.
std::vector<Problem> schittkowski_linear();

// The three collections above, one after the other.
std::vector<Problem> problem_library();

// A regression with certified results. The residuals are model less response.
struct Regression {
  enum class Level { lower, average, higher };  // of difficulty, as its source has it
  std::string name;
  Level level;
  Problem start_1, start_2;        // from the far start and from the near one; minima: residual_sum
  std::vector<double> parameters;  // certified, as the next two
  std::vector<double> deviations;  // standard deviations s sqrt(diag (J'J)^-1) of the parameters
  double residual_sum;             // sum of r_i^2, which is s^2 degrees_of_freedom
  long degrees_of_freedom;         // m - n
};

// NIST, Statistical Reference Datasets, nonlinear regression: all 27, in its order of difficulty.
std::vector<Regression> nist_regressions();

// Seven unconstrained problems of any size n >= 4, in O(n), without jets (no Hessians). n is
// rounded down to a multiple of 2, 3 or 4 where a problem asks for that.
std::vector<Problem> scalable_problems(long n);

}  // namespace tqnlp::problems
