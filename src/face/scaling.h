// The units of a record. A record may count parameters, objective and residuals in units of its
// own, powers of two, so that all are of moderate size there and no conversion rounds:
//
//   parameter j of the user  = parameter[j] * x[j] of the record
//   objective, as minimized  = objective * crit
//   residual                 = residual * func,   objective = residual^2
//
// so that a derivative by parameters has the quotients of these units. Values of nonlinear
// constraints are the user's own. The callbacks of a record and what loads it convert on the way
// in; whoever reads a record converts on the way out, by the functions of this page. The user's
// functions and everything in a Result are in the units of the user.
#pragma once

#include <vector>

#include "face/constraints.h"

namespace tqnlp::face {

struct Units {
  std::vector<double> parameter;  // n; empty: all 1
  double objective = 1.0;
  double residual = 1.0;

  double of(long j) const {
    return parameter.empty() ? 1.0 : parameter[static_cast<std::size_t>(j)];
  }
  bool are_own() const { return !parameter.empty() || objective != 1.0; }
};

// A point of a record, or of a user, in the units of the other; to may be x.
inline void point_to_user(const Units& units, long n, const double* x, double* to) {
  for (long j = 0; j < n; ++j) to[j] = x[j] * units.of(j);
}
inline void point_to_record(const Units& units, long n, const double* x, double* to) {
  for (long j = 0; j < n; ++j) to[j] = x[j] / units.of(j);
}

// An objective in the units of the user, and in those of the record.
inline double objective_to_user(const Units& units, double crit) { return crit * units.objective; }
inline double objective_to_record(const Units& units, double f) { return f / units.objective; }

// The derivative by parameter j of a value that is counted in unit: the objective's, a residual's,
// or 1 for a constraint; and the second derivative by parameters i and j.
inline double slope_to_user(const Units& units, double unit, long j, double slope) {
  return slope * unit / units.of(j);
}
inline double slope_to_record(const Units& units, double unit, long j, double slope) {
  return slope * units.of(j) / unit;
}
inline double curvature_to_user(const Units& units, double unit, long i, long j, double h) {
  return h * unit / units.of(i) / units.of(j);
}
inline double curvature_to_record(const Units& units, double unit, long i, long j, double h) {
  return h * units.of(i) * units.of(j) / unit;
}

// The power of two that is nearest to a size above 0, on a scale of logarithms.
double power_of_two(double size);

// rows x n derivatives of values that are counted in unit, by rows, from the user to the record.
void slopes_to_record(const Units& units, double unit, long rows, long n, double* values);

// The numbers of a report's tables that are a parameter's (point, bounds, gradient) or the
// objective's. Its lines went out before, and other tables stay, in the units of the record.
void estimates_to_user(const Units& units, std::span<Table> tables);

// ---- Choice; what belongs to a run stands in face/run.h -----------------------------------------

// Throws std::invalid_argument when the sizes that the user gives are not one a parameter.
void check_scale(const ProblemData& problem, const Options& options);

// Of a run with other units, a row is counted in a unit of its own, so that its largest coefficient
// is of moderate size; else 1.
double unit_of_row(const Units& units, const LinearRow& row);

}  // namespace tqnlp::face
