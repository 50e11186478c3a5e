// Solvers of constrained problems behind one face: the subroutines, NLopt, Ipopt and GSL's simplex.
// What a solver asks is counted, and the first point that solves the problem is noted with the
// calls that it took; where it ends is judged by the certificate and not by its own word.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "problems/certificate.h"
#include "problems/problem.h"

namespace tqnlp::bench {

using problems::Certificate;
using problems::Problem;

inline constexpr long MOST_POINTS = 20000;  // values of the objective in a run
inline constexpr double MOST_SECONDS_OF_RUN = 20.0;
inline constexpr double SOLVED = 1e-6;  // violation; relative distance from the minimum

// Counts what a solver asks. Values of objective and constraints at a point count once, whoever
// asks for them first, and so do gradient and Jacobian, and a Hessian of the Lagrangian.
class Counted {
 public:
  explicit Counted(const Problem& p, bool timed = false) : problem(p), x(p.start), timed_(timed) {}

  double value(const double* at);
  void gradient(const double* at, double* g);
  void constraints(const double* at, double* c);          // the nonlinear ones
  void constraint_jacobian(const double* at, double* j);  // by rows
  // Of weight * f + sum of multipliers_i c_i: the packed lower triangle.
  void lagrangian(const double* at, double weight, const double* multipliers, double* packed);

  long functions = 0, gradients = 0;
  long constraint_values = 0, jacobians = 0;
  long hessians = 0;
  long iterations = 0;          // 0: the solver does not tell
  long points() const;          // where values were asked for
  long calls() const;           // points, gradients and Hessians
  long calls_until_solved = 0;  // 0: never
  bool claimed = false;         // the solver's own word for its success
  bool refused = false;         // the call, so that there was no run
  double user_seconds = 0.0, run_seconds = 0.0;
  const Problem& problem;
  std::vector<double> x;  // where the run ended

 private:
  template <typename F>
  void charge(F f);
  bool timed_;
};

struct ConstrainedSolver {
  std::string name;
  std::function<bool(const Problem&)> takes;
  // iterations: about how many, for measurements of time; 0: to the end.
  std::function<void(Counted&, long iterations)> run;
};

// The subroutines; those named _defaults stop by their defaults, the others when only rounding
// is left to gain.
const std::vector<ConstrainedSolver>& constrained_subroutines();
// Peers go on until they give up.
const std::vector<ConstrainedSolver>& constrained_peers();

void run(const ConstrainedSolver& solver, Counted& counted, long iterations = 0);

struct Verdict {
  bool solved = false;  // feasible, and no higher than the lowest minimum
  bool local = false;   // another listed minimum
  bool wrong = false;   // claimed; neither of these, and the certificate does not hold
  Certificate certificate;
};
Verdict judge(const Counted& counted);

// Is f at a minimum, relative to its size?
bool reaches(double f, double minimum);

}  // namespace tqnlp::bench
