// Covariances, confidence limits and profiles of a result: its problem is evaluated, or optimized
// again, on a task of its own. The covariance in the null space of constraints and the search for
// limits are services of the library.
#include "face/statistics.h"

#include <algorithm>
#include <cmath>
#include <ostream>
#include <sstream>

#include "aasubs/derivatives/znlpfid.h"
#include "aasubs/post/covariance.h"
#include "aasubs/post/znlppli.h"
#include "aasubs/setup/defaults.h"
#include "aasubs/setup/evaluations.h"
#include "aasubs/setup/hessian_form.h"
#include "face/task_scope.h"
#include "host/files.h"
#include "kernels/distributions.h"

namespace tqnlp {

namespace face {

std::shared_ptr<const Origin> remember(const Problem& problem, const Shared& shared,
                                       Technique technique) {
  auto origin = std::make_shared<Origin>(Origin{problem, shared.options, technique, shared.units});
  Options& kept = origin->options;
  kept.progress = nullptr;
  kept.sink = nullptr;
  kept.partial = nullptr;
  kept.report = 0;
  kept.check_derivatives = kept.leave_saddles = false;
  kept.objective_target = kept.calls = kept.seconds = std::nullopt;
  return origin;
}

static const Origin& origin_of(const Result& result) {
  if (result.origin == nullptr) refuse("result", "one that no run has made", "a result of solve");
  return *result.origin;
}

static void check_likelihood(const Likelihood& likelihood) {
  if (!(likelihood.multiple > 0.0) || !std::isfinite(likelihood.multiple))
    refuse("Likelihood::multiple", shown(likelihood.multiple), "a positive number");
  const double variance = likelihood.residual_variance.value_or(1.0);
  if (!(variance > 0.0) || !std::isfinite(variance))
    refuse("Likelihood::residual_variance", shown(variance), "a positive number");
}

// The exception of a user's function, or what ended the call.
static void rethrow(const Shared& shared, int exit_code, std::vector<LogRecord>& log) {
  if (shared.interrupted) std::rethrow_exception(shared.thrown);
  if (exit_code != 0)
    throw FatalError(exit_code,
                     "statistics could not go on (exit code " + std::to_string(exit_code) + ")",
                     std::move(log));
}

// ---- Covariance ---------------------------------------------------------------------------------

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
  if (asked == Variance::crossproduct && !squares)
    refuse("Variance", "crossproduct for an objective without residuals", "hessian, or automatic");
  if (asked != Variance::automatic) return asked;
  return squares ? Variance::crossproduct : Variance::hessian;
}

// The Jacobian of the residuals at the point of the result.
static std::vector<double> jacobian_of(const Result& result) {
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
  rethrow(shared, exit_code, log);
  if (!known) curvature.jacobian.assign(static_cast<std::size_t>(problem.m * problem.n), missing);
  return std::move(curvature.jacobian);
}

static Covariance covariance_of(const Result& result, Variance asked,
                                const Likelihood& likelihood) {
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
  rethrow(shared, exit_code, log);
  return to;
}

// ---- Limits -------------------------------------------------------------------------------------

static void check_limits(const ProblemData& problem, const LimitOptions& options) {
  check_likelihood(options.likelihood);
  for (const double level : options.levels)
    if (!(level > 0.0 && level < 1.0)) refuse("level", shown(level), "a number between 0 and 1");
  for (const long j : options.parameters)
    if (j < 0 || j >= problem.n)
      refuse("LimitOptions::parameters", std::to_string(j),
             "parameters from 0 to " + std::to_string(problem.n - 1));
}

static std::vector<long> wanted_parameters(const ProblemData& problem,
                                           const LimitOptions& options) {
  std::vector<long> wanted = options.parameters;
  for (long j = 0;
       wanted.size() < static_cast<std::size_t>(problem.n) && options.parameters.empty(); ++j)
    wanted.push_back(j);
  return wanted;
}

// As the tables have it.
static std::string plain_name(const ProblemData& problem, long j) {
  if (problem.names.empty()) return "X" + std::to_string(j + 1);
  return problem.names[static_cast<std::size_t>(j)];
}

// A row for each parameter and level, without limits.
static std::vector<Limit> empty_limits(const ProblemData& problem, const Result& result,
                                       const LimitOptions& options) {
  std::vector<Limit> all;
  for (const long j : wanted_parameters(problem, options)) {
    for (const double level : options.levels) {
      Limit limit;
      limit.parameter = j;
      limit.name = plain_name(problem, j);
      limit.level = level;
      limit.estimate = result.x[static_cast<std::size_t>(j)];
      all.push_back(std::move(limit));
    }
  }
  return all;
}

static bool variance_is_estimated(const ProblemData& problem, const Likelihood& likelihood) {
  return problem.kind == Kind::least_squares && !likelihood.residual_variance.has_value();
}

static void set_wald_limits(const ProblemData& problem, const Likelihood& likelihood,
                            const Covariance& covariance, Limits& limits) {
  const bool student = variance_is_estimated(problem, likelihood);
  for (Limit& limit : limits.all) {
    const auto j = static_cast<std::size_t>(limit.parameter);
    const double p = 0.5 + 0.5 * limit.level;
    const double z = student ? zqt(p, covariance.freedom) : zprobit(p);
    const bool usable = covariance.states[j] == Covariance::estimated && z >= 0.0;
    limit.lower_ending = limit.upper_ending = usable ? Limit::found : Limit::no_error;
    if (!usable) continue;
    limit.lower = limit.estimate - z * covariance.errors[j];
    limit.upper = limit.estimate + z * covariance.errors[j];
  }
}

static Limit::Ending ending_of(int status) {
  switch (status) {
    case LIMIT_FOUND:
      return Limit::found;
    case LIMIT_AT_BOUND:
      return Limit::at_bound;
    case LIMIT_NOT_REACHED:
      return Limit::not_reached;
    case LIMIT_LOWER_POINT:
      return Limit::lower_point;
    case LIMIT_SEARCH_FAILED:
      return Limit::search_failed;
    case LIMIT_NO_TARGET:
      return Limit::no_target;
    default:
      return Limit::not_sought;
  }
}

// A technique with derivatives: the one of the run if it has them.
static const TechniqueRow& limit_technique(const ProblemData& problem, const Constraints& c,
                                           const Origin& origin) {
  const TechniqueRow& row = row_of(origin.technique);
  if (row.job != SETTINGS_SIMPLEX && !row.quadratic) return row;
  const bool squares = problem.kind == Kind::least_squares && c.nonlinear.empty();
  return row_of(squares ? Technique::levenberg_marquardt : Technique::quasi_newton);
}

namespace {

// One request to the search for limits: what it is asked, and what it answers.
struct Request {
  std::vector<long> parameters;
  std::vector<double> alfa;
  std::vector<double> errors;
  std::vector<PLLIM> limits;
  std::vector<PLPNT> points;
  std::vector<double> lower_point;
  double observations = 0.0;
  bool wants_points = false;
  PLCSTR options{};
  COVSTR post{};
};

}  // namespace

static void fill_request(const Origin& origin, const Result& result, const LimitOptions& asked,
                         const Covariance& covariance, Request& to) {
  const ProblemData& problem = origin.problem.data();
  const Units& units = origin.units;
  const std::size_t n = result.x.size();
  to.parameters = wanted_parameters(problem, asked);
  for (const double level : asked.levels) to.alfa.push_back(1.0 - level);
  to.errors = covariance.errors;
  for (std::size_t j = 0; j < n; ++j) to.errors[j] /= units.of(static_cast<long>(j));
  to.limits.resize(2 * to.parameters.size() * to.alfa.size());
  to.lower_point.resize(n);
  PLCSTR& options = to.options;
  options.job = 1;
  options.forchi = variance_is_estimated(problem, asked.likelihood) ? 2 : 1;
  options.nalf = static_cast<int>(to.alfa.size());
  options.alfa = to.alfa.data();
  options.npar = static_cast<long>(to.parameters.size());
  options.mpar = to.parameters.data();
  options.maxi = options.frat = missing;
  const bool squares = problem.kind == Kind::least_squares;
  options.ffac = squares ? 2.0 : 2.0 / asked.likelihood.multiple * units.objective;
  options.limits = to.limits.data();
  options.xlow = to.lower_point.data();
  COVSTR& post = to.post;
  post.plcstr = &options;
  post.df = missing;
  if (!squares) return;
  to.observations = static_cast<double>(problem.m);
  post.nobs = &to.observations;
  post.sigs = std::sqrt(covariance.residual_variance) / units.residual;
  // The search itself takes off one for each active constraint.
  const auto active = static_cast<double>(problem.n - covariance.dimension);
  if (covariance.freedom > 0.0) post.df = to.observations - covariance.freedom + active;
}

static void read_points(const Units& units, Request& request) {
  const auto count = static_cast<std::size_t>(request.options.npnt);
  request.points.resize(count);
  const auto bytes = static_cast<long>(count * sizeof(PLPNT));
  if (count > 0 && (xcpoint(request.options.utprof, 0) != 0 ||
                    xcread(request.options.utprof, request.points.data(), bytes) != 0))
    request.points.clear();
  for (PLPNT& point : request.points) {
    point.xval *= units.of(static_cast<long>(point.ipar));
    point.yval = objective_to_user(units, point.yval);
  }
}

// The run ends at once, at the point of the result: any objective is good enough.
static void search(Shared& shared, const TechniqueRow& row, const Result& result,
                   Request& request) {
  Run run(shared, row);
  prepare_run(run, result.x);
  run.atol = HUGE_VALUE;
  run.ster = request.errors.data();
  run.covstr = &request.post;
  if (request.wants_points && xcopen(&request.options.utprof, nullptr) != 0) throw std::bad_alloc();
  drive(run);
  run.ster = nullptr;
  if (request.wants_points) {
    read_points(shared.units, request);
    xcclose(request.options.utprof, 1);
  }
}

// Runs the search on a task of its own.
static void search_limits(const Result& result, const Origin& origin, Request& request,
                          Limits& limits) {
  const ProblemData& problem = origin.problem.data();
  Constraints constraints = normalize(problem);
  constraints.bounds = true;  // a parameter is held by them
  Shared shared{problem, constraints, origin.options};
  shared.units = origin.units;
  const TechniqueRow& row = limit_technique(problem, constraints, origin);
  embed::Task task;
  const int exit_code = run_on_task(
      task, [&] { search(shared, row, result, request); },
      [&] {
        limits.tables = std::move(task.tables);
        limits.log = std::move(task.log);
      });
  rethrow(shared, exit_code, limits.log);
  limits.optimizations = request.options.nrun;
  if (wzmis(request.options.flow)) return;
  limits.better = request.lower_point;
  point_to_user(origin.units, problem.n, limits.better.data(), limits.better.data());
  limits.better_objective = objective_to_user(origin.units, request.options.flow);
}

static void take_limits(const Units& units, const Request& request, Limits& limits) {
  for (std::size_t i = 0; i < limits.all.size(); ++i) {
    Limit& limit = limits.all[i];
    const PLLIM& lower = request.limits[2 * i];
    const PLLIM& upper = request.limits[2 * i + 1];
    limit.lower = lower.value * units.of(limit.parameter);
    limit.upper = upper.value * units.of(limit.parameter);
    limit.lower_ending = ending_of(lower.status);
    limit.upper_ending = ending_of(upper.status);
  }
}

static Limits limits_of(const Result& result, const LimitOptions& options) {
  const Origin& origin = origin_of(result);
  const ProblemData& problem = origin.problem.data();
  check_limits(problem, options);
  Limits limits;
  limits.all = empty_limits(problem, result, options);
  const Covariance covariance = covariance_of(result, Variance::automatic, options.likelihood);
  if (options.kind == LimitKind::wald) {
    set_wald_limits(problem, options.likelihood, covariance, limits);
    return limits;
  }
  Request request;
  fill_request(origin, result, options, covariance, request);
  search_limits(result, origin, request, limits);
  take_limits(origin.units, request, limits);
  return limits;
}

// ---- Profiles -----------------------------------------------------------------------------------

// Levels whose quantiles are equally spaced, so that points are, too.
static std::vector<double> profile_levels(double level) {
  static constexpr int STEPS = 8;
  const double z = zprobit(0.5 + 0.5 * level);
  std::vector<double> levels;
  for (int k = 1; k <= STEPS; ++k) levels.push_back(std::erf(z * k / STEPS / std::sqrt(2.0)));
  return levels;
}

// Points in ascending order; the search for a limit leaves several that are as good as the same.
static void add_points(std::vector<PLPNT>& points, double sign, double objective, double unit,
                       Profile& profile) {
  static constexpr double APART = 0.05;  // in the root of the likelihood ratio
  points.push_back({static_cast<double>(profile.parameter), profile.estimate, objective});
  std::sort(points.begin(), points.end(),
            [](const PLPNT& a, const PLPNT& b) { return a.xval < b.xval; });
  for (const PLPNT& point : points) {
    const double rise = std::max(sign * (point.yval - objective), 0.0);
    const double root = std::copysign(std::sqrt(rise / unit), point.xval - profile.estimate);
    if (!profile.root.empty() && root - profile.root.back() < APART) continue;
    profile.values.push_back(point.xval);
    profile.objective.push_back(point.yval);
    profile.root.push_back(root);
  }
}

static Profile profile_of(const Result& result, long parameter, double level,
                          const Likelihood& likelihood) {
  const Origin& origin = origin_of(result);
  const ProblemData& problem = origin.problem.data();
  LimitOptions options;
  options.parameters = {parameter};
  options.levels = {level};
  options.likelihood = likelihood;
  check_limits(problem, options);
  options.levels = profile_levels(level);
  const Covariance covariance = covariance_of(result, Variance::automatic, likelihood);
  Request request;
  request.wants_points = true;
  fill_request(origin, result, options, covariance, request);
  Limits limits;
  search_limits(result, origin, request, limits);
  Profile profile;
  profile.parameter = parameter;
  profile.name = plain_name(problem, parameter);
  profile.estimate = result.x[static_cast<std::size_t>(parameter)];
  const bool squares = problem.kind == Kind::least_squares;
  const double unit = 0.5 * (squares ? covariance.residual_variance : likelihood.multiple);
  add_points(request.points, problem.maximize ? -1.0 : 1.0, result.objective, unit, profile);
  return profile;
}

}  // namespace face

Covariance Result::covariance(Variance kind, const Likelihood& likelihood) const {
  const face::FlagKeeper flags;
  return face::covariance_of(*this, kind, likelihood);
}

std::vector<double> Result::jacobian() const {
  const face::FlagKeeper flags;
  return face::jacobian_of(*this);
}

Limits Result::limits(double level, LimitKind kind) const {
  LimitOptions options;
  options.levels = {level};
  options.kind = kind;
  return limits(options);
}

Limits Result::limits(const LimitOptions& options) const {
  const face::FlagKeeper flags;
  return face::limits_of(*this, options);
}

Profile Result::profile(long parameter, double level, const Likelihood& likelihood) const {
  const face::FlagKeeper flags;
  return face::profile_of(*this, parameter, level, likelihood);
}

// ---- Words --------------------------------------------------------------------------------------

double Covariance::operator()(long i, long j) const {
  return matrix[static_cast<std::size_t>(i) * states.size() + static_cast<std::size_t>(j)];
}

double Covariance::correlation(long i, long j) const {
  const double product = errors[static_cast<std::size_t>(i)] * errors[static_cast<std::size_t>(j)];
  return product > 0.0 ? (*this)(i, j) / product : missing;
}

std::string Covariance::sentence() const {
  switch (ending) {
    case known:
      return "The covariance is known.";
    case not_determined:
      return "The data do not determine all parameters: some can be moved without an effect on the "
             "objective, and have no variance.";
    case not_a_minimum:
      return "The Hessian has a negative eigenvalue: the point is no optimum, or its derivatives "
             "are wrong.";
    case no_freedom:
      return "There are no more residuals than free parameters: their variance cannot be "
             "estimated.";
    case all_held:
      return "The active constraints hold every parameter.";
    case no_derivatives:
      return "Derivatives could not be had at the point.";
  }
  return "";
}

const char* sentence_of(Limit::Ending ending) {
  switch (ending) {
    case Limit::not_sought:
      return "The parameter is fixed.";
    case Limit::found:
      return "The limit was found.";
    case Limit::at_bound:
      return "At the bound, or where constraints end, the data do not contradict the value.";
    case Limit::not_reached:
      return "The profile levels off: there is no limit on this side.";
    case Limit::lower_point:
      return "A better point was met: the result is not the optimum.";
    case Limit::search_failed:
      return "The other parameters could not be optimized near the limit.";
    case Limit::no_target:
      return "There is no residual variance to measure by.";
    case Limit::no_error:
      return "The parameter has no standard error.";
  }
  return "";
}

static const char* short_word(Limit::Ending ending) {
  switch (ending) {
    case Limit::at_bound:
      return "bound";
    case Limit::not_reached:
      return "none";
    case Limit::not_sought:
      return "fixed";
    case Limit::no_error:
      return "no error";
    default:
      return "unknown";
  }
}

std::ostream& operator<<(std::ostream& out, const Limit& limit) {
  const auto side = [](double value, Limit::Ending ending) {
    std::ostringstream text;
    if (ending == Limit::found)
      text << value;
    else
      text << short_word(ending);
    return text.str();
  };
  std::ostringstream text;
  text << limit.name << "  " << limit.estimate << "  [" << side(limit.lower, limit.lower_ending)
       << ", " << side(limit.upper, limit.upper_ending) << "]  " << 100.0 * limit.level << " %";
  return out << text.str();
}

}  // namespace tqnlp
