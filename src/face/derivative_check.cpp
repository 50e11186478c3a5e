// check_derivatives: every derivative that a problem gives against differences of what it is the
// derivative of.
#include <algorithm>
#include <cmath>

#include "aasubs/derivatives/column_differences.h"
#include "face/constraints.h"
#include "face/problem.h"
#include "kernels/vector.h"

namespace tqnlp {

namespace face {

namespace {

// Functions under test with their derivatives, one column of these at a time.
struct Tested {
  DerivativeKind kind;
  long count;                                          // functions
  Problem::Function functions;                         // fills count values
  std::function<void(long j, Values column)> derived;  // of all functions to parameter j
};

struct Caller {
  const Tested& tested;
  std::size_t n;
  Counts& counts;
  std::exception_ptr thrown;
};

}  // namespace

// ---- What is tested -----------------------------------------------------------------------------

static std::size_t size_of(long count) { return static_cast<std::size_t>(count); }

// Derivatives at x, by rows of one function each. None are there where the user has no value.
static std::vector<double> evaluate(const Problem::Function& body, Point x, std::size_t count) {
  std::vector<double> values(count, missing);
  try {
    body(x, values);
  } catch (const EvaluationFailed&) {
    values.assign(count, missing);
  }
  return values;
}

static Tested by_rows(DerivativeKind kind, long count, Problem::Function functions,
                      const Problem::Function& derivatives, Point x) {
  auto all = evaluate(derivatives, x, size_of(count) * x.size());
  return {kind, count, std::move(functions),
          [all = std::move(all), n = x.size()](long j, Values column) {
            for (std::size_t i = 0; i < column.size(); ++i) column[i] = all[i * n + size_of(j)];
          }};
}

static Tested sparse_hessian(const ProblemData& problem, Point x) {
  const auto& places = problem.pattern->places;
  auto all = evaluate(problem.hessian, x, places.size());
  return {DerivativeKind::hessian, problem.n, problem.gradient,
          [&places, all = std::move(all)](long j, Values column) {
            std::fill(column.begin(), column.end(), 0.0);
            for (std::size_t k = 0; k < places.size(); ++k) {
              const auto [row, col] = places[k];
              if (col == j) column[size_of(row)] = all[k];
              if (row == j) column[size_of(col)] = all[k];
            }
          }};
}

// The counter of the calls of what a derivative is compared with, and of the derivative itself.
static long& functions_in(Counts& calls, DerivativeKind kind) {
  return kind == DerivativeKind::hessian               ? calls.gradient
         : kind == DerivativeKind::constraint_jacobian ? calls.constraints
                                                       : calls.objective;
}
static long& derivatives_in(Counts& calls, DerivativeKind kind) {
  return kind == DerivativeKind::hessian               ? calls.hessian
         : kind == DerivativeKind::constraint_jacobian ? calls.constraint_jacobian
                                                       : calls.gradient;
}

static std::vector<Tested> what_is_given(const ProblemData& problem, Point x) {
  std::vector<Tested> given;
  if (problem.kind == Kind::quadratic) return given;  // no derivatives of the user's own
  if (problem.gradient != nullptr)
    given.push_back(by_rows(
        DerivativeKind::gradient, 1,
        [&problem](Point at, Values value) { value[0] = problem.objective(at); }, problem.gradient,
        x));
  if (problem.jacobian != nullptr)
    given.push_back(
        by_rows(DerivativeKind::jacobian, problem.m, problem.residuals, problem.jacobian, x));
  if (problem.constraint_jacobian != nullptr)
    given.push_back(by_rows(DerivativeKind::constraint_jacobian,
                            static_cast<long>(problem.c_lower.size()), problem.constraints,
                            problem.constraint_jacobian, x));
  if (problem.hessian == nullptr || problem.gradient == nullptr) return given;
  given.push_back(problem.pattern.has_value() ? sparse_hessian(problem, x)
                                              : by_rows(DerivativeKind::hessian, problem.n,
                                                        problem.gradient, problem.hessian, x));
  return given;
}

// ---- Comparison ---------------------------------------------------------------------------------

static bool call(void* user, const double* x, double* values) {
  auto& caller = *static_cast<Caller*>(user);
  const auto count = size_of(caller.tested.count);
  ++functions_in(caller.counts, caller.tested.kind);
  ++caller.counts.for_differences;
  try {
    caller.tested.functions({x, caller.n}, {values, count});
    return all_finite(caller.tested.count, values);
  } catch (const EvaluationFailed&) {
    ++caller.counts.failed;
    return false;
  } catch (...) {
    caller.thrown = std::current_exception();
    return false;
  }
}

// What stands above the diagonal of a Hessian counts.
static long rows_that_count(const Tested& tested, long j) {
  return tested.kind == DerivativeKind::hessian ? j + 1 : tested.count;
}

static void compare(const Tested& tested, const Constraints& constraints, double digits,
                    std::vector<double> x, DerivativeCheck* check) {
  const auto count = size_of(tested.count);
  std::vector<double> given(count), difference(count), error(count), work(2 * count);
  ++derivatives_in(check->calls, tested.kind);
  Caller caller{tested, x.size(), check->calls, nullptr};
  ColumnDifferences column{.count = tested.count, .evaluate = call, .user = &caller, .x = x.data()};
  if (constraints.bounds) {
    column.lower = constraints.lower.data();
    column.upper = constraints.upper.data();
  }
  column.digits = digits;
  column.difference = difference.data();
  column.error = error.data();
  column.work = work.data();
  for (long j = 0; j < static_cast<long>(x.size()); ++j) {
    tested.derived(j, given);
    const int result = difference_column(&column, j);
    if (caller.thrown != nullptr) std::rethrow_exception(caller.thrown);
    const long rows = rows_that_count(tested, j);
    (result == COLUMN_TAKEN ? check->compared : check->left_out) += rows;
    for (std::size_t i = 0; i < size_of(rows) && result == COLUMN_TAKEN; ++i)
      if (is_wrong_derivative(given[i], difference[i], error[i]))
        check->wrong.push_back(
            {tested.kind, static_cast<long>(i), j, given[i], difference[i], error[i]});
  }
}

// ---- Report -------------------------------------------------------------------------------------

static std::string function_name(const ProblemData& problem, const DerivativeElement& element) {
  switch (element.kind) {
    case DerivativeKind::hessian:
      return problem.parameter_name(element.row);
    case DerivativeKind::constraint_jacobian:
      return problem.constraint_name(element.row);
    case DerivativeKind::jacobian:
      return "residual " + std::to_string(element.row);
    default:
      return "objective";
  }
}

static Table summarize(const ProblemData& problem, const std::vector<DerivativeElement>& wrong) {
  static constexpr const char* KINDS[] = {"gradient", "hessian", "jacobian", "constraint_jacobian"};
  Table table;
  table.name = "DerivativeCheck";
  table.title = "Derivatives that differences contradict";
  table.columns = {"Derivative", "Function", "Parameter", "Given", "Difference", "Error"};
  for (const DerivativeElement& element : wrong)
    table.rows.push_back({std::string(KINDS[static_cast<int>(element.kind)]),
                          function_name(problem, element),
                          problem.parameter_name(element.parameter), element.given,
                          element.difference, element.error});
  return table;
}

}  // namespace face

DerivativeCheck check_derivatives(const Problem& problem, std::vector<double> x,
                                  const Options& options) {
  const Problem held = problem;
  const face::ProblemData& data = held.data();
  if (x.size() != face::size_of(data.n))
    face::refuse("x", std::to_string(x.size()) + " elements", std::to_string(data.n));
  if (!all_finite(data.n, x.data())) face::refuse("x", "an element that is none", "numbers");
  const face::Constraints constraints = face::normalize(data);
  for (std::size_t j = 0; j < x.size() && constraints.bounds; ++j)
    x[j] = std::clamp(x[j], constraints.lower[j], constraints.upper[j]);
  DerivativeCheck check;
  for (const face::Tested& tested : face::what_is_given(data, x)) {
    const bool of_constraints = tested.kind == DerivativeKind::constraint_jacobian;
    const auto& digits = of_constraints ? options.constraint_digits : options.objective_digits;
    face::compare(tested, constraints, digits.value_or(0.0), x, &check);
  }
  check.summary = face::summarize(data, check.wrong);
  return check;
}

}  // namespace tqnlp
