// Problem: takes what the user says, and refuses at once what cannot be meant. What depends on
// several of its parts (bounds that cross, rows that contradict bounds) waits for the solve.
#include "face/problem.h"

#include <algorithm>
#include <cmath>
#include <sstream>
#include <stdexcept>

namespace tqnlp {

using face::LinearRow;
using face::ProblemData;
using face::refuse;
using face::shown;

namespace face {

// ---- Words --------------------------------------------------------------------------------------

std::string shown(double value) {
  std::ostringstream text;
  text.precision(17);
  text << value;
  return text.str();
}

void refuse(const std::string& field, const std::string& given, const std::string& expected) {
  throw std::invalid_argument("tqnlp: " + field + ": " + given + "; expected " + expected);
}

static std::string name_or_number(const std::vector<std::string>& names, long k, const char* word) {
  const auto place = static_cast<std::size_t>(k);
  if (place < names.size() && !names[place].empty()) return "\"" + names[place] + "\"";
  return word + std::to_string(k);
}

std::string ProblemData::parameter_name(long j) const {
  return name_or_number(names, j, "parameter ");
}

std::string ProblemData::row_name(long i) const {
  const std::string& name = rows[static_cast<std::size_t>(i)].name;
  return name.empty() ? "linear row " + std::to_string(i) : "linear row \"" + name + "\"";
}

std::string ProblemData::constraint_name(long k) const {
  return name_or_number(c_names, k, "nonlinear constraint ");
}

}  // namespace face

// ---- Checks -------------------------------------------------------------------------------------

static constexpr long MOST_PARAMETERS = std::numeric_limits<int>::max();

template <class Body>
static void check_function(const char* field, const Body& body) {
  if (body == nullptr) refuse(field, "an empty function", "one that can be called");
}

static void check_count(const char* field, long count) {
  if (count < 1 || count > MOST_PARAMETERS)
    refuse(field, std::to_string(count), "1 to " + std::to_string(MOST_PARAMETERS));
}

static void check_size(const char* field, std::size_t given, long expected) {
  if (given != static_cast<std::size_t>(expected))
    refuse(field, std::to_string(given) + " elements", std::to_string(expected));
}

static void check_finite(const char* field, const std::vector<double>& values) {
  for (std::size_t k = 0; k < values.size(); ++k)
    if (!std::isfinite(values[k]))
      refuse(field, shown(values[k]) + " as element " + std::to_string(k), "finite numbers");
}

static void check_index(const std::string& field, long index, long count) {
  if (index < 0 || index >= count)
    refuse(field, std::to_string(index), "0 to " + std::to_string(count - 1));
}

// Sides of a constraint: an infinite lower one above, or upper one below, cannot be met.
static void check_sides(const std::string& field, double lower, double upper) {
  if (std::isnan(lower) || std::isnan(upper))
    refuse(field, "a side that is no number", "numbers, or -inf and inf for none");
  if (lower == inf || upper == -inf)
    refuse(field, "sides " + shown(lower) + " and " + shown(upper), "a side that can be met");
}

// ---- Kinds --------------------------------------------------------------------------------------

static std::shared_ptr<ProblemData> new_problem(long n) {
  check_count("n, the number of parameters", n);
  auto data = std::make_shared<ProblemData>();
  data->n = n;
  data->lower.assign(static_cast<std::size_t>(n), -inf);
  data->upper.assign(static_cast<std::size_t>(n), inf);
  return data;
}

Problem Problem::minimize(long n, Objective objective) {
  auto data = new_problem(n);
  check_function("objective", objective);
  data->objective = std::move(objective);
  return Problem(std::move(data));
}

Problem Problem::maximize(long n, Objective objective) {
  Problem problem = minimize(n, std::move(objective));
  problem.data_->maximize = true;
  return problem;
}

Problem Problem::least_squares(long n, long m, Function residuals) {
  auto data = new_problem(n);
  check_count("m, the number of residuals", m);
  check_function("residuals", residuals);
  data->kind = face::Kind::least_squares;
  data->m = m;
  data->residuals = std::move(residuals);
  return Problem(std::move(data));
}

// ---- Quadratics ---------------------------------------------------------------------------------

SymmetricMatrix SymmetricMatrix::diagonal(const std::vector<double>& values) {
  std::vector<Element> elements;
  for (double value : values) {
    const long j = static_cast<long>(elements.size());
    elements.push_back({j, j, value});
  }
  return SymmetricMatrix(static_cast<long>(values.size()), std::move(elements));
}

// One sense of "the same" for what is given twice: to a millionth, as the calling surface has it.
static bool agree(double a, double b) {
  static constexpr double SHARE = 1e-6;
  return std::fabs(a - b) <= SHARE * std::max({std::fabs(a), std::fabs(b)});
}

static void check_dense(const SymmetricMatrix& h) {
  const long n = h.order();
  check_size("h, the matrix of the quadratic", h.dense().size(), n * n);
  check_finite("h, the matrix of the quadratic", h.dense());
  for (long i = 0; i < n; ++i)
    for (long j = 0; j < i; ++j) {
      const double lower = h.dense()[static_cast<std::size_t>(i * n + j)];
      const double upper = h.dense()[static_cast<std::size_t>(j * n + i)];
      if (!agree(lower, upper))
        refuse("h, the matrix of the quadratic",
               shown(lower) + " and " + shown(upper) + " as elements (" + std::to_string(i) + ", " +
                   std::to_string(j) + ") and its mirror image",
               "a symmetric matrix");
    }
}

// The elements of the lower triangle in order, each once.
static std::vector<Element> checked_elements(const SymmetricMatrix& h) {
  std::vector<Element> list = h.elements();
  for (Element& e : list) {
    check_index("h, row of an element", e.row, h.order());
    check_index("h, column of an element", e.col, h.order());
    if (!std::isfinite(e.value))
      refuse("h, value of an element", shown(e.value), "a finite number");
    if (e.col > e.row) std::swap(e.row, e.col);
  }
  const auto place = [](const Element& e) { return std::pair(e.row, e.col); };
  std::stable_sort(list.begin(), list.end(),
                   [&](const Element& a, const Element& b) { return place(a) < place(b); });
  std::vector<Element> once;
  for (const Element& e : list) {
    if (once.empty() || place(once.back()) != place(e)) {
      once.push_back(e);
    } else if (!agree(once.back().value, e.value)) {
      refuse("h, element (" + std::to_string(e.row) + ", " + std::to_string(e.col) + ")",
             shown(once.back().value) + " and " + shown(e.value), "one value, or the same twice");
    }
  }
  return once;
}

// product := H x.
static void multiply(const SymmetricMatrix& h, Point x, Values product) {
  const std::size_t n = x.size();
  for (std::size_t i = 0; i < n; ++i) {
    double sum = 0.0;
    for (std::size_t j = 0; !h.is_sparse() && j < n; ++j) sum += h.dense()[i * n + j] * x[j];
    product[i] = sum;
  }
  for (const Element& e : h.elements()) {
    const auto i = static_cast<std::size_t>(e.row), j = static_cast<std::size_t>(e.col);
    product[i] += e.value * x[j];
    if (i != j) product[j] += e.value * x[i];
  }
}

// The quadratic as functions, for techniques that know nothing of matrices.
static void set_quadratic_functions(ProblemData& data) {
  const std::shared_ptr<const SymmetricMatrix> h = data.h;
  const std::vector<double> g = data.g;
  const auto slopes = [h, g](Point x, Values values) {
    multiply(*h, x, values);
    for (std::size_t j = 0; j < g.size(); ++j) values[j] += g[j];
  };
  data.objective = [h, g, c = data.c](Point x) {
    thread_local std::vector<double> product;  // as long as the longest so far
    if (product.size() < x.size()) product.resize(x.size());
    multiply(*h, x, product);
    double linear = 0.0, square = 0.0;
    for (std::size_t j = 0; j < x.size(); ++j) {
      linear += g[j] * x[j];
      square += product[j] * x[j];
    }
    return c + (linear + 0.5 * square);
  };
  data.gradient = slopes;
  if (h->is_sparse()) {
    data.pattern.emplace();
    for (const Element& e : h->elements()) data.pattern->places.emplace_back(e.row, e.col);
    data.hessian = [h](Point, Values values) {
      for (std::size_t k = 0; k < values.size(); ++k) values[k] = h->elements()[k].value;
    };
  } else {
    data.hessian = [h](Point, Values values) {
      std::copy(h->dense().begin(), h->dense().end(), values.begin());
    };
  }
}

Problem Problem::quadratic(SymmetricMatrix h, std::vector<double> g, double c) {
  auto data = new_problem(h.order());
  data->kind = face::Kind::quadratic;
  if (h.is_sparse()) {
    h = SymmetricMatrix(h.order(), checked_elements(h));
  } else {
    check_dense(h);
  }
  if (g.empty()) g.assign(static_cast<std::size_t>(h.order()), 0.0);
  check_size("g, the linear term", g.size(), h.order());
  check_finite("g, the linear term", g);
  if (!std::isfinite(c)) refuse("c, the constant", shown(c), "a finite number");
  data->g = std::move(g);
  data->c = c;
  data->h = std::make_shared<const SymmetricMatrix>(std::move(h));
  set_quadratic_functions(*data);
  return Problem(std::move(data));
}

// ---- Derivatives --------------------------------------------------------------------------------

const ProblemData& Problem::data() const {
  if (data_ == nullptr) refuse("problem", "one that was moved from", "one that holds something");
  return *data_;
}

// A problem that is shared, with a copy or with a run, is copied before it changes.
ProblemData& Problem::change() {
  data();
  if (data_.use_count() > 1) data_ = std::make_shared<ProblemData>(*data_);
  return *data_;
}

long Problem::parameters() const { return data().n; }

// A quadratic has its derivatives.
static void check_settable(const char* field, const ProblemData& data, face::Kind kind) {
  if (data.kind == kind) return;
  static constexpr const char* KINDS[] = {"a scalar objective", "least squares", "a quadratic"};
  refuse(field, std::string("a problem of ") + KINDS[static_cast<int>(data.kind)],
         KINDS[static_cast<int>(kind)]);
}

Problem& Problem::gradient(Function body) {
  check_settable("gradient", data(), face::Kind::scalar);
  check_function("gradient", body);
  change().gradient = std::move(body);
  return *this;
}

Problem& Problem::hessian(Function body) {
  check_settable("hessian", data(), face::Kind::scalar);
  check_function("hessian", body);
  ProblemData& own = change();
  own.hessian = std::move(body);
  own.pattern.reset();
  return *this;
}

Problem& Problem::hessian(SparsePattern pattern, Function body) {
  check_settable("hessian", data(), face::Kind::scalar);
  check_function("hessian", body);
  std::vector<std::pair<long, long>> seen;
  for (const auto& [row, col] : pattern.places) {
    check_index("hessian, row of a place", row, data().n);
    check_index("hessian, column of a place", col, data().n);
    seen.emplace_back(std::max(row, col), std::min(row, col));
  }
  std::sort(seen.begin(), seen.end());
  const auto twice = std::adjacent_find(seen.begin(), seen.end());
  if (twice != seen.end())
    refuse("hessian, place (" + std::to_string(twice->first) + ", " +
               std::to_string(twice->second) + ")",
           "named twice", "each place once, in one triangle");
  ProblemData& own = change();
  own.hessian = std::move(body);
  own.pattern = std::move(pattern);
  return *this;
}

Problem& Problem::jacobian(Function body) {
  check_settable("jacobian", data(), face::Kind::least_squares);
  check_function("jacobian", body);
  change().jacobian = std::move(body);
  return *this;
}

// ---- Constraints --------------------------------------------------------------------------------

Problem& Problem::bounds(std::vector<double> lower, std::vector<double> upper) {
  const long n = data().n;
  check_size("bounds, lower", lower.size(), n);
  check_size("bounds, upper", upper.size(), n);
  for (std::size_t j = 0; j < lower.size(); ++j)
    check_sides("bounds of " + data().parameter_name(static_cast<long>(j)), lower[j], upper[j]);
  ProblemData& own = change();
  own.lower = std::move(lower);
  own.upper = std::move(upper);
  return *this;
}

Problem& Problem::bound(long parameter, double lower, double upper) {
  check_index("bound, the parameter", parameter, data().n);
  check_sides("bound of " + data().parameter_name(parameter), lower, upper);
  ProblemData& own = change();
  own.lower[static_cast<std::size_t>(parameter)] = lower;
  own.upper[static_cast<std::size_t>(parameter)] = upper;
  return *this;
}

Problem& Problem::linear(std::vector<double> a, double lower, double upper, std::string name) {
  check_size("linear, the coefficients", a.size(), data().n);
  SparseRow row;
  for (std::size_t j = 0; j < a.size(); ++j) {
    if (a[j] == 0.0) continue;
    row.columns.push_back(static_cast<long>(j));
    row.values.push_back(a[j]);
  }
  return linear(std::move(row), lower, upper, std::move(name));
}

// Coefficients in the order of their columns; those that are 0 are left out.
Problem& Problem::linear(SparseRow a, double lower, double upper, std::string name) {
  check_size("linear, the values", a.values.size(), static_cast<long>(a.columns.size()));
  check_finite("linear, the coefficients", a.values);
  check_sides("linear", lower, upper);
  std::vector<std::pair<long, double>> terms;
  for (std::size_t k = 0; k < a.columns.size(); ++k) {
    check_index("linear, a column", a.columns[k], data().n);
    if (a.values[k] != 0.0) terms.emplace_back(a.columns[k], a.values[k]);
  }
  std::sort(terms.begin(), terms.end());
  LinearRow row{{}, {}, lower, upper, std::move(name)};
  double size = 0.0;
  for (const auto& [column, value] : terms) {
    if (!row.columns.empty() && row.columns.back() == column)
      refuse("linear, column " + std::to_string(column), "named twice", "each column once");
    row.columns.push_back(column);
    row.values.push_back(value);
    size += std::fabs(value);
  }
  if (!std::isfinite(size)) refuse("linear, the coefficients", "a sum that overflows", "less");
  change().rows.push_back(std::move(row));
  return *this;
}

Problem& Problem::nonlinear(std::vector<double> lower, std::vector<double> upper, Function body) {
  check_count("nonlinear, the number of constraints", static_cast<long>(lower.size()));
  check_size("nonlinear, upper", upper.size(), static_cast<long>(lower.size()));
  check_function("nonlinear", body);
  for (std::size_t k = 0; k < lower.size(); ++k) {
    const std::string field = "sides of " + data().constraint_name(static_cast<long>(k));
    check_sides(field, lower[k], upper[k]);
    if (lower[k] > upper[k])
      refuse(field, shown(lower[k]) + " above " + shown(upper[k]), "lower at most upper");
  }
  ProblemData& own = change();
  own.c_lower = std::move(lower);
  own.c_upper = std::move(upper);
  own.constraints = std::move(body);
  own.constraint_jacobian = nullptr;
  return *this;
}

Problem& Problem::nonlinear_jacobian(Function body) {
  check_function("nonlinear_jacobian", body);
  if (data().constraints == nullptr)
    refuse("nonlinear_jacobian", "a problem without nonlinear constraints",
           "nonlinear() to be called before");
  change().constraint_jacobian = std::move(body);
  return *this;
}

Problem& Problem::names(std::vector<std::string> parameters) {
  check_size("names", parameters.size(), data().n);
  change().names = std::move(parameters);
  return *this;
}

Problem& Problem::nonlinear_names(std::vector<std::string> constraints) {
  check_size("nonlinear_names", constraints.size(), static_cast<long>(data().c_lower.size()));
  change().c_names = std::move(constraints);
  return *this;
}

}  // namespace tqnlp
