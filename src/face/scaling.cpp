// The choice of the units of a record.
//
// Parameters  their sizes are what the user says, or what his start and bounds show; units of their
//             own are taken only where these sizes are far apart or far from 1. A quadratic shows
//             the sizes of its parameters itself: the distances over which each changes it alike.
// Objective   its size is how much it changes over a part of the parameters' sizes around the
//             start. Its value says little, since a constant may hide in it; but a value of
//             moderate size is not looked at further, so that a run costs no call more.
#include "face/scaling.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "face/run.h"

namespace tqnlp::face {

double power_of_two(double size) {
  if (!(size > 0.0) || !std::isfinite(size)) return 1.0;
  return std::exp2(std::round(std::log2(size)));
}

void slopes_to_record(const Units& units, double unit, long rows, long n, double* values) {
  if (units.parameter.empty() && unit == 1.0) return;
  for (long i = 0; i < rows; ++i)
    for (long j = 0; j < n; ++j, ++values) *values = slope_to_record(units, unit, j, *values);
}

// ---- Tables -------------------------------------------------------------------------------------

// What a number of a column is multiplied by; parameter below 0: the row has none.
static double unit_of_column(const Units& units, const std::string& column, long parameter) {
  if (column == "OptCrit" || column == "DifCrit") return units.objective;
  if (parameter < 0) return 1.0;
  if (column == "Estimate" || column == "LowerBC" || column == "UpperBC")
    return units.of(parameter);
  return column == "GradObj" ? units.objective / units.of(parameter) : 1.0;
}

void estimates_to_user(const Units& units, std::span<Table> tables) {
  for (Table& table : tables) {
    const auto number = static_cast<std::size_t>(std::ranges::find(table.columns, "Number") -
                                                 table.columns.begin());
    for (auto& row : table.rows) {
      const long* count = number < row.size() ? std::get_if<long>(&row[number]) : nullptr;
      const long parameter =
          table.name == "ParameterEstimates" && count != nullptr ? *count - 1 : -1;
      for (std::size_t k = 0; k < row.size(); ++k) {
        auto* value = std::get_if<double>(&row[k]);
        if (value != nullptr && !is_missing(*value))
          *value *= unit_of_column(units, table.columns[k], parameter);
      }
    }
  }
}

// ---- Parameters ---------------------------------------------------------------------------------

void check_scale(const ProblemData& problem, const Options& options) {
  if (options.scale.empty() || options.scale.size() == static_cast<std::size_t>(problem.n)) return;
  refuse("Options::scale", std::to_string(options.scale.size()) + " elements",
         std::to_string(problem.n));
}

// By the start, or where it is 0 by a small box; 0: nothing is known. A small start may also stand
// near the 0 of a parameter of any size, which the check of the result finds out.
static double size_of(double start, double lower, double upper) {
  if (start != 0.0) return std::fabs(start);
  const bool box = lower_exists(lower) && upper_exists(upper);
  const double most = std::max(std::fabs(lower), std::fabs(upper));
  return box && most < 1.0 ? most : 0.0;
}

static std::vector<double> sizes_of(const Constraints& c, const std::vector<double>& start) {
  // A zero that was computed, such as sin(pi) among ordinary numbers, is none but for rounding.
  static constexpr double ROUNDING = 1e-14;
  double largest = 0.0;
  for (const double x : start) largest = std::max(largest, std::fabs(x));
  std::vector<double> sizes;
  for (std::size_t j = 0; j < start.size(); ++j) {
    const double known = std::fabs(start[j]) > ROUNDING * largest ? start[j] : 0.0;
    sizes.push_back(size_of(known, c.lower[j], c.upper[j]));
  }
  return sizes;
}

// Parameters that change a quadratic alike: the roots of the reciprocal elements of its diagonal.
static std::vector<double> sizes_of_quadratic(const ProblemData& problem) {
  std::vector<double> diagonal(static_cast<std::size_t>(problem.n), 0.0);
  for (const Element& e : problem.h->elements())
    if (e.row == e.col) diagonal[static_cast<std::size_t>(e.row)] = std::fabs(e.value);
  for (long j = 0; j < problem.n && !problem.h->is_sparse(); ++j)
    diagonal[static_cast<std::size_t>(j)] =
        std::fabs(problem.h->dense()[static_cast<std::size_t>(j * problem.n + j)]);
  for (double& element : diagonal) element = element > 0.0 ? 1.0 / std::sqrt(element) : 0.0;
  return diagonal;
}

// Sizes with which a technique does well in the user's units.
static bool are_moderate(const std::vector<double>& sizes) {
  static constexpr double SMALL = 1e-4, LARGE = 1e4;
  return std::ranges::all_of(
      sizes, [](double size) { return size == 0.0 || (size >= SMALL && size <= LARGE); });
}

// Powers of two near sizes; none when all are 1. What is not known stays in the user's unit.
static std::vector<double> units_by(std::vector<double> sizes) {
  for (double& size : sizes) size = power_of_two(size);
  if (std::ranges::all_of(sizes, [](double size) { return size == 1.0; })) sizes.clear();
  return sizes;
}

void choose_units(Shared& shared, const std::vector<double>& start) {
  const ProblemData& problem = shared.problem;
  const Options& options = shared.options;
  shared.sizes = options.scale.empty() ? sizes_of(shared.constraints, start) : options.scale;
  if (options.scaling == Scaling::off) return;
  shared.unit_is_open = true;
  if (!options.scale.empty())
    shared.units.parameter = units_by(options.scale);
  else
    learn_sizes(shared,
                problem.kind == Kind::quadratic ? sizes_of_quadratic(problem) : shared.sizes);
}

void learn_sizes(Shared& shared, const std::vector<double>& sizes) {
  const bool may = shared.options.scaling == Scaling::automatic && shared.options.scale.empty();
  if (may && !are_moderate(sizes)) shared.units.parameter = units_by(sizes);
}

void grow_sizes(Shared& shared, const std::vector<double>& least) {
  for (std::size_t j = 0; j < least.size(); ++j)
    shared.sizes[j] = std::max(shared.sizes[j], least[j]);
  shared.units.parameter = units_by(shared.sizes);
}

std::vector<double> units_near(const Shared& shared, const std::vector<double>& x) {
  static constexpr double SMALL = 1e-3;
  std::vector<double> sizes;
  for (std::size_t j = 0; j < x.size(); ++j) {
    const bool known = j < shared.sizes.size() && shared.sizes[j] > 0.0;
    const double typical = known ? shared.sizes[j] : 1.0;
    sizes.push_back(std::fabs(x[j]) >= SMALL * typical ? std::fabs(x[j]) : typical);
  }
  return units_by(std::move(sizes));
}

double unit_of_row(const Units& units, const LinearRow& row) {
  if (units.parameter.empty()) return 1.0;
  double largest = 0.0;
  for (std::size_t k = 0; k < row.columns.size(); ++k)
    largest = std::max(largest, std::fabs(row.values[k]) * units.of(row.columns[k]));
  return power_of_two(largest);
}

// ---- Objective ----------------------------------------------------------------------------------

// The value at the start, kept for the run's own first call.
static bool evaluate_start(Run& run) {
  run.indf = AT_START;
  run.start_code = run.usfct(&run);
  run.start_crit = run.crit;
  run.start.assign(run.x, run.x + run.nvar);
  run.start_is_known = true;
  return run.start_code == 0;
}

// The largest change of the objective at two points near the start, a hundredth of the parameters'
// sizes away, in directions in which no objective is constant by design.
static double change_near_start(Run& run) {
  static constexpr double PART = 0.01;
  static constexpr double GOLDEN = 0.6180339887498949;
  double change = 0.0;
  for (const double side : {PART, -PART}) {
    for (long j = 0; j < run.nvar; ++j) {
      const double x = run.start[static_cast<std::size_t>(j)];
      const double size = std::max(std::fabs(x), 1.0);
      run.x[j] = x + side * size * (0.5 + std::fmod(GOLDEN * static_cast<double>(j + 1), 1.0));
    }
    if (run.usfct(&run) == 0) change = std::max(change, std::fabs(run.crit - run.start_crit));
  }
  std::copy(run.start.begin(), run.start.end(), run.x);
  return change / PART;
}

// Techniques that take the length of the gradient for that of a step. The others go on better with
// an objective that is large only because its start is far.
static bool suffers_from_large_objectives(const TechniqueRow& row) {
  return row.technique == Technique::watchdog || row.technique == Technique::newton_line_search_2;
}

// 0: the objective is of moderate size. A value much below the changes around it is that of a start
// near a minimum at 0, where the changes count.
static double unusual_size(Run& run) {
  static constexpr double SMALL = 1e-6;
  static constexpr double NEAR_ZERO = 1e-3;
  const double large = suffers_from_large_objectives(run.row) ? 1e8 : HUGE_VALUE;
  const bool known = evaluate_start(run);
  const double value = std::fabs(run.start_crit);
  if (!known || (value >= SMALL && value <= large)) return 0.0;
  const double change = change_near_start(run);
  const double size = value > NEAR_ZERO * change ? std::min(value, change) : change;
  return change < SMALL || size > large ? size : 0.0;
}

bool choose_objective_unit(Run& run) {
  Shared& shared = run.shared;
  if (!std::exchange(shared.unit_is_open, false)) return false;
  run.in_differences_of_functions = 1;  // the run does not count these calls
  const double size = unusual_size(run);
  run.in_differences_of_functions = 0;
  if (size == 0.0) return false;
  shared.units.residual = power_of_two(std::sqrt(size));
  shared.units.objective = shared.units.residual * shared.units.residual;
  return true;
}

}  // namespace tqnlp::face
