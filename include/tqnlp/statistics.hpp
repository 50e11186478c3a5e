// Statistics of a result: covariance and standard errors, confidence limits, profiles. What
// Result::covariance, limits and profile of tqnlp/optimize.hpp answer; docs/statistics.md tells
// what the numbers mean.
#pragma once

#include <cstddef>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "tqnlp/tqnlp.hpp"

namespace tqnlp {

// How an objective measures likelihood.
struct Likelihood {
  double multiple = 1.0;  // the objective is so many times log L, or -log L: 2 for -2 log L
  // Of least squares: the variance of a residual where it is known; otherwise it is estimated by
  // the sum of squares over residuals less free parameters.
  std::optional<double> residual_variance;
};

// What a covariance is formed of.
enum class Variance {
  automatic,     // of least squares the crossproduct, otherwise the Hessian
  hessian,       // inverse Hessian of the objective, with nonlinear constraints of the Lagrangian
  crossproduct,  // inverse of J'J, least squares alone
};

// Covariance of the parameters in the null space of the active constraints. A nonlinear constraint
// counts by its normal.
struct Covariance {
  enum Ending {
    known,
    not_determined,  // the matrix is singular: some parameters have no variance
    not_a_minimum,   // the Hessian has a negative eigenvalue
    no_freedom,      // no more residuals than free parameters
    all_held,        // the active constraints hold every parameter
    no_derivatives,  // they could not be had at the point
  };
  enum State {
    estimated,
    held,          // by active bounds or constraints; variance 0
    at_bound,      // the same, by its own bound: limits that use a standard error are none
    undetermined,  // can be moved without an effect on the objective
    unknown,       // there is no covariance at all
  };
  Ending ending = no_derivatives;
  Variance kind = Variance::automatic;  // what it was formed of
  std::vector<State> states;            // one a parameter
  std::vector<double> matrix;           // n x n by rows; missing where a state is undetermined
  std::vector<double> errors;           // n; standard errors, 0 where a parameter is held
  double residual_variance = missing;   // of least squares
  double freedom = missing;             // residuals less free parameters, of least squares
  long dimension = 0;                   // of the null space of the active constraints
  explicit operator bool() const { return ending == known; }
  double operator()(long i, long j) const;
  double correlation(long i, long j) const;  // missing where an error is 0 or missing
  std::string sentence() const;
};

enum class LimitKind { wald, profile };

// Confidence limits of one parameter at one level.
struct Limit {
  enum Ending {
    not_sought,  // the parameter is fixed
    found,
    at_bound,       // at its bound, or where constraints end, the data do not contradict it yet
    not_reached,    // nor as far out as the search goes: the profile levels off
    lower_point,    // a better point was met, see Limits::better: the result is no optimum
    search_failed,  // the others could not be optimized, or the profile jumps
    no_target,      // no variance to measure by: no more residuals than parameters, or no residual
    no_error,       // Wald: the parameter has no standard error
  };
  long parameter = 0;
  std::string name;
  double level = 0.95;
  double estimate = missing;
  double lower = missing;  // missing unless found
  double upper = missing;
  Ending lower_ending = not_sought;
  Ending upper_ending = not_sought;
};
const char* sentence_of(Limit::Ending ending);
// "scale  81.88  [68.5, 98.2]  95 %"
std::ostream& operator<<(std::ostream& out, const Limit& limit);

struct LimitOptions {
  LimitKind kind = LimitKind::profile;
  std::vector<double> levels = {0.95};  // each inside (0, 1)
  std::vector<long> parameters;         // empty: all
  Likelihood likelihood;
};

// The limits, parameter by parameter and level by level.
struct Limits {
  std::vector<Limit> all;
  std::vector<double> better;  // a point that is better than the result, when one was met
  double better_objective = missing;
  long optimizations = 0;
  std::vector<Table> tables;
  std::vector<LogRecord> log;
  std::size_t size() const { return all.size(); }
  const Limit& operator[](std::size_t i) const { return all[i]; }
  auto begin() const { return all.begin(); }
  auto end() const { return all.end(); }
};

// The optimum over all other parameters as a function of one, as points for a plot, ascending.
struct Profile {
  long parameter = 0;
  std::string name;
  double estimate = missing;
  std::vector<double> values;     // of the parameter
  std::vector<double> objective;  // the optimum there, as the user states it
  // Signed root of the likelihood ratio: the limits of the level stand at -quantile and quantile.
  // A straight line where the Wald limits are right.
  std::vector<double> root;
  double level = 0.0;
  double quantile = missing;
};

}  // namespace tqnlp
