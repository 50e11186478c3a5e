// Options into the record: one table says which field each option sets and what it may be.
#include "face/options.h"

#include <algorithm>
#include <span>

#include "aasubs/setup/defaults.h"

namespace tqnlp::face {

namespace {

// A number, the field that it sets, and its range: from lowest on (or above it, when open) to
// highest.
struct NumberOption {
  const char* name;
  std::optional<double> Options::*value;
  double MINSTR::*field;
  double lowest;
  double highest;
  bool open = false;
};

struct ChoiceOption {
  const char* name;
  std::optional<int> Options::*value;
  int MINSTR::*field;
  int lowest;
  int highest;
};

}  // namespace

static constexpr NumberOption CRITERIA_AND_LIMITS[] = {
    {"objective_target", &Options::objective_target, &MINSTR::atol, -inf, inf},
    {"objective_tolerance", &Options::objective_tolerance, &MINSTR::aftl, 0, inf},
    {"gradient_tolerance", &Options::gradient_tolerance, &MINSTR::agtl, 0, inf},
    {"step_tolerance", &Options::step_tolerance, &MINSTR::axtl, 0, inf},
    {"relative_objective_tolerance", &Options::relative_objective_tolerance, &MINSTR::ftol, 0, inf},
    {"predicted_reduction_tolerance", &Options::predicted_reduction_tolerance, &MINSTR::fto2, 0,
     inf},
    {"relative_gradient_tolerance", &Options::relative_gradient_tolerance, &MINSTR::gtol, 0, inf},
    {"scaled_gradient_tolerance", &Options::scaled_gradient_tolerance, &MINSTR::gto2, 0, inf},
    {"relative_step_tolerance", &Options::relative_step_tolerance, &MINSTR::xtol, 0, inf},
    {"objective_size", &Options::objective_size, &MINSTR::fsiz, 0, inf},
    {"parameter_size", &Options::parameter_size, &MINSTR::xsiz, 0, inf},
    {"iterations", &Options::iterations, &MINSTR::maxi, 0, inf},
    {"calls", &Options::calls, &MINSTR::maxf, 0, inf},
    {"seconds", &Options::seconds, &MINSTR::upti, 0, inf},
};

static constexpr NumberOption PARAMETERS[] = {
    {"objective_digits", &Options::objective_digits, &MINSTR::fdig, 0, 40, true},
    {"constraint_digits", &Options::constraint_digits, &MINSTR::cdig, 0, 40, true},
    {"initial_hessian", &Options::initial_hessian, &MINSTR::dhes, 0, 1e100, true},
    {"first_step", &Options::first_step, &MINSTR::salf, 0, 1e100, true},
    {"step_damping", &Options::step_damping, &MINSTR::damp, 0, 1e100, true},
    {"line_search_accuracy", &Options::line_search_accuracy, &MINSTR::sigm, 0, 1, true},
    {"restart_after", &Options::restart_after, &MINSTR::nres, 1, inf},
    {"feasibility_tolerance", &Options::feasibility_tolerance, &MINSTR::ceps, 0, 1},
    {"singularity_tolerance", &Options::singularity_tolerance, &MINSTR::sing, 0, 1},
    {"dependence_tolerance", &Options::dependence_tolerance, &MINSTR::ldct, 0, 0.1},
};

static constexpr ChoiceOption METHOD[] = {
    {"update", &Options::update, &MINSTR::tupd, 1, 4},
    {"line_search", &Options::line_search, &MINSTR::tlin, 1, 12},
    {"hessian_scaling", &Options::hessian_scaling, &MINSTR::hesc, 0, 3},
    {"version", &Options::version, &MINSTR::vers, 1, 2},
};

static constexpr int LAST_OF_GENERAL = 8, OF_LEAST_SQUARES = 12;  // line searches

// ---- Ranges -------------------------------------------------------------------------------------

static void check_number(const Options& options, const NumberOption& row) {
  const std::optional<double>& value = options.*row.value;
  if (!value.has_value()) return;
  const bool inside = *value >= row.lowest && *value <= row.highest;  // false for a NaN
  if (inside && !(row.open && *value == row.lowest)) return;
  const std::string range = std::string("a number from ") + shown(row.lowest) + " to " +
                            shown(row.highest) + (row.open ? ", above the first" : "");
  refuse(std::string("Options::") + row.name, shown(*value), range);
}

void check_options(const Options& options) {
  for (const NumberOption& row : CRITERIA_AND_LIMITS) check_number(options, row);
  for (const NumberOption& row : PARAMETERS) check_number(options, row);
  for (const ChoiceOption& row : METHOD) {
    const std::optional<int>& value = options.*row.value;
    if (!value.has_value() || (*value >= row.lowest && *value <= row.highest)) continue;
    refuse(std::string("Options::") + row.name, std::to_string(*value),
           std::to_string(row.lowest) + " to " + std::to_string(row.highest));
  }
  const int search = options.line_search.value_or(1);
  if (search > LAST_OF_GENERAL && search != OF_LEAST_SQUARES)
    refuse("Options::line_search", std::to_string(search), "1 to 8, or 12 for least squares");
  static constexpr double SMALLEST = 1e-100, LARGEST = 1e100;
  for (const double size : options.scale)
    if (!(size >= SMALLEST && size <= LARGEST))
      refuse("Options::scale", shown(size), "numbers from 1e-100 to 1e+100");
  if (options.scaling == Scaling::off && !options.scale.empty())
    refuse("Options::scale", "sizes, with Options::scaling off", "no sizes, or scaling");
  static constexpr int MOST_DETAIL = 9;
  if (options.report < 0 || options.report > MOST_DETAIL)
    refuse("Options::report", std::to_string(options.report), "0 to 9");
}

// ---- Into the record ----------------------------------------------------------------------------

// Limits and tolerances that are infinite are the largest number: never reached, or always met.
static void set_numbers(std::span<const NumberOption> rows, const Options& options, MINSTR* str) {
  for (const NumberOption& row : rows) {
    const std::optional<double>& value = options.*row.value;
    if (value.has_value()) str->*row.field = std::clamp(*value, -HUGE_VALUE, HUGE_VALUE);
  }
}

// Only second-order techniques, least squares and the double dogleg scale.
static void set_method(const Options& options, const TechniqueRow& row, MINSTR* str) {
  str->vers = DEFAULT_VERSION;
  if (row.job == SETTINGS_SIMPLEX) return;
  default_method(str, row.squares);
  for (const ChoiceOption& choice : METHOD) {
    const std::optional<int>& value = options.*choice.value;
    if (value.has_value()) str->*choice.field = *value;
  }
  str->load = options.start_from_hessian.value_or(false) ? 1 : 0;
  if (row.technique == Technique::quadratic_barrier) str->vers = 1;
  limit_method(str);
  const bool updates_a_factor = row.tech == QUANEW || row.tech == QUANEW_DUAL || row.tech == DBLDOG;
  if (updates_a_factor && str->tupd > 2) str->tupd -= 2;
  const bool scales = row.ider != 1 || row.tech == DBLDOG;
  if (!scales) str->hesc = 0;
}

void apply_options(const Options& options, const TechniqueRow& row, MINSTR* str) {
  str->dbug = options.report > 0 ? options.report + 1.0 : 0.0;
  if (str->dbug > 9.0) str->dbug = 9.0;
  set_method(options, row, str);
  default_parameters(str, row.job);
  set_numbers(PARAMETERS, options, str);
  limit_parameters(str);
  default_limits(str, row.job);
  default_criteria(str, row.job);
  set_numbers(CRITERIA_AND_LIMITS, options, str);
  static constexpr double NOISE_RADIUS = 0.1;
  if (options.leave_saddles) str->rtop = NOISE_RADIUS;
  default_sparse_form(str);
  if (!row.quadratic && row.tech != NEWRAP) str->ratio = 0.0;  // who else has no sparse factor
  choose_methods(str);
}

void convert_options(const Options& options, const Units& units, MINSTR* str) {
  if (!units.are_own()) return;
  double least = 1.0, most = 1.0;
  if (!units.parameter.empty()) {
    const auto [lowest, highest] = std::ranges::minmax(units.parameter);
    least = lowest;
    most = highest;
  }
  if (options.objective_target.has_value()) str->atol /= units.objective;
  str->aftl /= units.objective;
  str->fsiz /= units.objective;
  // A large objective may have become so on the way from a far start: its criterion stays.
  if (options.gradient_tolerance.has_value())
    str->agtl *= least / units.objective;
  else
    str->agtl /= std::max(units.objective, 1.0);
  if (options.step_tolerance.has_value()) str->axtl /= most;
  str->xsiz /= most;
}

}  // namespace tqnlp::face
