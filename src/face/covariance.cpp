// The covariance of a result: derivatives evaluated afresh at its point, on a task of its own. The
// inverse in the null space of constraints is a service of the library.
#include "aasubs/post/covariance.h"

#include <algorithm>
#include <cmath>
#include <new>

#include "aasubs/derivatives/znlpfid.h"
#include "aasubs/setup/hessian_form.h"
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

// An active bound holds its parameter: nothing is to be evaluated beside it.
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
  rethrow_or_end(shared, exit_code, log);
  if (!known) curvature.jacobian.assign(static_cast<std::size_t>(problem.m * problem.n), missing);
  return std::move(curvature.jacobian);
}

Covariance covariance_of(const Result& result, Variance asked, const Likelihood& likelihood) {
  const Origin& origin = origin_of(result);
  const ProblemData& problem = origin.problem.data();
  check_likelihood(likelihood);
  Covariance to;
  to.kind = kind_of(problem, asked);
  const std::size_t n = result.x.size();
  set_unknown(n, Covariance::no_derivatives, to);
  if (result.active.bounds.size() != n) return to;  // the point could not be evaluated
  const Constraints constraints = with_active_bounds(problem, result);
  Shared shared{problem, constraints, origin.options};
  shared.units = origin.units;
  Curvature curvature;
  bool known = false;
  embed::Task task;
  std::vector<LogRecord> log;
  const int exit_code = run_on_task(
      task, [&] { known = evaluate_curvature(shared, result, to.kind, curvature); },
      [&] {
        log = std::move(task.log);
        if (known) set_covariance(result, problem, likelihood, curvature, to);
      });
  rethrow_or_end(shared, exit_code, log);
  return to;
}

}  // namespace tqnlp::face
