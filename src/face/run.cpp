// A run from the problem to the end of the driver: the record filled, its arrays taken, constraints
// and start loaded.
#include "face/run.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "aasubs/driver/znlpdrv.h"
#include "aasubs/post/znlpspm.h"
#include "aasubs/setup/constraint_rows.h"
#include "aasubs/setup/defaults.h"
#include "aasubs/setup/hessian_form.h"
#include "aasubs/setup/run_arrays.h"
#include "face/options.h"
#include "host/log.h"
#include "host/process.h"
#include "host/tables.h"
#include "kernels/vector.h"

namespace tqnlp::face {

Run::Run(Shared& s, const TechniqueRow& r) : MINSTR{}, shared(s), row(r) {}

Run::~Run() {
  release_arrays(this);
  if (rvx != nullptr) wobmth(rvx, 0, RvxMethod::close, {});
}

// ---- Kind, constraints, derivatives -------------------------------------------------------------

// Names of linear and nonlinear constraints, one behind the other at equal lengths.
static void name_constraints(Run& run) {
  const ProblemData& problem = run.shared.problem;
  std::vector<std::string> names;
  for (const OneSide& row : run.shared.constraints.rows)
    names.push_back(problem.rows[static_cast<std::size_t>(row.source)].name);
  for (const OneSide& one : run.shared.constraints.nonlinear)
    names.push_back(
        problem.c_names.empty() ? "" : problem.c_names[static_cast<std::size_t>(one.source)]);
  std::size_t longest = 0;
  for (const std::string& name : names) longest = std::max(longest, name.size());
  if (longest == 0) return;
  for (std::string& name : names) run.constraint_names += name.append(longest - name.size(), ' ');
  run.cnam = run.constraint_names.data();
  run.maxcnam = static_cast<int>(longest);
}

static void set_kind(Run& run) {
  const ProblemData& problem = run.shared.problem;
  default_start(&run, run.row.tech, run.row.ider, problem.n);
  run.imax = problem.maximize ? 1 : 0;
  run.squares = run.row.squares;
  if (run.squares) {
    run.lsqu = 1;
    run.mequ = run.mfun = problem.m;
  }
  for (const std::string& name : problem.names) run.names.push_back(name.c_str());
  if (!run.names.empty()) run.pnam = run.names.data();
  name_constraints(run);
}

// Counts; those of bounds are upper limits until complete_constraints has looked.
static void count_constraints(Run& run) {
  const Constraints& c = run.shared.constraints;
  const bool simplex = run.row.job == SETTINGS_SIMPLEX;
  run.bounds = c.bounds ? 1 : 0;
  run.ncon = static_cast<long>(c.rows.size());
  run.neqc = c.row_equalities;
  run.nnlc = static_cast<long>(c.nonlinear.size());
  run.nlec = c.nonlinear_equalities;
  run.lincon = run.ncon > 0 ? 1 : 0;
  run.nlicon = run.nnlc > 0 ? 1 : 0;
  long sides = 0;
  for (std::size_t j = 0; j < c.lower.size(); ++j)
    sides += (lower_exists(c.lower[j]) ? 1 : 0) + (upper_exists(c.upper[j]) ? 1 : 0);
  run.ntco = run.ncon + run.nnlc + sides;
  if (simplex) run.ntco += run.neqc + run.nlec;
  // COBYLA meets every constraint in its own way, bounds included.
  const bool any = run.lincon != 0 || run.bounds != 0;
  if (run.row.technique == Technique::cobyla && any) run.nlicon = 1;
  run.opro = !simplex && (run.lincon != 0 || run.nlicon != 0) ? 1 : 0;
  if (run.tech == VMCWD) run.opro = 1;
  if (run.row.technique == Technique::quadratic_barrier) run.opro = 0;  // a frame of its own
}

static void set_derivatives(Run& run, bool central) {
  const ProblemData& problem = run.shared.problem;
  const Options& options = run.shared.options;
  Supplied& supplied = run.supplied;
  supplied.gradient = problem.gradient != nullptr || problem.jacobian != nullptr;
  supplied.hessian = supplied.gradient && problem.hessian != nullptr;
  supplied.constraints = !run.shared.constraints.nonlinear.empty();
  supplied.constraint_jacobian = supplied.constraints && problem.constraint_jacobian != nullptr;
  if (!run.lagrange.empty()) {  // derivatives of both parts, or of none
    supplied.gradient = supplied.gradient && supplied.constraint_jacobian;
    supplied.hessian = false;
  }
  if (run.row.job == SETTINGS_SIMPLEX || run.row.quadratic) return;
  const int choice = central ? 1 : 0;
  const bool load = options.start_from_hessian.value_or(false);
  run.fidi = run.squares         ? least_squares_digits(supplied, choice)
             : run.row.ider == 4 ? second_order_digits(supplied, choice)
                                 : first_order_digits(supplied, choice, load);
  const bool second_order_with_constraints = run.row.ider == 4 && supplied.constraints;
  if (second_order_with_constraints)
    run.fidi += first_order_digits({true, true, true, supplied.constraint_jacobian}, choice, false);
  if (!options.estimate_intervals) return;
  static constexpr int OF_OBJECTIVE = 1, OF_CONSTRAINTS = 2;
  if (!supplied.gradient) run.cfdh |= OF_OBJECTIVE;
  if (supplied.constraints && !supplied.constraint_jacobian) run.cfdh |= OF_CONSTRAINTS;
}

// Tests of what the user supplies: gradient or Jacobian, and the Hessian with it.
static void set_checks(Run& run) {
  const bool without = run.row.job == SETTINGS_SIMPLEX;
  if (!run.shared.options.check_derivatives || !run.supplied.gradient || without) return;
  run.gchk = run.supplied.hessian && run.row.ider == 4 ? 2 : 1;
}

// ---- Form of the Hessian ------------------------------------------------------------------------

[[noreturn]] static void out_of_memory() { xexit(EXIT_NO_MEMORY, 0); }

static void choose_form(Run& run, std::vector<double>& values, int kind, std::size_t count) {
  run.hess = values.data();  // read only
  const int result = znlpspm(&run, 0, 0, kind, static_cast<long>(count));
  run.hess = nullptr;
  if (result < 0) out_of_memory();
}

// Places count from 1. Of a quadratic the values are known, and of a Hessian none is.
static void choose_sparse_form(Run& run) {
  const ProblemData& problem = run.shared.problem;
  std::vector<double> triples;
  for (const auto& [i, j] : problem.pattern->places) {
    triples.push_back(static_cast<double>(i) + 1.0);
    triples.push_back(static_cast<double>(j) + 1.0);
    triples.push_back(1.0);
  }
  choose_form(run, triples, SPM_PLACES, problem.pattern->places.size());
}

// Element (i, j) of the dense matrix of a quadratic, the middle of its two values.
static double element_of_quadratic(const Run& run, long i, long j) {
  const std::vector<double>& by_rows = run.shared.problem.h->dense();
  const double lower = by_rows[static_cast<std::size_t>(i * run.nvar + j)];
  const double upper = by_rows[static_cast<std::size_t>(j * run.nvar + i)];
  const double middle = lower == upper ? lower : 0.5 * (lower + upper);
  const Units& units = run.shared.units;
  return curvature_to_record(units, units.objective, i, j, middle);
}

static void choose_dense_form(Run& run) {
  std::vector<double> packed;
  for (long i = 0; i < run.nvar; ++i)
    for (long j = 0; j <= i; ++j) packed.push_back(element_of_quadratic(run, i, j));
  choose_form(run, packed, SPM_PACKED, 0);
}

static void set_hessian_form(Run& run) {
  const ProblemData& problem = run.shared.problem;
  if (run.row.quadratic) {
    run.fqad = 2;
    if (problem.pattern.has_value())
      choose_sparse_form(run);
    else
      choose_dense_form(run);
    return;
  }
  // The curvature of constraints has elements elsewhere.
  if (problem.pattern.has_value() && run.row.ider == 4 && run.lagrange.empty())
    choose_sparse_form(run);
}

// Where the elements of a sparse Hessian stand.
static void find_places(Run& run) {
  for (const auto& [i, j] : run.shared.problem.pattern->places)
    run.places.push_back(hessian_place(&run, std::max(i, j), std::min(i, j)));
}

// The matrix and linear term of a quadratic, as they are minimized.
static void load_quadratic(Run& run) {
  const ProblemData& problem = run.shared.problem;
  const Units& units = run.shared.units;
  vzfdl(0.0, run.hess, hessian_length(&run));
  if (problem.pattern.has_value()) {
    find_places(run);
    for (std::size_t k = 0; k < run.places.size(); ++k) {
      const Element& element = problem.h->elements()[k];
      run.hess[run.places[k]] =
          curvature_to_record(units, units.objective, element.row, element.col, element.value);
    }
  } else {
    for (long i = 0; i < run.nvar; ++i)
      for (long j = 0; j <= i; ++j) {
        const double value = element_of_quadratic(run, i, j);
        const long place = value != 0.0 ? hessian_place(&run, i, j) : -1;
        if (place >= 0) run.hess[place] = value;
      }
  }
  run.qlin = 1;
  run.qcon = objective_to_record(units, problem.c);
  std::copy(problem.g.begin(), problem.g.end(), run.qvec);
  slopes_to_record(units, units.objective, 1, run.nvar, run.qvec);
}

// ---- Arrays -------------------------------------------------------------------------------------

static void take_scratch(Run& run) {
  const ProblemData& problem = run.shared.problem;
  const Constraints& c = run.shared.constraints;
  const auto n = static_cast<std::size_t>(problem.n);
  const std::size_t m =
      problem.kind == Kind::least_squares ? static_cast<std::size_t>(problem.m) : 0;
  const std::size_t given = problem.c_lower.size();
  const bool other_units = !run.shared.units.parameter.empty();
  if (c.bounds || other_units) run.inside.resize(n);
  if (other_units) run.shown.resize(n);
  if (!c.nonlinear.empty()) {
    run.pending.assign(n + 1, MISSING);
    run.held.assign(n, MISSING);
  }
  run.values.resize(std::max(run.squares ? 0 : m, c.as_given ? 0 : given));
  const std::size_t own = problem.jacobian != nullptr ? m : 0;
  const bool scattered = !c.as_given && run.supplied.constraint_jacobian;
  run.jacobian.resize(std::max(own, scattered ? given : 0) * n);
  if (!run.supplied.hessian || run.ushes == nullptr || run.fqad != 0) return;
  run.second.resize(problem.pattern.has_value() ? problem.pattern->places.size() : n * n);
  if (problem.pattern.has_value()) find_places(run);
}

static void load_bounds(Run& run) {
  const Constraints& c = run.shared.constraints;
  if (run.bounds == 0) return;
  const Units& units = run.shared.units;
  for (long j = 0; j < run.nvar; ++j) {
    const auto place = static_cast<std::size_t>(j);
    const double lower = c.lower[place], upper = c.upper[place];
    run.lb[j] = lower_exists(lower) ? lower / units.of(j) : lower;
    run.ub[j] = upper_exists(upper) ? upper / units.of(j) : upper;
  }
}

static void load_rows(Run& run) {
  const Constraints& c = run.shared.constraints;
  const Units& units = run.shared.units;
  long stored = 0;
  for (std::size_t i = 0; i < c.rows.size(); ++i) {
    const LinearRow& row = run.shared.problem.rows[static_cast<std::size_t>(c.rows[i].source)];
    const double unit = unit_of_row(units, row);
    for (std::size_t k = 0; k < row.columns.size(); ++k) {
      run.alcn[stored] =
          slope_to_record(units, unit, row.columns[k], c.rows[i].sign * row.values[k]);
      run.jalc[stored++] = row.columns[k];
    }
    run.blcn[i] = c.rows[i].sign * c.rows[i].side / unit;
    run.naco[i] = stored;
  }
}

static void make_report(Run& run) {
  const RvxArg manager[] = {"rvx", "manager", static_cast<long>(OPTIMIZATION)};
  if (xobinit(&run.rvx, 0) != 0 || wobmth(run.rvx, 0, RvxMethod::manager, manager) != 0)
    out_of_memory();
}

static void prepare(Run& run, const std::vector<double>& start, bool central, bool silent) {
  set_kind(run);
  count_constraints(run);
  set_derivatives(run, central);
  apply_options(run.shared.options, run.row, &run);
  convert_options(run.shared.options, run.shared.units, &run);
  if (silent) run.dbug = run.cfdh = 0;  // intervals are estimated in the course of a run
  set_checks(run);
  set_callbacks(run);
  set_hessian_form(run);
  ArrayRequest request{"solve", run.shared.constraints.nonzeros};
  request.jacobian_supplied = run.supplied.gradient;
  request.triples = true;  // a matrix that the user holds in memory does not go to a file
  if (allocate_arrays(&run, request) != 0) out_of_memory();
  take_scratch(run);
  if (run.fqad != 0) load_quadratic(run);
  point_to_record(run.shared.units, run.nvar, start.data(), run.x);
  if (run.tech == DBLDOG) vzfdl(1.0, run.dsca, run.nvar);
  load_bounds(run);
  load_rows(run);
  if (run.bounds != 0 || run.lincon != 0)
    complete_constraints(&run, run.row.job == SETTINGS_SIMPLEX);
}

void prepare_run(Run& run, const std::vector<double>& start) {
  make_report(run);
  prepare(run, start, run.shared.options.differences == Differences::central, false);
}

void prepare_evaluations(Run& run, const std::vector<double>& start) {
  prepare(run, start, true, true);
}

// A constraint with two sides has one multiplier, and its second row none.
std::vector<double> lagrange_of(const Shared& shared, const std::vector<double>& multipliers) {
  const double sign = shared.problem.maximize ? -1.0 : 1.0;
  std::vector<double> left = multipliers, lagrange;
  for (const OneSide& one : shared.constraints.nonlinear) {
    const double multiplier = std::exchange(left[static_cast<std::size_t>(one.source)], 0.0);
    lagrange.push_back(objective_to_record(shared.units, sign * one.sign * multiplier));
  }
  return lagrange;
}

// ---- The driver ---------------------------------------------------------------------------------

int drive(Run& run) {
  static constexpr int START_REPORT = 1, FUNCTION_DETAIL = 2;
  const bool functions = run.squares && run.dbug > 4.0;
  const int detail = functions ? FUNCTION_DETAIL : 0;
  const int report = (run.dbug > 2.0 ? START_REPORT : 0) + detail;
  const bool checks = run.shared.options.check_derivatives;
  const bool gradient = run.supplied.gradient && run.usgrd != nullptr;
  const int gradient_test = !gradient ? 0 : run.squares ? 2 : 1;
  const bool jacobian = run.supplied.constraint_jacobian && run.usjnc != nullptr;
  const int constraint_test = checks && jacobian ? 1 : 0;
  int code = znlpdrv(&run, 1, report, gradient_test, constraint_test);
  if (code >= 0 && !run.shared.interrupted) code = znlpdrv(&run, 2, detail, 0, 0);
  if (run.rvx != nullptr) wobmth(run.rvx, 0, RvxMethod::close, {});
  run.rvx = nullptr;
  return code;
}

}  // namespace tqnlp::face
