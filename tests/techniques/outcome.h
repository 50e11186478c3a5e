// Runs a problem of the library through a subroutine and judges the outcome by certificates.
#pragma once

#include <functional>
#include <map>
#include <string>

#include "aasubs/record/minstr.h"
#include "problems/problem.h"
#include "tqnlp/tqnlp.hpp"

namespace tqnlp::test {

using namespace problems;

struct Outcome {
  double code = 0;
  std::vector<double> x;
  double f = 0;           // objective at x
  double infeasible = 0;  // largest violation, as the certificate has it
  bool solved = false;    // f within tolerance of a known minimum, x feasible
  // What no multipliers of the right signs, on the constraints that hold with equality at x,
  // explain of the gradient: its largest element, and the same relative to the sizes of f and x.
  double unexplained = 0, unexplained_relative = 0;
  double iterations = 0;
  long functions = 0, gradients = 0, hessians = 0;  // calls of the modules
  std::map<std::string, double> reported;           // numbers of the summary, when opt asks for one
};

// Derivative modules that a call supplies; differences stand in for the others.
enum class Modules { all, gradient, none };

// Calls the subroutine with objective, gradient and (for second-order ones) Hessian modules from
// the standard start; NLPNMS has none. With nonlinear constraints opt holds their numbers, and all
// includes the module of their Jacobian. opt and tc may be empty.
Outcome solve(const Problem& problem, const std::string& subroutine, double tolerance,
              const Matrix& opt = Matrix(), const Matrix& tc = Matrix(),
              Modules modules = Modules::all);

// Runs a technique that no subroutine selects, by its number, on a record with all derivatives and
// the default tolerances; one of least squares gets residuals and Jacobian. observe (may be empty)
// sees the record after each call of the termination test, with its job and its answer; prepare
// (may be empty) may change the record before the run.
using Observer = std::function<void(const MINSTR& record, int job, int answer)>;
using Preparation = std::function<void(MINSTR& record)>;
Outcome solve_by_number(const Problem& problem, int technique, double tolerance,
                        const Observer& observe = nullptr, const Preparation& prepare = nullptr);

// Certificates of x, and whether it is a known minimum; outcome.f is the value there.
void judge(const Problem& problem, double tolerance, Outcome& outcome);

// The matrix of bounds and linear constraints of a problem; empty when it has none.
Matrix constraint_matrix(const Problem& problem);

}  // namespace tqnlp::test
