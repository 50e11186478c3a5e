// The covariance of a result: derivatives evaluated afresh at its point, on a task of its own. The
// inverse in the null space of constraints is a service of the library.
#include "aasubs/post/covariance.h"

#include <algorithm>
#include <cmath>
#include <new>

#include "aasubs/derivatives/znlpfid.h"
#include "aasubs/record/packed.h"
#include "aasubs/setup/defaults.h"
#include "aasubs/setup/hessian_form.h"
#include "face/check.h"
#include "face/statistics.h"
#include "face/task_scope.h"
#include "kernels/vector.h"

namespace tqnlp::face {

namespace {

// What a covariance is formed of, in the units of the user.
struct Curvature {
  std::vector<double> hess;      // packed; of a minimization
  std::vector<double> jacobian;  // m x n; of the residuals
  std::vector<double> normals;   // of the active constraints, by rows
  bool exact = false;            // not by differences
};

}  // namespace

// Techniques with derivatives put a parameter on its bound, so that one that is merely near is
// free; of the others the multiplier tells.
static bool is_held(const Result& result, const Constraints& c, std::size_t j) {
  static constexpr double AT_SIDE = 1e-12;
  const double x = result.x[j];
  const double gap = std::min(std::fabs(x - c.lower[j]), std::fabs(c.upper[j] - x));
  const bool on_side = gap <= AT_SIDE * (1.0 + std::fabs(x));
  const bool exact = row_of(result.technique).job != SETTINGS_SIMPLEX;
  const long row = std::max(c.lower_row[j], c.upper_row[j]);
  const double of_row = row >= 0 ? result.multipliers.linear[static_cast<std::size_t>(row)] : 0.0;
  const bool pressed = result.multipliers.bounds[j] != 0.0 || of_row != 0.0;  // also missing
  return on_side || (!exact && pressed);
}

// Leaves only the bounds that hold their parameters active.
static void drop_idle_bounds(const Constraints& c, Result& result) {
  for (std::size_t j = 0; j < c.lower.size(); ++j)
    if (!is_held(result, c, j)) result.active.bounds[j] = 0;
}

// A held parameter stays where it is: nothing is to be evaluated beside it.
static Constraints with_active_bounds(const ProblemData& problem, const Result& result) {
  Constraints c = normalize(problem);
  for (std::size_t j = 0; j < c.lower.size(); ++j) {
    if (result.active.bounds[j] == 0) continue;
    c.lower[j] = c.upper[j] = result.x[j];
    c.bounds = true;
  }
  return c;
}

static bool good(Run& run, Callback callback) {
  return callback == nullptr || (callback(&run) == 0 && run.tbig == 0.0);
}

static void add_normals(const Run& run, const Result& result, Curvature& curvature) {
  const ProblemData& problem = run.shared.problem;
  const auto n = static_cast<std::size_t>(problem.n);
  const auto unit = [&](std::size_t j) {
    std::vector<double> row(n);
    row[j] = 1.0;
    return row;
  };
  const auto add = [&](const std::vector<double>& row) {
    curvature.normals.insert(curvature.normals.end(), row.begin(), row.end());
  };
  for (std::size_t j = 0; j < n; ++j)
    if (result.active.bounds[j] != 0) add(unit(j));
  for (std::size_t i = 0; i < problem.rows.size(); ++i) {
    if (result.active.linear[i] == 0 || problem.rows[i].columns.size() < 2) continue;
    std::vector<double> row(n);
    for (std::size_t k = 0; k < problem.rows[i].columns.size(); ++k)
      row[static_cast<std::size_t>(problem.rows[i].columns[k])] = problem.rows[i].values[k];
    add(row);
  }
  std::vector<bool> taken(problem.c_lower.size());
  const std::vector<OneSide>& sides = run.shared.constraints.nonlinear;
  for (std::size_t k = 0; k < sides.size(); ++k) {
    const auto source = static_cast<std::size_t>(sides[k].source);
    if (result.active.nonlinear[source] == 0 || taken[source]) continue;
    taken[source] = true;
    std::vector<double> row(run.jcon + k * n, run.jcon + (k + 1) * n);
    for (std::size_t j = 0; j < n; ++j)
      row[j] = slope_to_user(run.shared.units, 1.0, static_cast<long>(j), row[j]);
    add(row);
  }
}

static bool take_jacobian(Run& run, Curvature& curvature) {
  if (!good(run, run.usjac)) return false;
  const Units& units = run.shared.units;
  std::vector<double>& jacobian = curvature.jacobian;
  jacobian.resize(static_cast<std::size_t>(run.mequ * run.nvar));
  if (znlpjrd(&run, jacobian.data()) != 0) return false;
  for (std::size_t k = 0; k < jacobian.size(); ++k)
    jacobian[k] =
        slope_to_user(units, units.residual, static_cast<long>(k) % run.nvar, jacobian[k]);
  curvature.exact = run.supplied.gradient;
  return all_finite(static_cast<long>(jacobian.size()), jacobian.data());
}

static bool take_hessian(Run& run, Curvature& curvature) {
  if (!good(run, run.ushes)) return false;
  const Units& units = run.shared.units;
  for (long i = 0; i < run.nvar; ++i) {
    for (long j = 0; j <= i; ++j) {
      const long place = hessian_place(&run, i, j);
      const double h = place < 0 ? 0.0 : run.hess[place];
      curvature.hess.push_back(curvature_to_user(units, units.objective, i, j, h));
    }
  }
  curvature.exact = run.supplied.hessian;
  return all_finite(static_cast<long>(curvature.hess.size()), curvature.hess.data());
}

// Evaluates at the point of the result; false when something has no value.
static bool evaluate_curvature(Shared& shared, const Result& result, Variance kind,
                               Curvature& curvature) {
  const bool squares = kind == Variance::crossproduct;
  const std::vector<double>& multipliers = result.multipliers.nonlinear;
  const bool curved = std::ranges::any_of(multipliers, [](double l) { return l != 0.0; });
  Run run(shared, row_of(squares ? Technique::levenberg_marquardt : Technique::trust_region));
  if (curved && !squares) run.lagrange = lagrange_of(shared, multipliers);
  prepare_evaluations(run, result.x);
  run.indf = AT_SOLUTION;
  run.ifdr = ORDER_FUNCTION;
  if (!good(run, run.usfct) || !good(run, run.usnlc)) return false;
  run.ifdr = ORDER_GRADIENT;
  if (!good(run, run.usjnc)) return false;
  add_normals(run, result, curvature);
  return squares ? take_jacobian(run, curvature) : take_hessian(run, curvature);
}

// ---- From curvature to covariance ---------------------------------------------------------------

// Relative errors of derivatives: of given ones rounding, otherwise those of differences.
static constexpr double NOISE_GIVEN = 1e-13;
static constexpr double NOISE_OF_DIFFERENCES = 1e-9;
static constexpr double NOISE_OF_VALUES = 1e-6;  // a Hessian of values alone

static double noise_of(const ProblemData& problem, const Curvature& curvature) {
  if (curvature.exact) return NOISE_GIVEN;
  const bool by_values = curvature.jacobian.empty() && problem.gradient == nullptr;
  return by_values ? NOISE_OF_VALUES : NOISE_OF_DIFFERENCES;
}

static void set_states(const Result& result, const std::vector<int>& states, Covariance& to) {
  const std::size_t n = states.size();
  to.states.assign(n, Covariance::estimated);
  for (std::size_t j = 0; j < n; ++j) {
    if (states[j] == COVARIANCE_HELD)
      to.states[j] = result.active.bounds[j] != 0 ? Covariance::at_bound : Covariance::held;
    if (states[j] == COVARIANCE_NOT_DETERMINED) to.states[j] = Covariance::undetermined;
  }
}

static void scale_matrix(double factor, Covariance& to) {
  const std::size_t n = to.states.size();
  const auto known = [&](std::size_t j) { return to.states[j] != Covariance::undetermined; };
  for (std::size_t i = 0; i < n; ++i) {
    for (std::size_t j = 0; j < n; ++j) {
      double& element = to.matrix[i * n + j];
      const bool held = to.states[i] == Covariance::held || to.states[i] == Covariance::at_bound ||
                        to.states[j] == Covariance::held || to.states[j] == Covariance::at_bound;
      element = held ? 0.0 : known(i) && known(j) ? factor * element : missing;
    }
    to.errors[i] = std::sqrt(to.matrix[i * n + i]);
  }
}

static void set_unknown(std::size_t n, Covariance::Ending ending, Covariance& to) {
  to.ending = ending;
  to.states.assign(n, Covariance::unknown);
  to.matrix.assign(n * n, missing);
  to.errors.assign(n, missing);
}

// Variance of a residual, known or estimated; missing without freedom.
static void set_variance(const Result& result, const Likelihood& likelihood, long rank,
                         Covariance& to) {
  to.freedom = static_cast<double>(result.residuals.size()) - static_cast<double>(rank);
  if (likelihood.residual_variance.has_value())
    to.residual_variance = *likelihood.residual_variance;
  else
    to.residual_variance = to.freedom > 0.0 ? 2.0 * result.objective / to.freedom : missing;
}

static void set_covariance(const Result& result, const ProblemData& problem,
                           const Likelihood& likelihood, const Curvature& curvature,
                           Covariance& to) {
  const std::size_t n = result.x.size();
  std::vector<int> states(n);
  to.matrix.resize(n * n);
  to.errors.resize(n);
  NullSpaceCovariance space;
  space.n = problem.n;
  space.rows = static_cast<long>(curvature.normals.size() / n);
  space.normals = curvature.normals.data();
  space.hess = curvature.hess.empty() ? nullptr : curvature.hess.data();
  space.jacobian = curvature.jacobian.data();
  space.m = static_cast<long>(curvature.jacobian.size() / n);
  space.noise = noise_of(problem, curvature);
  space.covariance = to.matrix.data();
  space.state = states.data();
  if (null_space_covariance(&space) != 0) throw std::bad_alloc();
  if (space.negative > 0) return set_unknown(n, Covariance::not_a_minimum, to);
  const bool squares = problem.kind == Kind::least_squares;
  if (squares) set_variance(result, likelihood, space.rank, to);
  if (squares && wzmis(to.residual_variance)) return set_unknown(n, Covariance::no_freedom, to);
  set_states(result, states, to);
  scale_matrix(squares ? to.residual_variance : likelihood.multiple, to);
  to.dimension = space.dimension;
  to.ending = space.dimension == 0           ? Covariance::all_held
              : space.rank < space.dimension ? Covariance::not_determined
                                             : Covariance::known;
}

static Variance kind_of(const ProblemData& problem, Variance asked) {
  const bool squares = problem.kind == Kind::least_squares;
  if (asked < Variance::automatic || asked > Variance::crossproduct)
    refuse("Variance", "a number that is none of them", "one of Variance");
  if (asked == Variance::crossproduct && !squares)
    refuse("Variance", "crossproduct for an objective without residuals", "hessian, or automatic");
  if (asked != Variance::automatic) return asked;
  return squares ? Variance::crossproduct : Variance::hessian;
}

// The Jacobian of the residuals at the point of the result.
std::vector<double> jacobian_of(const Result& result) {
  const Origin& origin = origin_of(result);
  const ProblemData& problem = origin.problem.data();
  if (problem.kind != Kind::least_squares)
    refuse("jacobian", "a problem without residuals", "least squares");
  const Constraints constraints = normalize(problem);
  Shared shared{problem, constraints, origin.options};
  shared.units = origin.units;
  Curvature curvature;
  bool known = false;
  embed::Task task;
  std::vector<LogRecord> log;
  const auto body = [&] {
    known = evaluate_curvature(shared, result, Variance::crossproduct, curvature);
  };
  const int exit_code = run_on_task(task, body, [&] { log = std::move(task.log); });
  rethrow_or_end(shared.thrown, exit_code, log);
  if (!known) curvature.jacobian.assign(static_cast<std::size_t>(problem.m * problem.n), missing);
  return std::move(curvature.jacobian);
}

// Multipliers and active sides, where the result was not checked.
static void look_at_sides(const ProblemData& problem, const Origin& origin, Result& at) {
  const Constraints constraints = normalize(problem);
  if (at.optimality.verdict == Optimality::not_known) {
    Shared shared{problem, constraints, origin.options};
    shared.units = origin.units;
    Advice advice;
    check_point(shared, Look::first_order, &at, &advice);
    if (shared.interrupted) std::rethrow_exception(shared.thrown);
  }
  drop_idle_bounds(constraints, at);
}

// Sizes of the parameters: the distances over which the objective changes by about 1, or a residual
// variance. Where nothing could be evaluated, the parameters themselves.
static std::vector<double> sizes_by(const Curvature& curvature, const Result& at, bool known) {
  const std::size_t n = at.x.size(), m = at.residuals.size();
  std::vector<double> sizes(n);
  const double freedom = m > n ? static_cast<double>(m - n) : 1.0;
  const double variance = m > 0 ? 2.0 * at.objective / freedom : 1.0;
  for (std::size_t j = 0; j < n; ++j) {
    double bend = 0.0;
    if (!curvature.hess.empty() && known)
      bend = std::fabs(
          curvature
              .hess[static_cast<std::size_t>(zisub(static_cast<long>(j), static_cast<long>(j)))]);
    for (std::size_t i = 0; i < m && !curvature.jacobian.empty() && known; ++i)
      bend += curvature.jacobian[i * n + j] * curvature.jacobian[i * n + j];
    sizes[j] = !known ? std::fabs(at.x[j]) : bend > 0.0 ? std::sqrt(variance / bend) : 0.0;
  }
  return sizes;
}

// Do differences in these units see the parameters at their sizes? Where not, takes powers of two
// near the sizes.
static bool units_fit(const std::vector<double>& sizes, const Result& at, Units& units) {
  static constexpr double FAR = 1e3;
  bool fit = true;
  std::vector<double> better(sizes.size(), 1.0);
  for (std::size_t j = 0; j < sizes.size(); ++j) {
    const double unit = better[j] = units.of(static_cast<long>(j));
    // Differences are relative to a parameter that is larger than its unit.
    const double seen = std::max(unit, std::fabs(at.x[j]));
    const bool known = sizes[j] > 0.0 && std::isfinite(sizes[j]) && at.active.bounds[j] == 0;
    if (!known || (seen <= FAR * sizes[j] && FAR * seen >= sizes[j])) continue;
    better[j] = power_of_two(sizes[j]);
    fit = fit && better[j] == unit;
  }
  units.parameter = std::move(better);
  return fit;
}

// Forms derivatives until they were taken in units that fit.
static bool form_curvature(const ProblemData& problem, const Origin& origin, const Result& at,
                           Variance kind, Curvature& curvature) {
  static constexpr int MOST_PASSES = 3;
  const Constraints constraints = with_active_bounds(problem, at);
  Units units = origin.units;
  bool known = false;
  for (int pass = 0; pass < MOST_PASSES; ++pass) {
    Shared shared{problem, constraints, origin.options};
    shared.units = units;
    curvature = {};
    known = evaluate_curvature(shared, at, kind, curvature);
    if (shared.interrupted) std::rethrow_exception(shared.thrown);
    if ((known && curvature.exact) || units_fit(sizes_by(curvature, at, known), at, units)) break;
  }
  return known;
}

Covariance covariance_of(const Result& result, Variance asked, const Likelihood& likelihood) {
  const Origin& origin = origin_of(result);
  const ProblemData& problem = origin.problem.data();
  check_likelihood(likelihood);
  Covariance to;
  to.kind = kind_of(problem, asked);
  set_unknown(result.x.size(), Covariance::no_derivatives, to);
  Result at = result;
  Curvature curvature;
  bool known = false;
  embed::Task task;
  std::vector<LogRecord> log;
  const auto body = [&] {
    look_at_sides(problem, origin, at);
    known = form_curvature(problem, origin, at, to.kind, curvature);
  };
  const int exit_code = run_on_task(task, body, [&] {
    log = std::move(task.log);
    if (known) set_covariance(at, problem, likelihood, curvature, to);
  });
  rethrow_or_end(nullptr, exit_code, log);
  return to;
}

}  // namespace tqnlp::face
