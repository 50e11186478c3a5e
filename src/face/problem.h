// What a Problem holds. A problem under change has the only reference; a solve shares it.
#pragma once

#include "tqnlp/optimize.hpp"

namespace tqnlp::face {

enum class Kind { scalar, least_squares, quadratic };

// lower <= sum of values[k] x[columns[k]] <= upper; no coefficient is 0.
struct LinearRow {
  std::vector<long> columns;  // ascending
  std::vector<double> values;
  double lower = -inf;
  double upper = inf;
  std::string name;  // empty: by number
};

struct ProblemData {
  Kind kind = Kind::scalar;
  bool maximize = false;
  long n = 0;
  long m = 1;  // residuals

  Problem::Objective objective;
  Problem::Function residuals;
  Problem::Function gradient;
  Problem::Function hessian;
  Problem::Function jacobian;
  Problem::Function constraints;
  Problem::Function constraint_jacobian;
  std::optional<SparsePattern> pattern;  // of the Hessian; absent: dense

  // A quadratic. Its functions above serve techniques that do not take the matrix.
  std::shared_ptr<const SymmetricMatrix> h;
  std::vector<double> g;  // n
  double c = 0.0;

  std::vector<double> lower;  // n, also without bounds
  std::vector<double> upper;
  std::vector<LinearRow> rows;
  std::vector<double> c_lower;  // one a nonlinear constraint
  std::vector<double> c_upper;

  std::vector<std::string> names;    // empty, or n
  std::vector<std::string> c_names;  // empty, or one a nonlinear constraint

  // How messages call a parameter, a row, a nonlinear constraint.
  std::string parameter_name(long j) const;
  std::string row_name(long i) const;
  std::string constraint_name(long k) const;
};

// A number as messages show it.
std::string shown(double value);

// Throws std::invalid_argument: what is refused, what was given, what was expected.
[[noreturn]] void refuse(const std::string& field, const std::string& given,
                         const std::string& expected);

// Is there a bound on this side? Beyond the largest double there is none.
inline bool side_there(double side) {
  return side < std::numeric_limits<double>::max() && side > std::numeric_limits<double>::lowest();
}

}  // namespace tqnlp::face
