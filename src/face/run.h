// A run of the face: the problem record, and what its callbacks need beside it.
//
// The callbacks get the record and find the run in the object around it, so that an evaluation
// costs the user's function, a look at its values and a few counts. Every function gets the arrays
// of the record themselves where the record has the user's form, and scratch of the run where it
// has another (packed Hessians, sides of constraints, points beyond a bound).
#pragma once

#include <algorithm>
#include <chrono>
#include <exception>

#include "aasubs/record/minstr.h"
#include "aasubs/setup/derivative_choice.h"
#include "face/recall.h"
#include "face/scaling.h"
#include "face/techniques.h"

namespace tqnlp::face {

// Codes of a run beside those of the library.
inline constexpr int STOPPED_BY_CALLER = Status::stopped_by_caller;

// The best feasible point that was evaluated, in the units of the user.
struct BestPoint {
  bool found = false;
  double crit = 0.0;  // as it is minimized
  std::vector<double> x;
};

// Time in the user's functions. Readings of a clock cost more than a quick function: of such ones
// a few calls first and then every 127th are timed, and stand for those before them. The distances
// are odd, so that functions that are called in turn are met alike.
class UserClock {
 public:
  void starts() {
    if (--untimed_ < 0) [[unlikely]]
      began_ = Clock::now();
  }
  void ends() {
    if (untimed_ < 0) [[unlikely]]
      add();
  }
  double seconds() const { return seconds_; }

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr double QUICK = 1e-6;  // seconds
  static constexpr long EVERY = 127;
  void add() {
    const double passed = std::chrono::duration<double>(Clock::now() - began_).count();
    seconds_ += static_cast<double>(share_) * passed;
    share_ = passed < QUICK ? std::min(2 * share_ + 1, EVERY) : 1;
    untimed_ = share_ - 1;
  }
  Clock::time_point began_;
  double seconds_ = 0.0;
  long share_ = 1;    // calls that the next timed one stands for
  long untimed_ = 0;  // calls until then; below zero while it runs
};

// What all records of one solve share: problem, counts, best point, exception.
struct Shared {
  const ProblemData& problem;
  const Constraints& constraints;
  const Options& options;
  Units units{};                // of all records
  std::vector<double> sizes{};  // of the parameters, as start and bounds show; 0: not known
  bool unit_is_open = false;    // that of the objective, until its first value is known
  Counts counts{};
  UserClock clock{};
  Recall recall{};
  BestPoint best{};
  History history{};
  std::exception_ptr thrown{};     // by a user's function, or by what Options holds
  bool interrupted = false;        // by that: from then on no function is called
  bool stopped = false;            // by Options::progress
  bool steps_without_end = false;  // the last run has warned of them
  double began = 0.0;              // clock of the host
  long calls_before = 0;           // of the objective, of runs before a restart
  long iterations_before = 0;      // of runs before a restart

  void keep_exception() {
    thrown = std::current_exception();
    interrupted = true;
  }
};

// A record with its scratch. The arrays of the record are the host's, and belong to the call.
struct Run : MINSTR {
  Shared& shared;
  const TechniqueRow& row;
  Supplied supplied;
  bool squares = false;  // the record's objective is one of residuals
  short in_differences_of_functions = 0;
  short in_differences_of_gradients = 0;
  std::vector<double> inside;    // n: x in the user's units, projected into the bounds
  std::vector<double> shown;     // n: x for the caller of progress, in his units
  std::vector<double> values;    // of the user's constraints, or residuals of a scalar record
  std::vector<double> jacobian;  // of the user's constraints, or of the residuals
  std::vector<double> second;    // elements of a Hessian as the user gives them
  std::vector<long> places;      // of a sparse Hessian's elements in hess
  std::vector<double> pending;   // n + 1: point and value that wait for their constraints
  std::vector<double> held;      // n: point at which the nonlinear constraints held last
  std::vector<const char*> names;
  std::string constraint_names;
  // One a nonlinear constraint of the record, set before the record is filled; empty: none. With
  // them the record's objective, with all its derivatives, is the Lagrangian, crit less multipliers
  // times fcon; the objective must not be one of residuals (squares).
  std::vector<double> lagrange;
  bool start_is_known = false;  // the objective was called once, at the start
  std::vector<double> start;    // n: where,
  double start_crit = 0.0;      // the value,
  int start_code = 0;           // and what it answered; residuals stand in func

  Run(Shared& s, const TechniqueRow& r);
  ~Run();
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;
};

// Fills the record for the technique of its row, takes its arrays and loads constraints and start.
// Ends the call by xexit when memory is refused.
void prepare_run(Run& run, const std::vector<double>& start);

// The same for a record that evaluates points with central differences and runs no technique.
void prepare_evaluations(Run& run, const std::vector<double>& start);

// Run::lagrange for multipliers of the user's nonlinear constraints, as a Result has them.
std::vector<double> lagrange_of(const Shared& shared, const std::vector<double>& multipliers);

// Both jobs of the driver. Returns the code of the run.
int drive(Run& run);

// Callbacks of the record (evaluate.cpp).
void set_callbacks(Run& run);

// Sizes of the parameters and the units of a solve from this start. The unit of the objective waits
// for its first value.
void choose_units(Shared& shared, const std::vector<double>& start);

// Units of the parameters by other sizes, unless the user has said his.
// Raises sizes that were taken too small.
void grow_sizes(Shared& shared, const std::vector<double>& least);

void learn_sizes(Shared& shared, const std::vector<double>& sizes);

// Units that suit a look at x: near its elements, or for one that is small beside the size of its
// parameter near that.
std::vector<double> units_near(const Shared& shared, const std::vector<double>& x);

// The unit of the objective, by its value at the start and what it is near by. True when it becomes
// another one, for which the record has to be made anew. Asks once in a solve.
bool choose_objective_unit(Run& run);

// x with the objective there, in the units of the user: is it the best feasible point so far? For
// points whose constraints are known to hold.
void offer_best(Shared& shared, const double* x, double crit);

}  // namespace tqnlp::face
