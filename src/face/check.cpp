// The point of a result, evaluated afresh in a record of its own and checked. The first-order check
// and the test of curvature are services of the library.
#include "face/check.h"

#include <algorithm>
#include <cmath>

#include "aasubs/derivatives/careful.h"
#include "aasubs/post/optimality.h"
#include "aasubs/post/second_order.h"
#include "aasubs/post/stop_analysis.h"
#include "aasubs/record/packed.h"
#include "aasubs/setup/defaults.h"
#include "aasubs/setup/hessian_form.h"

namespace tqnlp::face {

static constexpr double ACTIVITY = 1e-5;  // of a side, relative to 1 + |side|
static constexpr double LARGEST_VIOLATION = 1e-6;

// What a point may promise, relative to its objective: by the gradient left over the size of a
// parameter; as the decrease of the quadratic model, where the first is too much or the model is
// known anyway.
struct Allowance {
  double promise;
  double decrease;         // where the gradient promises more
  double hidden_decrease;  // where it does not
  double step;             // to the minimum of the model, of parameters of size 1
  double decrease_of_a_short_step;
};
static constexpr Allowance BY_DERIVATIVES = {1e-3, 1e-6, 1e-4, 1e-5, 1e-2};
// The technique saw values alone.
static constexpr Allowance BY_VALUES = {1e-2, 1e-4, 1e-2, 1e-2, 1e-1};

// The matrix of a Hessian is afforded up to these orders.
static constexpr long MOST_BY_DIFFERENCES = 60;
static constexpr long MOST_BY_HESSIAN = 300;

namespace {

// The general constraints of the user, linear rows first, in the units of the record; each counted
// in a unit of its own.
struct General {
  std::vector<double> normals, values, lower, upper, units, multipliers;
};

// What is found at a point, in the units of the record.
struct Findings {
  std::vector<double> x, slopes, noise, rest, of_bounds;
  General general;
};

// The parameters are counted in units near their values while a point is looked at.
class UnitsAt {
 public:
  UnitsAt(Shared& shared, const std::vector<double>& x)
      : shared_(shared), before_(shared.units.parameter) {
    shared.units.parameter = units_near(shared, x);
  }
  ~UnitsAt() { shared_.units.parameter = std::move(before_); }
  UnitsAt(const UnitsAt&) = delete;
  UnitsAt& operator=(const UnitsAt&) = delete;

 private:
  Shared& shared_;
  std::vector<double> before_;
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

// First derivatives at x; those that are not given by differences that are right at bounds too.
static bool differentiate(Run& run, Findings& at) {
  run.ifdr = ORDER_GRADIENT;
  const bool objective = !run.supplied.gradient;
  const bool constraints = run.usnlc != nullptr && !run.supplied.constraint_jacobian;
  if (!objective && !good(run, run.usgrd)) return false;
  if (!constraints && !good(run, run.usjnc)) return false;
  at.noise.assign(static_cast<std::size_t>(run.nvar), 0.0);
  if (!objective && !constraints) return true;
  return careful_differences(&run, objective, constraints, at.noise.data()) == 0;
}

// Objective, constraints and first derivatives at x; false when one of them has no value.
static bool evaluate(Run& run, Findings& at, Result* result) {
  run.indf = AT_SOLUTION;
  run.ifdr = ORDER_FUNCTION;
  const bool value = good(run, run.usfct);
  const double crit = run.crit;
  if (value) keep_values(run, result);
  if (!value || run.tbig != 0.0) return false;
  at.x.assign(run.x, run.x + run.nvar);
  if (!differentiate(run, at)) return false;
  run.crit = crit;
  at.slopes.assign(run.grad, run.grad + run.nvar);
  return true;
}

// ---- The user's constraints ---------------------------------------------------------------------

// A side counted in a unit; absent ones at -+HUGE_VALUE.
static double side_in(double unit, double side) {
  return side_there(side) ? side / unit : std::clamp(side, -HUGE_VALUE, HUGE_VALUE);
}

static void add_rows(const Shared& shared, const std::vector<double>& x, General& general) {
  const ProblemData& problem = shared.problem;
  const auto n = static_cast<std::size_t>(problem.n);
  for (const LinearRow& row : problem.rows) {
    std::vector<double> normal(n);
    const double unit = unit_of_row(shared.units, row);
    double sum = 0.0;
    for (std::size_t k = 0; k < row.columns.size(); ++k) {
      const auto j = static_cast<std::size_t>(row.columns[k]);
      normal[j] = slope_to_record(shared.units, unit, row.columns[k], row.values[k]);
      sum += row.values[k] * x[j];
    }
    // A row that became a bound is looked at there.
    const bool is_bound = row.columns.size() <= 1;
    general.normals.insert(general.normals.end(), normal.begin(), normal.end());
    general.values.push_back(sum / unit);
    general.lower.push_back(is_bound ? -HUGE_VALUE : side_in(unit, row.lower));
    general.upper.push_back(is_bound ? HUGE_VALUE : side_in(unit, row.upper));
    general.units.push_back(unit);
  }
}

// A slope that could not be had belongs to a parameter that is fixed, where it counts for nothing.
static double finite_or_zero(double slope) { return std::isnan(slope) ? 0.0 : slope; }

// Gradients from one side of the record's form.
static void add_nonlinear(const Run& run, const std::vector<double>& values, General& general) {
  const ProblemData& problem = run.shared.problem;
  const auto n = static_cast<std::size_t>(problem.n);
  const std::size_t first = general.values.size();
  general.values.insert(general.values.end(), values.begin(), values.end());
  general.normals.resize(general.values.size() * n, 0.0);
  for (std::size_t k = 0; k < values.size(); ++k) {
    general.lower.push_back(side_in(1.0, problem.c_lower[k]));
    general.upper.push_back(side_in(1.0, problem.c_upper[k]));
    general.units.push_back(1.0);
  }
  const std::vector<OneSide>& sides = run.shared.constraints.nonlinear;
  for (std::size_t k = 0; k < sides.size(); ++k) {
    const std::size_t place = first + static_cast<std::size_t>(sides[k].source);
    for (std::size_t j = 0; j < n; ++j)
      general.normals[place * n + j] = finite_or_zero(sides[k].sign * run.jcon[k * n + j]);
  }
}

static General general_constraints(const Run& run, const Result& result) {
  General general;
  add_rows(run.shared, result.x, general);
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
static void hand_out_multipliers(const Run& run, const Findings& at, Result* result) {
  const ProblemData& problem = run.shared.problem;
  const Constraints& c = run.shared.constraints;
  const double sign = problem.maximize ? -1.0 : 1.0;
  const std::size_t rows = problem.rows.size();
  const Units& units = run.shared.units;
  Multipliers& to = result->multipliers;
  to = {at.of_bounds, {}, {}};
  for (std::size_t j = 0; j < to.bounds.size(); ++j)
    to.bounds[j] = slope_to_user(units, units.objective, static_cast<long>(j), to.bounds[j]);
  for (std::size_t i = 0; i < at.general.values.size(); ++i)
    (i < rows ? to.linear : to.nonlinear)
        .push_back(at.general.multipliers[i] * units.objective / at.general.units[i]);
  // A parameter that is fixed has no differences within its bounds.
  const bool given =
      run.supplied.gradient && (c.nonlinear.empty() || run.supplied.constraint_jacobian);
  for (std::size_t j = 0; j < to.bounds.size(); ++j) {
    const bool unknown = c.lower[j] == c.upper[j] && !given;
    if (unknown) to.bounds[j] = missing;
    const long row = to.bounds[j] > 0.0 ? c.lower_row[j] : c.upper_row[j];
    if (to.bounds[j] == 0.0 || row < 0) continue;
    const auto i = static_cast<std::size_t>(row);
    to.linear[i] = to.bounds[j] / problem.rows[i].values.front();
    if (!unknown) to.bounds[j] = 0.0;
  }
  for (auto* list : {&to.bounds, &to.linear, &to.nonlinear})
    for (double& multiplier : *list) multiplier = multiplier == 0.0 ? 0.0 : sign * multiplier;
}

static void mark_active(const Run& run, const Findings& at, Result* result) {
  const ProblemData& problem = run.shared.problem;
  const Constraints& c = run.shared.constraints;
  const Units& units = run.shared.units;
  const General& general = at.general;
  ActiveSet& active = result->active;
  active = {};
  for (std::size_t j = 0; j < c.lower.size(); ++j) {
    const double unit = units.of(static_cast<long>(j));
    active.bounds.push_back(
        active_side(at.x[j], side_in(unit, c.lower[j]), side_in(unit, c.upper[j])));
  }
  for (std::size_t i = 0; i < problem.rows.size(); ++i)
    active.linear.push_back(active_side(general.values[i],
                                        side_in(general.units[i], problem.rows[i].lower),
                                        side_in(general.units[i], problem.rows[i].upper)));
  for (std::size_t i = problem.rows.size(); i < general.values.size(); ++i)
    active.nonlinear.push_back(active_side(general.values[i], general.lower[i], general.upper[i]));
}

// ---- Optimality ---------------------------------------------------------------------------------

static const Allowance& allowance_of(const Result& result) {
  return row_of(result.technique).job == SETTINGS_SIMPLEX ? BY_VALUES : BY_DERIVATIVES;
}

// Of an objective near 0, in the record: what it was at the start, but at most 1 of the user.
static double size_of_objective(const Shared& shared) {
  const double most = 1.0 / std::max(shared.units.objective, 1.0);
  const std::vector<double>& values = shared.history.objective;
  const double start = values.empty() ? 0.0 : objective_to_record(shared.units, values[0]);
  return std::fabs(start) > TINY ? std::min(std::fabs(start), most) : most;
}

// Of a sum of squares, whose zero is its own: what is left of it, down to the rounding of what it
// was at the start. A decrease relative to it is the square of the relative offset of Bates and
// Watts (1981), Technometrics 23, but for the degrees of freedom.
static double size_of_squares(const Run& run) {
  static constexpr double ROUNDING = 1e-16;
  const std::vector<double>& values = run.shared.history.objective;
  const double start = values.empty() ? 0.0 : objective_to_record(run.shared.units, values[0]);
  return std::max(std::fabs(run.crit), ROUNDING * std::fabs(start));
}

static bool check_first_order_conditions(Run& run, Findings& at, Result* result) {
  General& general = at.general;
  std::vector<double> lower(at.x.size()), upper(at.x.size()), slopes(at.slopes);
  for (std::size_t j = 0; j < at.x.size(); ++j) {
    const double unit = run.shared.units.of(static_cast<long>(j));
    lower[j] = side_in(unit, run.shared.constraints.lower[j]);
    upper[j] = side_in(unit, run.shared.constraints.upper[j]);
    slopes[j] = finite_or_zero(slopes[j]);
  }
  at.of_bounds.resize(at.x.size());
  at.rest.resize(at.x.size());
  FirstOrder point;
  point.n = run.nvar;
  point.rows = static_cast<long>(general.values.size());
  point.x = at.x.data();
  point.crit = run.crit;
  point.size = size_of_objective(run.shared);
  point.gradient = slopes.data();
  point.noise = at.noise.data();
  point.lower = lower.data();
  point.upper = upper.data();
  point.normals = general.normals.data();
  point.values = general.values.data();
  point.row_lower = general.lower.data();
  point.row_upper = general.upper.data();
  point.activity = ACTIVITY;
  point.bound_multipliers = at.of_bounds.data();
  point.row_multipliers = general.multipliers.data();
  point.rest = at.rest.data();
  if (check_first_order(&point) != 0) return false;
  const Units& units = run.shared.units;
  Optimality& found = result->optimality;
  found.feasibility = point.violation;
  found.stationarity = 0.0;
  for (std::size_t j = 0; j < at.rest.size(); ++j)
    found.stationarity = std::max(
        found.stationarity,
        std::fabs(slope_to_user(units, units.objective, static_cast<long>(j), at.rest[j])));
  found.relative_stationarity = point.relative;
  found.complementarity = objective_to_user(units, point.complementarity);
  hand_out_multipliers(run, at, result);
  return true;
}

static bool curvature_is_affordable(const Run& run) {
  return run.nvar <= (run.supplied.hessian ? MOST_BY_HESSIAN : MOST_BY_DIFFERENCES);
}

// ---- Second order -------------------------------------------------------------------------------

// Element (j, j) of the Hessian.
static double hessian_element(const Run& run, long j) {
  const long place = hessian_place(&run, j, j);
  return place >= 0 ? run.hess[place] : 0.0;
}

// How much an objective changes over a part of the parameters' sizes, at most 1: what its value
// near 0 does not tell.
static double bend_of_objective(const Run& run) {
  static constexpr double PART = 0.01;
  double largest = 0.0;
  for (long j = 0; j < run.nvar; ++j)
    largest = std::max(largest, PART * std::fabs(hessian_element(run, j)));
  return std::min(largest, 1.0 / std::max(run.shared.units.objective, 1.0));
}

// What second derivatives say: the decrease of the model, and a direction that bends down. The
// Hessian is that of the Lagrangian where nonlinear constraints have multipliers.
static bool look_at_curvature(Run& run, const Findings& at, const Result& result,
                              SecondOrder* point) {
  run.ifdr = ORDER_HESSIAN;
  if (!good(run, run.ushes) || run.hfrm == 1) return false;
  std::vector<double> hessian(run.hess, run.hess + hessian_length(&run));
  if (run.hfrm == 2) {
    std::vector<double> packed(static_cast<std::size_t>(packed_size(run.nvar)));
    for (long j = 0; j < run.nvar; ++j)
      packed[static_cast<std::size_t>(zisub(j, j))] = hessian[static_cast<std::size_t>(j)];
    hessian = packed;
  }
  const auto n = static_cast<std::size_t>(run.nvar);
  std::vector<long> fixed(result.active.bounds.begin(), result.active.bounds.end());
  std::vector<int> active = result.active.linear;
  active.insert(active.end(), result.active.nonlinear.begin(), result.active.nonlinear.end());
  std::vector<double> normals;
  for (std::size_t i = 0; i < active.size(); ++i) {
    if (active[i] == 0) continue;
    const auto from = at.general.normals.begin() + static_cast<std::ptrdiff_t>(i * n);
    normals.insert(normals.end(), from, from + static_cast<std::ptrdiff_t>(n));
  }
  point->n = run.nvar;
  point->hessian = hessian.data();
  point->rest = at.rest.data();
  point->fixed = fixed.data();
  point->rows = static_cast<long>(normals.size() / n);
  point->normals = normals.data();
  return look_at_second_order(point) == 0;
}

// Negative curvature counts when a point near by is clearly better: along the direction, or where
// that is not followed (at x = 0, which has no size to measure a step by) around the point.
static bool find_lower_point(Run& run) {
  static constexpr double CLEARLY = 1e-8;
  static constexpr int BETTER = 0, NO_STEP = 3;
  const double before = run.crit;
  const int code = znlpdnc(&run, 1);
  if (code != BETTER && !(code == NO_STEP && znlpnoi(&run, 1) != 0)) return false;
  return run.crit < before - CLEARLY * (1.0 + std::fabs(before));
}

// The same by steps along the direction, where no general constraint is in the way.
static bool find_lower_along(Run& run, const Findings& at, const SecondOrder& found) {
  static constexpr double CLEARLY = 1e-8;
  const double before = run.crit;
  for (const double step : {1.0, -1.0, 0.1, -0.1, 0.01, -0.01}) {
    for (long j = 0; j < run.nvar; ++j)
      run.x[j] = at.x[static_cast<std::size_t>(j)] + step * found.direction[j];
    if (good(run, run.usfct) && run.crit < before - CLEARLY * (1.0 + std::fabs(before)))
      return true;
  }
  return false;
}

// With multipliers of nonlinear constraints no single function must become lower: the direction is
// taken as it is, and the run from a point along it finds back to the constraints.
static void step_along(Run& run, const Findings& at, const std::vector<double>& direction) {
  static constexpr double STEP = 0.01;
  for (long j = 0; j < run.nvar; ++j) {
    const auto place = static_cast<std::size_t>(j);
    run.x[j] = at.x[place] + STEP * direction[place];
  }
}

static void advise(Run& run, const Findings& at, const SecondOrder& found, bool of_lagrangian,
                   Result* result, Advice* advice) {
  const Units& units = run.shared.units;
  for (long j = 0; j < run.nvar; ++j) {
    const double bend = hessian_element(run, j);
    const double size = bend > 0.0 ? std::sqrt(std::max(std::fabs(run.crit), 1.0) / bend) : 0.0;
    advice->sizes.push_back(size * units.of(j));
  }
  if (!found.bends_down || result->optimality.verdict != Optimality::optimal) return;
  if (of_lagrangian)
    step_along(run, at, std::vector<double>(found.direction, found.direction + run.nvar));
  else if (!find_lower_point(run) &&
           !(run.shared.problem.rows.empty() && find_lower_along(run, at, found)))
    return;
  result->optimality.verdict = Optimality::negative_curvature;
  advice->better.resize(at.x.size());
  point_to_user(units, run.nvar, run.x, advice->better.data());
}

// What the model of second order promises beside the gradient decides, where it is known.
static void judge_by_curvature(Run& run, const Findings& at, Look look, Result* result,
                               Advice* advice) {
  const ProblemData& problem = run.shared.problem;
  Optimality& found = result->optimality;
  const Allowance& allowance = allowance_of(*result);
  const bool in_doubt = found.verdict == Optimality::not_stationary;
  if (found.verdict == Optimality::not_feasible || look == Look::first_order) return;
  if ((look == Look::if_in_doubt && !in_doubt) || !curvature_is_affordable(run)) return;
  Run lagrangian(run.shared, run.row);
  lagrangian.lagrange = lagrange_of(run.shared, result->multipliers.nonlinear);
  const bool curved = std::ranges::any_of(lagrangian.lagrange, [](double l) { return l != 0.0; });
  Run& record = curved ? lagrangian : run;
  if (curved) {
    prepare_evaluations(lagrangian, result->x);
    if (!good(lagrangian, lagrangian.usfct)) return;
  }
  std::vector<double> direction(at.x.size());
  SecondOrder point;
  point.direction = direction.data();
  if (!look_at_curvature(record, at, *result, &point)) return;
  found.curvature_known = true;
  const bool squares = problem.kind == Kind::least_squares;
  const double bend = bend_of_objective(record);
  const double size = squares
                          ? size_of_squares(run)
                          : std::max({std::fabs(run.crit), size_of_objective(run.shared), bend});
  const double most = in_doubt || squares ? allowance.decrease : allowance.hidden_decrease;
  // A step may look short for a parameter that is counted in too large a unit.
  const bool short_step =
      point.step <= allowance.step && point.decrease <= allowance.decrease_of_a_short_step * size;
  const bool stationary = point.decrease <= most * size || short_step;
  found.verdict = stationary ? Optimality::optimal : Optimality::not_stationary;
  advise(record, at, point, curved, result, advice);
}

// A parameter that was small at the start is counted in a small unit, in which neither the gradient
// nor differences see a minimum that is far beyond: points up to the user's unit away show it.
static void probe_beyond_small_units(Run& run, const Findings& at, Result* result, Advice* advice) {
  static constexpr double SMALL = 1e-2;
  static constexpr double STEPS[] = {1.0, 3e-2, 1e-3, 3e-5, 1e-6};
  static constexpr int MOST_PARAMETERS = 10;
  const Units& units = run.shared.units;
  const double before = run.crit;
  const double most = allowance_of(*result).hidden_decrease;
  const double size = std::max(std::fabs(before), size_of_objective(run.shared));
  int probed = 0;
  std::vector<double> least(at.x.size());
  for (long j = 0; j < run.nvar && probed < MOST_PARAMETERS; ++j) {
    const auto place = static_cast<std::size_t>(j);
    if (units.of(j) > SMALL || result->active.bounds[place] != 0) continue;
    ++probed;
    for (const double step : STEPS) {
      if (step <= units.of(j) || least[place] != 0.0) break;
      for (const double side : {-step, step}) {
        run.x[j] = at.x[place] + side / units.of(j);
        if (good(run, run.usfct) && run.crit < before - most * size) least[place] = step;
      }
    }
    run.x[j] = at.x[place];
  }
  run.crit = before;
  if (std::ranges::all_of(least, [](double one) { return one == 0.0; })) return;
  result->optimality.verdict = Optimality::not_stationary;
  advice->better.clear();
  advice->least = std::move(least);
}

static void judge_by_gradient(Result* result) {
  Optimality& found = result->optimality;
  const double most = allowance_of(*result).promise;
  found.verdict = !(found.feasibility <= LARGEST_VIOLATION) ? Optimality::not_feasible
                  : found.relative_stationarity <= most     ? Optimality::optimal
                                                            : Optimality::not_stationary;
}

void check_point(Shared& shared, Look look, Result* result, Advice* advice) {
  const ProblemData& problem = shared.problem;
  const UnitsAt near_point(shared, result->x);
  const Units& units = shared.units;
  const bool small = problem.n <= MOST_BY_HESSIAN && look != Look::first_order;
  Run run(shared, row_of(small ? Technique::trust_region : Technique::conjugate_gradient));
  prepare_evaluations(run, result->x);
  const auto n = static_cast<std::size_t>(problem.n);
  const double sign = problem.maximize ? -1.0 : 1.0;
  result->gradient.assign(n, missing);
  result->optimality.verdict = Optimality::not_known;
  result->optimality.curvature_known = false;
  Findings at;
  const bool known = evaluate(run, at, result);
  if (run.crit < HUGE_VALUE) result->objective = sign * objective_to_user(units, run.crit);
  if (!known) return;
  for (std::size_t j = 0; j < n; ++j)
    result->gradient[j] =
        sign * slope_to_user(units, units.objective, static_cast<long>(j), at.slopes[j]);
  at.general = general_constraints(run, *result);
  result->linear.clear();
  for (std::size_t i = 0; i < problem.rows.size(); ++i)
    result->linear.push_back(at.general.values[i] * at.general.units[i]);
  mark_active(run, at, result);
  if (!check_first_order_conditions(run, at, result)) return;
  judge_by_gradient(result);
  judge_by_curvature(run, at, look, result, advice);
  const bool passes = result->optimality.verdict == Optimality::optimal;
  const bool free = problem.rows.empty() && problem.c_lower.empty();
  if (passes && look == Look::second_order && free && shared.options.scale.empty())
    probe_beyond_small_units(run, at, result, advice);
}

}  // namespace tqnlp::face
