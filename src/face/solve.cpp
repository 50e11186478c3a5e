// solve: checks, the run on a task of its own, the check of its point, and the result.
//
// A run that claims success at a point that is none is started again from there, or from the better
// point that the check found, a bounded number of times. A run that fails ends at the best feasible
// point that any of them evaluated.
#include <algorithm>
#include <cmath>
#include <sstream>

#include "face/check.h"
#include "face/options.h"
#include "face/statistics.h"
#include "face/task_scope.h"
#include "host/log.h"

namespace tqnlp {

namespace face {

static constexpr int MOST_RESTARTS = 3;

// ---- Refusals -----------------------------------------------------------------------------------

static void check_start(const ProblemData& problem, const std::vector<double>& start) {
  if (start.size() != static_cast<std::size_t>(problem.n))
    refuse("start", std::to_string(start.size()) + " elements", std::to_string(problem.n));
  for (std::size_t j = 0; j < start.size(); ++j)
    if (!std::isfinite(start[j]))
      refuse("start, " + problem.parameter_name(static_cast<long>(j)), shown(start[j]),
             "a finite number");
}

static void check_derivatives(const ProblemData& problem) {
  if (problem.hessian != nullptr && problem.gradient == nullptr)
    refuse("hessian", "no gradient beside it", "a gradient too");
}

// ---- One run ------------------------------------------------------------------------------------

static Status status_of(int code) {
  Status status;
  status.code = code;
  const bool close = code > Status::all_parameters_active;
  status.ending = close ? Status::close_to_a_criterion : static_cast<Status::Ending>(code);
  return status;
}

// The last point, or of a run that failed the best feasible one: no feasible point is better.
static void take_point(const Run& run, int code, Result* result) {
  const BestPoint& best = run.shared.best;
  const Units& units = run.shared.units;
  result->x.resize(static_cast<std::size_t>(run.nvar));
  point_to_user(units, run.nvar, run.x, result->x.data());
  const double sign = run.imax != 0 ? -1.0 : 1.0;
  const bool known = !wzmis(run.crit) && std::fabs(run.crit) < HUGE_VALUE;
  result->objective = known ? sign * objective_to_user(units, run.crit) : missing;
  const bool failed = code <= 0 || code > Status::all_parameters_active;
  if (failed && best.found) {
    result->x = best.x;
    result->objective = sign * best.crit;
  }
  // The end of a step may lie beyond a bound by rounding.
  for (long j = 0; j < run.nvar && run.bounds != 0; ++j) {
    const auto place = static_cast<std::size_t>(j);
    const Constraints& c = run.shared.constraints;
    result->x[place] = std::clamp(result->x[place], c.lower[place], c.upper[place]);
  }
}

static void add_counts(const Run& run, Result* result) {
  result->counts.iterations += static_cast<long>(run.nitr);
  result->counts.restarts += run.ires;
}

// A criterion that was met where it should not have been would be met there again.
static void tighten_criteria(Run& run, int restarts) {
  static constexpr double SHARE = 1e-3;
  for (int k = 0; k < restarts; ++k) {
    for (double* tolerance : {&run.agtl, &run.gtol, &run.fto2}) *tolerance *= SHARE;
  }
}

// The library has a target of its own where the caller has none, and warns of steps without end.
static bool passes_all_bounds(const Run& run, int code) {
  return code == Status::objective_target_met && !run.shared.options.objective_target.has_value();
}

// What the caller allows, less what runs before have used.
static void reduce_limits(Run& run) {
  const Shared& shared = run.shared;
  const auto rest = [](double limit, long used) {
    return std::max(limit - static_cast<double>(used), 0.0);
  };
  if (shared.options.iterations.has_value()) run.maxi = rest(run.maxi, shared.iterations_before);
  if (shared.options.calls.has_value()) run.maxf = rest(run.maxf, shared.calls_before);
  run.upti = std::max(run.upti - (zdattim() - shared.began), 0.0);
}

// False: the unit of the objective has become another one, and nothing has run.
static bool run_in_units(Shared& shared, const TechniqueRow& row, const std::vector<double>& start,
                         Result* result) {
  Run run(shared, row);
  prepare_run(run, start);
  if (choose_objective_unit(run)) return false;
  tighten_criteria(run, result->optimality.restarts);
  reduce_limits(run);
  int code = drive(run);
  shared.calls_before += run.nfct;
  if (passes_all_bounds(run, code)) code = Status::unbounded;
  shared.steps_without_end = run.unbd != 0;
  if (shared.interrupted) code = Status::interrupted_by_exception;
  result->status = status_of(code);
  take_point(run, code, result);
  add_counts(run, result);
  return true;
}

// Runs the technique from a start. Whatever ends it, what it has found is in the result.
static void run_once(Shared& shared, embed::Task& task, const TechniqueRow& row,
                     const std::vector<double>& start, Result* result) {
  shared.iterations_before = result->counts.iterations;
  const std::size_t tables = task.tables.size();
  if (!run_in_units(shared, row, start, result)) run_in_units(shared, row, start, result);
  if (shared.units.are_own())
    estimates_to_user(shared.units, std::span(task.tables).subspan(tables));
}

// ---- Runs and checks ----------------------------------------------------------------------------

static bool contradicted(const Result& result) {
  return static_cast<bool>(result.status) &&
         (result.optimality.verdict == Optimality::not_feasible ||
          result.optimality.verdict == Optimality::not_stationary ||
          result.optimality.verdict == Optimality::negative_curvature);
}

// A target that is met needs no minimum.
static bool wants_analysis(const Options& options, const Result& result) {
  return options.analysis && options.check_result && result.status &&
         result.status.ending != Status::objective_target_met;
}

// After a limit, or where the caller has stopped the run, no time is spent on second derivatives.
static Look look_at(const Shared& shared, const Result& result) {
  if (wants_analysis(shared.options, result)) return Look::second_order;
  const Status::Ending ending = result.status.ending;
  const bool limited = ending == Status::count_limit || ending == Status::time_limit ||
                       ending == Status::stopped_by_caller;
  return limited ? Look::first_order : Look::if_in_doubt;
}

static void check(Shared& shared, embed::Task& task, Result* result, Advice* advice) {
  if (!shared.options.check_result || result->status.ending == Status::no_value_at_start ||
      result->status.ending == Status::interrupted_by_exception)
    return;
  *advice = {};
  const std::size_t lines = task.log.size();
  try {
    check_point(shared, look_at(shared, *result), result, advice);
  } catch (const embed::ExitRequest&) {  // memory was refused: what the run has found stands
    result->optimality.verdict = Optimality::not_known;
    return;
  }
  task.log.resize(lines);  // its remarks are those of the run
}

// Does a run that was started again improve on the one before? One that failed has to be clearly
// better, or to end at a point that passes.
static bool improves(const Result& next, const Result& last, bool maximize) {
  static constexpr double CLEARLY = 1e-6;
  if (last.optimality.verdict == Optimality::not_feasible)
    return next.optimality.feasibility < last.optimality.feasibility;
  if (next.optimality.verdict == Optimality::not_feasible) return false;
  const double sign = maximize ? -1.0 : 1.0;
  const double gain = sign * (last.objective - next.objective);
  if (next.optimality) return gain >= 0.0;
  return gain > (next.status ? 0.0 : CLEARLY * (1.0 + std::fabs(last.objective)));
}

static void run_and_check(Shared& shared, embed::Task& task, const TechniqueRow& row,
                          const std::vector<double>& start, Result* result) {
  run_once(shared, task, row, start, result);
  Advice advice;
  check(shared, task, result, &advice);
  while (wants_analysis(shared.options, *result) && contradicted(*result) &&
         result->optimality.restarts < MOST_RESTARTS && !shared.interrupted &&
         !shared.steps_without_end) {
    Result next = *result;
    ++next.optimality.restarts;
    const bool by_lower_points = !advice.least.empty();
    if (!by_lower_points)
      learn_sizes(shared, advice.sizes);
    else
      grow_sizes(shared, advice.least);
    run_once(shared, task, row, advice.better.empty() ? result->x : advice.better, &next);
    next.multipliers = {};
    next.active = {};
    check(shared, task, &next, &advice);
    result->counts = next.counts;
    result->optimality.restarts = next.optimality.restarts;
    if (!improves(next, *result, shared.problem.maximize)) {
      // The lower points that were met are those of another minimum.
      if (by_lower_points) result->optimality.verdict = Optimality::optimal;
      break;
    }
    // The criteria of the caller were met before.
    if (!next.status && !shared.interrupted && !shared.stopped) next.status = result->status;
    *result = std::move(next);
  }
  if (shared.steps_without_end && !result->optimality && !shared.interrupted)
    result->status = status_of(Status::unbounded);
  if (shared.stopped) result->status = status_of(STOPPED_BY_CALLER);
}

// ---- On a task ----------------------------------------------------------------------------------

// What the caller's sink throws ends the run like an exception of a function.
static void set_sink(Shared& shared, embed::Task& task) {
  if (shared.options.sink == nullptr) return;
  task.sink = std::make_shared<const Session::Sink>([&shared](std::string_view line) {
    if (shared.interrupted) return;
    try {
      shared.options.sink(line);
    } catch (...) {
      shared.keep_exception();
    }
  });
}

// What could not be evaluated has its length all the same.
static void fill_in_missing(const ProblemData& problem, Result* result) {
  const auto n = static_cast<std::size_t>(problem.n);
  const std::size_t rows = problem.rows.size(), constraints = problem.c_lower.size();
  const std::size_t m =
      problem.kind == Kind::least_squares ? static_cast<std::size_t>(problem.m) : 0;
  result->gradient.resize(n, missing);
  result->residuals.resize(m, missing);
  result->linear.resize(rows, missing);
  result->constraints.resize(constraints, missing);
  result->multipliers.bounds.resize(n, missing);
  result->multipliers.linear.resize(rows, missing);
  result->multipliers.nonlinear.resize(constraints, missing);
  result->active.bounds.resize(n);
  result->active.linear.resize(rows);
  result->active.nonlinear.resize(constraints);
}

// Before the run: the derivatives at its start. False when a function threw.
static bool check_given_derivatives(Shared& shared, embed::Task& task, const Problem& problem,
                                    const std::vector<double>& start, Result* result) {
  if (!shared.options.check_derivatives) return true;
  try {
    result->derivatives = check_derivatives(problem, start, shared.options);
  } catch (...) {
    shared.keep_exception();
    return false;
  }
  shared.counts = result->derivatives.calls;
  for (const auto& row : result->derivatives.summary.rows) {
    std::ostringstream text;
    text << "The " << std::get<std::string>(row[0]) << " of " << std::get<std::string>(row[1])
         << " to " << std::get<std::string>(row[2]) << " is given as " << std::get<double>(row[3])
         << ", and is " << std::get<double>(row[4]) << " by differences.";
    embed::add_log(task, 0, 0, Severity::warning, text.str());
  }
  return true;
}

static void finish(Shared& shared, embed::Task& task, Result* result) {
  fill_in_missing(shared.problem, result);
  const long iterations = result->counts.iterations, restarts = result->counts.restarts;
  result->counts = shared.counts;
  result->counts.iterations = iterations;
  result->counts.restarts = restarts;
  result->history = std::move(shared.history);
  result->seconds = zdattim() - shared.began;
  result->seconds_in_user = std::min(shared.clock.seconds(), result->seconds);
  result->log = std::move(task.log);
  result->tables = std::move(task.tables);
}

static Result solve_on_task(Shared& shared, const Problem& problem, const TechniqueRow& row,
                            const std::vector<double>& start) {
  Result result;
  result.technique = row.technique;
  result.x = start;
  embed::Task task;
  set_sink(shared, task);
  const auto body = [&] {
    shared.began = zdattim();
    if (check_given_derivatives(shared, task, problem, start, &result))
      run_and_check(shared, task, row, start, &result);
  };
  const int exit_code = run_on_task(task, body, [&] { finish(shared, task, &result); });
  result.origin = remember(problem, shared, row.technique);
  if (shared.interrupted) {
    result.status = status_of(Status::interrupted_by_exception);
    if (shared.options.partial != nullptr) *shared.options.partial = std::move(result);
    std::rethrow_exception(shared.thrown);
  }
  if (exit_code != 0)
    throw FatalError(exit_code,
                     "solve could not go on (exit code " + std::to_string(exit_code) + ")",
                     std::move(result.log));
  return result;
}

}  // namespace face

Result solve(const Problem& problem, std::vector<double> start, const Options& said) {
  const Problem held = problem;  // a function of the problem may change the caller's own
  const Options options = said;
  const face::ProblemData& data = held.data();
  face::check_start(data, start);
  face::check_derivatives(data);
  face::check_options(options);
  face::check_scale(data, options);
  const face::Constraints constraints = face::normalize(data);
  const face::TechniqueRow& row = face::choose_technique(data, constraints, options);
  face::Shared shared{data, constraints, options};
  face::choose_units(shared, start);
  return face::solve_on_task(shared, held, row, start);
}

}  // namespace tqnlp
