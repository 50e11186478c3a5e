// General optimizers as peers of the subroutines: what a solver asks is counted, the lowest value
// noted with the calls that it took, and every solver stands in one list under its name.
#pragma once

#include <cmath>
#include <functional>
#include <string>
#include <vector>

#include "problems/problem.h"
#include "tqnlp/tqnlp.hpp"

namespace tqnlp::bench {

using problems::Problem;

inline constexpr long MOST_CALLS = 20000;  // of the objective in a run
inline constexpr double MOST_SECONDS = 20.0;

// Processor seconds of this process: other work of the machine does not count.
double processor_seconds();

// Counts the calls and notes every new lowest value, among points inside the bounds, with the calls
// that it took. With timed set the time in the user's functions is kept apart,
// by the clock that is set.
struct Meter {
  struct Mark {
    long points, calls;  // calls of the objective; of objective and derivatives together
    double lowest;
  };

  explicit Meter(const Problem& p, bool time_calls = false)
      : problem(p), timed(time_calls), begin(processor_seconds()) {}

  double value(const double* x);
  void gradient(const double* x, double* g);
  double both(const double* x, double* g);
  void hessian(const double* x, double* h);    // n x n
  void residuals(const double* x, double* r);  // counts as the objective
  void jacobian(const double* x, double* j);   // m x n by rows, counts as the gradient

  // Runs what is the user's own and keeps its time.
  template <typename F>
  auto charge(F f) {
    const double before = timed ? clock() : 0.0;
    auto result = f();
    if (timed) user_seconds += clock() - before;
    return result;
  }

  bool time_is_up() const { return processor_seconds() - begin > MOST_SECONDS; }
  // Shall a run end that looks between its iterations?
  bool over() const { return functions >= MOST_CALLS || lowest <= target || time_is_up(); }
  long calls() const { return functions + gradients + hessians; }

  const Problem& problem;
  double target = -HUGE_VAL;  // a run may stop below it
  long functions = 0, gradients = 0, hessians = 0;
  long iterations = 0;  // 0: the solver does not tell
  double lowest = HUGE_VAL;
  double user_seconds = 0.0, run_seconds = 0.0;
  std::vector<Mark> marks;
  std::vector<double> answer;  // the parameters that least-squares solvers hand back
  double (*clock)() = processor_seconds;

 private:
  void note(const double* x, double f);

  bool timed;
  double begin;
};

struct Solver {
  std::string name;
  std::function<bool(const Problem&)> takes;
  std::function<void(Meter&)> run;
};

// Runs a solver to its end and keeps the time.
void run(const Solver& solver, Meter& meter);

// ---- Subroutines --------------------------------------------------------------------------------

enum class Stop { by_defaults, at_the_end };

// Termination criteria: of the defaults the target alone, or the limits of the peers and tolerances
// that only rounding meets.
Matrix criteria(Stop stop, double target);

// Calls a subroutine with termination criteria tc and modules for the objective and as many
// derivatives as it takes and the problem has. A run is broken off when its time is up; a call that
// is refused solves nothing.
void run_subroutine(Meter& meter, const char* name, bool second_order, const Matrix& tc,
                    const Matrix& opt = Matrix());

// ---- Peers --------------------------------------------------------------------------------------

// Largest problems of the methods that keep dense matrices, factored in every iteration or updated.
inline constexpr long LARGEST_FACTORED = 100, LARGEST_UPDATED = 1000;

// Every peer goes on until it gives up, so that none is charged for its stopping rule.
const std::vector<Solver>& peers();
const Solver& peer(const std::string& name);

// ---- Outcomes -----------------------------------------------------------------------------------

// The minimum that a run was on its way to: of several published ones the one nearest to where it
// ended, sharpened by the lowest value that some solver found near it, since published values have
// few digits.
double minimum_for(const Meter& run, const std::vector<Meter>& runs);

// The first mark at or below a value; null: none.
const Meter::Mark* first_below(const Meter& run, double value);

}  // namespace tqnlp::bench
