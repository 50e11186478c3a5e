// Problems.
#include <pybind11/stl.h>

#include <algorithm>

#include "compiled.h"
#include "convert.h"

namespace tqnlp::python {

using Doubles = py::array_t<double, py::array::c_style | py::array::forcecast>;
using Longs = py::array_t<long, py::array::c_style | py::array::forcecast>;

static bool has(const py::dict& said, const char* key) {
  return said.contains(key) && !said[key].is_none();
}

static std::vector<double> doubles(const py::dict& said, const char* key) {
  if (!has(said, key)) return {};
  const auto array = said[key].cast<Doubles>();
  return {array.data(), array.data() + array.size()};
}

static std::shared_ptr<Function> function(const py::dict& said, const char* key,
                                          const std::shared_ptr<Calls>& calls) {
  const py::tuple further = has(said, "args") ? said["args"].cast<py::tuple>() : py::tuple();
  std::string name = key;
  if (said.contains("name")) name = said["name"].cast<std::string>() + ", " + name;
  auto made = make_held<Function>(name, said[key].cast<py::object>(), further);
  if (has(said, "known") && said["known"].contains(key)) {
    const auto known = said["known"][key].cast<py::tuple>();
    made->know(known[0].cast<Doubles>(), known[1]);
  }
  calls->functions.push_back(made);
  return made;
}

// Python functions take the interpreter lock, compiled ones do not.
static Problem::Function filling_of(const py::dict& said, const char* key,
                                    const std::shared_ptr<Calls>& calls, long rows, long cols) {
  if (!py::isinstance<Compiled>(said[key]))
    return filling(calls, function(said, key, calls), rows, cols);
  return [calls, body = make_held<Compiled>(said[key].cast<Compiled>())](Point x, Values values) {
    (*body)(x, values);
    calls->watch.look();
  };
}

static Problem::Objective objective_of(const py::dict& said, const std::shared_ptr<Calls>& calls) {
  if (!py::isinstance<Compiled>(said["fun"])) return objective(calls, function(said, "fun", calls));
  return [body = filling_of(said, "fun", calls, 1, 0)](Point x) {
    double value = missing;
    body(x, {&value, 1});
    return value;
  };
}

// ---- Constraints --------------------------------------------------------------------------------

static std::pair<std::vector<double>, std::vector<double>> sides(const py::dict& said) {
  return {doubles(said, "lower"), doubles(said, "upper")};
}

// Rows in compressed form; the Python part makes it of a dense matrix too.
static void add_rows(const py::dict& block, Problem* problem) {
  const auto starts = block["starts"].cast<Longs>();
  const auto columns = block["columns"].cast<Longs>();
  const auto values = block["values"].cast<Doubles>();
  const auto [lower, upper] = sides(block);
  for (std::size_t i = 0; i < lower.size(); ++i) {
    const long from = starts.data()[i], to = starts.data()[i + 1];
    SparseRow row;
    row.columns.assign(columns.data() + from, columns.data() + to);
    row.values.assign(values.data() + from, values.data() + to);
    problem->linear(std::move(row), lower[i], upper[i]);
  }
}

// Blocks of constraints one after another as one function.
static Problem::Function together(std::vector<Problem::Function> blocks, std::vector<long> counts) {
  return [blocks = std::move(blocks), counts = std::move(counts)](Point x, Values values) {
    std::size_t from = 0;
    for (std::size_t k = 0; k < blocks.size(); ++k) {
      blocks[k](x, values.subspan(from, static_cast<std::size_t>(counts[k])));
      from += static_cast<std::size_t>(counts[k]);
    }
  };
}

// A Jacobian counts only when every block has one.
static void add_nonlinear(const py::list& blocks, long n, const std::shared_ptr<Calls>& calls,
                          Problem* problem) {
  std::vector<Problem::Function> values, jacobians;
  std::vector<long> counts, elements;
  std::vector<double> lower, upper;
  for (const py::handle item : blocks) {
    const auto block = item.cast<py::dict>();
    const auto [low, high] = sides(block);
    const long count = static_cast<long>(low.size());
    lower.insert(lower.end(), low.begin(), low.end());
    upper.insert(upper.end(), high.begin(), high.end());
    counts.push_back(count);
    elements.push_back(count * n);
    values.push_back(filling_of(block, "fun", calls, count, 0));
    if (has(block, "jac")) jacobians.push_back(filling_of(block, "jac", calls, count, n));
  }
  problem->nonlinear(std::move(lower), std::move(upper), together(std::move(values), counts));
  if (jacobians.size() == counts.size())
    problem->nonlinear_jacobian(together(std::move(jacobians), elements));
}

static void add_constraints(const py::dict& said, long n, const std::shared_ptr<Calls>& calls,
                            Problem* problem) {
  if (has(said, "lower")) {
    auto [lower, upper] = sides(said);
    problem->bounds(std::move(lower), std::move(upper));
  }
  for (const py::handle block : said["linear"].cast<py::list>())
    add_rows(block.cast<py::dict>(), problem);
  const auto blocks = said["nonlinear"].cast<py::list>();
  if (!blocks.empty()) add_nonlinear(blocks, n, calls, problem);
}

// ---- Kinds --------------------------------------------------------------------------------------

// A sparse one answers the elements of one triangle in the order of its pattern.
static void add_hessian(const py::dict& said, long n, const std::shared_ptr<Calls>& calls,
                        Problem* problem) {
  if (!has(said, "hess")) return;
  if (!has(said, "pattern")) {
    problem->hessian(filling_of(said, "hess", calls, n, n));
    return;
  }
  SparsePattern pattern;
  pattern.places = said["pattern"].cast<std::vector<std::pair<long, long>>>();
  const long count = static_cast<long>(pattern.places.size());
  problem->hessian(std::move(pattern), filling_of(said, "hess", calls, count, 0));
}

static Problem scalar_problem(const py::dict& said, long n, const std::shared_ptr<Calls>& calls) {
  const bool both = said["jac"].ptr() == Py_True;
  ObjectiveWithGradient pair;
  if (both) pair = objective_with_gradient(calls, function(said, "fun", calls), n);
  const bool maximize = said["kind"].cast<std::string>() == "maximize";
  auto value = both ? std::move(pair.objective) : objective_of(said, calls);
  Problem problem =
      maximize ? Problem::maximize(n, std::move(value)) : Problem::minimize(n, std::move(value));
  if (both)
    problem.gradient(std::move(pair.gradient));
  else if (has(said, "jac"))
    problem.gradient(filling_of(said, "jac", calls, n, 0));
  add_hessian(said, n, calls, &problem);
  return problem;
}

static Problem squares_problem(const py::dict& said, long n, const std::shared_ptr<Calls>& calls) {
  const long m = said["m"].cast<long>();
  Problem problem = Problem::least_squares(n, m, filling_of(said, "fun", calls, m, 0));
  if (has(said, "jac")) problem.jacobian(filling_of(said, "jac", calls, m, n));
  return problem;
}

static Problem quadratic_problem(const py::dict& said, long n) {
  std::vector<double> g = doubles(said, "g"), values = doubles(said, "h");
  const auto c = said["c"].cast<double>();
  if (!has(said, "places")) return Problem::quadratic({n, std::move(values)}, std::move(g), c);
  const auto places = said["places"].cast<Longs>();
  std::vector<Element> elements;
  for (std::size_t k = 0; k < values.size(); ++k)
    elements.push_back({places.data()[2 * k], places.data()[2 * k + 1], values[k]});
  return Problem::quadratic({n, std::move(elements)}, std::move(g), c);
}

Problem make_problem(const py::dict& said, const std::shared_ptr<Calls>& calls) {
  const long n = said["n"].cast<long>();
  const auto kind = said["kind"].cast<std::string>();
  Problem problem = kind == "quadratic"       ? quadratic_problem(said, n)
                    : kind == "least_squares" ? squares_problem(said, n, calls)
                                              : scalar_problem(said, n, calls);
  add_constraints(said, n, calls, &problem);
  if (has(said, "names")) problem.names(said["names"].cast<std::vector<std::string>>());
  return problem;
}

}  // namespace tqnlp::python
