// What a result knows beyond its fields: covariance, confidence limits, profiles, Jacobian. It
// holds the functions of its problem, which are called with the lock as in a run.
#include <pybind11/stl.h>

#include <mutex>

#include "convert.h"
#include "cycles.h"

namespace tqnlp::python {

// Of a result that came from another process nothing is left. Threads use it one after the other,
// since its functions share what their calls keep; they may call it again themselves.
struct Fit {
  std::shared_ptr<const Result> result;
  std::shared_ptr<Calls> calls;
  std::shared_ptr<std::recursive_mutex> turn = std::make_shared<std::recursive_mutex>();
};

static const Result& result_of(const Fit& fit) {
  if (fit.result == nullptr)
    throw py::value_error(
        "statistics need the functions of the problem, which a result from another process does "
        "not have: solve again from its x");
  return *fit.result;
}

py::object make_fit(const Result& result, const std::shared_ptr<Calls>& calls) {
  const auto kept = make_held<Result>();
  kept->x = result.x;
  kept->objective = result.objective;
  kept->residuals = result.residuals;
  kept->multipliers = result.multipliers;
  kept->active = result.active;
  kept->origin = result.origin;
  return py::cast(Fit{kept, calls});
}

template <class Body>
static auto unlocked(const Fit& fit, const Body& body) {
  const py::gil_scoped_release others_run;
  const std::lock_guard turn(*fit.turn);
  return body();
}

// ---- Cycles -------------------------------------------------------------------------------------

static int traverse_fit(PyObject* self, visitproc visit, void* arg) {
  Py_VISIT(Py_TYPE(self));
  const Fit* fit = made<Fit>(self);
  const bool alive = fit != nullptr && fit->calls != nullptr && fit->result != nullptr;
  return alive ? traverse(fit->calls->functions, visit, arg) : 0;
}

static int clear_fit(PyObject* self) {
  if (Fit* fit = made<Fit>(self)) {
    fit->result.reset();
    fit->calls.reset();
  }
  return 0;
}

static Likelihood likelihood_of(double multiple, std::optional<double> residual_variance) {
  return {multiple, residual_variance};
}

static py::array_t<double> as_matrix(const std::vector<double>& by_rows, std::size_t columns) {
  const std::size_t rows = columns == 0 ? 0 : by_rows.size() / columns;
  return py::array_t<double>({static_cast<py::ssize_t>(rows), static_cast<py::ssize_t>(columns)},
                             by_rows.data());
}

// ---- Covariance ---------------------------------------------------------------------------------

static constexpr const char* ENDINGS[] = {"known",      "not_determined", "not_a_minimum",
                                          "no_freedom", "all_held",       "no_derivatives"};
static constexpr const char* STATES[] = {"estimated", "held", "at_bound", "undetermined",
                                         "unknown"};
static constexpr const char* KINDS[] = {"automatic", "hessian", "crossproduct"};

static Variance kind_named(const std::string& name) {
  for (int k = 0; k < 3; ++k)
    if (name == KINDS[k]) return static_cast<Variance>(k);
  throw py::value_error("kind must be 'automatic', 'hessian' or 'crossproduct', not '" + name +
                        "'");
}

static py::dict covariance(const Fit& fit, const std::string& kind, double multiple,
                           std::optional<double> residual_variance) {
  using namespace py::literals;
  const Result& result = result_of(fit);
  const Variance wanted = kind_named(kind);
  const Covariance found = unlocked(
      fit, [&] { return result.covariance(wanted, likelihood_of(multiple, residual_variance)); });
  py::list states;
  for (const auto state : found.states) states.append(STATES[state]);
  return py::dict("known"_a = static_cast<bool>(found), "ending"_a = ENDINGS[found.ending],
                  "message"_a = found.sentence(), "kind"_a = KINDS[static_cast<int>(found.kind)],
                  "matrix"_a = as_matrix(found.matrix, found.states.size()),
                  "errors"_a = as_array(found.errors), "states"_a = states,
                  "residual_variance"_a = found.residual_variance, "freedom"_a = found.freedom);
}

// ---- Limits -------------------------------------------------------------------------------------

static constexpr const char* LIMIT_ENDINGS[] = {"not_sought",  "found",       "at_bound",
                                                "not_reached", "lower_point", "search_failed",
                                                "no_target",   "no_error"};

static LimitOptions limit_options(const std::string& kind, std::vector<double> levels,
                                  std::vector<long> parameters, double multiple,
                                  std::optional<double> residual_variance) {
  if (kind != "profile" && kind != "wald")
    throw py::value_error("kind must be 'profile' or 'wald', not '" + kind + "'");
  return {kind == "wald" ? LimitKind::wald : LimitKind::profile, std::move(levels),
          std::move(parameters), likelihood_of(multiple, residual_variance)};
}

static py::dict limits(const Fit& fit, const std::string& kind, std::vector<double> levels,
                       std::vector<long> parameters, double multiple,
                       std::optional<double> residual_variance) {
  using namespace py::literals;
  const Result& result = result_of(fit);
  const LimitOptions options =
      limit_options(kind, std::move(levels), std::move(parameters), multiple, residual_variance);
  const Limits found = unlocked(fit, [&] { return result.limits(options); });
  py::list rows;
  for (const Limit& limit : found)
    rows.append(py::make_tuple(limit.parameter, limit.name, limit.level, limit.estimate,
                               limit.lower, limit.upper, LIMIT_ENDINGS[limit.lower_ending],
                               LIMIT_ENDINGS[limit.upper_ending]));
  return py::dict("rows"_a = rows, "better"_a = as_array(found.better),
                  "better_objective"_a = found.better_objective,
                  "optimizations"_a = found.optimizations, "tables"_a = as_list(found.tables),
                  "log"_a = as_list(found.log));
}

static py::dict profile(const Fit& fit, long parameter, double level, double multiple,
                        std::optional<double> residual_variance) {
  using namespace py::literals;
  const Result& result = result_of(fit);
  const Profile found = unlocked(fit, [&] {
    return result.profile(parameter, level, likelihood_of(multiple, residual_variance));
  });
  return py::dict("parameter"_a = found.parameter, "name"_a = found.name,
                  "estimate"_a = found.estimate, "values"_a = as_array(found.values),
                  "objective"_a = as_array(found.objective), "root"_a = as_array(found.root),
                  "level"_a = found.level, "quantile"_a = found.quantile);
}

static py::array_t<double> jacobian(const Fit& fit) {
  const Result& result = result_of(fit);
  return as_matrix(unlocked(fit, [&] { return result.jacobian(); }), result.x.size());
}

static py::dict says() {
  py::dict all;
  for (int k = 0; k <= Limit::no_error; ++k)
    all[LIMIT_ENDINGS[k]] = sentence_of(static_cast<Limit::Ending>(k));
  return all;
}

void bind_statistics(py::module_& module) {
  using namespace py::literals;
  py::class_<Fit>(module, "Fit", collected(traverse_fit, clear_fit))
      .def("covariance", &covariance, "kind"_a, "multiple"_a, "residual_variance"_a)
      .def("limits", &limits, "kind"_a, "levels"_a, "parameters"_a, "multiple"_a,
           "residual_variance"_a)
      .def("profile", &profile, "parameter"_a, "level"_a, "multiple"_a, "residual_variance"_a)
      .def("jacobian", &jacobian)
      .def("__deepcopy__", [](const py::object& fit, const py::dict&) { return fit; })
      .def_property_readonly("alive", [](const Fit& fit) { return fit.result != nullptr; })
      .def(py::pickle([](const Fit&) { return py::tuple(); },
                      [](const py::tuple&) { return Fit{}; }));
  module.attr("LIMIT_ENDINGS") = says();
}

}  // namespace tqnlp::python
