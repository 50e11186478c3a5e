// Confidence limits and profiles of a result: its problem is optimized again, on a task of its own,
// by the library's search for limits.
#include <algorithm>
#include <cmath>
#include <new>

#include "aasubs/post/znlppli.h"
#include "aasubs/setup/defaults.h"
#include "face/statistics.h"
#include "face/task_scope.h"
#include "host/files.h"
#include "host/log.h"
#include "kernels/distributions.h"

namespace tqnlp::face {

static void check_limits(const ProblemData& problem, const LimitOptions& options) {
  check_likelihood(options.likelihood);
  for (const double level : options.levels)
    if (!(level > 0.0 && level < 1.0)) refuse("level", shown(level), "a number between 0 and 1");
  for (const long j : options.parameters)
    if (std::ranges::count(options.parameters, j) > 1)
      refuse("LimitOptions::parameters", std::to_string(j) + " twice", "each once");
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

// Two-sided: of Student where a variance is estimated, otherwise normal.
static double quantile(const ProblemData& problem, const Likelihood& likelihood, double freedom,
                       double level) {
  const double p = 0.5 + 0.5 * level;
  return variance_is_estimated(problem, likelihood) ? zqt(p, freedom) : zprobit(p);
}

static void set_wald_limits(const ProblemData& problem, const Likelihood& likelihood,
                            const Covariance& covariance, Limits& limits) {
  for (Limit& limit : limits.all) {
    const auto j = static_cast<std::size_t>(limit.parameter);
    const double z = quantile(problem, likelihood, covariance.freedom, limit.level);
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
    case LIMIT_STOPPED:
      return Limit::search_failed;
    case LIMIT_NO_TARGET:
      return Limit::no_target;
    default:
      return Limit::not_sought;
  }
}

// A technique with derivatives: the one of the run if it has them.
static const TechniqueRow& limit_technique(const Origin& origin) {
  const ProblemData& problem = origin.problem.data();
  const TechniqueRow& row = row_of(origin.technique);
  if (row.job != SETTINGS_SIMPLEX && !row.quadratic) return row;
  const bool squares = problem.kind == Kind::least_squares && problem.c_lower.empty();
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

static void fill_request(const Origin& origin, const TechniqueRow& row, const Result& result,
                         const LimitOptions& asked, const Covariance& covariance, Request& to) {
  const ProblemData& problem = origin.problem.data();
  const Units& units = origin.units;
  const std::size_t n = result.x.size();
  to.parameters = wanted_parameters(problem, asked);
  for (const double level : asked.levels) to.alfa.push_back(1.0 - level);
  to.errors = covariance.errors;
  for (std::size_t j = 0; j < n; ++j) to.errors[j] /= units.of(static_cast<long>(j));
  // What a search that does not begin leaves.
  to.limits.assign(2 * to.parameters.size() * to.alfa.size(),
                   {0, 0, 0.0, missing, missing, LIMIT_SEARCH_FAILED});
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
  options.flow = missing;
  COVSTR& post = to.post;
  post.plcstr = &options;
  post.df = missing;
  if (!squares) return;
  to.observations = static_cast<double>(problem.m);
  post.nobs = &to.observations;
  // A record without residuals has no variance of them: its rise is scaled instead.
  if (row.squares)
    post.sigs = std::sqrt(covariance.residual_variance) / units.residual;
  else
    options.ffac *= units.objective / covariance.residual_variance;
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
  shared.recall.stop();
  run.atol = run.imax != 0 ? -HUGE_VALUE : HUGE_VALUE;
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

// The report has the units of the record.
static void tables_to_user(const Units& units, std::vector<Table>& tables) {
  for (Table& table : tables) {
    const auto number = std::ranges::find(table.columns, "Number") - table.columns.begin();
    for (auto& row : table.rows) {
      if (number == static_cast<std::ptrdiff_t>(row.size())) continue;
      const auto* parameter = std::get_if<long>(&row[static_cast<std::size_t>(number)]);
      for (std::size_t k = 0; k < row.size() && parameter != nullptr; ++k) {
        auto* value = std::get_if<double>(&row[k]);
        if (value != nullptr && table.columns[k] != "Alpha") *value *= units.of(*parameter - 1);
      }
    }
  }
}

// The run that stands still at the result has remarks of its own; those of the search are 271 to
// 287, and literal lines.
static bool is_of_the_run(const LogRecord& line) {
  return line.group == OPTIMIZATION && (line.number < 271 || line.number > 287);
}

// Runs the search on a task of its own.
static void search_limits(const Result& result, const Origin& origin, Request& request,
                          Limits& limits) {
  const ProblemData& problem = origin.problem.data();
  Constraints constraints = normalize(problem);
  constraints.bounds = true;  // a parameter is held by them
  Shared shared{problem, constraints, origin.options};
  shared.units = origin.units;
  embed::Task task;
  const int exit_code = run_on_task(
      task, [&] { search(shared, limit_technique(origin), result, request); },
      [&] {
        limits.tables = std::move(task.tables);
        limits.log = std::move(task.log);
      });
  rethrow_or_end(shared.thrown, exit_code, limits.log);
  std::erase_if(limits.log, is_of_the_run);
  if (!origin.units.parameter.empty()) tables_to_user(origin.units, limits.tables);
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

static void set_endings(Limit::Ending ending, Limits& limits) {
  for (Limit& limit : limits.all) {
    limit.lower = limit.upper = missing;
    limit.lower_ending = limit.upper_ending = ending;
  }
}

// Was the result itself bettered, and not only a point of a profile? Its limits are then those of
// another point.
static bool result_is_no_optimum(const Limits& limits) {
  return !limits.better.empty() && std::ranges::none_of(limits.all, [](const Limit& limit) {
    return limit.lower_ending == Limit::lower_point || limit.upper_ending == Limit::lower_point;
  });
}

static constexpr int REFUSED = -1;  // a search that could not begin

Limits limits_of(const Result& result, const LimitOptions& options) {
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
  if (problem.kind == Kind::least_squares && wzmis(covariance.residual_variance)) {
    set_endings(Limit::no_target, limits);
    return limits;
  }
  Request request;
  fill_request(origin, limit_technique(origin), result, options, covariance, request);
  search_limits(result, origin, request, limits);
  take_limits(origin.units, request, limits);
  if (request.options.rcod == REFUSED) set_endings(Limit::search_failed, limits);
  if (result_is_no_optimum(limits)) set_endings(Limit::lower_point, limits);
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
  static constexpr double APART = 0.05;   // in the root of the likelihood ratio
  static constexpr double BEYOND = 1e-6;  // the limits, relative
  points.push_back({static_cast<double>(profile.parameter), profile.estimate, objective});
  std::sort(points.begin(), points.end(), [=](const PLPNT& a, const PLPNT& b) {
    return a.xval != b.xval ? a.xval < b.xval : sign * a.yval < sign * b.yval;
  });
  for (const PLPNT& point : points) {
    const double rise = std::max(sign * (point.yval - objective), 0.0);
    const double root = std::copysign(std::sqrt(rise / unit), point.xval - profile.estimate);
    if (std::fabs(root) > profile.quantile * (1.0 + BEYOND)) continue;
    if (!profile.root.empty() && root - profile.root.back() < APART) continue;
    profile.values.push_back(point.xval);
    profile.objective.push_back(point.yval);
    profile.root.push_back(root);
  }
}

Profile profile_of(const Result& result, long parameter, double level,
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
  const bool no_target = problem.kind == Kind::least_squares && wzmis(covariance.residual_variance);
  Request request;
  request.wants_points = true;
  fill_request(origin, limit_technique(origin), result, options, covariance, request);
  Limits limits;
  if (!no_target) search_limits(result, origin, request, limits);
  Profile profile;
  profile.parameter = parameter;
  profile.name = plain_name(problem, parameter);
  profile.estimate = result.x[static_cast<std::size_t>(parameter)];
  profile.level = level;
  profile.quantile = quantile(problem, likelihood, covariance.freedom, level);
  const bool squares = problem.kind == Kind::least_squares;
  const double unit = 0.5 * (squares ? covariance.residual_variance : likelihood.multiple);
  add_points(request.points, problem.maximize ? -1.0 : 1.0, result.objective, unit, profile);
  return profile;
}

}  // namespace tqnlp::face
