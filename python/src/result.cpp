// Results as dictionaries of plain values and arrays.
#include <pybind11/stl.h>

#include <algorithm>

#include "convert.h"

namespace tqnlp::python {

py::array_t<double> as_array(const std::vector<double>& values) {
  return py::array_t<double>(static_cast<py::ssize_t>(values.size()), values.data());
}

template <class Integer>
static py::array_t<long> as_integers(const std::vector<Integer>& values) {
  py::array_t<long> array(static_cast<py::ssize_t>(values.size()));
  std::copy(values.begin(), values.end(), array.mutable_data());
  return array;
}

static const char* name_of(Severity severity) {
  switch (severity) {
    case Severity::warning:
      return "warning";
    case Severity::error:
      return "error";
    case Severity::note:
      break;
  }
  return "note";
}

py::list as_list(const std::vector<LogRecord>& log) {
  py::list lines;
  for (const LogRecord& record : log)
    lines.append(
        py::make_tuple(record.group, record.number, name_of(record.severity), record.text));
  return lines;
}

py::list as_list(const std::vector<Table>& tables) {
  py::list list;
  for (const Table& table : tables)
    list.append(
        py::make_tuple(table.name, table.title, table.columns, table.rows, text_table(table)));
  return list;
}

static constexpr const char* VERDICTS[] = {"optimal", "not_feasible", "not_stationary",
                                           "negative_curvature", "not_known"};

static const char* name_of(Optimality::Verdict verdict) { return VERDICTS[verdict]; }

static py::dict as_dict(const Optimality& check) {
  using namespace py::literals;
  return py::dict("verdict"_a = name_of(check.verdict), "feasibility"_a = check.feasibility,
                  "stationarity"_a = check.stationarity,
                  "relative_stationarity"_a = check.relative_stationarity,
                  "complementarity"_a = check.complementarity,
                  "curvature_known"_a = check.curvature_known, "restarts"_a = check.restarts,
                  "sentence"_a = check.sentence());
}

static py::dict as_dict(const Counts& counts) {
  using namespace py::literals;
  return py::dict("iterations"_a = counts.iterations, "restarts"_a = counts.restarts,
                  "objective"_a = counts.objective, "gradient"_a = counts.gradient,
                  "hessian"_a = counts.hessian, "constraints"_a = counts.constraints,
                  "constraint_jacobian"_a = counts.constraint_jacobian,
                  "for_differences"_a = counts.for_differences, "failed"_a = counts.failed);
}

static py::dict as_dict(const History& history) {
  using namespace py::literals;
  return py::dict(
      "iteration"_a = as_integers(history.iteration), "calls"_a = as_integers(history.calls),
      "objective"_a = as_array(history.objective), "gradient"_a = as_array(history.gradient),
      "violation"_a = as_array(history.violation), "step"_a = as_array(history.step));
}

py::dict as_dict(const Result& result, const std::shared_ptr<Calls>& calls) {
  using namespace py::literals;
  const Multipliers& multipliers = result.multipliers;
  const ActiveSet& active = result.active;
  return py::dict("x"_a = as_array(result.x), "objective"_a = result.objective,
                  "gradient"_a = as_array(result.gradient),
                  "residuals"_a = as_array(result.residuals), "linear"_a = as_array(result.linear),
                  "constraints"_a = as_array(result.constraints),
                  "success"_a = static_cast<bool>(result.status), "code"_a = result.status.code,
                  "ending"_a = result.status.name(), "message"_a = result.status.sentence(),
                  "technique"_a = tqnlp::name_of(result.technique), "seconds"_a = result.seconds,
                  "seconds_in_user"_a = result.seconds_in_user,
                  "multipliers"_a = py::dict("bounds"_a = as_array(multipliers.bounds),
                                             "linear"_a = as_array(multipliers.linear),
                                             "nonlinear"_a = as_array(multipliers.nonlinear)),
                  "active"_a = py::dict("bounds"_a = as_integers(active.bounds),
                                        "linear"_a = as_integers(active.linear),
                                        "nonlinear"_a = as_integers(active.nonlinear)),
                  "optimality"_a = as_dict(result.optimality), "counts"_a = as_dict(result.counts),
                  "history"_a = as_dict(result.history), "tables"_a = as_list(result.tables),
                  "log"_a = as_list(result.log), "fit"_a = make_fit(result, calls));
}

// ---- Many starts --------------------------------------------------------------------------------

std::vector<std::vector<long>> merged_starts(const py::list& ends) {
  std::vector<Result> results;
  for (const py::handle end : ends) {
    Result result;
    result.x = end.attr("x").cast<std::vector<double>>();
    result.objective = end.attr("objective").cast<double>();
    result.status.code = end.attr("status").cast<int>();
    const auto verdict = end.attr("optimality").attr("verdict").cast<std::string>();
    const auto* const known = std::find(std::begin(VERDICTS), std::end(VERDICTS), verdict);
    result.optimality.verdict = static_cast<Optimality::Verdict>(known - std::begin(VERDICTS));
    results.push_back(std::move(result));
  }
  std::vector<std::vector<long>> starts;
  for (Solution& solution : merge_results(std::move(results)).solutions)
    starts.push_back(std::move(solution.starts));
  return starts;
}

}  // namespace tqnlp::python
