// The callbacks of a run: the user's functions on the arrays of the record. Maximizing, every value
// is negated once, here, so that the library minimizes.
//
// A function is never called outside of the bounds: a technique that looks beyond them (COBYLA) or
// a step that rounding carries over gets the value at the point of the bounds that is nearest.
#include <cxxabi.h>

#include <algorithm>
#include <cmath>
#include <utility>

#include "aasubs/derivatives/znlpfid.h"
#include "aasubs/setup/evaluations.h"
#include "aasubs/setup/hessian_form.h"
#include "aasubs/termination/znlptrm.h"
#include "face/run.h"
#include "host/log.h"
#include "kernels/crossproduct.h"
#include "kernels/vector.h"

namespace tqnlp::face {

// Answers of callbacks, as the techniques read them.
static constexpr int GOOD = 0;
static constexpr int FAILED = -11;
static constexpr int GRADIENT_OF_HESSIAN_FAILED = -2;
static constexpr int HESSIAN_NOT_USABLE = -3;
static constexpr int HESSIAN_FAILED = -4;

static Run& run_of(MINSTR* str) { return *static_cast<Run*>(str); }

static int end(MINSTR* str, int code) {
  str->tbig = code == GOOD ? 0.0 : 1.0;
  return code;
}

static int fail(Run& run, int code) {
  ++run.shared.counts.failed;
  return end(&run, code);
}

static void negate(double* values, long count) {
  for (long i = 0; i < count; ++i) values[i] = -values[i];
}

// The projection of x into the bounds. Null when x is no point, as after an overflow in a step.
[[gnu::noinline]] static const double* projection(Run& run, const double* x) {
  const Constraints& c = run.shared.constraints;
  if (!c.bounds || !all_finite(run.nvar, x)) return nullptr;
  for (std::size_t j = 0; j < run.inside.size(); ++j)
    run.inside[j] = std::clamp(x[j], c.lower[j], c.upper[j]);
  return run.inside.data();
}

// The point for the user's function: x itself, or in his units, or its projection. An absent bound
// stands at the largest double, so that an infinite element is beyond it.
static const double* point(Run& run) {
  const double* x = run.x;
  if (!run.shared.units.parameter.empty()) {
    point_to_user(run.shared.units, run.nvar, x, run.inside.data());
    x = run.inside.data();
  }
  const Constraints& c = run.shared.constraints;
  const bool good =
      c.bounds ? all_between(run.nvar, x, c.lower.data(), c.upper.data()) : all_finite(run.nvar, x);
  if (good) [[likely]]
    return x;
  return projection(run, x);
}

// Calls a user's function; false when it has no value here. What it throws is kept, and ends the
// run: no function is called any more.
template <class Body>
static bool call(Run& run, long& count, const Body& body) {
  Shared& shared = run.shared;
  if (shared.interrupted) [[unlikely]]
    return false;
  ++count;
  if (run.indf >= GRADIENT_STEP) ++shared.counts.for_differences;
  try {
    shared.clock.starts();
    body();
    shared.clock.ends();
    return true;
  } catch (const EvaluationFailed&) {
    shared.clock.ends();
  } catch (const abi::__forced_unwind&) {  // the thread is being cancelled: not ours to stop
    throw;
  } catch (...) {
    shared.keep_exception();
  }
  return false;
}

static Point as_point(const Run& run, const double* x) {
  return {x, static_cast<std::size_t>(run.nvar)};
}
static Values as_values(double* values, long count) {
  return {values, static_cast<std::size_t>(count)};
}

// The same at x for count values, which may be known from before.
template <class Body>
static bool evaluate(Run& run, long& calls, const double* x, double* values, long count,
                     const Body& body) {
  Recall& recall = run.shared.recall;
  if (!recall.is_on()) return call(run, calls, body);
  if (!run.shared.interrupted && recall.read(&calls, run.nvar, x, values, count)) return true;
  if (!call(run, calls, body)) return false;
  recall.keep(&calls, run.nvar, x, values, count);
  return true;
}

// Calls a function that fills count values; false when one of them is not finite.
static bool fill(Run& run, long& calls, const Problem::Function& function, double* values,
                 long count) {
  const double* x = point(run);
  if (x == nullptr) return false;
  return evaluate(run, calls, x, values, count,
                  [&] { function(as_point(run, x), as_values(values, count)); }) &&
         all_finite(count, values);
}

// ---- Best point ---------------------------------------------------------------------------------

void offer_best(Shared& shared, const double* x, double crit) {
  BestPoint& best = shared.best;
  if (best.found && !(crit < best.crit)) return;
  best.found = true;
  best.crit = crit;
  best.x.assign(x, x + shared.problem.n);
}

static bool rows_hold(const Run& run, const double* x) {
  for (const OneSide& one : run.shared.constraints.rows) {
    const LinearRow& row = run.shared.problem.rows[static_cast<std::size_t>(one.source)];
    double sum = 0.0, size = std::fabs(one.side);
    for (std::size_t k = 0; k < row.columns.size(); ++k) {
      const double term = row.values[k] * x[row.columns[k]];
      sum += term;
      size += std::fabs(term);
    }
    const double slack = one.sign * (sum - one.side);
    const bool equality = row.lower == row.upper;
    if ((equality ? -std::fabs(slack) : slack) < -run.ceps * (1.0 + size)) return false;
  }
  return true;
}

// A value of the objective: the best so far, if its constraints hold. Nonlinear ones are evaluated
// before or after it, at the same point.
[[gnu::noinline]] static void note_objective(Run& run, const double* x, double crit) {
  if (!run.shared.constraints.rows.empty() && !rows_hold(run, x)) return;
  if (run.shared.constraints.nonlinear.empty()) return offer_best(run.shared, x, crit);
  if (std::equal(x, x + run.nvar, run.held.begin())) return offer_best(run.shared, x, crit);
  std::copy_n(x, run.nvar, run.pending.begin());
  run.pending.back() = crit;
}

static void note_constraints(Run& run, const double* x) {
  const Constraints& c = run.shared.constraints;
  for (std::size_t k = 0; k < c.nonlinear.size(); ++k) {
    const double value = run.fcon[k];
    const double tolerance = run.ceps * (1.0 + std::fabs(c.nonlinear[k].side));
    const bool equality = static_cast<long>(k) < c.nonlinear_equalities;
    if ((equality ? -std::fabs(value) : value) < -tolerance) return;
  }
  std::copy_n(x, run.nvar, run.held.begin());
  if (wzmis(run.pending.back()) || !std::equal(x, x + run.nvar, run.pending.begin())) return;
  offer_best(run.shared, x, run.pending.back());
  run.pending.back() = MISSING;
}

// ---- Objective ----------------------------------------------------------------------------------

static int scalar_objective(Run& run, const double* x) {
  double value = 0.0;
  const auto& objective = run.shared.problem.objective;
  if (!evaluate(run, run.shared.counts.objective, x, &value, 1,
                [&] { value = objective(as_point(run, x)); }) ||
      !std::isfinite(value))
    return FAILED;
  run.func[0] = run.crit = objective_to_record(run.shared.units, run.imax != 0 ? -value : value);
  return GOOD;
}

// Residuals into func, or for a technique that knows of no residuals into scratch, where they stay
// in the units of the user.
static int squares_objective(Run& run, const double* x) {
  const long m = run.shared.problem.m;
  double* f = run.squares ? run.func : run.values.data();
  const auto& residuals = run.shared.problem.residuals;
  if (!evaluate(run, run.shared.counts.objective, x, f, m,
                [&] { residuals(as_point(run, x), as_values(f, m)); }) ||
      !all_finite(m, f))
    return FAILED;
  const Units& units = run.shared.units;
  for (long i = 0; i < m && run.squares && units.residual != 1.0; ++i) f[i] /= units.residual;
  const int code = half_sum_of_squares(m, f, f, &run.crit);
  if (code != GOOD || run.squares) return code;
  run.func[0] = run.crit = objective_to_record(units, run.crit);
  return GOOD;
}

// The value at the start is often known already: the unit of the objective was chosen by it.
static bool start_is_asked(const Run& run) {
  return std::equal(run.x, run.x + run.nvar, run.start.begin());
}

static int end_at_start(Run& run) {
  run.crit = run.start_crit;
  if (run.start_code == GOOD && !run.squares) run.func[0] = run.crit;
  return end(&run, run.start_code);
}

static int constraints(MINSTR* str);
static int constraint_jacobian(MINSTR* str);

// The value of the Lagrangian in the place of the objective's.
static int lagrangian(Run& run) {
  const double crit = run.crit;
  run.crit = HUGE_VALUE;
  if (const int code = constraints(&run); code != GOOD) return code;
  run.func[0] = run.crit = crit - zvdot11(run.nnlc, run.lagrange.data(), run.fcon);
  return GOOD;
}

static int gradient_of_lagrangian(Run& run) {
  if (const int code = constraint_jacobian(&run); code != GOOD) return code;
  for (std::size_t k = 0; k < run.lagrange.size(); ++k)
    zvxay11(run.nvar, run.grad, -run.lagrange[k], run.jcon + static_cast<long>(k) * run.nvar);
  return GOOD;
}

// crit stands at the largest double while there is no value.
static int objective(MINSTR* str) {
  Run& run = run_of(str);
  if (run.in_differences_of_functions == 0 && run.indf < GRADIENT_STEP) ++run.nfct;
  if (std::exchange(run.start_is_known, false) && start_is_asked(run)) return end_at_start(run);
  run.tbig = 1.0;
  run.crit = HUGE_VALUE;
  const double* x = point(run);
  int code = FAILED;
  if (x != nullptr && run.fqad != 0) {
    run.crit = run.func[0] = quadratic_value(&run);
    code = std::isfinite(run.crit) ? GOOD : FAILED;
  } else if (x != nullptr) {
    const bool squares = run.shared.problem.kind == Kind::least_squares;
    code = squares ? squares_objective(run, x) : scalar_objective(run, x);
  }
  if (code != GOOD) [[unlikely]]
    return fail(run, code);
  run.tbig = 0.0;
  if (!run.lagrange.empty()) return lagrangian(run);
  const BestPoint& best = run.shared.best;
  const double crit = objective_to_user(run.shared.units, run.crit);
  if (!best.found || crit < best.crit) note_objective(run, x, crit);
  return GOOD;
}

// ---- Derivatives --------------------------------------------------------------------------------

// Differences in the place of what is not given. Services nest: those of a Hessian ask for
// gradients.
static int differences(Run& run, int digit) {
  const Callback service = difference_service(run.fidi, digit, run.supplied.gradient);
  const short outer_functions = std::exchange(run.in_differences_of_functions, short{1});
  const short outer_gradients = run.in_differences_of_gradients;
  if (digit == DIGIT_HESSIAN) run.in_differences_of_gradients = 1;
  const int code = service(&run);
  run.in_differences_of_functions = outer_functions;
  run.in_differences_of_gradients = outer_gradients;
  const bool finite = digit == DIGIT_CONSTRAINT_JACOBIAN ? all_finite(run.nnlc * run.nvar, run.jcon)
                                                         : all_finite(run.nvar, run.grad);
  return end(&run, code == 0 && finite ? GOOD : FAILED);
}

// A technique that knows of no residuals: the gradient J'f of their squares.
static bool gradient_of_squares(Run& run) {
  const ProblemData& problem = run.shared.problem;
  double* f = run.values.data();
  double* j = run.jacobian.data();
  Counts& counts = run.shared.counts;
  if (!fill(run, counts.objective, problem.residuals, f, problem.m)) return false;
  if (!fill(run, counts.gradient, problem.jacobian, j, problem.m * problem.n)) return false;
  crossproduct(problem.m, problem.n, j, f, run.grad, nullptr);
  return all_finite(run.nvar, run.grad);
}

static int gradient(MINSTR* str) {
  Run& run = run_of(str);
  if (!run.supplied.gradient) return differences(run, DIGIT_GRADIENT);
  if (run.in_differences_of_gradients == 0) ++run.ngrd;
  run.tbig = 1.0;
  const ProblemData& problem = run.shared.problem;
  bool good;
  if (run.fqad != 0) {
    quadratic_gradient(&run);
    good = all_finite(run.nvar, run.grad);
  } else if (problem.kind == Kind::least_squares) {
    good = gradient_of_squares(run);
  } else {
    good = fill(run, run.shared.counts.gradient, problem.gradient, run.grad, run.nvar);
  }
  if (!good) return fail(run, FAILED);
  const Units& units = run.shared.units;
  if (run.fqad == 0) slopes_to_record(units, units.objective, 1, run.nvar, run.grad);
  if (run.imax != 0) negate(run.grad, run.nvar);
  return run.lagrange.empty() ? end(&run, GOOD) : gradient_of_lagrangian(run);
}

// A full matrix by rows: what stands above the diagonal counts, as in the calling surface.
static void pack(const Run& run) {
  const long n = run.nvar;
  double* packed = run.hess;
  for (long i = 0; i < n; ++i)
    for (long j = 0; j <= i; ++j) *packed++ = run.second[static_cast<std::size_t>(j * n + i)];
}

static void scatter(const Run& run) {
  vzfdl(0.0, run.hess, hessian_length(&run));
  for (std::size_t k = 0; k < run.places.size(); ++k) run.hess[run.places[k]] = run.second[k];
}

// The elements of a Hessian as the user gave them, into the units of the record.
static void convert_second(Run& run) {
  const Units& units = run.shared.units;
  if (!units.are_own()) return;
  const ProblemData& problem = run.shared.problem;
  for (std::size_t k = 0; k < run.second.size(); ++k) {
    const auto place = static_cast<long>(k);
    const auto [i, j] = problem.pattern.has_value() ? problem.pattern->places[k]
                                                    : std::pair(place / run.nvar, place % run.nvar);
    run.second[k] = curvature_to_record(units, units.objective, i, j, run.second[k]);
  }
}

// The gradient belongs to the Hessian's point: techniques ask for both with one call.
static int hessian(MINSTR* str) {
  Run& run = run_of(str);
  if (run.fqad != 0) return gradient(str);  // the matrix stands in hess for the run
  if (run.fidi == 0) ++run.nhes;
  if (!run.supplied.hessian) {
    const int made = differences(run, DIGIT_HESSIAN);
    const bool usable = made != GOOD || all_finite(hessian_length(&run), run.hess);
    return usable ? made : end(&run, HESSIAN_NOT_USABLE);
  }
  if (gradient(str) != GOOD) return GRADIENT_OF_HESSIAN_FAILED;
  const long count = static_cast<long>(run.second.size());
  if (!fill(run, run.shared.counts.hessian, run.shared.problem.hessian, run.second.data(), count))
    return fail(run, HESSIAN_FAILED);
  convert_second(run);
  if (run.shared.problem.pattern.has_value())
    scatter(run);
  else
    pack(run);
  if (run.imax != 0) negate(run.hess, hessian_length(&run));
  return end(&run, GOOD);
}

// ---- Least squares ------------------------------------------------------------------------------

// The Jacobian stays where the user put it until the next one is asked for.
static int load_jacobian(Run& run, int digit, long* counter, double* packed) {
  if (run.in_differences_of_gradients == 0 && run.fidi == 0) ++*counter;
  if (!run.supplied.gradient) return differences(run, digit);
  let_go_jacobian(&run);
  run.tbig = 1.0;
  const long m = run.mequ, n = run.nvar;
  double* j = run.jacobian.data();
  if (!fill(run, run.shared.counts.gradient, run.shared.problem.jacobian, j, m * n))
    return fail(run, FAILED);
  slopes_to_record(run.shared.units, run.shared.units.residual, m, n, j);
  crossproduct(m, n, j, run.func, run.grad, packed);
  hold_jacobian(&run, j);
  return end(&run, GOOD);
}

static int gradient_by_jacobian(MINSTR* str) {
  return load_jacobian(run_of(str), DIGIT_GRADIENT, &str->ngrd, nullptr);
}
static int jacobian(MINSTR* str) {
  return load_jacobian(run_of(str), DIGIT_JACOBIAN, &str->nhes, nullptr);
}
static int crossproduct_of_jacobian(MINSTR* str) {
  Run& run = run_of(str);
  const int code = load_jacobian(run, DIGIT_CROSSPRODUCT, &str->nhes, str->hess);
  if (code != GOOD || !run.supplied.gradient || all_finite(str->nnva, str->hess)) return code;
  return end(str, NORM_TOO_LARGE);
}

// ---- Nonlinear constraints ----------------------------------------------------------------------

static int constraints(MINSTR* str) {
  Run& run = run_of(str);
  const Constraints& c = run.shared.constraints;
  if (c.nonlinear.empty()) return GOOD;
  if (run.indf < GRADIENT_STEP) ++run.nfnc;
  run.tbig = 1.0;
  const ProblemData& problem = run.shared.problem;
  double* values = c.as_given ? run.fcon : run.values.data();
  const long count = static_cast<long>(problem.c_lower.size());
  if (!fill(run, run.shared.counts.constraints, problem.constraints, values, count))
    return fail(run, FAILED);
  for (std::size_t k = 0; k < c.nonlinear.size() && !c.as_given; ++k) {
    const OneSide& one = c.nonlinear[k];
    run.fcon[k] = one.sign * (values[one.source] - one.side);
  }
  note_constraints(run, point(run));
  return end(str, GOOD);
}

static int constraint_jacobian(MINSTR* str) {
  Run& run = run_of(str);
  const Constraints& c = run.shared.constraints;
  if (c.nonlinear.empty()) return GOOD;
  if (!run.supplied.constraint_jacobian) return differences(run, DIGIT_CONSTRAINT_JACOBIAN);
  ++run.njnc;
  run.tbig = 1.0;
  const ProblemData& problem = run.shared.problem;
  const long n = run.nvar;
  double* values = c.as_given ? run.jcon : run.jacobian.data();
  const long count = static_cast<long>(problem.c_lower.size()) * n;
  if (!fill(run, run.shared.counts.constraint_jacobian, problem.constraint_jacobian, values, count))
    return fail(run, FAILED);
  slopes_to_record(run.shared.units, 1.0, count / n, n, values);
  for (std::size_t k = 0; k < c.nonlinear.size() && !c.as_given; ++k) {
    const OneSide& one = c.nonlinear[k];
    for (long j = 0; j < n; ++j)
      run.jcon[static_cast<long>(k) * n + j] = one.sign * values[one.source * n + j];
  }
  return end(str, GOOD);
}

// ---- Termination --------------------------------------------------------------------------------

static double step_of(const Run& run) { return run.alfa > 0.0 ? run.alfa : MISSING; }

// Room for the iterations of most runs, so that small ones do not spend their time on growth.
static void reserve(History& history) {
  static constexpr std::size_t MOST = 64;
  history.iteration.reserve(MOST);
  history.calls.reserve(MOST);
  for (auto* column : {&history.objective, &history.gradient, &history.violation, &history.step})
    column->reserve(MOST);
}

static void keep_iteration(Run& run, const Progress& at) {
  History& history = run.shared.history;
  if (history.iteration.empty()) reserve(history);
  history.iteration.push_back(at.iteration);
  history.calls.push_back(at.calls);
  history.objective.push_back(at.objective);
  history.gradient.push_back(at.gradient);
  history.violation.push_back(at.violation);
  history.step.push_back(step_of(run));
}

// But for the time: the history does not need it.
static Progress progress_of(Run& run) {
  const Units& units = run.shared.units;
  Progress at;
  at.iteration = run.shared.iterations_before + static_cast<long>(run.nitr);
  at.calls = run.shared.calls_before + run.nfct;
  const double crit = wzmis(run.crit) ? run.crit : objective_to_user(units, run.crit);
  at.objective = run.imax != 0 ? -crit : crit;
  const double slope = run.nlicon != 0 ? run.gmlf : run.gmax;
  at.gradient = is_simplex(run.tech) || wzmis(slope) ? MISSING : objective_to_user(units, slope);
  at.violation = run.nlicon != 0 ? run.cmax : 0.0;
  if (!run.shown.empty()) point_to_user(units, run.nvar, run.x, run.shown.data());
  at.x = as_point(run, run.shown.empty() ? run.x : run.shown.data());
  return at;
}

// The test of the library, and after an iteration the look of the caller. An exception of his ends
// the run like one of a function.
static int terminate(MINSTR* str, int job) {
  Run& run = run_of(str);
  Shared& shared = run.shared;
  if (shared.interrupted) return MODULE_FAILED;
  if (shared.stopped) return STOPPED_BY_CALLER;
  const int code = znlptrm(str, job);
  const bool iteration = job == TEST_START || (job > 0 && job % 2 == 1);
  if (!iteration) return code;
  if (code != GOOD)
    shared.recall.start();
  else if (job != TEST_START)
    shared.recall.stop();
  Progress at = progress_of(run);
  keep_iteration(run, at);
  if (shared.options.progress == nullptr || job == TEST_START) return code;
  at.seconds = zdattim() - shared.began;
  try {
    if (shared.options.progress(at)) return code;
    shared.stopped = true;
    str->tcod = STOPPED_BY_CALLER;
    return STOPPED_BY_CALLER;
  } catch (...) {
    shared.keep_exception();
    return MODULE_FAILED;
  }
}

void set_callbacks(Run& run) {
  run.usfct = objective;
  run.uster = terminate;
  if (!run.shared.constraints.nonlinear.empty()) run.usnlc = constraints;
  if (is_simplex(run.tech)) return;
  run.usgrd = run.squares ? gradient_by_jacobian : gradient;
  if (run.squares) {
    run.usjac = jacobian;
    run.ushes = crossproduct_of_jacobian;
  } else if (run.ider == 4 || (run.load != 0 && run.tech != CONGRA)) {
    run.ushes = hessian;
  }
  if (run.usnlc != nullptr) run.usjnc = constraint_jacobian;
}

}  // namespace tqnlp::face
