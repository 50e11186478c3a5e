// The point of a result, evaluated afresh in a record of its own and checked. The first-order check
// and the test of curvature are services of the library.
#include "face/check.h"

#include <algorithm>
#include <cmath>

#include "aasubs/post/optimality.h"
#include "aasubs/post/stop_analysis.h"
#include "aasubs/setup/defaults.h"

namespace tqnlp::face {

static constexpr double ACTIVITY = 1e-5;  // of a side, relative to 1 + |side|
static constexpr double LARGEST_VIOLATION = 1e-6;
static constexpr double LARGEST_PROMISE = 1e-3;  // of what is left of the gradient; relative
static constexpr double LARGEST_PROMISE_OF_VALUES = 1e-2;  // where the technique saw values alone

// The matrix of a Hessian is afforded up to these orders.
static constexpr long MOST_BY_DIFFERENCES = 60;
static constexpr long MOST_BY_HESSIAN = 300;

namespace {

// The general constraints of the user, linear rows first.
struct General {
  std::vector<double> normals, values, lower, upper, multipliers;
};

}  // namespace

static bool good(Run& run, Callback callback) {
  return callback == nullptr || (callback(&run) == 0 && run.tbig == 0.0);
}

// Residuals and constraints as the user gives them, kept before differences call again.
static void keep_values(Run& run, Result* result) {
  const ProblemData& problem = run.shared.problem;
  const Constraints& c = run.shared.constraints;
  const double* values = run.values.data();
  if (problem.kind == Kind::least_squares) result->residuals.assign(values, values + problem.m);
  result->constraints.assign(problem.c_lower.size(), missing);
  if (run.usnlc == nullptr || !good(run, run.usnlc)) return;
  std::copy_n(c.as_given ? run.fcon : values, problem.c_lower.size(), result->constraints.begin());
}

// Objective, constraints and first derivatives at x; false when one of them has no value.
static bool evaluate(Run& run, Result* result) {
  run.indf = AT_SOLUTION;
  run.ifdr = ORDER_FUNCTION;
  const bool value = good(run, run.usfct);
  if (value) keep_values(run, result);
  if (!value || run.tbig != 0.0) return false;
  run.ifdr = ORDER_GRADIENT;
  return good(run, run.usgrd) && good(run, run.usjnc);
}

// ---- The user's constraints ---------------------------------------------------------------------

static double clipped(double side) { return std::clamp(side, -HUGE_VALUE, HUGE_VALUE); }

static void add_rows(const ProblemData& problem, const std::vector<double>& x, General& general) {
  const auto n = static_cast<std::size_t>(problem.n);
  for (const LinearRow& row : problem.rows) {
    std::vector<double> normal(n);
    double sum = 0.0;
    for (std::size_t k = 0; k < row.columns.size(); ++k) {
      const auto j = static_cast<std::size_t>(row.columns[k]);
      normal[j] = row.values[k];
      sum += row.values[k] * x[j];
    }
    // A row that became a bound is looked at there.
    const bool is_bound = row.columns.size() <= 1;
    general.normals.insert(general.normals.end(), normal.begin(), normal.end());
    general.values.push_back(sum);
    general.lower.push_back(is_bound ? -HUGE_VALUE : clipped(row.lower));
    general.upper.push_back(is_bound ? HUGE_VALUE : clipped(row.upper));
  }
}

// Gradients as the user gives them, from one side of the record's form.
static void add_nonlinear(const Run& run, const std::vector<double>& values, General& general) {
  const ProblemData& problem = run.shared.problem;
  const auto n = static_cast<std::size_t>(problem.n);
  const std::size_t first = general.values.size();
  general.values.insert(general.values.end(), values.begin(), values.end());
  general.normals.resize(general.values.size() * n, 0.0);
  for (std::size_t k = 0; k < values.size(); ++k) {
    general.lower.push_back(clipped(problem.c_lower[k]));
    general.upper.push_back(clipped(problem.c_upper[k]));
  }
  const std::vector<OneSide>& sides = run.shared.constraints.nonlinear;
  for (std::size_t k = 0; k < sides.size(); ++k) {
    const std::size_t place = first + static_cast<std::size_t>(sides[k].source);
    for (std::size_t j = 0; j < n; ++j)
      general.normals[place * n + j] = slope_to_user(run.shared.units, 1.0, static_cast<long>(j),
                                                     sides[k].sign * run.jcon[k * n + j]);
  }
}

static General general_constraints(const Run& run, const Result& result) {
  General general;
  add_rows(run.shared.problem, result.x, general);
  add_nonlinear(run, result.constraints, general);
  general.multipliers.resize(general.values.size());
  return general;
}

// ---- Active sides and multipliers ---------------------------------------------------------------

static int active_side(double value, double lower, double upper) {
  const bool below = lower_exists(lower) && value - lower <= ACTIVITY * (1.0 + std::fabs(lower));
  const bool above = upper_exists(upper) && upper - value <= ACTIVITY * (1.0 + std::fabs(upper));
  return below && above ? 2 : below ? -1 : above ? 1 : 0;
}

// In the sign of the user's objective. The multiplier of a bound that a row set belongs to the row.
static void hand_out_multipliers(const Run& run, const General& general,
                                 const std::vector<double>& of_bounds, Result* result) {
  const ProblemData& problem = run.shared.problem;
  const Constraints& c = run.shared.constraints;
  const double sign = problem.maximize ? -1.0 : 1.0;
  const std::size_t rows = problem.rows.size();
  Multipliers& to = result->multipliers;
  to.bounds = of_bounds;
  to.linear.assign(general.multipliers.begin(),
                   general.multipliers.begin() + static_cast<std::ptrdiff_t>(rows));
  to.nonlinear.assign(general.multipliers.begin() + static_cast<std::ptrdiff_t>(rows),
                      general.multipliers.end());
  for (std::size_t j = 0; j < to.bounds.size(); ++j) {
    const long row = to.bounds[j] > 0.0 ? c.lower_row[j] : c.upper_row[j];
    if (to.bounds[j] == 0.0 || row < 0) continue;
    const auto i = static_cast<std::size_t>(row);
    to.linear[i] = to.bounds[j] / problem.rows[i].values.front();
    to.bounds[j] = 0.0;
  }
  // A parameter that is fixed has no differences within its bounds.
  for (std::size_t j = 0; j < to.bounds.size() && !run.supplied.gradient; ++j)
    if (c.lower[j] == c.upper[j]) to.bounds[j] = missing;
  for (auto* list : {&to.bounds, &to.linear, &to.nonlinear})
    for (double& multiplier : *list) multiplier = multiplier == 0.0 ? 0.0 : sign * multiplier;
}

static void mark_active(const ProblemData& problem, const Constraints& c, Result* result) {
  ActiveSet& active = result->active;
  active = {};
  for (std::size_t j = 0; j < c.lower.size(); ++j)
    active.bounds.push_back(active_side(result->x[j], c.lower[j], c.upper[j]));
  for (std::size_t i = 0; i < problem.rows.size(); ++i)
    active.linear.push_back(active_side(result->linear[i], clipped(problem.rows[i].lower),
                                        clipped(problem.rows[i].upper)));
  for (std::size_t k = 0; k < problem.c_lower.size(); ++k)
    active.nonlinear.push_back(active_side(result->constraints[k], clipped(problem.c_lower[k]),
                                           clipped(problem.c_upper[k])));
}

// ---- Optimality ---------------------------------------------------------------------------------

static Optimality::Verdict first_order_verdict(const Optimality& found, bool by_values) {
  if (!(found.feasibility <= LARGEST_VIOLATION)) return Optimality::not_feasible;
  const double largest = by_values ? LARGEST_PROMISE_OF_VALUES : LARGEST_PROMISE;
  const bool stationary = found.relative_stationarity <= largest;
  return stationary ? Optimality::optimal : Optimality::not_stationary;
}

static void check_first_order_conditions(Run& run, General& general, Result* result) {
  const Constraints& c = run.shared.constraints;
  std::vector<double> of_bounds(result->x.size()), slopes(result->gradient);
  if (run.imax != 0)
    for (double& slope : slopes) slope = -slope;
  FirstOrder point;
  point.n = run.nvar;
  point.rows = static_cast<long>(general.values.size());
  point.x = result->x.data();
  point.crit = objective_to_user(run.shared.units, run.crit);
  point.gradient = slopes.data();
  point.lower = c.lower.data();
  point.upper = c.upper.data();
  point.normals = general.normals.data();
  point.values = general.values.data();
  point.row_lower = general.lower.data();
  point.row_upper = general.upper.data();
  point.activity = ACTIVITY;
  point.bound_multipliers = of_bounds.data();
  point.row_multipliers = general.multipliers.data();
  if (check_first_order(&point) != 0) return;
  Optimality& found = result->optimality;
  found.feasibility = point.violation;
  found.stationarity = point.stationarity;
  found.relative_stationarity = point.relative;
  found.complementarity = point.complementarity;
  found.verdict = first_order_verdict(found, row_of(result->technique).job == SETTINGS_SIMPLEX);
  hand_out_multipliers(run, general, of_bounds, result);
}

// Negative curvature counts when a point near by is clearly better: along the direction, or where
// that is not followed (at x = 0, which has no size to measure a step by) around the point. With
// nonlinear constraints the curvature is that of the Lagrangian, which no service forms.
static void check_curvature(Run& run, Result* result, std::vector<double>* better) {
  static constexpr double CLEARLY = 1e-8;
  static constexpr int SEMIDEFINITE = 1, DEFINITE = 2, NO_STEP = 3;
  const double before = run.crit;
  const int code = znlpdnc(&run, 1);
  result->optimality.curvature_known = code >= 0;
  if (code < 0 || code == SEMIDEFINITE || code == DEFINITE) return;
  if (code == NO_STEP && znlpnoi(&run, 1) == 0) return;
  if (!(run.crit < before - CLEARLY * (1.0 + std::fabs(before)))) return;
  result->optimality.verdict = Optimality::negative_curvature;
  better->resize(static_cast<std::size_t>(run.nvar));
  point_to_user(run.shared.units, run.nvar, run.x, better->data());
}

static bool curvature_is_affordable(const Run& run) {
  const ProblemData& problem = run.shared.problem;
  if (!run.shared.constraints.nonlinear.empty()) return false;
  return problem.n <= (run.supplied.hessian ? MOST_BY_HESSIAN : MOST_BY_DIFFERENCES);
}

void check_point(Shared& shared, bool curvature, Result* result, std::vector<double>* better) {
  const ProblemData& problem = shared.problem;
  const bool small = problem.n <= MOST_BY_HESSIAN;
  Run run(shared,
          row_of(curvature && small ? Technique::trust_region : Technique::conjugate_gradient));
  prepare_evaluations(run, result->x);
  const auto n = static_cast<std::size_t>(problem.n);
  const double sign = problem.maximize ? -1.0 : 1.0;
  result->gradient.assign(n, missing);
  result->optimality.verdict = Optimality::not_known;
  const bool known = evaluate(run, result);
  const Units& units = shared.units;
  if (run.crit < HUGE_VALUE) result->objective = sign * objective_to_user(units, run.crit);
  if (!known) return;
  for (std::size_t j = 0; j < n; ++j)
    result->gradient[j] =
        sign * slope_to_user(units, units.objective, static_cast<long>(j), run.grad[j]);
  General general = general_constraints(run, *result);
  const auto rows = static_cast<std::ptrdiff_t>(problem.rows.size());
  result->linear.assign(general.values.begin(), general.values.begin() + rows);
  mark_active(problem, shared.constraints, result);
  check_first_order_conditions(run, general, result);
  const bool optimal = result->optimality.verdict == Optimality::optimal;
  if (curvature && optimal && curvature_is_affordable(run)) check_curvature(run, result, better);
}

}  // namespace tqnlp::face
